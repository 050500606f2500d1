/* Roles, the FRR hand-over, locks, clock, recycled memory and the internal queues. */
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <random>
#include <set>
#include <thread>

#include "clock.h"
#include "host_tables.h"
#include "host_threads.h"
#include "internal_queues.h"
#include "locks.h"
#include "table_database.h"

/* ---- Roles ---- */

TEST(thread_roles, decide_what_a_thread_may_do)
{
    const uint32_t all[] = {ZAN_BWALK_ALLOWED, ZAN_DELAY_DELETE_Q_ALLOWED,
                            ZAN_EXEC_Q_CONTROL_OPS_ALLOWED, ZAN_INTERNAL_Q_ALLOWED};
    zan_table_base_st obj = {};
    obj.npu_id = 5;
    std::thread([&] {
        EXPECT_EQ(zan_thread_set_role(ZAN_THREAD_STATS, -1), ZAN_THREAD_NONE);
        EXPECT_TRUE(zan_core_is_secondary_server_thread());
        EXPECT_EQ(zan_thread_set_role(ZAN_THREAD_NPU, 3), ZAN_THREAD_STATS);
        EXPECT_EQ(kor_core_get_npu_id(&obj), 3u);
        for (uint32_t action : all)
            EXPECT_FALSE(zan_check_action_allowed(action));
        zan_thread_set_role(ZAN_THREAD_FRR, -1);
        EXPECT_TRUE(zan_core_is_frr_thread());
        EXPECT_FALSE(zan_core_is_dispatch_thread());
        EXPECT_EQ(kor_core_get_npu_id(&obj), 5u);
        for (uint32_t action : all)
            EXPECT_FALSE(zan_check_action_allowed(action)) << "outside its turn";
        zan_frr_enter();
        for (uint32_t action : all)
            EXPECT_EQ(zan_check_action_allowed(action), action == ZAN_BWALK_ALLOWED);
        zan_frr_leave();
        EXPECT_FALSE(zan_check_action_allowed(ZAN_BWALK_ALLOWED));
    }).join();
    zan_thread_set_role(ZAN_THREAD_NONE, -1);
    EXPECT_FALSE(zan_check_action_allowed(ZAN_BWALK_ALLOWED)) << "no role";
    zan_thread_set_role(ZAN_THREAD_DISPATCHER, -1);
    EXPECT_TRUE(zan_core_is_dispatcher_spawned());
    for (uint32_t action : all)
        EXPECT_TRUE(zan_check_action_allowed(action));
    zan_set_trans_id(77, nullptr, 0);
    std::thread([] { EXPECT_EQ(zan_get_trans_id(), 0u); }).join();
    EXPECT_EQ(zan_get_trans_id(), 77u);
    zan_clear_trans_id();
    EXPECT_EQ(zan_get_trans_id(), 0u);
}

/* ---- The FRR hand-over ---- */

TEST(frr_hand_over, enters_at_a_yield_only_and_one_at_a_time)
{
    zan_thread_set_role(ZAN_THREAD_DISPATCHER, -1);
    int inside = 0; /* no atomic: the hand-over alone orders it */
    std::atomic<int> finished = 0;
    uint64_t turns = 0;
    zan_dispatcher_enter();
    std::thread frr[3];
    for (std::thread &thread : frr)
        thread = std::thread([&] {
            zan_thread_set_role(ZAN_THREAD_FRR, -1);
            for (int i = 0; i < 200; i++) {
                zan_frr_enter();
                EXPECT_EQ(inside++, 0);
                turns++;
                inside--;
                zan_frr_leave();
            }
            finished++;
        });
    uint64_t batches = 0;
    while (finished < 3) {
        EXPECT_EQ(inside++, 0);
        const uint64_t before = turns;
        std::this_thread::yield();
        EXPECT_EQ(turns, before) << "nobody enters between two yields";
        inside--;
        zan_allow_access_frr_thread();
        if (++batches % 50 == 0) { /* idle for a moment */
            zan_dispatcher_leave();
            std::this_thread::yield();
            zan_dispatcher_enter();
        }
    }
    zan_dispatcher_leave();
    for (std::thread &thread : frr)
        thread.join();
    EXPECT_EQ(turns, 600u);
}

