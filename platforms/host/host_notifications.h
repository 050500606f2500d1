/* Notifications on their way to clients: who delivers them takes them here.
 *
 * Without a receiver nothing is kept. With one, messages wait in two lists, both bounded: types 2
 * and 6, which the server sends at once, and behind them the default queue. A full queue refuses;
 * the server then sends at once what was refused, and it stands behind the queue all the same. What
 * is sent at once has room made for it: the oldest goes, and the next that is taken says how many
 * were lost.
 */
#ifndef ZAN_HOST_NOTIFICATIONS_H
#define ZAN_HOST_NOTIFICATIONS_H

#include "notification.h"

/* Types beyond those of the server. */
#define ZAN_HOST_NOTIF_RESOURCE 0x10000u /* a hardware database has changed its state */

#define ZAN_HOST_NOTIF_QUEUED_MAX 4096u /* in each list, and 16 MB of objects */

/* The message of ZAN_HOST_NOTIF_RESOURCE; no object. */
typedef struct zan_host_notif_resource_st {
    uint32_t npu, hwdb;
    uint32_t state; /* zan_resource_state_et */
    uint32_t reserved;
    uint64_t used, capacity;
} zan_host_notif_resource_st;

typedef struct zan_host_notification_t {
    struct zan_host_notification_t *next;
    zan_notify_hdr_st hdr;
    uint64_t arg;
    uint64_t sequence; /* rises in the order in which they were made */
    uint32_t lost;     /* that there was no room for, before this one */
    uint32_t size; /* bytes of the object in serialized form, or of another message, behind this */
} zan_host_notification_t;

ZAN_EXTERN_C_BEGIN
/* Called, by any thread of the server and under its table's mutex, when a message arrives and
 * nothing was waiting: it may wake somebody and must not call the server. Null for no receiver:
 * what waits is dropped. */
typedef void (*zan_host_notif_ready_f)(void *arg);
ZAN_EXPORT void zan_host_notif_set_receiver(zan_host_notif_ready_f ready, void *arg);
/* The next message, or null; free it with zan_host_notif_free. Any thread. */
ZAN_EXPORT zan_host_notification_t *zan_host_notif_take(void);
ZAN_EXPORT void zan_host_notif_free(zan_host_notification_t *notification);
/* Notifications asked for, by type, since the start. */
ZAN_EXPORT uint64_t zan_host_notifications(uint32_t type);
/* Notifications that there was no room or memory for, since the start. Any thread. */
ZAN_EXPORT uint64_t zan_host_notifications_lost(void);

/* A hardware database has changed its state. Any thread. */
void host_notify_resource(const zan_host_notif_resource_st *resource);
ZAN_EXTERN_C_END

#endif
