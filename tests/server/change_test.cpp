/* Deletes that are held back, how the graph comes down, and what an update names. What every table
 * does alike is in every_table_change_test.cpp. */
#include <gtest/gtest.h>

#include "host_services.h"
#include "npu_sim_control.h"
#include "object_maker.h"
#include "table_crud_ctx.h"

using namespace bench;

namespace
{

result_t erase(std::string_view text)
{
    return run(object(text, ZAN_TABLE_DELETE));
}

uint64_t deletes_of_npu_0()
{
    settle();
    npu_sim_counts_t counts;
    npu_sim_counts(0, &counts);
    return counts.deletes;
}

} // namespace

TEST(Delete, TakesAwayOneReferenceOfTheClientsAtATime)
{
    const server_t server({});
    const zan_table_def_t *def = table("macllnh");
    const object_t obj = object("macllnh intf=1 adj_id=1 encap_id=5");
    run(obj);
    obj->write_kind = ZAN_WRITE_KIND_STRICT;
    run(obj);
    const uint64_t deletes = deletes_of_npu_0();
    EXPECT_EQ(erase("macllnh intf=1 adj_id=1").rc, (zan_rcode)EOK);
    EXPECT_EQ(counter(def, ZAN_CTR_DELETE_REF_CNT), 1u);
    EXPECT_EQ(zan_db_count(def->id), 1u) << "one reference is left";
    EXPECT_EQ(deletes_of_npu_0(), deletes) << "and hardware has heard of nothing";
    EXPECT_EQ(erase("macllnh intf=1 adj_id=1").rc, (zan_rcode)EOK);
    EXPECT_EQ(zan_db_count(def->id), 0u);
    EXPECT_EQ(deletes_of_npu_0(), deletes + 1);
}

TEST(Delete, AHeldObjectIsHeldAgainAndItsBatchGoesOn)
{
    const server_t server({});
    create("l3intf intf=1");
    create("macllnh intf=1 adj_id=1 l3intf_obj.l3intf.intf=1");
    batch_t batch;
    batch.add(object("l3intf intf=1", ZAN_TABLE_DELETE));
    batch.add(object("l3intf intf=1", ZAN_TABLE_DELETE));
    batch.add(object("l3intf intf=2"));
    const std::vector<result_t> results = batch.run();
    EXPECT_EQ(results[0].rc, ZAN_RC_DELAY_DELETE);
    EXPECT_EQ(results[1].rc, ZAN_RC_DELAY_DELETE);
    EXPECT_TRUE(results[0].batch_continue);
    EXPECT_EQ(results[2].rc, (zan_rcode)EOK) << "without continue_on_error";
}

/* Each object is bound to the one before it; all are deleted from the top while held, and the last
 * child's delete clears them, one level for each pass of the queue. */
TEST(Delete, AChainOfTenGoesByItselfWhenItsLastChildGoes)
{
    const server_t server({.num_npus = 2});
    const zan_table_def_t *def = table("srv6nh");
    constexpr uint32_t levels = 10;
    std::vector<object_t> chain;
    std::vector<any_reference_t> all = references(def);
    const any_reference_t *self = nullptr;
    for (const any_reference_t &ref : all)
        if (ref.parent_def == def)
            self = &ref;
    ASSERT_TRUE(self);
    for (uint32_t i = 0; i < levels; i++) {
        chain.push_back(with_key(def, i + 1));
        if (i)
            set_key(select_reference(def, *self, chain[i].get()), def, chain[i - 1].get());
        ASSERT_EQ(run(chain[i]).rc, (zan_rcode)EOK) << i;
    }
    for (uint32_t i = 0; i + 1 < levels; i++) {
        EXPECT_EQ(run(with_key(def, i + 1, ZAN_TABLE_DELETE)).rc, ZAN_RC_DELAY_DELETE) << i;
    }
    EXPECT_EQ(zan_db_count(def->id), levels);
    EXPECT_EQ(run(with_key(def, levels, ZAN_TABLE_DELETE)).rc, (zan_rcode)EOK);
    EXPECT_EQ(residue(), residue_t()) << to_string(residue());
    EXPECT_EQ(hardware_differs(2), "");
    EXPECT_EQ(counter(def, ZAN_CTR_DELETE), 2u * levels - 1) << "each once more, by the queue";
}

