/* The table database and its pool: search, refusals, handles, blocks that come and go. */
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <thread>

#include "clock.h"
#include "host_tables.h"
#include "locks.h"
#include "shared_pool.h"
#include "table_database.h"

using table_database = test_tables;

TEST_F(table_database, finds_by_key_by_handle_and_in_order)
{
    std::map<uint32_t, zan_table_base_st *> model;
    std::mt19937 random(1);
    for (int i = 0; i < 2000; i++) {
        const uint32_t id = random() % 5000;
        zan_table_base_st *obj = node_stored(NODE_ID, id);
        EXPECT_EQ(obj != nullptr, model.count(id) == 0);
        if (obj)
            model[id] = obj;
    }
    EXPECT_EQ(zan_db_count(NODE_ID), model.size());
    EXPECT_EQ(zan_db_count(LEAF_ID), 0u);
    auto expect = [&](auto at) { return at == model.end() ? nullptr : at->second; };
    for (uint32_t id = 0; id < 5002; id++) {
        const node_obj_t key = node_record(NODE_ID, id);
        ASSERT_EQ(zan_db_get(&key.base), expect(model.find(id)));
        ASSERT_EQ(zan_db_get_gt_eq(&key.base), expect(model.lower_bound(id)));
        ASSERT_EQ(zan_db_get_next(&key.base), expect(model.upper_bound(id)));
    }
    const node_obj_t any = node_record(NODE_ID, 0);
    EXPECT_EQ(zan_db_get_first(&any.base), model.begin()->second);
    for (auto &[id, obj] : model) {
        node_obj_t by_handle = node_record(NODE_ID, 0);
        by_handle.base.key_len = 0;
        by_handle.base.obj_handle = obj->obj_handle;
        ASSERT_EQ(zan_db_get(&by_handle.base), obj);
        ASSERT_EQ(zan_db_get_gt_eq(&by_handle.base), obj);
        ASSERT_EQ(zan_db_get_next(&by_handle.base), expect(model.upper_bound(id)));
        ASSERT_EQ(zan_db_get_next(obj), expect(model.upper_bound(id))) << "a database object";
        by_handle.base.table_id = LEAF_ID;
        ASSERT_EQ(zan_db_get(&by_handle.base), nullptr) << "a handle of another table";
    }
}

TEST_F(table_database, an_iteration_may_delete_what_it_has)
{
    for (uint32_t id = 0; id < 500; id++)
        node_stored(NODE_ID, id * 3);
    const node_obj_t any = node_record(NODE_ID, 0);
    uint32_t seen = 0;
    for (zan_table_base_st *obj = zan_db_get_first(&any.base); obj; seen++) {
        EXPECT_EQ(node_id(obj), seen * 3);
        zan_db_del_ctx_t ctx = {obj, EOK, 1};
        if (seen % 2 == 0) {
            zan_db_delete(&ctx);
            obj->obj_handle = ZAN_POISON_FREED_DB_OBJ;
        }
        zan_table_base_st *next = zan_db_get_next(obj); /* deleted, not freed yet */
        if (seen % 2 == 0)
            zan_shm_free(obj);
        obj = next;
    }
    EXPECT_EQ(seen, 500u);
    EXPECT_EQ(zan_db_count(NODE_ID), 250u);

    const auto visitor = [](zan_table_base_st *obj, void *arg) -> zan_rcode {
        auto *visited = (std::vector<uint32_t> *)arg;
        visited->push_back(node_id(obj));
        if (visited->size() == 100)
            return ZAN_RC_INVALID;
        node_delete(obj);
        return EOK;
    };
    std::vector<uint32_t> visited;
    EXPECT_EQ(zan_db_walk(NODE_ID, nullptr, visitor, &visited, 0), ZAN_RC_INVALID);
    EXPECT_EQ(visited.size(), 100u);
    EXPECT_TRUE(std::is_sorted(visited.begin(), visited.end()));
    EXPECT_EQ(zan_db_count(NODE_ID), 151u);
    EXPECT_EQ(zan_db_walk(STAT_ID, nullptr, visitor, &visited, 0), EOK) << "an empty table";
}

