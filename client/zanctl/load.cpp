/* load: the agent's main job, seen from outside.
 *
 * A routing table goes in behind the small network that it leads into; then everything is looked at
 * again from three sides: a sample by key, every route in key order, and the database against what
 * the NPUs hold. Any refusal and any difference makes the exit status 1.
 */
#include "objects.h"
#include "progress.h"
#include "routes.h"
#include "topology.h"

#include <cstdio>

namespace
{

constexpr uint32_t differences_shown = 20;

struct stage_result_t {
    const zan_table_def_t *def;
    uint64_t sent;
    double seconds;
};

struct load_t {
    session_t *session;
    prefixes_t prefixes;
    std::vector<stage_result_t> stages;
    std::vector<route_check_t> checks;
    refusals_t refused; /* at the first try; routes: when asked again */
    uint64_t objects = 0;
    double seconds = 0;
    zan_status_st before, after;
    std::vector<uint64_t> stored_before, stored_after;
    bool compared = false;
    zan_compare_reply_st comparison = {};
    std::vector<zan_difference_st> differences;
    double walk_seconds = 0, compare_seconds = 0;
};

/* ---- Steps: each is false when the session failed ---- */

bool take_status(const session_t *session, zan_status_st *status, std::vector<uint64_t> *stored)
{
    zan_table_status_st *tables;
    if (zan_client_status(session->client, status, &tables))
        return false;
    stored->assign(ZAN_NUM_TABLES, 0);
    for (uint32_t i = 0; i < status->num_tables; i++)
        stored->at(tables[i].table_id) = tables[i].stored;
    free(tables);
    return true;
}

bool send_stage(load_t *load, const topology_stage_t &stage)
{
    const batch_ptr_t batch(zan_batch_new(ZAN_BATCH_CONTINUE_ON_ERROR, 0));
    if (!batch)
        throw std::bad_alloc();
    progress_t progress(load->session, stage.words, stage.objects.size());
    for (const object_ptr_t &obj : stage.objects) {
        obj->write_kind = ZAN_WRITE_KIND_REPLACE; /* loading twice is no mistake */
        if (zan_batch_append(batch.get(), obj.get(), ZAN_TABLE_CREATE))
            throw std::bad_alloc();
    }
    if (zan_client_run(load->session->client, batch.get()))
        return false;
    for (uint32_t i = 0; i < zan_batch_slots(batch.get()); i++)
        if (const zan_rcode rc = zan_batch_rc(batch.get(), i); rc != EOK)
            load->refused[rc]++;
    load->stages.push_back(
        {stage.def, stage.objects.size(), progress.finish(stage.objects.size())});
    return true;
}

bool send_network(load_t *load)
{
    const zan_hello_reply_st *node = zan_client_node(load->session->client);
    const bool by_mask = (node->node & ZAN_NODE_PER_OBJECT_NPU_MASK) != 0;
    for (const topology_stage_t &stage :
         make_topology(by_mask ? ((kor_npu_mask_t)1 << node->num_npus) - 1 : 0))
        if (!send_stage(load, stage))
            return false;
    return true;
}

bool send_family(load_t *load, routes_t *routes)
{
    if (!routes->count)
        return true;
    progress_t progress(load->session, routes->words, routes->count);
    if (!send_routes(load->session, routes, ZAN_TABLE_CREATE, 1,
                     [&](uint64_t done) { progress.draw(done); }))
        return false;
    load->stages.push_back({routes->def, routes->count, progress.finish(routes->count)});
    return true;
}

bool check_family(load_t *load, routes_t *routes)
{
    route_check_t check = {};
    check.was_empty = load->stored_before[routes->def->id] == 0;
    progress_t progress(load->session, "walk in key order", routes->count);
    bool good =
        check_order(load->session, routes, &check, [&](uint64_t done) { progress.draw(done); });
    if (!good)
        return false;
    load->walk_seconds += progress.finish(check.walked);
    good = check_sample(load->session, routes, &check);
    for (const std::vector<uint32_t> *which : {&check.missing, &check.different})
        if (good && !which->empty())
            good = ask_again(load->session, routes, *which, &load->refused);
    load->checks.push_back(std::move(check));
    return good;
}

bool compare(load_t *load)
{
    if (!(zan_client_node(load->session->client)->node & ZAN_NODE_CAN_COMPARE) ||
        (zan_client_node(load->session->client)->node & ZAN_NODE_STANDBY))
        return true;
    const double started = now_s();
    zan_difference_st *differences;
    if (zan_client_compare(load->session->client, ZAN_WIRE_NO_INDEX, differences_shown,
                           &load->comparison, &differences))
        return false;
    load->compared = true;
    load->differences.assign(differences, differences + load->comparison.num_differences);
    free(differences);
    load->compare_seconds = now_s() - started;
    return true;
}

/* ---- The verdict ---- */

bool check_is_good(const route_check_t &check)
{
    return !check.sample_wrong && !check.misordered && check.missing.empty() &&
           check.different.empty() && (!check.was_empty || !check.strangers);
}

bool is_good(const load_t *load)
{
    bool good = load->refused.empty();
    for (const route_check_t &check : load->checks)
        good &= check_is_good(check);
    const zan_compare_reply_st &c = load->comparison;
    return good && !c.missing && !c.different && !c.surplus;
}

uint64_t stored_delta(const load_t *load)
{
    uint64_t delta = 0;
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++)
        delta += load->stored_after[id] - load->stored_before[id];
    return delta;
}

