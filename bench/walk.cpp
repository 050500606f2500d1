/* What it costs to carry a change to the children of one object, by number of children.
 *
 *   walk     a change that concerns every child: each is updated, and written to the NPU
 *   skip     a change that concerns no child: each is visited and left alone
 *   bare     the floor: follow the list of the same children, and read a field of the header and
 *            one of the object
 *
 * Time runs from the batch entry until the NPU has finished. With few children several changes
 * follow each other, so that every round has as much to do and the end of it weighs little. The
 * children are routes whose keys are mixed, so that neither the list nor the memory is in key
 * order. With many children the bare walk slows down too, since they no longer fit into the caches:
 * what counts is whether the cost of a child grows faster than that.
 */
#include "bench.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dependency_graph.h"
#include "iproute.h"
#include "table_database.h"
#include "table_flows.h"
#include "walk_service.h"

namespace bench
{

namespace
{

constexpr size_t batch_objects = 1000;
constexpr size_t round_visits = 200'000; /* of children in a round, at least */
constexpr size_t rounds = 5;             /* and one to warm up */

/* Nanoseconds a child. */
struct costs_t {
    size_t children;
    double walk, skip, bare;
};

struct walks_t {
    const zan_table_def_t *group_def, *route_def;
    const zan_table_base_st *group;
    uint32_t value = 0; /* of the group's attributes: each change needs another */
    uint32_t sink = 0;  /* what the bare walk read */
};

/* Children first to last - 1, each with another key. */
void create_children(size_t first, size_t last)
{
    std::vector<uint64_t> words;
    for (size_t at = first; at < last;) {
        const size_t end = std::min(at + batch_objects, last);
        words.assign((end - at) * sizeof(zan_iproute_obj_st) / 8, 0);
        auto *out = (uint8_t *)words.data();
        for (; at < end; at++, out += sizeof(zan_iproute_obj_st)) {
            const uint32_t mixed = (uint32_t)at * 2654435761u; /* odd: no key comes twice */
            prefix_t prefix = {};
            prefix.len = 32;
            memcpy(prefix.bytes, &mixed, sizeof mixed);
            write_route(prefix, 1, (uint32_t)at + 1, out);
        }
        zan_table_response_st slot = {};
        zan_table_server_dispatcher((uint8_t *)words.data(), &slot,
                                    {1, (uint32_t)(words.size() * 8), 0, 0, {}}, nullptr);
    }
    settle();
}

size_t walks_in_round(size_t children)
{
    return std::max<size_t>(1, round_visits / children);
}

double time_changes(walks_t *w, const char *attribute, size_t count)
{
    std::vector<zan_table_base_st *> requests;
    for (size_t i = 0; i < count; i++) {
        char text[64];
        snprintf(text, sizeof text, "nhg_id=1 %s=%u", attribute, ++w->value);
        requests.push_back(make_request(w->group_def, text, ZAN_TABLE_UPDATE));
    }
    stopwatch_t watch;
    watch.start();
    for (zan_table_base_st *request : requests)
        run_request(request);
    settle();
    watch.stop();
    return watch.seconds();
}

double time_bare_walks(walks_t *w, size_t count)
{
    stopwatch_t watch;
    watch.start();
    for (size_t i = 0; i < count; i++)
        for (const zan_dpd_link_st *link = w->group->dpd.dpd_child_list; link;
             link = kor_dpd_next_child(link))
            w->sink += link->child->flag + ((const zan_iproute_obj_st *)link->child)->trap_fec_id;
    watch.stop();
    return watch.seconds();
}

/* The median of the rounds, in nanoseconds a child. `time` gets the number of walks. */
template <class Time> double each(size_t children, Time time)
{
    const size_t walks = walks_in_round(children);
    double seconds[rounds];
    time(walks);
    for (double &s : seconds)
        s = time(walks);
    std::sort(seconds, seconds + rounds);
    return seconds[rounds / 2] * 1e9 / (double)(walks * children);
}

/* A figure is worth something only if every walk did what it is measured for. */
void expect_visits(uint64_t grown, size_t children, const char *otherwise)
{
    if (grown != (rounds + 1) * walks_in_round(children) * children)
        fail(otherwise);
}

costs_t measure(walks_t *w, size_t children)
{
    const zan_bwalk_stats_st *stats = zan_dpd_get_bwalk_stats(w->route_def->id);
    costs_t costs = {children, 0, 0, 0};
    const zan_bwalk_stats_st before = *stats;
    costs.walk = each(children, [w](size_t count) { return time_changes(w, "fec_id", count); });
    expect_visits(stats->num_child_forced - before.num_child_forced, children,
                  "a walk did not update every child once");
    costs.skip =
        each(children, [w](size_t count) { return time_changes(w, "ecmp_base_fec", count); });
    expect_visits(stats->num_child_skips - before.num_child_skips, children,
                  "a walk did not pass every child over once");
    costs.bare = each(children, [w](size_t count) { return time_bare_walks(w, count); });
    return costs;
}

void report(const std::vector<costs_t> &all)
{
    const costs_t &few = all.front(), &many = all.back();
    const double walk = many.walk / few.walk, skip = many.skip / few.skip,
                 bare = many.bare / few.bare;
    printf("growth from %zu to %zu children: walk %.2f, skip %.2f, bare %.2f\n", few.children,
           many.children, walk, skip, bare);
    printf("walk     ratio of growth to the bare walk's  %7.2f\n", walk / bare);
    printf("skip     ratio of growth to the bare walk's  %7.2f\n", skip / bare);
}

} // namespace

void run_walks(size_t greatest)
{
    walks_t w = {zan_table_def_find("ipnhgroup"), zan_table_def_get(IPROUTE_TABLE_ID), nullptr};
    run_request(make_request(w.group_def, "nhg_id=1", ZAN_TABLE_CREATE));
    settle();
    zan_table_base_st *key = make_request(w.group_def, "nhg_id=1", ZAN_TABLE_GET);
    w.group = zan_db_get(key);
    free(key);
    printf("nanoseconds a child, routes below one group; median of the rounds\n");
    printf("%10s %10s %10s %10s %12s\n", "children", "walk", "skip", "bare", "walk / bare");
    std::vector<costs_t> all;
    size_t there = 0;
    for (size_t children = 1000; children <= greatest; children *= 10) {
        create_children(there, children);
        there = children;
        if (w.group->dpd.dpd_child_cnt != children)
            fail("not every child was bound");
        all.push_back(measure(&w, children));
        const costs_t &c = all.back();
        printf("%10zu %10.1f %10.1f %10.2f %12.1f\n", c.children, c.walk, c.skip, c.bare,
               c.walk / c.bare);
    }
    if (all.empty())
        fail("--objects is less than the 1,000 children that the least walk has");
    report(all);
}

} // namespace bench
