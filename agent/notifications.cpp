/* Notifications from the host's service to the transport. */
#include "requests.h"

#include "host_notifications.h"
#include "zan_tables_private.h"

#include <cstring>
#include <memory>
#include <new>
#include <utility>

static_assert(ZAN_NOTIFY_RESOURCE == ZAN_HOST_NOTIF_RESOURCE, "types have one number");
static_assert(sizeof(zan_notify_resource_st) == sizeof(zan_host_notif_resource_st), "one layout");

namespace
{

/* What tells two notifications of the same object: table, and key or handle; of a resource NPU and
 * database. */
std::string object_of(const zan_notification_st &head, const std::vector<uint8_t> &message)
{
    std::string object((const char *)&head.table_id, sizeof head.table_id);
    if (head.type == ZAN_NOTIFY_RESOURCE)
        return object + std::string((const char *)message.data(), 2 * sizeof(uint32_t));
    const zan_table_def_t *def = zan_table_defs[head.table_id];
    const auto *obj = (const zan_table_base_st *)message.data();
    if (obj->key_len == 0)
        return object + "handle" + std::to_string(obj->obj_handle);
    uint8_t key[ZAN_KEY_BYTES_MAX];
    zan_key_encode(def, zan_obj_key(def, obj), key);
    return object + std::string((const char *)key, def->key_bytes);
}

struct free_notification_t {
    void operator()(zan_host_notification_t *n) const
    {
        zan_host_notif_free(n);
    }
};

notification_t as_notification(const zan_host_notification_t &from)
{
    const zan_notify_hdr_st &hdr = from.hdr;
    notification_t n;
    n.head = {hdr.type,
              hdr.table_id,
              hdr.table_operation,
              hdr.trans_id,
              hdr.npu_id,
              hdr.jid,
              from.lost,
              0,
              from.size,
              0};
    const auto *bytes = (const uint8_t *)(&from + 1);
    n.message.assign(bytes, bytes + from.size);
    n.object = object_of(n.head, n.message);
    n.sequence = from.sequence;
    return n;
}

} // namespace

/* One that there is no memory for is lost, with what it was to tell of. */
bool next_notification(notification_t *out)
{
    static uint32_t lost; /* the I/O thread's */
    using message_t = std::unique_ptr<zan_host_notification_t, free_notification_t>;
    while (const message_t from{zan_host_notif_take()}) {
        try {
            *out = as_notification(*from);
            out->head.lost += std::exchange(lost, 0);
            return true;
        } catch (const std::bad_alloc &) {
            lost += 1 + from->lost;
        }
    }
    return false;
}

void wake_transport(void *transport)
{
    transport_wake((transport_t *)transport);
}

answer_t run_watch(node_t *node, const request_t &request)
{
    zan_watch_st wanted;
    if (request.payload.size() != sizeof wanted)
        return refuse_request(node, "length", "the request's payload has another size");
    memcpy(&wanted, request.payload.data(), sizeof wanted);
    if (!is_watch(wanted))
        return refuse_request(node, "tables", "there is no such table");
    return {ZAN_FRAME_WATCH_REPLY, std::vector<uint8_t>(sizeof(zan_frame_hdr_st))};
}
