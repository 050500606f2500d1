/* unload: what was loaded changes, and goes again.
 *
 * A part of the routes moves to another group. Then everything is deleted from the top: interfaces,
 * next hops and groups first, each of which is held back by what still leads to it, and the routes
 * last. With the last route of a group the group goes by itself, and so on down to the interfaces.
 * Nothing of it may be left in the database, among the identifiers or on an NPU.
 */
#include "progress.h"
#include "routes.h"
#include "topology.h"

#include <cstdio>

namespace
{

constexpr uint32_t moved_every = 10;

/* What a table still holds, or all tables. */
struct left_t {
    uint64_t stored = 0, identifiers = 0, on_npus = 0;
    bool is_something() const
    {
        return stored || identifiers || on_npus;
    }
    left_t &operator+=(const left_t &other)
    {
        stored += other.stored;
        identifiers += other.identifiers;
        on_npus += other.on_npus;
        return *this;
    }
};

struct unload_t {
    session_t *session;
    prefixes_t prefixes;
    std::vector<topology_stage_t> network;
    route_check_t check = {};
    uint64_t moved = 0, held_back = 0, gone_at_once = 0;
    refusals_t refused;
    zan_compare_reply_st comparison = {};
    left_t left;
    std::vector<std::pair<std::string, left_t>>
        tables_left; /* by name, those that hold something */
    zan_status_st status;
};

/* ---- Steps: each is false when the session failed ---- */

bool move_routes(unload_t *u, routes_t *routes)
{
    if (!routes->count)
        return true;
    routes->moved_every = moved_every;
    const uint64_t count = (routes->count + moved_every - 1) / moved_every;
    progress_t progress(u->session, "to another group", count);
    if (!send_routes(u->session, routes, ZAN_TABLE_UPDATE, moved_every,
                     [&](uint64_t done) { progress.draw(done); }))
        return false;
    progress.finish(count);
    u->moved += count;
    progress_t walk(u->session, "walk in key order", routes->count);
    const bool good =
        check_order(u->session, routes, &u->check, [&](uint64_t done) { walk.draw(done); });
    walk.finish(routes->count);
    return good;
}

bool compare(unload_t *u)
{
    const uint32_t node = zan_client_node(u->session->client)->node;
    zan_difference_st *differences = nullptr;
    if (!(node & ZAN_NODE_CAN_COMPARE) || (node & ZAN_NODE_STANDBY))
        return true;
    if (zan_client_compare(u->session->client, ZAN_WIRE_NO_INDEX, 0, &u->comparison, &differences))
        return false;
    free(differences);
    return true;
}

/* Parents first: what something still leads to waits for it. */
bool delete_network(unload_t *u)
{
    const batch_ptr_t batch(zan_batch_new(ZAN_BATCH_CONTINUE_ON_ERROR, 0));
    if (!batch)
        throw std::bad_alloc();
    for (const topology_stage_t &stage : u->network)
        for (const object_ptr_t &obj : stage.objects)
            if (zan_batch_append(batch.get(), obj.get(), ZAN_TABLE_DELETE))
                throw std::bad_alloc();
    if (zan_client_run(u->session->client, batch.get()))
        return false;
    for (uint32_t i = 0; i < zan_batch_slots(batch.get()); i++) {
        const zan_rcode rc = zan_batch_rc(batch.get(), i);
        if (rc == ZAN_RC_DELAY_DELETE)
            u->held_back++;
        else if (rc == EOK)
            u->gone_at_once++;
        else
            u->refused[rc]++;
    }
    return true;
}

bool delete_routes(unload_t *u, routes_t *routes)
{
    if (!routes->count)
        return true;
    progress_t progress(u->session, "delete routes", routes->count);
    if (!send_routes(u->session, routes, ZAN_TABLE_DELETE, 1,
                     [&](uint64_t done) { progress.draw(done); }))
        return false;
    progress.finish(routes->count);
    return true;
}

bool count_left(unload_t *u, const routes_t &ipv4, const routes_t &ipv6)
{
    zan_table_status_st *tables;
    if (zan_client_status(u->session->client, &u->status, &tables))
        return false;
    std::vector<bool> ours(ZAN_NUM_TABLES);
    for (const topology_stage_t &stage : u->network)
        ours[stage.def->id] = true;
    ours[ipv4.def->id] = ours[ipv6.def->id] = true;
    for (uint32_t i = 0; i < u->status.num_tables; i++) {
        if (!ours[tables[i].table_id])
            continue;
        left_t left = {tables[i].stored, tables[i].identifiers, 0};
        for (uint32_t npu = 0; npu < u->status.num_npus; npu++)
            left.on_npus += tables[i].held[npu];
        u->left += left;
        if (left.is_something())
            u->tables_left.emplace_back(kor_table_name_get(tables[i].table_id), left);
    }
    free(tables);
    return true;
}

/* ---- Verdict and report ---- */

bool is_good(const unload_t *u)
{
    const zan_compare_reply_st &c = u->comparison;
    return u->check.missing.empty() && u->check.different.empty() && !u->check.misordered &&
           !c.missing && !c.different && !c.surplus && u->refused.empty() &&
           !u->left.is_something();
}

void report_text(const unload_t *u)
{
    printf("\nmoved     %llu routes to another group; %zu missing, %zu not as sent\n",
           (unsigned long long)u->moved, u->check.missing.size(), u->check.different.size());
    print_comparison(u->comparison, nullptr);
    printf(
        "deleted   from the top: %llu objects held back by what led to them, %llu gone at once\n",
        (unsigned long long)u->held_back, (unsigned long long)u->gone_at_once);
    for (const auto &[rc, count] : u->refused)
        printf("refused   %llu: %s\n", (unsigned long long)count, code_text(rc).c_str());
    printf("left      %llu stored, %llu identifiers, %llu on NPUs; the pool holds %llu bytes\n",
           (unsigned long long)u->left.stored, (unsigned long long)u->left.identifiers,
           (unsigned long long)u->left.on_npus, (unsigned long long)u->status.pool_bytes);
    for (const auto &[table, left] : u->tables_left)
        printf("  %s: %llu stored, %llu identifiers, %llu on NPUs\n", table.c_str(),
               (unsigned long long)left.stored, (unsigned long long)left.identifiers,
               (unsigned long long)left.on_npus);
    printf("%s\n", is_good(u) ? "all gone" : "NOT all gone: see above");
}

void report_json(const unload_t *u)
{
    json_t out;
    out["well"] = is_good(u);
    out["moved"] = u->moved;
    out["missing"] = u->check.missing.size();
    out["different"] = u->check.different.size();
    out["held_back"] = u->held_back;
    out["gone_at_once"] = u->gone_at_once;
    out["left"] = {{"stored", u->left.stored},
                   {"identifiers", u->left.identifiers},
                   {"on_npus", u->left.on_npus},
                   {"pool_bytes", u->status.pool_bytes},
                   {"tables", json_t::array()}};
    for (const auto &[table, left] : u->tables_left)
        out["left"]["tables"].push_back({{"table", table},
                                         {"stored", left.stored},
                                         {"identifiers", left.identifiers},
                                         {"on_npus", left.on_npus}});
    printf("%s\n", out.dump().c_str());
}

} // namespace

int run_unload(session_t *session, const std::vector<std::string> &files)
{
    unload_t u = {};
    u.session = session;
    std::string why;
    for (const std::string &file : files)
        if (!read_prefixes(file, &u.prefixes, &why))
            return fail_text(why);
    drop_repeats(&u.prefixes);
    u.network = make_topology(0);
    routes_t ipv4 = make_ipv4_routes(u.prefixes);
    routes_t ipv6 = make_ipv6_routes(u.prefixes);
    if (!move_routes(&u, &ipv4) || !move_routes(&u, &ipv6) || !compare(&u) || !delete_network(&u) ||
        !delete_routes(&u, &ipv4) || !delete_routes(&u, &ipv6) || !count_left(&u, ipv4, ipv6))
        return fail_session(session);
    session->json ? report_json(&u) : report_text(&u);
    return is_good(&u) ? EXIT_WELL : EXIT_REFUSED;
}
