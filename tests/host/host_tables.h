/* Small tables, defined by hand, and stand-ins for the server and the properties service, for the
 * tests of the host platform.
 *
 *   node   key of one number; takes part in the graph; parent of nodes and leaves
 *   leaf   the same, another table
 *   stat   the same, under the database lock
 *
 * A message to an NPU runs `npu_work`; the copies of an asynchronous write are blocks of
 * zan_heap_calloc.
 */
#ifndef HOST_TABLES_H
#define HOST_TABLES_H

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "dependency_graph.h"
#include "host_control.h"
#include "npu_message.h"
#include "object_memory.h"
#include "table_properties.h"
#include "thread_control.h"
#include "zan_tables_private.h"

enum {
    NODE_ID,
    LEAF_ID,
    STAT_ID,
    NUM_TEST_TABLES
};

struct node_key_t {
    uint32_t id;
};

struct node_obj_t {
    zan_table_base_st base;
    uint32_t trans_id;
    uint64_t npu_mask_req;
    uint8_t npu_mask_req_set;
    node_key_t key;
    uint32_t payload[8];
};

/* A definition whose key is `length` single bytes, for the radix tree alone. */
const zan_table_def_t *bytes_def(uint32_t length);

/* A lookup record or heap form with the key set. */
node_obj_t node_record(uint32_t table_id, uint32_t id);
/* A block of the pool with the key set, not stored; and one that is. */
zan_table_base_st *node_block(uint32_t table_id, uint32_t id);
zan_table_base_st *node_stored(uint32_t table_id, uint32_t id);
/* Take a stored object out, unbind it and free it. */
void node_delete(zan_table_base_st *obj);

inline uint32_t node_id(const zan_table_base_st *obj)
{
    return ((const node_obj_t *)obj)->key.id;
}

/* The test tables, empty, on the dispatcher thread. */
class test_tables : public testing::Test
{
protected:
    void SetUp() override
    {
        zan_thread_set_role(ZAN_THREAD_DISPATCHER, -1);
        for (uint32_t id = 0; id < NUM_TEST_TABLES; id++)
            ASSERT_EQ(zan_db_init(nullptr, id), EOK);
    }
    void TearDown() override
    {
        zan_db_deinit();
    }
};

/* And objects in the graph, which are taken off it at the end. */
class test_graph : public test_tables
{
protected:
    void TearDown() override
    {
        for (zan_table_base_st *obj : objects)
            kor_dpd_parent_init(obj, 0, 0); /* unbinds */
        for (zan_table_base_st *obj : objects)
            kor_dpd_reset(obj, 0);
        zan_host_internal_queues_clear();
        test_tables::TearDown();
    }
    zan_table_base_st *make(uint32_t table_id, uint32_t id)
    {
        objects.push_back(node_stored(table_id, id));
        kor_dpd_table_list_init(objects.back());
        return objects.back();
    }
    /* An object bound to these parents. */
    zan_table_base_st *make_below(uint32_t table_id, uint32_t id,
                                  const std::vector<zan_table_base_st *> &parents)
    {
        zan_table_base_st *obj = make(table_id, id);
        kor_dpd_parent_init(obj, (uint32_t)parents.size(), 0);
        for (zan_table_base_st *parent : parents)
            EXPECT_EQ(kor_dpd_add(parent, obj), EOK);
        return obj;
    }
    std::vector<zan_table_base_st *> objects;
};

/* What an NPU does with a message. */
extern std::function<zan_rcode(kor_core_srv_dispatch_t *, int32_t)> npu_work;
/* Called by the slots async_batch_end_npu_cb and delete_notify of every test table. */
extern std::function<void(uint32_t table_id, uint32_t npu)> batch_end_work;
extern std::vector<zan_table_base_st *> delete_notified;
/* Slots of a walk. */
extern std::function<void(kor_dpd_event_ctx_t *)> walk_table_work;
extern std::function<zan_rcode(zan_table_base_st *, kor_dpd_event_ctx_t *)> walk_child_work;

#endif