TEST(frr_hand_over, a_waiting_thread_has_its_turn_at_the_next_yield)
{
    zan_thread_set_role(ZAN_THREAD_DISPATCHER, -1);
    zan_dispatcher_enter();
    zan_allow_access_frr_thread(); /* nobody waits */
    zan_dispatcher_enter();        /* an entry inside an entry keeps the place to the end */
    zan_dispatcher_leave();
    std::atomic<bool> waits = false;
    bool had_turn = false;
    std::thread frr([&] {
        zan_thread_set_role(ZAN_THREAD_FRR, -1);
        waits = true;
        zan_frr_enter();
        had_turn = true;
        zan_frr_leave();
    });
    while (!waits)
        std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(had_turn);
    zan_allow_access_frr_thread();
    EXPECT_TRUE(had_turn) << "the yield returns when the turn is over";
    zan_dispatcher_leave();
    frr.join();
}

/* ---- Locks ---- */

TEST(locks, refuse_what_a_broken_caller_does)
{
    int (*const pairs[][2])(void) = {
        {kor_core_lock_dispatch_lock, kor_core_unlock_dispatch_lock},
        {zan_threads_server_programming_lock, zan_threads_server_programming_unlock},
        {kor_core_fec_id_lock, kor_core_fec_id_unlock},
        {kor_db_lock, kor_db_unlock},
        {kor_db_stats_lock, kor_db_stats_unlock},
        {kor_hw_access_complete, kor_hw_access_in_progress},
    };
    for (auto [take, give] : pairs) {
        EXPECT_NE(give(), 0) << "not held";
        EXPECT_EQ(take(), 0);
        EXPECT_NE(take(), 0) << "held already";
        EXPECT_EQ(give(), 0);
    }
    EXPECT_EQ(kor_core_lock_dispatch_lock(), 0);
    EXPECT_EQ(kor_db_lock(), 0);
    const uint32_t held = host_locks_drop();
    std::thread([] {
        EXPECT_EQ(kor_core_lock_dispatch_lock(), 0);
        EXPECT_EQ(kor_core_unlock_dispatch_lock(), 0);
    }).join();
    EXPECT_NE(kor_db_unlock(), 0) << "dropped";
    host_locks_retake(held);
    EXPECT_EQ(kor_db_unlock(), 0);
    EXPECT_EQ(kor_core_unlock_dispatch_lock(), 0);
}

/* ---- Clock ---- */

TEST(host_clock, thirty_minutes_pass_at_no_cost)
{
    timespec real_before, real_after, before, after, diff;
    clock_gettime(CLOCK_MONOTONIC, &real_before);
    zan_host_clock_set_virtual(true);
    for (clockid_t clock : {CLOCK_REALTIME, CLOCK_REALTIME_COARSE, CLOCK_MONOTONIC}) {
        ASSERT_EQ(zan_clock_gettime(clock, &before), 0);
        for (int i = 0; i < 30 * 60; i++)
            zan_usleep(1000000);
        ASSERT_EQ(zan_clock_gettime(clock, &after), 0);
        clock_diff(&before, &after, &diff);
        EXPECT_EQ(diff.tv_sec, 1800);
        EXPECT_EQ(diff.tv_nsec, 0);
    }
    zan_clock_gettime(CLOCK_REALTIME, &before);
    zan_host_clock_advance(2500000);
    clock_diff(&before, nullptr, &diff);
    EXPECT_EQ(diff.tv_sec, 2);
    EXPECT_EQ(diff.tv_nsec, 500000000);
    zan_host_clock_set_virtual(false);
    clock_gettime(CLOCK_MONOTONIC, &real_after);
    EXPECT_LT(real_after.tv_sec - real_before.tv_sec, 60);

    zan_clock_gettime(CLOCK_MONOTONIC, &before);
    zan_usleep(2000);
    zan_clock_gettime(CLOCK_MONOTONIC, &after);
    clock_diff(&before, &after, &diff);
    EXPECT_GE(diff.tv_sec * 1000000000 + diff.tv_nsec, 2000000);
    clock_diff(&after, &before, &diff);
    EXPECT_EQ(diff.tv_sec + diff.tv_nsec, 0) << "a negative difference is 0";
}

TEST(host_clock, arithmetic_and_text)
{
    timespec out;
    const timespec in = {10, 500000000};
    zan_divide_timespec(&in, 4, &out);
    EXPECT_EQ(out.tv_sec, 2);
    EXPECT_EQ(out.tv_nsec, 625000000);
    zan_divide_timespec(&in, 0, &out);
    EXPECT_EQ(out.tv_sec + out.tv_nsec, 0);
    setenv("TZ", "UTC", 1);
    tzset();
    const timespec when = {1769860800, 123999999};
    char text[32], small[8];
    EXPECT_STREQ(ctime_r_msec(&when, text, sizeof text), "2026-01-31 12:00:00.123");
    EXPECT_STREQ(ctime_r_msec(&when, small, sizeof small), "2026-01");
    const uint64_t cycles = zan_clock_cycles();
    EXPECT_LE(cycles, zan_clock_cycles());
}

