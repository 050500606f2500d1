/* Periodic statistics: what the walks bring into the database and the adjacency tables, and that
 * they and the dispatcher leave each other alone. Time passes as the test says. */
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

#include "host_control.h"
#include "host_periodic_stats.h"
#include "npu_sim_control.h"
#include "object_maker.h"
#include "zan_trace.h"

using namespace bench;

namespace
{

constexpr uint64_t second = 1'000'000;

class Statistics : public testing::Test
{
protected:
    Statistics() : server({.num_npus = 2})
    {
        zan_host_clock_set_virtual(true);
    }
    ~Statistics() override
    {
        zan_host_clock_set_virtual(false);
    }
    static void pass_after(uint64_t microseconds)
    {
        zan_host_clock_advance(microseconds);
        zan_host_stats_pass();
    }
    const server_t server;
};

/* What is registered, as (kind, id). */
std::set<std::pair<uint32_t, uint32_t>> registered()
{
    zan_host_stats_st rows[64];
    const uint32_t n = zan_host_stats_get(rows, 64);
    std::set<std::pair<uint32_t, uint32_t>> found;
    for (uint32_t i = 0; i < n; i++)
        EXPECT_TRUE(found.insert({rows[i].kind, rows[i].id}).second) << "registered twice";
    return found;
}

/* An attribute of a stored object, without a read. */
uint64_t held(const char *text, const char *attribute)
{
    const zan_table_base_st *obj = named(text);
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    for (uint32_t i = 0; i < def->num_attrs; i++)
        if (strcmp(def->attrs[i].name, attribute) == 0) {
            uint64_t value = 0;
            memcpy(&value, zan_obj_attr(&def->attrs[i], obj, 0), def->attrs[i].width);
            return value;
        }
    ADD_FAILURE() << attribute;
    return 0;
}

std::vector<zan_host_adj_st> adjacencies(const char *text)
{
    std::vector<zan_host_adj_st> rows(8);
    rows.resize(zan_host_adj_get(named(text), rows.data(), 8));
    return rows;
}

} // namespace

TEST_F(Statistics, ATableIsRegisteredByItsFirstCreate)
{
    EXPECT_TRUE(registered().empty());
    read("tnlstats tunnel_id=1");
    EXPECT_TRUE(registered().empty()) << "a read does not register";
    create("tnlstats tunnel_id=1");
    create("tnlstats tunnel_id=2");
    const std::pair<uint32_t, uint32_t> tnlstats = {1, table("tnlstats")->id};
    EXPECT_EQ(registered(), (std::set{tnlstats}));
    EXPECT_NE(create("lspnh nh_id=1 next_obj.nhgroup.nhg_id=9").rc, (zan_rcode)EOK);
    std::set<std::pair<uint32_t, uint32_t>> want = {tnlstats};
    for (uint32_t index = 0; index < 7; index++)
        want.insert({2, index});
    EXPECT_EQ(registered(), want) << "its adjacency tables, though it has no counters of its own";
}

