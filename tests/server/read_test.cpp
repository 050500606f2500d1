/* Reads beyond the plain ones: the show buffer to the byte, stale objects only, members, queues
 * stopped, failing NPUs. */
#include <cstring>
#include <gtest/gtest.h>

#include "exec_queue.h"
#include "host_control.h"
#include "npu_sim_control.h"
#include "object_maker.h"
#include "table_flows.h"

using namespace bench;

extern "C" zan_rcode srv_l3intf_set_sdk_show_buf(zan_get_sdk_ctx_t *ctx, const char *text);

static const char *show_text;

static zan_rcode show(zan_get_sdk_ctx_t *ctx)
{
    return srv_l3intf_set_sdk_show_buf(ctx, show_text);
}

TEST(Read, GivesThePlatformsShowTextAsFarAsItFits)
{
    const server_t server({});
    create("l3intf intf=1");
    zan_srv_table_props_get(table("l3intf")->id)->fill_sdk_show_buffer = show;
    const struct {
        const char *text;
        uint32_t room;
        zan_rcode rc;
        std::string payload;
    } cases[] = {
        {"up", 16, EOK, std::string("up", 3)},
        {"1234567", 8, EOK, std::string("1234567", 8)}, /* fills it, terminator included */
        {"12345678", 8, ZAN_RC_SHOW_BUFFER_SMALL, "1234567"},
        {"123456789", 8, ZAN_RC_SHOW_BUFFER_SMALL, "1234567"},
    };
    for (const auto &c : cases) {
        show_text = c.text;
        npu_sim_counts_t before, after;
        npu_sim_counts(0, &before);
        const result_t r = read("l3intf intf=1", ZAN_TABLE_GET, ZAN_GETOPT_SHOW_BUFFER, c.room);
        npu_sim_counts(0, &after);
        EXPECT_EQ(r.rc, c.rc) << c.text;
        EXPECT_EQ(r.payload, c.payload) << c.text;
        EXPECT_EQ(after.gets, before.gets) << "a show text skips the reads of the NPUs";
    }
}

TEST(Read, AsksEveryNpuAndFailsForNone)
{
    const server_t server({.num_npus = 3});
    create("l3intf intf=1 ipv4_mtu=1500");
    npu_sim_failure_t failure = {NPU_SIM_ANY, 1, ZAN_TABLE_GET, 1, 0, 0x4fa00001};
    npu_sim_fail(&failure);
    const result_t r = read("l3intf intf=1");
    EXPECT_EQ(r.rc, (zan_rcode)EOK);
    for (uint32_t npu = 0; npu < 3; npu++) {
        npu_sim_counts_t counts;
        npu_sim_counts(npu, &counts);
        EXPECT_EQ(counts.gets, 1u) << npu;
    }
}

TEST(Read, OfStaleObjectsPassesOverTheOthers)
{
    const server_t server({});
    for (const char *text : {"l3intf intf=1", "l3intf intf=2", "l3intf intf=3"})
        create(text);
    EXPECT_EQ(read("l3intf", ZAN_TABLE_GET_FIRST, ZAN_GETOPT_STALE_ONLY).rc, ZAN_RC_NOT_FOUND);
    run(empty(table("l3intf"), ZAN_TABLE_REPLAY_START));
    create("l3intf intf=1"); /* sent again */
    const result_t first = read("l3intf", ZAN_TABLE_GET_FIRST, ZAN_GETOPT_STALE_ONLY);
    ASSERT_EQ(first.rc, (zan_rcode)EOK);
    char key[64];
    zan_key_print(table("l3intf"), zan_obj_key(table("l3intf"), first.obj.get()), key, sizeof key);
    EXPECT_STREQ(key, "intf=2");
}

TEST(Read, WithRoomForMoreMembersThanStoredKeepsItsPlaceInTheBatch)
{
    const server_t server({});
    create("ipnhgroup nhg_id=7 weight[0]=3 weight[1]=1");
    create("l3intf intf=1");
    const zan_table_def_t *def = table("ipnhgroup");
    object_t roomy = empty(def, ZAN_TABLE_GET, 9);
    object_t tight = empty(def, ZAN_TABLE_GET, 1);
    for (zan_table_base_st *obj : {roomy.get(), tight.get()}) {
        memcpy(zan_obj_key(def, obj), zan_obj_key(def, object("ipnhgroup nhg_id=7").get()),
               def->key_size);
        obj->key_len = def->key_size;
    }
    batch_t batch;
    batch.continue_on_error = true;
    batch.add(roomy).add(object("l3intf intf=1", ZAN_TABLE_GET)).add(tight);
    batch.add(object("l3intf intf=1", ZAN_TABLE_GET));
    const auto results = batch.run();
    ASSERT_EQ(results[0].rc, (zan_rcode)EOK);
    EXPECT_EQ(zan_obj_num_elements(def, results[0].obj.get()), 2u);
    EXPECT_EQ(results[1].rc, (zan_rcode)EOK);
    EXPECT_EQ(results[2].rc, ZAN_RC_INVALID_READ) << "no room: ask again with more";
    EXPECT_EQ(results[3].rc, (zan_rcode)EOK);
}

TEST(Read, ThatStopsTheQueuesLetsThemGoAgain)
{
    const server_t server({.num_npus = 2});
    create("l3intf intf=1");
    for (const uint16_t option : {ZAN_GETOPT_STOP_QUEUES_A, ZAN_GETOPT_STOP_QUEUES_B}) {
        EXPECT_EQ(read("l3intf intf=1", ZAN_TABLE_GET, option).rc, (zan_rcode)EOK);
        EXPECT_EQ(read("l3intf intf=2", ZAN_TABLE_GET, option).rc, ZAN_RC_NOT_FOUND);
        EXPECT_EQ(run(with_key(table("ipvrf"), option)).rc, (zan_rcode)EOK)
            << "a synchronous write goes through";
    }
}

TEST(Read, ThatNamesNothingIsInvalid)
{
    const server_t server({});
    create("l3intf intf=0");
    for (const auto operation : {ZAN_TABLE_GET, ZAN_TABLE_GET_NEXT, ZAN_TABLE_GET_GT_EQ})
        EXPECT_EQ(run(empty(table("l3intf"), operation)).rc, ZAN_RC_INVALID) << operation;
}
