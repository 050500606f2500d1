/* Batches: objects are serialized straight into the frame that will be sent, and the reply stays in
 * the batch, where slots and objects are read from. */
#include "client_state.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

static const size_t objects_at = sizeof(zan_frame_hdr_st) + sizeof(zan_batch_frame_st);

static bool is_async(const zan_batch_t *batch)
{
    return (batch->flags & ZAN_BATCH_ASYNC) != 0;
}

static uint32_t slots_wanted(const zan_batch_t *batch, size_t count)
{
    return is_async(batch) ? 1 : (uint32_t)count;
}

zan_batch_t *zan_batch_new(uint32_t flags, uint32_t payload)
{
    auto *batch = new (std::nothrow) zan_batch_t{};
    if (!batch)
        return nullptr;
    batch->flags = flags;
    batch->payload = (uint32_t)ZAN_PAD8(payload);
    if (!block_reserve(&batch->request, 65536)) {
        zan_batch_free(batch);
        return nullptr;
    }
    zan_batch_clear(batch);
    return batch;
}

void zan_batch_free(zan_batch_t *batch)
{
    if (!batch)
        return;
    free(batch->request.bytes);
    free(batch->reply.bytes);
    delete batch;
}

void zan_batch_clear(zan_batch_t *batch)
{
    batch->request.len = objects_at;
    batch->offsets.clear();
    batch->answered = false;
}

/* Whether request and reply still fit in a frame with one more object of that size. */
static bool fits(const zan_batch_t *batch, size_t obj_size)
{
    const size_t objects = batch->request.len - objects_at + obj_size;
    const size_t slots = slots_wanted(batch, batch->offsets.size() + 1) *
                         ((size_t)batch->payload + ZAN_RESPONSE_HDR_SIZE);
    return sizeof(zan_batch_reply_st) + sizeof(zan_batch_frame_st) + objects + slots <=
           ZAN_FRAME_MAX;
}

int zan_batch_append(zan_batch_t *batch, const zan_table_base_st *obj, uint8_t operation)
{
    const zan_table_def_t *def = zan_table_def_get(obj->table_id);
    if (!def)
        return -1;
    const size_t size =
        (size_t)def->obj_size + zan_obj_dyn_size(def, zan_obj_num_elements(def, obj));
    if (!fits(batch, size) || !block_reserve(&batch->request, batch->request.len + size))
        return -1;
    try {
        batch->offsets.push_back((uint32_t)(batch->request.len - objects_at));
    } catch (const std::bad_alloc &) {
        return -1;
    }
    auto *wire = (zan_table_base_st *)(batch->request.bytes + batch->request.len);
    batch->request.len += zan_obj_serialize(def, 0, obj, wire);
    wire->table_operation = operation;
    clock_gettime(CLOCK_REALTIME_COARSE, &wire->client_time);
    if (is_async(batch))
        wire->flag |= ZAN_FLAG_IS_ASYNC_DISPATCH;
    return 0;
}

uint32_t zan_batch_count(const zan_batch_t *batch)
{
    return (uint32_t)batch->offsets.size();
}

size_t zan_batch_bytes(const zan_batch_t *batch)
{
    return batch->request.len - objects_at;
}

/* ---- Send and reply ---- */

static int submit(zan_client_t *client, zan_batch_t *batch, uint16_t type)
{
    if (batch->offsets.empty())
        return client_fail(client, "the batch is empty");
    const zan_frame_hdr_st hdr = {(uint32_t)(batch->request.len - sizeof hdr), type, 0, 0};
    zan_batch_frame_st frame = {};
    frame.hdr.msg_len = (uint32_t)zan_batch_bytes(batch);
    frame.hdr.num_resp = slots_wanted(batch, batch->offsets.size());
    frame.hdr.continue_on_error = (batch->flags & ZAN_BATCH_CONTINUE_ON_ERROR) != 0;
    frame.payload_alloc_sz = batch->payload;
    memcpy(batch->request.bytes, &hdr, sizeof hdr);
    memcpy(batch->request.bytes + sizeof hdr, &frame, sizeof frame);
    batch->answered = false;
    return client_send(client, batch->request.bytes);
}

