/* The transport: sessions over one Unix-domain socket, served by one I/O thread.
 *
 * The I/O thread alone touches sockets and sessions. It hands whole requests to the dispatcher
 * thread through a bounded queue and takes finished replies back.
 */
#ifndef ZAN_TRANSPORT_H
#define ZAN_TRANSPORT_H

#include "session.h"

#include <vector>

struct transport_t;

/* The next notification there is, or false. I/O thread. */
using next_notification_f = bool (*)(notification_t *out);

/* Listen at `path` and start the I/O thread; `node` is what clients are told of it (client_id is
 * filled in), notifications are asked for whenever the I/O thread is woken. Null and a message on
 * standard error when the socket cannot be had. SIGTERM and SIGINT must be blocked in the whole
 * process: the I/O thread takes them. */
transport_t *transport_start(const char *path, const zan_hello_reply_st &node,
                             next_notification_f next_notification);

/* There is a notification. Any thread. */
void transport_wake(transport_t *transport);

/* Put an empty request of the agent's own into the dispatcher's queue: session 0, to be answered by
 * other means than transport_reply. Any thread. */
void transport_put(transport_t *transport);

/* The next request; false when none came in `timeout_ms`, and at once when the transport is
 * stopping and all requests are taken. Dispatcher thread. */
bool transport_take(transport_t *transport, int timeout_ms, request_t *out);

/* Send the reply to a request that was taken: each one exactly once. `frame` is header and payload,
 * the header's length and tag are filled in here. Dispatcher thread. */
void transport_reply(transport_t *transport, const request_t &request, uint16_t type,
                     std::vector<uint8_t> frame);

/* A signal asked for the end: no request comes in any more. Any thread. */
bool transport_is_stopping(const transport_t *transport);

/* Sessions that are open, and messages refused by the I/O thread. Any thread. */
uint32_t transport_num_clients(const transport_t *transport);
uint64_t transport_num_refused(const transport_t *transport);
/* Notifications that were dropped since a session did not read them. Any thread. */
uint64_t transport_num_dropped(const transport_t *transport);

/* Send what is left, notifications too, for two seconds at most, and close all sessions. Once; only
 * transport_wake, which does nothing any more, and transport_free are left to call. */
void transport_finish(transport_t *transport);
/* Behind transport_finish, when nobody calls transport_wake any more. */
void transport_free(transport_t *transport);

#endif
