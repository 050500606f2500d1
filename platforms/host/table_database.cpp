/* The table database: an index over the objects in the pool, for each table.
 *
 * The pool knows where objects are and which of them are stored, the radix tree knows their order;
 * this file joins the two, and holds what else belongs to a table: its count and limit, the time of
 * its last change.
 *
 * A block that an insert refused and that nobody frees needs no list of its own: it is a block in
 * use of one of the table's slabs, and goes with them.
 */
#include "table_database.h"
#include "clock.h"
#include "graph_area.h"
#include "host_assert.h"
#include "host_blocks.h"
#include "host_control.h"
#include "host_periodic_stats.h"
#include "host_services.h"
#include "identifiers.h"
#include "locks.h"
#include "radix_nodes.h"
#include "radix_tree.h"
#include "retry.h"
#include "shared_pool.h"
#include "thread_control.h"
#include "walk.h"
#include "zan_tables_private.h"

#include <atomic>

namespace
{

struct table_t {
    host_radix_tree_t index; /* index.def is null until zan_db_init */
    std::atomic<uint64_t> count;
    uint64_t limit; /* 0: none */
    timespec mtime;
};

table_t tables[ZAN_NUM_TABLES];

inline uint64_t address_of(const zan_table_base_st *obj)
{
    return (uint64_t)(uintptr_t)obj;
}

/* The table of a record, or null when it was never made. */
inline table_t *table_of(const zan_table_base_st *obj)
{
    if (obj->table_id >= ZAN_NUM_TABLES)
        return nullptr;
    table_t *table = &tables[obj->table_id];
    return table->index.def ? table : nullptr;
}

inline void encode(const table_t *table, const zan_table_base_st *obj, uint8_t *key)
{
    zan_key_encode(table->index.def, zan_obj_key(table->index.def, obj), key);
}

inline void change_count(table_t *table, int change)
{
    table->count.store(table->count.load(std::memory_order_relaxed) + (uint64_t)(int64_t)change,
                       std::memory_order_relaxed);
}

/* The object whose key an ordered search starts from: the one that the handle leads to; else the
 * record itself, if it has a key or is a database object that has just been deleted. Null: nothing
 * to start from. */
const zan_table_base_st *start_of_search(const zan_table_base_st *lookup)
{
    const uint64_t handle = lookup->obj_handle;
    if (handle && host_pool_is_stored(lookup->table_id, handle))
        return (const zan_table_base_st *)(uintptr_t)handle;
    if (lookup->key_len || host_pool_is_object(address_of(lookup)))
        return lookup;
    return nullptr;
}

zan_table_base_st *search(const zan_table_base_st *lookup, host_radix_bound_et bound)
{
    const table_t *table = table_of(lookup);
    const zan_table_base_st *start = table ? start_of_search(lookup) : nullptr;
    if (!start)
        return nullptr;
    uint8_t key[ZAN_KEY_BYTES_MAX];
    encode(table, start, key);
    return host_radix_bound(&table->index, key, bound);
}

/* ---- The walk ---- */

/* The locks under which the dispatcher writes objects of a table, for a walk on another thread. A
 * table of kind BOTH is indexed under one and updated under the other, so that a walk takes the
 * two; nobody else holds both. */
void lock_for_walk(const zan_table_def_t *def)
{
    HOST_ASSERT(kor_db_lock() == 0, "kor_db_lock() == 0");
    if (def->db_lock == ZAN_DB_LOCK_BOTH)
        HOST_ASSERT(kor_db_stats_lock() == 0, "kor_db_stats_lock() == 0");
}

void unlock_for_walk(const zan_table_def_t *def)
{
    if (def->db_lock == ZAN_DB_LOCK_BOTH)
        kor_db_stats_unlock();
    kor_db_unlock();
}

/* Visit the first object, or the one behind `key`, and leave its key there. False at the end. */
bool visit_next(const table_t *table, uint8_t *key, bool first, zan_db_walk_f visitor, void *arg,
                zan_rcode *rc)
{
    zan_table_base_st *obj = first ? host_radix_first(&table->index)
                                   : host_radix_bound(&table->index, key, HOST_RADIX_ABOVE);
    if (!obj)
        return false;
    encode(table, obj, key);
    *rc = visitor(obj, arg);
    return *rc == EOK;
}

} // namespace

/* ---- Tables ---- */

