/* The definitions and stand-ins behind host_tables.h. */
#include "host_tables.h"
#include "retry.h"

#include <cstring>
#include <map>

#include "table_database.h"

std::function<zan_rcode(kor_core_srv_dispatch_t *, int32_t)> npu_work;
std::function<void(uint32_t, uint32_t)> batch_end_work;
std::vector<zan_table_base_st *> delete_notified;
std::function<void(kor_dpd_event_ctx_t *)> walk_table_work;
std::function<zan_rcode(zan_table_base_st *, kor_dpd_event_ctx_t *)> walk_child_work;

namespace
{

zan_field_def_t key_field(zan_type_et type, uint16_t width, uint32_t offset)
{
    zan_field_def_t f = {};
    f.name = "id";
    f.type = type;
    f.width = width;
    f.count = 1;
    f.offset = offset;
    return f;
}

const uint16_t node_children[] = {NODE_ID, LEAF_ID};
const zan_field_def_t node_keys[] = {key_field(ZAN_TYPE_U32, 4, 0)};

zan_table_def_t make_table(const char *name, uint16_t id)
{
    zan_table_def_t def = {};
    def.name = name;
    def.id = id;
    def.obj_size = sizeof(node_obj_t);
    def.trans_id_offset = offsetof(node_obj_t, trans_id);
    def.key_offset = offsetof(node_obj_t, key);
    def.key_size = sizeof(node_key_t);
    def.key_bytes = 4;
    def.num_keys = 1;
    def.keys = node_keys;
    if (id == NODE_ID) {
        def.num_children = 2;
        def.children = node_children;
    }
    def.db_lock = id == STAT_ID ? ZAN_DB_LOCK_DB : ZAN_DB_LOCK_NONE;
    return def;
}

const zan_table_def_t defs[NUM_TEST_TABLES] = {
    make_table("node", NODE_ID), make_table("leaf", LEAF_ID), make_table("stat", STAT_ID)};

zan_rcode batch_end(uint32_t table_id, uint32_t npu)
{
    batch_end_work(table_id, npu);
    return EOK;
}

void notify_delete(zan_table_base_st *obj)
{
    delete_notified.push_back(obj);
}

zan_rcode walk_table(void *, kor_dpd_event_ctx_t *walk_ctx, void *)
{
    walk_table_work(walk_ctx);
    return EOK;
}

zan_rcode walk_child(zan_table_base_st *child, kor_dpd_event_ctx_t *walk_ctx)
{
    return walk_child_work(child, walk_ctx);
}

void free_copy(zan_table_base_st *copy)
{
    zan_heap_free(copy);
}

} // namespace

const zan_table_def_t *bytes_def(uint32_t length)
{
    struct table_t {
        zan_table_def_t def;
        std::vector<zan_field_def_t> keys;
    };
    static std::map<uint32_t, table_t> made;
    table_t &table = made[length];
    zan_table_def_t &def = table.def;
    if (!def.keys) {
        for (uint32_t i = 0; i < length; i++)
            table.keys.push_back(key_field(ZAN_TYPE_U8, 1, i));
        def.keys = table.keys.data();
        def.num_keys = (uint16_t)length;
        def.key_bytes = def.key_size = (uint16_t)length;
        def.key_offset = sizeof(zan_table_base_st);
    }
    return &def;
}

node_obj_t node_record(uint32_t table_id, uint32_t id)
{
    node_obj_t record;
    memset(&record, 0, sizeof record);
    record.base.table_id = (uint16_t)table_id;
    record.base.total_obj_size = sizeof record;
    record.base.key_len = sizeof(node_key_t);
    record.key.id = id;
    return record;
}

zan_table_base_st *node_block(uint32_t table_id, uint32_t id)
{
    auto *obj = (zan_table_base_st *)zan_shm_table_pool_calloc(table_id, sizeof(node_obj_t));
    const node_obj_t record = node_record(table_id, id);
    memcpy(obj, &record, sizeof record);
    obj->obj_handle = (uint64_t)(uintptr_t)obj;
    return obj;
}

zan_table_base_st *node_stored(uint32_t table_id, uint32_t id)
{
    zan_table_base_st *obj = node_block(table_id, id);
    if (zan_db_insert(obj) == EOK)
        return obj;
    zan_shm_free(obj);
    return nullptr;
}

void node_delete(zan_table_base_st *obj)
{
    zan_db_del_ctx_t ctx = {obj, EOK, 1};
    zan_db_delete(&ctx);
    if (!ctx.free_obj)
        return;
    kor_dpd_reset(obj, 0);
    zan_shm_free(obj);
}

/* ---- Stand-ins ---- */

const zan_table_def_t *const zan_table_defs[ZAN_NUM_TABLES] = {&defs[NODE_ID], &defs[LEAF_ID],
                                                               &defs[STAT_ID]};

const zan_table_def_t *zan_table_def_get(uint32_t table_id)
{
    return table_id < NUM_TEST_TABLES ? &defs[table_id] : nullptr;
}

const zan_table_def_t *zan_table_def_find(const char *name)
{
    for (const zan_table_def_t &def : defs)
        if (strcmp(def.name, name) == 0)
            return &def;
    return nullptr;
}

srv_zan_table_props_t *zan_srv_table_props_get(uint32_t table_id)
{
    static srv_zan_table_props_t props = [] {
        srv_zan_table_props_t made = {};
        made.copy_dtor = free_copy;
        made.async_batch_end_npu_cb = batch_end;
        made.delete_notify = notify_delete;
        made.bwalk_child_process_events = walk_table;
        made.bwalk_child_callback = walk_child;
        return made;
    }();
    return table_id < NUM_TEST_TABLES ? &props : nullptr;
}

zan_rcode kor_core_npu_dispatcher(kor_core_srv_dispatch_t *srv_obj, int32_t npu_id)
{
    return npu_work(srv_obj, npu_id);
}

const uint64_t zan_schema_fingerprint = 1;

/* No write of these tables fails. */
void host_quarantine_forget(const zan_table_base_st *)
{
}

void host_retry_unstored(const zan_table_base_st *)
{
}

/* Nor has any of them adjacency tables. */
void host_adj_forget_table(uint32_t)
{
}
