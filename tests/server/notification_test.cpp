/* Notifications: what is told, to whom it goes first, and what happens when nobody takes it. */
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <map>
#include <thread>

#include "host_control.h"
#include "host_notifications.h"
#include "locks.h"
#include "npu_sim_control.h"
#include "object_maker.h"
#include "table_crud_ctx.h"

using namespace bench;

namespace
{

std::atomic<uint32_t> woken;

struct free_notification_t {
    void operator()(zan_host_notification_t *n) const
    {
        zan_host_notif_free(n);
    }
};
using notification_t = std::unique_ptr<zan_host_notification_t, free_notification_t>;

notification_t next()
{
    return notification_t(zan_host_notif_take());
}

const zan_table_base_st *object_of(const notification_t &n)
{
    return (const zan_table_base_st *)(n.get() + 1);
}

class Notification : public testing::Test
{
protected:
    Notification() : server({.num_npus = 2})
    {
        woken = 0;
        zan_host_notif_set_receiver([](void *) { woken++; }, nullptr);
    }
    ~Notification() override
    {
        zan_host_notif_set_receiver(nullptr, nullptr);
    }
    const server_t server;
};

} // namespace

/* A refused request of an asynchronous table is told with the object as it came; a synchronous
 * table's slot has told it already. */
TEST_F(Notification, CarriesTheObjectAndWhatBecameOfIt)
{
    object_t obj = object("iproute vrf_id=0 prefix=1.0.0.0/8 next_obj.ipnhgroup.nhg_id=7");
    obj->client_epoch = 77;
    EXPECT_EQ(run(obj).rc, ZAN_RC_NOT_FOUND);
    EXPECT_EQ(woken, 1u);
    const notification_t n = next();
    ASSERT_TRUE(n);
    EXPECT_EQ(n->hdr.type, (uint32_t)ZAN_NOTIF_RESOLVE_FAILED);
    EXPECT_EQ(n->hdr.table_id, table("iproute")->id);
    EXPECT_EQ(n->hdr.table_operation, (uint32_t)ZAN_TABLE_CREATE);
    EXPECT_NE(n->hdr.trans_id, 0u);
    EXPECT_EQ(n->hdr.obj_handle, 0u);
    EXPECT_EQ(n->hdr.jid, 77u);
    EXPECT_EQ(n->hdr.req_msg_size, n->size);
    EXPECT_EQ(zan_key_cmp(table("iproute"), zan_obj_key(table("iproute"), object_of(n)),
                          zan_obj_key(table("iproute"), obj.get())),
              0);
    EXPECT_FALSE(next());
    const uint64_t asked = zan_host_notifications(ZAN_NOTIF_NOT_FOUND);
    EXPECT_EQ(destroy("l3intf intf=4711").rc, ZAN_RC_NOT_FOUND);
    EXPECT_EQ(zan_host_notifications(ZAN_NOTIF_NOT_FOUND), asked + 1);
    EXPECT_FALSE(next()) << "filtered";
}

/* Types 2 and 6 overtake what is queued; what the queue does not take any more stands behind it,
 * and the oldest that goes for it is counted. */
TEST_F(Notification, OvertakesTheQueueOrFollowsIt)
{
    const object_t route = object("iproute vrf_id=0 prefix=1.0.0.0/8");
    run(route);
    for (const uint32_t type : {30u, 6u, 31u, 2u, 14u})
        zan_send_srv_notif(route.get(), type);
    EXPECT_EQ(woken, 1u) << "once, until all is taken";
    std::map<uint64_t, uint32_t> made; /* by sequence */
    for (const uint32_t type : {6u, 2u, 30u, 31u, 14u}) {
        const notification_t n = next();
        EXPECT_EQ(n->hdr.type, type);
        made[n->sequence] = type;
    }
    const std::vector<uint32_t> in_order = {30, 6, 31, 2, 14};
    EXPECT_TRUE(std::equal(made.begin(), made.end(), in_order.begin(), in_order.end(),
                           [](const auto &m, uint32_t type) { return m.second == type; }));
    EXPECT_FALSE(next());

    const uint32_t max = ZAN_HOST_NOTIF_QUEUED_MAX;
    for (uint32_t i = 0; i < max + 5; i++) {
        route->base_trans_id = i;
        zan_send_srv_notif(route.get(), 30);
    }
    uint32_t lost = 0;
    for (uint32_t i = 5; i < max + 5; i++) {
        const notification_t n = next();
        ASSERT_TRUE(n);
        EXPECT_EQ(n->hdr.trans_id, i) << "the newest are there, and in order";
        lost += n->lost;
    }
    EXPECT_FALSE(next());
    EXPECT_EQ(lost, 5u);
}

/* One buffer for a table whose objects vary in size: it grows with the largest, and a smaller one
 * behind it is told with its own size. */
TEST_F(Notification, OfAnObjectWithMembersHasThemAll)
{
    const zan_table_def_t *def = table("ipnhgroup");
    for (const uint32_t members : {2u, 100u, 3u}) {
        object_t obj = with_key(def, members, ZAN_TABLE_CREATE, members);
        fill_attributes(def, obj.get(), members);
        zan_send_srv_notif(obj.get(), 6);
        const notification_t n = next();
        ASSERT_TRUE(n);
        EXPECT_EQ(n->hdr.num_repeat_count, members);
        EXPECT_EQ(n->size, def->obj_size + zan_obj_dyn_size(def, members));
        std::vector<uint8_t> want(n->size);
        zan_obj_serialize(def, 0, obj.get(), want.data());
        EXPECT_EQ(memcmp(want.data(), n.get() + 1, n->size), 0);
    }
}

/* From the dispatcher and two other threads at once: each thread's own stay in order. */
TEST_F(Notification, OfOneThreadStayInOrder)
{
    constexpr uint32_t each = 1000;
    auto send = [](uint32_t thread) {
        object_t obj = with_key(table("ipnhgroup"), thread, ZAN_TABLE_CREATE, 2);
        for (uint32_t i = 0; i < each; i++) {
            obj->base_trans_id = i;
            zan_send_srv_notif(obj.get(), 30);
        }
    };
    run(with_key(table("ipnhgroup"), 9));
    std::thread one(send, 1), two(send, 2);
    send(3);
    one.join();
    two.join();
    std::map<std::string, uint32_t> expected;
    const zan_table_def_t *def = table("ipnhgroup");
    uint32_t count = 0;
    while (const notification_t n = next()) {
        const std::string key((const char *)zan_obj_key(def, object_of(n)), def->key_size);
        EXPECT_EQ(n->hdr.trans_id, expected[key]++);
        count++;
    }
    EXPECT_EQ(count, 3 * each);
    zan_host_mutex_block_st blocks[64];
    EXPECT_EQ(zan_host_mutex_blocks(blocks, 64), 0u) << "nobody waits any more";
    ptd_set_mutex_block(&blocks, "here", 42);
    ASSERT_EQ(zan_host_mutex_blocks(blocks, 64), 1u);
    EXPECT_STREQ(blocks[0].function, "here");
    EXPECT_EQ(blocks[0].line, 42u);
    ptd_unset_mutex_block();
    EXPECT_EQ(zan_host_mutex_blocks(blocks, 64), 0u);
}

/* Nothing is kept for nobody. */
TEST_F(Notification, WithoutAReceiverIsDropped)
{
    const object_t route = object("iproute vrf_id=0 prefix=1.0.0.0/8");
    run(route);
    zan_send_srv_notif(route.get(), 30);
    zan_host_notif_set_receiver(nullptr, nullptr);
    zan_send_srv_notif(route.get(), 6);
    EXPECT_FALSE(next());
}
