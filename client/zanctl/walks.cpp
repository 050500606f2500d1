/* The counts of walks, taken, shown as a table of child tables, and as JSON. */
#include "walks.h"

#include "writes.h"

#include <cstdio>

namespace
{

bool has_visits(const zan_walk_table_st &t)
{
    return t.updates || t.forced || t.skips || t.failures || t.off_color || t.revisits;
}

void print_row(FILE *out, const char *name, const zan_walk_table_st &t)
{
    fprintf(out, "%-20s %10llu %10llu %10llu %10llu %11llu %10llu\n", name,
            (unsigned long long)t.updates, (unsigned long long)t.forced,
            (unsigned long long)t.skips, (unsigned long long)t.failures,
            (unsigned long long)t.off_color, (unsigned long long)t.revisits);
}

json_t event_json(const zan_walk_event_st &event)
{
    if (was_pushed(event))
        return {{"event", event_name(event)},
                {"table", kor_table_name_get(event.source)},
                {"times", event.count}};
    return {{"event", event_name(event)},
            {"table", kor_table_name_get(event.receiver)},
            {"visits", event.count}};
}

} // namespace

walks_t take_walks(zan_walk_counts_st *counts)
{
    const std::unique_ptr<zan_walk_counts_st, free_object_t> owned(counts);
    const zan_walk_table_st *tables = zan_client_walk_tables(counts);
    const zan_walk_event_st *events = zan_client_walk_events(counts);
    return {{tables, tables + counts->num_tables}, {events, events + counts->num_events}};
}

bool is_source(const zan_walk_table_st &t)
{
    return t.walks || t.failed_walks || t.events_pushed || t.events_pruned || t.events_off_color ||
           t.walk_ns;
}

zan_walk_table_st sum_of(const walks_t &walks)
{
    zan_walk_table_st sum = {};
    for (const zan_walk_table_st &t : walks.tables) {
        sum.walks += t.walks;
        sum.failed_walks += t.failed_walks;
        sum.events_pushed += t.events_pushed;
        sum.events_pruned += t.events_pruned;
        sum.events_off_color += t.events_off_color;
        sum.walk_ns += t.walk_ns;
        sum.updates += t.updates;
        sum.forced += t.forced;
        sum.skips += t.skips;
        sum.failures += t.failures;
        sum.off_color += t.off_color;
        sum.revisits += t.revisits;
    }
    return sum;
}

bool change_object(session_t *session, const order_t &order, outcome_t *outcome, walks_t *walks)
{
    const batch_ptr_t batch(zan_batch_new(ZAN_BATCH_CONTINUE_ON_ERROR, 0));
    if (!batch || zan_batch_append(batch.get(), order.obj.get(), order.operation))
        throw std::bad_alloc();
    zan_walk_counts_st *counts;
    if (zan_client_run_walk(session->client, batch.get(), &counts))
        return false;
    *walks = take_walks(counts);
    *outcome = server_answer(session, order, zan_batch_slot(batch.get(), 0));
    return true;
}

const char *event_name(const zan_walk_event_st &event)
{
    const zan_table_def_t *def = zan_table_def_get(event.source);
    return def && event.event_id && event.event_id <= def->num_events
               ? def->events[event.event_id - 1].name
               : "unknown";
}

bool print_children(FILE *out, const walks_t &walks)
{
    uint32_t shown = 0;
    for (const zan_walk_table_st &t : walks.tables) {
        if (!has_visits(t))
            continue;
        if (!shown++)
            fprintf(out, "\n%-20s %10s %10s %10s %10s %11s %10s\n", "children", "updated", "forced",
                    "skipped", "failed", "off colour", "revisited");
        print_row(out, kor_table_name_get(t.table_id), t);
    }
    if (shown > 1)
        print_row(out, "all", sum_of(walks));
    return shown != 0;
}

json_t walks_json(const walks_t &walks)
{
    json_t out;
    for (const char *list : {"pushed", "received", "sources", "children"})
        out[list] = json_t::array();
    for (const zan_walk_event_st &event : walks.events)
        out[was_pushed(event) ? "pushed" : "received"].push_back(event_json(event));
    for (const zan_walk_table_st &t : walks.tables) {
        if (is_source(t))
            out["sources"].push_back({{"table", kor_table_name_get(t.table_id)},
                                      {"walks", t.walks},
                                      {"failed_walks", t.failed_walks},
                                      {"pushed", t.events_pushed},
                                      {"pruned", t.events_pruned},
                                      {"off_colour", t.events_off_color},
                                      {"walk_ns", t.walk_ns}});
        if (has_visits(t))
            out["children"].push_back({{"table", kor_table_name_get(t.table_id)},
                                       {"updated", t.updates},
                                       {"forced", t.forced},
                                       {"skipped", t.skips},
                                       {"failed", t.failures},
                                       {"off_colour", t.off_color},
                                       {"revisited", t.revisits}});
    }
    return out;
}

double milliseconds(uint64_t ns)
{
    return (double)ns / 1e6;
}