double bytes_per_object(const load_t *load)
{
    const uint64_t stored = stored_delta(load);
    const uint64_t bytes = load->after.pool_bytes + load->after.index_bytes -
                           load->before.pool_bytes - load->before.index_bytes;
    return stored ? (double)bytes / (double)stored : 0;
}

/* Of what is stored, its own size on average. */
double own_bytes(const load_t *load)
{
    uint64_t bytes = 0, stored = 0;
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        const uint64_t delta = load->stored_after[id] - load->stored_before[id];
        bytes += delta * zan_table_defs[id]->obj_size;
        stored += delta;
    }
    return stored ? (double)bytes / (double)stored : 0;
}

/* ---- Report ---- */

void print_tables(const load_t *load)
{
    printf("\n%-14s %10s %10s\n", "table", "sent", "stored");
    for (const stage_result_t &stage : load->stages)
        printf("%-14s %10llu %10llu\n", stage.def->name, (unsigned long long)stage.sent,
               (unsigned long long)load->stored_after[stage.def->id]);
    if (load->prefixes.repeats)
        printf("%s stood in the input more than once\n",
               plural(load->prefixes.repeats, "prefix", "prefixes").c_str());
    printf("\nspeed     %.0f objects a second (%llu in %.2f s)\n",
           load->seconds > 0 ? (double)load->objects / load->seconds : 0.0,
           (unsigned long long)load->objects, load->seconds);
    if (stored_delta(load))
        printf("memory    %.1f bytes an object, of which its fixed part takes %.1f\n",
               bytes_per_object(load), own_bytes(load));
}

void print_npus(const load_t *load)
{
    for (uint32_t npu = 0; npu < load->after.num_npus; npu++)
        printf("NPU %u     holds %llu objects in %llu bytes, %llu failures\n", npu,
               (unsigned long long)load->after.npu[npu].objects,
               (unsigned long long)load->after.npu[npu].bytes,
               (unsigned long long)load->after.npu[npu].failures);
}

void print_refusals(const load_t *load)
{
    if (load->refused.empty())
        printf("refused   nothing\n");
    for (const auto &[rc, count] : load->refused)
        printf("refused   %llu: %s\n", (unsigned long long)count,
               rc ? code_text(rc).c_str() : "accepted when sent again");
}

void print_checks(const load_t *load)
{
    for (const route_check_t &check : load->checks) {
        printf("check     %llu of %llu read by key as sent; %llu in key order, %zu missing, "
               "%zu different, %llu out of order, %llu strangers\n",
               (unsigned long long)(check.sample_read - check.sample_wrong),
               (unsigned long long)check.sample_read, (unsigned long long)check.walked,
               check.missing.size(), check.different.size(), (unsigned long long)check.misordered,
               (unsigned long long)check.strangers);
        for (const std::string &words : check.wrong)
            printf("  %s\n", words.c_str());
    }
    if (load->compared)
        print_comparison(load->comparison, load->differences.data());
    else
        printf("compared  nothing: this node cannot tell what its NPUs hold\n");
}

