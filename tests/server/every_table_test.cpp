/* Every operation on every table, from its definition: no table is untested, and none has test code
 * of its own. */
#include <cstring>
#include <gtest/gtest.h>

#include "npu_sim_control.h"
#include "object_maker.h"
#include "table_crud_ctx.h"

using namespace bench;

namespace
{

constexpr uint32_t members_to_try = 2;

uint32_t members_of(const zan_table_def_t *def)
{
    return def->num_elements_offset ? members_to_try : 0;
}

object_t full_object(const zan_table_def_t *def, uint32_t seed)
{
    object_t obj = with_key(def, seed, ZAN_TABLE_CREATE, members_of(def));
    fill_attributes(def, obj.get(), seed);
    return obj;
}

object_t key_only(const zan_table_def_t *def, const object_t &of, zan_table_operation_et operation)
{
    object_t obj = empty(def, operation, members_of(def));
    memcpy(zan_obj_key(def, obj.get()), zan_obj_key(def, of.get()), def->key_size);
    obj->key_len = def->key_size;
    return obj;
}

std::string text_of(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    static char text[262144];
    zan_obj_print(def, obj, text, sizeof text);
    return text;
}

uint32_t ref_cnt(const zan_table_def_t *def, uint64_t handle)
{
    return *(uint32_t *)zan_obj_at((zan_table_base_st *)handle, def->obj_ref_cnt_offset);
}

/* A repeat under each write_kind: what it answers, which counter rises, what the client owes. */
void repeat_creates(const zan_table_def_t *def, const object_t &obj, uint64_t handle)
{
    const struct {
        uint8_t kind;
        zan_rcode rc;
        uint32_t counter;
        bool counts_reference;
    } kinds[] = {
        {0, ZAN_RC_EXISTS, 35, true}, {1, EOK, 33, false},          {2, EOK, 31, true},
        {3, EOK, 33, true},           {7, ZAN_RC_EXISTS, 35, true},
    };
    for (const auto &k : kinds) {
        const uint32_t before = counter(def, k.counter);
        const uint32_t refs = def->obj_ref_cnt_offset ? ref_cnt(def, handle) : 0;
        obj->write_kind = k.kind;
        const result_t r = run(obj);
        EXPECT_EQ(r.rc, k.rc) << def->name << " write_kind " << (int)k.kind;
        EXPECT_EQ(counter(def, k.counter), before + 1) << def->name;
        if (k.rc == EOK) {
            EXPECT_EQ(r.handle, handle) << def->name;
        }
        if (def->obj_ref_cnt_offset) {
            EXPECT_EQ(ref_cnt(def, handle),
                      std::min(refs + k.counts_reference, def->obj_ref_cnt_limit))
                << def->name << " write_kind " << (int)k.kind;
        }
    }
    obj->write_kind = 0;
}

void read_back(const zan_table_def_t *def, const object_t &obj, uint64_t handle)
{
    const result_t got = run(key_only(def, obj, ZAN_TABLE_GET));
    ASSERT_EQ(got.rc, (zan_rcode)EOK) << def->name;
    EXPECT_EQ(got.handle, handle) << def->name;
    EXPECT_EQ(text_of(def, got.obj.get()), text_of(def, obj.get())) << def->name;

    EXPECT_EQ(run(key_only(def, obj, ZAN_TABLE_GET_GT_EQ)).handle, handle) << def->name;
    EXPECT_EQ(run(empty(def, ZAN_TABLE_GET_FIRST, members_of(def))).handle, handle) << def->name;
    const uint32_t misses = counter(def, 41);
    EXPECT_EQ(run(key_only(def, obj, ZAN_TABLE_GET_NEXT)).rc, ZAN_RC_NOT_FOUND) << def->name;
    EXPECT_EQ(counter(def, 41), misses + 1) << def->name;

    object_t text_read = key_only(def, obj, ZAN_TABLE_GET);
    text_read->getopt_mask = ZAN_GETOPT_FORMAT_TEXT;
    EXPECT_EQ(run(text_read).rc, ZAN_RC_INVALID_READ) << def->name << ": no room for the text";
    const result_t with_text = run(text_read, 262144);
    EXPECT_EQ(with_text.rc, (zan_rcode)EOK) << def->name;
    EXPECT_EQ(std::string(with_text.payload.c_str()), text_of(def, obj.get())) << def->name;
}

} // namespace

TEST(EveryTable, StoresReadsBackAndMeetsItsRepeat)
{
    const server_t server({.num_npus = 2});
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        const zan_table_def_t *def = zan_table_defs[id];
        const object_t obj = full_object(def, 3);
        EXPECT_EQ(zan_db_count(id), 0u);
        const result_t r = run(obj);
        ASSERT_EQ(r.rc, (zan_rcode)EOK) << def->name;
        ASSERT_NE(r.handle, 0u) << def->name;
        settle();
        EXPECT_EQ(counter(def, 1), 1u) << def->name;
        EXPECT_EQ(zan_db_count(id), 1u) << def->name;
        EXPECT_EQ(npu_sim_count(0, id), 1u) << def->name;
        EXPECT_EQ(npu_sim_count(1, id), 1u) << def->name;
        read_back(def, obj, r.handle);
        repeat_creates(def, obj, r.handle);
    }
    EXPECT_EQ(hardware_differs(2), "");
}

