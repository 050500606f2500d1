/* Failed writes: when they are tried again, in which order, how often, and what becomes of what
 * fails for good. Time is virtual; the hardware is the simulated NPUs'. */
#include <gtest/gtest.h>

#include <random>

#include "host_control.h"
#include "host_resources.h"
#include "host_retry.h"
#include "host_services.h"
#include "host_start.h"
#include "npu_sim_control.h"
#include "object_maker.h"
#include "trace_messages.h"

using namespace bench;

namespace
{

constexpr zan_rcode broken = 0x4fa0c005u;
constexpr uint32_t npus = 3;

class Retry : public testing::Test
{
protected:
    Retry() : server({.num_npus = npus})
    {
        zan_host_clock_set_virtual(true);
        create("l3intf intf=1 ipv4_mtu=1500");
        create("macllnh intf=1 adj_id=1 l3intf_obj.l3intf.intf=1");
        create("ipnh nh_id=1 next_obj.macllnh.intf=1 next_obj.macllnh.adj_id=1");
        create("ipnhgroup nhg_id=1 nexthop_next_obj[0].ipnh.nh_id=1");
        settle();
    }
    ~Retry() override
    {
        zan_host_clock_set_virtual(false);
    }
    const server_t server;
};

void fail(std::string_view table_name, uint32_t npu, uint32_t operation, uint32_t count = 0,
          zan_rcode rc = broken)
{
    const npu_sim_failure_t f = {table(table_name)->id, npu, operation, 1, count, rc};
    npu_sim_fail(&f);
}

std::string route(uint32_t i)
{
    return "iproute vrf_id=0 prefix=10." + std::to_string(i / 256) + "." + std::to_string(i % 256) +
           ".0/24 next_obj.ipnhgroup.nhg_id=1";
}

/* Run what is due, until nothing is due before so many virtual milliseconds have passed. */
void pass(uint64_t ms)
{
    uint64_t left = ms * 1000;
    for (;;) {
        settle();
        const uint64_t next = zan_host_retry_run();
        if (next > left) {
            zan_host_clock_advance(left);
            settle();
            return;
        }
        zan_host_clock_advance(next);
        left -= next;
    }
}

bool failed(std::string_view text, zan_host_failed_st *row)
{
    const object_t obj = object(text);
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    return zan_host_failed_get(def->id, zan_obj_key(def, obj.get()), row);
}

zan_host_retry_counts_st counts()
{
    zan_host_retry_counts_st c;
    zan_host_retry_counts(&c);
    return c;
}

std::vector<std::string> quarantined()
{
    std::vector<std::string> names;
    for (zan_host_quarantined_st row = {}; zan_host_quarantined_next(&row);) {
        char key[128];
        zan_key_print(zan_table_defs[row.table_id], row.key, key, sizeof key);
        names.push_back(std::string(zan_table_defs[row.table_id]->name) + " " + key);
    }
    return names;
}

} // namespace

/* One NPU does not take the create: the client hears nothing of it, and the object comes to the NPU
 * by a retry, in retry mode, behind its interval and not before. */
TEST_F(Retry, AKeptObjectReachesTheNpuThatFailed)
{
    fail("iproute", 1, ZAN_TABLE_CREATE, 1);
    fail("iproute", 1, ZAN_TABLE_UPDATE, 2);
    EXPECT_EQ(create(route(1)).rc, (zan_rcode)EOK);
    pass(0);
    zan_host_failed_st row;
    ASSERT_TRUE(failed(route(1), &row));
    EXPECT_EQ(row.rc, broken);
    EXPECT_EQ(row.npu_mask, 1u << 1);
    EXPECT_EQ(row.operation, (uint32_t)ZAN_TABLE_CREATE);
    EXPECT_EQ(row.attempts, 0u);
    EXPECT_TRUE(row.stored);
    /* Intervals of 100, 200 and 400 ms, a quarter up or down. */
    uint32_t attempts = 0;
    for (uint64_t interval : {100u, 200u, 400u}) {
        ASSERT_TRUE(failed(route(1), &row));
        EXPECT_EQ(row.attempts, attempts++);
        EXPECT_GE(row.next_us, interval * 750);
        EXPECT_LE(row.next_us, interval * 1250);
        EXPECT_EQ(npu_sim_count(1, table("iproute")->id), 0u);
        pass(row.next_us / 1000 + 2);
    }
    EXPECT_FALSE(failed(route(1), &row));
    EXPECT_EQ(hardware_differs(npus), "");
    EXPECT_EQ(counts().attempts, 3u);
    EXPECT_EQ(counts().recovered, 1u);
}

