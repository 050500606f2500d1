/* What fails for good: how it goes out of service and what goes with it, what meanwhile is told of
 * it, and how it comes back. */
#include "retry_fixture.h"

#include "object_maker.h"
#include "trace_messages.h"

using namespace bench;

namespace
{

class Quarantine : public Retry
{
};

} // namespace

/* What fails for good goes out of service, what depends on it first; references to it say so; a
 * release brings all of it back. */
TEST_F(Quarantine, ABudgetEndsInQuarantineAndAReleaseBringsAllBack)
{
    give_up_after(3);
    create("ipnhgroup nhg_id=2 nexthop_next_obj[0].ipnh.nh_id=1");
    for (uint32_t i = 0; i < 3; i++)
        create("iproute vrf_id=0 prefix=10.0." + std::to_string(i) +
               ".0/24 next_obj.ipnhgroup.nhg_id=2");
    const std::vector<std::string> groups = dump(table("ipnhgroup")),
                                   routes = dump(table("iproute"));
    fail("ipnhgroup", 1, ZAN_TABLE_UPDATE);
    EXPECT_EQ(update("ipnhgroup nhg_id=2 is_pbts=true nexthop_next_obj[0].ipnh.nh_id=1").rc,
              (zan_rcode)EOK);
    pass(1000);
    EXPECT_EQ(quarantined(), (std::vector<std::string>{"iproute vrf_id=0 prefix=10.0.0.0/24",
                                                       "iproute vrf_id=0 prefix=10.0.1.0/24",
                                                       "iproute vrf_id=0 prefix=10.0.2.0/24",
                                                       "ipnhgroup nhg_id=2"}));
    EXPECT_EQ(counts().failed, 0u);
    EXPECT_EQ(zan_db_count(table("ipnhgroup")->id), 1u);
    EXPECT_EQ(hardware_differs(npus), "");
    EXPECT_EQ(create("iproute vrf_id=0 prefix=11.0.0.0/8 next_obj.ipnhgroup.nhg_id=2").rc,
              ZAN_RC_PARENT_QUARANTINED);
    zan_host_quarantined_st row = {};
    while (zan_host_quarantined_next(&row) && row.table_id != table("ipnhgroup")->id)
        EXPECT_EQ(row.root_table_id, table("ipnhgroup")->id);
    EXPECT_EQ(row.followers, 3u);
    EXPECT_EQ(row.attempts, 3u);
    EXPECT_EQ(row.rc, broken);

    /* A client that deletes one of them, or makes it anew, has done with it. */
    EXPECT_EQ(destroy("iproute vrf_id=0 prefix=10.0.1.0/24").rc, ZAN_RC_NOT_FOUND);
    EXPECT_EQ(create("iproute vrf_id=0 prefix=10.0.2.0/24 next_obj.ipnhgroup.nhg_id=1").rc,
              (zan_rcode)EOK);
    EXPECT_EQ(counts().quarantined, 2u);

    EXPECT_EQ(zan_host_quarantine_release(table("ipnhgroup")->id, row.key), 2u);
    pass(1000);
    EXPECT_EQ(counts().quarantined, 0u);
    EXPECT_EQ(counts().put_back, 2u);
    EXPECT_EQ(dump(table("ipnhgroup")).size(), groups.size());
    EXPECT_EQ(dump(table("iproute")).front(),
              "vrf_id=0 prefix=10.0.0.0/24 is_pbts_fec=true next_obj.ipnhgroup.nhg_id=2");
    EXPECT_EQ(dump(table("iproute")).size(), 2u);
    EXPECT_EQ(hardware_differs(npus), "");
}

/* Neither a retry nor a release is the client: what it has not sent since the start of a replay
 * goes at the end, wherever it was meanwhile. */
