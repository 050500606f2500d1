/* The execution queue, with threads and stepped: the same cases on both. */
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "clock.h"
#include "exec_queue.h"
#include "host_tables.h"
#include "internal_queues.h"
#include "locks.h"

namespace
{

struct way_t {
    uint32_t num_npus;
    bool stepped;
};

class exec_queue : public testing::TestWithParam<way_t>
{
protected:
    void SetUp() override
    {
        zan_thread_set_role(ZAN_THREAD_DISPATCHER, -1);
        blocks_before = zan_heap_blocks_in_use();
        num_npus = GetParam().num_npus;
        all = ((kor_npu_mask_t)1 << num_npus) - 1;
        zan_host_exec_q_set_resp_period(5000000);
        ASSERT_TRUE(zan_host_exec_q_start(num_npus, GetParam().stepped, 42));
        npu_work = [this](kor_core_srv_dispatch_t *record, int32_t npu) {
            return work(record, npu);
        };
        batch_end_work = [this](uint32_t table_id, uint32_t npu) {
            std::lock_guard<std::mutex> guard(mutex);
            log[npu].push_back(-(int64_t)table_id);
        };
    }

    void TearDown() override
    {
        zan_host_exec_q_stop();
        EXPECT_EQ(zan_heap_blocks_in_use(), blocks_before) << "all that went out came home";
    }

    zan_rcode work(kor_core_srv_dispatch_t *record, int32_t npu)
    {
        const zan_table_base_st *self = record->obj;
        EXPECT_EQ(kor_core_get_npu_id(self), (uint32_t)npu);
        EXPECT_FALSE(zan_check_action_allowed(ZAN_EXEC_Q_CONTROL_OPS_ALLOWED));
        zan_set_trans_id(record->obj->base_trans_id, nullptr, 0);
        std::lock_guard<std::mutex> guard(mutex);
        log[npu].push_back(node_id(record->obj));
        return node_id(record->obj) * 10 + (uint32_t)npu;
    }

    static zan_table_base_st *copy(uint32_t id)
    {
        auto *obj = (node_obj_t *)zan_heap_calloc(sizeof(node_obj_t));
        *obj = node_record(LEAF_ID, id);
        return &obj->base;
    }

    /* An asynchronous write; what the queue returned. */
    int send_async(uint32_t id, kor_npu_mask_t mask, bool barrier = false)
    {
        kor_core_srv_dispatch_t *record = zan_srv_msg_alloc(ZAN_TABLE_UPDATE);
        record->is_async = 1;
        record->obj = copy(id);
        record->old_obj = copy(id);
        record->delta_lists = (zan_delta_lists_t *)zan_heap_calloc(sizeof(zan_delta_lists_t));
        record->delta_lists->delta_buffer = zan_heap_calloc(100);
        zan_exec_q_msg_st *msg = zan_exec_q_msg_alloc(get_global_exec_q());
        msg->type = ZAN_EXEC_MSG_NPU_REQUEST;
        msg->payload = record;
        msg->use_barrier = barrier;
        const int rc = kor_exec_q_req_bcast(get_global_exec_q(), msg, mask);
        if (rc == 0)
            return 0;
        zan_exec_q_msg_free(msg);
        zan_heap_free(record->obj);
        zan_heap_free(record->old_obj);
        zan_heap_free(record->delta_lists->delta_buffer);
        zan_heap_free(record->delta_lists);
        zan_srv_msg_free(record);
        return rc;
    }

    void send_sync(kor_core_srv_dispatch_t *record, node_obj_t *obj, kor_npu_mask_t mask)
    {
        *record = {};
        record->obj = &obj->base;
        zan_exec_q_msg_st *msg = zan_exec_q_msg_alloc(get_global_exec_q());
        msg->payload = record;
        ASSERT_EQ(kor_exec_q_req_bcast(get_global_exec_q(), msg, mask), 0);
    }

    int wait()
    {
        return kor_exec_q_resp_wait(get_global_exec_q());
    }

    void drain()
    {
        EXPECT_EQ(zan_exec_q_sync_ctrl_request_only(), 0);
        EXPECT_EQ(wait(), 0);
        zan_exec_q_sync_ctrl_allow_all_queues();
    }

