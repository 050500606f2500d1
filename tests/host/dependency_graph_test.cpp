/* The dependency graph against a reference model: lists, groups, ranks, refusals, and what an
 * unbind reports. */
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <set>

#include "graph_area.h"
#include "host_tables.h"
#include "internal_queues.h"
#include "table_database.h"
#include "walk_service.h"

namespace
{

typedef zan_table_base_st object_t;

using dependency_graph = test_graph;

/* What kor_dpd_remove says, with room for so many parents. */
struct report_t {
    explicit report_t(uint32_t slots)
        : words((std::max(slots, 1u) + 63) / 64),
          parents(std::max(slots, 1u)), act{{0, 0},
                                            words.data(),
                                            (uint32_t)words.size(),
                                            parents.data()}
    {
    }
    bool marked(uint32_t i) const
    {
        return words[i / 64] >> (i % 64) & 1;
    }
    std::vector<uint64_t> words;
    std::vector<object_t *> parents;
    kor_dpd_next_act_t act;
};

std::vector<object_t *> children_of(const object_t *parent)
{
    std::vector<object_t *> list;
    const zan_dpd_link_st *link = parent->dpd.dpd_child_list;
    for (; link; link = kor_dpd_next_child(link)) {
        EXPECT_EQ(link->parent, parent);
        list.push_back(link->child);
    }
    return list;
}

/* Children of one table stand together, and the groups can be skipped. */
void expect_groups(const object_t *parent)
{
    std::vector<uint32_t> tables;
    for (const object_t *child : children_of(parent))
        if (tables.empty() || tables.back() != child->table_id)
            tables.push_back(child->table_id);
    EXPECT_EQ(std::set<uint32_t>(tables.begin(), tables.end()).size(), tables.size());
    std::vector<uint32_t> skipped;
    const host_link_t *group = host_first_child(parent);
    for (; group; group = host_next_group(group))
        skipped.push_back(group->ends.child->table_id);
    EXPECT_EQ(skipped, tables);
    for (uint32_t id = 0; id < NUM_TEST_TABLES; id++) {
        const host_link_t *first = host_children_of_table(parent, id);
        EXPECT_EQ(first != nullptr, std::count(tables.begin(), tables.end(), id) == 1);
    }
}

} // namespace

class model_of_graph : public dependency_graph
{
protected:
    bool path(object_t *from, object_t *to, std::set<object_t *> *seen)
    {
        if (from == to)
            return true;
        if (!seen->insert(from).second)
            return false;
        for (auto &[child, list] : parents)
            if (std::count(list.begin(), list.end(), from) && path(child, to, seen))
                return true;
        return false;
    }

    void expect_model()
    {
        std::map<object_t *, std::multiset<object_t *>> children;
        for (auto &[child, list] : parents) {
            ASSERT_EQ(child->dpd.num_parents, list.size());
            for (uint32_t i = 0; i < list.size(); i++) {
                ASSERT_EQ(kor_dpd_get_parent_safe(child, i), list[i]);
                ASSERT_GT(kor_dpd_rank(child), kor_dpd_rank(list[i]));
                children[list[i]].insert(child);
            }
            ASSERT_EQ(kor_dpd_get_parent_safe(child, (uint32_t)list.size()), nullptr);
        }
        for (object_t *obj : objects) {
            const auto list = children_of(obj);
            ASSERT_EQ(std::multiset<object_t *>(list.begin(), list.end()), children[obj]);
            ASSERT_EQ(obj->dpd.dpd_child_cnt, list.size());
            expect_groups(obj);
        }
    }

    std::vector<uint64_t> ranks()
    {
        std::vector<uint64_t> all;
        for (object_t *obj : objects)
            all.push_back(kor_dpd_rank(obj));
        return all;
    }

