/* Every event of every table, from the definitions: raised by a change of its own attribute, it
 * reaches its receivers and nobody else. */
#include <cstring>
#include <gtest/gtest.h>
#include <map>

#include "npu_sim_control.h"
#include "object_maker.h"
#include "walk_counts.h"

using namespace bench;

namespace
{

/* One object of the graph below a source, and what the walk must do with it. */
struct node_t {
    const zan_table_def_t *def;
    int parent; /* index of the node that it is bound to; -1: the source, or a bystander */
    uint64_t handle;
};

struct graph_t {
    std::vector<node_t> nodes; /* the source first */
    uint32_t seed;
};

bool in_bitmap(const zan_event_def_t *event, uint32_t table_id)
{
    for (uint32_t i = 0; i < event->child_count; i++)
        if (event->child_tables[i] == table_id)
            return true;
    return false;
}

/* Whether the event goes on below an object of the table. */
bool goes_below(const zan_table_def_t *def, const zan_event_def_t *event)
{
    for (uint32_t i = 0; i < def->num_children; i++)
        if (in_bitmap(event, def->children[i]))
            return true;
    return false;
}

object_t bound_object(const zan_table_def_t *def, uint32_t seed, const zan_table_def_t *parent_def,
                      uint64_t parent)
{
    for (const any_reference_t &ref : references(def)) {
        if (ref.parent_def != parent_def)
            continue;
        object_t obj = with_key(def, seed, ZAN_TABLE_CREATE, ref.repeated ? 1 : 0);
        set_handle(select_reference(def, ref, obj.get()), parent);
        return obj;
    }
    ADD_FAILURE() << def->name << " has no reference to " << parent_def->name;
    return with_key(def, seed);
}

int add(graph_t *g, const zan_table_def_t *def, int parent)
{
    const uint32_t seed = g->seed++;
    const object_t obj =
        parent < 0 ? with_key(def, seed)
                   : bound_object(def, seed, g->nodes[parent].def, g->nodes[parent].handle);
    const result_t r = run(obj);
    EXPECT_EQ(r.rc, (zan_rcode)EOK) << def->name;
    g->nodes.push_back({def, parent, r.handle});
    return (int)g->nodes.size() - 1;
}

/* Below the source one object of each table that the event can come to, by the shortest way; beside
 * it a bystander of each of these tables. */
graph_t graph_of(const zan_table_def_t *source, const zan_event_def_t *event, uint32_t seed)
{
    graph_t g = {{}, seed};
    add(&g, source, -1);
    std::map<uint32_t, bool> placed;
    for (size_t at = 0; at < g.nodes.size(); at++) {
        const zan_table_def_t *def = g.nodes[at].def;
        if (!goes_below(def, event))
            continue;
        for (uint32_t c = 0; c < def->num_children; c++)
            if (!placed[def->children[c]]) {
                placed[def->children[c]] = true;
                add(&g, zan_table_defs[def->children[c]], (int)at);
            }
    }
    for (const auto &[table_id, below] : placed)
        add(&g, zan_table_defs[table_id], -1);
    return g;
}

const zan_table_base_st *stored(const node_t &node)
{
    return (const zan_table_base_st *)node.handle;
}

/* The bits that a change of one attribute raises; the attribute is the event's own. */
const zan_field_def_t *own_attribute(const zan_table_def_t *def, const zan_event_def_t *event)
{
    const zan_field_def_t *best = nullptr;
    for (uint32_t i = 0; i < def->num_attrs; i++)
        if ((def->attrs[i].trigger_mask & event->attrib_mask) &&
            (!best || __builtin_popcountll(def->attrs[i].trigger_mask) <
                          __builtin_popcountll(best->trigger_mask)))
            best = &def->attrs[i];
    return best;
}

result_t change(const graph_t &g, const zan_table_def_t *def, const zan_field_def_t *attr)
{
    const bool repeated = attr->shape == ZAN_SHAPE_REPEATED;
    object_t obj = empty(def, ZAN_TABLE_UPDATE, repeated ? 1 : 0);
    memcpy(zan_obj_key(def, obj.get()), zan_obj_key(def, stored(g.nodes[0])), def->key_size);
    obj->key_len = def->key_size;
    fill_value(attr, zan_obj_attr(attr, obj.get(), 0), 1);
    *zan_obj_attr_set(attr, obj.get(), 0, repeated) = 1;
    return run(obj);
}

enum interest_t {
    NO_INTEREST,
    PLAIN,
    FORCED
};

interest_t interest(const zan_table_def_t *def, const zan_table_def_t *source, uint64_t mask)
{
    for (uint32_t i = 0; i < def->num_subscriptions; i++) {
        const zan_subscription_def_t *s = &def->subscriptions[i];
        if (s->source_table == source->id && source->events[s->event_id - 1].attrib_mask == mask)
            return s->force ? FORCED : PLAIN;
    }
    return NO_INTEREST;
}

npu_sim_counts_t hardware()
{
    settle();
    npu_sim_counts_t counts;
    npu_sim_counts(1, &counts);
    return counts;
}

bool can_be_pushed(const zan_event_def_t *event)
{
    return event->child_count != 0 || event->post_proc;
}

/* Which of the nodes an event comes to: down from the source, as long as it goes on, and through
 * objects of its colour. */
std::vector<bool> reached(const graph_t &g, const zan_event_def_t *event)
{
    std::vector<bool> at(g.nodes.size());
    at[0] = true;
    for (size_t i = 1; i < g.nodes.size(); i++) {
        const int parent = g.nodes[i].parent;
        at[i] = parent >= 0 && at[parent] && goes_below(g.nodes[parent].def, event) &&
                (event->color == 0 || (event->color & zan_color_get_self_mask(stored(g.nodes[i]))));
    }
    return at;
}

void check_event(const zan_table_def_t *source, const zan_event_def_t *event, uint32_t seed)
{
    SCOPED_TRACE(event->name);
    const graph_t g = graph_of(source, event, seed);
    const zan_field_def_t *attr = own_attribute(source, event);
    ASSERT_TRUE(attr);

    std::vector<bool> updated(g.nodes.size()), visited(g.nodes.size()), forced(g.nodes.size());
    bool post_proc = false;
    std::map<uint32_t, uint32_t> pushed; /* event id: times before */
    const zan_event_record_t *records = zan_srv_table_props_get(source->id)->event_table;
    const bool silent = stored(g.nodes[0])->dpd.dpd_child_cnt == 0 && !source->evt_walk_childless;
    for (uint32_t i = 0; i < source->num_events; i++) {
        const zan_event_def_t *e = &source->events[i];
        const bool colored =
            e->color == 0 || (e->color & zan_color_get_self_mask(stored(g.nodes[0])));
        if (!(e->attrib_mask & attr->trigger_mask) || !can_be_pushed(e) || !colored || silent ||
            (!goes_below(source, e) && !e->post_proc))
            continue;
        pushed[e->id] = records[e->id].pushed_count;
        post_proc = post_proc || e->post_proc;
        const std::vector<bool> at = reached(g, e);
        for (size_t n = 1; n < g.nodes.size(); n++) {
            visited[n] = visited[n] || at[n];
            const interest_t wants = interest(g.nodes[n].def, source, e->attrib_mask);
            updated[n] = updated[n] || (at[n] && wants != NO_INTEREST);
            forced[n] = forced[n] || (at[n] && wants == FORCED);
        }
    }
    EXPECT_EQ(pushed.count(event->id) != 0, can_be_pushed(event) && !silent);
    if (can_be_pushed(event) && event->child_count)
        for (uint32_t i = 0; i < event->child_count; i++) {
            bool found = false;
            for (size_t n = 1; n < g.nodes.size(); n++)
                found = found || (updated[n] && g.nodes[n].def->id == event->child_tables[i]);
            EXPECT_TRUE(found) << kor_table_name_get(event->child_tables[i]) << " is not reached";
        }

    /* A forced update is written whatever it finds; one that is not may be forced by what its
     * source has forced before. */
    uint64_t least = 1, most = 1, all_updates = 0, all_visits = 0;
    for (size_t n = 1; n < g.nodes.size(); n++) {
        all_updates += updated[n];
        all_visits += visited[n];
        least += updated[n] && (forced[n] || !g.nodes[n].def->change_test);
        most += updated[n];
    }
    const npu_sim_counts_t hardware_before = hardware();
    const walk_counts_t before = walk_counts();
    EXPECT_EQ(change(g, source, attr).rc, (zan_rcode)EOK);
    const npu_sim_counts_t hardware_after = hardware();
    const walk_counts_t after = walk_counts();
    EXPECT_EQ(after.pushed - before.pushed, pushed.size());
    EXPECT_EQ(after.updates - before.updates, all_updates);
    EXPECT_EQ(after.skips - before.skips, all_visits - all_updates);
    EXPECT_GE(hardware_after.updates, hardware_before.updates + least);
    EXPECT_LE(hardware_after.updates, hardware_before.updates + most);
    EXPECT_EQ(hardware_after.events, hardware_before.events + post_proc);
    for (const auto &[id, times] : pushed)
        EXPECT_EQ(records[id].pushed_count, times + 1) << records[id].name;
    EXPECT_EQ(stored(g.nodes[0])->dpd.evt_pushed_count, pushed.size());
    EXPECT_EQ(after.revisits, before.revisits);
    for (size_t n = 1; n < g.nodes.size(); n++) {
        const zan_dpd_area_st *dpd = &stored(g.nodes[n])->dpd;
        EXPECT_EQ(dpd->bwalk_update_count, updated[n] ? 1 : 0) << g.nodes[n].def->name << " " << n;
        EXPECT_EQ(dpd->bwalk_skip_count, visited[n] && !updated[n] ? 1 : 0)
            << g.nodes[n].def->name << " " << n;
    }
}

} // namespace

TEST(EveryEvent, ReachesItsReceiversAlone)
{
    const server_t server({.num_npus = 2});
    uint32_t seed = 1, can = 0, all = 0;
    for (const zan_table_def_t *def : zan_table_defs)
        for (uint32_t i = 0; i < def->num_events; i++) {
            check_event(def, &def->events[i], seed);
            seed += 400;
            all++;
            can += can_be_pushed(&def->events[i]);
        }
    EXPECT_EQ(all, 107u);
    EXPECT_EQ(can, 75u);
    EXPECT_EQ(hardware_differs(2), "");
}