    std::vector<int64_t> log_of(uint32_t npu)
    {
        std::lock_guard<std::mutex> guard(mutex);
        return log[npu];
    }

    uint64_t blocks_before;
    uint32_t num_npus;
    kor_npu_mask_t all;
    std::mutex mutex;
    std::map<uint32_t, std::vector<int64_t>> log; /* what each NPU did, in order */
};

std::string name_of(const testing::TestParamInfo<way_t> &info)
{
    return (info.param.stepped ? "stepped_" : "threads_") + std::to_string(info.param.num_npus);
}

} // namespace

TEST_P(exec_queue, each_npu_runs_its_messages_in_order_and_the_waiter_reads_its_code)
{
    std::mt19937 random(1);
    std::map<uint32_t, std::vector<int64_t>> expected;
    kor_core_srv_dispatch_t record;
    for (uint32_t id = 1; id <= 2000; id++) {
        const kor_npu_mask_t mask = random() % all + 1;
        for (uint32_t npu = 0; npu < num_npus; npu++)
            if (mask >> npu & 1)
                expected[npu].push_back(id);
        if (random() % 3) {
            ASSERT_EQ(send_async(id, mask), 0);
            zan_dsp_q_process_post_npu();
            continue;
        }
        node_obj_t obj = node_record(NODE_ID, id);
        zan_set_trans_id(id, nullptr, 0);
        ASSERT_NO_FATAL_FAILURE(send_sync(&record, &obj, mask));
        ASSERT_EQ(zan_exec_q_sync_ctrl(), 0);
        ASSERT_EQ(wait(), 0);
        ASSERT_EQ(zan_get_trans_id(), id) << "an NPU's transaction is not the dispatcher's";
        for (uint32_t npu = 0; npu < num_npus; npu++)
            if (mask >> npu & 1) {
                ASSERT_EQ(kor_exec_q_resp_read_rc(npu), id * 10 + npu);
                ASSERT_EQ(log_of(npu).back(), id);
            }
    }
    drain();
    for (uint32_t npu = 0; npu < num_npus; npu++)
        EXPECT_EQ(log_of(npu), expected[npu]);
    EXPECT_EQ(kor_exec_q_get_depth(get_global_exec_q()), 0u);
}

TEST_P(exec_queue, a_wait_without_a_broadcast_is_over_at_once)
{
    EXPECT_EQ(wait(), 0);
    EXPECT_EQ(zan_exec_q_sync_ctrl(), 0);
    EXPECT_EQ(wait(), 0);
    kor_core_srv_dispatch_t record;
    node_obj_t obj = node_record(NODE_ID, 1);
    send_sync(&record, &obj, all);
    zan_exec_q_sync_ctrl();
    EXPECT_EQ(wait(), 0);
    zan_host_exec_q_hold(all);
    send_sync(&record, &obj, all);
    zan_exec_q_sync_ctrl();
    zan_exec_q_sync_ctrl(); /* waited for already: nothing to wait for */
    EXPECT_EQ(wait(), 0);
    zan_host_exec_q_hold(0);
    drain();
}

TEST_P(exec_queue, a_hung_driver_times_the_wait_out_and_the_depth_tells)
{
    if (GetParam().stepped)
        zan_host_clock_set_virtual(true);
    zan_host_exec_q_set_resp_period(20000);
    zan_host_exec_q_hold(1);
    send_async(1, all);
    send_async(2, all);
    kor_core_srv_dispatch_t record;
    node_obj_t obj = node_record(NODE_ID, 3);
    send_sync(&record, &obj, all);
    zan_exec_q_sync_ctrl();
    timespec before, after, passed;
    zan_clock_gettime(CLOCK_MONOTONIC, &before);
    EXPECT_EQ(wait(), ZAN_EXEC_Q_TIMEOUT);
    EXPECT_EQ(wait(), ZAN_EXEC_Q_TIMEOUT) << "the wait goes on";
    zan_clock_gettime(CLOCK_MONOTONIC, &after);
    clock_diff(&before, &after, &passed);
    EXPECT_GE(passed.tv_nsec + passed.tv_sec * 1000000000, 40000000);
    EXPECT_EQ(kor_exec_q_get_depth(get_global_exec_q()), 3u) << "the held NPU's";
    EXPECT_TRUE(log_of(0).empty());
    zan_host_exec_q_hold(0);
    zan_host_exec_q_set_resp_period(5000000);
    EXPECT_EQ(wait(), 0);
    EXPECT_EQ(log_of(0), (std::vector<int64_t>{1, 2, 3}));
    zan_host_clock_set_virtual(false);
}