TEST(Delete, AParentWithANewChildStaysAfterAll)
{
    const server_t server({});
    create("l3intf intf=1");
    const uint64_t parent = create("macllnh intf=1 adj_id=1 l3intf_obj.l3intf.intf=1").handle;
    create("ipnh nh_id=1 next_obj.macllnh.intf=1 next_obj.macllnh.adj_id=1");
    erase("macllnh intf=1 adj_id=1");
    EXPECT_TRUE(zan_obj_base_is_delay_delete(stored(parent)));
    /* One child comes for the one that goes, in one batch. */
    batch_t batch;
    batch.add(object("ipnh nh_id=2 next_obj.macllnh.intf=1 next_obj.macllnh.adj_id=1"));
    batch.add(object("ipnh nh_id=1", ZAN_TABLE_DELETE));
    for (const result_t &r : batch.run())
        EXPECT_EQ(r.rc, (zan_rcode)EOK);
    EXPECT_EQ(zan_db_count(table("macllnh")->id), 1u);
    EXPECT_EQ(erase("ipnh nh_id=2").rc, (zan_rcode)EOK);
    EXPECT_EQ(zan_db_count(table("macllnh")->id), 0u);
}

/* The NPUs give the identifier of a deleted object back when they are through with it; by then the
 * next object of the key may hold it. */
TEST(Delete, BehindWhichTheKeyIsUsedAgainKeepsItsIdentifier)
{
    const server_t server({.num_npus = 2, .stepped = true, .seed = 5});
    for (const char *text : {"iproute vrf_id=0 prefix=10.0.0.0/8", "ipnhgroup nhg_id=1"}) {
        const zan_table_def_t *def =
            table(std::string(text).substr(0, std::string(text).find(' ')));
        const uint64_t each = def->identifiers_per_npu ? 2 : 1;
        for (uint32_t round = 0; round < 20; round++) {
            batch_t batch;
            batch.async = true;
            batch.add(object(text));
            for (uint32_t i = 0; i < 3; i++) {
                batch.add(object(text, ZAN_TABLE_DELETE));
                batch.add(object(text));
            }
            batch.run();
            settle();
            EXPECT_EQ(zan_host_identifiers_held(def->id), each) << text;
            EXPECT_EQ(run(object(text, ZAN_TABLE_DELETE)).rc, (zan_rcode)EOK);
            EXPECT_EQ(residue(), residue_t()) << to_string(residue());
        }
    }
}

TEST(Update, RestoresTheKeyThatAHandleLeadsTo)
{
    const server_t server({.num_npus = 1});
    const uint64_t handle = create("l3intf intf=1 ipv4_mtu=1500").handle;
    object_t by_handle = object("l3intf intf=2 ipv4_mtu=9000", ZAN_TABLE_UPDATE);
    by_handle->obj_handle = handle;
    EXPECT_EQ(run(by_handle).rc, (zan_rcode)EOK);
    EXPECT_EQ(dump(table("l3intf")), std::vector<std::string>{"intf=1 ipv4_mtu=9000"});
    object_t handle_only = object("l3intf intf=2 ipv4_mtu=1600", ZAN_TABLE_UPDATE);
    handle_only->obj_handle = handle;
    handle_only->key_len = 0;
    EXPECT_EQ(run(handle_only).rc, (zan_rcode)EOK);
    EXPECT_EQ(dump(table("l3intf")), std::vector<std::string>{"intf=1 ipv4_mtu=1600"});
    settle();
    EXPECT_EQ(hardware_differs(1), "") << "nothing was written under the other key";
}