TEST_F(table_database, refusals)
{
    zan_table_base_st *first = node_stored(NODE_ID, 1);
    zan_table_base_st *same = node_block(NODE_ID, 1);
    EXPECT_EQ(zan_db_insert(same), ZAN_RC_EXISTS);
    EXPECT_EQ(zan_db_insert(first), ZAN_RC_EXISTS) << "itself";
    EXPECT_FALSE(zan_db_hdl_is_valid(NODE_ID, (uint64_t)(uintptr_t)same));

    zan_db_set_limit(NODE_ID, 2);
    zan_table_base_st *second = node_stored(NODE_ID, 2);
    zan_table_base_st *third = node_block(NODE_ID, 3);
    EXPECT_EQ(zan_db_insert(third), ZAN_RC_TABLE_FULL);
    EXPECT_EQ(zan_db_insert(same), ZAN_RC_EXISTS) << "a full table still knows its keys";
    zan_db_set_limit(NODE_ID, 0);
    EXPECT_EQ(zan_db_insert(third), EOK);

    /* A block that was never stored: the database frees it. */
    const uint64_t before = zan_shm_bytes_in_use();
    zan_db_del_ctx_t ctx = {same, EOK, 1};
    zan_db_delete(&ctx);
    EXPECT_EQ(ctx.rc, ZAN_RC_NOT_FOUND);
    EXPECT_EQ(ctx.free_obj, 0);
    EXPECT_LT(zan_shm_bytes_in_use(), before);
    for (zan_table_base_st *obj : {first, second, third})
        node_delete(obj);
    EXPECT_EQ(zan_shm_bytes_in_use(), 0u);
    EXPECT_EQ(zan_db_index_bytes(), 0u);
}

TEST_F(table_database, only_the_address_of_a_stored_object_is_a_handle)
{
    std::vector<zan_table_base_st *> objects;
    for (uint32_t id = 0; id < 1000; id++)
        objects.push_back(node_stored(NODE_ID, id));
    zan_table_base_st *not_stored = node_block(NODE_ID, 5000);
    void *dynamic = zan_shm_dyn_alloc(NODE_ID, 100);
    void *large = zan_shm_dyn_alloc(NODE_ID, 300000);
    auto valid = [](const void *at) {
        return zan_db_hdl_is_valid(NODE_ID, (uint64_t)(uintptr_t)at);
    };
    EXPECT_FALSE(valid(not_stored));
    EXPECT_FALSE(valid(dynamic));
    EXPECT_FALSE(valid(large));
    EXPECT_FALSE(valid((uint8_t *)large + 65536)) << "inside a run";
    std::mt19937_64 random(3);
    for (zan_table_base_st *obj : objects) {
        ASSERT_TRUE(valid(obj));
        ASSERT_FALSE(zan_db_hdl_is_valid(LEAF_ID, obj->obj_handle));
        const uint64_t inside = 1 + random() % (sizeof(node_obj_t) - 1);
        ASSERT_FALSE(valid((uint8_t *)obj + inside));
    }
    /* Around the pool's addresses, and anything at all. */
    std::sort(objects.begin(), objects.end());
    auto is_object = [&](uint64_t at) {
        return std::binary_search(objects.begin(), objects.end(),
                                  (zan_table_base_st *)(uintptr_t)at);
    };
    const auto base = (uint64_t)(uintptr_t)objects[0];
    for (int i = 0; i < 200000; i++) {
        const uint64_t near = base + random() % 700000 - 50000;
        ASSERT_EQ(zan_db_hdl_is_valid(NODE_ID, near), is_object(near));
        const uint64_t garbage = random() >> (random() % 64);
        ASSERT_EQ(zan_db_hdl_is_valid(NODE_ID, garbage), is_object(garbage));
    }
    zan_db_del_ctx_t ctx = {objects[7], EOK, 1};
    zan_db_delete(&ctx);
    EXPECT_FALSE(valid(objects[7])) << "deleted, not freed";
    zan_shm_free(objects[7]);
    EXPECT_FALSE(valid(objects[7]));
    zan_db_fini_table(NODE_ID);
    EXPECT_FALSE(valid(objects[8])) << "the table is gone";
    EXPECT_EQ(zan_shm_bytes_in_use(), 0u);
    ASSERT_EQ(zan_db_init(nullptr, NODE_ID), EOK);
}

