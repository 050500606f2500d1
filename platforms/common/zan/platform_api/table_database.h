/* The table database.
 *
 * Objects live in one shared-memory pool that is mapped once, so that an object's address is its
 * handle. Each table has one index, exact and ordered by key. All functions are for the dispatcher
 * thread, or the FRR thread while it holds the dispatcher, unless said otherwise; no lock is taken.
 *
 * Search functions take a lookup record: an object of which only table_id and either obj_handle or
 * the key (with key_len) are read; it may be cut off behind the key. They return the database
 * object or null.
 */
#ifndef ZAN_PLATFORM_TABLE_DATABASE_H
#define ZAN_PLATFORM_TABLE_DATABASE_H

#include "global_context.h"
#include "zan_table_base.h"

/* Argument and result of zan_db_delete. */
typedef struct zan_db_del_ctx_t {
    zan_table_base_st *db_obj;
    zan_rcode rc;
    uint8_t free_obj; /* set by the caller; the database clears it when it keeps the block */
} zan_db_del_ctx_t;

/* Visitor of zan_db_walk; a non-zero return ends the walk and becomes its result. */
typedef zan_rcode (*zan_db_walk_f)(zan_table_base_st *db_obj, void *arg);

ZAN_EXTERN_C_BEGIN
/* Make the table's index. Once per table, before anything else; any thread. 0 or ZAN_RC_NO_MEMORY.
 */
ZAN_EXPORT zan_rcode zan_db_init(zan_global_ctx_st *ctx, uint32_t table_id);

/* By handle when obj_handle is not 0, else by key. A handle finds only a live stored object of the
 * table, at the cost of two loads from memory outside the pool. */
ZAN_EXPORT zan_table_base_st *zan_db_get(const zan_table_base_st *lookup);
/* Bring towards the cache what looking these up by key will touch, and for a create what reserving
 * its identifiers will. A hint: it finds nothing and changes nothing. At most ZAN_DB_PREFETCH_MAX
 * records, of any tables. */
#define ZAN_DB_PREFETCH_MAX 16u
ZAN_EXPORT void zan_db_prefetch(const zan_table_base_st *const *lookups, uint32_t count);
/* The first object in key order. */
ZAN_EXPORT zan_table_base_st *zan_db_get_first(const zan_table_base_st *lookup);
/* The first object whose key is not below, or is above, the key (or the handle's key). The lookup
 * record may be a database object itself, even one that was just deleted but not freed. */
ZAN_EXPORT zan_table_base_st *zan_db_get_gt_eq(const zan_table_base_st *lookup);
ZAN_EXPORT zan_table_base_st *zan_db_get_next(const zan_table_base_st *lookup);

/* Store an object that zan_shm_table_pool_calloc gave out, under its key. On 0 the database owns it
 * until zan_db_delete. ZAN_RC_TABLE_FULL when the table's limit is reached, ZAN_RC_EXISTS when the
 * key is taken, ZAN_RC_NO_MEMORY. The block of a refused object stays with the caller; one whose
 * caller leaves it is adopted by the table and freed with it. */
ZAN_EXPORT zan_rcode zan_db_insert(zan_table_base_st *db_obj);
/* Take ctx->db_obj out of its index. A block of the pool that was never inserted: rc
 * ZAN_RC_NOT_FOUND, free_obj cleared, and the database frees the block itself. */
ZAN_EXPORT void zan_db_delete(zan_db_del_ctx_t *ctx);

/* Visit all objects in key order. The visitor may delete the object it has. `walk_arg` and `flags`
 * are 0. The secondary server thread may call it too, for the tables whose objects are stored and
 * taken out under kor_db_lock: it sees each object whole, and gets ZAN_RC_BAD_ARGUMENT for any
 * other. */
ZAN_EXPORT zan_rcode zan_db_walk(uint32_t table_id, void *walk_arg, zan_db_walk_f visitor,
                                 void *arg, uint32_t flags);
/* Stored objects of a table; 0 for a table that was never used. Any thread. */
ZAN_EXPORT uint64_t zan_db_count(uint32_t table_id);
/* Whether the handle is the address of a live stored object of the table. Any value may be asked.
 */
ZAN_EXPORT bool zan_db_hdl_is_valid(uint32_t table_id, uint64_t handle);
/* Most objects that a table takes; 0 is without limit. */
ZAN_EXPORT void zan_db_set_limit(uint32_t table_id, uint64_t max_objects);
/* The table's time of last change := now. */
ZAN_EXPORT void kor_db_update_tbl_mtime(const zan_table_base_st *db_obj);

/* A zeroed block of the table's pool, 8-byte aligned; null without memory. */
ZAN_EXPORT void *zan_shm_table_pool_calloc(uint32_t table_id, size_t size);
/* Give back a block of zan_shm_table_pool_calloc or zan_shm_dyn_alloc; null is allowed. */
ZAN_EXPORT void zan_shm_free(void *block);
/* Shared memory for dynamic attributes, zeroed; null without memory. */
ZAN_EXPORT void *zan_shm_dyn_alloc(uint32_t table_id, size_t size);
/* Bytes of the pool in use by blocks, and by the indices outside it, over all tables. */
ZAN_EXPORT uint64_t zan_shm_bytes_in_use(void);
ZAN_EXPORT uint64_t zan_db_index_bytes(void);
/* Bytes in use by what the table database holds beside the objects of one table: its index. */
ZAN_EXPORT uint64_t zan_db_index_bytes_of(uint32_t table_id);

/* Size in bytes of the platform's private area in objects of a table; may be 0, a multiple of 8.
 * Any thread. */
ZAN_EXPORT uint32_t kor_npd_get_table_size(uint32_t table_id);

/* The list of quarantined objects of the lookup record's table; next takes an entry. */
ZAN_EXPORT zan_table_base_st *zan_db_quarantine_get_first(const zan_table_base_st *lookup);
ZAN_EXPORT zan_table_base_st *zan_db_quarantine_get_next(const zan_table_base_st *entry);

/* Comparison of the keys of two objects of a table, 0 means equal. Any thread. */
typedef int (*kor_table_key_cmp_f)(const zan_table_base_st *a, const zan_table_base_st *b);
ZAN_EXPORT kor_table_key_cmp_f kor_table_get_key_cmp_fn_ptr(uint32_t table_id);
ZAN_EXTERN_C_END

#endif
