/* walk and events: the walk of one change, and what all walks did since the agent's start. */
#include "walks.h"

#include "writes.h"

#include <cstdio>

namespace
{

/* ---- walk ---- */

void print_pushed(FILE *out, const walks_t &walks)
{
    bool pushed = false;
    for (const zan_walk_event_st &event : walks.events) {
        if (!was_pushed(event))
            continue;
        pushed = true;
        fprintf(out, "pushed    %llu x %s\n", (unsigned long long)event.count, event_name(event));
    }
    if (pushed)
        return;
    const zan_walk_table_st sum = sum_of(walks);
    fprintf(out, "pushed    no event%s\n",
            sum.events_pruned || sum.events_off_color
                ? ""
                : ": nothing changed that raises one, or nothing leads to the object");
}

void print_walk(FILE *out, const walks_t &walks)
{
    const zan_walk_table_st sum = sum_of(walks);
    print_pushed(out, walks);
    fprintf(out, "pruned    %llu, which no table below wants\n",
            (unsigned long long)sum.events_pruned);
    fprintf(out, "skipped   %llu, whose colour the object does not carry\n",
            (unsigned long long)sum.events_off_color);
    if (print_children(out, walks))
        fprintf(out, "\n");
    fprintf(out, "walked    %llu objects updated in %.3f ms", (unsigned long long)sum.updates,
            milliseconds(sum.walk_ns));
    if (sum.updates)
        fprintf(out, ", %.2f us each", (double)sum.walk_ns / 1e3 / (double)sum.updates);
    fprintf(out, "\n");
}

/* A walk's code comes to the client when the change itself went well: then what failed is below. */
void report_change(session_t *session, const order_t &order, const outcome_t &outcome,
                   const walks_t &walks)
{
    const zan_walk_table_st sum = sum_of(walks);
    if (sum.failed_walks)
        fprintf(session->out,
                "%s: %llu updates below it failed, the first with %s; see what compare says of the "
                "objects, and update them again\n",
                object_text(order.obj.get()).c_str(), (unsigned long long)sum.failures,
                code_text(outcome.rc).c_str());
    else
        report(session, order, outcome);
    if (outcome.result != result_t::FAILED || sum.walks)
        print_walk(session->out, walks);
}

/* ---- events ---- */

uint64_t count_of(const walks_t &walks, uint32_t receiver, uint16_t source, uint16_t event_id)
{
    for (const zan_walk_event_st &event : walks.events)
        if (event.receiver == receiver && event.source == source && event.event_id == event_id)
            return event.count;
    return 0;
}

/* The counts of one table, those that are 0 too. */
walks_t of_table(const walks_t &all, const zan_table_def_t *def)
{
    walks_t one;
    for (const zan_walk_table_st &t : all.tables)
        if (t.table_id == def->id)
            one.tables.push_back(t);
    for (uint16_t id = 1; id <= def->num_events; id++)
        one.events.push_back(
            {count_of(all, ZAN_WIRE_NO_INDEX, def->id, id), ZAN_WIRE_NO_INDEX, def->id, id});
    for (uint16_t i = 0; i < def->num_subscriptions; i++) {
        const zan_subscription_def_t &s = def->subscriptions[i];
        one.events.push_back({count_of(all, def->id, s.source_table, s.event_id), def->id,
                              s.source_table, s.event_id});
    }
    return one;
}

void print_events(FILE *out, const walks_t &walks)
{
    uint32_t shown = 0;
    for (const zan_walk_event_st &event : walks.events) {
        if (!was_pushed(event))
            continue;
        if (!shown++)
            fprintf(out, "%-54s %10s\n", "event", "pushed");
        fprintf(out, "%-54s %10llu\n", event_name(event), (unsigned long long)event.count);
    }
    if (!shown)
        fprintf(out, "no event was pushed\n");
}

void print_sources(FILE *out, const walks_t &walks)
{
    uint32_t shown = 0;
    for (const zan_walk_table_st &t : walks.tables) {
        if (!is_source(t))
            continue;
        if (!shown++)
            fprintf(out, "\n%-20s %10s %10s %10s %10s %11s %10s\n", "source", "walks", "failed",
                    "pushed", "pruned", "off colour", "ms");
        fprintf(out, "%-20s %10llu %10llu %10llu %10llu %11llu %10.3f\n",
                kor_table_name_get(t.table_id), (unsigned long long)t.walks,
                (unsigned long long)t.failed_walks, (unsigned long long)t.events_pushed,
                (unsigned long long)t.events_pruned, (unsigned long long)t.events_off_color,
                milliseconds(t.walk_ns));
    }
}

void print_received(FILE *out, const walks_t &walks)
{
    uint32_t shown = 0;
    for (const zan_walk_event_st &event : walks.events) {
        if (was_pushed(event))
            continue;
        if (!shown++)
            fprintf(out, "\n%-54s %-20s %10s\n", "event", "received by", "visits");
        fprintf(out, "%-54s %-20s %10llu\n", event_name(event), kor_table_name_get(event.receiver),
                (unsigned long long)event.count);
    }
}

} // namespace

int run_walk(session_t *session, const std::string &name, const std::string &change)
{
    if (name.find(' ') == std::string::npos || name.find('=') < name.find(' '))
        return fail_text("which object? walk TABLE KEY=VALUE... --set FIELD=VALUE..., with --set "
                         "last: what follows it is what changes");
    std::string why;
    const order_t order = {ZAN_TABLE_UPDATE, parse_update(session, name + " " + change, &why), 0};
    if (!order.obj)
        return fail_text(why);
    outcome_t outcome;
    walks_t walks;
    if (!change_object(session, order, &outcome, &walks)) {
        const zan_error_st *refusal = zan_client_refusal(session->client);
        if (!refusal)
            return fail_session(session);
        report(session, order, agent_refusal(refusal));
        return EXIT_REFUSED;
    }
    if (session->json) {
        json_t out = outcome_json(order, outcome);
        out["failed_below"] = sum_of(walks).failures;
        out["walk"] = walks_json(walks);
        fprintf(session->out, "%s\n", out.dump().c_str());
    } else {
        report_change(session, order, outcome, walks);
    }
    return outcome.result == result_t::FAILED ? EXIT_REFUSED : EXIT_WELL;
}

int run_events(session_t *session, const std::string &table)
{
    std::string why;
    const zan_table_def_t *def = table.empty() ? nullptr : find_table(table, &why);
    if (!why.empty())
        return fail_text(why);
    zan_walk_counts_st *counts;
    if (zan_client_walk_counts(session->client, &counts))
        return fail_session(session);
    walks_t walks = take_walks(counts);
    if (def)
        walks = of_table(walks, def);
    if (session->json) {
        fprintf(session->out, "%s\n", walks_json(walks).dump().c_str());
        return EXIT_WELL;
    }
    print_events(session->out, walks);
    print_sources(session->out, walks);
    print_children(session->out, walks);
    print_received(session->out, walks);
    return EXIT_WELL;
}
