/* What back-walks did, by table and by event: of one batch, or of all since the start.
 *
 * The walk service and the server count on and on; what a batch did is the difference of the counts
 * behind and before it. A walk that an FRR thread runs meanwhile counts with it.
 */
#include "requests.h"

#include "table_properties.h"
#include "walk_service.h"

#include <algorithm>
#include <iterator>

namespace
{

/* Tables and events in a fixed order, so that two lists can be subtracted entry by entry. */
struct counts_t {
    std::vector<zan_walk_table_st> tables;
    std::vector<zan_walk_event_st> events;
};

/* The counts of a table, here and on the wire. */
constexpr struct {
    uint64_t zan_walk_table_st::*wire;
    uint64_t zan_bwalk_stats_st::*stats;
} table_counts[] = {
    {&zan_walk_table_st::walks, &zan_bwalk_stats_st::num_walks},
    {&zan_walk_table_st::failed_walks, &zan_bwalk_stats_st::num_failed_walks},
    {&zan_walk_table_st::events_pushed, &zan_bwalk_stats_st::num_evt_pushed},
    {&zan_walk_table_st::events_pruned, &zan_bwalk_stats_st::num_evt_pruned},
    {&zan_walk_table_st::events_off_color, &zan_bwalk_stats_st::num_evt_color_skipped},
    {&zan_walk_table_st::walk_ns, &zan_bwalk_stats_st::walk_ns},
    {&zan_walk_table_st::updates, &zan_bwalk_stats_st::num_child_updates},
    {&zan_walk_table_st::forced, &zan_bwalk_stats_st::num_child_forced},
    {&zan_walk_table_st::skips, &zan_bwalk_stats_st::num_child_skips},
    {&zan_walk_table_st::failures, &zan_bwalk_stats_st::num_child_failures},
    {&zan_walk_table_st::off_color, &zan_bwalk_stats_st::num_child_color_skips},
    {&zan_walk_table_st::revisits, &zan_bwalk_stats_st::num_revisits},
};
static_assert(std::size(table_counts) * sizeof(uint64_t) == sizeof(zan_bwalk_stats_st) &&
                  std::size(table_counts) * sizeof(uint64_t) + 8 == sizeof(zan_walk_table_st),
              "every count is told");

zan_walk_table_st read_table(uint32_t table_id)
{
    const zan_bwalk_stats_st *stats = zan_dpd_get_bwalk_stats(table_id);
    zan_walk_table_st out = {};
    out.table_id = table_id;
    for (const auto &count : table_counts)
        out.*count.wire = stats->*count.stats;
    return out;
}

/* A table that was never used has no arrays of events yet, and its counts are 0. */
void read_events(const zan_table_def_t *def, std::vector<zan_walk_event_st> *out)
{
    const srv_zan_table_props_t *props = zan_srv_table_props_get(def->id);
    for (uint16_t id = 1; id <= def->num_events; id++)
        out->push_back({props->event_table ? props->event_table[id].pushed_count : 0,
                        ZAN_WIRE_NO_INDEX, def->id, id});
    for (uint16_t i = 0; i < def->num_subscriptions; i++)
        out->push_back({props->evt_stats ? props->evt_stats[i].count : 0, def->id,
                        def->subscriptions[i].source_table, def->subscriptions[i].event_id});
}

counts_t read_counts()
{
    const dispatcher_hold_t hold;
    counts_t counts;
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        counts.tables.push_back(read_table(id));
        read_events(zan_table_defs[id], &counts.events);
    }
    return counts;
}

void subtract(counts_t *counts, const counts_t &before)
{
    for (size_t i = 0; i < counts->tables.size(); i++)
        for (const auto &count : table_counts)
            counts->tables[i].*count.wire -= before.tables[i].*count.wire;
    for (size_t i = 0; i < counts->events.size(); i++) {
        zan_walk_event_st *event = &counts->events[i];
        event->count -= before.events[i].count;
        if (event->receiver == ZAN_WIRE_NO_INDEX)
            event->count = (uint32_t)event->count; /* the server counts pushes in 32 bits */
    }
}

bool is_zero(const zan_walk_table_st &table)
{
    return std::all_of(std::begin(table_counts), std::end(table_counts),
                       [&table](const auto &count) { return table.*count.wire == 0; });
}

void append_bytes(std::vector<uint8_t> *frame, const void *bytes, size_t len)
{
    frame->insert(frame->end(), (const uint8_t *)bytes, (const uint8_t *)bytes + len);
}

void append(std::vector<uint8_t> *frame, counts_t *counts)
{
    std::erase_if(counts->tables, is_zero);
    std::erase_if(counts->events, [](const zan_walk_event_st &event) { return !event.count; });
    const zan_walk_counts_st head = {(uint32_t)counts->tables.size(),
                                     (uint32_t)counts->events.size()};
    append_bytes(frame, &head, sizeof head);
    append_bytes(frame, counts->tables.data(), head.num_tables * sizeof(zan_walk_table_st));
    append_bytes(frame, counts->events.data(), head.num_events * sizeof(zan_walk_event_st));
}

} // namespace

answer_t run_walk(node_t *node, request_t *request)
{
    const counts_t before = read_counts();
    answer_t answer = run_batch(node, request, ZAN_FRAME_MAX - ZAN_WALK_COUNTS_MAX);
    if (answer.type == ZAN_FRAME_ERROR)
        return answer;
    counts_t counts = read_counts();
    subtract(&counts, before);
    append(&answer.frame, &counts);
    answer.type = ZAN_FRAME_WALK_REPLY;
    return answer;
}

answer_t run_walk_counts(node_t *node, const request_t &request)
{
    if (!request.payload.empty())
        return refuse_request(node, "length", "the request has no payload");
    counts_t counts = read_counts();
    std::vector<uint8_t> frame(sizeof(zan_frame_hdr_st));
    append(&frame, &counts);
    return {ZAN_FRAME_WALK_COUNTS_REPLY, std::move(frame)};
}
