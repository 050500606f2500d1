/* Waiting for the answers of the NPU threads: the only place where the dispatcher does.
 *
 * A bounded number of time-outs is allowed, and each at which the queue has drained a little does
 * not count: a slow driver is not a hung one. The programming lock is dropped around the blocking
 * call by the dispatcher thread alone.
 */
#include "table_server_api_common.h"

#include <cstdio>

namespace
{

constexpr int max_retries = 12;
constexpr uint32_t warn_at = 0x92; /* bits 7, 4 and 1: retries at which the operator is warned */

int wait_once(kor_exec_q_st *queue)
{
    const bool dispatcher = zan_core_is_dispatch_thread();
    if (dispatcher)
        zan_threads_server_programming_unlock();
    const int rc = kor_exec_q_resp_wait(queue);
    if (dispatcher)
        zan_threads_server_programming_lock();
    return rc;
}

void warn_operator(int retries)
{
    char text[256];
    snprintf(text, sizeof text,
             "Unresponsive driver, traffic might be affected. Retries remaining - %d out of %d",
             retries, max_retries);
    plat_errmsg(plat_msg_rec_zan_warn_err_getfn(), 4, text);
}

/* What one time-out does to the budget: the retries that the next step takes one from. */
int after_timeout(kor_exec_q_st *queue, uint32_t table_id, uint32_t trans_id, int retries,
                  uint32_t *prev_depth)
{
    zan_counter_raise(table_id, ZAN_CTR_WAIT_TIMEOUT);
    const bool progress = *prev_depth > kor_exec_q_get_depth(queue);
    *prev_depth = kor_exec_q_get_depth(queue);
    ZAN_TRACE_TABLE(zan_slt_table_id(table_id, ZAN_TRACE_LEVEL_ERROR), table_id, WAIT_TIMEOUT,
                    trans_id, retries, progress, *prev_depth);
    if (progress)
        return retries + 1;
    if (warn_at >> retries & 1)
        warn_operator(retries);
    return retries;
}

} // namespace

void zan_npu_bcast_wait_for_npu_threads(uint32_t table_id, uint32_t trans_id)
{
    kor_exec_q_st *queue = get_global_exec_q();
    int retries = max_retries;
    uint32_t prev_depth = kor_exec_q_get_depth(queue);
    for (;;) {
        const int rc = wait_once(queue);
        if (rc == EOK)
            return;
        if (rc == ZAN_EXEC_Q_TIMEOUT) {
            retries = after_timeout(queue, table_id, trans_id, retries, &prev_depth);
            if (retries == 0)
                zan_unresponsive_driver_exhausted(table_id);
        }
        if (retries == 0)
            return;
        retries--;
    }
}

uint32_t zan_npu_bcast_dummy_wait(const zan_table_def_t *def, uint32_t trans_id, bool retry_mode)
{
    if (zan_core_is_dispatcher_spawned() &&
        !zan_check_action_allowed(ZAN_EXEC_Q_CONTROL_OPS_ALLOWED)) {
        const zan_trace_class_t c = ZAN_CLASS_ZAN_FILE_A_BUGTRK_ERROR__;
        if (!zan_core_is_frr_thread() && zan_trace_is_on(c))
            _ringlogs(c, zan_msg_id(ZAN_MSG_DUMMY_WAIT_WRONG_THREAD, 1, 1),
                      "zan_npu_bcast_dummy_wait,called_by_non_dispatcher_thread!!");
        return 0;
    }
    timespec start, end, taken;
    zan_clock_gettime(CLOCK_REALTIME, &start);
    uint32_t result = 0;
    if (zan_exec_q_sync_ctrl_request_only() == 0) {
        zan_npu_bcast_wait_for_npu_threads(0, trans_id);
        result = 1;
    }
    zan_clock_gettime(CLOCK_REALTIME, &end);
    clock_diff(&start, &end, &taken);
    table_dispatch_dummy_update(0, &taken);
    ZAN_TRACE_TABLE(zan_slt_table_id_retry(def->id, ZAN_TRACE_LEVEL_EVENT, retry_mode), def->id,
                    DUMMY_WAIT, trans_id, taken.tv_sec, taken.tv_nsec, result);
    return result;
}