TEST_P(exec_queue, stopped_queues_stand_still_behind_what_they_hold)
{
    for (uint32_t round = 0; round < 20; round++) {
        for (uint32_t id = 0; id < 10; id++)
            send_async(id, all);
        ASSERT_EQ(zan_exec_q_sync_ctrl_request_only(), 0);
        ASSERT_NE(zan_exec_q_sync_ctrl_request_only(), 0) << "stopped already, by somebody else";
        ASSERT_EQ(wait(), 0);
        const size_t done = log_of(0).size();
        ASSERT_EQ(done, (round + 1) * 10 + round);
        send_async(99, all);
        zan_dsp_q_process_post_npu();
        zan_allow_access_frr_thread();
        zan_usleep(round == 0 ? 20000 : 1);
        for (uint32_t npu = 0; npu < num_npus; npu++)
            ASSERT_EQ(log_of(npu).size(), done);
        zan_exec_q_sync_ctrl_allow_all_queues();
        drain();
        ASSERT_EQ(log_of(num_npus - 1).back(), 99);
    }
}

TEST_P(exec_queue, nobody_passes_a_barrier_before_all_have_done_it)
{
    /* An NPU that does a later message looks whether all of the barrier's NPUs have done it. */
    std::atomic<uint32_t> done[2] = {};
    std::atomic<uint32_t> passed_early = 0;
    const kor_npu_mask_t mask = num_npus > 2 ? all ^ 4 : all;
    const auto needed = (uint32_t)__builtin_popcountll(mask);
    npu_work = [&](kor_core_srv_dispatch_t *record, int32_t npu) -> zan_rcode {
        const uint32_t id = node_id(record->obj), round = id / 10 % 2;
        if (id % 10 == 1) {
            if (npu == 0)
                std::this_thread::sleep_for(std::chrono::microseconds(500));
            done[round]++;
        } else if (id % 10 == 2 && done[round] != needed) {
            passed_early++;
        }
        return EOK;
    };
    for (uint32_t round = 0; round < 100; round++) {
        done[round % 2] = 0;
        send_async(round * 10, all);
        ASSERT_EQ(send_async(round * 10 + 1, mask, true), 0);
        send_async(round * 10 + 2, all);
        drain();
        ASSERT_EQ(passed_early, 0u) << "round " << round;
        zan_dsp_q_process_post_npu();
    }
}

TEST_P(exec_queue, a_full_ring_blocks_and_then_refuses)
{
    const uint32_t many = GetParam().num_npus == 8 ? 6000 : 20000;
    for (uint32_t id = 0; id < many; id++) {
        ASSERT_EQ(send_async(id, all), 0);
        if (id % 16 == 0)
            zan_dsp_q_process_post_npu();
    }
    drain();
    zan_dsp_q_process_post_npu();
    EXPECT_EQ(log_of(0).size(), many);

    zan_host_exec_q_hold(1);
    zan_host_exec_q_set_resp_period(1000);
    uint32_t sent = 0;
    while (send_async(sent, all) == 0 && sent < 100000)
        sent++;
    EXPECT_EQ(sent, 4096u);
    EXPECT_EQ(send_async(sent, all, true), ENOSPC) << "a barrier";
    zan_host_exec_q_set_resp_period(5000000);
    if (num_npus > 1) {
        EXPECT_EQ(send_async(sent, all ^ 1), 0) << "the others go on";
    }
    zan_host_exec_q_hold(0);
    drain();
    EXPECT_EQ(log_of(0).size(), many + sent) << "the refused one reached nobody";
    zan_dsp_q_process_post_npu();
    EXPECT_EQ(zan_heap_blocks_in_use(), blocks_before);
}

