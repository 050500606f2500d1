/* How the host traces: its messages stand in zan_trace.h. */
#ifndef ZAN_HOST_TRACE_H
#define ZAN_HOST_TRACE_H

#include "thread_control.h"
#include "trace.h"
#include "zan_table_base.h"

#define HOST_TRACE_ID(name, arguments) (HOST_TRACE_##name | (uint64_t)(arguments) << 32)

/* What is traced meanwhile is traced for that transaction: behind a request the thread has none. */
struct host_trace_for_t {
    explicit host_trace_for_t(uint32_t trans_id)
    {
        zan_set_trans_id(trans_id, nullptr, 0);
    }
    ~host_trace_for_t()
    {
        zan_set_trans_id(before, nullptr, 0);
    }
    host_trace_for_t(const host_trace_for_t &) = delete;
    host_trace_for_t &operator=(const host_trace_for_t &) = delete;

private:
    uint32_t before = zan_get_trans_id();
};

#endif