TEST_F(Quarantine, AReplaySeesThroughRetryAndQuarantine)
{
    give_up_after(3);
    const zan_table_def_t *def = table("iproute");
    auto replay = [](const char *name, zan_table_operation_et operation) {
        object_t marker(zan_obj_ctor(table(name), 0, 0));
        marker->table_operation = (uint8_t)operation;
        EXPECT_EQ(run(marker).rc, (zan_rcode)EOK);
        if (operation == ZAN_TABLE_REPLAY_START)
            zan_host_quarantine_replay_start(marker->table_id, marker.get());
    };
    for (uint32_t i = 0; i < 4; i++)
        create(route(i));
    const std::string lone_group = "ipnhgroup nhg_id=2";
    create(lone_group + " num_primary_paths=1");
    settle();
    fail("iproute", 1, ZAN_TABLE_UPDATE);
    fail("ipnhgroup", 1, ZAN_TABLE_UPDATE);
    for (uint32_t i = 0; i < 2; i++)
        update(route(i) + " bgp_as=7");
    update(lone_group + " is_pbts=true");
    pass(1000);
    ASSERT_EQ(counts().quarantined, 3u);
    update(route(2) + " bgp_as=7"); /* goes into quarantine during the replay */
    npu_sim_fail_no_more();
    fail("iproute", 1, ZAN_TABLE_UPDATE);
    fail("ipnhgroup", 1, ZAN_TABLE_UPDATE, 2);
    const std::string group = "ipnhgroup nhg_id=1 nexthop_next_obj[0].ipnh.nh_id=1";
    update(group + " is_pbts=true");
    settle();

    replay("iproute", ZAN_TABLE_REPLAY_START);
    replay("ipnhgroup", ZAN_TABLE_REPLAY_START);
    pass(1000);
    EXPECT_EQ(counts().recovered, 1u);
    EXPECT_TRUE(named(group)->flag & ZAN_FLAG_STALE) << "only its retry wrote it";
    ASSERT_EQ(counts().quarantined, 4u);
    npu_sim_fail_no_more();
    zan_host_quarantine_release(table("ipnhgroup")->id, nullptr);
    for (uint32_t i = 0; i < 2; i++)
        zan_host_quarantine_release(def->id, zan_obj_key(def, object(route(i)).get()));
    pass(1000);
    EXPECT_EQ(zan_db_count(def->id), 3u);
    EXPECT_EQ(dump(table("ipnhgroup")).back(), "nhg_id=2 num_primary_paths=1 is_pbts=true");
    create(route(1));
    create(route(3));
    replay("iproute", ZAN_TABLE_REPLAY_END);
    EXPECT_EQ(zan_host_quarantine_replay_end(def->id), 1u) << "the third";
    settle();
    EXPECT_FALSE(named(route(0)));
    EXPECT_TRUE(named(route(1)) && named(route(3)));
    EXPECT_EQ(zan_db_count(def->id), 2u);
    EXPECT_EQ(hardware_differs(npus), "");
}

/* Two hundred objects out of service: what looks for one of them, or for one that there never was,
 * walks a list of that length, and that is told once. */
TEST_F(Quarantine, ALongQuarantineIsToldWhenItIsSearched)
{
    const zan_host_retry_config_st config = {10, 10, 1, 1};
    zan_host_retry_configure(&config);
    const zan_table_def_t *def = table("ipnhgroup");
    create("iproute vrf_id=0 prefix=9.0.0.0/8 next_obj.ipnhgroup.nhg_id=1");
    settle();
    npu_sim_fail_at_random(1000, 1, broken); /* the deletes, too, come to the NPUs later */
    auto group = [](uint32_t id) { return "ipnhgroup nhg_id=" + std::to_string(id); };
    auto refer = [](uint32_t id) {
        return create("iproute vrf_id=0 prefix=11.0.0.0/8 next_obj.ipnhgroup.nhg_id=" +
                      std::to_string(id))
            .rc;
    };
    const auto message = (uint32_t)zan_table_msg(def->id, ZAN_TMSG_QUARANTINE_DEPTH);
    const uint64_t handle = create(group(1000)).handle;
    for (uint32_t id = 1001; id < 1198; id++)
        create(group(id));
    pass(1000);
    EXPECT_EQ(counts().quarantined, 198u);
    EXPECT_EQ(refer(1), (zan_rcode)EOK) << "in service";
    EXPECT_EQ(destroy("iproute vrf_id=0 prefix=11.0.0.0/8").rc, (zan_rcode)EOK);
    EXPECT_EQ(refer(5000), ZAN_RC_NOT_FOUND);
    EXPECT_TRUE(last_trace(message).empty()) << "199 steps are not long";
    for (uint32_t id : {1198u, 1199u}) {
        create(group(id));
        pass(1000);
    }
    EXPECT_EQ(refer(1199), ZAN_RC_PARENT_QUARANTINED);
    ASSERT_FALSE(last_trace(message).empty());
    EXPECT_EQ(last_trace(message)[0], 200u);
    EXPECT_EQ(last_trace(message)[1], 199u);
    EXPECT_EQ(refer(5000), ZAN_RC_NOT_FOUND);
    EXPECT_EQ(last_trace(message)[0], 201u);
    EXPECT_EQ(refer(5000), ZAN_RC_NOT_FOUND);
    EXPECT_EQ(last_trace(message)[1], 200u) << "no longer than the longest so far";
    object_t by_handle = object("iproute vrf_id=0 prefix=11.0.0.0/8");
    for (const any_reference_t &ref : references(table("iproute")))
        if (ref.parent_def == def)
            set_handle(select_reference(table("iproute"), ref, by_handle.get()), handle);
    EXPECT_EQ(run(by_handle).rc, ZAN_RC_NOT_FOUND) << "a handle leads nowhere";
    npu_sim_fail_at_random(0, 0, EOK);
}

/* A client makes an object anew while the old one of the name goes out of service: the new one has
 * not failed, and what was taken out for the old one comes back below it. */
