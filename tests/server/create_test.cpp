/* What a create meets besides a plain new key: stored objects in every state, bad handles,
 * quarantined parents, identifiers that run out, masks, and the standby role. */
#include <cstring>
#include <gtest/gtest.h>

#include "host_control.h"
#include "host_notifications.h"
#include "host_services.h"
#include "host_start.h"
#include "npu_sim_control.h"
#include "object_maker.h"
#include "table_crud_ctx.h"

using namespace bench;

namespace
{

void mark_stale(const zan_table_def_t *def)
{
    run(empty(def, ZAN_TABLE_REPLAY_START));
}

uint32_t ref_cnt(uint64_t handle)
{
    const zan_table_def_t *def = zan_table_defs[stored(handle)->table_id];
    return *(uint32_t *)zan_obj_at(stored(handle), def->obj_ref_cnt_offset);
}

} // namespace

TEST(Create, OnAStaleObjectClearsTheMarkWithoutAHardwareWrite)
{
    const server_t server({});
    for (const char *name : {"l3intf", "macllnh", "iproute"}) {
        const zan_table_def_t *def = table(name);
        const object_t obj = with_key(def, 1);
        const uint64_t handle = run(obj).handle;
        settle();
        npu_sim_counts_t before, after;
        npu_sim_counts(0, &before);
        for (const uint8_t kind : {0, 1, 2, 3}) {
            mark_stale(def);
            ASSERT_TRUE(stored(handle)->flag & ZAN_FLAG_STALE);
            obj->write_kind = kind;
            const result_t r = run(obj);
            EXPECT_EQ(r.rc, (zan_rcode)EOK) << name << (int)kind;
            EXPECT_EQ(r.handle, handle) << name << (int)kind;
            EXPECT_FALSE(stored(handle)->flag & ZAN_FLAG_STALE) << name << (int)kind;
            if (kind == 0 && def->obj_ref_cnt_offset) {
                EXPECT_EQ(ref_cnt(handle), 1u) << "a replayed create starts the count anew";
            }
        }
        settle();
        npu_sim_counts(0, &after);
        EXPECT_EQ(after.creates, before.creates) << name;
    }
}

TEST(Create, ThatDiffersIsRefusedOrBecomesAnUpdate)
{
    const server_t server({});
    const zan_table_def_t *def = table("macllnh");
    const uint64_t handle = create("macllnh intf=1 adj_id=1 encap_id=5").handle;
    object_t other = object("macllnh intf=1 adj_id=1 encap_id=6");
    other->write_kind = ZAN_WRITE_KIND_STRICT;
    const result_t strict = run(other);
    EXPECT_EQ(strict.rc, ZAN_RC_EXISTS);
    EXPECT_EQ(strict.handle, handle);
    EXPECT_EQ(counter(def, ZAN_CTR_CREATE_STRICT_DIFFERS), 1u);
    EXPECT_EQ(ref_cnt(handle), 2u) << "the reference counts all the same";
    other->write_kind = ZAN_WRITE_KIND_REPLACE;
    const result_t converted = run(other);
    EXPECT_EQ(converted.rc, (zan_rcode)EOK);
    EXPECT_EQ(converted.handle, handle);
    EXPECT_EQ(counter(def, ZAN_CTR_CREATE_CONVERTED), 1u);
    EXPECT_EQ(counter(def, ZAN_CTR_UPDATE), 1u);
    EXPECT_EQ(ref_cnt(handle), 2u) << "an update is no further reference";
    EXPECT_EQ(dump(def), std::vector<std::string>{"intf=1 adj_id=1 encap_id=6"});
    EXPECT_EQ(hardware_differs(1), "");
}

TEST(Create, RevivesAnObjectThatWaitsForItsDelete)
{
    const server_t server({});
    const object_t obj = object("macllnh intf=1 adj_id=1 encap_id=5");
    const uint64_t handle = run(obj).handle;
    stored(handle)->dpd.del_flag |= ZAN_DEL_FLAG_DELAY_DELETE;
    EXPECT_EQ(read("macllnh intf=1 adj_id=1").rc, ZAN_RC_DELAY_DELETE)
        << "hidden from a plain read";
    EXPECT_EQ(read("macllnh", ZAN_TABLE_GET_FIRST).rc, (zan_rcode)EOK) << "though not from a scan";
    const result_t r = run(obj);
    EXPECT_EQ(r.rc, (zan_rcode)EOK) << "never a plain duplicate";
    EXPECT_EQ(r.handle, handle);
    EXPECT_FALSE(stored(handle)->dpd.del_flag & ZAN_DEL_FLAG_DELAY_DELETE);

    const object_t rejecting = with_key(table("testifwithcreatereject"), 1);
    const uint64_t waiting = run(rejecting).handle;
    stored(waiting)->dpd.del_flag |= ZAN_DEL_FLAG_DELAY_DELETE;
    EXPECT_EQ(run(rejecting).rc, ZAN_RC_CREATE_ON_DELETE);
    EXPECT_TRUE(stored(waiting)->dpd.del_flag & ZAN_DEL_FLAG_DELAY_DELETE);
}

