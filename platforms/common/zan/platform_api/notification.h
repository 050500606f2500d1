/* Notifications to clients about what no response slot can tell. */
#ifndef ZAN_PLATFORM_NOTIFICATION_H
#define ZAN_PLATFORM_NOTIFICATION_H

#include "zan_table_base.h"

/* Argument of the slot send_notification. */
typedef struct zan_srv_send_notif_st {
    zan_table_base_st *obj;
    uint32_t type;
    uint64_t arg;
} zan_srv_send_notif_st;

/* The header in front of a notified object, 240 bytes. The notification service's own: the server
 * zeroes it and fills it through the setters below. */
typedef struct zan_notify_hdr_st {
    uint32_t type;
    uint32_t table_id;
    uint32_t table_operation;
    uint32_t trans_id;
    uint32_t npu_id;
    uint32_t req_msg_size; /* of the object in the form in which it was notified */
    uint64_t obj_handle;
    uint32_t jid; /* the client's epoch */
    uint32_t num_repeat_count;
    uint8_t reserved[200];
} zan_notify_hdr_st;
ZAN_STATIC_ASSERT(sizeof(zan_notify_hdr_st) == 240, "notification header");

/* What zan_srv_default_async_notif_queue_enqueue answers when it does not take the object. */
#define ZAN_NOTIF_NOT_QUEUED 0xffffffffu

ZAN_EXTERN_C_BEGIN
ZAN_EXPORT void kor_notify_msg_set_type(zan_notify_hdr_st *hdr, uint32_t type);
ZAN_EXPORT void kor_notify_msg_set_table_id(zan_notify_hdr_st *hdr, uint32_t table_id);
ZAN_EXPORT void kor_notify_msg_set_table_operation(zan_notify_hdr_st *hdr, uint32_t operation);
ZAN_EXPORT void kor_notify_msg_set_trans_id(zan_notify_hdr_st *hdr, uint32_t trans_id);
ZAN_EXPORT void kor_notify_msg_set_npu_id(zan_notify_hdr_st *hdr, uint32_t npu_id);
ZAN_EXPORT void kor_notify_msg_set_obj_handle(zan_notify_hdr_st *hdr, uint64_t handle);
ZAN_EXPORT void kor_notify_msg_set_req_msg_size(zan_notify_hdr_st *hdr, uint32_t size);
ZAN_EXPORT void kor_notify_msg_set_jid(zan_notify_hdr_st *hdr, uint32_t jid);
ZAN_EXPORT void kor_notify_msg_set_num_repeat_count(zan_notify_hdr_st *hdr, uint32_t count);

/* Take an object for later, by a copy; ZAN_NOTIF_NOT_QUEUED when the queue is full. Dispatcher, FRR
 * and NPU threads, under the table's notification mutex. */
ZAN_EXPORT uint32_t zan_srv_default_async_notif_queue_enqueue(const zan_table_base_st *obj,
                                                              uint32_t type, uint64_t arg);
/* Send at once to all clients: `to` is 0 and `group` "NOTIFY_ALL". Threads and mutex as above; both
 * buffers stay the caller's. */
ZAN_EXPORT int kor_send_notification(uint32_t to, const char *group, const zan_notify_hdr_st *hdr,
                                     uint32_t hdr_size, const void *msg, uint32_t size);

/* Ask for a notification about the object; comes back through the table's slot send_notification.
 * Dispatcher, FRR and NPU threads. */
ZAN_EXPORT void zan_send_srv_notif(zan_table_base_st *obj, uint32_t type);
ZAN_EXTERN_C_END

#endif
