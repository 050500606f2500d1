/* The NPU broadcast: the one door through which a table's operation reaches the NPU threads.
 *
 * A synchronous write uses one record for the process, waits for all NPUs, collects a code from
 * each, and undoes a create that succeeded on some NPUs only. An asynchronous write takes a record
 * of its own, passes the copies on, and returns at once.
 *
 * Ownership. Until the send the copies and the delta are the flow's. After it they are the NPU
 * side's and *obj_owned_by_dispatcher is false; the flow must forget them. The last NPU may finish
 * before that boolean is cleared, which is safe only because nobody here looks at the copies in
 * between. A refused send frees the inner data and the delta; the copy stays the flow's.
 */
#include "table_server_api_common.h"

#include <cstdlib>
#include <cstring>

namespace
{

kor_core_srv_dispatch_t *sync_mcast_msg;

zan_trace_class_t error_class(const zan_table_base_st *obj)
{
    return zan_slt_obj_base(obj, ZAN_TRACE_LEVEL_ERROR);
}

kor_core_srv_dispatch_t *take_record(zan_table_base_st *obj, bool is_async)
{
    if (is_async) {
        kor_core_srv_dispatch_t *record = zan_srv_msg_alloc(obj->table_operation);
        ZAN_ASSERT(record, "record");
        record->is_async = 1;
        zan_atomic_mod_inflight_flag_in_dbobj_with_handle(zan_srv_table_props_get(obj->table_id),
                                                          obj, true);
        return record;
    }
    memset(sync_mcast_msg, 0, sizeof *sync_mcast_msg);
    return sync_mcast_msg;
}

void fill_record(kor_core_srv_dispatch_t *record, zan_table_base_st *obj,
                 zan_table_base_st *old_obj, const zan_table_crud_ctx_t *crud,
                 zan_global_ctx_st *ctx, kor_npu_mask_t mask)
{
    record->npus_left = (uint32_t)__builtin_popcountll(mask);
    record->num_npus = ctx->num_npus;
    for (kor_npu_mask_t left = mask; left; left &= left - 1)
        record->npu_rc[__builtin_ctzll(left)] = ZAN_RC_NO_RESULT_YET;
    record->obj = obj;
    record->old_obj = old_obj;
    record->is_resize = crud->is_resize;
    record->new_to_old_map = crud->new_to_old_map;
    record->table_operation = obj->table_operation;
    record->npu_stats = ctx->npu;
    record->resize_aux = crud->resize_aux;
    record->walk_ctx = crud->walk_ctx;
    record->delta_lists = crud->delta_lists;
}

/* The queue has refused: nothing has been handed over, and what the send was given goes back. */
void take_back(kor_core_srv_dispatch_t *record, zan_exec_q_msg_st *msg, bool is_async_write,
               uint8_t *is_async_out)
{
    srv_zan_table_props_t *props = zan_srv_table_props_get(record->obj->table_id);
    if (is_async_write)
        zan_atomic_mod_inflight_flag_in_dbobj_with_handle(props, record->obj, false);
    zan_exec_q_msg_free(msg);
    if (record->delta_lists) {
        zan_heap_free(record->delta_lists->delta_buffer);
        zan_heap_free(record->delta_lists);
        record->delta_lists = nullptr;
    }
    if (record->is_async) {
        /* The copy of an event is its walk's, and its update may still be with the NPU threads. */
        if (record->table_operation != ZAN_TABLE_EVENT)
            props->side_data_free(record->obj);
        zan_srv_msg_free(record);
    }
    if (is_async_out)
        *is_async_out = 0;
}

zan_rcode zan_npu_bcast_send_to_npu_threads(kor_core_srv_dispatch_t *srv_obj,
                                            kor_npu_mask_t npu_mask, uint32_t trans_id,
                                            bool is_async_write, uint8_t *is_async_out)
{
    if (!srv_obj)
        return EOK;
    ZAN_ASSERT(zan_check_action_allowed(ZAN_EXEC_Q_CONTROL_OPS_ALLOWED),
               "zan_check_action_allowed(ZAN_EXEC_Q_CONTROL_OPS_ALLOWED)");
    ZAN_ASSERT(srv_obj->table_operation != ZAN_TABLE_RESERVE,
               "srv_obj->table_operation != ZAN_TABLE_RESERVE");
    kor_exec_q_st *queue = get_global_exec_q();
    zan_exec_q_msg_st *msg = zan_exec_q_msg_alloc(queue);
    ZAN_ASSERT(msg, "msg");
    msg->type = ZAN_EXEC_MSG_NPU_REQUEST;
    msg->payload = srv_obj;
    msg->count = (uint32_t)__builtin_popcountll(npu_mask);
    const bool write = srv_obj->table_operation == ZAN_TABLE_CREATE ||
                       srv_obj->table_operation == ZAN_TABLE_UPDATE;
    if (write && zan_obj_base_get_use_async_barrier(srv_obj->obj)) {
        ZAN_ASSERT(is_async_write, "is_async_write");
        msg->use_barrier = 1;
    }
    if (zan_server_perf_sanity_process_req_fn(msg, is_async_write, is_async_out))
        return EOK;
    const int rc = kor_exec_q_req_bcast(queue, msg, npu_mask);
    if (rc == EOK)
        return EOK;
    const zan_table_base_st *obj = srv_obj->obj;
    ZAN_TRACE_TABLE(error_class(obj), obj->table_id, QUEUE_REFUSED, rc, trans_id);
    zan_counter_raise(obj->table_id, ZAN_CTR_BCAST_SEND_FAILED);
    take_back(srv_obj, msg, is_async_write, is_async_out);
    return (zan_rcode)rc;
}

/* The record comes home on this thread, so it may still be read here. */
void zan_bcast_pass_ownership_to_npu_threads(const kor_core_srv_dispatch_t *srv_obj,
                                             zan_bool_t *obj_owned_by_dispatcher)
{
    if (srv_obj->walk_ctx)
        srv_obj->walk_ctx->held_by_npu_threads++;
    ZAN_ASSERT(obj_owned_by_dispatcher, "obj_owned_by_dispatcher");
    *obj_owned_by_dispatcher = 0;
}

struct npu_response_t {
    kor_npu_mask_t ok_mask;
    zan_rcode hw_rc, client_rc;
};

/* The code of every NPU is mapped, also after a first failure: the table's error hook runs once for
 * each NPU that failed. */
npu_response_t zan_npu_bcast_get_npu_response(kor_npu_mask_t npu_mask, zan_table_crud_ctx_t *crud)
{
    kor_npu_mask_t ok_mask = 0;
    zan_rcode first_raw = EOK, first_client = EOK;
    for (kor_npu_mask_t left = npu_mask; left; left &= left - 1) {
        const uint32_t npu = (uint32_t)__builtin_ctzll(left);
        const zan_rcode raw = kor_exec_q_resp_read_rc(npu);
        const zan_rcode client = (zan_rcode)zan_hw_rcode_cx_to_rc(&raw, crud);
        if (raw == EOK)
            ok_mask |= (kor_npu_mask_t)1 << npu;
        if (first_raw == EOK)
            first_raw = raw;
        if (first_client == EOK)
            first_client = client;
    }
    if (first_raw != EOK)
        ZAN_TRACE_TABLE(zan_slt_crud_ctx(crud, ZAN_TRACE_LEVEL_ERROR), crud->props->def->id,
                        NPU_RESPONSE_FAILED, first_raw, first_client, ok_mask, crud->trans_id);
    return {ok_mask, first_client ? first_client : first_raw, first_client};
}

bool zan_npu_bcast_sync_delete_on_error_sanities_failed(const kor_core_srv_dispatch_t *record)
{
    const bool plain = !record->old_obj && !record->is_resize && !record->new_to_old_map &&
                       !record->walk_ctx && !record->resize_aux && !record->delta_lists &&
                       !(record->obj->flag & ZAN_FLAG_IS_ASYNC_WRITE);
    if (!plain)
        ZAN_TRACE(ZAN_CLASS_ZAN_FILE_A_BUGTRK_ERROR__, BCAST_UNDO_INSANE, record->obj->table_id,
                  record->obj->base_trans_id);
    return !plain;
}

/* Delete a create from the NPUs where it succeeded. The message goes to all of them again; those
 * outside ok_mask do nothing. npus_left stands at 0 and wraps, which a synchronous record has no
 * use for. The client never hears of the outcome. */
void zan_npu_bcast_sync_delete_on_error(kor_core_srv_dispatch_t *record, kor_npu_mask_t npu_mask,
                                        kor_npu_mask_t ok_mask, zan_table_crud_ctx_t *crud)
{
    if (ok_mask == 0 || record->table_operation != ZAN_TABLE_CREATE)
        return;
    if (zan_npu_bcast_sync_delete_on_error_sanities_failed(record))
        return;
    const zan_table_base_st *obj = record->obj;
    record->table_operation = ZAN_TABLE_DELETE;
    record->only_npu_mask = ok_mask;
    const zan_rcode send_rc =
        zan_npu_bcast_send_to_npu_threads(record, npu_mask, crud->trans_id, false, nullptr);
    if (zan_exec_q_sync_ctrl() == 0)
        zan_npu_bcast_wait_for_npu_threads(obj->table_id, crud->trans_id);
    const npu_response_t response = zan_npu_bcast_get_npu_response(npu_mask, crud);
    ZAN_TRACE(ZAN_CLASS_ZAN_DB_EVENT__, BCAST_UNDO, obj->table_id, obj, crud->trans_id, record,
              response.hw_rc, send_rc);
    if (response.hw_rc != EOK)
        zan_counter_raise(obj->table_id, ZAN_CTR_UNDO_FAILED);
}

void trace_send_failed(zan_rcode rc, const zan_table_base_st *obj, const zan_table_base_st *old_obj,
                       const zan_table_crud_ctx_t *crud)
{
    ZAN_TRACE_TABLE(error_class(obj), obj->table_id, SEND_FAILED, rc, obj, old_obj, crud->trans_id,
                    obj->table_operation,
                    crud->walk_ctx ? zan_walk_ctx_get_bwalk_id(crud->walk_ctx) : 0);
    ZAN_TRACE_TABLE(error_class(obj), obj->table_id, SEND_FAILED_WALK,
                    crud->walk_ctx ? zan_walk_ctx_get_trans_id(crud->walk_ctx) : 0);
}

} // namespace

