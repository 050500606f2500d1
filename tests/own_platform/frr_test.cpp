/* The hand-over to the FRR thread, seen from inside a batch: this binary's hook is called in the
 * middle of every object, so that it knows how many objects a waiting thread lets pass. */
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "host_assert.h"
#include "host_control.h"
#include "object_maker.h"
#include "thread_control.h"

using namespace bench;

namespace
{

constexpr uint32_t every = 500; /* objects between two requests */

/* The dispatcher's, and the FRR thread's while it holds the dispatcher. */
uint32_t objects_begun, longest_wait, turns, asked_at;
std::atomic<uint32_t> requests;
std::atomic<bool> over;

/* The FRR thread asks for the dispatcher now, in the middle of this object. */
void ask_for_a_turn()
{
    asked_at = objects_begun;
    requests++;
    while (zan_host_frr_waiting() == 0)
        std::this_thread::yield();
}

void serve_requests()
{
    zan_thread_set_role(ZAN_THREAD_FRR, -1);
    for (uint32_t served = 0;;) {
        while (served == requests.load() && !over.load())
            std::this_thread::yield();
        if (served == requests.load())
            return;
        served++;
        zan_frr_enter();
        const uint32_t wait =
            objects_begun - asked_at + 1; /* the object in work, and those behind */
        longest_wait = std::max(longest_wait, wait);
        turns++;
        EXPECT_EQ(run(with_key(table("l3intf"), served)).rc, (zan_rcode)EOK);
        zan_frr_leave();
    }
}

} // namespace

extern "C" ZAN_EXPORT zan_rcode srv_iproute_resolve(zan_table_base_st *, zan_table_base_st *)
{
    if (++objects_begun % every == 0)
        ask_for_a_turn();
    return EOK;
}

TEST(Frr, ABatchOfOneIsServedBetweenTwoObjectsOfALargeOne)
{
    const server_t server({.num_npus = 8});
    const uint32_t objects = HOST_SANITIZED ? 10'000 : 100'000;
    zan_dispatcher_enter();
    std::thread frr(serve_requests);
    batch_t batch;
    batch.async = true;
    for (uint32_t i = 0; i < objects; i++)
        batch.add(with_key(table("iproute"), i + 1));
    batch.run();
    over = true;
    zan_dispatcher_leave();
    frr.join();
    settle();
    printf("%u turns in a batch of %u objects; the longest wait was %u object\n", turns, objects,
           longest_wait);
    EXPECT_EQ(turns, objects / every);
    EXPECT_EQ(longest_wait, 1u);
    EXPECT_EQ(zan_db_count(table("iproute")->id), objects);
    EXPECT_EQ(zan_db_count(table("l3intf")->id), turns);
}