TEST_F(table_database, blocks_of_every_size_are_zeroed_and_come_back)
{
    struct block_t {
        uint8_t *at;
        size_t size;
        uint8_t fill;
    };
    std::vector<block_t> blocks;
    std::mt19937 random(5);
    uint64_t least = 0;
    for (int turn = 0; turn < 20000; turn++) {
        if (random() % 2 == 0 || blocks.empty()) {
            const size_t size = random() % 50 == 0   ? random() % 400000
                                : random() % 10 == 0 ? random() % 40000
                                                     : 1 + random() % 900;
            const uint32_t table = random() % NUM_TEST_TABLES;
            auto *at = (uint8_t *)(random() % 2 ? zan_shm_dyn_alloc(table, size)
                                                : zan_shm_table_pool_calloc(table, size));
            ASSERT_NE(at, nullptr);
            ASSERT_EQ((uintptr_t)at % 8, 0u);
            ASSERT_TRUE(std::all_of(at, at + size, [](uint8_t b) { return b == 0; }));
            const auto fill = (uint8_t)(1 + random() % 255);
            memset(at, fill, size);
            blocks.push_back({at, size, fill});
            least += size;
        } else {
            std::swap(blocks[random() % blocks.size()], blocks.back());
            const block_t block = blocks.back();
            blocks.pop_back();
            ASSERT_TRUE(std::all_of(block.at, block.at + block.size, [&](uint8_t b) {
                return b == block.fill;
            })) << "nobody else wrote into the block";
            zan_shm_free(block.at);
            least -= block.size;
        }
        ASSERT_GE(zan_shm_bytes_in_use(), least);
    }
    for (const block_t &block : blocks)
        zan_shm_free(block.at);
    zan_shm_free(nullptr);
    EXPECT_EQ(zan_shm_bytes_in_use(), 0u);
    EXPECT_EQ(host_pool_slabs_in_use(), 0u);
}

TEST_F(table_database, a_slab_that_empties_serves_another_table)
{
    std::vector<zan_table_base_st *> objects;
    for (uint32_t id = 0; id < 20000; id++)
        objects.push_back(node_stored(NODE_ID, id));
    const uint32_t slabs = host_pool_slabs_in_use();
    const auto lowest = *std::min_element(objects.begin(), objects.end());
    const auto highest = *std::max_element(objects.begin(), objects.end());
    for (zan_table_base_st *obj : objects)
        node_delete(obj);
    EXPECT_EQ(host_pool_slabs_in_use(), 0u);
    objects.clear();
    for (uint32_t id = 0; id < 20000; id++) {
        objects.push_back(node_stored(LEAF_ID, id));
        EXPECT_FALSE(zan_db_hdl_is_valid(NODE_ID, objects.back()->obj_handle));
        EXPECT_GE(objects.back(), lowest);
        EXPECT_LE(objects.back(), highest);
    }
    EXPECT_EQ(host_pool_slabs_in_use(), slabs);
}

TEST_F(table_database, large_blocks_use_the_room_that_others_left)
{
    constexpr size_t slab = 65536;
    auto alloc = [](size_t size) { return (uint8_t *)zan_shm_dyn_alloc(NODE_ID, size); };
    uint8_t *a = alloc(3 * slab), *b = alloc(3 * slab), *c = alloc(3 * slab),
            *end = alloc(2 * slab);
    for (uint8_t *block : {a, c, b}) /* the last closes the gap between its neighbours */
        zan_shm_free(block);
    uint8_t *joined = alloc(9 * slab);
    EXPECT_EQ(joined, a);
    zan_shm_free(joined);
    uint8_t *part = alloc(4 * slab), *rest = alloc(5 * slab);
    EXPECT_EQ(part, a);
    EXPECT_EQ(rest, a + 4 * slab);
    for (uint8_t *block : {end, part, rest})
        zan_shm_free(block);
    EXPECT_EQ(alloc(20 * slab), a) << "all of it is one room again";
}

TEST_F(table_database, freeing_a_wrong_block_ends_the_process)
{
    zan_table_base_st *obj = node_stored(NODE_ID, 1);
    EXPECT_DEATH(zan_shm_free(obj), "the freed block is not stored");
    EXPECT_DEATH(zan_shm_free((uint8_t *)obj + 8), "the freed block is in use");
    zan_table_base_st *other = node_block(NODE_ID, 2);
    node_block(NODE_ID, 3);
    zan_shm_free(other);
    EXPECT_DEATH(zan_shm_free(other), "the freed block is in use");
}

