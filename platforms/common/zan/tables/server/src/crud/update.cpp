/* The update flow.
 *
 * A request is sparse: it holds only what the client sets. The flow completes it from the stored
 * object, decides whether anything changed, programs hardware from copies, and only then rewrites
 * the stored object and starts the walk that carries the change to its children. A client's update
 * and a walk's come here alike; a walk gives its context.
 *
 * Ownership. The request is the caller's. The copies, the map and the delta are the flow's until an
 * asynchronous broadcast takes them along (`owned`); a walk with post-processing takes the copies
 * too. The walk context is the flow's unless it runs inside a walk, which then ends it.
 */
#include "table_server_api_common.h"

#include <cstring>

namespace
{

/* All that one update carries. */
struct update_op_t {
    zan_table_crud_ctx_t crud;
    const zan_table_def_t *def;
    zan_table_base_st *obj;
    zan_table_response_st *response;
    uint32_t flags;
    zan_bool_t owned; /* behind crud.obj_owned_by_dispatcher */
    zan_rdesc_hook_ctx_t pre, post;
    bool fetch; /* the request may be filled from the stored object at the end */
    zan_rcode post_rc;
};

bool is_async(const update_op_t *op)
{
    return op->def->write_mode != 0;
}

bool fail(update_op_t *op, zan_rcode rc)
{
    op->response->err_code = rc;
    return false;
}

#define UPDATE_TRACE(op, level, message, ...)                                                      \
    ZAN_TRACE_TABLE(zan_slt_crud_ctx(&(op)->crud, ZAN_TRACE_LEVEL_##level), (op)->def->id,         \
                    message, __VA_ARGS__)

/* ---- Entry ---- */

/* Scratch that the change test may fill: for each new member the old one. */
uint32_t *make_map(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    if (!def->resizing)
        return nullptr;
    const uint32_t members = zan_obj_num_elements(def, obj);
    const uint32_t npus = platcfg_config_get_max_num_npus();
    auto *map = (uint32_t *)zan_heap_calloc((members > npus ? members : npus) * sizeof(uint32_t));
    ZAN_ASSERT(map, "new_to_old_map");
    return map;
}

bool update_enter(update_op_t *op, const zan_table_def_t *def, zan_table_base_st *obj,
                  zan_table_response_st *response, uint32_t flags, kor_dpd_event_ctx_t *walk_ctx)
{
    op->def = def;
    op->obj = obj;
    op->response = response;
    op->flags = flags;
    op->owned = 1;
    op->fetch = true;
    const uint32_t trans_id = *zan_obj_trans_id(def, obj);
    uint32_t *map = make_map(def, obj);
    zan_set_trans_id(trans_id, response, flags);
    zan_crud_ctx_server_api_crud_init(&op->crud, response, obj, trans_id, &op->owned, walk_ctx,
                                      &zan_table_state(def)->db_ctx, map);
    zan_counter_raise(def->id, ZAN_CTR_UPDATE);
    if (!zan_server_table_once(def))
        return fail(op, ZAN_RC_INVALID);
    zan_table_state(def)->info.update_cnt++;
    sanitize_input_obj(def, obj, ZAN_TABLE_UPDATE);
    zan_obj_base_take_npu_mask(def, obj);
    return true;
}

/* ---- Before anything changes ---- */

/* A handle may come with the key of another object: the database's key wins, before anything is
 * resolved, reserved or written under the wrong one. */
void update_take_stored_key(update_op_t *op)
{
    const zan_table_def_t *def = op->def;
    zan_table_base_st *obj = op->obj;
    void *key = zan_obj_key(def, obj);
    const void *stored = zan_obj_key(def, op->crud.db_obj);
    if (obj->key_len != 0 && zan_key_cmp(def, key, stored) == 0)
        return;
    if (obj->key_len != 0)
        ZAN_TRACE(ZAN_CLASS_ZAN_FILE_A_BUGTRK_ERROR__, UPDATE_KEY_RESTORED, obj->obj_handle,
                  op->crud.db_obj, op->crud.trans_id, op->crud.db_obj->base_trans_id);
    memcpy(key, stored, def->key_size);
    obj->key_len = op->crud.db_obj->key_len;
}

void update_find_stored(update_op_t *op)
{
    const zan_table_def_t *def = op->def;
    zan_table_base_st *db_obj = zan_db_get(op->obj);
    op->crud.db_obj = db_obj;
    if (db_obj) {
        sanity_check_db_obj_base(db_obj, def->id);
        if (def->track_inflight)
            zan_server_api_inflight_block(def, op->obj, db_obj);
        if (def->table_class == 0)
            db_obj->npu_mask = op->obj->npu_mask;
        update_take_stored_key(op);
    }
    op->crud.props->side_data_init(op->obj, false);
}

bool update_resolve(update_op_t *op)
{
    zan_rcode rc = op->crud.props->resolve_ref(op->obj, op->crud.db_obj, op->crud.is_inside_bwalk);
    if (rc != EOK) {
        zan_counter_raise(op->def->id, ZAN_CTR_UPDATE_RESOLVE_FAILED);
    } else {
        rc = op->crud.props->resolve(op->obj, op->crud.db_obj);
        if (rc == EOK)
            return true;
        zan_counter_raise(op->def->id, ZAN_CTR_UPDATE_RESOLVE_HOOK_FAILED_A);
        zan_counter_raise(op->def->id, ZAN_CTR_UPDATE_RESOLVE_HOOK_FAILED_B);
    }
    zan_table_state(op->def)->info.resolve_fail_cnt++;
    op->fetch = false;
    return fail(op, rc);
}

/* Nothing is stored under the key. In two tables such an update is a create. */
bool update_missing(update_op_t *op)
{
    const zan_table_def_t *def = op->def;
    if (!def->update_of_missing_creates || op->crud.is_inside_bwalk) { /* a walk creates nothing */
        zan_table_state(def)->info.not_found_cnt++;
        if (def->notify_update_missing)
            zan_send_srv_notif(op->obj, ZAN_NOTIF_NOT_FOUND);
        return fail(op, ZAN_RC_NOT_FOUND);
    }
    if (zan_obj_num_elements(def, op->obj) == 0)
        return fail(op, ZAN_RC_INVALID);
    op->obj->table_operation = ZAN_TABLE_CREATE;
    zan_counter_raise(def->id, ZAN_CTR_UPDATE_TO_CREATE);
    zan_server_api_create(def, op->obj, op->response, op->flags);
    return false;
}

/* A client does not update what waits for its delete. A walk may. */
bool update_allowed(update_op_t *op)
{
    if (!op->crud.db_obj)
        return update_missing(op);
    if (zan_obj_base_is_delay_delete(op->crud.db_obj) && !op->crud.is_inside_bwalk) {
        UPDATE_TRACE(op, EVENT, UPDATE_HELD, op->crud.trans_id, op->crud.db_obj);
        return fail(op, ZAN_RC_DELAY_DELETE);
    }
    return true;
}

bool update_complete(update_op_t *op)
{
    zan_table_base_st *db_obj = op->crud.db_obj;
    zan_inherit_from_stored(op->def, op->obj, db_obj);
    if (op->def->table_class != 0)
        zan_obj_base_take_npu_mask(op->def, op->obj); /* it may have been inherited just now */
    op->crud.props->side_data_inherit(op->obj, db_obj);
    op->obj->obj_id = db_obj->obj_id;
    const zan_rcode rc = op->crud.props->side_data_validate(op->obj);
    if (rc == EOK)
        return true;
    zan_table_state(op->def)->info.resolve_fail_cnt++;
    return fail(op, rc);
}

/* Whether hardware must hear of it. A retry or a walk that forces writes what did not change. */
bool update_changes(update_op_t *op)
{
    zan_table_crud_ctx_t *crud = &op->crud;
    bool changed = true;
    if (op->def->change_test)
        changed =
            crud->props->is_attrib_changed(op->obj, crud->db_obj, crud->new_to_old_map, nullptr);
    const bool force = zan_walk_ctx_is_force_update(crud->walk_ctx);
    const bool retry = zan_obj_base_get_retry_mode(op->obj);
    if (retry)
        zan_table_state(op->def)->info.retry_update_cnt++;
    if (retry || force || !changed)
        UPDATE_TRACE(op, EVENT, UPDATE_UNCHANGED, !changed, force, retry, changed, crud->trans_id,
                     crud->db_obj, crud->db_obj->obj_id);
    if (changed || force || retry)
        return true;
    zan_obj_base_clear_stale(crud);
    crud->db_obj->base_trans_id = op->obj->base_trans_id;
    crud->db_obj->table_operation = op->obj->table_operation;
    *zan_obj_trans_id(op->def, crud->db_obj) = *zan_obj_trans_id(op->def, op->obj);
    return false;
}

bool update_reserve(update_op_t *op)
{
    const zan_rcode rc = zan_server_api_update_reserve_id(op->def, &op->crud);
    return rc == EOK || fail(op, rc);
}

bool update_pre_hook(update_op_t *op)
{
    zan_table_crud_ctx_t *crud = &op->crud;
    op->pre.new_obj = op->obj;
    op->pre.old_obj = crud->db_obj;
    op->pre.walk_ctx = crud->walk_ctx;
    crud->rdesc_ctx = &op->pre;
    crud->rdesc_rc = crud->props->pre_update_rdesc(&op->pre);
    const zan_rcode rc = zan_table_npd_rc_to_rc(crud->rdesc_rc, crud);
    if (rc == EOK)
        return true;
    UPDATE_TRACE(op, ERROR, UPDATE_RDESC_FAILED, crud->trans_id, crud->rdesc_rc);
    return fail(op, rc);
}

/* ---- Hardware, database, children ---- */

/* Where in-flight writes are tracked the copies lead to the stored object. */
void mark_async(const update_op_t *op, zan_table_base_st *copy)
{
    copy->flag |= ZAN_FLAG_IS_ASYNC_WRITE;
    copy->obj_handle =
        op->def->track_inflight ? (uint64_t)(uintptr_t)op->crud.db_obj : ZAN_POISON_NO_DB_OBJ;
}

void update_copy(update_op_t *op)
{
    zan_table_crud_ctx_t *crud = &op->crud;
    zan_table_base_st *new_obj = crud->props->copy_ctor(op->obj);
    ZAN_ASSERT(new_obj, "new_obj");
    zan_table_base_st *old_obj = crud->props->copy_ctor(crud->db_obj);
    ZAN_ASSERT(old_obj, "old_obj");
    if (is_async(op)) {
        mark_async(op, new_obj);
        mark_async(op, old_obj);
    }
    new_obj->obj_id = old_obj->obj_id;
    if (op->def->table_class != 0) /* an NPU that is dropped must hear of it too */
        new_obj->npu_mask |= old_obj->npu_mask;
    crud->new_obj = new_obj;
    crud->old_obj = old_obj;
}

/* The walk is prepared from the copies: before they leave, and behind a write that is waited for.
 */
bool update_program(update_op_t *op)
{
    zan_table_crud_ctx_t *crud = &op->crud;
    if (is_async(op))
        zan_server_prep_walk_ctx(op->def, crud);
    const zan_rcode rc = kor_server_program_hw(op->def, crud->new_obj, crud->old_obj, crud);
    if (!is_async(op))
        zan_server_prep_walk_ctx(op->def, crud);
    if (rc == EOK)
        return true;
    if (op->def->identifiers && op->owned)
        zan_server_api_release_id(op->def, crud->new_obj, op->response);
    return false;
}

/* Give back what the old state held and the new one does not. The NPU side does it for copies that
 * it has taken. */
void update_release_ids(update_op_t *op)
{
    const zan_table_def_t *def = op->def;
    zan_table_crud_ctx_t *crud = &op->crud;
    if (!op->owned || !def->identifiers)
        return;
    if (def->identifiers_per_npu_on_update) {
        if (zan_obj_num_elements(def, crud->new_obj) != zan_obj_num_elements(def, crud->old_obj))
            zan_server_api_update_release_id(def, crud->old_obj, crud->old_obj, op->response);
        return;
    }
    const zan_rcode rc = crud->props->update_release_id(-1, crud->new_obj, crud->old_obj);
    if (rc != EOK) {
        op->response->err_code = rc;
        zan_table_state(def)->info.update_id_fail_cnt++;
    }
}

/* The commit reads the hardware's copy, since the platform may have written into it; of an
 * asynchronous write the request, since the copy is with the NPU threads. */
void update_commit(update_op_t *op)
{
    zan_table_crud_ctx_t *crud = &op->crud;
    if (!is_async(op) && !op->owned) { /* the NPU threads own what would be stored */
        zan_obj_base_clear_stale(crud);
        return;
    }
    update_release_ids(op);
    zan_bool_t ref_changed = 0;
    zan_server_api_update_db(op->def, is_async(op) ? op->obj : crud->new_obj, op->obj, crud,
                             &ref_changed);
    if (!ref_changed)
        return;
    ZAN_ASSERT(!crud->is_inside_bwalk, "!crud_ctx.is_inside_bwalk");
    if (crud->db_obj->flag & ZAN_FLAG_FWALK_COLORED)
        zan_colored_event_fwalk_on_update(crud->db_obj);
}

void update_stored(update_op_t *op)
{
    if (!update_complete(op) || !update_changes(op) || !update_reserve(op) || !update_pre_hook(op))
        return;
    update_copy(op);
    if (update_program(op))
        update_commit(op);
    zan_colored_event_validate_child_colors(op->crud.db_obj);
    op->crud.bwalk_rc = zan_core_event_bwalk(op->crud.walk_ctx);
    /* An FRR thread's turn in the walk may have deleted the object. */
    op->crud.db_obj = zan_walk_ctx_get_current_obj(op->crud.walk_ctx);
}

/* ---- Exit ---- */

void update_post_hook(update_op_t *op)
{
    zan_table_crud_ctx_t *crud = &op->crud;
    op->post.new_obj = crud->new_obj;
    op->post.old_obj = crud->old_obj;
    op->post.walk_ctx = crud->walk_ctx;
    zan_fill_post_rdesc(crud, &op->post);
    op->post_rc = crud->props->post_update_rdesc(&op->post);
    if (op->post_rc != EOK) {
        UPDATE_TRACE(op, ERROR, UPDATE_POST_FAILED, crud->trans_id, op->post_rc);
        op->response->err_code = op->post_rc;
    }
}

void update_free(update_op_t *op)
{
    zan_table_crud_ctx_t *crud = &op->crud;
    const bool owned = op->owned != 0;
    const bool owns_old = zan_walk_ctx_owns_old_obj(crud->walk_ctx);
    const bool inside = zan_walk_ctx_is_inside_bwalk(crud->walk_ctx);
    crud->props->side_data_free(op->obj);
    if (owned) {
        zan_heap_free(crud->new_to_old_map);
        if (!owns_old && crud->new_obj) {
            update_post_hook(op);
            crud->props->copy_dtor(crud->new_obj);
            crud->props->copy_dtor(crud->old_obj);
        }
    }
    crud->new_obj = crud->old_obj = nullptr;
    if (!inside) {
        zan_walk_ctx_free_old_obj_from_dispatcher(crud->walk_ctx);
        zan_walk_ctx_dtor(crud->walk_ctx);
    }
}

zan_rcode update_leave(update_op_t *op)
{
    zan_table_crud_ctx_t *crud = &op->crud;
    zan_table_response_st *response = op->response;
    const zan_rcode rc = kor_reconcile_response(op->def, crud->db_obj, op->obj, op->fetch);
    if (rc != EOK)
        response->err_code = rc;
    if (is_async(op))
        zan_walk_ctx_stamp_root_error(crud->walk_ctx, (zan_rcode)response->err_code);
    update_free(op);
    response->err_code = kor_pick_final_rc(crud, op->post_rc, (zan_rcode)response->err_code);
    zan_obj_base_stamp_rc((zan_rcode)response->err_code, crud->db_obj, op->obj);
    kor_log_not_found_key(crud, op->obj);
    if (crud->db_obj)
        sanity_check_db_obj_base(crud->db_obj, op->def->id);
    zan_clear_trans_id();
    return op->post_rc;
}

} // namespace

zan_rcode zan_server_api_update(const zan_table_def_t *def, zan_table_base_st *obj,
                                zan_table_response_st *response, uint32_t flags,
                                kor_dpd_event_ctx_t *walk_ctx)
{
    update_op_t op = {}; // all that one update carries, on this frame
    // map, context, counters, first use, sanity, masks
    if (update_enter(&op, def, obj, response, flags, walk_ctx)) {
        update_find_stored(&op);
        if (update_resolve(&op) && update_allowed(&op))
            update_stored(&op); // complete, compare, reserve, program, commit, walk
    }
    return update_leave(&op); // free what is ours, end the walk, final code, stamp
}