TEST_P(exec_queue, an_asynchronous_write_comes_home_to_the_dispatcher)
{
    for (uint32_t id = 0; id < 100; id++)
        send_async(id, all);
    drain();
    EXPECT_GT(zan_heap_blocks_in_use(), blocks_before);
    std::thread([&] {
        const uint64_t before = zan_heap_blocks_in_use();
        zan_dsp_q_process_post_npu();
        EXPECT_EQ(zan_heap_blocks_in_use(), before) << "not on another thread";
    }).join();
    zan_dsp_q_process_post_npu();
    EXPECT_EQ(zan_heap_blocks_in_use(), blocks_before);
    zan_dsp_q_process_post_npu();
}

TEST_P(exec_queue, copies_of_a_held_walk_context_stay_with_it)
{
    kor_dpd_event_ctx_t *walk = zan_walk_ctx_alloc_walk_ctx(nullptr);
    kor_core_srv_dispatch_t *record = zan_srv_msg_alloc(ZAN_TABLE_UPDATE);
    record->is_async = 1;
    record->obj = copy(1);
    record->old_obj = copy(1);
    zan_table_base_st *const old_obj = record->old_obj;
    record->walk_ctx = walk;
    walk->held_by_npu_threads = 1;
    walk->old_obj = old_obj;
    zan_exec_q_msg_st *msg = zan_exec_q_msg_alloc(get_global_exec_q());
    msg->payload = record;
    ASSERT_EQ(kor_exec_q_req_bcast(get_global_exec_q(), msg, all), 0);
    drain();
    zan_dsp_q_process_post_npu();
    EXPECT_EQ(zan_heap_blocks_in_use(), blocks_before + 1);
    EXPECT_FALSE(walk->held_by_npu_threads);
    zan_walk_ctx_dtor(walk);
    zan_heap_free(old_obj);
}

TEST_P(exec_queue, the_end_of_a_batch_reaches_every_npu_in_its_place)
{
    send_async(1, all);
    zan_exec_q_enqueue_async_batch_end_msg(LEAF_ID);
    send_async(2, all);
    zan_exec_q_enqueue_async_batch_end_msg(STAT_ID);
    drain();
    for (uint32_t npu = 0; npu < num_npus; npu++)
        EXPECT_EQ(log_of(npu), (std::vector<int64_t>{1, -LEAF_ID, 2, -STAT_ID}));
}

TEST_P(exec_queue, refusals)
{
    EXPECT_EQ(send_async(1, 0), EINVAL);
    EXPECT_EQ(send_async(1, all + 1), EINVAL) << "an NPU that is not there";
    EXPECT_FALSE(zan_host_exec_q_start(1, false, 0)) << "it runs already";
    EXPECT_EQ(kor_exec_q_resp_read_rc(num_npus), ZAN_RC_BAD_ARGUMENT);
    kor_exec_q_wake_npu_threads(all, 1);
}

TEST_P(exec_queue, messages_and_records_may_be_taken_and_given_back_in_any_order)
{
    kor_core_srv_dispatch_t *a = zan_srv_msg_alloc(ZAN_TABLE_CREATE);
    zan_exec_q_msg_st *of_a = zan_exec_q_msg_alloc(nullptr);
    EXPECT_EQ(zan_heap_blocks_in_use(), blocks_before + 1) << "one block for both";
    zan_exec_q_msg_st *alone = zan_exec_q_msg_alloc(nullptr);
    kor_core_srv_dispatch_t *b = zan_srv_msg_alloc(ZAN_TABLE_DELETE);
    EXPECT_EQ(b->table_operation, ZAN_TABLE_DELETE);
    zan_srv_msg_free(b);
    zan_exec_q_msg_st *after_b = zan_exec_q_msg_alloc(nullptr);
    zan_srv_msg_free(a);
    zan_exec_q_msg_free(alone);
    of_a->payload = nullptr; /* its block is still there */
    zan_exec_q_msg_free(of_a);
    zan_exec_q_msg_free(after_b);
    zan_exec_q_msg_free(nullptr);
    zan_srv_msg_free(nullptr);
    EXPECT_EQ(zan_heap_blocks_in_use(), blocks_before);
}