TEST(Create, TakesAHandleForWhatItIs)
{
    const server_t server({});
    const uint64_t one = create("l3intf intf=1").handle;
    create("l3intf intf=2");
    const residue_t before = residue();
    object_t obj = object("l3intf intf=2");
    obj->obj_handle = one;
    EXPECT_EQ(run(obj).rc, ZAN_RC_KEY_MISMATCH) << "a handle that leads to another key";
    for (const uint64_t bad :
         {(uint64_t)0x1000, one + 8, UINT64_MAX, create("ipnh nh_id=1").handle}) {
        obj = object("l3intf intf=3");
        obj->obj_handle = bad;
        EXPECT_EQ(run(obj).rc, ZAN_RC_NOT_FOUND) << std::hex << bad;
    }
    residue_t after = residue();
    EXPECT_EQ(after.stored, before.stored + 1) << "the next hop alone";
    EXPECT_EQ(zan_db_count(table("l3intf")->id), 2u);
    obj = empty(table("l3intf"), ZAN_TABLE_GET);
    obj->obj_handle = one;
    EXPECT_EQ(run(obj).handle, one) << "a read by handle";
}

TEST(Create, TellsAQuarantinedParentFromAMissingOne)
{
    const server_t server({});
    /* Both tables are up; a parent of each kind stands in quarantine. */
    create("iproute vrf_id=0 prefix=1.0.0.0/8");
    create("ipnhgroup nhg_id=1");
    create("global index=1");
    zan_table_base_st *group = zan_db_quarantine_add(object("ipnhgroup nhg_id=7").get());
    zan_table_base_st *global = zan_db_quarantine_add(object("global index=7").get());
    ASSERT_TRUE(group && global);
    EXPECT_EQ(create("iproute vrf_id=0 prefix=2.0.0.0/8 next_obj.ipnhgroup.nhg_id=7").rc,
              ZAN_RC_PARENT_QUARANTINED);
    EXPECT_EQ(create("iproute vrf_id=0 prefix=2.0.0.0/8 next_obj.ipnhgroup.nhg_id=8").rc,
              ZAN_RC_NOT_FOUND);
    EXPECT_EQ(create("ipnhgroup nhg_id=2 global.index=7").rc, ZAN_RC_NOT_FOUND)
        << "a plain reference does not look there";
    zan_global_table_st *record = &zan_get_global_ctx()->table[table("ipnhgroup")->id];
    EXPECT_EQ(record->quarantine_max_depth, 2u) << "the miss looked at one entry and its end";
    zan_db_quarantine_remove(group);
    zan_db_quarantine_remove(global);
}

TEST(Create, WhoseKeyAndHandleDifferFollowsTheRuleOfItsReference)
{
    const server_t server({});
    const uint64_t seven = create("ipnhgroup nhg_id=7").handle;
    const uint64_t eight = create("ipnhgroup nhg_id=8").handle;
    object_t obj = object("iproute vrf_id=0 prefix=1.0.0.0/8 next_obj.ipnhgroup.nhg_id=7");
    const zan_table_def_t *def = table("iproute");
    set_handle(zan_obj_union(&def->unions[0], obj.get(), 0), eight);
    EXPECT_EQ(run(obj).rc, (zan_rcode)EOK);
    EXPECT_EQ(stored(seven)->dpd.dpd_child_cnt, 1u) << "in a union the key wins";

    const uint64_t g1 = create("global index=1").handle, g2 = create("global index=2").handle;
    obj = object("ipnhgroup nhg_id=9 global.index=1");
    set_handle(zan_obj_ref(&table("ipnhgroup")->refs[0], obj.get(), 0), g2);
    EXPECT_EQ(run(obj).rc, (zan_rcode)EOK);
    EXPECT_EQ(stored(g2)->dpd.dpd_child_cnt, 1u) << "in a plain reference the handle stands";
    EXPECT_EQ(stored(g1)->dpd.dpd_child_cnt, 0u);
}

TEST(Create, TellsTheClientWhyAReferenceFailed)
{
    const server_t server({});
    create("iproute vrf_id=0 prefix=1.0.0.0/8 next_obj.ipnhgroup.nhg_id=7");
    EXPECT_EQ(zan_host_notifications(ZAN_NOTIF_RESOLVE_FAILED), 1u);
    EXPECT_EQ(zan_host_notifications(ZAN_NOTIF_BIND_REFUSED), 0u);
}

