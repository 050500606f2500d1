/* table: all that is counted of one table. */
#include "objects.h"

#include "zan_counters.h"

#include <cstdio>

namespace
{

/* A figure with its name in JSON and its words for people. */
struct figure_t {
    const char *name, *words;
    uint64_t value;
};

std::vector<figure_t> info_of(const zan_table_record_st &r)
{
    return {{"creates", "creates asked for", r.creates},
            {"deletes", "deletes", r.deletes},
            {"updates", "updates, of walks too", r.updates},
            {"reads", "reads", r.reads},
            {"resolve_failed", "requests whose references failed", r.resolve_failed},
            {"reserve_failed", "identifiers not got, by NPU", r.reserve_failed},
            {"release_failed", "identifiers not given back", r.release_failed},
            {"update_id_failed", "updates whose identifiers failed", r.update_id_failed},
            {"not_found", "objects not found", r.not_found},
            {"duplicate_creates", "creates of what is stored", r.duplicate_creates},
            {"dbobj_alloc_failed", "objects without memory", r.dbobj_alloc_failed},
            {"retry_updates", "updates in retry mode", r.retry_updates},
            {"recovered_errors", "updates that recovered a failure", r.recovered_errors},
            {"quarantine_max_depth", "longest search of the quarantine", r.quarantine_max_depth}};
}

std::vector<figure_t> identifiers_of(const zan_table_record_st &r)
{
    if (r.ids_capacity == 0)
        return {};
    return {{"capacity", "identifiers on all NPUs", r.ids_capacity},
            {"held", "held", r.ids_held},
            {"orphaned", "held by keys that are not stored", r.ids_orphaned},
            {"refused", "refused, since none was left", r.ids_refused},
            {"reclaimed", "taken back from such keys", r.ids_reclaimed}};
}

void print_figures(FILE *out, const char *title, const std::vector<figure_t> &figures)
{
    if (!figures.empty())
        fprintf(out, "%s\n", title);
    for (const figure_t &f : figures)
        fprintf(out, "  %12llu  %s\n", (unsigned long long)f.value, f.words);
}

void print(FILE *out, const zan_table_record_st &r)
{
    const zan_table_def_t *def = zan_table_def_get(r.table_id);
    fprintf(out, "%s (%u): %s\n%llu stored, hardware database %s\n", def->name, def->id, def->doc,
            (unsigned long long)r.stored, zan_hwdb_name(def->hwdb));
    print_figures(out, "operations", info_of(r));
    print_figures(out, "identifiers", identifiers_of(r));
    fprintf(out, "%-4s %12s %12s %14s %14s %14s\n", "NPU", "stored for", "held", "failed creates",
            "failed updates", "failed deletes");
    for (uint32_t npu = 0; npu < r.num_npus; npu++) {
        const zan_table_npu_st &n = r.npu[npu];
        fprintf(out, "%-4u %12u %12llu %14u %14u %14u\n", npu, n.objects,
                (unsigned long long)n.held, n.create_errors, n.update_errors, n.delete_errors);
    }
    fprintf(out, "counters since the start\n");
    for (uint32_t i = 0; i < std::size(r.counters[0]); i++)
        if (r.counters[0][i])
            fprintf(out, "  %12u  %-28s  %s\n", r.counters[0][i], counter_name(i).c_str(),
                    zan_counter_words(i) ? zan_counter_words(i) : "");
}

json_t as_json(const std::vector<figure_t> &figures)
{
    json_t out = json_t::object();
    for (const figure_t &f : figures)
        out[f.name] = f.value;
    return out;
}

json_t as_json(const zan_table_record_st &r)
{
    json_t npus = json_t::array(), counters = json_t::object();
    for (uint32_t npu = 0; npu < r.num_npus; npu++) {
        const zan_table_npu_st &n = r.npu[npu];
        npus.push_back({{"stored_for", n.objects},
                        {"held", n.held},
                        {"failed_creates", n.create_errors},
                        {"failed_updates", n.update_errors},
                        {"failed_deletes", n.delete_errors}});
    }
    for (uint32_t i = 0; i < std::size(r.counters[0]); i++)
        if (zan_counter_name(i))
            counters[zan_counter_name(i)] = r.counters[0][i];
    return {{"table", kor_table_name_get(r.table_id)},
            {"stored", r.stored},
            {"operations", as_json(info_of(r))},
            {"identifiers", as_json(identifiers_of(r))},
            {"npus", npus},
            {"counters", counters}};
}

} // namespace

int run_table(session_t *session, const std::string &table)
{
    std::string why;
    const zan_table_def_t *def = find_table(table, &why);
    if (!def)
        return fail_text(why);
    zan_table_record_st record;
    if (zan_client_table(session->client, def->id, &record))
        return fail_session(session);
    if (session->json)
        fprintf(session->out, "%s\n", as_json(record).dump().c_str());
    else
        print(session->out, record);
    return EXIT_WELL;
}
