/* Notifications from the host's service to the transport. */
#include "requests.h"

#include "host_notifications.h"
#include "zan_tables_private.h"

#include <cstring>
#include <memory>

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

} // namespace

bool next_notification(notification_t *out)
{
    const std::unique_ptr<zan_host_notification_t, free_notification_t> from(zan_host_notif_take());
    if (!from)
        return false;
    const zan_notify_hdr_st &hdr = from->hdr;
    out->head = {hdr.type,
                 hdr.table_id,
                 hdr.table_operation,
                 hdr.trans_id,
                 hdr.npu_id,
                 hdr.jid,
                 from->lost,
                 0,
                 from->size,
                 0};
    const auto *bytes = (const uint8_t *)(from.get() + 1);
    out->message.assign(bytes, bytes + from->size);
    out->object = object_of(out->head, out->message);
    return true;
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