/* ---- Recycled memory ---- */

TEST(object_memory, blocks_are_zeroed_apart_and_counted)
{
    zan_thread_set_role(ZAN_THREAD_DISPATCHER, -1);
    std::mt19937 random(2);
    struct block_t {
        uint8_t *at;
        size_t size;
        uint8_t fill;
    };
    std::vector<block_t> blocks;
    const uint64_t start = zan_heap_blocks_in_use();
    for (int turn = 0; turn < 20000; turn++) {
        if (random() % 2) {
            const size_t size = random() % 20 == 0 ? random() % 20000 : random() % 600;
            auto *at = (uint8_t *)zan_heap_calloc(size);
            ASSERT_EQ((uintptr_t)at % 16, 0u);
            for (size_t i = 0; i < size; i++)
                ASSERT_EQ(at[i], 0);
            const auto fill = (uint8_t)random();
            memset(at, fill, size);
            blocks.push_back({at, size, fill});
        } else if (!blocks.empty()) {
            std::swap(blocks[random() % blocks.size()], blocks.back());
            for (size_t i = 0; i < blocks.back().size; i++)
                ASSERT_EQ(blocks.back().at[i], blocks.back().fill);
            zan_heap_free(blocks.back().at);
            blocks.pop_back();
        }
        ASSERT_EQ(zan_heap_blocks_in_use(), start + blocks.size());
    }
    for (const block_t &block : blocks)
        zan_heap_free(block.at);
    zan_heap_free(nullptr);
    EXPECT_EQ(zan_heap_blocks_in_use(), start);
}

TEST(object_memory, a_block_from_another_thread_is_freed_here)
{
    zan_thread_set_role(ZAN_THREAD_DISPATCHER, -1);
    const uint64_t start = zan_heap_blocks_in_use();
    void *block = nullptr;
    std::thread([&] { block = zan_heap_calloc(100); }).join();
    EXPECT_EQ(zan_heap_blocks_in_use(), start + 1);
    zan_heap_free(block);
    EXPECT_EQ(zan_heap_blocks_in_use(), start);
}

TEST(object_memory, an_npu_thread_frees_nothing)
{
    void *block = zan_heap_alloc(10);
    EXPECT_DEATH(
        {
            zan_thread_set_role(ZAN_THREAD_NPU, 0);
            zan_heap_free(block);
        },
        "an NPU thread frees nothing");
    zan_heap_free(block);
}

/* ---- Internal queues ---- */

class internal_queues : public testing::Test
{
protected:
    void SetUp() override
    {
        zan_thread_set_role(ZAN_THREAD_DISPATCHER, -1);
        ASSERT_EQ(zan_db_init(nullptr, NODE_ID), EOK);
    }
    void TearDown() override
    {
        zan_host_internal_queues_clear();
        zan_db_deinit();
    }
    static zan_table_base_st *waiting(uint32_t id)
    {
        zan_table_base_st *obj = node_stored(NODE_ID, id);
        obj->dpd.del_flag = ZAN_DEL_FLAG_DELAY_DELETE;
        return obj;
    }
};

TEST_F(internal_queues, the_delete_queue_is_in_order_and_holds_an_object_once)
{
    EXPECT_TRUE(kor_server_is_queue_empty(ZAN_QUEUE_DELAY_DELETE));
    EXPECT_EQ(kor_core_queue_dequeue(ZAN_QUEUE_DELAY_DELETE), nullptr);
    std::vector<zan_table_base_st *> objects;
    for (uint32_t id = 0; id < 300; id++) /* more than the ring begins with, and round its end */
        objects.push_back(waiting(id));
    for (uint32_t round = 0; round < 3; round++) {
        for (zan_table_base_st *obj : objects) {
            EXPECT_EQ(kor_core_queue_enqueue(obj, ZAN_QUEUE_DELAY_DELETE), EOK);
            EXPECT_EQ(kor_core_queue_enqueue(obj, ZAN_QUEUE_DELAY_DELETE), EOK);
        }
        EXPECT_FALSE(kor_server_is_queue_empty(ZAN_QUEUE_DELAY_DELETE));
        for (zan_table_base_st *obj : objects)
            ASSERT_EQ(kor_core_queue_dequeue(ZAN_QUEUE_DELAY_DELETE), obj);
        EXPECT_TRUE(kor_server_is_queue_empty(ZAN_QUEUE_DELAY_DELETE));
    }
}

