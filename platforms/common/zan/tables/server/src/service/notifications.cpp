/* Notifications: an object as it is now, with a header, to the default queue or straight to the
 * clients.
 *
 * From the dispatcher thread and from NPU threads. Each table has a mutex for it, which covers its
 * buffer and the hand-over, so that the order of a table's notifications is that in which they got
 * the mutex. A notification that fails has no effect on the object.
 */
#include "table_server_api_common.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace
{

/* Asynchronous tables alone tell of what their responses cannot. */
bool is_filtered(const zan_table_def_t *def, uint32_t type)
{
    return !def->write_mode && type >= 13 && type <= 19;
}

/* These overtake what is queued. */
bool skips_queue(uint32_t type)
{
    return (type & ~4u) == 2;
}

void lock(pthread_mutex_t *mutex, const char *function)
{
    int rc = pthread_mutex_trylock(mutex);
    if (rc == EBUSY) {
        ptd_set_mutex_block(mutex, function, __LINE__);
        rc = pthread_mutex_lock(mutex);
        ptd_unset_mutex_block();
    }
    ZAN_ASSERT(rc == 0, "rc == 0");
}

/* The buffer of a table whose objects vary in size; it only grows. */
void *table_buffer(zan_table_state_t *state, uint32_t alloc_len)
{
    if (alloc_len > state->notif_buffer_len) {
        void *msg = realloc(state->notif_buffer, alloc_len);
        ZAN_ASSERT(msg, "msg");
        state->notif_buffer = msg;
        state->notif_buffer_len = alloc_len;
    }
    return state->notif_buffer;
}

void fill_header(const zan_table_def_t *def, const zan_srv_send_notif_st *notif,
                 zan_notify_hdr_st *hdr)
{
    const zan_table_base_st *obj = notif->obj;
    memset(hdr, 0, sizeof *hdr);
    kor_notify_msg_set_type(hdr, notif->type);
    kor_notify_msg_set_table_id(hdr, obj->table_id);
    kor_notify_msg_set_table_operation(hdr, obj->table_operation);
    kor_notify_msg_set_trans_id(hdr, obj->base_trans_id);
    kor_notify_msg_set_npu_id(hdr, obj->npu_id);
    kor_notify_msg_set_obj_handle(hdr, 0);
    kor_notify_msg_set_req_msg_size(hdr, obj->total_obj_size);
    kor_notify_msg_set_jid(hdr, obj->client_epoch);
    kor_notify_msg_set_num_repeat_count(hdr, zan_obj_num_elements(def, obj));
}

/* It may be a stored one. */
uint32_t write_object(const srv_zan_table_props_t *props, const zan_table_base_st *obj,
                      void *buffer)
{
    const zan_counters_hold_t hold(props->def);
    return props->serialize(obj, buffer);
}

} // namespace

zan_rcode kor_send_table_notification(const zan_table_def_t *def, zan_srv_send_notif_st *notif)
{
    if (is_filtered(def, notif->type))
        return EOK;
    zan_table_state_t *state = zan_table_state(def);
    zan_table_base_st *obj = notif->obj;
    lock(&state->notif_mutex, __func__);

    const uint32_t alloc_len = obj->total_obj_size;
    void *buffer =
        def->num_elements_offset ? table_buffer(state, alloc_len) : __builtin_alloca(alloc_len);
    const uint32_t serialize_sz = write_object(state->props, obj, buffer);
    ZAN_ASSERT(serialize_sz <= alloc_len, "serialize_sz <= alloc_len");
    zan_notify_hdr_st hdr;
    fill_header(def, notif, &hdr);
    if (skips_queue(notif->type) || zan_srv_default_async_notif_queue_enqueue(
                                        obj, notif->type, notif->arg) == ZAN_NOTIF_NOT_QUEUED)
        kor_send_notification(0, "NOTIFY_ALL", &hdr, sizeof hdr, buffer, serialize_sz);

    const int rc = pthread_mutex_unlock(&state->notif_mutex);
    ZAN_ASSERT(rc == 0, "rc == 0");
    ZAN_TRACE_TABLE(zan_slt_table_id(def->id, ZAN_TRACE_LEVEL_VERBOSE), def->id, NOTIFIED,
                    notif->type, obj->base_trans_id);
    return EOK;
}
