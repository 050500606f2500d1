/* stats: the counters of one object, and the walks that bring them in. */
#include "objects.h"

#include <cstdio>
#include <unistd.h>

namespace
{

constexpr uint32_t poll_us = 20'000;

struct answer_t {
    zan_stats_reply_st head;
    std::unique_ptr<zan_stats_walk_st[], free_object_t> walks;
    std::unique_ptr<zan_stats_adj_st[], free_object_t> adjacencies;
};

const char *adjacency_name(uint32_t index)
{
    for (uint16_t i = 0; i < zan_num_adj_defs; i++)
        if (zan_adj_defs[i].index == index)
            return zan_adj_defs[i].name;
    return "unknown";
}

const char *parent_name(uint32_t index)
{
    for (uint16_t i = 0; i < zan_num_adj_defs; i++)
        if (zan_adj_defs[i].index == index)
            return kor_table_name_get(zan_adj_defs[i].parent_id);
    return "unknown";
}

double seconds(uint64_t ns)
{
    return (double)ns / 1e9;
}

/* ---- One object ---- */

/* A counter, or a number of them under one name. */
struct figure_t {
    const char *name, *doc;
    std::vector<uint64_t> values;
};

std::vector<figure_t> figures_of(const zan_table_base_st *obj)
{
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    std::vector<figure_t> found;
    for (uint32_t i = 0; i < def->num_attrs; i++) {
        const zan_field_def_t &attr = def->attrs[i];
        if (!attr.statistic || !*zan_obj_attr_set(&attr, obj, 0, 0))
            continue;
        figure_t figure = {attr.name, attr.doc, {}};
        for (uint32_t n = 0; n < attr.count; n++) {
            uint64_t value = 0;
            memcpy(&value, (const uint8_t *)zan_obj_attr(&attr, obj, 0) + (size_t)n * attr.width,
                   attr.width);
            figure.values.push_back(value);
        }
        found.push_back(std::move(figure));
    }
    return found;
}

/* Of the walk that brings the table's counters in; null: none does. */
const zan_stats_walk_st *walk_of(const answer_t &answer, uint32_t table_id)
{
    for (uint32_t i = 0; i < answer.head.num_walks; i++)
        if (!answer.walks[i].is_adjacency && answer.walks[i].id == table_id)
            return &answer.walks[i];
    return nullptr;
}

void print_figures(FILE *out, const std::vector<figure_t> &figures)
{
    for (const figure_t &f : figures)
        for (size_t i = 0; i < f.values.size(); i++)
            if (f.values.size() == 1)
                fprintf(out, "%20llu  %s\n", (unsigned long long)f.values[i], f.name);
            else if (f.values[i] != 0)
                fprintf(out, "%20llu  %s[%zu]\n", (unsigned long long)f.values[i], f.name, i);
}

void print_object(FILE *out, const zan_table_base_st *obj, const answer_t &answer)
{
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    fprintf(out, "%s %s\n", def->name, key_text(obj).c_str());
    print_figures(out, figures_of(obj));
    const zan_stats_walk_st *walk = walk_of(answer, def->id);
    if (walk && walk->passes)
        fprintf(out, "walked %.1f s ago\n", seconds(walk->age_ns));
    else if (walk)
        fprintf(out, "not walked yet: as hardware counts now\n");
    else if (def->stats_table)
        fprintf(out, "never walked: as hardware counts now what no client has set\n");
    for (uint32_t i = 0; i < answer.head.num_adjacencies; i++) {
        const zan_stats_adj_st &adj = answer.adjacencies[i];
        fprintf(out, "%s\n%20llu  packets\n%20llu  bytes\n", adjacency_name(adj.index),
                (unsigned long long)adj.packets, (unsigned long long)adj.bytes);
        if (adj.counted)
            fprintf(out, "walked %.1f s ago\n", seconds(adj.age_ns));
        else
            fprintf(out, "not walked yet\n");
    }
}

json_t object_figures(const zan_table_base_st *obj, const answer_t &answer)
{
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    json_t out = {{"table", def->name}, {"key", key_text(obj)}};
    json_t counters = json_t::object(), adjacencies = json_t::object();
    for (const figure_t &f : figures_of(obj))
        counters[f.name] = f.values.size() == 1 ? json_t(f.values[0]) : json_t(f.values);
    const zan_stats_walk_st *walk = walk_of(answer, def->id);
    if (walk && walk->passes)
        out["age_s"] = seconds(walk->age_ns);
    for (uint32_t i = 0; i < answer.head.num_adjacencies; i++) {
        const zan_stats_adj_st &adj = answer.adjacencies[i];
        json_t one = {{"packets", adj.packets}, {"bytes", adj.bytes}};
        if (adj.counted)
            one["age_s"] = seconds(adj.age_ns);
        adjacencies[adjacency_name(adj.index)] = one;
    }
    out["counters"] = counters;
    out["adjacencies"] = adjacencies;
    return out;
}

/* ---- All walks ---- */

void print_walks(FILE *out, const answer_t &answer)
{
    if (answer.head.period_ms)
        fprintf(out, "walked every %.0f s\n", (double)answer.head.period_ms / 1000);
    else
        fprintf(out, "walked on demand: --now\n");
    if (answer.head.num_walks == 0) {
        fprintf(out, "nothing: a table is walked from its first create on\n");
        return;
    }
    fprintf(out, "%-20s %-20s %10s %8s %8s %9s %9s %9s\n", "table", "of", "objects", "passes",
            "failed", "s ago", "ms", "most ms");
    for (uint32_t i = 0; i < answer.head.num_walks; i++) {
        const zan_stats_walk_st &w = answer.walks[i];
        fprintf(out, "%-20s %-20s %10llu %8llu %8llu ",
                w.is_adjacency ? adjacency_name(w.id) : kor_table_name_get(w.id),
                w.is_adjacency ? parent_name(w.id) : "", (unsigned long long)w.objects,
                (unsigned long long)w.passes, (unsigned long long)w.failed);
        if (w.passes)
            fprintf(out, "%9.1f %9.3f %9.3f\n", seconds(w.age_ns), (double)w.took_ns / 1e6,
                    (double)w.longest_ns / 1e6);
        else
            fprintf(out, "%9s %9s %9s\n", "-", "-", "-");
    }
}

json_t walks_json(const answer_t &answer)
{
    json_t rows = json_t::array();
    for (uint32_t i = 0; i < answer.head.num_walks; i++) {
        const zan_stats_walk_st &w = answer.walks[i];
        rows.push_back({{"table", w.is_adjacency ? adjacency_name(w.id) : kor_table_name_get(w.id)},
                        {"adjacency", w.is_adjacency != 0},
                        {"objects", w.objects},
                        {"passes", w.passes},
                        {"failed", w.failed},
                        {"age_s", seconds(w.age_ns)},
                        {"took_ns", w.took_ns},
                        {"longest_ns", w.longest_ns}});
    }
    return {{"period_ms", answer.head.period_ms}, {"walks", rows}};
}

bool ask_once(session_t *session, const zan_table_base_st *name, bool now, answer_t *answer)
{
    zan_stats_walk_st *walks;
    zan_stats_adj_st *adjacencies;
    const int rc =
        zan_client_stats(session->client, name, now, &answer->head, &walks, &adjacencies);
    answer->walks.reset(walks);
    answer->adjacencies.reset(adjacencies);
    return rc == 0;
}

/* With `now`, wait for the pass that was asked for. */
bool ask(session_t *session, const zan_table_base_st *name, bool now, answer_t *answer)
{
    if (!ask_once(session, name, now, answer))
        return false;
    if (!now)
        return true;
    const uint64_t pass = answer->head.next_pass;
    while (answer->head.passes < pass) {
        usleep(poll_us);
        if (!ask_once(session, nullptr, false, answer))
            return false;
    }
    return ask_once(session, name, false, answer);
}

} // namespace

