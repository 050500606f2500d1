/* The trace ring: records behind the one that was read last, and what their cycles mean as time;
 * and which classes are traced. */
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

/* ---- Classes ---- */

static bool has(const uint64_t *set, zan_trace_class_t c)
{
    return set[c / 64] >> c % 64 & 1;
}

/* Each class at most once, and none beyond the last. */
static bool are_classes(const zan_trace_classes_st &asked)
{
    for (zan_trace_class_t c = 0; c < 64 * ZAN_TRACE_CLASS_WORDS; c++)
        if ((has(asked.on, c) && has(asked.off, c)) ||
            (c >= ZAN_NUM_TRACE_CLASSES && (has(asked.on, c) || has(asked.off, c))))
            return false;
    return true;
}

answer_t run_trace_classes(node_t *node, const request_t &request)
{
    zan_trace_classes_st asked;
    if (request.payload.size() != sizeof asked)
        return refuse_request(node, "length", "the request's payload has another size");
    memcpy(&asked, request.payload.data(), sizeof asked);
    if (!are_classes(asked))
        return refuse_request(node, "on", "no such class, or one that is to be both on and off");
    zan_trace_classes_reply_st reply = {};
    for (zan_trace_class_t c = 0; c < ZAN_NUM_TRACE_CLASSES; c++) {
        if (has(asked.on, c) || has(asked.off, c))
            zan_trace_switch(c, has(asked.on, c));
        reply.on[c / 64] |= (uint64_t)zan_trace_is_on(c) << c % 64;
    }
    std::vector<uint8_t> frame(sizeof(zan_frame_hdr_st) + sizeof reply);
    memcpy(frame.data() + sizeof(zan_frame_hdr_st), &reply, sizeof reply);
    return {ZAN_FRAME_TRACE_CLASSES_REPLY, std::move(frame)};
}
