/* The notification service: headers, the default queue, what is sent at once, and the receiver.
 *
 * Any thread of the server puts, under its table's mutex; the receiver's thread takes. One lock
 * here, around the lists alone. Without memory a notification is lost and counted as such.
 */
#include "host_notifications.h"
#include "locks.h"
#include "retry.h"
#include "table_properties.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

namespace
{

constexpr uint32_t num_types = 32;
uint64_t asked[num_types];

struct list_t {
    zan_host_notification_t *first = nullptr, **end = &first;
    uint32_t count = 0;
    size_t bytes = 0; /* behind the messages' heads */
};

constexpr size_t max_bytes = 16 << 20; /* in each list; an object may have very many members */

std::mutex mutex;
list_t at_once, queue;
uint64_t last_sequence;
uint32_t lost;      /* since the last that was taken */
uint64_t lost_ever; /* since the start */
zan_host_notif_ready_f ready;
void *ready_arg;

void append(list_t *list, zan_host_notification_t *message)
{
    message->next = nullptr;
    message->sequence = ++last_sequence;
    *list->end = message;
    list->end = &message->next;
    list->count++;
    list->bytes += message->size;
}

zan_host_notification_t *take(list_t *list)
{
    zan_host_notification_t *message = list->first;
    if (!message)
        return nullptr;
    list->first = message->next;
    if (!list->first)
        list->end = &list->first;
    list->count--;
    list->bytes -= message->size;
    return message;
}

void drop_all(list_t *list)
{
    while (zan_host_notification_t *message = take(list))
        free(message);
}

void lose_one()
{
    lost++;
    lost_ever++;
}

/* A message with room for `size` bytes behind it; null without memory. */
zan_host_notification_t *new_message(uint32_t size)
{
    auto *message = (zan_host_notification_t *)calloc(1, sizeof(zan_host_notification_t) + size);
    if (message)
        message->size = size;
    return message;
}

bool has_receiver()
{
    const std::lock_guard guard(mutex);
    return ready != nullptr;
}

/* Into a list, and the receiver hears of the first. False when the list is full and stays so. */
bool put(list_t *list, zan_host_notification_t *message, bool make_room)
{
    const std::lock_guard guard(mutex);
    if (!ready) {
        free(message);
        return true;
    }
    if (!message) {
        lose_one();
        return true;
    }
    const bool was_empty = !at_once.first && !queue.first;
    while (list->first &&
           (list->count == ZAN_HOST_NOTIF_QUEUED_MAX || list->bytes + message->size > max_bytes)) {
        if (!make_room)
            return false;
        free(take(list));
        lose_one();
    }
    append(list, message);
    if (was_empty)
        ready(ready_arg);
    return true;
}

/* Types that wait for nothing. What the queue refused, too, is sent without asking it, but in its
 * turn: the news of an object must not come in front of its past. */
bool overtakes(uint32_t type)
{
    return (type & ~4u) == 2;
}

void fill_header(const zan_table_base_st *obj, uint32_t type, zan_notify_hdr_st *hdr)
{
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    kor_notify_msg_set_type(hdr, type);
    kor_notify_msg_set_table_id(hdr, obj->table_id);
    kor_notify_msg_set_table_operation(hdr, obj->table_operation);
    kor_notify_msg_set_trans_id(hdr, obj->base_trans_id);
    kor_notify_msg_set_npu_id(hdr, obj->npu_id);
    kor_notify_msg_set_req_msg_size(hdr, obj->total_obj_size);
    kor_notify_msg_set_jid(hdr, obj->client_epoch);
    kor_notify_msg_set_num_repeat_count(hdr, zan_obj_num_elements(def, obj));
}

} // namespace

/* ---- What the server calls ---- */

void zan_send_srv_notif(zan_table_base_st *obj, uint32_t type)
{
    __atomic_fetch_add(&asked[type % num_types], 1, __ATOMIC_RELAXED);
    const bool by_key = obj->key_len != 0 && obj->obj_handle == 0;
    if (type == ZAN_NOTIF_NOT_FOUND && obj->table_operation == ZAN_TABLE_DELETE && by_key)
        host_quarantine_forget(obj); /* what the client means may be out of service */
    zan_srv_send_notif_st notif = {obj, type, 0};
    zan_srv_table_props_get(obj->table_id)->send_notification(&notif);
}