/* A table that answers its client with the failure: what is stored is written again where an NPU
 * has gone another way, and a refused create leaves nothing to retry. */
TEST_F(Retry, WhatTheClientWasToldOfIsMadeEqualAgain)
{
    fail("l3intf", 1, ZAN_TABLE_UPDATE, 1);
    EXPECT_EQ(update("l3intf intf=1 ipv4_mtu=9000").rc, broken);
    EXPECT_NE(hardware_differs(npus), "") << "NPU 0 has taken what the database refused";
    fail("l3intf", 2, ZAN_TABLE_CREATE, 1);
    EXPECT_EQ(create("l3intf intf=2").rc, broken);
    pass(200);
    EXPECT_EQ(hardware_differs(npus), "");
    EXPECT_EQ(counts().attempts, 1u);
    EXPECT_EQ(counts().failed, 0u);
}

/* An NPU keeps what is deleted: the entry is cleaned up without its object, also where the hook
 * runs on the dispatcher thread, also behind the undo of a create; and what it took is given back.
 */
TEST_F(Retry, ADeleteThatFailedIsRepeatedOnTheNpuThatHoldsTheObject)
{
    create(route(1));
    fail("iproute", 2, ZAN_TABLE_DELETE, 2);
    EXPECT_EQ(destroy(route(1)).rc, (zan_rcode)EOK);
    const zan_table_def_t *direct = table("meterprofile");
    ASSERT_FALSE(direct->npu_threads);
    fail(direct->name, 2, ZAN_TABLE_CREATE, 1);
    fail(direct->name, 0, ZAN_TABLE_DELETE, 1);
    EXPECT_EQ(run(with_key(direct, 1)).rc, broken) << "and its undo fails on NPU 0";
    pass(0);
    EXPECT_EQ(npu_sim_count(2, table("iproute")->id), 1u);
    EXPECT_EQ(npu_sim_count(0, direct->id), 1u);
    EXPECT_EQ(zan_host_resource_used_by(0, direct->id), 1u);
    zan_host_failed_st row;
    ASSERT_TRUE(failed(route(1), &row));
    EXPECT_FALSE(row.stored);
    npu_sim_counts_t before, after;
    npu_sim_counts(1, &before);
    pass(1000);
    npu_sim_counts(1, &after);
    EXPECT_EQ(after.deletes, before.deletes) << "NPU 1 had done its part";
    EXPECT_EQ(hardware_differs(npus), "");
    EXPECT_EQ(zan_host_resource_used_by(0, direct->id), 0u);
    EXPECT_EQ(zan_host_resource_used_by(2, table("iproute")->id), 0u);
    EXPECT_EQ(counts().failed, 0u);
    EXPECT_EQ(zan_host_identifiers_held(table("iproute")->id), 0u);
}

/* A client is quicker than the retry: what it deletes is not written any more, and what it makes
 * anew is not deleted. */
TEST_F(Retry, WhatAClientDoesMeanwhileStands)
{
    fail("iproute", 0, ZAN_TABLE_CREATE, 1);
    create(route(1));
    destroy(route(1));
    create(route(2));
    fail("iproute", 0, ZAN_TABLE_DELETE, 1);
    destroy(route(2));
    create(route(2));
    pass(1000);
    EXPECT_EQ(counts().failed, 0u);
    EXPECT_FALSE(named(route(1)));
    EXPECT_TRUE(named(route(2)));
    EXPECT_EQ(hardware_differs(npus), "");
}