TEST(EveryTable, ResolvesEveryReferenceByKeyAndByHandleAndInherits)
{
    const server_t server({.num_npus = 1});
    uint32_t seed = 10;
    uint32_t tried = 0;
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        const zan_table_def_t *def = zan_table_defs[id];
        for (const any_reference_t &ref : references(def)) {
            const std::string what = std::string(def->name) + " " + ref.name;
            const object_t parent = full_object(ref.parent_def, ++seed);
            const uint64_t parent_handle = run(parent).handle;
            ASSERT_NE(parent_handle, 0u) << what;
            const auto *stored_parent = (const zan_table_base_st *)parent_handle;
            for (const bool by_key : {true, false}) {
                const object_t child = with_key(def, ++seed, ZAN_TABLE_CREATE, members_of(def));
                zan_ref_value_st *value = select_reference(def, ref, child.get());
                if (by_key)
                    set_key(value, ref.parent_def, parent.get());
                else
                    set_handle(value, parent_handle);
                const uint32_t children = stored_parent->dpd.dpd_child_cnt;
                const result_t r = run(child);
                ASSERT_EQ(r.rc, (zan_rcode)EOK) << what;
                EXPECT_EQ(stored_parent->dpd.dpd_child_cnt, children + 1) << what;
                auto *stored = (zan_table_base_st *)r.handle;
                const zan_ref_value_st *bound = select_reference(def, ref, stored);
                EXPECT_EQ(bound->refhdl, parent_handle) << what;
                EXPECT_EQ(zan_key_cmp(ref.parent_def, zan_ref_key(bound),
                                      zan_obj_key(ref.parent_def, parent.get())),
                          0)
                    << what;
                for (uint32_t i = 0; i < ref.num_inherits; i++) {
                    const zan_field_def_t *to = &def->attrs[ref.inherits[i].attr];
                    const zan_field_def_t *from =
                        &ref.parent_def->attrs[ref.inherits[i].parent_attr];
                    EXPECT_EQ(memcmp(zan_obj_attr(to, stored, 0),
                                     zan_obj_attr(from, stored_parent, 0), to->width),
                              0)
                        << what << " " << to->name;
                    EXPECT_EQ(*zan_obj_attr_set(to, stored, 0, members_of(def)), 1) << what;
                }
                tried++;
            }
        }
    }
    EXPECT_GT(tried, 600u);
    settle();
    EXPECT_EQ(hardware_differs(1), "");
}

TEST(EveryTable, RefusesAMissingParentAndLeavesNothing)
{
    const server_t server({.num_npus = 1});
    uint32_t seed = 10;
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        const zan_table_def_t *def = zan_table_defs[id];
        for (const any_reference_t &ref : references(def)) {
            const std::string what = std::string(def->name) + " " + ref.name;
            /* The tables of both have started and hold an object each. */
            run(with_key(def, 1, ZAN_TABLE_CREATE, members_of(def)));
            run(with_key(ref.parent_def, 1, ZAN_TABLE_CREATE, members_of(ref.parent_def)));
            const object_t missing = with_key(ref.parent_def, ++seed);
            const residue_t before = residue();
            for (const bool by_key : {true, false}) {
                const object_t child = with_key(def, ++seed, ZAN_TABLE_CREATE, members_of(def));
                zan_ref_value_st *value = select_reference(def, ref, child.get());
                if (by_key)
                    set_key(value, ref.parent_def, missing.get());
                else
                    set_handle(value, 0x1234567812345678);
                EXPECT_EQ(run(child).rc, ZAN_RC_NOT_FOUND) << what;
            }
            EXPECT_EQ(residue(), before)
                << what << ": " << to_string(before) << " became " << to_string(residue());
        }
    }
}

/* What a failing NPU makes of a create, by the table's mode and form. */
TEST(EveryTable, MeetsAFailingNpuAsItsModeSays)
{
    const server_t server({.num_npus = 3});
    constexpr zan_rcode refused = 0x4fa01234;
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        const zan_table_def_t *def = zan_table_defs[id];
        run(full_object(def, 1));
        const residue_t before = residue();
        npu_sim_reset();
        npu_sim_failure_t failure = {id, 1, ZAN_TABLE_CREATE, 1, 0, refused};
        npu_sim_fail(&failure);
        const result_t r = run(full_object(def, 2));
        settle();
        const bool kept = def->write_mode || def->hw_rc_mode == 2;
        EXPECT_EQ(r.rc, kept ? (zan_rcode)EOK : refused) << def->name;
        EXPECT_EQ(zan_db_count(id), kept ? 2u : 1u) << def->name;
        EXPECT_EQ(counter(def, 37), kept ? 0u : 1u) << def->name;
        const zan_table_npu_block_st *blocks = zan_get_global_ctx()->table[id].npu;
        const uint32_t blamed = def->table_class && !def->npu_threads ? 0 : 1;
        EXPECT_EQ(blocks[blamed].create_err_cnt, 1u) << def->name;
        if (kept)
            continue;
        EXPECT_EQ(residue(), before) << def->name;
        /* One call for the object has reached NPU 0 by the time it fails: its platform answers for
         * that. All other forms take back what they did. */
        if (!def->table_class || def->npu_threads) {
            EXPECT_EQ(npu_sim_count(0, id), 0u) << def->name;
        }
        EXPECT_EQ(npu_sim_count(2, id), 0u) << def->name;
    }
}

TEST(EveryTable, KeepsACreateWhoseSyncErrorHookSaysSo)
{
    const server_t server({.num_npus = 2});
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        const zan_table_def_t *def = zan_table_defs[id];
        if (def->hw_rc_mode != 1)
            continue;
        npu_sim_reset();
        npu_sim_failure_t failure = {id, 0, ZAN_TABLE_CREATE, 1, 1, ZAN_RC_KEEP_LACKING};
        npu_sim_fail(&failure);
        const result_t r = run(full_object(def, 2));
        EXPECT_EQ(r.rc, ZAN_RC_KEEP_LACKING) << def->name;
        EXPECT_TRUE(r.batch_continue) << def->name;
        EXPECT_EQ(zan_db_count(id), 1u) << def->name;
    }
}
