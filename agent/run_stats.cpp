/* The periodic statistics: what is walked, and what the adjacency tables count of one object. */
#include "requests.h"

#include "clock.h"
#include "host_periodic_stats.h"
#include "statistics.h"
#include "table_database.h"

#include <algorithm>
#include <cstring>

namespace
{

constexpr uint32_t max_adjacencies = 16; /* of one object */

uint64_t age_of(uint64_t at_ns)
{
    timespec now;
    zan_clock_gettime(CLOCK_REALTIME, &now);
    const uint64_t now_ns = (uint64_t)now.tv_sec * 1'000'000'000 + (uint64_t)now.tv_nsec;
    return at_ns && now_ns > at_ns ? now_ns - at_ns : 0;
}

std::vector<zan_stats_walk_st> walks()
{
    std::vector<zan_host_stats_st> rows(zan_host_stats_get(nullptr, 0));
    zan_host_stats_get(rows.data(), (uint32_t)rows.size());
    std::vector<zan_stats_walk_st> out;
    for (const zan_host_stats_st &row : rows)
        out.push_back({row.kind == ZAN_STATS_ADJACENCY, row.id, row.objects, row.passes, row.failed,
                       age_of(row.last_ns), row.took_ns, row.longest_ns});
    return out;
}

std::vector<zan_stats_adj_st> adjacencies_of(const zan_table_base_st *obj)
{
    zan_host_adj_st rows[max_adjacencies];
    const uint32_t n = std::min(zan_host_adj_get(obj, rows, max_adjacencies), max_adjacencies);
    std::vector<zan_stats_adj_st> out;
    for (uint32_t i = 0; i < n; i++)
        out.push_back({rows[i].index, rows[i].at_ns != 0, rows[i].packets, rows[i].bytes,
                       age_of(rows[i].at_ns)});
    return out;
}

/* Where the service has no thread, this one makes the pass. */
uint64_t begin_pass()
{
    const uint64_t next = zan_host_stats_wake();
    if (next)
        return next;
    zan_host_stats_pass();
    return zan_host_stats_passes();
}

template <class T> void append(std::vector<uint8_t> *frame, const T *items, size_t count)
{
    const auto *bytes = (const uint8_t *)items;
    frame->insert(frame->end(), bytes, bytes + count * sizeof(T));
}

} // namespace

answer_t run_stats(node_t *node, request_t *request)
{
    zan_stats_st asked;
    if (request->payload.size() < sizeof asked)
        return refuse_request(node, "length", "the frame is shorter than its header");
    memcpy(&asked, request->payload.data(), sizeof asked);
    if (asked.walk_now > 1)
        return refuse_request(node, "walk_now", "is 0 or 1");
    const zan_table_base_st *name = nullptr;
    if (request->payload.size() > sizeof asked) {
        answer_t refusal;
        name = named_object(node, request, sizeof asked, &refusal);
        if (!name)
            return refusal;
    }
    zan_stats_reply_st reply = {};
    if (asked.walk_now)
        reply.next_pass = begin_pass();
    reply.passes = zan_host_stats_passes();
    reply.period_ms = node->stats_period_ms;
    std::vector<zan_stats_adj_st> adjacencies;
    if (name) {
        const dispatcher_hold_t hold;
        const zan_table_base_st *obj = zan_db_get(name);
        if (obj)
            adjacencies = adjacencies_of(obj);
        else
            reply.err_code = ZAN_RC_NOT_FOUND;
    }
    const std::vector<zan_stats_walk_st> rows = walks();
    reply.num_walks = (uint32_t)rows.size();
    reply.num_adjacencies = (uint32_t)adjacencies.size();
    std::vector<uint8_t> frame(sizeof(zan_frame_hdr_st));
    append(&frame, &reply, 1);
    append(&frame, rows.data(), rows.size());
    append(&frame, adjacencies.data(), adjacencies.size());
    return {ZAN_FRAME_STATS_REPLY, std::move(frame)};
}
