/* The lines of the hardware databases. Dispatcher thread. */
#ifndef ZAN_RETRY_ROOM_H
#define ZAN_RETRY_ROOM_H

#include "retry.h"

/* Into the line of its database, which it has; and out of it, if it stands there. */
void host_room_wait(failed_entry_t *entry);
void host_room_leave(failed_entry_t *entry);
/* A write of an object that had failed for want of room has succeeded. */
void host_room_found(const failed_entry_t *entry);
/* Call those for whom there is room. */
void host_room_call(void);
/* When to look for room that does not show, at the earliest; INT64_MAX when nobody waits. */
int64_t host_room_due_us(void);
void host_room_stop(void);

#endif
