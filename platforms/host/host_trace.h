/* How the host traces: its messages stand in zan_trace.h. */
#ifndef ZAN_HOST_TRACE_H
#define ZAN_HOST_TRACE_H

#include "trace.h"
#include "zan_table_base.h"

#define HOST_TRACE_ID(name, arguments) (HOST_TRACE_##name | (uint64_t)(arguments) << 32)

#endif
