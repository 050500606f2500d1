/* Failed writes: when they are tried again, in which order, and how often; that books and
 * identifiers stay right meanwhile. */
#include "retry_fixture.h"

#include <random>

#include "host_resources.h"
#include "host_services.h"
#include "host_start.h"
#include "object_maker.h"

using namespace bench;

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

/* What is under way when the operator lets go of it does not come back; a client's failure does. */
TEST_F(Retry, ForgetsWhatIsUnderWay)
{
    const zan_table_def_t *def = table("iproute");
    const std::string names[] = {route(0), route(1)};
    fail("iproute", 0, ZAN_TABLE_CREATE);
    fail("iproute", 0, ZAN_TABLE_UPDATE);
    for (const std::string &name : names)
        create(name);
    settle();
    zan_host_retry_run();
    zan_host_clock_advance(1000000);
    zan_host_retry_run();
    zan_host_failed_st row = {};
    for (const std::string &name : names) {
        ASSERT_TRUE(failed(name, &row));
        ASSERT_EQ(row.state, (uint32_t)ZAN_HOST_FAILED_UNDER_WAY);
    }
    EXPECT_EQ(zan_host_failed_forget(def->id, nullptr), 2u);
    update(route(1) + " bgp_as=7");
    settle();
    zan_host_retry_run();
    EXPECT_FALSE(failed(names[0], &row));
    EXPECT_TRUE(failed(names[1], &row));
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
    give_up_after(3);
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
