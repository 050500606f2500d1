/* A walk without memory: the N-th block that it asks for is not there, for N = 1, 2, ... until it
 * needs no more. Whatever it cannot keep, it ends, visits nobody twice, and says so when it has not
 * come to everybody. That nothing leaks is the address sanitizer's to see. */
#include <gtest/gtest.h>

#include <map>

#include "host_blocks.h"
#include "host_tables.h"
#include "table_database.h"
#include "walk_service.h"

namespace
{

uint32_t blocks_asked, fail_at; /* fail_at 0: none fails */
bool fail_on;                   /* and all behind it */

} // namespace

extern "C" {
void *__real__Z16host_block_allocm(size_t size);
void *__wrap__Z16host_block_allocm(size_t size)
{
    blocks_asked++;
    if (fail_at != 0 && (blocks_asked == fail_at || (fail_on && blocks_asked > fail_at)))
        return nullptr;
    return __real__Z16host_block_allocm(size);
}
}

namespace
{

constexpr uint32_t width = 6; /* objects of a layer */

class walk_memory : public test_graph, public testing::WithParamInterface<bool>
{
protected:
    void SetUp() override
    {
        test_graph::SetUp();
        wanted = kor_bm_allocate(ZAN_TABLE_BITMAP_BITS);
        kor_bm_set(wanted, NODE_ID);
        kor_bm_set(wanted, LEAF_ID);
        make_layers();
        walk_table_work = [](kor_dpd_event_ctx_t *walk_ctx) { walk_ctx->child_update_needed = 1; };
        walk_child_work = [this](zan_table_base_st *child, kor_dpd_event_ctx_t *walk_ctx) {
            return visit(child, walk_ctx);
        };
    }
    void TearDown() override
    {
        test_graph::TearDown();
        free(wanted);
    }

    /* A source, two layers of nodes and one of leaves; each object stands below two of the layer
     * above. */
    void make_layers()
    {
        zan_table_base_st *source = make_below(NODE_ID, 1, {});
        std::vector<zan_table_base_st *> above(width, source);
        for (const uint32_t table_id : {NODE_ID, NODE_ID, LEAF_ID}) {
            std::vector<zan_table_base_st *> layer;
            for (uint32_t i = 0; i < width; i++)
                layer.push_back(make_below(table_id, (uint32_t)objects.size() + 1,
                                           {above[i], above[(i + 1) % width]}));
            above = layer;
        }
    }
    void push(kor_dpd_event_ctx_t *walk_ctx, zan_table_base_st *source)
    {
        zan_bwalk_event_data *event = zan_bwalk_event_data_alloc();
        event->source_obj = source;
        event->table_id = source->table_id;
        event->child_bitmap = wanted;
        walk_ctx->current_obj = source;
        ASSERT_TRUE(dpd_event_push(walk_ctx->event_list, event));
    }
    /* The update of a child: memory is there for it, and every node pushes an event of its own. */
    zan_rcode visit(zan_table_base_st *child, kor_dpd_event_ctx_t *walk_ctx)
    {
        visits[child]++;
        const uint32_t asked = blocks_asked;
        const uint32_t failing = std::exchange(fail_at, 0);
        kor_dpd_event_ctx_t *nested = zan_walk_ctx_alloc_walk_ctx(walk_ctx);
        if (child->table_id == NODE_ID)
            push(nested, child);
        fail_at = failing;
        blocks_asked = asked;
        return EOK;
    }
    zan_rcode walk(uint32_t nth)
    {
        visits.clear();
        kor_dpd_event_ctx_t *root = zan_walk_ctx_alloc_walk_ctx(nullptr);
        push(root, objects[0]);
        blocks_asked = 0;
        fail_at = nth;
        fail_on = GetParam();
        const zan_rcode rc = kor_dpd_event_bwalk(root, 1);
        fail_at = 0;
        zan_walk_ctx_dtor(root);
        return rc;
    }

    std::map<zan_table_base_st *, uint32_t> visits;
    uint64_t *wanted = nullptr;
};

} // namespace

TEST_P(walk_memory, ends_and_tells)
{
    ASSERT_EQ(walk(0), EOK);
    ASSERT_EQ(visits.size(), 3 * width);
    const uint32_t needed = blocks_asked;
    ASSERT_GT(needed, 10u);
    uint32_t incomplete = 0;
    for (uint32_t n = 1; n <= needed; n++) {
        const zan_rcode rc = walk(n);
        EXPECT_TRUE(rc == EOK || rc == ZAN_RC_NO_MEMORY) << n;
        if (visits.size() != 3 * width) {
            incomplete++;
            EXPECT_EQ(rc, ZAN_RC_NO_MEMORY) << n;
        }
        for (const auto &[obj, times] : visits)
            EXPECT_EQ(times, 1u) << n << ": " << node_id(obj);
    }
    EXPECT_GT(incomplete, 0u);
    EXPECT_EQ(walk(0), EOK);
    EXPECT_EQ(visits.size(), 3 * width);
}

INSTANTIATE_TEST_SUITE_P(once_and_for_good, walk_memory, testing::Bool());
