/* The thread picker: the entry by which an event reaches hardware, on the NPU threads or on this
 * one, as the table's definition says. */
#include "table_server_api_common.h"

namespace
{

zan_rcode pick_npu_threads(const zan_table_def_t *def, zan_table_base_st *old_obj,
                           zan_table_base_st *obj, zan_table_response_st *response,
                           kor_dpd_event_ctx_t *walk_ctx, uint32_t trans_id)
{
    zan_bool_t owned = 1;
    zan_table_crud_ctx_t crud;
    zan_crud_ctx_server_api_crud_init(&crud, response, old_obj, trans_id, &owned, walk_ctx, nullptr,
                                      nullptr);
    zan_global_ctx_st *ctx = zan_table_state(def)->ctx;
    const zan_rcode rc = kor_core_npu_bcast(old_obj, obj, &crud, ctx);
    /* The code of the response, not the broadcast's: a failed event still accounts. */
    kor_server_api_oor_accounting(def, ctx->npu_mask_all, obj, 0, (zan_rcode)response->err_code);
    return rc;
}

zan_rcode pick_this_thread(const zan_table_def_t *def, zan_table_base_st *old_obj,
                           zan_table_base_st *obj, kor_dpd_event_ctx_t *walk_ctx, uint32_t trans_id)
{
    const uint32_t operation = old_obj->table_operation;
    const bool stopped =
        zan_npu_bcast_dummy_wait(def, trans_id, zan_obj_base_get_retry_mode(obj)) == 1;
    const zan_rcode rc = zan_table_state(def)->props->event(walk_ctx, obj);
    kor_server_api_oor_accounting(def, *zan_obj_npu_mask_req(def, obj), obj, 0, rc);
    if (stopped)
        zan_sync_allow_all_npu_queues(0, operation, trans_id);
    return rc;
}

} // namespace

zan_rcode kor_server_hw_thread_picker(const zan_table_def_t *def, zan_table_base_st *old_obj,
                                      zan_table_base_st *obj, zan_table_response_st *response,
                                      kor_dpd_event_ctx_t *walk_ctx)
{
    ZAN_ASSERT(walk_ctx, "walk_ctx");
    if (!old_obj || !obj) {
        response->err_code = ZAN_RC_BAD_ARGUMENT;
        return ZAN_RC_BAD_ARGUMENT;
    }
    const uint32_t trans_id = zan_walk_ctx_get_trans_id(walk_ctx);
    const zan_rcode rc = def->npu_threads
                             ? pick_npu_threads(def, old_obj, obj, response, walk_ctx, trans_id)
                             : pick_this_thread(def, old_obj, obj, walk_ctx, trans_id);
    if (rc != EOK)
        response->err_code = rc;
    return rc;
}
