/* The batch dispatcher: the entry of the table server.
 *
 * It walks the objects of a batch in order, dispatches each, decides whether a failure stops the
 * batch, measures every object, runs the post-step behind it, and accounts the delay between client
 * and server. All of it happens on the calling thread, and nothing is kept between batches.
 *
 * A client must read the slots: the return value tells only how the last object went.
 */
#include "table_server_api_common.h"

namespace
{

/* The iterator over one batch. */
struct zan_dispatch_msg_t {
    zan_bool_t batch_is_async;
    zan_table_base_st *msg_start;
    zan_table_base_st *curr_obj;
    uint32_t msg_len;
    int32_t len_remain; /* bytes not yet passed */
    zan_table_response_st *resp_start;
    zan_table_response_st *curr_resp;
    uint32_t num_resp;
    uint32_t curr_resp_idx;
};

struct batch_t {
    zan_dispatch_msg_t msg;
    kor_table_req_hdr_st hdr;
    timespec entry_time;
    timespec last_client_time;
    bool keep_going;
    zan_rcode batch_rc; /* the first failure that was not forgiven */
    int32_t last_rc;
    uint32_t looked_ahead; /* objects from the current one on whose lookups were announced */
};

void start_iterator(zan_dispatch_msg_t *msg, uint8_t *bytes, zan_table_response_st *resp,
                    const kor_table_req_hdr_st &hdr)
{
    auto *first = (zan_table_base_st *)bytes;
    msg->batch_is_async = (first->flag & ZAN_FLAG_IS_ASYNC_DISPATCH) != 0;
    msg->msg_start = first;
    msg->curr_obj = first;
    msg->msg_len = hdr.msg_len;
    msg->len_remain = (int32_t)hdr.msg_len;
    msg->resp_start = resp;
    msg->curr_resp = resp;
    msg->num_resp = hdr.num_resp;
    msg->curr_resp_idx = 0;
}

zan_table_response_st *slot_at(const zan_dispatch_msg_t *msg_ctx, uint32_t index)
{
    if (!msg_ctx->resp_start)
        return nullptr;
    const size_t stride = (size_t)msg_ctx->resp_start->payload_alloc_sz + ZAN_RESPONSE_HDR_SIZE;
    return (zan_table_response_st *)((uint8_t *)msg_ctx->resp_start + stride * index);
}

zan_table_base_st *disp_msg_iterate(zan_dispatch_msg_t *msg_ctx)
{
    const uint32_t size = msg_ctx->curr_obj->total_obj_size;
    msg_ctx->len_remain -= (int32_t)size;
    if (msg_ctx->len_remain < 1) {
        ZAN_ASSERT(msg_ctx->len_remain == 0, "msg_ctx->len_remain == 0");
        return nullptr;
    }
    auto *new_base = (zan_table_base_st *)((uint8_t *)msg_ctx->curr_obj + size);
    msg_ctx->curr_obj = new_base;
    msg_ctx->curr_resp_idx++;
    const bool is_async = (new_base->flag & ZAN_FLAG_IS_ASYNC_DISPATCH) != 0;
    ZAN_ASSERT(is_async == (msg_ctx->batch_is_async != 0),
               "new_base->flag.is_async_dispatch == msg_ctx->batch_is_async");
    if (msg_ctx->batch_is_async) {
        msg_ctx->curr_resp = msg_ctx->resp_start;
        msg_ctx->curr_resp->err_code = EOK;
    } else {
        ZAN_ASSERT(msg_ctx->curr_resp_idx < msg_ctx->num_resp,
                   "msg_ctx->curr_resp_idx < msg_ctx->num_resp");
        msg_ctx->curr_resp = slot_at(msg_ctx, msg_ctx->curr_resp_idx);
    }
    ZAN_ASSERT(new_base->total_obj_size, "new_base->total_obj_size");
    return new_base;
}

uint32_t disp_msg_get_num_objs(const zan_dispatch_msg_t *msg_ctx)
{
    ZAN_ASSERT(msg_ctx->len_remain == 0, "msg_ctx->len_remain == 0");
    return msg_ctx->curr_resp_idx + 1;
}

/* The batch is known ahead: what the lookups of the next objects will touch is on its way to the
 * cache while the first of them is worked on. */
void look_ahead(batch_t *batch)
{
    const zan_table_base_st *lookups[ZAN_DB_PREFETCH_MAX];
    const zan_table_base_st *obj = batch->msg.curr_obj;
    int64_t left = batch->msg.len_remain;
    uint32_t n = 0;
    while (n < ZAN_DB_PREFETCH_MAX && left > 0 && obj->total_obj_size != 0) {
        lookups[n++] = obj;
        left -= obj->total_obj_size;
        obj = (const zan_table_base_st *)((const uint8_t *)obj + obj->total_obj_size);
    }
    zan_db_prefetch(lookups, n);
    batch->looked_ahead = n;
}

/* The bytes of the object that stands some places ahead. The objects of a run have one size as a
 * rule, so that where it stands is a good guess. */
void prefetch_message(const zan_dispatch_msg_t *msg)
{
    constexpr int64_t line = 64, places = 2 * ZAN_DB_PREFETCH_MAX;
    const int64_t size = msg->curr_obj->total_obj_size;
    if (size * (places + 1) > msg->len_remain)
        return;
    const auto *ahead = (const uint8_t *)msg->curr_obj + size * places;
    for (int64_t at = 0; at < size; at += line)
        __builtin_prefetch(ahead + at);
}

/* The object's entry has cleared its transaction, or has not run: what is traced of the object here
 * carries it too. */
#define BATCH_TRACE(obj, c, ...)                                                                   \
    do {                                                                                           \
        zan_set_trans_id((obj)->base_trans_id, nullptr, 0);                                        \
        ZAN_TRACE(c, __VA_ARGS__);                                                                 \
        zan_clear_trans_id();                                                                      \
    } while (0)

/* A failure of one object: it stops the batch unless the slot says that it is forgiven. */
void object_failed(batch_t *batch, const zan_table_base_st *obj, const zan_table_response_st *slot,
                   zan_rcode rc)
{
    if (batch->batch_rc != EOK)
        return;
    if (slot->batch_continue) {
        BATCH_TRACE(obj, ZAN_CLASS_ZAN_BATCH_CRUD_VERBOSE__, BATCH_FORGIVEN, rc, obj->table_id,
                    obj->base_trans_id);
        return;
    }
    batch->batch_rc = rc;
    if (batch->hdr.client_id != 0)
        BATCH_TRACE(obj, ZAN_CLASS_ZAN_BATCH_CRUD_ERROR__, BATCH_FAILED, rc, obj->table_id,
                    batch->keep_going, obj->base_trans_id, batch->hdr.client_id);
}

/* Dispatch, pass over, or cut the object, by the first rule that fits. */
void decide_object(batch_t *batch, zan_table_base_st *obj, zan_table_response_st *slot)
{
    if (slot->err_code != EOK) { // set in advance
        batch->last_rc = EOK;
        object_failed(batch, obj, slot, (zan_rcode)slot->err_code);
    } else if (batch->batch_rc != EOK && !batch->keep_going) {
        slot->err_code = ZAN_RC_BATCH_CUT;
        slot->batch_cut = 1;
        batch->last_rc = (int32_t)ZAN_RC_BATCH_CUT;
        BATCH_TRACE(obj, ZAN_CLASS_ZAN_BATCH_CRUD_ERROR__, BATCH_CUT, ZAN_RC_BATCH_CUT,
                    obj->table_id, obj->base_trans_id, batch->hdr.client_id);
    } else {
        batch->last_rc = zan_table_server_block_dispatcher(obj, slot);
        if (slot->err_code != EOK)
            object_failed(batch, obj, slot, (zan_rcode)slot->err_code);
        return;
    }
    BATCH_TRACE(obj, ZAN_CLASS_ZAN_BATCH_CRUD_ERROR__, BATCH_NOT_DISPATCHED, batch->hdr.client_id,
                slot->err_code, obj->table_id, obj->base_trans_id);
}

/* One object, between the two reads of the coarse clock. */
void run_object(batch_t *batch)
{
    zan_table_base_st *obj = batch->msg.curr_obj;
    zan_table_response_st *slot = batch->msg.curr_resp;
    const uint16_t table_id = obj->table_id;
    timespec start = {}, end = {}, duration = {};
    prefetch_message(&batch->msg);
    if (batch->looked_ahead == 0)
        look_ahead(batch);
    batch->looked_ahead--;
    zan_clock_gettime(CLOCK_REALTIME_COARSE, &start);
    batch->last_client_time = obj->client_time;
    table_update_first_op(table_id, &start, obj->base_trans_id, 1);
    decide_object(batch, obj, slot);
    zan_clock_gettime(CLOCK_REALTIME_COARSE, &end);
    clock_diff(&start, &end, &duration);
    table_update_last_op(table_id, &end, obj->base_trans_id, 1);
    table_dispatch_perf_update(table_id, &duration, 1);
    table_record_slow_op(table_id, &duration, obj->base_trans_id, obj->table_operation);
}

/* Whether the run of one table and operation ends with the object just done. */
bool ends_run(const zan_table_base_st *done, const zan_table_base_st *next)
{
    const bool is_async = (done->flag & ZAN_FLAG_IS_ASYNC_DISPATCH) != 0;
    if (!next)
        return is_async;
    const bool differs =
        next->table_id != done->table_id || next->table_operation != done->table_operation;
    return differs && is_async;
}

void run_objects(batch_t *batch)
{
    zan_table_base_st *next;
    do {
        zan_table_base_st *done = batch->msg.curr_obj;
        run_object(batch);
        next = disp_msg_iterate(&batch->msg);
        zan_dispatch_post_step(done, ends_run(done, next), false);
    } while (next);
}

/* The mean delay from the client's stamp to the entry, for each object once more. The iterator
 * clears the one slot of an asynchronous batch again: its client reads 0. */
void account_delay(batch_t *batch, uint8_t *bytes, zan_table_response_st *resp)
{
    const uint32_t num_objs = disp_msg_get_num_objs(&batch->msg);
    timespec delay, avg_delay;
    clock_diff(&batch->last_client_time, &batch->entry_time, &delay);
    zan_divide_timespec(&delay, num_objs, &avg_delay);
    zan_dispatch_msg_t msg;
    start_iterator(&msg, bytes, resp, batch->hdr);
    do
        table_ipc_perf_update(msg.curr_obj->table_id, &avg_delay);
    while (disp_msg_iterate(&msg));
}

} // namespace

