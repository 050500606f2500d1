#include "fault_points.h"

#include <dlfcn.h>

#include "dependency_graph.h"
#include "exec_queue.h"
#include "table_database.h"
#include "table_properties.h"
#include "thread_control.h"

namespace faults
{

static uint32_t calls, fail_at;
static bool fail_on;
static side_t fail_side;
static point_t first;

void arm(uint32_t nth, bool persistent, side_t side)
{
    calls = 0;
    fail_at = nth;
    fail_on = persistent;
    fail_side = side;
    first = NONE;
}

void disarm()
{
    fail_at = 0;
}

point_t fired()
{
    return first;
}

/* Hooks may run on NPU threads; the sweep steps its NPUs, so that all of it is one thread. */
static bool fails(point_t point)
{
    if ((zan_thread_npu() >= 0 ? ON_NPUS : ON_DISPATCHER) != fail_side)
        return false;
    calls++;
    if (fail_at == 0 || (calls != fail_at && !(fail_on && calls > fail_at)))
        return false;
    if (first == NONE)
        first = point;
    return true;
}

template <class F> F *host(const char *name)
{
    return (F *)dlsym(RTLD_NEXT, name);
}

} // namespace faults

using namespace faults;

extern "C" {

ZAN_EXPORT void *zan_shm_dyn_alloc(uint32_t table_id, size_t size)
{
    static auto *real = host<void *(uint32_t, size_t)>("zan_shm_dyn_alloc");
    return fails(DYN_ALLOC) ? nullptr : real(table_id, size);
}

ZAN_EXPORT int kor_exec_q_req_bcast(kor_exec_q_st *queue, zan_exec_q_msg_st *msg,
                                    kor_npu_mask_t mask)
{
    static auto *real =
        host<int(kor_exec_q_st *, zan_exec_q_msg_st *, kor_npu_mask_t)>("kor_exec_q_req_bcast");
    return fails(SEND) ? send_rc : real(queue, msg, mask);
}

ZAN_EXPORT zan_rcode kor_dpd_add(zan_table_base_st *parent, zan_table_base_st *child)
{
    static auto *real = host<zan_rcode(zan_table_base_st *, zan_table_base_st *)>("kor_dpd_add");
    return fails(BIND) ? ZAN_RC_BIND_REFUSED : real(parent, child);
}

ZAN_EXPORT zan_rcode zan_db_insert(zan_table_base_st *db_obj)
{
    static auto *real = host<zan_rcode(zan_table_base_st *)>("zan_db_insert");
    return fails(INSERT) ? ZAN_RC_TABLE_FULL : real(db_obj);
}

ZAN_EXPORT void zan_db_delete(zan_db_del_ctx_t *ctx)
{
    static auto *real = host<void(zan_db_del_ctx_t *)>("zan_db_delete");
    const zan_table_base_st *obj = ctx->db_obj;
    /* A block that was never stored has nothing that could be refused. */
    if (zan_db_hdl_is_valid(obj->table_id, (uint64_t)(uintptr_t)obj) && fails(DB_DELETE))
        ctx->rc = ZAN_RC_TABLE_FULL;
    else
        real(ctx);
}

ZAN_EXPORT zan_rcode kor_dpd_event_bwalk(kor_dpd_event_ctx_t *walk_ctx, uint32_t trans_id)
{
    static auto *real = host<zan_rcode(kor_dpd_event_ctx_t *, uint32_t)>("kor_dpd_event_bwalk");
    return fails(WALK) ? walk_rc : real(walk_ctx, trans_id);
}

#define SWEPT_EVENT(T)                                                                             \
    ZAN_EXPORT zan_rcode srv_##T##_event(kor_dpd_event_ctx_t *, zan_table_base_st *)               \
    {                                                                                              \
        return fails(EVENT_HOOK) ? hook_rc : EOK;                                                  \
    }

#define SWEPT_HOOK(T, name, point, argument)                                                       \
    ZAN_EXPORT zan_rcode srv_##T##_##name(argument)                                                \
    {                                                                                              \
        return fails(point) ? hook_rc : EOK;                                                       \
    }
#define SWEPT_HOOKS(T)                                                                             \
    ZAN_EXPORT zan_rcode srv_##T##_resolve(zan_table_base_st *, zan_table_base_st *)               \
    {                                                                                              \
        return fails(RESOLVE_HOOK) ? hook_rc : EOK;                                                \
    }                                                                                              \
    SWEPT_HOOK(T, pre_create_rdesc, PRE_CREATE_RDESC, zan_rdesc_hook_ctx_t *)                      \
    SWEPT_HOOK(T, post_create_rdesc, POST_CREATE_RDESC, zan_rdesc_hook_ctx_t *)                    \
    SWEPT_HOOK(T, create, CREATE_HOOK, zan_table_base_st *)                                        \
    SWEPT_HOOK(T, pre_update_rdesc, PRE_UPDATE_RDESC, zan_rdesc_hook_ctx_t *)                      \
    SWEPT_HOOK(T, post_update_rdesc, POST_UPDATE_RDESC, zan_rdesc_hook_ctx_t *)                    \
    SWEPT_HOOK(T, update, UPDATE_HOOK, zan_delta_lists_t *)                                        \
    SWEPT_HOOK(T, pre_delete_rdesc, PRE_DELETE_RDESC, zan_rdesc_hook_ctx_t *)                      \
    SWEPT_HOOK(T, post_delete_rdesc, POST_DELETE_RDESC, zan_rdesc_hook_ctx_t *)                    \
    SWEPT_HOOK(T, delete, DELETE_HOOK, zan_table_base_st *)
#define SWEPT_IDENTIFIERS(T)                                                                       \
    zan_rcode srv_##T##_reserve_id_infra_default(int32_t npu, zan_table_base_st *obj);             \
    zan_rcode srv_##T##_release_id_infra_default(int32_t npu, zan_table_base_st *obj);             \
    ZAN_EXPORT zan_rcode srv_##T##_reserve_id(int32_t npu, zan_table_base_st *obj)                 \
    {                                                                                              \
        return fails(RESERVE_ID) ? hook_rc : srv_##T##_reserve_id_infra_default(npu, obj);         \
    }                                                                                              \
    ZAN_EXPORT zan_rcode srv_##T##_update_reserve_id(int32_t npu, zan_table_base_st *new_obj,      \
                                                     zan_table_base_st *, uint32_t *)              \
    {                                                                                              \
        return fails(UPDATE_RESERVE_ID) ? hook_rc                                                  \
                                        : srv_##T##_reserve_id_infra_default(npu, new_obj);        \
    }