TEST_F(Statistics, AWalkBringsTheCountersOfAllNpusIntoTheDatabase)
{
    const char *stats = "l3intftxstats intf=7";
    ASSERT_EQ(create("l3intftxstats intf=7 walk_request=1").rc, (zan_rcode)EOK);
    ASSERT_EQ(create("pktmemresmon npu=1").rc, (zan_rcode)EOK);
    pass_after(10 * second);
    const uint64_t packets = held(stats, "tx_packets");
    EXPECT_GE(packets, 2 * 10 * 1000u);
    EXPECT_LT(packets, 2 * 10 * 10'000u);
    EXPECT_EQ(held(stats, "tx_bytes"), 512 * packets);
    EXPECT_EQ(held(stats, "drop_packets"), packets / 1000);
    EXPECT_EQ(held("pktmemresmon npu=1", "pool_limit"), 1'000'000u);

    zan_host_clock_advance(5 * second);
    ASSERT_EQ(update("l3intftxstats intf=7 walk_request=2").rc, (zan_rcode)EOK);
    EXPECT_EQ(held(stats, "tx_packets"), packets) << "counted on, but not walked yet";
    EXPECT_EQ(hardware_differs(2), "") << "what is counted is not programmed";
    pass_after(5 * second);
    EXPECT_NEAR((double)held(stats, "tx_packets"), 2.0 * (double)packets, 2);

    /* One whose hardware cannot be read keeps what it had, and the others go on. */
    ASSERT_EQ(create("tnlstats tunnel_id=1").rc, (zan_rcode)EOK);
    const uint64_t before = held(stats, "tx_packets");
    const npu_sim_failure_t failure = {
        table("l3intftxstats")->id, 1, ZAN_TABLE_GET, 1, 0, 0x4fa0c005};
    npu_sim_fail(&failure);
    pass_after(10 * second);
    EXPECT_EQ(held(stats, "tx_packets"), before);
    EXPECT_GT(held("tnlstats tunnel_id=1", "rx_packets"), 0u);
    ASSERT_FALSE(last_trace(HOST_TRACE_NOT_FETCHED).empty());
    EXPECT_EQ(last_trace(HOST_TRACE_NOT_FETCHED)[2], 0x4fa0c005u);
    zan_host_stats_st row;
    zan_host_stats_get(&row, 1);
    EXPECT_EQ(row.id, table("l3intftxstats")->id);
    EXPECT_EQ(row.failed, 1u);
}

/* Before the first walk, and where none goes, a read asks hardware. */
TEST_F(Statistics, AReadOfWhatNoWalkHasCountedAsksHardware)
{
    ASSERT_EQ(create("l3intfrxstats intf=7").rc, (zan_rcode)EOK);
    zan_host_clock_advance(second);
    const result_t got = read("l3intfrxstats intf=7");
    const zan_table_def_t *def = table("l3intfrxstats");
    uint64_t packets;
    memcpy(&packets, zan_obj_attr(&def->attrs[0], got.obj.get(), 0), sizeof packets);
    EXPECT_GE(packets, 2000u);
    EXPECT_EQ(held("l3intfrxstats intf=7", "rx_packets"), 0u);
}

TEST_F(Statistics, AnObjectHasEntriesInItsAdjacencyTablesForAsLongAsItIsStored)
{
    const residue_t before = residue();
    ASSERT_EQ(create("punt punt_id=1 reason=3").rc, (zan_rcode)EOK);
    ASSERT_EQ(create("testamberhareit id=4").rc, (zan_rcode)EOK);
    ASSERT_EQ(create("testdanglingadj id=4").rc, (zan_rcode)EOK);
    EXPECT_TRUE(adjacencies("testdanglingadj id=4").empty());
    EXPECT_EQ(adjacencies("punt punt_id=1").at(0).at_ns, 0u);
    pass_after(10 * second);
    const zan_host_adj_st punt = adjacencies("punt punt_id=1").at(0);
    EXPECT_EQ(punt.index, 7);
    EXPECT_GE(punt.packets, 2 * 10 * 1000u);
    EXPECT_EQ(punt.bytes, 512 * punt.packets);
    const auto it = adjacencies("testamberhareit id=4");
    ASSERT_EQ(it.size(), 2u);
    EXPECT_GT(it[0].packets, 0u);
    EXPECT_EQ(it[1].packets, 0u) << "no hook counts it";
    EXPECT_NE(it[1].at_ns, 0u) << "replicated as it stands";
    ASSERT_EQ(update("punt punt_id=1 reason=4").rc, (zan_rcode)EOK);
    EXPECT_EQ(adjacencies("punt punt_id=1").at(0).packets, punt.packets);

    destroy("punt punt_id=1");
    destroy("testamberhareit id=4");
    destroy("testdanglingadj id=4");
    pass_after(second);
    EXPECT_EQ(residue(), before) << to_string(residue());
    zan_host_stats_st rows[64];
    for (uint32_t i = 0, n = zan_host_stats_get(rows, 64); i < n; i++)
        EXPECT_EQ(rows[i].objects, 0u);
}

/* A refused create takes its entries back, behind an asynchronous write too. */
TEST_F(Statistics, ARefusedCreateLeavesNoEntries)
{
    for (const char *text : {"mc_gid mc_gid_val=1", "punt punt_id=1"}) {
        ASSERT_EQ(create(text).rc, (zan_rcode)EOK);
        destroy(text);
        settle();
        const residue_t before = residue();
        zan_db_set_limit(object(text)->table_id, 1);
        ASSERT_EQ(create(std::string(text) + "1").rc, (zan_rcode)EOK);
        EXPECT_EQ(create(text).rc, ZAN_RC_TABLE_FULL);
        destroy(std::string(text) + "1");
        settle();
        zan_host_stats_pass();
        if (zan_table_defs[object(text)->table_id]->write_mode) {
            EXPECT_EQ(residue(), before) << text << to_string(residue());
        }
        zan_host_stats_st rows[64];
        for (uint32_t i = 0, n = zan_host_stats_get(rows, 64); i < n; i++)
            EXPECT_EQ(rows[i].objects, 0u) << text;
    }
}

/* The walk goes on while objects come, change, are read and go. */
TEST_F(Statistics, TheWalkAndTheDispatcherLeaveEachOtherAlone)
{
    std::atomic<bool> over = false;
    std::atomic<uint32_t> passes = 0;
    const char *tables[] = {"l3intftxstats", "testzanstats2", "punt", "teststatsreplication"};
    for (const char *name : tables)
        run(with_key(table(name), 1));
    std::thread walker([&] {
        while (!over) {
            zan_host_stats_pass();
            passes++;
        }
    });
    for (uint32_t round = 0; round < 20 || passes < 20; round++) {
        for (const char *name : tables) {
            const zan_table_def_t *def = table(name);
            for (uint32_t key = 2; key < 12; key++)
                EXPECT_EQ(run(with_key(def, key)).rc, (zan_rcode)EOK);
            for (uint32_t key = 2; key < 12; key++) {
                object_t change = with_key(def, key, ZAN_TABLE_UPDATE);
                fill_attributes(def, change.get(), round);
                EXPECT_EQ(run(change).rc, (zan_rcode)EOK);
                EXPECT_EQ(run(with_key(def, key, ZAN_TABLE_GET), 4096).rc, (zan_rcode)EOK);
            }
            for (uint32_t key = 2; key < 12; key++)
                EXPECT_EQ(run(with_key(def, key, ZAN_TABLE_DELETE)).rc, (zan_rcode)EOK);
        }
        EXPECT_EQ(hardware_differs(2), "");
    }
    over = true;
    walker.join();
}