TEST(Create, IsRefusedWhenIdentifiersRunOutAndHoldsWhatItHad)
{
    const server_t server({.num_npus = 2});
    const zan_table_def_t *once = table("l2brmac"), *per_npu = table("ipvrf");
    ASSERT_FALSE(once->identifiers_per_npu);
    ASSERT_TRUE(per_npu->identifiers_per_npu);
    for (const zan_table_def_t *def : {once, per_npu}) {
        zan_host_identifiers_set_capacity(def->id, 2);
        EXPECT_EQ(run(with_key(def, 1)).rc, (zan_rcode)EOK) << def->name;
        EXPECT_EQ(run(with_key(def, 2)).rc, (zan_rcode)EOK) << def->name;
        const uint64_t notified = zan_host_notifications(ZAN_NOTIF_RESERVE_FAILED);
        EXPECT_EQ(run(with_key(def, 3)).rc, (zan_rcode)ZAN_HOST_RC_NO_IDENTIFIER) << def->name;
        EXPECT_EQ(zan_host_notifications(ZAN_NOTIF_RESERVE_FAILED), notified + 1)
            << "once, however many NPUs failed";
        EXPECT_EQ(zan_db_count(def->id), 2u) << def->name;
        EXPECT_EQ(counter(def, ZAN_CTR_CREATE_RESERVE_FAILED), def == per_npu ? 2u : 0u);
        EXPECT_EQ(zan_host_identifiers_held(def->id), def == per_npu ? 4u : 2u) << def->name;
        /* A second reserve for the same object gives the same identifier. */
        const uint32_t held =
            zan_host_identifier_of(with_key(def, 1).get(), def == per_npu ? 0 : -1);
        run(with_key(def, 1));
        EXPECT_EQ(zan_host_identifier_of(with_key(def, 1).get(), def == per_npu ? 0 : -1), held);
    }
}

TEST(Create, WritesTheNpusOfItsMaskAlone)
{
    const server_t server({.num_npus = 3, .per_object_npu_mask = true});
    for (const char *name : {"mplsnh", "l2if", "ethportstats"}) { /* class 2 on NPU threads, 2, 1 */
        const zan_table_def_t *def = table(name);
        ASSERT_NE(def->table_class, 0) << name;
        object_t obj = with_key(def, 1);
        *zan_obj_npu_mask_req(def, obj.get()) = 0x5;
        *zan_obj_npu_mask_req_set(def, obj.get()) = 1;
        const result_t r = run(obj);
        ASSERT_EQ(r.rc, (zan_rcode)EOK) << name;
        settle();
        EXPECT_EQ(stored(r.handle)->npu_mask, 0x5u) << name;
        const zan_table_npu_block_st *blocks = zan_get_global_ctx()->table[def->id].npu;
        for (uint32_t npu = 0; npu < 3; npu++) {
            EXPECT_EQ(npu_sim_count(npu, def->id), npu == 1 ? 0u : 1u) << name << " " << npu;
            EXPECT_EQ(blocks[npu].obj_cnt, npu == 1 ? 0u : 1u) << name << " " << npu;
        }
        /* None of this node's NPUs: stored, and no hook is called. */
        obj = with_key(def, 2);
        *zan_obj_npu_mask_req(def, obj.get()) = 0x80;
        *zan_obj_npu_mask_req_set(def, obj.get()) = 1;
        EXPECT_EQ(run(obj).rc, (zan_rcode)EOK) << name;
        settle();
        EXPECT_EQ(npu_sim_count(0, def->id), 1u) << name;
        EXPECT_EQ(
            counter(def, def->npu_threads ? ZAN_CTR_BCAST_NO_NPU : ZAN_CTR_CREATE_NOT_FOR_NODE), 1u)
            << name;
    }
}

TEST(Create, OnAStandbyNodeWritesTheDatabaseAndNoHardware)
{
    const server_t server({.num_npus = 1, .standby = true});
    for (const char *name : {"iproute", "ipvrf", "l3intf", "ipnh"}) {
        const zan_table_def_t *def = table(name);
        EXPECT_EQ(run(with_key(def, 1)).rc, (zan_rcode)EOK) << name;
        EXPECT_EQ(zan_db_count(def->id), 1u) << name;
        EXPECT_EQ(npu_sim_count(0, def->id), 0u) << name;
    }
    EXPECT_EQ(zan_get_global_ctx()->npu[0].program_cnt, 0u);
    zan_host_set_standby(false);
    run(with_key(table("iproute"), 2));
    settle();
    EXPECT_EQ(npu_sim_count(0, table("iproute")->id), 1u);
}

