/* zan_bench: the cost of the main job, as a ratio to a floor on the same keys in the same run.
 *
 *   zan_bench [--prefixes FILE] [--objects N] [--phase create|read|update|delete|all|walk|trace]
 *             [--only server|floor] [--stepped SEED]
 *
 * One NPU whose hooks return at once. A phase comes behind the create that it needs.
 *
 *   create   N routes, shuffled, asynchronous: from the batch entry until the NPU has finished
 *   read     all of them by key, in another shuffle
 *   update   each to another group, asynchronous, in that shuffle
 *   delete   all of them, asynchronous, in that shuffle; nothing may be left
 *   walk     alone, see walk.cpp: a change carried to 1,000 up to N children of one object
 *   trace    alone, see trace.cpp: N calls, and the create of N routes with and without traces
 *
 * Times are noisy on a shared machine; quote the ratios. --only leaves the other side out, for
 * counting instructions; of the traces, `server` are N calls with their class on, `floor` with it
 * off.
 */
#include "bench.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include "host_control.h"
#include "table_database.h"
#include "table_flows.h"

using namespace bench;

namespace
{

constexpr uint32_t batch_objects = 1000;
constexpr uint32_t num_groups = 1000;

struct options_t {
    std::string prefixes = "examples/prefixes.txt.gz";
    size_t objects = 1'000'000;
    bool read = true, update = true, remove = true, walk = false, trace = false;
    bool server = true, floor = true;
    bool stepped = false;
    uint64_t seed = 0;
};

[[noreturn]] void usage()
{
    fprintf(stderr, "usage: zan_bench [--prefixes FILE] [--objects N] "
                    "[--phase create|read|update|delete|all|walk|trace] [--only server|floor] "
                    "[--stepped SEED]\n");
    exit(2);
}

options_t parse(int argc, char **argv)
{
    options_t o;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i], value = argv[i + 1];
        if (name == "--prefixes")
            o.prefixes = value;
        else if (name == "--objects")
            o.objects = strtoul(value.c_str(), nullptr, 0);
        else if (name == "--phase") {
            o.read = value == "read" || value == "all";
            o.update = value == "update" || value == "all";
            o.remove = value == "delete" || value == "all";
            o.walk = value == "walk";
            o.trace = value == "trace";
        } else if (name == "--only")
            (value == "server" ? o.floor : o.server) = false;
        else if (name == "--stepped") {
            o.stepped = true;
            o.seed = strtoull(value.c_str(), nullptr, 0);
        } else
            usage();
    }
    if (argc % 2 == 0)
        usage();
    return o;
}

/* Serialized routes, back to back, in the order given. */
struct messages_t {
    std::vector<uint64_t> words;
    std::vector<std::pair<size_t, size_t>> batches; /* offset and length in bytes */
    uint8_t *at(size_t offset)
    {
        return (uint8_t *)words.data() + offset;
    }
};

/* `moved`: each route leads to another group than by its create. */
messages_t make_messages(const std::vector<prefix_t> &prefixes, zan_table_operation_et operation,
                         bool moved = false)
{
    messages_t m;
    size_t total = 0;
    for (const prefix_t &p : prefixes)
        total += route_size(p);
    m.words.resize(total / 8);
    size_t at = 0, start = 0;
    uint32_t trans_id = 0;
    for (size_t i = 0; i < prefixes.size(); i++) {
        const prefix_t &p = prefixes[i];
        uint32_t group; /* a mixed prefix, so that it does not follow the order */
        memcpy(&group, p.bytes, sizeof group);
        write_route(p, (group * 2654435761u + moved) % num_groups, ++trans_id, m.at(at));
        auto *base = (zan_table_base_st *)m.at(at);
        base->table_operation = (uint8_t)operation;
        if (operation == ZAN_TABLE_GET)
            base->flag = 0;
        at += route_size(p);
        if ((i + 1) % batch_objects == 0 || i + 1 == prefixes.size()) {
            m.batches.push_back({start, at - start});
            start = at;
        }
    }
    return m;
}

/* ---- The server ---- */

void create_groups(const char *table)
{
    const zan_table_def_t *def = zan_table_def_find(table);
    for (uint32_t i = 0; i < num_groups; i++) {
        char text[32];
        snprintf(text, sizeof text, "nhg_id=%u", i);
        run_request(make_request(def, text, ZAN_TABLE_CREATE));
    }
}

void write_batch(messages_t *m, size_t batch)
{
    const auto &[offset, length] = m->batches[batch];
    zan_table_response_st slot = {};
    zan_table_server_dispatcher(m->at(offset), &slot, {1, (uint32_t)length, 0, 0, {}}, nullptr);
}

/* Some batches, until the NPU has finished. */
double server_write(messages_t *m, size_t first, size_t last)
{
    stopwatch_t watch;
    watch.start();
    for (size_t batch = first; batch < last; batch++)
        write_batch(m, batch);
    settle();
    watch.stop();
    return watch.seconds();
}

double server_write(messages_t *m)
{
    return server_write(m, 0, m->batches.size());
}

double server_read(messages_t *m)
{
    std::vector<zan_table_response_st> slots(batch_objects);
    stopwatch_t watch;
    for (const auto &[offset, length] : m->batches) {
        memset(slots.data(), 0, slots.size() * sizeof slots[0]);
        watch.start();
        zan_table_server_dispatcher(m->at(offset), slots.data(),
                                    {batch_objects, (uint32_t)length, 0, 1, {}}, nullptr);
        watch.stop();
        for (size_t at = offset, i = 0; at < offset + length; i++) {
            if (slots[i].err_code != EOK)
                fail("a stored route was not read back");
            at += ((zan_table_base_st *)m->at(at))->total_obj_size;
        }
    }
    return watch.seconds();
}