int32_t zan_table_server_dispatcher(uint8_t *msg, zan_table_response_st *resp,
                                    kor_table_req_hdr_st hdr, char *)
{
    ZAN_ASSERT(zan_core_is_dispatch_thread() || zan_core_is_frr_thread(),
               "zan_core_is_dispatch_thread() || zan_core_is_frr_thread()");
    ZAN_ASSERT(hdr.msg_len != 0, "msg_len != 0");
    batch_t batch = {};
    batch.hdr = hdr;
    zan_clock_gettime(CLOCK_REALTIME, &batch.entry_time);
    internal_async_queue_process(); // work queued since the last batch goes first
    start_iterator(&batch.msg, msg, resp, hdr);
    batch.keep_going = batch.msg.batch_is_async || hdr.continue_on_error;
    run_objects(&batch);
    account_delay(&batch, msg, resp);
    zan_dsp_q_process_east_west();
    return batch.last_rc;
}

int zan_table_server_block_dispatcher(zan_table_base_st *wire_obj, zan_table_response_st *response)
{
    const srv_zan_table_props_t *props = zan_srv_table_props_get(wire_obj->table_id);
    zan_table_base_st *heap = zan_copy_ctor_from_serialized(wire_obj);
    ZAN_ASSERT(response->err_code == EOK, "response->err_code == EOK");
    const zan_rcode rc = props->crud_from_obj_base(heap, response, 0xff, nullptr);
    const uint8_t operation = heap->table_operation; // an entry may have changed it
    const bool read = operation >= ZAN_TABLE_GET && operation <= ZAN_TABLE_GET_NEXT;
    const bool write = operation == ZAN_TABLE_CREATE || operation == ZAN_TABLE_UPDATE;
    if (read || (write && (props->option_bits & ZAN_OPTION_SERIALIZE_BACK))) {
        const uint32_t to_next = wire_obj->total_obj_size; // the room that the request came with
        heap->total_obj_size = to_next;
        props->serialize(heap, wire_obj);
        wire_obj->total_obj_size = to_next;
    }
    props->copy_dtor(heap);
    return (int)rc;
}
