/* How the simulated NPUs behave: to see what the server makes of failures, slowness and a hang. */
#include "requests.h"

#include "host_control.h"

#include <cstring>

namespace
{

constexpr uint32_t max_latency_us = 1'000'000;
constexpr uint32_t max_failures = 64; /* each call on an NPU looks at all of them */

kor_npu_mask_t npus_of(uint32_t npu, uint32_t num_npus)
{
    return npu == ZAN_WIRE_NO_INDEX ? ((kor_npu_mask_t)1 << num_npus) - 1
                                    : (kor_npu_mask_t)1 << npu;
}

void set_latency(const npu_control_t &npus, kor_npu_mask_t mask, uint32_t microseconds)
{
    for (; mask; mask &= mask - 1)
        npus.set_latency((uint32_t)__builtin_ctzll(mask), microseconds);
}

void behave(const npu_control_t &npus, const zan_sim_st &asked, uint32_t num_npus)
{
    const uint32_t operation =
        asked.operation == ZAN_WIRE_NO_INDEX ? NPU_SIM_WRITE : asked.operation;
    const npu_sim_failure_t failure = {asked.table_id, asked.npu, operation, 1,
                                       asked.count,    asked.rc};
    switch (asked.action) {
    case ZAN_SIM_FAIL:
        npus.fail(&failure);
        break;
    case ZAN_SIM_CHANCE:
        npus.fail_at_random(asked.count, 1, asked.rc);
        break;
    case ZAN_SIM_LATENCY:
        set_latency(npus, npus_of(asked.npu, num_npus), asked.count);
        break;
    case ZAN_SIM_HANG:
        zan_host_exec_q_hold(zan_host_exec_q_held() | npus_of(asked.npu, num_npus));
        break;
    default:
        npus.fail_no_more();
        set_latency(npus, npus_of(ZAN_WIRE_NO_INDEX, num_npus), 0);
        zan_host_exec_q_hold(0);
        break;
    }
}

} // namespace

static_assert(NPU_SIM_ANY == ZAN_WIRE_NO_INDEX, "all have one number here and there");

answer_t run_sim(node_t *node, const request_t &request)
{
    zan_sim_st asked;
    if (request.payload.size() != sizeof asked)
        return refuse_request(node, "length", "the request's payload has another size");
    memcpy(&asked, request.payload.data(), sizeof asked);
    if (!node->npus.fail || !node->npus.fail_at_random || !node->npus.fail_no_more ||
        !node->npus.set_latency)
        return refuse_request(node, "action", "the platform has no simulated NPUs");
    if (asked.action > ZAN_SIM_HANG)
        return refuse_request(node, "action", "there is no such behaviour");
    if (asked.npu >= node->facts.num_npus && asked.npu != ZAN_WIRE_NO_INDEX)
        return refuse_request(node, "npu", "the node has no such NPU");
    if (asked.table_id >= ZAN_NUM_TABLES && asked.table_id != ZAN_WIRE_NO_INDEX)
        return refuse_request(node, "table_id", "there is no such table");
    const bool writes = asked.operation == ZAN_TABLE_CREATE ||
                        asked.operation == ZAN_TABLE_UPDATE || asked.operation == ZAN_TABLE_DELETE;
    if (!writes && asked.operation != ZAN_WIRE_NO_INDEX)
        return refuse_request(node, "operation", "only creates, updates and deletes fail");
    if (asked.action == ZAN_SIM_LATENCY && asked.count > max_latency_us)
        return refuse_request(node, "count", "a write takes a second at most");
    if (asked.action == ZAN_SIM_FAIL && ++node->sim_failures > max_failures)
        return refuse_request(node, "action", "that many rules are in force: sim --well ends them");
    if (asked.action == ZAN_SIM_WELL)
        node->sim_failures = 0;
    if ((asked.action == ZAN_SIM_FAIL || asked.action == ZAN_SIM_CHANCE) && asked.rc == EOK)
        return refuse_request(node, "rc", "0 is no failure");
    behave(node->npus, asked, node->facts.num_npus);
    return {ZAN_FRAME_SIM_REPLY, std::vector<uint8_t>(sizeof(zan_frame_hdr_st))};
}
