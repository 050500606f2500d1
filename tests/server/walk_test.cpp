/* Walks: who is visited, how often, with what, and how a walk ends when something goes wrong. */
#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <random>

#include "host_assert.h"
#include "npu_sim_control.h"
#include "object_maker.h"
#include "trace_messages.h"
#include "walk_counts.h"

using namespace bench;

namespace
{

/* ---- Graphs of one table that refers to itself ---- */

using parents_t = std::vector<std::vector<uint32_t>>; /* of each object, those before it */

object_t group(uint32_t id, const std::vector<uint32_t> &above, zan_table_operation_et operation)
{
    const zan_table_def_t *def = table("ipnhgroup");
    object_t obj = with_key(def, id, operation, (uint32_t)above.size());
    for (const any_reference_t &ref : references(def))
        for (uint32_t m = 0; ref.name == "ipnhgroup" && m < above.size(); m++)
            set_key(zan_obj_ref(&def->refs[ref.index], obj.get(), m), def,
                    with_key(def, above[m]).get());
    return obj;
}

/* Bind in an order that the seed decides, so that lists of children stand in any order. */
std::vector<uint64_t> build(const parents_t &parents, uint32_t seed)
{
    std::vector<uint64_t> handles;
    for (uint32_t id = 0; id < parents.size(); id++)
        handles.push_back(run(group(id, {}, ZAN_TABLE_CREATE)).handle);
    std::vector<uint32_t> order(parents.size());
    for (uint32_t id = 0; id < order.size(); id++)
        order[id] = (uint32_t)order.size() - 1 - id; /* seed 0: the newest first in every list */
    if (seed != 0)
        std::shuffle(order.begin(), order.end(), std::mt19937(seed));
    for (const uint32_t id : order)
        if (!parents[id].empty()) {
            EXPECT_EQ(run(group(id, parents[id], ZAN_TABLE_UPDATE)).rc, (zan_rcode)EOK) << id;
        }
    return handles;
}

void every_object_is_updated_once(const parents_t &parents, uint32_t seed)
{
    const std::vector<uint64_t> handles = build(parents, seed);
    const walk_counts_t before = walk_counts();
    object_t change = group(0, {}, ZAN_TABLE_UPDATE);
    *zan_obj_attr_set(&table("ipnhgroup")->attrs[2], change.get(), 0, 0) = 1;
    ASSERT_STREQ(table("ipnhgroup")->attrs[2].name, "fec_id");
    *(uint32_t *)zan_obj_attr(&table("ipnhgroup")->attrs[2], change.get(), 0) = 4711;
    EXPECT_EQ(run(change).rc, (zan_rcode)EOK);
    settle();
    const walk_counts_t after = walk_counts();
    EXPECT_EQ(after.updates - before.updates, parents.size() - 1);
    EXPECT_EQ(after.revisits, 0u);
    for (uint32_t id = 1; id < handles.size(); id++)
        EXPECT_EQ(stored(handles[id])->dpd.bwalk_update_count, 1) << id;
    EXPECT_EQ(hardware_differs(1), "");
}

class WalkOrder : public testing::TestWithParam<uint32_t>
{
};

} // namespace

TEST_P(WalkOrder, ALadderOfManyPathsIsVisitedOnce)
{
    const server_t server({});
    parents_t ladder(40);
    for (uint32_t id = 1; id < ladder.size(); id++) {
        ladder[id].push_back(id - 1);
        if (id > 1)
            ladder[id].push_back(id - 2);
    }
    every_object_is_updated_once(ladder, GetParam());
}

