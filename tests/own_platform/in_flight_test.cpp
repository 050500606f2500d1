/* At most one asynchronous write of an object is under way: what comes next waits for it, with the
 * dispatch lock free meanwhile. */
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "host_control.h"
#include "locks.h"
#include "object_maker.h"
#include "table_crud_ctx.h"

using namespace bench;

namespace
{

std::atomic<uint32_t> creates, updates, deletes, post_actions;

class InFlight : public testing::TestWithParam<const char *>
{
};

} // namespace

extern "C" {
#define COUNTED(T)                                                                                 \
    ZAN_EXPORT zan_rcode srv_##T##_create(zan_table_base_st *)                                     \
    {                                                                                              \
        creates++;                                                                                 \
        return EOK;                                                                                \
    }                                                                                              \
    ZAN_EXPORT zan_rcode srv_##T##_update(zan_delta_lists_t *)                                     \
    {                                                                                              \
        updates++;                                                                                 \
        return EOK;                                                                                \
    }                                                                                              \
    ZAN_EXPORT zan_rcode srv_##T##_delete(zan_table_base_st *)                                     \
    {                                                                                              \
        deletes++;                                                                                 \
        return EOK;                                                                                \
    }                                                                                              \
    ZAN_EXPORT zan_rcode srv_##T##_post_update_action(zan_table_base_st *, zan_table_base_st *)    \
    {                                                                                              \
        post_actions++;                                                                            \
        return EOK;                                                                                \
    }
COUNTED(testasyncupdate)
COUNTED(mplsnh)
COUNTED(mplslabel)
COUNTED(srv6nh)
}

TEST_P(InFlight, AnUpdateAndADeleteWaitForTheWriteBeforeThem)
{
    const server_t server({.num_npus = 2});
    const zan_table_def_t *def = table(GetParam());
    run(with_key(def, 1));
    settle();
    ASSERT_EQ(creates, 2u);
    kor_core_lock_dispatch_lock();
    for (const auto operation : {ZAN_TABLE_UPDATE, ZAN_TABLE_DELETE}) {
        /* A first write that the NPUs do not get to. */
        zan_host_exec_q_hold(3);
        const object_t first = with_key(def, 1, ZAN_TABLE_UPDATE);
        first->flag |= ZAN_FLAG_RETRY_MODE;
        const result_t sent = run(first);
        const auto *stored = (const zan_table_base_st *)zan_db_get(first.get());
        EXPECT_EQ(sent.rc, (zan_rcode)EOK);
        ASSERT_EQ(__atomic_load_n(&stored->inflight, __ATOMIC_SEQ_CST), 1);
        const uint32_t updates_before = updates;

        /* Somebody who needs the dispatch lock gets it while the second write waits. */
        std::atomic<bool> had_lock = false, second_is_through = false;
        std::thread other([&] {
            kor_core_lock_dispatch_lock();
            had_lock = true;
            EXPECT_FALSE(second_is_through);
            EXPECT_EQ(updates, updates_before) << "nothing has reached an NPU";
            kor_core_unlock_dispatch_lock();
            zan_host_exec_q_hold(0);
        });
        const object_t second = with_key(def, 1, operation);
        second->flag |= ZAN_FLAG_RETRY_MODE;
        EXPECT_EQ(run(second).rc, (zan_rcode)EOK);
        second_is_through = true;
        other.join();
        EXPECT_TRUE(had_lock);
        settle();
    }
    kor_core_unlock_dispatch_lock();
    EXPECT_EQ(updates, 2u * 3);
    EXPECT_EQ(deletes, 2u);
    EXPECT_EQ(post_actions, def->post_actions ? 3u : 0u) << "once for each write, by the last NPU";
    EXPECT_EQ(residue(), residue_t()) << to_string(residue());
}

INSTANTIATE_TEST_SUITE_P(Tables, InFlight,
                         testing::Values("testasyncupdate", "mplsnh", "mplslabel", "srv6nh"));