/* The handle says which object it is, also to the search for cycles. */
TEST(Update, ThatWouldCloseACycleIsRefusedByHandleToo)
{
    const server_t server({});
    const uint64_t top = create("srv6nh nh_id=1").handle;
    create("srv6nh nh_id=2 srv6nh.nh_id=1");
    create("srv6nh nh_id=3");
    const residue_t before = residue();
    object_t cycle = object("srv6nh nh_id=3 srv6nh.nh_id=2", ZAN_TABLE_UPDATE);
    cycle->obj_handle = top;
    EXPECT_EQ(run(cycle).rc, ZAN_RC_BIND_REFUSED);
    EXPECT_EQ(stored(top)->dpd.num_parents, 0u);
    EXPECT_EQ(residue().stored, before.stored);
    EXPECT_EQ(erase("srv6nh nh_id=2").rc, (zan_rcode)EOK);
    EXPECT_EQ(run(object("srv6nh nh_id=1 hop_limit=9", ZAN_TABLE_UPDATE)).rc, (zan_rcode)EOK);
}

/* The graph has 65,535 parent slots for an object: what has more references is refused before
 * anything is written. */
TEST(Update, OfMoreReferencesThanTheGraphHoldsIsRefused)
{
    const server_t server({.num_npus = 1});
    const zan_table_def_t *def = table("test_nhg");
    const object_t parent = with_key(table("test_nh"), 1);
    ASSERT_EQ(run(parent).rc, (zan_rcode)EOK);
    ASSERT_EQ(run(with_key(def, 1)).rc, (zan_rcode)EOK);
    constexpr uint32_t members = 40'000; /* each leads to the parent twice */
    const object_t huge = with_key(def, 1, ZAN_TABLE_UPDATE, members);
    for (const any_reference_t &ref : references(def))
        for (uint32_t m = 0; ref.repeated && ref.parent_def == table("test_nh") && m < members;
             m++) {
            zan_ref_value_st *value = ref.selector
                                          ? zan_obj_union(&def->unions[ref.index], huge.get(), m)
                                          : zan_obj_ref(&def->refs[ref.index], huge.get(), m);
            value->selector = ref.selector;
            value->is_set = ref.selector != 0;
            set_key(value, ref.parent_def, parent.get());
        }
    EXPECT_EQ(run(huge).rc, ZAN_RC_INVALID);
    settle();
    EXPECT_EQ(hardware_differs(1), "");
}

TEST(Update, DropsAPlainReferenceThatItLeavesOutAndKeepsAUnion)
{
    const server_t server({});
    const uint64_t bundle = create("lagport intf=5").handle;
    create("l3intf intf=1 lagport.intf=5");
    EXPECT_EQ(stored(bundle)->dpd.dpd_child_cnt, 1u);
    const uint32_t before = counter(table("l3intf"), ZAN_CTR_REFS_CHANGED_A);
    EXPECT_EQ(run(object("l3intf intf=1 ipv4_mtu=1500", ZAN_TABLE_UPDATE)).rc, (zan_rcode)EOK);
    EXPECT_EQ(stored(bundle)->dpd.dpd_child_cnt, 0u);
    EXPECT_EQ(counter(table("l3intf"), ZAN_CTR_REFS_CHANGED_A), before + 1);
    EXPECT_EQ(counter(table("l3intf"), ZAN_CTR_REFS_CHANGED_B), before + 1);

    const uint64_t interface = create("l3intf intf=2").handle;
    create("macllnh intf=2 adj_id=1 l3intf_obj.l3intf.intf=2");
    EXPECT_EQ(run(object("macllnh intf=2 adj_id=1 encap_id=9", ZAN_TABLE_UPDATE)).rc,
              (zan_rcode)EOK);
    EXPECT_EQ(stored(interface)->dpd.dpd_child_cnt, 1u);
    object_t drop =
        object("macllnh intf=2 adj_id=1 l3intf_obj.l3intf.handle=0x0", ZAN_TABLE_UPDATE);
    EXPECT_EQ(run(drop).rc, (zan_rcode)EOK);
    EXPECT_EQ(stored(interface)->dpd.dpd_child_cnt, 0u) << "a handle of zero drops it";
    EXPECT_EQ(dump(table("macllnh")), std::vector<std::string>{"intf=2 adj_id=1 encap_id=9"});
}