INSTANTIATE_TEST_SUITE_P(ways, exec_queue,
                         testing::Values(way_t{1, false}, way_t{3, false}, way_t{8, false},
                                         way_t{1, true}, way_t{3, true}, way_t{8, true}),
                         name_of);

/* ---- Stepped alone ---- */

namespace
{

/* The order of (message, NPU) over a run of sends, and how many had run after each. */
std::vector<uint32_t> run_stepped(uint64_t seed, std::vector<size_t> *after_send)
{
    std::vector<uint32_t> order;
    npu_work = [&](kor_core_srv_dispatch_t *record, int32_t npu) -> zan_rcode {
        order.push_back(node_id(record->obj) * 8 + (uint32_t)npu);
        /* Under no lock: a hook may take the one that the dispatcher holds. */
        EXPECT_EQ(zan_threads_server_programming_lock(), 0);
        EXPECT_EQ(zan_threads_server_programming_unlock(), 0);
        zan_usleep(1); /* runs no other message inside this one */
        zan_dsp_q_process_post_npu();
        return EOK;
    };
    zan_thread_set_role(ZAN_THREAD_DISPATCHER, -1);
    EXPECT_TRUE(zan_host_exec_q_start(3, true, seed));
    EXPECT_EQ(zan_threads_server_programming_lock(), 0);
    for (uint32_t id = 0; id < 50; id++) {
        kor_core_srv_dispatch_t *record = zan_srv_msg_alloc(ZAN_TABLE_CREATE);
        record->is_async = 1;
        auto *obj = (node_obj_t *)zan_heap_calloc(sizeof(node_obj_t));
        *obj = node_record(NODE_ID, id);
        record->obj = &obj->base;
        zan_exec_q_msg_st *msg = zan_exec_q_msg_alloc(get_global_exec_q());
        msg->payload = record;
        EXPECT_EQ(kor_exec_q_req_bcast(get_global_exec_q(), msg, 7), 0);
        after_send->push_back((id + 1) * 3 - order.size());
        EXPECT_EQ(zan_threads_server_programming_unlock(), 0) << "still held";
        EXPECT_EQ(zan_threads_server_programming_lock(), 0);
    }
    zan_exec_q_sync_ctrl_request_only();
    EXPECT_EQ(kor_exec_q_resp_wait(get_global_exec_q()), 0);
    zan_exec_q_sync_ctrl_allow_all_queues();
    EXPECT_EQ(order.size(), 150u);
    EXPECT_EQ(zan_threads_server_programming_unlock(), 0);
    zan_host_exec_q_stop();
    return order;
}

} // namespace

TEST(exec_queue_stepped, a_seed_decides_the_order)
{
    const uint64_t blocks = zan_heap_blocks_in_use();
    std::vector<size_t> waiting, waiting_again, waiting_other;
    zan_host_clock_set_virtual(true);
    const auto order = run_stepped(1, &waiting);
    EXPECT_EQ(run_stepped(1, &waiting_again), order);
    EXPECT_EQ(waiting_again, waiting);
    EXPECT_NE(run_stepped(2, &waiting_other), order);
    zan_host_clock_set_virtual(false);
    const std::set<size_t> depths(waiting.begin(), waiting.end());
    EXPECT_GT(depths.size(), 3u) << "some sends run much, some little";
    EXPECT_GT(*depths.rbegin(), 3u) << "and some nothing";
    EXPECT_EQ(zan_heap_blocks_in_use(), blocks);
}

TEST(exec_queue_exercise, takes_a_request_out_of_the_path)
{
    zan_exec_q_msg_st msg = {};
    uint8_t is_async = 1;
    EXPECT_FALSE(zan_server_perf_sanity_process_req_fn(&msg, true, &is_async));
    zan_host_set_perf_exercise([](zan_exec_q_msg_st *, bool is_async_write, uint8_t *out) {
        if (out)
            *out = 0;
        return is_async_write;
    });
    EXPECT_TRUE(zan_server_perf_sanity_process_req_fn(&msg, true, &is_async));
    EXPECT_EQ(is_async, 0);
    EXPECT_FALSE(zan_server_perf_sanity_process_req_fn(&msg, false, nullptr));
    zan_host_set_perf_exercise(nullptr);
}
