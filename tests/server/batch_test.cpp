/* The rules of a batch: what stops it, what is forgiven, what a slot says, and the order of the
 * post-step. And the assertions that guard the wire. */
#include <cstring>
#include <gtest/gtest.h>

#include "exec_queue.h"
#include "host_control.h"
#include "internal_queues.h"
#include "npu_sim_control.h"
#include "object_maker.h"
#include "table_flows.h"
#include "thread_control.h"

using namespace bench;

namespace
{

const char *const missing_group = "iproute vrf_id=0 prefix=10.0.0.0/8 next_obj.ipnhgroup.nhg_id=99";

std::vector<zan_rcode> codes(const std::vector<result_t> &results)
{
    std::vector<zan_rcode> out;
    for (const result_t &r : results)
        out.push_back(r.rc);
    return out;
}

} // namespace

TEST(Batch, AFailureCutsTheRestUnlessTheClientGoesOn)
{
    const server_t server({});
    batch_t batch;
    batch.add(object("l3intf intf=1")).add(object(missing_group)).add(object("l3intf intf=2"));
    auto results = batch.run();
    EXPECT_EQ(codes(results), (std::vector<zan_rcode>{EOK, ZAN_RC_NOT_FOUND, ZAN_RC_BATCH_CUT}));
    EXPECT_FALSE(results[1].batch_cut);
    EXPECT_TRUE(results[2].batch_cut);
    EXPECT_EQ((zan_rcode)results[0].returned, ZAN_RC_BATCH_CUT) << "how the last object went";
    EXPECT_EQ(zan_db_count(table("l3intf")->id), 1u) << "what was done stays done";

    batch.continue_on_error = true;
    batch.add(object(missing_group)).add(object("l3intf intf=2"));
    results = batch.run();
    EXPECT_EQ(codes(results), (std::vector<zan_rcode>{ZAN_RC_NOT_FOUND, EOK}));
    EXPECT_EQ(results[0].returned, EOK);
}

TEST(Batch, AForgivenFailureDoesNotCutAndAnUnforgivenOneBehindItDoes)
{
    const server_t server({.num_npus = 1});
    const zan_table_def_t *def = table("macllnh"); /* its hook decides what stays */
    ASSERT_EQ(def->hw_rc_mode, 1);
    npu_sim_failure_t kept = {def->id, 0, ZAN_TABLE_CREATE, 1, 1, ZAN_RC_KEEP_REFUSED};
    npu_sim_fail(&kept);
    batch_t batch;
    batch.add(with_key(def, 1)).add(object("l3intf intf=1")).add(object(missing_group));
    batch.add(object("l3intf intf=2"));
    const auto results = batch.run();
    EXPECT_EQ(codes(results), (std::vector<zan_rcode>{ZAN_RC_KEEP_REFUSED, EOK, ZAN_RC_NOT_FOUND,
                                                      ZAN_RC_BATCH_CUT}));
    EXPECT_TRUE(results[0].batch_continue);
}

TEST(Batch, ASlotSetInAdvanceIsAFailureOfItsObject)
{
    const server_t server({});
    batch_t batch;
    batch.preset = {0, 0x4f900001, 0};
    batch.add(object("l3intf intf=1")).add(object("l3intf intf=2")).add(object("l3intf intf=3"));
    const auto results = batch.run();
    EXPECT_EQ(codes(results), (std::vector<zan_rcode>{EOK, 0x4f900001, ZAN_RC_BATCH_CUT}));
    EXPECT_FALSE(results[1].batch_cut);
    EXPECT_EQ(zan_db_count(table("l3intf")->id), 1u);
}

TEST(Batch, AnAsynchronousBatchHasOneSlotWhichReadsZeroAndIsNeverCut)
{
    const server_t server({});
    batch_t batch;
    batch.async = true;
    batch.add(object("l3intf intf=1")).add(object(missing_group)).add(object("l3intf intf=2"));
    const auto results = batch.run();
    EXPECT_EQ(results[0].rc, (zan_rcode)EOK);
    EXPECT_EQ(zan_db_count(table("l3intf")->id), 2u);
    EXPECT_EQ(counter(table("iproute"), 1), 1u);
}