uint32_t zan_srv_default_async_notif_queue_enqueue(const zan_table_base_st *obj, uint32_t type,
                                                   uint64_t arg)
{
    if (!has_receiver())
        return EOK;
    const srv_zan_table_props_t *props = zan_srv_table_props_get(obj->table_id);
    zan_host_notification_t *message = new_message(obj->total_obj_size);
    if (message) {
        message->arg = arg;
        {
            const zan_counters_hold_t hold(props->def); /* it may be a stored one */
            message->size = props->serialize(obj, message + 1);
        }
        fill_header(obj, type, &message->hdr);
        props->fill_default_async_notif_cb((zan_table_base_st *)(message + 1), &message->hdr);
    }
    if (put(&queue, message, false))
        return EOK;
    free(message);
    return ZAN_NOTIF_NOT_QUEUED;
}

int kor_send_notification(uint32_t, const char *, const zan_notify_hdr_st *hdr, uint32_t,
                          const void *msg, uint32_t size)
{
    if (!has_receiver())
        return EOK;
    zan_host_notification_t *message = new_message(size);
    if (message) {
        message->hdr = *hdr;
        memcpy((void *)(message + 1), msg, size);
    }
    put(overtakes(hdr->type) ? &at_once : &queue, message, true);
    return EOK;
}

void host_notify_resource(const zan_host_notif_resource_st *resource)
{
    zan_notify_hdr_st hdr = {};
    kor_notify_msg_set_type(&hdr, ZAN_HOST_NOTIF_RESOURCE);
    kor_notify_msg_set_table_id(&hdr, ZAN_NUM_TABLES);
    kor_notify_msg_set_npu_id(&hdr, resource->npu);
    kor_send_notification(0, "NOTIFY_ALL", &hdr, sizeof hdr, resource, sizeof *resource);
}

/* ---- The receiver ---- */

void zan_host_notif_set_receiver(zan_host_notif_ready_f wanted, void *arg)
{
    const std::lock_guard guard(mutex);
    ready = wanted;
    ready_arg = arg;
    lost = 0;
    drop_all(&at_once);
    drop_all(&queue);
}

zan_host_notification_t *zan_host_notif_take(void)
{
    const std::lock_guard guard(mutex);
    zan_host_notification_t *message = take(&at_once);
    if (!message)
        message = take(&queue);
    if (message) {
        message->lost = lost;
        lost = 0;
    }
    return message;
}

void zan_host_notif_free(zan_host_notification_t *notification)
{
    free(notification);
}

uint64_t zan_host_notifications(uint32_t type)
{
    return __atomic_load_n(&asked[type % num_types], __ATOMIC_RELAXED);
}

uint64_t zan_host_notifications_lost(void)
{
    const std::lock_guard guard(mutex);
    return lost_ever;
}

/* ---- Headers ---- */

void kor_notify_msg_set_type(zan_notify_hdr_st *hdr, uint32_t type)
{
    hdr->type = type;
}

void kor_notify_msg_set_table_id(zan_notify_hdr_st *hdr, uint32_t table_id)
{
    hdr->table_id = table_id;
}

void kor_notify_msg_set_table_operation(zan_notify_hdr_st *hdr, uint32_t operation)
{
    hdr->table_operation = operation;
}

void kor_notify_msg_set_trans_id(zan_notify_hdr_st *hdr, uint32_t trans_id)
{
    hdr->trans_id = trans_id;
}

void kor_notify_msg_set_npu_id(zan_notify_hdr_st *hdr, uint32_t npu_id)
{
    hdr->npu_id = npu_id;
}

void kor_notify_msg_set_obj_handle(zan_notify_hdr_st *hdr, uint64_t handle)
{
    hdr->obj_handle = handle;
}

void kor_notify_msg_set_req_msg_size(zan_notify_hdr_st *hdr, uint32_t size)
{
    hdr->req_msg_size = size;
}

void kor_notify_msg_set_jid(zan_notify_hdr_st *hdr, uint32_t jid)
{
    hdr->jid = jid;
}

void kor_notify_msg_set_num_repeat_count(zan_notify_hdr_st *hdr, uint32_t count)
{
    hdr->num_repeat_count = count;
}
