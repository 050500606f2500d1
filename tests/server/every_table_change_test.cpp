/* Update and delete on every table, from its definition. */
#include <cstring>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "npu_sim_control.h"
#include "object_maker.h"
#include "table_crud_ctx.h"

using namespace bench;

namespace
{

constexpr zan_rcode hw_refuses = 0x4fa01234;

uint32_t members_of(const zan_table_def_t *def, uint32_t members)
{
    return def->num_elements_offset ? members : 0;
}

object_t full_object(const zan_table_def_t *def, uint32_t seed, zan_table_operation_et operation,
                     uint32_t members = 2)
{
    object_t obj = with_key(def, seed, operation, members_of(def, members));
    fill_attributes(def, obj.get(), seed);
    return obj;
}

object_t named(const zan_table_def_t *def, uint32_t seed, zan_table_operation_et operation)
{
    return with_key(def, seed, operation, members_of(def, 2));
}

std::string text_of(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    static char text[262144];
    zan_obj_print(def, obj, text, sizeof text);
    return text;
}

const zan_field_def_t *single_attribute(const zan_table_def_t *def)
{
    for (uint32_t i = 0; i < def->num_attrs; i++)
        if (def->attrs[i].shape == ZAN_SHAPE_SINGLE && def->attrs[i].type != ZAN_TYPE_BOOL)
            return &def->attrs[i];
    return nullptr;
}

uint64_t hardware_updates()
{
    settle();
    npu_sim_counts_t counts;
    npu_sim_counts(0, &counts);
    return counts.updates + counts.creates;
}

uint32_t ref_cnt(const zan_table_def_t *def, uint64_t handle)
{
    return *(const uint32_t *)zan_obj_at(stored(handle), def->obj_ref_cnt_offset);
}

const zan_resource_info_t *info(const zan_table_def_t *def)
{
    const std::string name = std::string("kor_") + def->name + "_get_resource_info";
    return ((const zan_resource_info_t *(*)(void))dlsym(RTLD_DEFAULT, name.c_str()))();
}

/* Change one attribute of many: the others stay, and hardware has the whole. */
void update_sparsely(const zan_table_def_t *def, uint64_t handle)
{
    const zan_field_def_t *attr = single_attribute(def);
    if (!attr)
        return;
    object_t sparse = named(def, 3, ZAN_TABLE_UPDATE);
    fill_value(attr, zan_obj_attr(attr, sparse.get(), 0), 77);
    *zan_obj_attr_set(attr, sparse.get(), 0, 0) = 1;
    object_t expected = full_object(def, 3, ZAN_TABLE_CREATE);
    fill_value(attr, zan_obj_attr(attr, expected.get(), 0), 77);
    const result_t r = run(sparse);
    EXPECT_EQ(r.rc, (zan_rcode)EOK) << def->name;
    EXPECT_EQ(text_of(def, stored(handle)), text_of(def, expected.get())) << def->name;
    EXPECT_EQ(stored(handle)->table_operation, ZAN_TABLE_UPDATE) << def->name;

    const uint64_t before = hardware_updates();
    run(sparse);
    EXPECT_EQ(hardware_updates() != before, !def->change_test) << def->name << ": nothing changed";
    const uint64_t again = hardware_updates();
    sparse->flag |= ZAN_FLAG_RETRY_MODE;
    EXPECT_EQ(run(sparse).rc, (zan_rcode)EOK) << def->name;
    EXPECT_GT(hardware_updates(), again) << def->name << ": a retry always writes";
    EXPECT_EQ(info(def)->retry_update_cnt, 1u) << def->name;
}

void resize(const zan_table_def_t *def, uint64_t handle)
{
    if (!def->resizing)
        return;
    for (const uint32_t members : {5u, 1u, 0u, 3u}) {
        const object_t obj = full_object(def, 3, ZAN_TABLE_UPDATE, members);
        EXPECT_EQ(run(obj).rc, (zan_rcode)EOK) << def->name << " " << members;
        EXPECT_EQ(zan_obj_num_elements(def, stored(handle)), members) << def->name;
        EXPECT_EQ(text_of(def, stored(handle)), text_of(def, obj.get())) << def->name;
        settle();
        EXPECT_EQ(hardware_differs(2), "") << def->name << " " << members;
    }
}

} // namespace

TEST(EveryTable, UpdatesSparselyResizesAndDeletes)
{
    const server_t server({.num_npus = 2});
    const residue_t start = residue();
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        const zan_table_def_t *def = zan_table_defs[id];
        const uint64_t handle = run(full_object(def, 3, ZAN_TABLE_CREATE)).handle;
        ASSERT_NE(handle, 0u) << def->name;
        update_sparsely(def, handle);
        settle();
        EXPECT_EQ(hardware_differs(2), "") << def->name;
        resize(def, handle);

        EXPECT_EQ(run(named(def, 3, ZAN_TABLE_DELETE)).rc, (zan_rcode)EOK) << def->name;
        EXPECT_EQ(zan_db_count(id), 0u) << def->name;
        EXPECT_EQ(residue(), start) << def->name << ": " << to_string(residue());
        EXPECT_EQ(hardware_differs(2), "") << def->name;
        EXPECT_EQ(zan_get_global_ctx()->table[id].npu[1].obj_cnt, 0u) << def->name;
    }
}

