/* Replay and end of download, as the server has them. */
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include <dlfcn.h>

#include "npu_sim_control.h"
#include "object_maker.h"
#include "table_crud_ctx.h"
#include "table_flows.h"
#include "zan_counters.h"

using namespace bench;

namespace
{

constexpr uint32_t npus = 3;

object_t marker(const zan_table_def_t *def, zan_table_operation_et operation, uint32_t epoch = 0)
{
    object_t obj = empty(def, operation);
    obj->client_epoch = epoch;
    return obj;
}

void replay_all(const zan_table_def_t *def)
{
    using replay_start_f = uint64_t (*)(void *);
    const std::string name = std::string("kor_core_") + def->name + "_replay_start";
    const auto replay_start = (replay_start_f)dlsym(RTLD_DEFAULT, name.c_str());
    ASSERT_TRUE(replay_start) << name;
    replay_start(nullptr);
}

/* Objects of two clients: the filter of the tables that clients share, and none elsewhere. */
TEST(Replay, ConcernsTheObjectsOfOneClientWhereClientsShareATable)
{
    const server_t server({.num_npus = npus});
    uint32_t shared = 0;
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        const zan_table_def_t *def = zan_table_defs[id];
        if (!def->replay_client_filter && id % 40 != 0)
            continue;
        shared += def->replay_client_filter;
        for (uint32_t k = 1; k <= 3; k++) {
            object_t obj = with_key(def, k);
            obj->client_epoch = k == 3 ? 7 : 5;
            ASSERT_EQ(run(obj).rc, (zan_rcode)EOK) << def->name;
        }
        uint32_t before = 0;
        auto marked = [&] {
            const uint32_t count = counter(def, ZAN_CTR_REPLAY_MARKED);
            return count - std::exchange(before, count);
        };
        EXPECT_EQ(run(marker(def, ZAN_TABLE_REPLAY_START, 6)).rc, (zan_rcode)EOK);
        EXPECT_EQ(marked(), def->replay_client_filter ? 0u : 3u) << def->name;
        replay_all(def);
        EXPECT_EQ(marked(), 3u) << def->name;
        for (uint32_t k = 1; k <= 3; k++)
            run(with_key(def, k)); /* the marks go */
        run(marker(def, ZAN_TABLE_REPLAY_START, 5));
        EXPECT_EQ(marked(), def->replay_client_filter ? 2u : 3u) << def->name;
        run(marker(def, ZAN_TABLE_REPLAY_END));
        EXPECT_EQ(zan_db_count(id), def->replay_client_filter ? 1u : 0u) << def->name;
    }
    EXPECT_EQ(shared, 17u);
}

/* In every table: what is sent again as it stands is written nowhere and stays as it is, what is
 * not goes, however often it was created. */
TEST(Replay, KeepsWhatIsSentAgainAndSweepsTheRest)
{
    const server_t server({.num_npus = npus});
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        const zan_table_def_t *def = zan_table_defs[id];
        object_t objects[2];
        for (uint32_t k = 0; k < 2; k++) {
            objects[k] = with_key(def, k + 1);
            fill_attributes(def, objects[k].get(), 3);
            ASSERT_EQ(run(objects[k]).rc, (zan_rcode)EOK) << def->name;
            run(objects[k]); /* another reference, or a duplicate */
        }
        settle();
        const std::vector<std::string> before = dump(def);
        npu_sim_counts_t counts_before, counts;
        npu_sim_counts(1, &counts_before);
        run(marker(def, ZAN_TABLE_REPLAY_START, ZAN_EPOCH_ANY));
        EXPECT_EQ(run(objects[0]).rc, (zan_rcode)EOK) << def->name;
        settle();
        EXPECT_EQ(dump(def), before) << def->name;
        npu_sim_counts(1, &counts);
        EXPECT_EQ(counts.creates + counts.updates, counts_before.creates + counts_before.updates)
            << def->name;
        run(marker(def, ZAN_TABLE_REPLAY_END));
        settle();
        EXPECT_EQ(zan_db_count(id), 1u) << def->name;
        EXPECT_EQ(hardware_differs(npus), "") << def->name;
    }
}

/* The failure of one NPU ends it: the next hears nothing, and the slot holds the code. */
TEST(EndOfDownload, StopsAtTheNpuThatFails)
{
    const server_t server({.num_npus = npus});
    const zan_table_def_t *def = table("ipacl");
    constexpr zan_rcode broken = 0x4fa0c005u;
    const npu_sim_failure_t failure = {def->id, 1, ZAN_TABLE_EOD, 1, 1, broken};
    npu_sim_fail(&failure);
    for (const zan_rcode rc : {broken, (zan_rcode)EOK})
        EXPECT_EQ(run(marker(def, ZAN_TABLE_EOD)).rc, rc);
    for (uint32_t npu = 0; npu < npus; npu++) {
        npu_sim_counts_t counts;
        npu_sim_counts(npu, &counts);
        EXPECT_EQ(counts.eods, npu == 2 ? 1u : 2u) << npu;
    }
}

} // namespace