zan_rcode zan_db_init(zan_global_ctx_st *, uint32_t table_id)
{
    const zan_table_def_t *def = zan_table_def_get(table_id);
    if (table_id >= ZAN_NUM_TABLES || !def)
        return ZAN_RC_BAD_ARGUMENT;
    if (!host_pool_open())
        return ZAN_RC_NO_MEMORY;
    tables[table_id].index.def = def;
    return EOK;
}

void zan_db_fini_table(uint32_t table_id)
{
    if (table_id >= ZAN_NUM_TABLES)
        return;
    table_t *table = &tables[table_id];
    host_quarantine_free_table(table_id);
    host_radix_clear(&table->index);
    host_adj_forget_table(table_id);
    host_pool_free_table(table_id);
    table->index.def = nullptr;
    table->count.store(0, std::memory_order_relaxed);
    table->limit = 0;
    table->mtime = {};
}

void zan_db_deinit(void)
{
    for (uint32_t table_id = 0; table_id < ZAN_NUM_TABLES; table_id++)
        zan_db_fini_table(table_id);
    radix_nodes_release();
    host_pool_close();
    host_parent_slots_release();
    host_ranks_release();
    host_colors_release();
    host_walks_release();
    host_blocks_trim();
}

/* ---- Search ---- */

zan_table_base_st *zan_db_get(const zan_table_base_st *lookup)
{
    if (lookup->obj_handle)
        return host_pool_is_stored(lookup->table_id, lookup->obj_handle)
                   ? (zan_table_base_st *)(uintptr_t)lookup->obj_handle
                   : nullptr;
    const table_t *table = table_of(lookup);
    if (!table || !table->index.root)
        return nullptr;
    uint8_t key[ZAN_KEY_BYTES_MAX];
    encode(table, lookup, key);
    return host_radix_find(&table->index, key);
}

static_assert(HOST_RADIX_PREFETCH_MAX >= ZAN_DB_PREFETCH_MAX);

void zan_db_prefetch(const zan_table_base_st *const *lookups, uint32_t count)
{
    host_radix_search_t searches[ZAN_DB_PREFETCH_MAX];
    uint32_t n = 0;
    for (uint32_t i = 0; i < count && i < ZAN_DB_PREFETCH_MAX; i++) {
        const table_t *table = lookups[i]->obj_handle ? nullptr : table_of(lookups[i]);
        if (!table || !table->index.root)
            continue;
        searches[n].tree = &table->index;
        encode(table, lookups[i], searches[n].key);
        if (lookups[i]->table_operation == ZAN_TABLE_CREATE)
            host_identifiers_prefetch(table->index.def, searches[n].key);
        n++;
    }
    host_radix_prefetch(searches, n);
}

zan_table_base_st *zan_db_get_first(const zan_table_base_st *lookup)
{
    const table_t *table = table_of(lookup);
    return table ? host_radix_first(&table->index) : nullptr;
}

zan_table_base_st *zan_db_get_gt_eq(const zan_table_base_st *lookup)
{
    return search(lookup, HOST_RADIX_NOT_BELOW);
}

zan_table_base_st *zan_db_get_next(const zan_table_base_st *lookup)
{
    return search(lookup, HOST_RADIX_ABOVE);
}

bool zan_db_hdl_is_valid(uint32_t table_id, uint64_t handle)
{
    return host_pool_is_stored(table_id, handle);
}

/* ---- Change ---- */

bool host_db_holds(uint32_t table_id, const uint8_t *key)
{
    const table_t *table = &tables[table_id];
    return table->index.def && host_radix_find(&table->index, key);
}

zan_rcode zan_db_insert(zan_table_base_st *db_obj)
{
    table_t *table = table_of(db_obj);
    HOST_ASSERT(table, "the object's table was made by zan_db_init");
    HOST_ASSERT(host_pool_is_object(address_of(db_obj)),
                "the object is a block of zan_shm_table_pool_calloc");
    if (host_pool_is_stored(db_obj->table_id, address_of(db_obj)))
        return ZAN_RC_EXISTS;
    const uint64_t count = table->count.load(std::memory_order_relaxed);
    uint8_t key[ZAN_KEY_BYTES_MAX];
    encode(table, db_obj, key);
    if (table->limit && count >= table->limit)
        return host_radix_find(&table->index, key) ? ZAN_RC_EXISTS : ZAN_RC_TABLE_FULL;
    switch (host_radix_insert(&table->index, key, db_obj)) {
    case HOST_RADIX_OK:
        break;
    case HOST_RADIX_EXISTS:
        return ZAN_RC_EXISTS;
    case HOST_RADIX_NO_MEMORY:
        return ZAN_RC_NO_MEMORY;
    }
    host_pool_set_mark(address_of(db_obj), HOST_MARK_STORED, true);
    change_count(table, 1);
    host_quarantine_forget(db_obj);
    return EOK;
}