/* Children of a failed parent wait for it, at no cost to their budget. */
TEST_F(Retry, AParentGoesBeforeItsChildren)
{
    fail("ipnhgroup", 1, ZAN_TABLE_CREATE, 1);
    fail("ipnhgroup", 1, ZAN_TABLE_UPDATE, 3);
    fail("iproute", 1, ZAN_TABLE_CREATE, 1);
    create("ipnhgroup nhg_id=2 nexthop_next_obj[0].ipnh.nh_id=1");
    create("iproute vrf_id=0 prefix=10.0.0.0/8 next_obj.ipnhgroup.nhg_id=2");
    pass(1100);
    zan_host_failed_st row;
    ASSERT_TRUE(failed("ipnhgroup nhg_id=2", &row));
    EXPECT_EQ(row.attempts, 3u);
    ASSERT_TRUE(failed("iproute vrf_id=0 prefix=10.0.0.0/8", &row));
    EXPECT_EQ(row.attempts, 0u);
    EXPECT_EQ(row.state, (uint32_t)ZAN_HOST_FAILED_PARENT);
    pass(1100);
    EXPECT_EQ(counts().failed, 0u) << "the child comes right behind its parent";
    EXPECT_EQ(hardware_differs(npus), "");
}

/* A full database is not a matter of time: nothing is tried while it is full, and as many as there
 * is room for when some objects leave. */
TEST_F(Retry, AFullDatabaseIsTriedAgainWhenItHasRoom)
{
    for (uint32_t npu = 0; npu < npus; npu++) {
        npu_sim_set_db_capacity(npu, ZAN_HWDB_LPM, 100);
        zan_host_resource_set_capacity(npu, ZAN_HWDB_LPM, 100);
    }
    for (uint32_t i = 0; i < 150; i++)
        EXPECT_EQ(create(route(i)).rc, (zan_rcode)EOK) << "the table keeps what does not fit";
    pass(10000);
    EXPECT_EQ(counts().failed, 50u);
    const uint64_t tries = counts().attempts;
    EXPECT_LE(tries, 7u) << "now and then one, for room that does not show";
    for (uint32_t i = 0; i < 20; i++)
        destroy(route(i));
    pass(1000);
    EXPECT_EQ(counts().failed, 30u);
    EXPECT_EQ(npu_sim_count(1, table("iproute")->id), 100u);
    EXPECT_EQ(counts().attempts, tries + 20) << "one for each place";
    zan_host_failed_st row;
    ASSERT_TRUE(failed(route(149), &row));
    EXPECT_EQ(row.state, (uint32_t)ZAN_HOST_FAILED_ROOM);
    /* More capacity is room too; here only the hardware has it, and a first try finds out. */
    for (uint32_t npu = 0; npu < npus; npu++)
        npu_sim_set_db_capacity(npu, ZAN_HWDB_LPM, 0);
    pass(31000);
    EXPECT_EQ(counts().failed, 0u);
    EXPECT_EQ(counts().taken_out, 0u) << "a full database costs no budget";
    EXPECT_EQ(hardware_differs(npus), "");
}

/* What fails for good goes out of service, what depends on it first; references to it say so; a
 * release brings all of it back. */