/* Bytes of slots and objects in the reply; 0 when they are not what was asked for. */
static size_t sound_bytes(const zan_batch_t *batch)
{
    const byte_block_t *reply = &batch->reply;
    if (reply->len < sizeof(zan_batch_reply_st))
        return 0;
    const auto *hdr = (const zan_batch_reply_st *)reply->bytes;
    const uint64_t slot = (uint64_t)hdr->payload_alloc_sz + ZAN_RESPONSE_HDR_SIZE;
    const uint64_t size = sizeof *hdr + (uint64_t)hdr->slots_len + hdr->msg_len;
    const bool sound = hdr->payload_alloc_sz == batch->payload &&
                       hdr->num_slots == slots_wanted(batch, batch->offsets.size()) &&
                       hdr->slots_len == hdr->num_slots * slot &&
                       (hdr->msg_len == 0 || hdr->msg_len == zan_batch_bytes(batch)) &&
                       reply->len >= size;
    return sound ? size : 0;
}

static int lose_unsound(zan_client_t *client, const zan_batch_t *batch)
{
    return client_lose(client, "the agent's reply does not fit the batch of %u objects",
                       zan_batch_count(batch));
}

int zan_client_submit(zan_client_t *client, zan_batch_t *batch)
{
    return submit(client, batch, ZAN_FRAME_BATCH);
}

int zan_client_complete(zan_client_t *client, zan_batch_t *batch)
{
    if (client_receive(client, ZAN_FRAME_BATCH_REPLY, &batch->reply))
        return -1;
    const size_t size = sound_bytes(batch);
    if (size == 0 || size != batch->reply.len)
        return lose_unsound(client, batch);
    batch->answered = true;
    return 0;
}

int zan_client_run_walk(zan_client_t *client, zan_batch_t *batch, zan_walk_counts_st **counts)
{
    *counts = nullptr;
    if (submit(client, batch, ZAN_FRAME_WALK) ||
        client_receive(client, ZAN_FRAME_WALK_REPLY, &batch->reply))
        return -1;
    const size_t size = sound_bytes(batch);
    if (size == 0)
        return lose_unsound(client, batch);
    batch->answered = true;
    return client_take_walk_counts(client, &batch->reply, size, counts);
}

int zan_client_run(zan_client_t *client, zan_batch_t *batch)
{
    return zan_client_submit(client, batch) ? -1 : zan_client_complete(client, batch);
}

uint32_t zan_batch_slots(const zan_batch_t *batch)
{
    return batch->answered ? ((const zan_batch_reply_st *)batch->reply.bytes)->num_slots : 0;
}

const zan_table_response_st *zan_batch_slot(const zan_batch_t *batch, uint32_t index)
{
    if (index >= zan_batch_slots(batch))
        return nullptr;
    const size_t stride = (size_t)batch->payload + ZAN_RESPONSE_HDR_SIZE;
    return (const zan_table_response_st *)(batch->reply.bytes + sizeof(zan_batch_reply_st) +
                                           stride * index);
}

zan_rcode zan_batch_rc(const zan_batch_t *batch, uint32_t index)
{
    const zan_table_response_st *slot = zan_batch_slot(batch, index);
    return slot ? (zan_rcode)slot->err_code : ZAN_RC_BAD_ARGUMENT;
}

zan_table_base_st *zan_batch_object(const zan_batch_t *batch, uint32_t index)
{
    if (!batch->answered || index >= batch->offsets.size())
        return nullptr;
    const auto *hdr = (const zan_batch_reply_st *)batch->reply.bytes;
    if (hdr->msg_len == 0)
        return nullptr;
    const size_t at = batch->offsets[index];
    const size_t end = index + 1 < batch->offsets.size() ? batch->offsets[index + 1] : hdr->msg_len;
    const auto *wire =
        (const zan_table_base_st *)(batch->reply.bytes + sizeof *hdr + hdr->slots_len + at);
    const zan_table_def_t *def = zan_table_def_get(wire->table_id);
    if (!def || def->obj_size > end - at)
        return nullptr;
    const uint32_t num_elements = zan_obj_num_elements(def, wire);
    const uint32_t dyn_size = zan_obj_dyn_size(def, num_elements);
    if (dyn_size > end - at - def->obj_size)
        return nullptr;
    zan_table_base_st *obj = zan_obj_ctor(def, 0, num_elements);
    if (!obj)
        return nullptr;
    const uint32_t total = obj->total_obj_size;
    memcpy((void *)obj, (const void *)wire, def->obj_size);
    obj->total_obj_size = total;
    obj->heap_form = 1;
    uint8_t *dyn = (uint8_t *)obj + def->obj_size;
    memcpy(dyn, (const uint8_t *)wire + def->obj_size, dyn_size);
    zan_obj_fix_ptrs(def, obj, dyn);
    return obj;
}