void zan_db_delete(zan_db_del_ctx_t *ctx)
{
    zan_table_base_st *db_obj = ctx->db_obj;
    const uint64_t address = address_of(db_obj);
    table_t *table = table_of(db_obj);
    if (!table || !host_pool_is_stored(db_obj->table_id, address)) {
        ctx->rc = ZAN_RC_NOT_FOUND;
        ctx->free_obj = 0;
        if (host_pool_is_object(address))
            host_pool_free(db_obj);
        return;
    }
    uint8_t key[ZAN_KEY_BYTES_MAX];
    encode(table, db_obj, key);
    const bool found = host_radix_delete(&table->index, key, db_obj);
    HOST_ASSERT(found, "a stored object keeps the key it was stored under");
    host_pool_set_mark(address, HOST_MARK_STORED, false);
    change_count(table, -1);
    host_walks_forget(db_obj);
    host_retry_unstored(db_obj);
    ctx->rc = EOK;
}

zan_rcode zan_db_walk(uint32_t table_id, void *, zan_db_walk_f visitor, void *arg, uint32_t)
{
    const table_t *table = table_id < ZAN_NUM_TABLES ? &tables[table_id] : nullptr;
    if (!table || !table->index.def)
        return EOK;
    const zan_table_def_t *def = table->index.def;
    const bool other_thread = zan_core_is_secondary_server_thread();
    /* Creates and deletes of the other tables change the index under no lock. */
    if (other_thread && def->db_lock != ZAN_DB_LOCK_DB && def->db_lock != ZAN_DB_LOCK_BOTH)
        return ZAN_RC_BAD_ARGUMENT;
    uint8_t key[ZAN_KEY_BYTES_MAX];
    zan_rcode rc = EOK;
    bool more = true;
    for (bool first = true; more; first = false) {
        if (other_thread)
            lock_for_walk(def);
        more = visit_next(table, key, first, visitor, arg, &rc);
        if (other_thread)
            unlock_for_walk(def);
    }
    return rc;
}

void zan_db_set_limit(uint32_t table_id, uint64_t max_objects)
{
    if (table_id < ZAN_NUM_TABLES)
        tables[table_id].limit = max_objects;
}

void kor_db_update_tbl_mtime(const zan_table_base_st *db_obj)
{
    if (db_obj->table_id < ZAN_NUM_TABLES)
        zan_clock_gettime(CLOCK_REALTIME_COARSE, &tables[db_obj->table_id].mtime);
}

/* ---- Facts ---- */

uint64_t zan_db_count(uint32_t table_id)
{
    return table_id < ZAN_NUM_TABLES ? tables[table_id].count.load(std::memory_order_relaxed) : 0;
}

uint64_t zan_db_index_bytes_of(uint32_t table_id)
{
    return table_id < ZAN_NUM_TABLES ? tables[table_id].index.node_bytes : 0;
}

uint64_t zan_db_index_bytes(void)
{
    uint64_t sum = 0;
    for (const table_t &table : tables)
        sum += table.index.node_bytes;
    return sum;
}

timespec zan_db_table_mtime(uint32_t table_id)
{
    return table_id < ZAN_NUM_TABLES ? tables[table_id].mtime : timespec{};
}

/* ---- Blocks ---- */

void *zan_shm_table_pool_calloc(uint32_t table_id, size_t size)
{
    return host_pool_open() ? host_pool_alloc(table_id, HOST_BLOCK_OBJECT, size) : nullptr;
}

void *zan_shm_dyn_alloc(uint32_t table_id, size_t size)
{
    return host_pool_open() ? host_pool_alloc(table_id, HOST_BLOCK_DYNAMIC, size) : nullptr;
}

void zan_shm_free(void *block)
{
    host_pool_free(block);
}

uint64_t zan_shm_bytes_in_use(void)
{
    return host_pool_bytes_in_use();
}
