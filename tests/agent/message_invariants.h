/* What the server asserts about a batch, and what must be clear in it: an oracle beside the message
 * check, for the test and the fuzzer. Written from the server's side: it walks as the server walks.
 */
#ifndef MESSAGE_INVARIANTS_H
#define MESSAGE_INVARIANTS_H

#include "message_check.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

/* All bytes of a region are 0. */
inline bool is_clear(const void *bytes, size_t len)
{
    const auto *b = (const uint8_t *)bytes;
    return std::all_of(b, b + len, [](uint8_t x) { return x == 0; });
}

/* The name of the first invariant that an accepted batch breaks, or an empty string. */
inline std::string find_broken_invariant(const message_facts_t &facts,
                                         const zan_batch_frame_st &frame, uint8_t *msg, size_t len,
                                         uint32_t num_objects, bool is_async)
{
    if (frame.hdr.msg_len != len || len == 0)
        return "msg_len != 0";
    uint32_t index = 0;
    auto remain = (int64_t)len;
    for (uint8_t *at = msg; remain > 0; index++) {
        auto *obj = (zan_table_base_st *)at;
        const zan_table_def_t *def = zan_table_def_get(obj->table_id);
        if (!def)
            return "table_id";
        if (obj->total_obj_size == 0)
            return "new_base->total_obj_size";
        if (((obj->flag & ZAN_FLAG_IS_ASYNC_DISPATCH) != 0) != is_async)
            return "new_base->flag.is_async_dispatch == msg_ctx->batch_is_async";
        if (!is_async && index >= frame.hdr.num_resp)
            return "msg_ctx->curr_resp_idx < msg_ctx->num_resp";
        if (obj->table_operation == ZAN_TABLE_EOD && !def->eod_entry)
            return "eod_entry";
        if (obj->table_operation == ZAN_TABLE_EVENT || obj->table_operation == ZAN_TABLE_RESERVE ||
            obj->table_operation >= ZAN_TABLE_OPERATION_COUNT)
            return "table_operation";
        if ((obj->flag & ZAN_FLAG_USE_ASYNC_BARRIER) && !def->write_mode)
            return "is_async_write";
        if ((obj->getopt_mask & ZAN_GETOPT_SHOW_BUFFER) && frame.payload_alloc_sz == 0)
            return "resp->payload_alloc_sz != 0";
        if (obj->flag & ~(uint32_t)ZAN_FLAG_CLIENT_MASK)
            return "flag";
        /* The copy that the server makes reads fixed and dynamic part. */
        const uint64_t need =
            (uint64_t)def->obj_size + zan_obj_dyn_size(def, zan_obj_num_elements(def, obj));
        if (need > obj->total_obj_size || obj->total_obj_size > (uint64_t)remain)
            return "total_obj_size";
        if (!is_clear(obj->dpd_area, sizeof obj->dpd_area) ||
            !is_clear(obj->reserved, sizeof obj->reserved) || obj->npu_mask || obj->rc_stamp ||
            obj->obj_id || obj->hw_state || obj->npu_id || obj->heap_form || obj->inflight)
            return "header clear";
        if (def->adj_list_offset && !is_clear(zan_obj_at(obj, def->adj_list_offset), 24))
            return "adjacency list clear";
        if (def->obj_ref_cnt_offset && !is_clear(zan_obj_at(obj, def->obj_ref_cnt_offset), 5))
            return "obj_ref_cnt clear";
        for (unsigned i = 0; i < def->num_attrs; i++)
            if (def->attrs[i].shape == ZAN_SHAPE_REPEATED &&
                !is_clear(zan_obj_at(obj, def->attrs[i].offset), 8))
                return "pointer clear";
        for (unsigned i = 0; i < def->num_refs; i++)
            if (def->refs[i].repeated && !is_clear(zan_obj_at(obj, def->refs[i].offset), 8))
                return "pointer clear";
        if (obj->client_time.tv_sec > facts.now.tv_sec || obj->client_time.tv_nsec < 0 ||
            obj->client_time.tv_nsec >= 1000000000)
            return "client_time";
        if (*zan_obj_npu_mask_req_set(def, obj) &&
            *zan_obj_npu_mask_req(def, obj) >> facts.num_npus)
            return "npu_mask_req";
        remain -= obj->total_obj_size;
        at += obj->total_obj_size;
    }
    if (remain != 0)
        return "msg_ctx->len_remain == 0";
    return index == num_objects ? "" : "num_objects";
}

/* A raw input of the fuzzer: a batch frame, then the objects. What breaks, or an empty string. */
inline std::string check_raw_batch(const uint8_t *data, size_t size)
{
    zan_batch_frame_st frame;
    if (size < sizeof frame)
        return "";
    memcpy(&frame, data, sizeof frame);
    const size_t len = size - sizeof frame;
    const std::unique_ptr<uint8_t[]> msg(new uint8_t[len]);
    memcpy(msg.get(), data + sizeof frame, len);
    const message_facts_t facts = {2, nullptr, {1'700'000'000, 0}, ZAN_FRAME_MAX};
    const message_verdict_t v = message_check(facts, frame, msg.get(), len);
    if (!v.ok)
        return v.reason[0] ? "" : "a refusal without a reason";
    return find_broken_invariant(facts, frame, msg.get(), len, v.num_objects, v.is_async);
}

#endif
