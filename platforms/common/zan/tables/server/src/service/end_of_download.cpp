/* End of download: the client has sent all it has, and each NPU is told, lowest first. */
#include "table_server_api_common.h"

#include <cstring>

zan_rcode zan_server_api_eod(const zan_table_def_t *def, zan_table_base_st *obj,
                             zan_table_response_st *response)
{
    if (!zan_server_table_once(def)) {
        response->err_code = ZAN_RC_INVALID;
        return ZAN_RC_INVALID;
    }
    const uint8_t operation = obj->table_operation;
    const uint32_t trans_id = obj->base_trans_id;
    zan_table_state_t *state = zan_table_state(def);
    memset(state->db_ctx.scratch, 0, sizeof state->db_ctx.scratch);
    const kor_npu_mask_t mask = state->ctx->npu_mask_active;
    const bool stopped = zan_npu_bcast_dummy_wait(def, trans_id, false) == 1;
    zan_rcode rc = EOK;
    for (kor_npu_mask_t left = mask; left; left &= left - 1) {
        const uint32_t npu = (uint32_t)__builtin_ctzll(left);
        timespec start, end, taken;
        obj->npu_id = (uint8_t)npu;
        *zan_obj_npu_mask_req(def, obj) = npu;
        zan_clock_gettime(CLOCK_REALTIME, &start);
        rc = state->props->eod(obj);
        response->err_code = rc;
        zan_clock_gettime(CLOCK_REALTIME, &end);
        clock_diff(&start, &end, &taken);
        table_dispatch_npu_perf_update(def->id, &taken, npu);
        ZAN_TRACE_TABLE(
            zan_slt_table_id(def->id, rc ? ZAN_TRACE_LEVEL_ERROR : ZAN_TRACE_LEVEL_EVENT), def->id,
            EOD_DONE, trans_id, npu, rc);
        if (rc != EOK)
            break;
    }
    if (stopped)
        zan_sync_allow_all_npu_queues(def->id, operation, trans_id);
    return rc;
}
