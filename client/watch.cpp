/* Notifications: which are wanted, and how they reach the client's function. */
#include "client_state.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <poll.h>

namespace
{

struct free_object_t {
    zan_table_base_st *obj;
    ~free_object_t()
    {
        free(obj);
    }
};

/* The object of a notification in heap form, without the private area that the server's form may
 * have; null when the bytes are no object of the table, or without memory. */
zan_table_base_st *take_object(const zan_table_def_t *def, const uint8_t *bytes, size_t size)
{
    if (!def || size < def->obj_size)
        return nullptr;
    const auto *wire = (const zan_table_base_st *)bytes;
    if (wire->table_id != def->id)
        return nullptr;
    const uint32_t members = zan_obj_num_elements(def, wire);
    const uint32_t dyn = members <= ZAN_ELEMENTS_MAX ? zan_obj_dyn_size(def, members) : UINT32_MAX;
    if (dyn > size - def->obj_size)
        return nullptr;
    zan_table_base_st *obj = zan_obj_ctor(def, 0, members);
    if (!obj)
        return nullptr;
    const uint32_t total = obj->total_obj_size;
    memcpy((void *)obj, bytes, def->obj_size);
    obj->total_obj_size = total;
    obj->heap_form = 1;
    uint8_t *to = (uint8_t *)obj + def->obj_size;
    if (dyn)
        memcpy(to, bytes + (size - dyn), dyn);
    zan_obj_fix_ptrs(def, obj, dyn ? to : nullptr);
    return obj;
}

} // namespace

int client_deliver(zan_client_t *client, const byte_block_t *frame)
{
    zan_client_notification_t n = {};
    if (frame->len < sizeof n.head)
        return client_lose(client, "the agent sent a notification of %zu bytes", frame->len);
    memcpy(&n.head, frame->bytes, sizeof n.head);
    const uint8_t *message = frame->bytes + sizeof n.head;
    const size_t size = frame->len - sizeof n.head;
    free_object_t own = {nullptr};
    if (n.head.type == ZAN_NOTIFY_RESOURCE && size == sizeof n.resource)
        memcpy(&n.resource, message, sizeof n.resource);
    else if (n.head.type != ZAN_NOTIFY_RESOURCE)
        n.obj = own.obj = take_object(zan_table_def_get(n.head.table_id), message, size);
    else
        return client_lose(client, "the agent sent a notification of %zu bytes", frame->len);
    if (n.head.type != ZAN_NOTIFY_RESOURCE && !n.obj)
        return client_lose(client, "the agent sent a notification that is no object");
    if (client->notify)
        client->notify(&n, client->notify_arg);
    return 0;
}

int zan_client_watch(zan_client_t *client, const zan_watch_st *wanted, zan_client_notify_f notify,
                     void *arg)
{
    client->notify = notify;
    client->notify_arg = arg;
    byte_block_t bytes = {};
    const int result =
        client_ask(client, ZAN_FRAME_WATCH, wanted, sizeof *wanted, ZAN_FRAME_WATCH_REPLY, &bytes);
    free(bytes.bytes);
    return result;
}

int zan_client_wait(zan_client_t *client, int timeout_ms)
{
    if (client->fd < 0)
        return client_fail(client, "the session is over: connect again");
    if (client->reply_tag != client->next_tag)
        return client_fail(client, "requests are under way: their replies come first");
    constexpr int at_a_time = 256;
    pollfd fd = {client->fd, POLLIN, 0};
    int delivered = 0;
    while (delivered < at_a_time && poll(&fd, 1, delivered ? 0 : timeout_ms) > 0) {
        zan_frame_hdr_st hdr;
        byte_block_t payload = {};
        const int received = client_receive_frame(client, &hdr, &payload);
        const bool is_error = received == 0 && hdr.type == ZAN_FRAME_ERROR;
        if (is_error)
            client_take_refusal(client, &payload);
        free(payload.bytes);
        if (received < 0 || is_error)
            return -1;
        if (received == 0)
            return client_lose(client, "the agent sent a reply that nobody asked for");
        delivered++;
    }
    return delivered;
}
