/* Start and stop of the host platform, and what it is told at its start.
 *
 * The process calls zan_host_start once, before the first batch, on the thread that will dispatch,
 * and zan_host_stop at its end, after the server's tear-down. A process starts once: a table's init
 * does not run again.
 */
#ifndef ZAN_HOST_START_H
#define ZAN_HOST_START_H

#include "zan_types.h"

typedef struct zan_host_config_t {
    uint32_t num_npus;           /* 0 to ZAN_MAX_NPUS */
    uint8_t per_object_npu_mask; /* each object's npu_mask narrows a write */
    uint8_t standby;             /* the database is written, no hardware touched */
    uint8_t stepped;             /* NPU messages run on the caller's thread, in seeded order */
    uint64_t seed;
    uint32_t stats_period_ms; /* between two passes of the periodic statistics; 0: none is made but
                                 by zan_host_stats_pass */
} zan_host_config_t;

ZAN_EXTERN_C_BEGIN
/* 0, or a code when the pool or the threads cannot be had; nothing is started then. */
ZAN_EXPORT zan_rcode zan_host_start(const zan_host_config_t *config);
ZAN_EXPORT void zan_host_stop(void);
/* Change the role of a running node: it counts from the next operation. Dispatcher thread. */
ZAN_EXPORT void zan_host_set_standby(bool standby);
ZAN_EXTERN_C_END

#endif