int run_stats(session_t *session, const std::string &text, bool now)
{
    answer_t answer = {};
    if (text.empty()) {
        if (!ask(session, nullptr, now, &answer))
            return fail_session(session);
        if (session->json)
            fprintf(session->out, "%s\n", walks_json(answer).dump().c_str());
        else
            print_walks(session->out, answer);
        return EXIT_WELL;
    }
    std::string why;
    const order_t order = {ZAN_TABLE_GET, parse_named(text, &why), 0};
    if (!order.obj)
        return fail_text(why);
    const zan_table_def_t *def = zan_table_defs[order.obj->table_id];
    if (!def->stats_table && def->num_adjacencies == 0)
        return fail_text(std::string(def->name) + " has no counters: zan_schema " + def->name +
                         " shows what it has");
    zan_rcode rc;
    zan_table_base_st *found;
    if (!ask(session, order.obj.get(), now, &answer) ||
        zan_client_read(session->client, ZAN_TABLE_GET, order.obj.get(), &rc, &found))
        return fail_session(session);
    const object_ptr_t obj(found);
    if (rc != EOK) {
        report(session, order, {result_t::FAILED, rc, "", "", ""});
        return EXIT_REFUSED;
    }
    if (session->json)
        fprintf(session->out, "%s\n", object_figures(obj.get(), answer).dump().c_str());
    else
        print_object(session->out, obj.get(), answer);
    return EXIT_WELL;
}