TEST_F(Retry, ABudgetEndsInQuarantineAndAReleaseBringsAllBack)
{
    const zan_host_retry_config_st config = {10, 40, 3, 1};
    zan_host_retry_configure(&config);
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

/* By hand: at once with a new budget, never again, and gone for good. */
TEST_F(Retry, AnOperatorDecidesOtherwise)
{
    const zan_host_retry_config_st config = {100000, 1000000, 1, 1};
    zan_host_retry_configure(&config);
    const zan_table_def_t *def = table("iproute");
    fail("iproute", 0, ZAN_TABLE_CREATE, 3);
    for (uint32_t i = 0; i < 3; i++)
        create(route(i));
    pass(0);
    EXPECT_EQ(zan_host_failed_retry(def->id, zan_obj_key(def, object(route(0)).get())), 1u);
    EXPECT_EQ(zan_host_failed_forget(def->id, zan_obj_key(def, object(route(1)).get())), 1u);
    EXPECT_EQ(zan_host_failed_forget(def->id, zan_obj_key(def, object(route(9)).get())), 0u);
    pass(10);
    zan_host_failed_st row = {};
    ASSERT_TRUE(zan_host_failed_next(&row));
    EXPECT_EQ(memcmp(row.key, zan_obj_key(def, object(route(2)).get()), def->key_size), 0);
    EXPECT_FALSE(zan_host_failed_next(&row));
    EXPECT_EQ(npu_sim_count(0, def->id), 1u);

    fail("iproute", 0, ZAN_TABLE_UPDATE, 1);
    EXPECT_EQ(zan_host_failed_retry(ZAN_NUM_TABLES, nullptr), 1u);
    pass(1000000);
    EXPECT_EQ(quarantined().size(), 1u);
    EXPECT_EQ(zan_host_quarantine_drop(def->id, nullptr), 1u);
    EXPECT_EQ(quarantined().size(), 0u);
    EXPECT_FALSE(named(route(2)));
    EXPECT_EQ(zan_host_retry_run(), UINT64_MAX) << "nothing waits";
}

/* Neither a retry nor a release is the client: what it has not sent since the start of a replay
 * goes at the end, wherever it was meanwhile. */
TEST_F(Retry, AReplaySeesThroughRetryAndQuarantine)
{
    const zan_host_retry_config_st config = {10, 40, 3, 1};
    zan_host_retry_configure(&config);
    const zan_table_def_t *def = table("iproute");
    auto replay = [](const char *name, zan_table_operation_et operation) {
        object_t marker(zan_obj_ctor(table(name), 0, 0));
        marker->table_operation = (uint8_t)operation;
        EXPECT_EQ(run(marker).rc, (zan_rcode)EOK);
        if (operation == ZAN_TABLE_REPLAY_START)
            zan_host_quarantine_replay_start(marker.get());
    };
    for (uint32_t i = 0; i < 4; i++)
        create(route(i));
    settle();
    fail("iproute", 1, ZAN_TABLE_UPDATE);
    for (uint32_t i = 0; i < 2; i++)
        update(route(i) + " bgp_as=7");
    pass(1000);
    ASSERT_EQ(counts().quarantined, 2u);
    update(route(2) + " bgp_as=7"); /* goes into quarantine during the replay */
    fail("ipnhgroup", 1, ZAN_TABLE_UPDATE, 2);
    const std::string group = "ipnhgroup nhg_id=1 nexthop_next_obj[0].ipnh.nh_id=1";
    update(group + " is_pbts=true");
    settle();

    replay("iproute", ZAN_TABLE_REPLAY_START);
    replay("ipnhgroup", ZAN_TABLE_REPLAY_START);
    pass(1000);
    EXPECT_EQ(counts().recovered, 1u);
    EXPECT_TRUE(named(group)->flag & ZAN_FLAG_STALE) << "only its retry wrote it";
    ASSERT_EQ(counts().quarantined, 3u);
    npu_sim_fail_no_more();
    for (uint32_t i = 0; i < 2; i++)
        zan_host_quarantine_release(def->id, zan_obj_key(def, object(route(i)).get()));
    pass(1000);
    EXPECT_EQ(zan_db_count(def->id), 3u);
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
TEST_F(Retry, ALongQuarantineIsToldWhenItIsSearched)
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
TEST_F(Retry, WhatIsMadeAnewBeginsAnew)
{
    const zan_host_retry_config_st config = {10, 40, 3, 1};
    zan_host_retry_configure(&config);
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
TEST_F(Retry, AReleaseTriesAgainWhatMissedAnotherParent)
{
    const zan_host_retry_config_st config = {10, 40, 3, 1};
    zan_host_retry_configure(&config);
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
TEST_F(Retry, AnObjectComesBackBelowTheParentOfItsKey)
{
    const zan_host_retry_config_st config = {10, 40, 2, 1};
    zan_host_retry_configure(&config);
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

/* The books of the hardware databases agree with the NPUs however writes fail, and whatever a
 * client does before they are repeated; identifiers stay with who holds them. */
TEST_F(Retry, BooksAndIdentifiersStayRight)
{
    const zan_table_def_t *def = table("iproute");
    auto expect_right = [&](const char *what) {
        for (uint32_t npu = 0; npu < npus; npu++)
            EXPECT_EQ(zan_host_resource_used_by(npu, def->id), npu_sim_count(npu, def->id))
                << what << " on NPU " << npu;
        EXPECT_EQ(zan_host_identifiers_held(def->id), zan_db_count(def->id)) << what;
        EXPECT_EQ(hardware_differs(npus), "") << what;
    };
    create(route(1));
    create(route(2));
    settle();
    fail("iproute", 0, ZAN_TABLE_DELETE, 1);
    destroy(route(2));
    create(route(2));
    pass(5000);
    expect_right("made anew behind a delete that failed");
    destroy(route(2));
    pass(1000);
    expect_right("and deleted");
    fail("iproute", 1, ZAN_TABLE_CREATE, 1);
    create(route(2));
    settle();
    destroy(route(2));
    pass(5000);
    expect_right("deleted before its create was repeated");

    create(route(2));
    settle();
    fail("iproute", 2, ZAN_TABLE_DELETE, 1);
    destroy(route(2));
    settle();
    zan_host_retry_run();
    zan_host_exec_q_hold(1u << 2);
    zan_host_clock_advance(200000);
    zan_host_retry_run();
    create(route(2)); /* while the repeated delete is on its way */
    zan_host_exec_q_hold(0);
    pass(3000);
    EXPECT_NE(zan_host_identifier_of(named(route(2)), -1), ZAN_IDENTIFIER_NONE);
    EXPECT_EQ(hardware_differs(npus), "");
}

/* What clients count on survives a taking out that fails: the object has all its references. */
TEST_F(Retry, ClientReferencesSurviveQuarantine)
{
    const zan_host_retry_config_st config = {10, 40, 2, 1};
    zan_host_retry_configure(&config);
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

/* An NPU that the object has left is cleaned up, whether the move failed there or a delete before
 * the object was made anew for others. */
TEST(RetryMasks, AnNpuThatTheObjectHasLeftIsCleanedUp)
{
    const server_t server({.num_npus = npus, .per_object_npu_mask = true});
    zan_host_clock_set_virtual(true);
    const zan_table_def_t *def = table("mplsnh");
    auto send = [&](zan_table_operation_et operation, kor_npu_mask_t mask) {
        object_t obj = with_key(def, 1, operation);
        *zan_obj_npu_mask_req(def, obj.get()) = mask;
        *zan_obj_npu_mask_req_set(def, obj.get()) = operation != ZAN_TABLE_DELETE;
        EXPECT_EQ(run(obj).rc, (zan_rcode)EOK);
        settle();
    };
    send(ZAN_TABLE_CREATE, 3);
    fail("mplsnh", 1, ZAN_TABLE_UPDATE, 1);
    send(ZAN_TABLE_UPDATE, 1);
    pass(1000);
    EXPECT_EQ(npu_sim_count(1, def->id), 0u);
    send(ZAN_TABLE_UPDATE, 3);
    fail("mplsnh", 1, ZAN_TABLE_DELETE, 1);
    send(ZAN_TABLE_DELETE, 0);
    send(ZAN_TABLE_CREATE, 1);
    pass(1000);
    EXPECT_EQ(npu_sim_count(0, def->id), 1u);
    EXPECT_EQ(npu_sim_count(1, def->id), 0u);
    EXPECT_EQ(counts().failed, 0u);
    zan_host_clock_set_virtual(false);
}

/* On standby nothing is written, so nothing recovers. A delete by a handle names no key. */
TEST_F(Retry, WaitsForTheNodeToBeActive)
{
    const zan_host_retry_config_st config = {10, 40, 3, 1};
    zan_host_retry_configure(&config);
    fail("iproute", 1, ZAN_TABLE_CREATE, 1);
    create(route(1));
    settle();
    zan_host_set_standby(true);
    pass(1000);
    EXPECT_EQ(counts().recovered, 0u);
    zan_host_set_standby(false);
    pass(1000);
    EXPECT_EQ(counts().recovered, 1u);
    EXPECT_EQ(hardware_differs(npus), "");

    const uint64_t gone = create(route(9)).handle;
    destroy(route(9));
    create("iproute vrf_id=0 prefix=0.0.0.0/0");
    settle();
    fail("iproute", 1, ZAN_TABLE_UPDATE);
    update("iproute vrf_id=0 prefix=0.0.0.0/0 bgp_as=7");
    pass(1000);
    ASSERT_EQ(counts().quarantined, 1u);
    object_t by_handle = empty(table("iproute"), ZAN_TABLE_DELETE);
    by_handle->obj_handle = gone;
    EXPECT_EQ(run(by_handle).rc, ZAN_RC_NOT_FOUND);
    EXPECT_EQ(counts().quarantined, 1u) << "the default route's key is all zeros too";
}

namespace
{

/* Tables of every form of a write, each object below one of the kind in front of it if it says so.
 */
const struct {
    const char *object, *change;
} hour_kinds[] = {
    {"l3intf intf=%u", "ipv4_mtu=%u"},
    {"macllnh intf=%u adj_id=1 l3intf_obj.l3intf.intf=%u", "object_identifier=%u"},
    {"ipnh nh_id=%u next_obj.macllnh.intf=%u next_obj.macllnh.adj_id=1", "trap=%u"},
    {"ipnhgroup nhg_id=%u nexthop_next_obj[0].ipnh.nh_id=%u", "num_primary_paths=%u"},
    {"iproute vrf_id=0 prefix=10.0.%u.0/24 next_obj.ipnhgroup.nhg_id=%u", "bgp_as=%u"},
    {"meterprofile profile_id=%u", "burst_bytes=%u"},
    {"l2brmac bridge_id=%u mac_addr=02:00:00:00:00:01", nullptr},
    {"ipvrf vrf_id=%u", nullptr},
    {"mplsnh nh_id=%u", nullptr},
};

std::string hour_text(const char *object, const char *change, uint32_t key, uint32_t parent,
                      uint32_t value)
{
    char text[256], attribute[64] = "";
    snprintf(text, sizeof text, object, key, parent);
    if (change)
        snprintf(attribute, sizeof attribute, change, value);
    return std::string(text) + " " + attribute;
}

/* Objects that hold what they should: one identifier, or one for each NPU. */
uint64_t identifiers_due(const zan_table_def_t *def)
{
    const bool per_npu = def->identifiers_per_npu;
    uint64_t due = 0;
    zan_table_base_st lookup = {};
    lookup.table_id = def->id;
    for (zan_table_base_st *o = zan_db_get_first(&lookup); o; o = zan_db_get_next(o))
        for (int32_t npu = per_npu ? 0 : -1; npu < (per_npu ? (int32_t)npus : 0); npu++) {
            EXPECT_NE(zan_host_identifier_of(o, npu), ZAN_IDENTIFIER_NONE) << def->name;
            due++;
        }
    return due;
}

/* Held objects are made anew, so that the database has nothing that it would not write. */
void revive_held()
{
    for (const zan_table_def_t *def : zan_table_defs) {
        zan_table_base_st lookup = {};
        lookup.table_id = def->id;
        if (zan_db_count(def->id) == 0)
            continue;
        for (zan_table_base_st *o = zan_db_get_first(&lookup); o; o = zan_db_get_next(o))
            if (o->dpd.del_flag & ZAN_DEL_FLAG_DELAY_DELETE) {
                char text[1024];
                zan_obj_print(def, o, text, sizeof text);
                create(std::string(def->name) + " " + text);
            }
    }
}

} // namespace

/* A third of all writes fails, for an hour; then none does. Everything comes to rest, and database,
 * NPUs and identifiers agree. */
TEST_F(Retry, AnHourOfFailuresLeavesNothingBehind)
{
    constexpr uint32_t keys = 24;
    const zan_host_retry_config_st config = {100, 5000, 4, 1};
    zan_host_retry_configure(&config);
    std::mt19937_64 random(616);
    auto below = [&](size_t n) { return (uint32_t)(random() % n); };
    npu_sim_fail_at_random(333, 104, broken);
    for (uint32_t second = 0; second < 3600; second++) {
        const auto &kind = hour_kinds[below(std::size(hour_kinds))];
        const uint32_t what = below(10), key = below(keys) + 1;
        const std::string text =
            hour_text(kind.object, kind.change, key, below(keys) + 1, below(2) + 1);
        const object_t obj = object(text, what < 4   ? ZAN_TABLE_CREATE
                                          : what < 7 ? ZAN_TABLE_UPDATE
                                                     : ZAN_TABLE_DELETE);
        obj->write_kind = what < 4 && below(2) ? ZAN_WRITE_KIND_REPLACE : 0;
        run(obj);
        if (below(2)) { /* else the client is quicker than the retry */
            pass(1000);
        } else {
            zan_host_retry_run();
            zan_host_clock_advance(1000000);
        }
        if (second % 60 == 59)
            zan_host_quarantine_release(ZAN_NUM_TABLES, nullptr);
    }
    const zan_host_retry_counts_st storm = counts();
    EXPECT_GT(storm.recovered, 100u);
    EXPECT_GT(storm.taken_out, 10u);
    EXPECT_GT(storm.put_back, 10u);

    npu_sim_fail_at_random(0, 0, EOK);
    revive_held();
    zan_host_quarantine_release(ZAN_NUM_TABLES, nullptr);
    pass(120000);
    zan_host_quarantine_drop(ZAN_NUM_TABLES, nullptr); /* whose parents clients have deleted */
    EXPECT_EQ(counts().failed, 0u);
    EXPECT_EQ(zan_host_retry_run(), UINT64_MAX);
    EXPECT_EQ(hardware_differs(npus), "");
    for (const zan_table_def_t *def : zan_table_defs)
        if (def->identifiers && zan_db_count(def->id) + zan_host_identifiers_held(def->id) != 0) {
            EXPECT_EQ(zan_host_identifiers_held(def->id), identifiers_due(def)) << def->name;
        }
}

/* Creates and deletes that fail on some NPUs, on either kind of thread, repeated by the client or
 * by the retry: whenever nothing waits, the books say what the NPUs hold. */
TEST_F(Retry, OccupancyIsARecountWheneverNothingWaits)
{
    std::mt19937_64 random(5);
    auto below = [&](size_t n) { return (uint32_t)(random() % n); };
    const zan_host_retry_config_st config = {100, 5000, 4, 1};
    zan_host_retry_configure(&config);
    npu_sim_fail_at_random(333, 7, broken);
    uint32_t compared = 0;
    for (const char *name : {"meterprofile", "l2brmac", "iproute"})
        for (uint32_t i = 0; i < 1000; i++) {
            const zan_table_def_t *def = table(name);
            const object_t obj =
                with_key(def, below(3), below(2) ? ZAN_TABLE_CREATE : ZAN_TABLE_DELETE);
            zan_host_failed_st row;
            if (!zan_host_failed_get(def->id, zan_obj_key(def, obj.get()), &row))
                run(obj);
            pass(below(2) ? 100 : 2000);
            zan_host_retry_run(); /* what failed last is known, too */
            settle();
            if (counts().failed != 0)
                continue;
            compared++;
            for (uint32_t npu = 0; npu < npus; npu++)
                ASSERT_EQ(zan_host_resource_used_by(npu, def->id), npu_sim_count(npu, def->id))
                    << name << ", step " << i << ", NPU " << npu;
        }
    EXPECT_GT(compared, 500u);
}
