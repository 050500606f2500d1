/* Platform calls that can be told to fail: this binary's definitions stand in front of the host's,
 * count, and pass on. Hooks come in the same way, since this binary is the platform. */
#ifndef ZAN_FAULT_POINTS_H
#define ZAN_FAULT_POINTS_H

#include "zan_table_base.h"

namespace faults
{

enum point_t {
    NONE,
    RESOLVE_HOOK,
    RESERVE_ID,
    DYN_ALLOC,
    PRE_CREATE_RDESC,
    SEND,
    CREATE_HOOK,
    BIND,
    INSERT,
    POST_CREATE_RDESC,
    UPDATE_RESERVE_ID,
    PRE_UPDATE_RDESC,
    UPDATE_HOOK,
    POST_UPDATE_RDESC,
    PRE_DELETE_RDESC,
    DELETE_HOOK,
    POST_DELETE_RDESC,
    DB_DELETE,
    WALK,
    EVENT_HOOK,
};

constexpr zan_rcode hook_rc = 0x4fa0beef;
constexpr int send_rc = 28; /* ENOSPC */
constexpr zan_rcode walk_rc = 0x4fa0ba1c;

/* The N-th call from now on fails, and with `persistent` all behind it: of those on the dispatcher
 * thread, or of those under an NPU's identity, whose order against the others a seed decides. */
enum side_t {
    ON_DISPATCHER,
    ON_NPUS
};
void arm(uint32_t nth, bool persistent, side_t side);
void disarm();
/* The point that failed first since then, or NONE. */
point_t fired();

} // namespace faults

#endif