/* One table for each distinct way of a write: the four hardware forms, with and without
 * identifiers (per NPU and for the object), members, in-flight tracking, and each mode of hardware
 * codes. */
SWEPT_HOOKS(ipnhgroup)
SWEPT_IDENTIFIERS(ipnhgroup)
SWEPT_HOOKS(iproute)
SWEPT_IDENTIFIERS(iproute)
SWEPT_HOOKS(mplsnh)
SWEPT_HOOKS(sr6sid)
SWEPT_HOOKS(l2brmac)
SWEPT_IDENTIFIERS(l2brmac)
SWEPT_HOOKS(iptnldecap)
SWEPT_HOOKS(ipnh)
SWEPT_HOOKS(redirectvrf)
SWEPT_IDENTIFIERS(redirectvrf)
SWEPT_HOOKS(l2intf)
SWEPT_IDENTIFIERS(l2intf)
/* Sources of walks: written by this thread, through the NPU threads, and not waited for. */
SWEPT_HOOKS(testca)
SWEPT_EVENT(testca)
SWEPT_HOOKS(testdynhg)
SWEPT_EVENT(testdynhg)
SWEPT_HOOKS(testasyncnhg)
SWEPT_EVENT(testasyncnhg)
SWEPT_HOOKS(test_rt)
}
