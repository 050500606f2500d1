/* The trace ring: records behind the one that was read last, and what their cycles mean as time. */
#include "requests.h"

#include "clock.h"
#include "trace.h"

#include <algorithm>
#include <cstring>

void learn_cycles(node_t *node)
{
    node->first_cycles = zan_clock_cycles();
    node->first_ms = monotonic_ms();
}

/* Measured over the agent's life, a millisecond at least. */
static uint64_t cycles_per_second(const node_t *node)
{
    const uint64_t cycles = zan_clock_cycles() - node->first_cycles;
    const auto ms = (uint64_t)std::max<int64_t>(monotonic_ms() - node->first_ms, 1);
    return cycles / ms * 1000;
}

answer_t run_trace(node_t *node, const request_t &request)
{
    zan_trace_st asked;
    if (request.payload.size() != sizeof asked)
        return refuse_request(node, "length", "the request's payload has another size");
    memcpy(&asked, request.payload.data(), sizeof asked);
    if (asked.max == 0 || asked.max > ZAN_TRACE_RECORDS_MAX)
        return refuse_request(node, "max", "1 to 20000 records in one reply");
    std::vector<zan_trace_record_st> records(asked.max);
    zan_trace_reply_st reply = {};
    reply.num_records = zan_trace_read(asked.after, records.data(), asked.max);
    timespec now;
    zan_clock_gettime(CLOCK_REALTIME, &now);
    reply.now_ns = (uint64_t)now.tv_sec * 1'000'000'000 + (uint64_t)now.tv_nsec;
    reply.now_cycles = zan_clock_cycles();
    reply.cycles_per_second = cycles_per_second(node);
    const size_t bytes = reply.num_records * sizeof(zan_trace_record_st);
    std::vector<uint8_t> frame(sizeof(zan_frame_hdr_st) + sizeof reply + bytes);
    memcpy(frame.data() + sizeof(zan_frame_hdr_st), &reply, sizeof reply);
    if (bytes)
        memcpy(frame.data() + sizeof(zan_frame_hdr_st) + sizeof reply, records.data(), bytes);
    return {ZAN_FRAME_TRACE_REPLY, std::move(frame)};
}