TEST_F(Quarantine, WhatIsMadeAnewBeginsAnew)
{
    give_up_after(3);
    const std::string group = "ipnhgroup nhg_id=2 nexthop_next_obj[0].ipnh.nh_id=1";
    create(group);
    for (uint32_t i = 0; i < 300; i++)
        create("iproute vrf_id=0 prefix=10.0." + std::to_string(i % 256) + ".0/" +
               std::to_string(24 + i / 256) + " next_obj.ipnhgroup.nhg_id=2");
    fail("ipnhgroup", 1, ZAN_TABLE_UPDATE);
    update(group + " is_pbts=true");
    while (counts().taken_out == 0) {
        settle();
        zan_host_clock_advance(zan_host_retry_run());
    }
    EXPECT_LT(counts().taken_out, 300u);
    npu_sim_fail_no_more();
    const zan_table_def_t *routes = table("iproute");
    for (const std::string &line : dump(routes))
        destroy("iproute " + line);
    EXPECT_EQ(destroy("ipnhgroup nhg_id=2").rc, (zan_rcode)EOK);
    EXPECT_EQ(create(group).rc, (zan_rcode)EOK);
    const uint64_t out = counts().taken_out;
    pass(5000);
    EXPECT_TRUE(named(group));
    EXPECT_EQ(counts().taken_out, out) << "the new group has not failed";
    EXPECT_EQ(counts().quarantined, 0u);
    EXPECT_EQ(zan_db_count(routes->id), out);
    EXPECT_EQ(hardware_differs(npus), "");
}

/* An object that depends on two that are out comes back with the second of them. */
TEST_F(Quarantine, AReleaseTriesAgainWhatMissedAnotherParent)
{
    give_up_after(3);
    for (const char *id : {"2", "3"})
        create(std::string("ipnh nh_id=") + id +
               " next_obj.macllnh.intf=1 next_obj.macllnh.adj_id=1");
    create("ipnhgroup nhg_id=7 nexthop_next_obj[0].ipnh.nh_id=2 nexthop_next_obj[1].ipnh.nh_id=3");
    settle();
    fail("ipnh", 1, ZAN_TABLE_UPDATE);
    for (const char *id : {"2", "3"}) {
        update(std::string("ipnh nh_id=") + id + " trap=1");
        pass(2000);
    }
    EXPECT_EQ(counts().quarantined, 3u);
    npu_sim_fail_no_more();
    for (const char *id : {"2", "3"}) {
        const object_t obj = object(std::string("ipnh nh_id=") + id);
        EXPECT_GE(
            zan_host_quarantine_release(table("ipnh")->id, zan_obj_key(table("ipnh"), obj.get())),
            1u);
        pass(1000);
    }
    EXPECT_EQ(counts().quarantined, 0u);
    EXPECT_EQ(hardware_differs(npus), "");
}

/* In a plain reference the handle stands; by the time of a release it may lead to another parent.
 */
TEST_F(Quarantine, AnObjectComesBackBelowTheParentOfItsKey)
{
    give_up_after(2);
    const zan_table_def_t *child_def = table("l2bridgeport"), *parent_def = table("l2bridge");
    const object_t parent = with_key(parent_def, 1), child = with_key(child_def, 1);
    const uint64_t handle = run(parent).handle;
    for (const any_reference_t &ref : references(child_def))
        if (ref.name == "l2bridge")
            set_key(select_reference(child_def, ref, child.get()), parent_def, parent.get());
    ASSERT_EQ(run(child).rc, (zan_rcode)EOK);
    fail("l2bridge", 1, ZAN_TABLE_UPDATE);
    object_t change = with_key(parent_def, 1, ZAN_TABLE_UPDATE);
    fill_attributes(parent_def, change.get(), 3);
    run(change);
    pass(3000);
    ASSERT_EQ(counts().quarantined, 2u);
    npu_sim_fail_no_more();
    bool taken = false;
    for (uint32_t i = 100; i < 160 && !taken; i++)
        taken = run(with_key(parent_def, i)).handle == handle;
    ASSERT_TRUE(taken) << "another bridge has the block of the first";
    zan_host_quarantine_release(ZAN_NUM_TABLES, nullptr);
    pass(1000);
    EXPECT_EQ(counts().quarantined, 0u);
    EXPECT_EQ(stored(handle)->dpd.dpd_child_cnt, 0u);
    EXPECT_EQ(hardware_differs(npus), "");
}

/* What clients count on survives a taking out that fails: the object has all its references. */
TEST_F(Quarantine, ClientReferencesSurviveQuarantine)
{
    give_up_after(2);
    const zan_table_def_t *def = table("iptnlnh");
    for (int i = 0; i < 4; i++)
        run(with_key(def, 1));
    auto references = [&] {
        zan_table_base_st lookup = {};
        lookup.table_id = def->id;
        const zan_table_base_st *obj = zan_db_get_first(&lookup);
        return obj ? *(const uint32_t *)zan_obj_at(obj, def->obj_ref_cnt_offset) : 0;
    };
    ASSERT_EQ(references(), 4u);
    fail(def->name, 1, ZAN_TABLE_UPDATE);
    fail(def->name, 1, ZAN_TABLE_DELETE, 1);
    object_t change = with_key(def, 1, ZAN_TABLE_UPDATE);
    fill_attributes(def, change.get(), 3);
    run(change);
    pass(2000);
    EXPECT_EQ(counts().quarantined, 1u);
    npu_sim_fail_no_more();
    zan_host_quarantine_release(ZAN_NUM_TABLES, nullptr);
    pass(1000);
    EXPECT_EQ(references(), 4u);
}
