/* What a platform may say and hear of a delete, beside the hook of the operation itself. */
#include <gtest/gtest.h>

#include "object_maker.h"

using namespace bench;

namespace
{

zan_rcode action;
uint32_t asked, events, deletes, independent, independent_by_mask;

} // namespace

extern "C" {
/* lagport: the platform decides what a delete is. */
ZAN_EXPORT zan_rcode srv_lagport_delete_action_select(srv_delete_action_ctx_t *ctx)
{
    asked++;
    EXPECT_EQ(ctx->new_obj->table_operation, ZAN_TABLE_DELETE);
    EXPECT_EQ(ctx->old_obj->obj_handle, (uint64_t)(uintptr_t)ctx->old_obj) << "the stored object";
    return action;
}

/* l3intf: the delete is shown as an event first. */
ZAN_EXPORT zan_rcode srv_l3intf_event(kor_dpd_event_ctx_t *walk_ctx, zan_table_base_st *obj)
{
    events++;
    EXPECT_EQ(*(const uint32_t *)(const void *)walk_ctx, (uint32_t)ZAN_TABLE_EVENT);
    EXPECT_EQ(obj->table_operation, ZAN_TABLE_EVENT);
    return 0x4fa01234; /* nobody looks at it */
}

ZAN_EXPORT zan_rcode srv_l3intf_delete(zan_table_base_st *obj)
{
    deletes++;
    EXPECT_GE(events, 1u) << "the event comes first";
    EXPECT_EQ(obj->table_operation, ZAN_TABLE_DELETE);
    return EOK;
}

/* ipnh: what hardware holds beside the entry goes at once, the entry waits for the children. */
ZAN_EXPORT zan_rcode srv_ipnh_delete_independent_hw_resource(zan_table_base_st *)
{
    independent++;
    return 0x4fa01234; /* traced, and no more */
}

ZAN_EXPORT zan_rcode srv_l3intf_delete_independent_hw_resource(zan_table_base_st *)
{
    independent_by_mask++;
    return EOK;
}
}

TEST(DeleteHooks, TheActionHookMayEndTheFlow)
{
    const server_t server({.num_npus = 1});
    const struct {
        zan_rcode action, rc;
        uint32_t left;
    } cases[] = {
        {0x4fa05678, 0x4fa05678, 1},
        {0xffffffff, EOK, 1}, /* the platform has taken the delete over */
        {0, EOK, 0},
    };
    run(with_key(table("lagport"), 1));
    for (const auto &c : cases) {
        action = c.action;
        EXPECT_EQ(run(with_key(table("lagport"), 1, ZAN_TABLE_DELETE)).rc, c.rc) << c.action;
        EXPECT_EQ(zan_db_count(table("lagport")->id), c.left) << c.action;
    }
    EXPECT_EQ(asked, 3u);
}

TEST(DeleteHooks, ADeleteIsShownAsAnEventInTheTablesThatAskForIt)
{
    const server_t server({.num_npus = 1});
    run(with_key(table("l3intf"), 1));
    EXPECT_EQ(run(with_key(table("l3intf"), 1, ZAN_TABLE_DELETE)).rc, (zan_rcode)EOK);
    EXPECT_EQ(events, 1u);
    EXPECT_EQ(deletes, 1u);
    EXPECT_EQ(residue(), residue_t()) << to_string(residue());
}

TEST(DeleteHooks, WhatNeedsNoChildrenGoneGoesWhenTheObjectIsHeld)
{
    const server_t server({.num_npus = 1});
    create("l3intf intf=1");
    create("macllnh intf=1 adj_id=1 l3intf_obj.l3intf.intf=1");
    create("ipnh nh_id=1 next_obj.macllnh.intf=1 next_obj.macllnh.adj_id=1");
    create("ipnhgroup nhg_id=1 nexthop_next_obj[0].ipnh.nh_id=1");
    EXPECT_EQ(run(object("ipnh nh_id=1", ZAN_TABLE_DELETE)).rc, ZAN_RC_DELAY_DELETE);
    EXPECT_EQ(independent, 1u);
    EXPECT_EQ(run(object("ipnhgroup nhg_id=1", ZAN_TABLE_DELETE)).rc, (zan_rcode)EOK);
    EXPECT_EQ(zan_db_count(table("ipnh")->id), 0u);
    EXPECT_EQ(independent, 2u) << "NPU by NPU it is called in front of each delete again";

    ASSERT_NE(table("l3intf")->table_class, 0);
    EXPECT_EQ(run(object("l3intf intf=1", ZAN_TABLE_DELETE)).rc, ZAN_RC_DELAY_DELETE);
    EXPECT_EQ(run(object("macllnh intf=1 adj_id=1", ZAN_TABLE_DELETE)).rc, (zan_rcode)EOK);
    EXPECT_EQ(zan_db_count(table("l3intf")->id), 0u);
    EXPECT_EQ(independent_by_mask, 1u)
        << "where one call is for the object, a held one has been through the hook";
}