TEST_F(internal_queues, the_delete_queue_passes_over_what_need_not_go_any_more)
{
    zan_table_base_st *revived = waiting(1), *gone = waiting(2), *replaced = waiting(3),
                      *last = waiting(4);
    for (zan_table_base_st *obj : {revived, gone, replaced, last})
        kor_core_queue_enqueue(obj, ZAN_QUEUE_DELAY_DELETE);
    revived->dpd.del_flag = 0;
    node_delete(replaced);
    node_delete(gone);
    zan_table_base_st *in_its_place = node_stored(NODE_ID, 5); /* and does not wait for a delete */
    EXPECT_TRUE(in_its_place == gone || in_its_place == replaced);
    EXPECT_EQ(kor_core_queue_dequeue(ZAN_QUEUE_DELAY_DELETE), last);
    EXPECT_EQ(kor_core_queue_dequeue(ZAN_QUEUE_DELAY_DELETE), nullptr);
    kor_core_queue_enqueue(revived, ZAN_QUEUE_DELAY_DELETE);
    revived->dpd.del_flag = ZAN_DEL_FLAG_DELAY_DELETE;
    EXPECT_EQ(kor_core_queue_dequeue(ZAN_QUEUE_DELAY_DELETE), revived) << "queued anew";
}

TEST_F(internal_queues, any_thread_puts_objects_in_the_internal_async_queue)
{
    constexpr uint32_t count = 2000;
    std::thread threads[2];
    for (uint32_t t = 0; t < 2; t++)
        threads[t] = std::thread([t] {
            for (uint32_t i = 0; i < count; i++) {
                auto *obj = (node_obj_t *)zan_heap_calloc(sizeof(node_obj_t));
                obj->base.table_id = NODE_ID;
                obj->key.id = t * count + i;
                EXPECT_EQ(kor_core_queue_enqueue(&obj->base, ZAN_QUEUE_INTERNAL_ASYNC), EOK);
            }
        });
    uint32_t seen = 0, next[2] = {0, count};
    while (seen < 2 * count) {
        zan_table_base_st *obj = kor_core_queue_dequeue(ZAN_QUEUE_INTERNAL_ASYNC);
        if (!obj)
            continue;
        seen++;
        ASSERT_EQ(node_id(obj), next[node_id(obj) / count]++) << "each thread's in order";
        zan_heap_free(obj);
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_TRUE(kor_server_is_queue_empty(ZAN_QUEUE_INTERNAL_ASYNC));
    EXPECT_EQ(kor_core_queue_enqueue(nullptr, 1), ZAN_RC_BAD_ARGUMENT);
    node_obj_t obj = node_record(NODE_ID, 1);
    EXPECT_EQ(kor_core_queue_enqueue(&obj.base, 3), ZAN_RC_BAD_ARGUMENT);
}

TEST_F(internal_queues, east_west_runs_what_tools_injected_in_order)
{
    static std::vector<int> ran;
    ran.clear();
    zan_dsp_q_process_east_west();
    static int numbers[] = {0, 1, 2};
    const auto again = [](void *arg) { ran.push_back(*(int *)arg + 10); };
    const auto first = [](void *arg) { ran.push_back(*(int *)arg); };
    for (int &n : numbers)
        EXPECT_TRUE(zan_host_east_west_inject(first, &n));
    zan_dsp_q_process_east_west();
    zan_host_east_west_inject(again, &numbers[0]);
    EXPECT_EQ(ran, (std::vector<int>{0, 1, 2}));
    zan_dsp_q_process_east_west();
    EXPECT_EQ(ran, (std::vector<int>{0, 1, 2, 10}));
    zan_dsp_q_process_east_west();
    EXPECT_EQ(ran.size(), 4u);
}

TEST_F(internal_queues, the_client_hears_of_a_postponed_delete_that_succeeds)
{
    node_obj_t obj = node_record(NODE_ID, 1);
    delete_notified.clear();
    zan_call_pd_handle_delayed_delete_rc(ZAN_RC_DELAY_DELETE, &obj.base);
    EXPECT_TRUE(delete_notified.empty());
    zan_call_pd_handle_delayed_delete_rc(EOK, &obj.base);
    EXPECT_EQ(delete_notified, std::vector<zan_table_base_st *>{&obj.base});
}
