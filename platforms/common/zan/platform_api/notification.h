/* Notifications to clients about what no response slot can tell. */
#ifndef ZAN_PLATFORM_NOTIFICATION_H
#define ZAN_PLATFORM_NOTIFICATION_H

#include "zan_table_base.h"

enum {
    ZAN_NOTIF_DELETED = 6, /* a postponed delete has gone through */
    ZAN_NOTIF_RESOLVE_FAILED = 15,
    ZAN_NOTIF_BIND_REFUSED = 16,
    ZAN_NOTIF_NOT_FOUND = 17,
    ZAN_NOTIF_RESERVE_FAILED = 18,
};

/* Argument of the slot send_notification. */
typedef struct zan_srv_send_notif_st {
    zan_table_base_st *obj;
    uint32_t type;
    uint64_t arg;
} zan_srv_send_notif_st;

ZAN_EXTERN_C_BEGIN
/* Ask for a notification about the object; comes back through the table's slot send_notification.
 * Dispatcher, FRR and NPU threads. */
ZAN_EXPORT void zan_send_srv_notif(zan_table_base_st *obj, uint32_t type);
ZAN_EXTERN_C_END

#endif
