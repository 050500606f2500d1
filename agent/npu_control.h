/* What the platform can tell of its NPUs, looked up by name: the agent runs with any platform, and
 * one that lacks these functions cannot tell. */
#ifndef ZAN_NPU_CONTROL_H
#define ZAN_NPU_CONTROL_H

#include "npu_sim_control.h"

struct npu_control_t {
    decltype(&npu_sim_count) count;
    decltype(&npu_sim_bytes) bytes;
    decltype(&npu_sim_counts) counts;
    decltype(&npu_sim_compare) compare;
    decltype(&npu_sim_set_db_capacity) set_db_capacity;
    decltype(&npu_sim_fail) fail;
    decltype(&npu_sim_fail_at_random) fail_at_random;
    decltype(&npu_sim_fail_no_more) fail_no_more;
    decltype(&npu_sim_set_latency) set_latency;

    bool can_compare() const
    {
        return count && compare;
    }
};

/* From the global scope of the process; members are null for what is not there. */
npu_control_t npu_control_find();

#endif