TEST(EveryTable, SaysWhatIsNotThere)
{
    const server_t server({.num_npus = 1});
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        const zan_table_def_t *def = zan_table_defs[id];
        EXPECT_EQ(run(named(def, 3, ZAN_TABLE_DELETE)).rc, ZAN_RC_NOT_FOUND) << def->name;
        const zan_rcode rc = run(named(def, 3, ZAN_TABLE_UPDATE)).rc;
        if (!def->update_of_missing_creates) {
            EXPECT_EQ(rc, ZAN_RC_NOT_FOUND) << def->name;
            EXPECT_EQ(info(def)->not_found_cnt, 2u) << def->name;
            continue;
        }
        EXPECT_EQ(rc, (zan_rcode)EOK) << def->name << " makes it";
        EXPECT_EQ(counter(def, ZAN_CTR_UPDATE_TO_CREATE), 1u) << def->name;
        EXPECT_EQ(zan_db_count(id), 1u) << def->name;
        EXPECT_EQ(run(with_key(def, 4, ZAN_TABLE_UPDATE, 0)).rc, ZAN_RC_INVALID)
            << def->name << " without a member makes nothing";
    }
}

TEST(EveryTable, HoldsAParentUntilItsLastChildGoes)
{
    const server_t server({.num_npus = 2});
    uint32_t seed = 10, tried = 0;
    const residue_t start = residue();
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        const zan_table_def_t *def = zan_table_defs[id];
        for (const any_reference_t &ref : references(def)) {
            const std::string what = std::string(def->name) + " " + ref.name;
            const uint32_t parent_seed = ++seed, child_seed = ++seed;
            const object_t parent = full_object(ref.parent_def, parent_seed, ZAN_TABLE_CREATE);
            const uint64_t parent_handle = run(parent).handle;
            const object_t child = named(def, child_seed, ZAN_TABLE_CREATE);
            set_key(select_reference(def, ref, child.get()), ref.parent_def, parent.get());
            ASSERT_EQ(run(child).rc, (zan_rcode)EOK) << what;

            const bool refuses = ref.parent_def->delete_delay != 0;
            const result_t held = run(named(ref.parent_def, parent_seed, ZAN_TABLE_DELETE));
            EXPECT_EQ(held.rc, refuses ? ZAN_RC_STILL_REFERENCED : ZAN_RC_DELAY_DELETE) << what;
            EXPECT_EQ(held.batch_continue, !refuses) << what;
            EXPECT_EQ(zan_obj_base_is_delay_delete(stored(parent_handle)), !refuses) << what;
            if (!refuses) {
                EXPECT_EQ(run(named(ref.parent_def, parent_seed, ZAN_TABLE_UPDATE)).rc,
                          ZAN_RC_DELAY_DELETE)
                    << what << ": nobody updates what waits for its delete";
            }
            EXPECT_EQ(run(named(def, child_seed, ZAN_TABLE_DELETE)).rc, (zan_rcode)EOK) << what;
            if (refuses) {
                EXPECT_EQ(run(named(ref.parent_def, parent_seed, ZAN_TABLE_DELETE)).rc,
                          (zan_rcode)EOK)
                    << what;
            }
            ASSERT_EQ(residue(), start) << what << ": " << to_string(residue());
            tried++;
        }
    }
    EXPECT_GT(tried, 300u);
    EXPECT_EQ(hardware_differs(2), "");
}

/* What a failing NPU makes of an update and of a delete, by the table's mode. */
TEST(EveryTable, KeepsTheOldStateWhereHardwareRefuses)
{
    const server_t server({.num_npus = 3});
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        const zan_table_def_t *def = zan_table_defs[id];
        const uint64_t handle = run(full_object(def, 3, ZAN_TABLE_CREATE)).handle;
        settle();
        const std::string before = text_of(def, stored(handle));
        /* An asynchronous write is never waited for; modes 1 and 2 hold or drop the code. */
        const bool goes_on = def->write_mode || def->hw_rc_mode != 0;
        const bool told = !def->write_mode && def->hw_rc_mode != 2;

        npu_sim_failure_t failure = {id, 1, NPU_SIM_ANY, 1, 0, hw_refuses};
        npu_sim_fail(&failure);
        const uint32_t refs_before = def->obj_ref_cnt_offset ? ref_cnt(def, handle) : 0;
        const object_t change = full_object(def, 3, ZAN_TABLE_UPDATE, 2);
        if (const zan_field_def_t *attr = single_attribute(def))
            fill_value(attr, zan_obj_attr(attr, change.get(), 0), 99);
        change->flag |= ZAN_FLAG_RETRY_MODE;
        EXPECT_EQ(run(change).rc, told ? hw_refuses : (zan_rcode)EOK) << def->name;
        settle();
        EXPECT_EQ(text_of(def, stored(handle)), goes_on ? text_of(def, change.get()) : before)
            << def->name;

        EXPECT_EQ(run(named(def, 3, ZAN_TABLE_DELETE)).rc, told ? hw_refuses : (zan_rcode)EOK)
            << def->name;
        EXPECT_EQ(zan_db_count(id), goes_on ? 0u : 1u) << def->name;
        if (!goes_on && def->obj_ref_cnt_offset) {
            EXPECT_EQ(ref_cnt(def, handle), refs_before)
                << def->name << ": the client's reference is put back";
        }
        settle();
        const uint32_t blamed = def->table_class && !def->npu_threads ? 0 : 1;
        const zan_table_npu_block_st *block = &zan_get_global_ctx()->table[id].npu[blamed];
        EXPECT_EQ(block->update_err_cnt, 1u) << def->name;
        EXPECT_EQ(block->delete_err_cnt, 1u) << def->name;
        npu_sim_reset();
    }
}
