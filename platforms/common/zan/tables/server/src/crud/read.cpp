/* The read flow: get, get first, get next, get greater or equal.
 *
 * A read answers with the stored object, refreshed by the platform's hook on each NPU, in the
 * request itself, and on demand with text: the platform's show buffer, or the object rendered. Some
 * options stop the NPU queues first; they are let go again on every path past that point.
 */
#include "table_server_api_common.h"

#include <cstring>

namespace
{

struct read_op_t {
    zan_table_crud_ctx_t crud;
    const zan_table_def_t *def;
    zan_table_base_st *obj;
    zan_table_response_st *response;
    zan_table_base_st *found;
    uint8_t operation;
    zan_bool_t owned;
    bool queues_stopped;
};

#define READ_TRACE(op, level, message, ...)                                                        \
    ZAN_TRACE_TABLE(zan_slt_crud_ctx(&(op)->crud, ZAN_TRACE_LEVEL_##level), (op)->def->id,         \
                    message, __VA_ARGS__)

zan_rcode fail(read_op_t *op, zan_rcode rc)
{
    op->response->err_code = rc;
    return rc;
}

bool read_enter(read_op_t *op, const zan_table_def_t *def, zan_table_base_st *obj,
                zan_table_response_st *response, uint32_t flags)
{
    op->def = def;
    op->obj = obj;
    op->response = response;
    op->operation = obj->table_operation;
    op->owned = 1;
    zan_set_trans_id(*zan_obj_trans_id(def, obj), response, flags);
    const bool started = zan_server_table_once(def);
    zan_crud_ctx_server_api_crud_init(&op->crud, response, obj, obj->base_trans_id, &op->owned,
                                      nullptr, &zan_table_state(def)->db_ctx, nullptr);
    sanitize_input_obj(def, obj, ZAN_TABLE_GET);
    zan_table_state(def)->info.get_cnt++;
    return started;
}

zan_table_base_st *search(const read_op_t *op)
{
    switch (op->operation) {
    case ZAN_TABLE_GET:
        return zan_db_get(op->obj);
    case ZAN_TABLE_GET_FIRST:
        return zan_db_get_first(op->obj);
    case ZAN_TABLE_GET_GT_EQ:
        return zan_db_get_gt_eq(op->obj);
    default:
        return zan_db_get_next(op->obj);
    }
}

/* 0 and op->found, or the code that ends the read. `*answer` is what the entry returns. */
bool read_search(read_op_t *op, zan_rcode *answer)
{
    if (op->operation < ZAN_TABLE_GET || op->operation > ZAN_TABLE_GET_NEXT) {
        *answer = fail(op, ZAN_RC_INVALID);
        return false;
    }
    if (op->operation != ZAN_TABLE_GET_FIRST && !op->obj->key_len && !op->obj->obj_handle) {
        *answer = fail(op, ZAN_RC_INVALID); // names nothing
        return false;
    }
    op->found = search(op);
    if (op->operation != ZAN_TABLE_GET &&
        zan_srv_base_is_set_getopt(op->obj, ZAN_GETOPT_STALE_ONLY))
        while (op->found && !(op->found->flag & ZAN_FLAG_STALE))
            op->found = zan_db_get_next(op->found);
    if (!op->found) {
        zan_counter_raise(op->def->id, ZAN_CTR_READ_NOT_FOUND);
        *answer = fail(op, ZAN_RC_NOT_FOUND);
        return false;
    }
    /* An object that waits for its delete is hidden from a plain read, though not from a scan. */
    if (op->operation == ZAN_TABLE_GET && zan_obj_base_is_delay_delete(op->found) &&
        !(op->obj->flag & ZAN_FLAG_DELETING)) {
        fail(op, ZAN_RC_DELAY_DELETE);
        *answer = EOK;
        return false;
    }
    return true;
}

void read_stop_queues(read_op_t *op)
{
    if (zan_srv_base_is_set_getopt(op->obj, ZAN_GETOPT_STOP_QUEUES_MASK))
        op->queues_stopped =
            zan_npu_bcast_dummy_wait(op->def, op->crud.trans_id, op->crud.retry_mode != 0) == 1;
}

zan_rcode read_stored(read_op_t *op)
{
    op->found->table_operation = op->operation;
    const zan_rcode rc = kor_dbobj_get(op->def, op->found, op->obj);
    if (rc != EOK)
        return fail(op, rc);
    op->response->obj = (uint64_t)(uintptr_t)op->found;
    op->crud.props->side_data_init(op->obj, false);
    op->crud.props->side_data_copy(op->obj, op->found);
    return EOK;
}

/* zan_srv_<table>_fill_sdk_show_buf */
zan_rcode read_show_buffer(read_op_t *op)
{
    zan_table_response_st *resp = op->response;
    ZAN_ASSERT(resp->payload_alloc_sz != 0, "resp->payload_alloc_sz != 0");
    resp->payload[0] = 0;
    resp->payload_used_sz = 0;
    zan_get_sdk_ctx_t ctx = {op->obj, resp->payload, resp->payload_alloc_sz,
                             &resp->payload_used_sz};
    const zan_rcode rc = op->crud.props->fill_sdk_show_buffer(&ctx);
    if (rc != EOK) {
        READ_TRACE(op, ERROR, READ_SHOW_FAILED, rc, op->crud.trans_id);
        return fail(op, rc);
    }
    ZAN_ASSERT(resp->payload_used_sz <= resp->payload_alloc_sz,
               "resp->payload_used_sz <= resp->payload_alloc_sz");
    READ_TRACE(op, VERBOSE, READ_SHOW_DONE, resp->payload_used_sz, op->crud.trans_id);
    return EOK;
}

zan_rcode call_read_hook(const read_op_t *op)
{
    const srv_zan_table_props_t *props = op->crud.props;
    switch (op->operation) {
    case ZAN_TABLE_GET:
        return props->get(op->obj);
    case ZAN_TABLE_GET_FIRST:
        return props->get_first(op->obj);
    case ZAN_TABLE_GET_GT_EQ:
        return props->get_gt_eq(op->obj);
    default:
        return props->get_next(op->obj);
    }
}

/* An NPU that fails reaches the client as missing fields only. */
void read_hardware(read_op_t *op)
{
    const zan_global_ctx_st *ctx = zan_get_global_ctx();
    if (!ctx)
        return;
    for (kor_npu_mask_t left = ctx->npu_mask_all; left; left &= left - 1) {
        const uint32_t npu = (uint32_t)__builtin_ctzll(left);
        op->obj->npu_id = (uint8_t)npu;
        *zan_obj_npu_mask_req(op->def, op->obj) = npu;
        const zan_rcode rc = call_read_hook(op);
        if (rc != EOK)
            READ_TRACE(op, ERROR, READ_HOOK_FAILED, rc, op->crud.trans_id, op->obj);
    }
}

zan_rcode read_text(read_op_t *op)
{
    zan_table_response_st *resp = op->response;
    resp->payload_used_sz = 0;
    if (resp->payload_alloc_sz == 0) {
        READ_TRACE(op, ERROR, READ_NO_PAYLOAD, op->crud.trans_id);
        return fail(op, ZAN_RC_INVALID_READ);
    }
    resp->payload[0] = 0;
    const zan_counters_hold_t hold(op->def);
    const zan_rcode rc = op->crud.props->format_obj_payload(
        op->found, resp->payload, resp->payload_alloc_sz, &resp->payload_used_sz);
    if (rc != EOK) {
        READ_TRACE(op, ERROR, READ_TEXT_FAILED, rc, op->crud.trans_id);
        return fail(op, rc);
    }
    return EOK;
}

zan_rcode read_found(read_op_t *op)
{
    const zan_rcode rc = read_stored(op);
    if (rc != EOK)
        return rc;
    if (zan_srv_base_is_set_getopt(op->obj, ZAN_GETOPT_SHOW_BUFFER))
        return read_show_buffer(op);
    read_hardware(op);
    if (zan_srv_base_is_set_getopt(op->obj, ZAN_GETOPT_FORMAT_TEXT))
        return read_text(op);
    return EOK;
}

} // namespace

zan_rcode zan_server_api_get_common(const zan_table_def_t *def, zan_table_base_st *obj,
                                    zan_table_response_st *response, uint32_t flags)
{
    read_op_t op = {};
    zan_rcode answer = EOK;
    bool found = false;
    if (!read_enter(&op, def, obj, response, flags))
        answer = fail(&op, ZAN_RC_INVALID); // the table could not start
    else
        found = read_search(&op, &answer);
    if (found) {
        read_stop_queues(&op);
        answer = read_found(&op);
    }
    kor_log_not_found_key(&op.crud, obj);
    if (op.queues_stopped)
        zan_sync_allow_all_npu_queues(def->id, op.operation, op.crud.trans_id);
    zan_clear_trans_id();
    return answer;
}

zan_rcode srv_set_sdk_show_buf(const zan_table_def_t *def, zan_get_sdk_ctx_t *ctx, const char *text)
{
    const size_t length = strlen(text) + 1;
    if (length <= ctx->buf_size) {
        memcpy(ctx->buf, text, length);
        *ctx->used = (uint32_t)length;
        return EOK;
    }
    ctx->buf[ctx->buf_size - 1] = 0;
    ZAN_TRACE_TABLE(zan_slt_table_id(def->id, ZAN_TRACE_LEVEL_ERROR), def->id, READ_SHOW_CUT,
                    ctx->buf_size, length);
    memcpy(ctx->buf, text, ctx->buf_size - 1);
    *ctx->used = ctx->buf_size - 1;
    return ZAN_RC_SHOW_BUFFER_SMALL;
}