void zan_alloc_npu_sync_mcast_msg(void)
{
    if (__atomic_load_n(&sync_mcast_msg, __ATOMIC_ACQUIRE))
        return;
    auto *msg = (kor_core_srv_dispatch_t *)calloc(1, sizeof *sync_mcast_msg);
    ZAN_ASSERT(msg, "msg");
    kor_core_srv_dispatch_t *none = nullptr;
    if (!__atomic_compare_exchange_n(&sync_mcast_msg, &none, msg, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_ACQUIRE))
        free(msg); /* another table's first use was quicker */
}

zan_rcode kor_core_npu_bcast(zan_table_base_st *obj, zan_table_base_st *old_obj,
                             zan_table_crud_ctx_t *crud, zan_global_ctx_st *ctx)
{
    const uint32_t table_id = obj->table_id;
    if (!zan_check_action_allowed(ZAN_EXEC_Q_CONTROL_OPS_ALLOWED)) {
        ZAN_TRACE(ZAN_CLASS_ZAN_FILE_A_BUGTRK_ERROR__, BCAST_REFUSED, table_id);
        return ZAN_RC_QUEUE_CONTROL_REFUSED;
    }
    kor_npu_mask_t mask = ctx->npu_mask_active;
    if (ctx->per_object_npu_mask)
        mask &= obj->npu_mask;
    uint8_t is_async = (obj->flag & ZAN_FLAG_IS_ASYNC_WRITE) != 0;

    kor_core_srv_dispatch_t *record = nullptr;
    if (mask == 0) {
        zan_counter_raise(table_id, ZAN_CTR_BCAST_NO_NPU);
    } else if (obj->table_operation != ZAN_TABLE_UPDATE && crud->delta_lists) {
        ZAN_TRACE(ZAN_CLASS_ZAN_FILE_A_BUGTRK_ERROR__, BCAST_STRAY_DELTA, table_id, crud->trans_id);
        mask = 0;
    } else {
        record = take_record(obj, is_async);
        fill_record(record, obj, old_obj, crud, ctx, mask);
    }

    const zan_rcode send_rc =
        zan_npu_bcast_send_to_npu_threads(record, mask, crud->trans_id, is_async != 0, &is_async);
    if (send_rc != EOK) {
        trace_send_failed(send_rc, obj, old_obj, crud);
        crud->delta_lists = nullptr; /* the send has freed it */
        return send_rc;
    }
    if (is_async) {
        if (record)
            zan_bcast_pass_ownership_to_npu_threads(record, crud->obj_owned_by_dispatcher);
        return EOK;
    }
    if (zan_exec_q_sync_ctrl() == 0)
        zan_npu_bcast_wait_for_npu_threads(table_id, crud->trans_id);
    const npu_response_t response = zan_npu_bcast_get_npu_response(mask, crud);
    if (response.hw_rc != EOK)
        zan_counter_raise(table_id, ZAN_CTR_BCAST_NPU_ERROR);
    if (response.client_rc != EOK)
        zan_npu_bcast_sync_delete_on_error(record, mask, response.ok_mask, crud);
    crud->hw_rc = response.hw_rc;
    return response.client_rc;
}
