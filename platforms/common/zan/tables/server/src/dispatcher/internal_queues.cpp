/* The server's side of the internal queues, and the post-step behind every object of a batch.
 *
 * Work that cannot be done when it arises waits in a queue and is taken up by the dispatcher thread
 * at fixed points. Both ends of the post-step, and every two objects of a drain, are openings for
 * the FRR thread: it never waits longer than one object.
 */
#include "table_server_api_common.h"

zan_rcode zan_core_process_queue_obj(zan_table_base_st *obj, bool delay_delete)
{
    const uint64_t handle = obj->obj_handle;
    const srv_zan_table_props_t *props = zan_srv_table_props_get(obj->table_id);
    if (delay_delete && obj->dpd.dpd_child_cnt != 0) { // a later child's delete brings it back
        ZAN_TRACE(ZAN_CLASS_ZAN_QUEUE_EVENT__, QUEUE_HAS_CHILDREN, handle, obj->dpd.dpd_child_cnt);
        return EOK;
    }
    zan_table_response_st response = {};
    zan_table_base_st *copy_obj_base = props->copy_ctor(obj);
    ZAN_ASSERT(copy_obj_base, "copy_obj_base");
    if (delay_delete) {
        copy_obj_base->table_operation = ZAN_TABLE_DELETE;
        copy_obj_base->flag |= ZAN_FLAG_QUEUED_DELETE;
    }
    if (props->write_mode)
        copy_obj_base->flag |= ZAN_FLAG_IS_ASYNC_WRITE;
    else
        copy_obj_base->flag &= ~(uint32_t)ZAN_FLAG_IS_ASYNC_WRITE;
    const uint32_t trans_id = copy_obj_base->base_trans_id;
    zan_table_server_block_dispatcher(copy_obj_base, &response);
    if (response.err_code != EOK)
        ZAN_TRACE(zan_slt_obj_base(copy_obj_base, ZAN_TRACE_LEVEL_ERROR), QUEUE_OBJ_FAILED,
                  response.err_code, delay_delete, handle, trans_id);
    else
        ZAN_TRACE(zan_slt_obj_base(copy_obj_base, ZAN_TRACE_LEVEL_VERBOSE), QUEUE_OBJ_DONE,
                  trans_id, copy_obj_base->table_operation, handle);
    props->copy_dtor(copy_obj_base);
    return (zan_rcode)response.err_code;
}

static void trace_text(zan_trace_class_t c, zan_msg_et message, const char *text)
{
    if (zan_trace_is_on(c))
        _ringlogs(c, zan_msg_id(message, 1, 0x1), text);
}

void internal_async_queue_process(void)
{
    if (!zan_check_action_allowed(ZAN_INTERNAL_Q_ALLOWED)) {
        trace_text(ZAN_CLASS_ZAN_QUEUE_EVENT__, ZAN_MSG_QUEUE_SKIP,
                   "internal_async_queue_process,skip_non_dispatch_thread");
        return;
    }
    zan_table_base_st *obj = kor_core_queue_dequeue(ZAN_QUEUE_INTERNAL_ASYNC);
    if (!obj)
        return;
    uint32_t count = 0;
    for (; obj; obj = kor_core_queue_dequeue(ZAN_QUEUE_INTERNAL_ASYNC)) {
        const srv_zan_table_props_t *props = zan_srv_table_props_get(obj->table_id);
        const zan_rcode rc = zan_core_process_queue_obj(obj, false);
        if (rc != EOK) {
            const zan_trace_class_t c = ZAN_CLASS_ZAN_QUEUE_ERROR__;
            if (zan_trace_is_on(c))
                _ringlogs(c, zan_msg_id(ZAN_MSG_QUEUE_FAILED, 2, 0x2), (uint64_t)rc,
                          rcd_strerror(rc));
            props->internal_async_q_err(obj, rc);
        }
        props->copy_dtor(obj);
        zan_dispatch_post_step(nullptr, false, true);
        count++;
    }
    ZAN_TRACE(ZAN_CLASS_ZAN_QUEUE_EVENT__, QUEUE_DRAINED, count);
}

/* Deletes that waited for children. The queued object goes away in the middle, so the platform's
 * step gets a copy. */
static void drain_delay_deletes(void)
{
    const zan_global_ctx_st *ctx = zan_get_global_ctx();
    kor_exec_q_wake_npu_threads(ctx ? ctx->npu_mask_all : 0, 1);
    uint32_t count = 0;
    while (zan_table_base_st *obj = kor_core_queue_dequeue(ZAN_QUEUE_DELAY_DELETE)) {
        const srv_zan_table_props_t *props = zan_srv_table_props_get(obj->table_id);
        zan_table_base_st *copy = props->copy_ctor(obj);
        ZAN_ASSERT(copy, "copy");
        const zan_rcode rc = zan_core_process_queue_obj(obj, true);
        props->npd_delay_delete(copy, rc);
        props->copy_dtor(copy);
        zan_allow_access_frr_thread();
        count++;
    }
    if (count)
        ZAN_TRACE(ZAN_CLASS_ZAN_QUEUE_EVENT__, DELAY_DELETES_DONE, count);
}

static void end_async_run(const zan_table_base_st *obj)
{
    const uint8_t operation = obj->table_operation;
    const bool write = operation == ZAN_TABLE_CREATE || operation == ZAN_TABLE_DELETE ||
                       operation == ZAN_TABLE_UPDATE;
    if (write && zan_check_action_allowed(ZAN_EXEC_Q_CONTROL_OPS_ALLOWED) &&
        (zan_srv_table_props_get(obj->table_id)->option_bits & ZAN_OPTION_ASYNC_BATCH_END))
        zan_exec_q_enqueue_async_batch_end_msg(obj->table_id);
}

void zan_dispatch_post_step(zan_table_base_st *obj, bool end_of_run, bool east_west)
{
    zan_allow_access_frr_thread();
    zan_dsp_q_process_post_npu();
    const bool pending = !kor_server_is_queue_empty(ZAN_QUEUE_DELAY_DELETE);
    if (obj && (end_of_run || pending))
        end_async_run(obj);
    if (pending && zan_check_action_allowed(ZAN_DELAY_DELETE_Q_ALLOWED))
        drain_delay_deletes();
    if (end_of_run || east_west)
        zan_dsp_q_process_east_west();
    zan_allow_access_frr_thread();
}

void zan_sync_allow_all_npu_queues(uint32_t table_id, uint32_t operation, uint32_t trans_id)
{
    if (zan_check_action_allowed(ZAN_EXEC_Q_CONTROL_OPS_ALLOWED))
        zan_exec_q_sync_ctrl_allow_all_queues();
    else
        ZAN_TRACE(ZAN_CLASS_ZAN_FILE_A_BUGTRK_ERROR__, SYNC_ALLOW_REFUSED, table_id, operation,
                  trans_id);
}

void kor_srv_npd_delay_delete(const zan_table_def_t *def, zan_table_base_st *obj, zan_rcode rc)
{
    if (rc != EOK)
        ZAN_TRACE_TABLE(zan_slt_table_id(def->id, ZAN_TRACE_LEVEL_ERROR), def->id, NPD_DELAY_DELETE,
                        rc);
    zan_call_pd_handle_delayed_delete_rc(rc, obj);
}
