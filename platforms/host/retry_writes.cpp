/* The writes of a retry.
 *
 * An object that is stored goes through the door that every client uses: a batch with one request,
 * in retry mode. One that is stored no more has no such door: its delete goes to the NPUs that hold
 * it and to no others, as the delete flow would have sent it.
 */
#include "retry_writes.h"
#include "clock.h"
#include "exec_queue.h"
#include "global_context.h"
#include "host_blocks.h"
#include "host_resources.h"
#include "locks.h"
#include "npu_message.h"
#include "object_memory.h"
#include "server_entry.h"
#include "table_properties.h"

#include <cerrno>

namespace
{

/* What a client says of an object, and the server keeps. */
constexpr uint32_t kept_flags = ZAN_FLAG_CARRY | ZAN_FLAG_CARRY_HI;
constexpr size_t adj_list_bytes = 24;

/* The request as a client would have made it: what only the server writes is not in it. The
 * transaction stays that of the object's last write, under which people look for it. */
void make_request(const zan_table_def_t *def, const zan_table_base_st *obj, uint32_t operation,
                  uint32_t size, zan_table_base_st *request)
{
    {
        const zan_counters_hold_t hold(def);
        zan_obj_serialize(def, 0, obj, request);
    }
    const zan_table_base_st given = *request;
    memset((void *)request, 0, sizeof *request);
    request->table_id = def->id;
    request->total_obj_size = size;
    request->table_operation = (uint8_t)operation;
    request->key_len = def->key_size;
    request->flag = ZAN_FLAG_RETRY_MODE | (given.flag & kept_flags);
    request->base_trans_id = given.base_trans_id;
    request->client_epoch = given.client_epoch;
    zan_clock_gettime(CLOCK_REALTIME, &request->client_time);
    if (def->adj_list_offset)
        memset(zan_obj_at(request, def->adj_list_offset), 0, adj_list_bytes);
    if (def->obj_ref_cnt_offset)
        memset(zan_obj_at(request, def->obj_ref_cnt_offset), 0, ZAN_REF_CNT_BYTES);
    for (uint32_t i = 0; def->periodic_stats && i < def->num_attrs; i++)
        if (def->attrs[i].statistic)
            *zan_obj_attr_set(&def->attrs[i], request, 0, 0) = 0;
}

/* ---- The delete of what is not stored ---- */

zan_table_base_st *make_copy(const srv_zan_table_props_t *props, const zan_table_base_st *obj)
{
    zan_table_base_st *copy = props->copy_ctor(obj);
    if (!copy)
        return nullptr;
    copy->table_operation = ZAN_TABLE_DELETE;
    copy->flag |= ZAN_FLAG_RETRY_MODE;
    copy->obj_handle = ZAN_POISON_NO_DB_OBJ;
    return copy;
}

/* The message brings the copy home and frees it. */
zan_rcode send_delete(zan_table_base_st *copy, kor_npu_mask_t npus)
{
    kor_exec_q_st *queue = get_global_exec_q();
    kor_core_srv_dispatch_t *record = zan_srv_msg_alloc(ZAN_TABLE_DELETE);
    zan_exec_q_msg_st *msg = record ? zan_exec_q_msg_alloc(queue) : nullptr;
    if (!msg) {
        zan_srv_msg_free(record);
        return ZAN_RC_NO_MEMORY;
    }
    copy->flag |= ZAN_FLAG_IS_ASYNC_WRITE;
    record->is_async = 1;
    record->resize_aux = 1; /* the identifiers went with the delete that failed */
    record->obj = copy;
    record->npus_left = (uint32_t)__builtin_popcountll(npus);
    record->num_npus = zan_get_global_ctx()->num_npus;
    record->npu_stats = zan_get_global_ctx()->npu;
    msg->type = ZAN_EXEC_MSG_NPU_REQUEST;
    msg->payload = record;
    msg->count = record->npus_left;
    const int rc = kor_exec_q_req_bcast(queue, msg, npus);
    if (rc == 0)
        return EOK;
    zan_exec_q_msg_free(msg);
    zan_srv_msg_free(record);
    return ZAN_RC_NO_RESULT_YET;
}

void delete_here(const srv_zan_table_props_t *props, zan_table_base_st *copy, kor_npu_mask_t npus)
{
    const zan_rcode rc = props->delete_(0, copy);
    if (rc != EOK && (rc & 0xfff) != ENOENT)
        return;
    for (; npus; npus &= npus - 1)
        host_resources_correct((uint32_t)__builtin_ctzll(npus), copy->table_id, false);
}

/* On this thread, with the NPU queues stopped, as hooks of these tables are always called: NPU by
 * NPU, or once with the mask in the object. */
zan_rcode delete_direct(const srv_zan_table_props_t *props, zan_table_base_st *copy,
                        kor_npu_mask_t npus)
{
    const zan_table_def_t *def = props->def;
    if (zan_exec_q_sync_ctrl_request_only() != 0)
        return ZAN_RC_NO_RESULT_YET;
    const bool stopped = kor_exec_q_resp_wait(get_global_exec_q()) == 0;
    if (stopped && def->table_class != 0) {
        *zan_obj_npu_mask_req(def, copy) = npus;
        *zan_obj_npu_mask_req_set(def, copy) = 1;
        delete_here(props, copy, npus);
    }
    for (kor_npu_mask_t left = npus; stopped && def->table_class == 0 && left; left &= left - 1) {
        copy->npu_id = (uint8_t)__builtin_ctzll(left);
        *zan_obj_npu_mask_req(def, copy) = copy->npu_id;
        delete_here(props, copy, left & -left);
    }
    zan_exec_q_sync_ctrl_allow_all_queues();
    return stopped ? (zan_rcode)EOK : ZAN_RC_NO_RESULT_YET;
}

} // namespace

zan_rcode host_retry_request(const zan_table_base_st *obj, zan_table_operation_et operation)
{
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    const uint32_t size = def->obj_size + zan_obj_dyn_size(def, zan_obj_num_elements(def, obj));
    auto *request = (zan_table_base_st *)host_block_alloc(size);
    if (!request)
        return ZAN_RC_NO_MEMORY;
    make_request(def, obj, operation, size, request);
    const bool is_stale = (obj->flag & ZAN_FLAG_STALE) != 0;
    const object_name_t name = name_of(obj);
    zan_table_response_st slot = {};
    const kor_table_req_hdr_st hdr = {1, size, 0, 1, {}};
    zan_table_server_dispatcher((uint8_t *)request, &slot, hdr, nullptr);
    host_block_free(request);
    zan_table_base_st *stored = is_stale ? find_stored(name) : nullptr;
    if (stored) /* this was not the client, for whom a replay waits */
        zan_obj_mark_stale(def, stored);
    return (zan_rcode)slot.err_code;
}

zan_rcode host_retry_clean(const zan_table_base_st *obj, kor_npu_mask_t npus)
{
    const srv_zan_table_props_t *props = zan_srv_table_props_get(obj->table_id);
    zan_table_base_st *copy = make_copy(props, obj);
    if (!copy)
        return ZAN_RC_NO_MEMORY;
    zan_rcode rc;
    if (props->def->npu_threads) {
        rc = send_delete(copy, npus);
        if (rc == EOK)
            return EOK; /* the copy has gone along */
    } else {
        rc = delete_direct(props, copy, npus);
    }
    props->copy_dtor(copy);
    return rc;
}