TEST(Create, WaitsForTheNpusThatAnAsynchronousWriteIsWith)
{
    const server_t server({.num_npus = 2, .stepped = true, .seed = 7});
    /* In stepped mode the write is still with the NPUs when the flow returns, for some seed's turn.
     */
    const zan_table_def_t *def = table("mplsnh");
    uint32_t seen_in_flight = 0;
    for (uint32_t i = 1; i <= 50; i++) {
        const uint64_t handle = run(with_key(def, i)).handle;
        seen_in_flight += stored(handle)->inflight;
    }
    EXPECT_GT(seen_in_flight, 0u);
    settle();
    zan_table_base_st lookup = {};
    lookup.table_id = def->id;
    for (zan_table_base_st *o = zan_db_get_first(&lookup); o; o = zan_db_get_next(o))
        EXPECT_EQ(o->inflight, 0);
}

/* What a refused create has reserved stays with its key: the client that sends it again has the
 * same identifier. Only when none is left is it taken back, and then by whoever needs one. */
TEST(Create, TakesIdentifiersOfRefusedCreatesWhenNoneIsLeft)
{
    const server_t server({.num_npus = 2});
    const zan_table_def_t *def = table("testasyncdb");
    run(with_key(def, 1));
    zan_db_set_limit(def->id, 2);
    zan_host_identifiers_set_capacity(def->id, 3);
    run(with_key(def, 2));
    EXPECT_EQ(run(with_key(def, 3)).rc, ZAN_RC_TABLE_FULL);
    settle();
    zan_host_identifiers_st ids;
    zan_host_identifiers_get(def->id, &ids);
    EXPECT_EQ(ids.held, 3u);
    EXPECT_EQ(ids.orphaned, 1u);
    const uint32_t kept = zan_host_identifier_of(with_key(def, 3).get(), -1);

    zan_db_set_limit(def->id, 0);
    EXPECT_EQ(run(with_key(def, 4)).rc, (zan_rcode)EOK);
    EXPECT_EQ(zan_host_identifier_of(with_key(def, 4).get(), -1), kept);
    zan_host_identifiers_get(def->id, &ids);
    EXPECT_EQ(ids.reclaimed, 1u);
    EXPECT_EQ(ids.orphaned, 0u);
    EXPECT_EQ(run(with_key(def, 5)).rc, (zan_rcode)ZAN_HOST_RC_NO_IDENTIFIER) << "now it is dry";
    zan_host_identifiers_get(def->id, &ids);
    EXPECT_EQ(ids.refused, 1u);
    run(with_key(def, 1, ZAN_TABLE_DELETE));
    settle();
    EXPECT_EQ(run(with_key(def, 5)).rc, (zan_rcode)EOK) << "a delete makes room";
}

/* A delete that hardware refuses has given the identifiers back all the same. The object that stays
 * needs them anew with its next write, and is refused while another has them. */
TEST(Create, AnUpdateMayFindNoIdentifierLeft)
{
    const server_t server({.num_npus = 2});
    const zan_table_def_t *def = table("l2brmac");
    zan_host_identifiers_set_capacity(def->id, 1);
    ASSERT_EQ(run(with_key(def, 1)).rc, (zan_rcode)EOK);
    const npu_sim_failure_t refused = {def->id, 0, ZAN_TABLE_DELETE, 1, 1, 0x4fa0c005};
    npu_sim_fail(&refused);
    EXPECT_EQ(run(with_key(def, 1, ZAN_TABLE_DELETE)).rc, 0x4fa0c005u);
    ASSERT_EQ(run(with_key(def, 2)).rc, (zan_rcode)EOK) << "it has the number now";

    object_t change = with_key(def, 1, ZAN_TABLE_UPDATE);
    change->flag |= ZAN_FLAG_RETRY_MODE;
    const uint64_t notified = zan_host_notifications(ZAN_NOTIF_RESERVE_FAILED);
    EXPECT_EQ(run(change).rc, (zan_rcode)ZAN_HOST_RC_NO_IDENTIFIER);
    EXPECT_EQ(zan_host_notifications(ZAN_NOTIF_RESERVE_FAILED),
              notified + def->notify_update_reserve);
    EXPECT_EQ(run(with_key(def, 2, ZAN_TABLE_DELETE)).rc, (zan_rcode)EOK);
    EXPECT_EQ(run(change).rc, (zan_rcode)EOK);
    EXPECT_NE(zan_host_identifier_of(with_key(def, 1).get(), -1), ZAN_IDENTIFIER_NONE);
}