/* ---- The floor ---- */

template <class Visit> double each(messages_t *m, Visit visit)
{
    stopwatch_t watch;
    watch.start();
    for (const auto &[offset, length] : m->batches)
        for (size_t at = offset; at < offset + length;) {
            uint8_t *wire = m->at(at);
            at += ((zan_table_base_st *)wire)->total_obj_size;
            visit(wire);
        }
    watch.stop();
    return watch.seconds();
}

void report(const char *phase, size_t n, double server, double floor)
{
    if (server > 0)
        printf("%-8s server %7.3f s  %8.0f objects/s\n", phase, server, (double)n / server);
    if (floor > 0)
        printf("%-8s floor  %7.3f s  %8.0f objects/s\n", phase, floor, (double)n / floor);
    if (server > 0 && floor > 0)
        printf("%-8s ratio  %7.2f\n", phase, server / floor);
}

/* Seconds by phase; 0 for one that did not run. */
struct times_t {
    double create = 0, read = 0, update = 0, remove = 0;
};

times_t run_floor(const options_t &options, size_t n, messages_t *creates, messages_t *reads,
                  messages_t *updates, messages_t *deletes)
{
    times_t t;
    floor_t floor;
    auto must = [](bool found) {
        if (!found)
            fail("the floor lost a route");
    };
    t.create = each(creates, [&](const uint8_t *wire) { floor.create(wire); });
    must(floor.size() == n);
    std::vector<uint8_t> out(1024);
    if (options.read)
        t.read = each(reads, [&](const uint8_t *wire) { must(floor.read(wire, out.data())); });
    if (options.update)
        t.update = each(updates, [&](const uint8_t *wire) { must(floor.update(wire)); });
    if (options.remove)
        t.remove = each(deletes, [&](const uint8_t *wire) { must(floor.remove(wire)); });
    return t;
}

uint64_t routes_stored()
{
    return zan_db_count(zan_table_def_find("iproute")->id) +
           zan_db_count(zan_table_def_find("ip6route")->id);
}

times_t run_server(const options_t &options, size_t n, messages_t *creates, messages_t *reads,
                   messages_t *updates, messages_t *deletes)
{
    times_t t;
    start_server(options.stepped, options.seed);
    create_groups("ipnhgroup");
    create_groups("ip6nhgroup");
    settle();
    const uint64_t bytes = zan_shm_bytes_in_use();
    t.create = server_write(creates);
    if (routes_stored() != n)
        fail("not every route was stored");
    if (options.read)
        t.read = server_read(reads);
    printf("index    %.1f bytes an object\n",
           (double)(zan_db_index_bytes_of(zan_table_def_find("iproute")->id) +
                    zan_db_index_bytes_of(zan_table_def_find("ip6route")->id)) /
               (double)n);
    if (options.update)
        t.update = server_write(updates);
    if (options.remove) {
        t.remove = server_write(deletes);
        if (routes_stored() != 0 || zan_shm_bytes_in_use() != bytes)
            fail("a delete left something behind");
    }
    return t;
}

/* What the routes cost with traces on and off. */
void run_trace_phase(const options_t &options, messages_t *creates, messages_t *deletes, size_t n)
{
    start_server(options.stepped, options.seed);
    create_groups("ipnhgroup");
    create_groups("ip6nhgroup");
    settle();
    const auto create = [&](size_t batch) { return server_write(creates, batch, batch + 1); };
    const auto remove_all = [&] {
        if (routes_stored() != n)
            fail("not every route was stored");
        server_write(deletes);
        if (routes_stored() != 0)
            fail("a delete left something behind");
    };
    run_traces(n, {creates->batches.size(), create, remove_all});
}

} // namespace

int main(int argc, char **argv)
{
    const options_t options = parse(argc, argv);
    if (options.walk) {
        start_server(options.stepped, options.seed);
        run_walks(options.objects);
        return 0;
    }
    if (options.trace && options.server != options.floor) {
        count_traces(options.objects, options.server);
        return 0;
    }
    std::vector<prefix_t> prefixes = read_prefixes(options.prefixes);
    if (prefixes.empty())
        return 1;
    std::mt19937_64 random(1);
    std::shuffle(prefixes.begin(), prefixes.end(), random);
    prefixes.resize(std::min(prefixes.size(), options.objects));
    const size_t n = prefixes.size();
    printf("%zu routes of %s, shuffled, %u groups\n", n, options.prefixes.c_str(), num_groups);

    messages_t creates = make_messages(prefixes, ZAN_TABLE_CREATE);
    std::shuffle(prefixes.begin(), prefixes.end(), random);
    messages_t reads = make_messages(prefixes, ZAN_TABLE_GET);

    messages_t updates, deletes;
    if (options.trace) {
        deletes = make_messages(prefixes, ZAN_TABLE_DELETE);
        run_trace_phase(options, &creates, &deletes, n);
        return 0;
    }
    if (options.update)
        updates = make_messages(prefixes, ZAN_TABLE_UPDATE, true);
    if (options.remove)
        deletes = make_messages(prefixes, ZAN_TABLE_DELETE);

    times_t floor_times, server_times;
    if (options.floor)
        floor_times = run_floor(options, n, &creates, &reads, &updates, &deletes);
    if (options.server)
        server_times = run_server(options, n, &creates, &reads, &updates, &deletes);
    report("create", n, server_times.create, floor_times.create);
    report("read", n, server_times.read, floor_times.read);
    report("update", n, server_times.update, floor_times.update);
    report("delete", n, server_times.remove, floor_times.remove);
    if (server_times.remove > 0)
        printf("delete   %.2f times the server's create\n",
               server_times.remove / server_times.create);
    return 0;
}
