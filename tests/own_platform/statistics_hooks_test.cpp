/* The hooks of the statistics walks, this binary's own: one stops the walk in the middle of an
 * entry, so that the object goes while the walk has it; others fail; and a hook of the update has
 * the walk come by while hardware is written. */
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "adjacency.h"
#include "host_periodic_stats.h"
#include "server_bench.h"
#include "tnlstats.h"
#include "zan_trace.h"

using namespace bench;

namespace
{

constexpr zan_rcode refused = 0x4fa0c005;

std::mutex mutex;
std::condition_variable changed;
bool stop_here, is_here;
uint32_t taken;   /* entries that a hook took */
uint64_t packets; /* that tnlstats counts */

std::vector<uint64_t> last(zan_table_msg_et message)
{
    return last_trace(ZAN_MSG_TABLE_BASE +
                      table("teststatsreplication")->id * ZAN_MSG_TABLE_STRIDE + message);
}

} // namespace

extern "C" {
ZAN_EXPORT zan_rcode srv_tnlstats_update_zan_db_stats_from_rdesc(zan_table_base_st *obj)
{
    if (packets == 0)
        return refused;
    zan_tnlstats_obj_st *stats = (zan_tnlstats_obj_st *)obj;
    stats->rx_packets = packets;
    stats->rx_packets_set = 1;
    return EOK;
}

ZAN_EXPORT zan_rcode srv_tnlstats_update(zan_delta_lists_t *)
{
    packets = 2000;
    std::thread(zan_host_stats_pass).join();
    return EOK;
}

ZAN_EXPORT zan_rcode srv_testreplica_adj_periodic_stats_update_rdesc_from_hw(zan_adj_entry_st *)
{
    std::unique_lock lock(mutex);
    is_here = true;
    changed.notify_all();
    changed.wait(lock, [] { return !stop_here; });
    return EOK;
}

ZAN_EXPORT zan_rcode
srv_testreplica_adj_periodic_stats_update_db_from_rdesc(zan_adj_entry_st *entry)
{
    taken++;
    entry->packets = *(const uint32_t *)entry->key;
    return EOK;
}

ZAN_EXPORT zan_rcode
srv_testkeymatch_adj_periodic_stats_update_db_from_rdesc_infra_default(zan_adj_entry_st *)
{
    return refused;
}
}

TEST(StatisticsHooks, AnEntryWhoseObjectGoesUnderTheWalkIsLeftAlone)
{
    const server_t server({});
    const residue_t before = residue();
    ASSERT_EQ(create("teststatsreplication id=5").rc, (zan_rcode)EOK);
    ASSERT_EQ(create("teststatsreplication id=6").rc, (zan_rcode)EOK);
    stop_here = true;
    std::thread walker(zan_host_stats_pass);
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [] { return is_here; });
    }
    destroy("teststatsreplication id=5"); // one of them the walk has, of the other it knows nothing
    destroy("teststatsreplication id=6");
    ASSERT_EQ(create("teststatsreplication id=7").rc, (zan_rcode)EOK);
    {
        const std::lock_guard lock(mutex);
        stop_here = false;
        changed.notify_all();
    }
    walker.join();
    EXPECT_EQ(taken, 0u) << "of what is going nothing is taken";
    ASSERT_FALSE(last(ZAN_TMSG_ADJ_STALE).empty());
    EXPECT_EQ(last(ZAN_TMSG_ADJ_STALE)[0], 18u);

    zan_host_stats_pass();
    EXPECT_EQ(taken, 1u);
    zan_host_adj_st rows[4];
    ASSERT_EQ(zan_host_adj_get(named("teststatsreplication id=7"), rows, 4), 4u);
    EXPECT_EQ(rows[0].packets, 7u);
    EXPECT_NE(rows[1].at_ns, 0u) << "replicated though its hook failed";
    ASSERT_FALSE(last(ZAN_TMSG_ADJ_NOT_TAKEN).empty());
    EXPECT_EQ(last(ZAN_TMSG_ADJ_NOT_TAKEN)[2], refused);
    destroy("teststatsreplication id=7");
    EXPECT_EQ(residue(), before) << to_string(residue());
}

/* An update has read the counters before it writes hardware, and writes the object behind it. */
TEST(StatisticsHooks, AnUpdateKeepsWhatAWalkHasBroughtMeanwhile)
{
    const server_t server({});
    ASSERT_EQ(create("tnlstats tunnel_id=1 tx_packets=7").rc, (zan_rcode)EOK);
    const auto *stats = (const zan_tnlstats_obj_st *)named("tnlstats tunnel_id=1");
    zan_host_stats_pass();
    const uint32_t message = ZAN_MSG_TABLE_BASE + table("tnlstats")->id * ZAN_MSG_TABLE_STRIDE +
                             ZAN_TMSG_STATS_NOT_TAKEN;
    ASSERT_FALSE(last_trace(message).empty());
    EXPECT_EQ(last_trace(message)[1], refused);
    EXPECT_EQ(stats->rx_packets_set, 0);
    packets = 1000;
    zan_host_stats_pass();
    EXPECT_EQ(stats->rx_packets, 1000u);
    ASSERT_EQ(update("tnlstats tunnel_id=1 tx_packets=8").rc, (zan_rcode)EOK);
    EXPECT_EQ(stats->rx_packets, 2000u);
    EXPECT_EQ(stats->tx_packets, 8u) << "the walk brings none, and the client asked for it";
}
