/* The entry of the table server: a batch of requests. Who takes requests in calls it, an agent or a
 * platform that has some of its own.
 */
#ifndef ZAN_PLATFORM_SERVER_ENTRY_H
#define ZAN_PLATFORM_SERVER_ENTRY_H

#include "zan_table_base.h"

ZAN_EXTERN_C_BEGIN
/* Run a batch: `msg` and the slots must be writable for the whole call. Returns how the last object
 * went; the slots tell the rest. The fourth argument is not read. Dispatcher thread, or the FRR
 * thread while it holds the dispatcher, with the dispatch and the programming lock held. */
ZAN_EXPORT int32_t zan_table_server_dispatcher(uint8_t *msg, zan_table_response_st *resp,
                                               kor_table_req_hdr_st hdr, char *unused);
ZAN_EXTERN_C_END

#endif