    void unbind(object_t *child)
    {
        std::vector<object_t *> &list = parents[child];
        report_t report(child->dpd.max_parents);
        std::map<object_t *, uint32_t> left;
        for (object_t *parent : list)
            left[parent] = parent->dpd.dpd_child_cnt;
        kor_dpd_remove(child, &report.act);
        EXPECT_EQ(report.act.action[0], list.size());
        bool any = false;
        for (uint32_t i = 0; i < list.size(); i++) {
            const bool last = --left[list[i]] == 0 && (list[i]->dpd.del_flag & 1);
            ASSERT_EQ(report.marked(i), last);
            ASSERT_EQ(report.parents[i], last ? list[i] : nullptr);
            any |= last;
        }
        ASSERT_EQ(kor_dpd_is_bmap_set(&report.act), any);
        list.clear();
    }

    void bind(object_t *child, object_t *parent)
    {
        std::set<object_t *> seen;
        const bool cycle = path(child, parent, &seen);
        node_obj_t request = node_record(child->table_id, node_id(child));
        ASSERT_EQ(kor_dpd_check_bind_validity(parent->obj_handle, &request.base, 0), !cycle);
        const auto before = ranks();
        const bool full = parents[child].size() == child->dpd.max_parents;
        const zan_rcode rc = kor_dpd_add(parent, child);
        if (full) {
            ASSERT_EQ(rc, ZAN_RC_INVALID);
        } else {
            ASSERT_EQ(rc, cycle ? ZAN_RC_BIND_REFUSED : zan_rcode{EOK});
        }
        if (rc == EOK) {
            parents[child].push_back(parent);
        } else {
            ASSERT_EQ(ranks(), before) << "a refused bind leaves all ranks as they were";
        }
        for (object_t *obj : objects)
            ASSERT_EQ(host_area(obj)->repair, 0);
    }

    std::map<object_t *, std::vector<object_t *>> parents;
};

TEST_F(model_of_graph, random_binds_and_unbinds)
{
    for (uint32_t seed = 1; seed <= 20; seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        for (uint32_t i = 0; i < 24; i++)
            make(random() % NUM_TEST_TABLES, seed * 100 + i);
        auto any = [&] { return objects[random() % objects.size()]; };
        for (uint32_t turn = 0; turn < 300; turn++) {
            object_t *child = any();
            ASSERT_NO_FATAL_FAILURE(unbind(child));
            kor_dpd_parent_init(child, random() % 5, 0);
            const uint32_t binds = random() % 5;
            object_t *parent = any();
            for (uint32_t i = 0; i < binds; i++) {
                if (random() % 4)
                    parent = any(); /* else the same once more: a link of its own */
                ASSERT_NO_FATAL_FAILURE(bind(child, parent));
            }
            object_t *pending = any();
            pending->dpd.del_flag = (uint8_t)(random() % 2);
            ASSERT_NO_FATAL_FAILURE(expect_model());
        }
        for (object_t *obj : objects)
            ASSERT_NO_FATAL_FAILURE(unbind(obj));
        for (object_t *obj : objects)
            node_delete(obj);
        objects.clear();
        parents.clear();
    }
}

TEST_F(dependency_graph, a_new_object_ranks_one_above_its_highest_parent)
{
    object_t *a = make(NODE_ID, 1);
    object_t *b = make_below(NODE_ID, 2, {a});
    object_t *c = make_below(NODE_ID, 3, {b});
    object_t *d = make_below(LEAF_ID, 4, {a, c, b});
    EXPECT_EQ(kor_dpd_rank(a), 0u);
    EXPECT_EQ(kor_dpd_rank(d), kor_dpd_rank(c) + 1);
}

TEST_F(dependency_graph, a_rebind_high_up_raises_what_is_below_once)
{
    /* A ladder of diamonds: 2^20 paths, 60 objects. */
    object_t *top = make(NODE_ID, 0);
    object_t *at = top;
    for (uint32_t i = 1; i < 60; i += 3) {
        object_t *left = make_below(NODE_ID, i, {at});
        object_t *right = make_below(NODE_ID, i + 1, {at});
        at = make_below(NODE_ID, i + 2, {left, right});
    }
    object_t *head = make(LEAF_ID, 0), *other = head;
    for (uint32_t i = 1; i < 100; i++)
        other = make_below(LEAF_ID, i, {other});
    kor_dpd_parent_init(top, 1, 0);
    EXPECT_EQ(kor_dpd_add(other, top), EOK);
    EXPECT_EQ(kor_dpd_rank(top), kor_dpd_rank(other) + 1);
    EXPECT_EQ(kor_dpd_rank(at), kor_dpd_rank(top) + 40);
    /* And the bottom of it can no more be above the chain's head. */
    kor_dpd_parent_init(head, 1, 0);
    EXPECT_EQ(kor_dpd_add(at, head), ZAN_RC_BIND_REFUSED);
    EXPECT_FALSE(kor_dpd_check_bind_validity(at->obj_handle, head, 0));
}

