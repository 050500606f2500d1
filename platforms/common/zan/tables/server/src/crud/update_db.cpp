/* The commit of an update: the stored object takes the new state, hardware has it already.
 *
 * The graph is touched only when a reference has changed, and then whole: a reference is never
 * rebound alone. The key in the database always wins over the request's.
 */
#include "table_server_api_common.h"

#include <cstring>

namespace
{

struct commit_t {
    const zan_table_def_t *def;
    zan_table_base_st *src, *obj, *db_obj;
    zan_table_crud_ctx_t *crud;
    const srv_zan_table_props_t *props;
    bool is_async, resized, ref_changed;
};

bool has_references(const zan_table_def_t *def)
{
    return def->num_refs != 0 || def->num_unions != 0;
}

#define COMMIT_TRACE(c, level, message, ...)                                                       \
    ZAN_TRACE_TABLE(zan_slt_crud_ctx((c)->crud, ZAN_TRACE_LEVEL_##level), (c)->def->id, message,   \
                    __VA_ARGS__)

void restore_key(commit_t *c)
{
    void *key = zan_obj_key(c->def, c->src);
    const void *stored = zan_obj_key(c->def, c->db_obj);
    if (zan_key_cmp(c->def, key, stored) == 0)
        return;
    ZAN_TRACE(ZAN_CLASS_ZAN_FILE_A_BUGTRK_ERROR__, UPDATE_KEY_RESTORED, c->src->obj_handle,
              c->db_obj, *zan_obj_trans_id(c->def, c->src), c->db_obj->base_trans_id);
    memcpy(key, stored, c->def->key_size);
}

/* A back-walk never rewires references. */
void leave_parents(commit_t *c)
{
    const uint32_t reason = zan_refs_changed(c->def, c->src, c->db_obj);
    COMMIT_TRACE(c, VERBOSE, UPDATE_REFS, reason != 0, reason, c->crud->trans_id, c->db_obj);
    c->ref_changed = reason != 0;
    if (!c->ref_changed)
        return;
    zan_counter_raise(c->def->id, ZAN_CTR_REFS_CHANGED_A);
    zan_counter_raise(c->def->id, ZAN_CTR_REFS_CHANGED_B);
    zan_trace_parents(c->def, c->db_obj);
    kor_core_parent_delete(c->def, c->db_obj, c->crud->trans_id);
    ZAN_ASSERT(!c->crud->is_inside_bwalk, "!is_inside_bwalk");
}

void write_header(commit_t *c)
{
    zan_table_base_st *db_obj = c->db_obj;
    if (c->resized) {
        c->props->shmwin_free_dbobj_params(db_obj);
        if (!c->is_async)
            c->props->side_data_free(db_obj);
    }
    zan_obj_base_reset_transient_flags(db_obj);
    db_obj->table_operation = c->src->table_operation;
    db_obj->flag |= c->src->flag & ZAN_FLAG_CARRY;
    const uint32_t members = zan_obj_num_elements(c->def, c->src);
    if (c->def->num_elements_offset)
        *(uint32_t *)zan_obj_at(db_obj, c->def->num_elements_offset) = members;
    db_obj->total_obj_size = kor_get_obj_size(c->def, members);
    ZAN_TRACE(zan_history_class(c->def, c->crud->retry_mode != 0), HISTORY_REPLACE, c->def->id,
              db_obj, *zan_obj_trans_id(c->def, c->src), db_obj->base_trans_id);
}

/* Steps under the table's lock. False when there is no memory for the members: the object then has
 * their count and none of them. */
bool write_contents(commit_t *c)
{
    zan_table_base_st *db_obj = c->db_obj;
    const uint32_t trans_id = *zan_obj_trans_id(c->def, c->src);
    *zan_obj_trans_id(c->def, db_obj) = trans_id;
    db_obj->base_trans_id = c->src->base_trans_id;
    if (c->resized) {
        const zan_rcode rc = c->props->shmwin_alloc_dbobj_params(db_obj, c->src);
        if (rc != EOK) {
            c->crud->response->err_code = rc;
            zan_table_state(c->def)->info.dbobj_alloc_fail_cnt++;
            COMMIT_TRACE(c, ERROR, UPDATE_ALLOC_FAILED, zan_obj_num_elements(c->def, c->src),
                         c->crud->trans_id, rc);
            return false;
        }
    }
    if (c->def->periodic_stats)
        zan_inherit_statistics(c->def, c->src, db_obj);
    kor_write_dbobj(c->def, c->src, db_obj);
    if (c->def->table_class != 0 && !c->def->object_mask_async) {
        *zan_obj_npu_mask_req(c->def, db_obj) = *zan_obj_npu_mask_req(c->def, c->src);
        *zan_obj_npu_mask_req_set(c->def, db_obj) = *zan_obj_npu_mask_req_set(c->def, c->src);
    }
    if (c->resized)
        c->props->side_data_init(db_obj, false);
    c->props->side_data_copy(db_obj, c->src);
    if (!c->is_async) {
        zan_clock_gettime(CLOCK_REALTIME, &db_obj->client_time);
        kor_db_update_tbl_mtime(db_obj);
    }
    return true;
}

bool write_locked(commit_t *c)
{
    const uint8_t kind = c->def->db_lock;
    if (kind == ZAN_DB_LOCK_DB)
        kor_db_lock();
    else if (kind != ZAN_DB_LOCK_NONE)
        kor_db_stats_lock();
    write_header(c);
    const bool written = write_contents(c);
    if (kind == ZAN_DB_LOCK_DB)
        kor_db_unlock();
    else if (kind != ZAN_DB_LOCK_NONE)
        kor_db_stats_unlock();
    return written;
}

/* Where the object says for itself which NPUs have it, the counts of objects follow. */
void move_count(commit_t *c, kor_npu_mask_t old_mask)
{
    const kor_npu_mask_t mask = c->obj->npu_mask;
    if (c->def->table_class == 0 || mask == old_mask)
        return;
    c->db_obj->npu_mask = mask;
    kor_count_objects(c->def, mask & ~old_mask, 1);
    kor_count_objects(c->def, old_mask & ~mask, -1);
}

void join_parents(commit_t *c)
{
    if (!c->ref_changed)
        return;
    const zan_rcode rc = kor_core_parent_add(c->def, c->db_obj);
    if (rc == EOK)
        return;
    c->crud->response->err_code = rc;
    COMMIT_TRACE(c, ERROR, UPDATE_BIND_FAILED, c->crud->trans_id, c->db_obj, rc);
}

} // namespace

void zan_server_api_update_db(const zan_table_def_t *def, zan_table_base_st *src,
                              zan_table_base_st *obj, zan_table_crud_ctx_t *crud,
                              zan_bool_t *ref_changed)
{
    commit_t c = {def,   src,  obj, crud->db_obj, crud, crud->props, def->write_mode != 0,
                  false, false};
    /* A stored object may have lost its members to a resize that found no memory. */
    c.resized = zan_obj_num_elements(def, src) != zan_obj_num_held(def, c.db_obj);
    restore_key(&c);
    if (has_references(def))
        leave_parents(&c);
    const kor_npu_mask_t old_mask = c.db_obj->npu_mask;
    if (!write_locked(&c)) {
        zan_refs_forget_handles(def, c.db_obj); /* it is bound to none of them any more */
        return;
    }
    *ref_changed = c.ref_changed;
    move_count(&c, old_mask);
    if (def->parent_init_on_update)
        kor_dpd_parent_init(c.db_obj, 0, 0);
    join_parents(&c);
    COMMIT_TRACE(&c, VERBOSE, UPDATE_STORED, crud->trans_id, c.db_obj, c.resized);
    zan_obj_base_clear_stale(crud);
    if (c.is_async)
        return;
    const zan_counters_hold_t hold(def);
    zan_obj_copy_attrs(def, c.db_obj, obj);
}