#if defined(__SANITIZE_ADDRESS__)
TEST_F(table_database, a_free_slot_is_poisoned)
{
    node_stored(NODE_ID, 1);
    zan_table_base_st *stale = node_block(NODE_ID, 2);
    zan_shm_free(stale);
    EXPECT_DEATH(((volatile zan_table_base_st *)stale)->flag = 1, "use-after-poison");
}
#endif

TEST_F(table_database, the_quarantine_keeps_copies_in_order)
{
    node_obj_t a = node_record(NODE_ID, 1), b = node_record(NODE_ID, 2),
               c = node_record(NODE_ID, 3);
    EXPECT_EQ(zan_db_quarantine_get_first(&a.base), nullptr);
    zan_table_base_st *first = zan_db_quarantine_add(&a.base);
    zan_table_base_st *second = zan_db_quarantine_add(&b.base);
    zan_table_base_st *third = zan_db_quarantine_add(&c.base);
    EXPECT_EQ(zan_db_quarantine_get_first(&a.base), first);
    EXPECT_EQ(kor_table_get_key_cmp_fn_ptr(NODE_ID)(second, &b.base), 0);
    EXPECT_LT(kor_table_get_key_cmp_fn_ptr(NODE_ID)(first, second), 0);
    zan_db_quarantine_remove(second);
    EXPECT_EQ(zan_db_quarantine_get_next(first), third);
    EXPECT_EQ(zan_db_quarantine_get_next(third), nullptr);
    const node_obj_t other = node_record(LEAF_ID, 1);
    EXPECT_EQ(zan_db_quarantine_get_first(&other.base), nullptr);
    zan_db_quarantine_remove(first);
    EXPECT_EQ(zan_db_quarantine_get_first(&a.base), third);
}

/* The statistics thread walks while the dispatcher inserts, changes and deletes under the lock. */
TEST_F(table_database, another_thread_walks_under_the_lock)
{
    std::atomic<bool> stop = false;
    std::atomic<uint64_t> walks = 0;
    std::thread stats([&] {
        zan_thread_set_role(ZAN_THREAD_STATS, -1);
        EXPECT_EQ(zan_db_walk(NODE_ID, nullptr, nullptr, nullptr, 0), ZAN_RC_BAD_ARGUMENT)
            << "no lock covers this table";
        const auto visitor = [](zan_table_base_st *obj, void *arg) -> zan_rcode {
            const auto *node = (const node_obj_t *)obj;
            if (node->payload[0] != node->payload[7])
                return ZAN_RC_INVALID; /* half an update */
            const bool ordered = *(int64_t *)arg < (int64_t)node->key.id;
            *(int64_t *)arg = node->key.id;
            return ordered ? EOK : ZAN_RC_INVALID;
        };
        while (!stop) {
            int64_t last = -1;
            EXPECT_EQ(zan_db_walk(STAT_ID, nullptr, visitor, &last, 0), EOK);
            walks++;
        }
    });
    std::mt19937 random(11);
    for (uint32_t turn = 0; turn < 5000 || walks < 3; turn++) {
        const uint32_t id = random() % 300;
        const node_obj_t key = node_record(STAT_ID, id);
        ASSERT_EQ(kor_db_lock(), 0);
        zan_table_base_st *obj = zan_db_get(&key.base);
        if (obj && turn % 3 == 0)
            node_delete(obj);
        else if (obj)
            ((node_obj_t *)obj)->payload[0] = ((node_obj_t *)obj)->payload[7] = turn;
        else
            node_stored(STAT_ID, id);
        ASSERT_EQ(kor_db_unlock(), 0);
    }
    stop = true;
    stats.join();
}

TEST_F(table_database, remembers_the_time_of_the_last_change)
{
    const node_obj_t record = node_record(NODE_ID, 1);
    EXPECT_EQ(zan_db_table_mtime(NODE_ID).tv_sec, 0);
    zan_host_clock_set_virtual(true);
    kor_db_update_tbl_mtime(&record.base);
    const timespec first = zan_db_table_mtime(NODE_ID);
    zan_usleep(5000000);
    kor_db_update_tbl_mtime(&record.base);
    EXPECT_EQ(zan_db_table_mtime(NODE_ID).tv_sec, first.tv_sec + 5);
    zan_host_clock_set_virtual(false);
}