TEST_F(dependency_graph, a_bind_is_valid_only_to_a_stored_parent)
{
    object_t *parent = make(NODE_ID, 1);
    const node_obj_t child = node_record(LEAF_ID, 9);
    EXPECT_TRUE(kor_dpd_check_bind_validity(parent->obj_handle, &child.base, 0));
    EXPECT_FALSE(kor_dpd_check_bind_validity(0, &child.base, 0));
    EXPECT_FALSE(kor_dpd_check_bind_validity(parent->obj_handle + 8, &child.base, 0));
    EXPECT_FALSE(kor_dpd_check_bind_validity(ZAN_POISON_FREED_DB_OBJ, &child.base, 0));
    zan_db_del_ctx_t ctx = {parent, EOK, 1};
    zan_db_delete(&ctx);
    EXPECT_FALSE(kor_dpd_check_bind_validity(parent->obj_handle, &child.base, 0));
    ASSERT_EQ(zan_db_insert(parent), EOK);

    node_obj_t itself = node_record(NODE_ID, 1);
    EXPECT_FALSE(kor_dpd_check_bind_validity(parent->obj_handle, &itself.base, 0));
    make_below(LEAF_ID, 2, {parent});
    node_obj_t by_key = node_record(LEAF_ID, 2);
    by_key.base.obj_handle = ZAN_POISON_NO_DB_OBJ; /* the key is what counts */
    EXPECT_FALSE(kor_dpd_check_bind_validity(objects.back()->obj_handle, &by_key.base, 0));
    itself.base.obj_handle = parent->obj_handle;
    itself.base.key_len = 0;
    EXPECT_FALSE(kor_dpd_check_bind_validity(objects.back()->obj_handle, &itself.base, 0));
}

TEST_F(dependency_graph, reset_unbinds_and_hands_a_waiting_parent_to_the_delete_queue)
{
    object_t *waiting = make(NODE_ID, 1), *other = make(NODE_ID, 2);
    object_t *child = make_below(LEAF_ID, 3, {waiting, other, waiting});
    waiting->dpd.del_flag = ZAN_DEL_FLAG_DELAY_DELETE;
    kor_dpd_reset(child, 0);
    EXPECT_EQ(kor_core_queue_dequeue(ZAN_QUEUE_DELAY_DELETE), waiting);
    EXPECT_EQ(kor_core_queue_dequeue(ZAN_QUEUE_DELAY_DELETE), nullptr);
    EXPECT_EQ(waiting->dpd.dpd_child_list, nullptr);
    EXPECT_EQ(child->dpd.num_parents, 0);
    object_t *below = make_below(LEAF_ID, 4, {other});
    EXPECT_DEATH(kor_dpd_reset(other, 0), "no children");
    kor_dpd_parent_init(below, 0, 0);
    EXPECT_EQ(other->dpd.dpd_child_cnt, 0u);
}

TEST_F(dependency_graph, the_post_processing_mark_is_on_the_copy_alone)
{
    object_t *obj = make(NODE_ID, 1);
    zan_table_base_st copy = *obj;
    EXPECT_FALSE(zan_dpd_is_set_freed_by_post_proc_flag(&copy));
    zan_dpd_set_freed_by_post_proc_flag(&copy);
    EXPECT_TRUE(zan_dpd_is_set_freed_by_post_proc_flag(&copy));
    EXPECT_FALSE(zan_dpd_is_set_freed_by_post_proc_flag(obj));
    zan_dpd_clear_freed_by_post_proc_flag(&copy);
    EXPECT_EQ(memcmp(&copy, obj, sizeof copy), 0) << "nothing else changed";
}
