/* Notifications from the host's service to the transport. */
#include "requests.h"

#include "host_notifications.h"
#include "zan_tables_private.h"

#include <cstring>

static_assert(ZAN_NOTIFY_RESOURCE == ZAN_HOST_NOTIF_RESOURCE, "types have one number");
static_assert(sizeof(zan_notify_resource_st) == sizeof(zan_host_notif_resource_st), "one layout");

namespace
{

/* What tells two notifications of the same object: table and key; of a resource NPU and database.
 */
std::string object_of(const zan_notification_st &head, const std::vector<uint8_t> &message)
{
    if (head.type == ZAN_NOTIFY_RESOURCE)
        return std::string((const char *)message.data(), 2 * sizeof(uint32_t));
    const zan_table_def_t *def = zan_table_defs[head.table_id];
    uint8_t key[ZAN_KEY_BYTES_MAX];
    zan_key_encode(def, message.data() + def->key_offset, key);
    return std::string((const char *)&head.table_id, sizeof head.table_id) +
           std::string((const char *)key, def->key_bytes);
}

} // namespace

bool next_notification(notification_t *out)
{
    zan_host_notification_t *from = zan_host_notif_take();
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
    const auto *bytes = (const uint8_t *)(from + 1);
    out->message.assign(bytes, bytes + from->size);
    out->object = object_of(out->head, out->message);
    zan_host_notif_free(from);
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
    for (uint32_t table_id = ZAN_NUM_TABLES; table_id < 6 * 64; table_id++)
        if (wanted.tables[table_id / 64] >> table_id % 64 & 1)
            return refuse_request(node, "tables", "there is no such table");
    return {ZAN_FRAME_WATCH_REPLY, std::vector<uint8_t>(sizeof(zan_frame_hdr_st))};
}
