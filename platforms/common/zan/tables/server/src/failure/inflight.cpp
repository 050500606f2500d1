/* In-flight control: at most one asynchronous write is under way for one database object, in the
 * tables that track it. The flag goes up before the send, and down when the last NPU has finished
 * or the send failed. */
#include "table_server_api_common.h"

/* Turns of a 10-microsecond sleep: 30 minutes. */
constexpr uint64_t INFLIGHT_FOR_30MIN = 180000000;
constexpr uint64_t INFLIGHT_SLEEP_US = 10;

void zan_atomic_mod_inflight_flag_in_dbobj_with_handle(const srv_zan_table_props_t *props,
                                                       zan_table_base_st *obj, bool raise)
{
    if (!props->track_inflight ||
        (obj->table_operation != ZAN_TABLE_CREATE && obj->table_operation != ZAN_TABLE_UPDATE))
        return;
    auto *db_obj = (zan_table_base_st *)(uintptr_t)obj->obj_handle;
    if (raise) {
        const uint8_t new_val = __atomic_add_fetch(&db_obj->inflight, 1, __ATOMIC_SEQ_CST);
        ZAN_ASSERT(new_val == 1, "new_val == 1");
    } else {
        const uint8_t new_val = __atomic_sub_fetch(&db_obj->inflight, 1, __ATOMIC_SEQ_CST);
        ZAN_ASSERT(new_val == 0, "new_val == 0");
    }
}

static uint8_t read_inflight(const zan_table_base_st *db_obj)
{
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    return __atomic_load_n(&db_obj->inflight, __ATOMIC_SEQ_CST);
}

void zan_server_api_inflight_block(const zan_table_def_t *def, zan_table_base_st *new_obj,
                                   zan_table_base_st *db_obj)
{
    if (!db_obj || read_inflight(db_obj) == 0)
        return;
    const zan_global_ctx_st *ctx = zan_get_global_ctx();
    kor_exec_q_wake_npu_threads(ctx ? ctx->npu_mask_all : 0, 1);
    timespec start, end, taken;
    zan_clock_gettime(CLOCK_MONOTONIC, &start);
    /* The one place where the dispatcher gives up the dispatch lock in the middle of an operation,
     * so that a hook which needs it can finish: hardware access closed first, reopened last. */
    const bool dispatcher = zan_core_is_dispatch_thread();
    if (dispatcher) {
        const int lrc = kor_hw_access_complete();
        ZAN_ASSERT(lrc == 0, "lrc == 0");
        kor_core_unlock_dispatch_lock();
    }
    zan_usleep(INFLIGHT_SLEEP_US);
    uint64_t inflight_loop_count = 1;
    while (read_inflight(db_obj)) {
        zan_usleep(INFLIGHT_SLEEP_US);
        inflight_loop_count++;
        ZAN_ASSERT(inflight_loop_count < INFLIGHT_FOR_30MIN,
                   "inflight_loop_count < INFLIGHT_FOR_30MIN");
    }
    zan_clock_gettime(CLOCK_MONOTONIC, &end);
    clock_diff(&start, &end, &taken);
    ZAN_TRACE_TABLE(zan_slt_table_id(def->id, ZAN_TRACE_LEVEL_VERBOSE), def->id, INFLIGHT_WAITED,
                    new_obj->table_operation, new_obj->obj_id, db_obj->obj_id, inflight_loop_count,
                    taken.tv_sec, taken.tv_nsec / 1000);
    if (dispatcher) {
        kor_core_lock_dispatch_lock();
        const int lrc = kor_hw_access_in_progress();
        ZAN_ASSERT(lrc == 0, "lrc == 0");
    }
}
