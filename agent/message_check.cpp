/* A batch is checked object by object, each in the order in which its fields get a meaning: first
 * the sizes, so that every later address is good, then what is asked, then the header, then the
 * content. A check that fails fills in the verdict and ends everything.
 */
#include "message_check.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace
{

constexpr size_t adj_list_bytes = 24;
/* A client_time further back than this is no measurement of anything. */
constexpr int64_t oldest_client_time_s = 24 * 3600;
constexpr uint16_t known_getopts = ZAN_GETOPT_STALE_ONLY | ZAN_GETOPT_FORMAT_TEXT |
                                   ZAN_GETOPT_STOP_QUEUES_A | ZAN_GETOPT_STOP_QUEUES_B |
                                   ZAN_GETOPT_SHOW_BUFFER;
constexpr uint16_t text_getopts = ZAN_GETOPT_FORMAT_TEXT | ZAN_GETOPT_SHOW_BUFFER;

struct check_t {
    const message_facts_t &facts;
    const zan_batch_frame_st &frame;
    message_verdict_t verdict;
};

/* One object under the check. */
struct object_t {
    zan_table_base_st *base;
    const zan_table_def_t *def;
    size_t remaining; /* bytes of the batch from here on */
    uint32_t num_elements;
    uint8_t *dyn; /* its dynamic part; null without members */
};

__attribute__((format(printf, 3, 4))) bool refuse(check_t *check, const char *field,
                                                  const char *format, ...)
{
    message_verdict_t *v = &check->verdict;
    v->ok = false;
    snprintf(v->field, sizeof v->field, "%s", field);
    va_list args;
    va_start(args, format);
    vsnprintf(v->reason, sizeof v->reason, format, args);
    va_end(args);
    return false;
}

bool is_write(uint8_t operation)
{
    return operation == ZAN_TABLE_CREATE || operation == ZAN_TABLE_UPDATE ||
           operation == ZAN_TABLE_DELETE;
}

bool is_read(uint8_t operation)
{
    return operation >= ZAN_TABLE_GET && operation <= ZAN_TABLE_GET_NEXT;
}

/* ---- The batch as a whole ---- */

bool check_batch_header(check_t *check, size_t len)
{
    const kor_table_req_hdr_st &hdr = check->frame.hdr;
    if (hdr.msg_len != len)
        return refuse(check, "msg_len", "the header says %u bytes, %zu came", hdr.msg_len, len);
    if (len == 0)
        return refuse(check, "msg_len", "the batch has no object");
    if (hdr.continue_on_error > 1)
        return refuse(check, "continue_on_error", "%u is neither 0 nor 1", hdr.continue_on_error);
    if (hdr.num_resp == 0)
        return refuse(check, "num_resp", "there must be a response slot");
    if (check->frame.payload_alloc_sz % 8)
        return refuse(check, "payload_alloc_sz", "%u is no multiple of 8",
                      check->frame.payload_alloc_sz);
    const uint64_t slot = (uint64_t)check->frame.payload_alloc_sz + ZAN_RESPONSE_HDR_SIZE;
    const uint64_t reply = sizeof(zan_batch_reply_st) + slot * hdr.num_resp + len;
    if (reply > check->facts.reply_max)
        return refuse(check, "num_resp",
                      "%u slots of %llu bytes and the objects exceed a reply of "
                      "%u bytes: send smaller batches",
                      hdr.num_resp, (unsigned long long)slot, check->facts.reply_max);
    return true;
}

bool check_num_resp(check_t *check)
{
    const message_verdict_t &v = check->verdict;
    const uint32_t need = v.is_async ? 1 : v.num_objects;
    check->verdict.object_index = ZAN_WIRE_NO_INDEX;
    if (check->frame.hdr.num_resp < need)
        return refuse(check, "num_resp", "%u response slots for %u objects",
                      check->frame.hdr.num_resp, v.num_objects);
    return true;
}

/* ---- Sizes: after these every address in the object is good ---- */

bool check_size(check_t *check, object_t *obj)
{
    zan_table_base_st *base = obj->base;
    if (obj->remaining < sizeof *base)
        return refuse(check, "total_obj_size", "the batch ends %zu bytes into the object's header",
                      obj->remaining);
    const uint32_t total = base->total_obj_size;
    if (total % 8 || total < sizeof *base)
        return refuse(check, "total_obj_size",
                      "%u is no size of an object: a multiple of 8, at "
                      "least %zu",
                      total, sizeof *base);
    if (total > obj->remaining)
        return refuse(check, "total_obj_size", "%u bytes, but the batch ends after %zu", total,
                      obj->remaining);
    obj->def = zan_table_def_get(base->table_id);
    if (!obj->def)
        return refuse(check, "table_id", "%u is no table", base->table_id);
    if (total < obj->def->obj_size)
        return refuse(check, "total_obj_size", "%u bytes are less than the %u of the fixed part",
                      total, obj->def->obj_size);
    return true;
}

bool check_members(check_t *check, object_t *obj)
{
    const zan_table_def_t *def = obj->def;
    const uint32_t total = obj->base->total_obj_size;
    obj->num_elements = zan_obj_num_elements(def, obj->base);
    if (obj->num_elements > ZAN_ELEMENTS_MAX)
        return refuse(check, "num_elements", "%u members, at most %u", obj->num_elements,
                      ZAN_ELEMENTS_MAX);
    const uint64_t dyn = zan_obj_dyn_size(def, obj->num_elements);
    const uint64_t gap = check->facts.private_size ? check->facts.private_size[def->id] : 0;
    const uint64_t plain = def->obj_size + dyn;
    if (total != plain && total != plain + gap)
        return refuse(check, "total_obj_size", "%u bytes, where %u members make %llu", total,
                      obj->num_elements, (unsigned long long)plain);
    obj->dyn = dyn ? (uint8_t *)obj->base + (total - dyn) : nullptr;
    return true;
}

/* ---- What is asked ---- */

bool check_operation(check_t *check, const object_t *obj)
{
    const zan_table_def_t *def = obj->def;
    const uint8_t operation = obj->base->table_operation;
    switch (operation) {
    case ZAN_TABLE_CREATE:
    case ZAN_TABLE_UPDATE:
    case ZAN_TABLE_DELETE:
    case ZAN_TABLE_GET:
    case ZAN_TABLE_GET_FIRST:
    case ZAN_TABLE_GET_GT_EQ:
    case ZAN_TABLE_GET_NEXT:
        return true;
    case ZAN_TABLE_REPLAY_START:
    case ZAN_TABLE_REPLAY_END:
        check->verdict.replays = true;
        return true;
    case ZAN_TABLE_EOD:
        return def->eod_entry ||
               refuse(check, "table_operation", "%s has no end of download", def->name);
    default:
        return refuse(check, "table_operation", "%u is no operation that a client may ask for",
                      operation);
    }
}

const char *flag_name(uint32_t bit)
{
    switch (bit) {
    case ZAN_FLAG_STALE:
        return "stale";
    case ZAN_FLAG_IS_ASYNC_WRITE:
        return "is_async_write";
    case ZAN_FLAG_DELETING:
        return "deleting";
    case ZAN_FLAG_QUEUED_DELETE:
        return "queued_delete";
    case ZAN_FLAG_OOR_HELD:
        return "oor_held";
    case ZAN_FLAG_FWALK_COLORED:
        return "fwalk_colored";
    case ZAN_FLAG_TRANSIENT_10:
    case ZAN_FLAG_TRANSIENT_15:
    case ZAN_FLAG_TRANSIENT_17:
        return "transient";
    default:
        return "unused";
    }
}

bool check_flags(check_t *check, const object_t *obj)
{
    const uint32_t flag = obj->base->flag;
    const uint8_t operation = obj->base->table_operation;
    if (const uint32_t foreign = flag & ~(uint32_t)ZAN_FLAG_CLIENT_MASK) {
        const int bit = __builtin_ctz(foreign);
        return refuse(check, "flag", "bit %d (%s) is not a client's to set", bit,
                      flag_name(1u << bit));
    }
    const bool is_async = (flag & ZAN_FLAG_IS_ASYNC_DISPATCH) != 0;
    if (check->verdict.object_index == 0)
        check->verdict.is_async = is_async;
    if (is_async != check->verdict.is_async)
        return refuse(check, "flag",
                      "bit 6 (is_async_dispatch) is %s here and %s in object 0: a "
                      "batch is wholly synchronous or wholly asynchronous",
                      is_async ? "set" : "clear", is_async ? "clear" : "set");
    if (is_async && !is_write(operation))
        return refuse(check, "table_operation", "an asynchronous batch takes writes only, not %s",
                      zan_table_operation_str(operation));
    if ((flag & ZAN_FLAG_USE_ASYNC_BARRIER) && !obj->def->write_mode)
        return refuse(check, "flag",
                      "bit 2 (use_async_barrier): %s is written synchronously and "
                      "takes no barrier",
                      obj->def->name);
    return true;
}

bool check_options(check_t *check, const object_t *obj)
{
    const zan_table_base_st *base = obj->base;
    const uint16_t mask = base->getopt_mask;
    if (mask && !is_read(base->table_operation))
        return refuse(check, "getopt_mask", "0x%x: read options on %s", mask,
                      zan_table_operation_str(base->table_operation));
    if (mask & ~known_getopts)
        return refuse(check, "getopt_mask", "0x%x has an unknown bit", mask);
    if ((mask & text_getopts) && check->frame.payload_alloc_sz == 0)
        return refuse(check, "getopt_mask", "0x%x asks for text, and the slots have no payload",
                      mask);
    if (base->write_kind > ZAN_WRITE_KIND_REPLACE_REF)
        return refuse(check, "write_kind", "%u is no kind of write: 0 to %u", base->write_kind,
                      ZAN_WRITE_KIND_REPLACE_REF);
    if (base->write_kind && base->table_operation != ZAN_TABLE_CREATE)
        return refuse(check, "write_kind", "only a create has a kind of write");
    return true;
}

bool check_name(check_t *check, const object_t *obj)
{
    const zan_table_base_st *base = obj->base;
    const uint16_t key_len = base->key_len;
    if (key_len && key_len != obj->def->key_size)
        return refuse(check, "key_len", "%u bytes, the key of %s has %u", key_len, obj->def->name,
                      obj->def->key_size);
    if (key_len)
        return true;
    switch (base->table_operation) {
    case ZAN_TABLE_CREATE:
        return refuse(check, "key_len", "a create needs the key");
    case ZAN_TABLE_UPDATE:
    case ZAN_TABLE_DELETE:
    case ZAN_TABLE_GET:
    case ZAN_TABLE_GET_GT_EQ:
    case ZAN_TABLE_GET_NEXT:
        return base->obj_handle || refuse(check, "key_len", "%s needs a key or a handle",
                                          zan_table_operation_str(base->table_operation));
    default:
        return true;
    }
}

bool check_npu_mask(check_t *check, const object_t *obj)
{
    const zan_table_def_t *def = obj->def;
    if (!*zan_obj_npu_mask_req_set(def, obj->base))
        return true;
    const kor_npu_mask_t asked = *zan_obj_npu_mask_req(def, obj->base);
    const kor_npu_mask_t all = ((kor_npu_mask_t)1 << check->facts.num_npus) - 1;
    if (asked & ~all)
        return refuse(check, "npu_mask_req", "0x%llx asks for NPU %d, the node has %u",
                      (unsigned long long)asked, __builtin_ctzll(asked & ~all),
                      check->facts.num_npus);
    return true;
}

/* ---- Content ---- */

/* The pointers lead into the message while the fields are looked at, and nowhere afterwards. */
bool check_fields(check_t *check, const object_t *obj)
{
    char where[96];
    zan_obj_fix_ptrs(obj->def, obj->base, obj->dyn);
    const char *bad = zan_obj_invalid_field(obj->def, obj->base, where, sizeof where);
    zan_obj_fix_ptrs(obj->def, obj->base, nullptr);
    if (bad)
        return refuse(check, where[0] ? where : bad, "the value is not one that the field takes");
    return true;
}

bool is_plausible(const timespec &when, const timespec &now)
{
    return when.tv_nsec >= 0 && when.tv_nsec < 1000000000 && when.tv_sec <= now.tv_sec &&
           when.tv_sec >= now.tv_sec - oldest_client_time_s;
}

/* An object is traced by its transaction, so that each has one. */
void name_transaction(const check_t *check, const object_t *obj)
{
    zan_table_base_st *base = obj->base;
    uint32_t *trans_id = zan_obj_trans_id(obj->def, base);
    if (base->base_trans_id == 0 && *trans_id == 0 && check->facts.last_trans)
        base->base_trans_id = *trans_id = ++*check->facts.last_trans | ZAN_AGENT_TRANS;
}

/* Whatever only the server may write; every byte of the header is either checked, kept as the
 * client's own (handle, epoch, transaction) or cleared here. */
void clear_server_fields(const check_t *check, const object_t *obj)
{
    zan_table_base_st *base = obj->base;
    const zan_table_def_t *def = obj->def;
    memset(base->dpd_area, 0, sizeof base->dpd_area);
    if (!is_plausible(base->client_time, check->facts.now))
        base->client_time = check->facts.now;
    memset(base->reserved, 0, sizeof base->reserved);
    base->npu_mask = 0;
    base->rc_stamp = 0;
    base->obj_id = 0;
    base->hw_state = 0;
    base->npu_id = 0;
    base->heap_form = 0;
    base->inflight = 0;
    if (!base->key_len) /* nothing has looked at it */
        memset(zan_obj_key(def, base), 0, def->key_size);
    if (def->adj_list_offset)
        memset(zan_obj_at(base, def->adj_list_offset), 0, adj_list_bytes);
    if (def->obj_ref_cnt_offset)
        memset(zan_obj_at(base, def->obj_ref_cnt_offset), 0, ZAN_REF_CNT_BYTES);
    /* The gap of the private area. */
    const uint32_t dyn = zan_obj_dyn_size(def, obj->num_elements);
    memset((uint8_t *)base + def->obj_size, 0, base->total_obj_size - def->obj_size - dyn);
}

bool check_object(check_t *check, object_t *obj)
{
    return check_size(check, obj) && check_members(check, obj) && check_operation(check, obj) &&
           check_flags(check, obj) && check_options(check, obj) && check_name(check, obj) &&
           check_npu_mask(check, obj) && check_fields(check, obj);
}

} // namespace

message_verdict_t message_check(const message_facts_t &facts, const zan_batch_frame_st &frame,
                                uint8_t *msg, size_t len)
{
    check_t check = {facts, frame, {}};
    message_verdict_t *v = &check.verdict;
    v->object_index = ZAN_WIRE_NO_INDEX;
    if (!check_batch_header(&check, len))
        return *v;
    for (size_t at = 0; at < len;) {
        object_t obj = {(zan_table_base_st *)(msg + at), nullptr, len - at, 0, nullptr};
        v->object_index = v->num_objects;
        if (!check_object(&check, &obj))
            return *v;
        clear_server_fields(&check, &obj);
        name_transaction(&check, &obj);
        v->answers_in_place |= is_read(obj.base->table_operation) ||
                               (obj.def->serialize_back && is_write(obj.base->table_operation));
        v->num_objects++;
        at += obj.base->total_obj_size;
    }
    v->ok = check_num_resp(&check);
    return *v;
}
