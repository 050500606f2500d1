/* The walk of an update, and what its source does after it.
 *
 * The walk is the last act of an update: what the update has pushed is handed to the walk service,
 * which has every child with an interest updated (child_update.cpp). A child's update pushes events
 * too but starts no walk: the running one takes them on.
 */
#include "table_server_api_common.h"

zan_rcode zan_core_event_bwalk(kor_dpd_event_ctx_t *walk_ctx)
{
    ZAN_ASSERT(walk_ctx, "walk_ctx");
    const uint32_t table_id = zan_walk_ctx_get_current_obj(walk_ctx)->table_id;
    const uint32_t trans_id = zan_walk_ctx_get_trans_id(walk_ctx);
    const bool inside = zan_walk_ctx_is_inside_bwalk(walk_ctx);
    const uint32_t num_events = zan_walk_ctx_get_num_events(walk_ctx);
    const bool retry = zan_walk_ctx_is_from_retry(walk_ctx);
    if (!zan_check_action_allowed(ZAN_BWALK_ALLOWED)) {
        ZAN_TRACE(zan_slt_table_id_retry(table_id, ZAN_TRACE_LEVEL_VERBOSE, retry),
                  BWALK_NOT_ALLOWED, table_id, trans_id, num_events);
        return EOK;
    }
    if (inside || num_events == 0) {
        ZAN_TRACE(zan_slt_table_id_retry(table_id, ZAN_TRACE_LEVEL_EVENT, retry), BWALK_NOT_STARTED,
                  table_id, trans_id, inside, num_events);
        return EOK;
    }
    const zan_rcode rc = kor_dpd_event_bwalk(walk_ctx, trans_id);
    if (rc == EOK)
        return EOK;
    const uint64_t failed = ++zan_dpd_get_bwalk_stats(table_id)->num_failed_walks;
    ZAN_TRACE(zan_slt_table_id_retry(table_id, ZAN_TRACE_LEVEL_ERROR, retry), BWALK_FAILED, rc,
              table_id, trans_id, failed);
    return rc;
}

/* ---- After the walk ---- */

namespace
{

/* Of a synchronous table: the hook behind the update, which the update has left to this step, and
 * the copies are the context's to free. */
void finish_copies(const zan_table_def_t *def, kor_dpd_event_ctx_t *walk_ctx)
{
    zan_rdesc_hook_ctx_t post = zan_rdesc_hook_ctx_of_walk(walk_ctx);
    zan_table_state(def)->props->post_update_rdesc(&post);
    zan_dpd_clear_freed_by_post_proc_flag(walk_ctx->old_obj);
    zan_dpd_clear_freed_by_post_proc_flag(walk_ctx->new_obj);
}

} // namespace

void zan_server_make_event(const zan_table_def_t *def, zan_table_base_st *old_obj)
{
    old_obj->table_operation = ZAN_TABLE_EVENT;
    if (def->write_mode)
        old_obj->flag |= ZAN_FLAG_IS_ASYNC_DISPATCH;
    else
        old_obj->flag &= ~(uint32_t)ZAN_FLAG_IS_ASYNC_DISPATCH;
}

zan_rcode zan_server_event_post_processing(const zan_table_def_t *def,
                                           kor_dpd_event_ctx_t *walk_ctx)
{
    if (!walk_ctx || !walk_ctx->old_obj)
        return EOK;
    zan_table_base_st *obj = walk_ctx->old_obj;
    zan_table_response_st *response = walk_ctx->response;
    const uint32_t trans_id = zan_walk_ctx_get_trans_id(walk_ctx);
    const uint32_t bwalk_id = zan_walk_ctx_get_bwalk_id(walk_ctx);
    if (!def->write_mode) /* else it was done before the NPU threads got the copy */
        zan_server_make_event(def, obj);
    ZAN_TRACE(ZAN_CLASS_ZAN_BWALK_EVENT__, BWALK_POST_PROCESSING, obj, trans_id, bwalk_id);
    const zan_rcode rc = kor_server_hw_thread_picker(def, obj, obj, response, walk_ctx);
    if (rc != EOK) {
        zan_event_ignore_post_processing_error(response);
        ZAN_TRACE(ZAN_CLASS_ZAN_BWALK_ERROR__, BWALK_POST_PROCESSING_FAILED, bwalk_id, trans_id,
                  zan_walk_ctx_get_current_obj(walk_ctx), rc);
    }
    if (!def->write_mode)
        finish_copies(def, walk_ctx);
    return EOK;
}