/* An object of its own NPUs moves with its mask, and stays where it is when an update is silent. */
TEST(Update, MovesAnObjectToTheNpusThatItAsksFor)
{
    const server_t server({.num_npus = 2, .per_object_npu_mask = true});
    for (const char *name : {"testef", "testaf"}) {
        const zan_table_def_t *def = table(name);
        auto write = [&](zan_table_operation_et operation, uint32_t value, kor_npu_mask_t mask) {
            object_t obj = with_key(def, 1, operation);
            if (operation != ZAN_TABLE_DELETE)
                fill_attributes(def, obj.get(), value);
            *zan_obj_npu_mask_req_set(def, obj.get()) = mask != 0;
            *zan_obj_npu_mask_req(def, obj.get()) = mask;
            EXPECT_EQ(run(obj).rc, (zan_rcode)EOK) << name;
            settle();
        };
        auto held_by = [&](uint32_t npu) {
            zan_table_base_st lookup = {};
            lookup.table_id = def->id;
            char why[128] = "";
            const zan_table_base_st *obj = zan_db_get_first(&lookup);
            return npu_sim_count(npu, def->id) == 1 &&
                   npu_sim_compare(npu, obj, why, sizeof why) == 0;
        };
        const zan_table_npu_block_st *blocks = zan_get_global_ctx()->table[def->id].npu;
        write(ZAN_TABLE_CREATE, 1, 1);
        EXPECT_TRUE(held_by(0)) << name;
        write(ZAN_TABLE_UPDATE, 2, 0);
        EXPECT_TRUE(held_by(0)) << name << ": the mask is inherited";
        EXPECT_EQ(npu_sim_count(1, def->id), 0u) << name;
        write(ZAN_TABLE_UPDATE, 2, 2); /* nothing else changes */
        EXPECT_TRUE(held_by(1)) << name;
        EXPECT_EQ(npu_sim_count(0, def->id), 0u) << name << ": the dropped NPU let it go";
        EXPECT_EQ(blocks[0].obj_cnt, 0u) << name;
        EXPECT_EQ(blocks[1].obj_cnt, 1u) << name;
        write(ZAN_TABLE_DELETE, 0, 0);
        EXPECT_EQ(npu_sim_count(1, def->id), 0u) << name;
        EXPECT_EQ(blocks[1].obj_cnt, 0u) << name;
    }
    EXPECT_EQ(residue(), residue_t()) << to_string(residue());
}

/* What a client has sent again is not swept at the end of a replay. */
TEST(Update, ClearsTheReplayMarkAlsoWhenNothingChanged)
{
    const server_t server({.num_npus = 1});
    for (const char *text : {"l3intf intf=1 ipv4_mtu=1500", "iproute vrf_id=0 prefix=1.0.0.0/8 "
                                                            "bgp_as=1"}) {
        const uint64_t handle = create(text).handle;
        const zan_table_def_t *def = zan_table_defs[stored(handle)->table_id];
        run(empty(def, ZAN_TABLE_REPLAY_START));
        EXPECT_TRUE(stored(handle)->flag & ZAN_FLAG_STALE) << text;
        EXPECT_EQ(run(object(text, ZAN_TABLE_UPDATE)).rc, (zan_rcode)EOK) << text;
        EXPECT_FALSE(stored(handle)->flag & ZAN_FLAG_STALE) << text;
        run(empty(def, ZAN_TABLE_REPLAY_END));
        EXPECT_EQ(zan_db_count(def->id), 1u) << text;
    }
}