TEST(Batch, EndOfRunMessagesComeWhereTheRunEndsAndNowhereElse)
{
    const server_t server({.num_npus = 1, .stepped = true});
    const zan_table_def_t *route = table("iproute");
    static uint32_t ends;
    ends = 0;
    zan_srv_table_props_get(route->id)->async_batch_end_npu_cb = [](uint32_t,
                                                                    uint32_t) -> zan_rcode {
        ends++;
        return EOK;
    };
    batch_t batch;
    batch.async = true;
    batch.add(with_key(route, 1)).add(with_key(route, 2)).add(object("l3intf intf=1"));
    batch.add(with_key(route, 3));
    batch.run();
    settle();
    EXPECT_EQ(ends, 2u) << "behind the second route, and behind the last";
    batch.async = false;
    batch.add(with_key(route, 4)).run();
    settle();
    EXPECT_EQ(ends, 2u) << "a synchronous batch has no runs";
}

TEST(Batch, QueueTwoGoesFirst)
{
    const server_t server({});
    const zan_table_def_t *def = table("l2port");
    run(with_key(def, 1));
    zan_table_base_st *queued = zan_srv_table_props_get(def->id)->copy_ctor(with_key(def, 2).get());
    queued->table_operation = ZAN_TABLE_CREATE;
    ASSERT_EQ(kor_core_queue_enqueue(queued, ZAN_QUEUE_INTERNAL_ASYNC), (zan_rcode)EOK);
    const result_t r = run(with_key(def, 2));
    EXPECT_EQ(r.rc, ZAN_RC_EXISTS) << "the queued object went first";
}

TEST(BatchDeathTest, BrokenInvariantsEndTheProcessByName)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const server_t server({.num_npus = 0});
    std::vector<uint64_t> slot(64);
    auto *response = (zan_table_response_st *)slot.data();
    auto dispatch = [&](std::vector<uint8_t> bytes, uint32_t num_resp, uint32_t msg_len) {
        std::vector<uint64_t> aligned((bytes.size() + 7) / 8 + 1);
        memcpy(aligned.data(), bytes.data(), bytes.size());
        zan_table_server_dispatcher((uint8_t *)aligned.data(), response,
                                    {num_resp, msg_len, 0, 1, {}}, nullptr);
    };
    auto wire = [&](std::initializer_list<uint32_t> flags) {
        const zan_table_def_t *def = table("l3intf");
        std::vector<uint8_t> bytes;
        for (const uint32_t flag : flags) {
            object_t obj = with_key(def, (uint32_t)bytes.size() + 1);
            obj->flag = flag;
            const size_t at = bytes.size();
            bytes.resize(at + def->obj_size);
            zan_obj_serialize(def, 0, obj.get(), bytes.data() + at);
        }
        return bytes;
    };
    const auto one = wire({0});
    const auto size = (uint32_t)one.size();
    EXPECT_DEATH(dispatch(one, 1, 0), "msg_len != 0");
    EXPECT_DEATH(dispatch(one, 1, size - 8), "msg_ctx->len_remain == 0");
    EXPECT_DEATH(dispatch(wire({0, 0}), 1, 2 * size), "msg_ctx->curr_resp_idx < msg_ctx->num_resp");
    EXPECT_DEATH(dispatch(wire({0, ZAN_FLAG_IS_ASYNC_DISPATCH}), 2, 2 * size),
                 "new_base->flag.is_async_dispatch == msg_ctx->batch_is_async");
    EXPECT_DEATH(
        {
            zan_thread_set_role(ZAN_THREAD_NONE, -1);
            dispatch(one, 1, size);
        },
        "zan_core_is_dispatch_thread\\(\\) \\|\\| zan_core_is_frr_thread\\(\\)");
}

TEST(Dispatch, TheTwoRoutesDisagreeOnABadCode)
{
    const server_t server({});
    object_t obj = with_key(table("l3intf"), 1);
    obj->table_operation = ZAN_TABLE_REPLAY_START;
    EXPECT_EQ(kor_core_obj_dispatcher(obj.get()), (zan_rcode)EOK) << "no route, no failure";
    obj->table_id = ZAN_NUM_TABLES;
    obj->table_operation = ZAN_TABLE_CREATE;
    EXPECT_EQ(kor_core_obj_dispatcher(obj.get()), (zan_rcode)EOK);
    obj->table_id = table("l3intf")->id;
    run(with_key(table("l3intf"), 1));
    run(with_key(table("l3intf"), 2));
    object_t replay = empty(table("l3intf"), ZAN_TABLE_REPLAY_START);
    EXPECT_EQ(run(replay).handle, 2u) << "the slot counts the objects visited";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            zan_table_response_st response = {};
            obj->table_operation = ZAN_TABLE_EOD;
            zan_srv_table_props_get(obj->table_id)
                ->crud_from_obj_base(obj.get(), &response, 0xff, nullptr);
        },
        "assertion \"0\"");
}
