/* The host's own trace messages. Their numbers stand below those of the server. */
#ifndef ZAN_HOST_TRACE_H
#define ZAN_HOST_TRACE_H

#include "trace.h"
#include "zan_table_base.h"

/* X(name, arguments, text) */
#define HOST_TRACE_MESSAGES(X)                                                                     \
    X(COLOR_MISMATCH, 3, "colours differ from what is needed: obj %x, carries %x, due %x")         \
    X(BWALK_ROOT_FAILED, 4, "walk %u, trans %u: its source, request %x, came to %x")               \
    X(BWALK_DONE, 7, "walk %u of table %u: %u visits, %u updates, %u deleted, %u revisits, rc %x") \
    X(WRITE_FAILED, 5, "write failed: table %u, operation %u, npus %x, rc %x, trans %u")           \
    X(RETRIED, 4, "retried: table %u, attempts %u, rc %x, trans %u")                               \
    X(TAKEN_OUT, 4, "taken out of service: table %u, for table %u, rc %x, trans %u")               \
    X(PUT_BACK, 3, "put back into service: table %u, rc %x, trans %u")

typedef enum host_trace_message_et {
    HOST_TRACE_BEFORE_FIRST = 0xffff,
#define HOST_TRACE_ENUM(name, arguments, text) HOST_TRACE_##name,
    HOST_TRACE_MESSAGES(HOST_TRACE_ENUM)
#undef HOST_TRACE_ENUM
} host_trace_message_et;

#define HOST_TRACE_ID(name, arguments) (HOST_TRACE_##name | (uint64_t)(arguments) << 32)

#endif