TEST_P(WalkOrder, ARandomGraphIsVisitedOnce)
{
    const server_t server({});
    std::mt19937 random(GetParam() + 1);
    parents_t graph(2000);
    for (uint32_t id = 1; id < graph.size(); id++)
        for (uint32_t links = random() % 3 + 1; links; links--)
            graph[id].push_back(random() % id);
    every_object_is_updated_once(graph, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Seeds, WalkOrder, testing::Range(0u, 4u));

namespace
{

/* Groups on 16 next hops, those on as many link-layer next hops of 4 interfaces, and routes spread
 * over the groups. */
struct tall_table_t {
    uint32_t groups, routes;

    void create() const
    {
        batch_t batch;
        for (uint32_t i = 1; i <= 4; i++)
            batch.add(object("l3intf intf=" + std::to_string(i) + " ipv4_mtu=1500"));
        for (uint32_t i = 1; i <= 16; i++) {
            const std::string id = std::to_string(i), intf = std::to_string(i % 4 + 1);
            batch.add(object("macllnh intf=" + intf + " adj_id=" + id +
                             " l3intf_obj.l3intf.intf=" + intf));
            batch.add(object("ipnh nh_id=" + id + " next_obj.macllnh.intf=" + intf +
                             " next_obj.macllnh.adj_id=" + id));
        }
        for (uint32_t i = 1; i <= groups; i++)
            batch.add(object("ipnhgroup nhg_id=" + std::to_string(i) +
                             " nexthop_next_obj[0].ipnh.nh_id=" + std::to_string(i % 16 + 1)));
        send(&batch);
        const zan_table_def_t *def = table("iproute");
        for (uint32_t i = 1; i <= routes; i++) {
            batch.add(route(def, i));
            if (i % 10'000 == 0)
                send(&batch);
        }
    }

private:
    object_t route(const zan_table_def_t *def, uint32_t number) const
    {
        object_t obj = with_key(def, number);
        zan_ref_value_st *value = zan_obj_union(&def->unions[0], obj.get(), 0);
        value->selector = 1;
        value->is_set = value->refkey_set = 1;
        *(uint32_t *)zan_ref_key(value) = number % groups + 1;
        return obj;
    }
    static void send(batch_t *batch)
    {
        for (const result_t &r : batch->run())
            ASSERT_EQ(r.rc, (zan_rcode)EOK);
    }
};

} // namespace

TEST(Walk, OfOneGroupOfAThousandUpdatesItsRoutesAlone)
{
    const server_t server({});
    const tall_table_t all = {1000, HOST_SANITIZED ? 20'000u : 1'000'000u};
    ASSERT_STREQ(table("iproute")->unions[0].variants[0].stem, "ipnhgroup");
    all.create();
    const zan_bwalk_stats_st *routes = zan_dpd_get_bwalk_stats(table("iproute")->id);
    const std::string members = " nexthop_next_obj[0].ipnh.nh_id=" + std::to_string(77 % 16 + 1);
    EXPECT_EQ(update("ipnhgroup nhg_id=77 fec_id=4711" + members).rc, (zan_rcode)EOK);
    EXPECT_EQ(routes->num_child_updates, all.routes / 1000);
    EXPECT_EQ(routes->num_child_forced, all.routes / 1000);
    EXPECT_EQ(walk_counts().updates, all.routes / 1000);
    EXPECT_EQ(walk_counts().skips, 0u);
    EXPECT_EQ(walk_counts().revisits, 0u);

    EXPECT_EQ(update("l3intf intf=2 ipv4_mtu=9000").rc, (zan_rcode)EOK);
    EXPECT_EQ(zan_dpd_get_bwalk_stats(table("macllnh")->id)->num_child_updates, 4u);
    EXPECT_EQ(walk_counts().updates, all.routes / 1000 + 4);
    EXPECT_EQ(walk_counts().skips, 0u);
    EXPECT_EQ(hardware_differs(1), "");
}

/* The transaction of a walk is its root's, and the mark of a replay is the client's to take. */
TEST(Walk, GivesItsTransactionToWhatItUpdates)
{
    const server_t server({});
    create("test_if id=1");
    const uint64_t child = create("test_nh id=1 test_if.id=1").handle;
    ((zan_table_base_st *)child)->flag |= ZAN_FLAG_STALE;
    update("test_if id=1 change_1=5");
    EXPECT_EQ(stored(child)->dpd.bwalk_update_count, 1);
    EXPECT_EQ(stored(child)->base_trans_id, named("test_if id=1")->base_trans_id);
    EXPECT_EQ(*zan_obj_trans_id(table("test_nh"), stored(child)), stored(child)->base_trans_id);
    EXPECT_TRUE(stored(child)->flag & ZAN_FLAG_STALE);
}

TEST(Walk, BringsTwoEventsInOneUpdate)
{
    const server_t server({});
    create("test_if id=1");
    const uint64_t child = create("test_nh id=1 test_if.id=1").handle;
    zan_trace_switch(ZAN_CLASS_ZAN_BWALK_EVENT__, true);
    update("test_if id=1 change_0=5 change_1=5");
    EXPECT_EQ(walk_counts().pushed, 2u);
    EXPECT_EQ(stored(child)->dpd.bwalk_update_count, 1);
    const std::vector<uint64_t> told = last_trace(ZAN_MSG_BWALK_CHILD);
    ASSERT_EQ(told.size(), 7u);
    EXPECT_EQ(told[0], child);
    EXPECT_EQ(told[3], 2u) << "matches";
    EXPECT_EQ(told[4], 1u) << "of them forcing";
    EXPECT_EQ(stored(child)->dpd.bwalk_id_stamp, told[1]);
}

/* What a parent hands down arrives with the walk, and what is below goes on inheriting. */
TEST(Walk, CarriesInheritedValuesDown)
{
    const server_t server({});
    create("test_if id=1 a=1");
    create("test_nh id=1 next_obj.test_if.id=1");
    create("test_rt vrf_id=0 prefix=10.0.0.0/8 next_obj.test_nh.id=1");
    update("test_if id=1 a=77 change_3=1");
    settle();
    EXPECT_EQ(dump(table("test_nh")).at(0), "id=1 parent_a=77 next_obj.test_if.id=1");
    EXPECT_EQ(hardware_differs(1), "");
    /* Without an event the value waits for the next update. */
    update("test_if id=1 a=78");
    EXPECT_EQ(dump(table("test_nh")).at(0), "id=1 parent_a=77 next_obj.test_if.id=1");
}

TEST(Walk, PushesNothingThatNobodyBelowWants)
{
    const server_t server({});
    create("test_if id=1");
    update("test_if id=1 change_1=1");
    EXPECT_EQ(walk_counts().pushed, 0u) << "no children";
    const uint64_t child = create("testay id=1 test_if.id=1").handle;
    update("test_if id=1 change_2=1");
    walk_counts_t c = walk_counts();
    EXPECT_EQ(c.pruned, 1u);
    EXPECT_EQ(c.pushed, 0u);
    EXPECT_EQ(c.walks, 0u);
    update("test_if id=1 change_4=1"); /* green, and the only child is red */
    c = walk_counts();
    EXPECT_EQ(c.color_skipped, 1u);
    EXPECT_EQ(c.pushed, 0u);
    update("test_if id=1 change_7=1");
    EXPECT_EQ(walk_counts().pushed, 1u);
    EXPECT_EQ(stored(child)->dpd.bwalk_update_count, 1);
}

/* Children without an interest are visited and left alone; a coloured event does not come to those
 * that do not carry its colour. */
TEST(Walk, SkipsAndDoesNotReach)
{
    const server_t server({});
    create("test_if id=1");
    const uint64_t red = create("testay id=1 test_if.id=1").handle;
    const uint64_t plain = create("testifstats id=1 next_obj.test_if.id=1").handle;
    ASSERT_NE(plain, 0u);
    update("test_if id=1 change_3=1");
    EXPECT_EQ(stored(red)->dpd.bwalk_update_count, 1);
    EXPECT_EQ(stored(plain)->dpd.bwalk_skip_count, 1);
    EXPECT_EQ(walk_counts().skips, 1u);
    update("test_if id=1 change_7=1");
    EXPECT_EQ(stored(red)->dpd.bwalk_update_count, 2);
    EXPECT_EQ(stored(plain)->dpd.bwalk_skip_count, 1);
    EXPECT_EQ(walk_counts().not_reached, 1u);
}

/* ---- Filters ---- */

namespace
{

/* A filter of test_nh that takes one event for itself and puts it out of the walk. */
void take_rif_change(uint8_t *child_update_needed, zan_event_filter_t *filter)
{
    if (filter->event->event_id != 4)
        return;
    filter->handled = 1;
    filter->remove = 1;
    *child_update_needed = 0;
}

void always_update(uint8_t *child_update_needed, zan_event_filter_t *)
{
    *child_update_needed = 1;
}

} // namespace

TEST(Walk, HearsTheFilterOfATable)
{
    const server_t server({});
    create("test_if id=1");
    const uint64_t nh = create("test_nh id=1 test_if.id=1").handle;
    const uint64_t rt = create("testifstats id=1 next_obj.test_if.id=1").handle;
    zan_srv_table_props_get(table("testifstats")->id)->event_filter = always_update;
    update("test_if id=1 change_0=1");
    EXPECT_EQ(stored(nh)->dpd.bwalk_update_count, 1);
    EXPECT_EQ(stored(rt)->dpd.bwalk_update_count, 1) << "a filter alone can ask for an update";
    zan_srv_table_props_get(table("test_nh")->id)->event_filter = take_rif_change;
    update("test_if id=1 change_0=2");
    EXPECT_EQ(stored(nh)->dpd.bwalk_update_count, 1);
    EXPECT_EQ(stored(nh)->dpd.bwalk_skip_count, 1);
    EXPECT_EQ(stored(rt)->dpd.bwalk_update_count, 1) << "the event was gone when its turn came";
    EXPECT_EQ(stored(rt)->dpd.bwalk_skip_count, 1);
    const zan_event_stat_t *received = zan_srv_table_props_get(table("test_nh")->id)->evt_stats;
    while (received->event_id != 4 || received->source_table != table("test_if")->id)
        received++;
    EXPECT_EQ(received->count, 2u) << "both visits, also the one before whose end it was removed";
}

/* ---- A platform's own bits and events ---- */

namespace
{

zan_event_record_t extra_events[2]; /* the first is reserved */

zan_event_record_t *get_extra_events(uint32_t *length)
{
    *length = 2;
    return extra_events;
}

uint64_t bit_40(zan_table_base_st *, zan_table_base_st *)
{
    return (uint64_t)1 << 40;
}

} // namespace

/* The event has the bits that a subscription goes by, though its table declares no such record. */
TEST(Walk, PushesThePlatformsEventsWithTheTablesOwn)
{
    const server_t server({});
    create("test_nh id=1");
    const uint64_t below = create("test_nhg id=1 backup_obj.test_nh.id=1").handle;
    srv_zan_table_props_t *props = zan_srv_table_props_get(table("test_nh")->id);
    extra_events[1] = props->event_table[1];
    extra_events[1].attrib_mask |= (uint64_t)1 << 40;
    extra_events[1].pushed_count = 0;
    props->get_extra_events = get_extra_events;
    update("test_nh id=1 b=1");
    EXPECT_EQ(walk_counts().pushed, 0u);
    props->get_platform_attrib_mask = bit_40;
    update("test_nh id=1 b=2");
    EXPECT_EQ(extra_events[1].pushed_count, 1u);
    EXPECT_EQ(props->event_table[1].pushed_count, 0u);
    EXPECT_EQ(stored(below)->dpd.bwalk_skip_count, 1) << "nobody subscribes to these bits";
    props->get_infra_attrib_mask = bit_40;
    extra_events[1].attrib_mask = props->event_table[1].attrib_mask;
    update("test_nh id=1 change_0=1");
    EXPECT_EQ(walk_counts().pushed, 3u) << "both records";
    EXPECT_EQ(stored(below)->dpd.bwalk_update_count, 1);
}

/* ---- Failures ---- */

TEST(Walk, GoesOnBehindAChildThatFails)
{
    const server_t server({});
    create("test_if id=1 a=1");
    std::vector<uint64_t> children;
    for (const char *id : {"1", "2", "3"})
        children.push_back(
            create(std::string("test_nh id=") + id + " next_obj.test_if.id=1").handle);
    const npu_sim_failure_t second = {
        table("test_nh")->id, NPU_SIM_ANY, ZAN_TABLE_UPDATE, 2, 1, 0x4fa01234};
    npu_sim_fail(&second);
    EXPECT_EQ(update("test_if id=1 a=2 change_1=1").rc, 0x4fa01234u) << "the walk's code";
    EXPECT_EQ(dump(table("test_nh")),
              (std::vector<std::string>{"id=1 parent_a=2 next_obj.test_if.id=1",
                                        "id=2 parent_a=1 next_obj.test_if.id=1",
                                        "id=3 parent_a=2 next_obj.test_if.id=1"}));
    const zan_bwalk_stats_st *nh = zan_dpd_get_bwalk_stats(table("test_nh")->id);
    EXPECT_EQ(nh->num_child_updates, 3u);
    EXPECT_EQ(nh->num_child_failures, 1u);
    EXPECT_EQ(zan_dpd_get_bwalk_stats(table("test_if")->id)->num_failed_walks, 1u);
}

/* Children see the attempt; the code is the source's own. */
TEST(Walk, RunsThoughTheSourceFails)
{
    const server_t server({});
    create("test_if id=1");
    const uint64_t child = create("test_nh id=1 test_if.id=1").handle;
    const npu_sim_failure_t all = {
        table("test_if")->id, NPU_SIM_ANY, ZAN_TABLE_UPDATE, 1, 0, 0x4fa01234};
    npu_sim_fail(&all);
    EXPECT_EQ(update("test_if id=1 change_1=1").rc, 0x4fa01234u);
    EXPECT_EQ(stored(child)->dpd.bwalk_update_count, 1);
    EXPECT_EQ(zan_dpd_get_bwalk_stats(table("test_if")->id)->num_failed_walks, 0u);
}

TEST(Walk, UpdatesWhatWaitsForItsDelete)
{
    const server_t server({});
    create("test_if id=1 a=1");
    create("test_nh id=1 next_obj.test_if.id=1");
    create("test_rt vrf_id=0 prefix=10.0.0.0/8 next_obj.test_nh.id=1");
    EXPECT_EQ(run(object("test_nh id=1", ZAN_TABLE_DELETE)).rc, ZAN_RC_DELAY_DELETE);
    EXPECT_EQ(update("test_if id=1 a=5 change_1=1").rc, (zan_rcode)EOK);
    EXPECT_EQ(dump(table("test_nh")).at(0), "id=1 parent_a=5 next_obj.test_if.id=1");
}

TEST(Walk, OfARetryRetriesTheChildren)
{
    const server_t server({});
    create("test_if id=1");
    const uint64_t child = create("test_nh id=1 test_if.id=1").handle;
    settle();
    npu_sim_counts_t before, after;
    npu_sim_counts(0, &before);
    update("test_if id=1 change_0=1"); /* not forced, and nothing of it changes */
    npu_sim_counts(0, &after);
    EXPECT_EQ(after.updates, before.updates + 1);
    object_t retry = object("test_if id=1 change_0=2", ZAN_TABLE_UPDATE);
    retry->flag |= ZAN_FLAG_RETRY_MODE;
    run(retry);
    npu_sim_counts(0, &after);
    EXPECT_EQ(after.updates, before.updates + 3) << "the source and the child";
    EXPECT_EQ(stored(child)->dpd.bwalk_update_count, 2);
}

/* ---- Post-processing ---- */

class PostProcessing : public testing::TestWithParam<const char *>
{
};

/* The event reaches the hardware once, its failure is nobody's, and the copies are all freed. */
TEST_P(PostProcessing, SendsTheSourceToHardwareOnceAndLeavesNothing)
{
    const server_t server({.num_npus = 2});
    const zan_table_def_t *def = table(GetParam());
    const zan_event_def_t *event = nullptr;
    for (uint32_t i = 0; i < def->num_events; i++)
        if (def->events[i].post_proc)
            event = &def->events[i];
    ASSERT_TRUE(event);
    const uint64_t source = run(with_key(def, 1)).handle;
    uint32_t bound = 0;
    for (uint32_t c = 0; c < def->num_children && event->child_count; c++)
        for (const any_reference_t &ref : references(zan_table_defs[def->children[c]])) {
            if (ref.parent_def != def)
                continue;
            const zan_table_def_t *child_def = zan_table_defs[def->children[c]];
            object_t child = with_key(child_def, 100 + c, ZAN_TABLE_CREATE, ref.repeated);
            set_handle(select_reference(child_def, ref, child.get()), source);
            EXPECT_EQ(run(child).rc, (zan_rcode)EOK) << child_def->name;
            bound++;
            break;
        }
    EXPECT_EQ(bound != 0, event->child_count != 0);
    const residue_t before = residue();
    for (const uint32_t value : {1u, 2u}) {
        npu_sim_counts_t counts, counts_after;
        npu_sim_counts(0, &counts);
        object_t change = with_key(def, 1, ZAN_TABLE_UPDATE);
        for (uint32_t i = 0; i < def->num_attrs; i++)
            if (def->attrs[i].trigger_mask == event->attrib_mask) {
                fill_value(&def->attrs[i], zan_obj_attr(&def->attrs[i], change.get(), 0), value);
                *zan_obj_attr_set(&def->attrs[i], change.get(), 0, 0) = 1;
            }
        if (value == 2) {
            const npu_sim_failure_t all = {def->id, NPU_SIM_ANY, ZAN_TABLE_EVENT, 1, 0, 0x4fa01234};
            npu_sim_fail(&all);
        }
        EXPECT_EQ(run(change).rc, (zan_rcode)EOK) << value;
        settle();
        npu_sim_counts(0, &counts_after);
        EXPECT_EQ(counts_after.events, counts.events + 1);
    }
    EXPECT_EQ(walk_counts().walks, 2u);
    EXPECT_EQ(residue(), before) << to_string(residue());
    EXPECT_EQ(hardware_differs(2), "");
}

INSTANTIATE_TEST_SUITE_P(Tables, PostProcessing,
                         testing::Values("testca", "testaf", "testdynhg", "testasyncnhg", "mc_gid",
                                         "brmac", "lagport", "iptnlencap", "monitorsession"),
                         [](const auto &tested) { return std::string(tested.param); });