json_t report_json(const load_t *load)
{
    json_t out;
    out["well"] = is_good(load);
    out["objects"] = load->objects;
    out["seconds"] = load->seconds;
    out["bytes_per_object"] = bytes_per_object(load);
    out["fixed_bytes_per_object"] = own_bytes(load);
    out["tables"] = json_t::array();
    for (const stage_result_t &stage : load->stages)
        out["tables"].push_back({{"table", stage.def->name},
                                 {"sent", stage.sent},
                                 {"stored", load->stored_after[stage.def->id]},
                                 {"seconds", stage.seconds}});
    out["refused"] = json_t::array();
    for (const auto &[rc, count] : load->refused) {
        json_t refusal;
        put_code(&refusal, rc);
        refusal["count"] = count;
        out["refused"].push_back(refusal);
    }
    out["checks"] = json_t::array();
    for (const route_check_t &check : load->checks)
        out["checks"].push_back({{"sample_read", check.sample_read},
                                 {"sample_wrong", check.sample_wrong},
                                 {"in_key_order", check.walked},
                                 {"missing", check.missing.size()},
                                 {"different", check.different.size()},
                                 {"misordered", check.misordered},
                                 {"strangers", check.strangers},
                                 {"wrong", check.wrong}});
    out["compared"] = load->comparison.compared;
    out["missing_on_npus"] = load->comparison.missing;
    out["different_on_npus"] = load->comparison.different;
    out["surplus_on_npus"] = load->comparison.surplus;
    out["npus"] = json_t::array();
    for (uint32_t npu = 0; npu < load->after.num_npus; npu++)
        out["npus"].push_back({{"npu", npu},
                               {"objects", load->after.npu[npu].objects},
                               {"bytes", load->after.npu[npu].bytes},
                               {"failures", load->after.npu[npu].failures}});
    return out;
}

void report(const load_t *load)
{
    if (load->session->json) {
        printf("%s\n", report_json(load).dump().c_str());
        return;
    }
    print_tables(load);
    print_npus(load);
    print_refusals(load);
    print_checks(load);
    printf("%s\n", is_good(load) ? "all well" : "NOT all well: see above");
}

bool send_all(load_t *load, routes_t *ipv4, routes_t *ipv6)
{
    if (!take_status(load->session, &load->before, &load->stored_before))
        return false;
    const double started = now_s();
    if (!send_network(load) || !send_family(load, ipv4) || !send_family(load, ipv6))
        return false;
    load->seconds = now_s() - started;
    for (const stage_result_t &stage : load->stages)
        load->objects += stage.sent;
    return true;
}

bool check_all(load_t *load, routes_t *ipv4, routes_t *ipv6)
{
    return compare(load) && take_status(load->session, &load->after, &load->stored_after) &&
           (!ipv4->count || check_family(load, ipv4)) && (!ipv6->count || check_family(load, ipv6));
}

} // namespace

int run_load(session_t *session, const std::vector<std::string> &files)
{
    load_t load = {};
    load.session = session;
    std::string why;
    for (const std::string &file : files)
        if (!read_prefixes(file, &load.prefixes, &why))
            return fail_text(why);
    drop_repeats(&load.prefixes);
    if (load.prefixes.ipv4.empty() && load.prefixes.ipv6.empty())
        return fail_text("there is no prefix in the input");
    routes_t ipv4 = make_ipv4_routes(load.prefixes);
    routes_t ipv6 = make_ipv6_routes(load.prefixes);
    if (!send_all(&load, &ipv4, &ipv6) || !check_all(&load, &ipv4, &ipv6))
        return fail_session(session);
    report(&load);
    return is_good(&load) ? EXIT_WELL : EXIT_REFUSED;
}
