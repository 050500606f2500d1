/* The delete flow.
 *
 * A delete may not take an object out of the database while others depend on it. It is refused (not
 * found), held back (client references left, or children), or carried through. An object held back
 * for its children stays, marked, and serves as parent; the last child to go brings it back here
 * through the delete queue.
 *
 * Ownership. The request is the caller's. The copy for the hardware is the flow's until an
 * asynchronous broadcast takes it along. The stored object is freed here, unless the database keeps
 * the block.
 */
#include "table_server_api_common.h"

#include <cstring>

namespace
{

/* All that one delete carries. */
struct delete_op_t {
    zan_table_crud_ctx_t crud;
    const zan_table_def_t *def;
    zan_table_base_st *obj;
    zan_table_response_st *response;
    zan_bool_t owned; /* behind crud.obj_owned_by_dispatcher */
    zan_rdesc_hook_ctx_t pre, post;
    bool reference_taken; /* from obj_ref_cnt, by this delete */
    zan_rcode hook_rc;    /* of the pre-operation hook, which stops nothing */
};

bool is_async(const delete_op_t *op)
{
    return op->def->write_mode != 0;
}

bool fail(delete_op_t *op, zan_rcode rc)
{
    op->response->err_code = rc;
    return false;
}

#define DELETE_TRACE(op, level, message, ...)                                                      \
    ZAN_TRACE_TABLE(zan_slt_crud_ctx(&(op)->crud, ZAN_TRACE_LEVEL_##level), (op)->def->id,         \
                    message, __VA_ARGS__)

/* ---- Entry ---- */

bool delete_enter(delete_op_t *op, const zan_table_def_t *def, zan_table_base_st *obj,
                  zan_table_response_st *response, uint32_t flags)
{
    op->def = def;
    op->obj = obj;
    op->response = response;
    op->owned = 1;
    const uint32_t trans_id = *zan_obj_trans_id(def, obj);
    zan_set_trans_id(trans_id, response, flags);
    zan_crud_ctx_server_api_crud_init(&op->crud, response, obj, trans_id, &op->owned, nullptr,
                                      &zan_table_state(def)->db_ctx, nullptr);
    zan_counter_raise(def->id, ZAN_CTR_DELETE);
    if (!zan_server_table_once(def))
        return fail(op, ZAN_RC_INVALID);
    zan_table_state(def)->info.delete_cnt++;
    sanitize_input_obj(def, obj, ZAN_TABLE_DELETE);
    zan_obj_base_take_npu_mask(def, obj);
    obj->flag |= ZAN_FLAG_DELETING;
    return true;
}

bool delete_find_stored(delete_op_t *op)
{
    const zan_table_def_t *def = op->def;
    zan_table_base_st *db_obj = zan_db_get(op->obj);
    if (!db_obj) {
        zan_table_state(def)->info.not_found_cnt++;
        DELETE_TRACE(op, ERROR, DELETE_NOT_FOUND, op->crud.trans_id);
        zan_send_srv_notif(op->obj, ZAN_NOTIF_NOT_FOUND);
        return fail(op, ZAN_RC_NOT_FOUND);
    }
    sanity_check_db_obj_base(db_obj, def->id);
    op->crud.db_obj = db_obj;
    if (def->track_inflight)
        zan_server_api_inflight_block(def, op->obj, db_obj);
    if (def->table_class == 0)
        db_obj->npu_mask = op->obj->npu_mask;
    return true;
}

/* ---- Who else has a say ---- */

/* The platform of some tables decides for itself what a delete is. */
bool delete_action(delete_op_t *op)
{
    if (!op->def->delete_action_select)
        return true;
    using select_f = zan_rcode (*)(srv_delete_action_ctx_t *);
    const auto select = (select_f)op->crud.props->hook[ZAN_HOOK_delete_action_select];
    srv_delete_action_ctx_t ctx = {op->obj, op->crud.db_obj};
    const zan_rcode rc = select ? select(&ctx) : EOK;
    DELETE_TRACE(op, EVENT, DELETE_ACTION, op->crud.trans_id, op->crud.db_obj, rc);
    return rc == EOK || fail(op, rc < 0xffffffff ? rc : EOK);
}

/* Two tables show the delete to the platform as an event first, in a walk context that says no more
 * than that. */
void delete_as_event(delete_op_t *op)
{
    if (!op->def->delete_calls_picker)
        return;
    kor_dpd_event_ctx_t *scratch = zan_walk_ctx_alloc_walk_ctx(nullptr);
    ZAN_ASSERT(scratch, "scratch");
    const uint32_t kind = ZAN_TABLE_EVENT;
    memcpy((void *)scratch, &kind, sizeof kind);
    op->crud.db_obj->table_operation = ZAN_TABLE_EVENT;
    kor_server_hw_thread_picker(op->def, op->obj, op->crud.db_obj, op->response, scratch);
    zan_walk_ctx_dtor(scratch);
    op->response->err_code = EOK; /* its failure is not the delete's */
}

/* Take one client reference away. A delete that the server gives itself holds none. */
bool delete_last_reference(delete_op_t *op)
{
    if (!op->def->obj_ref_cnt_offset)
        return true;
    zan_table_base_st *db_obj = op->crud.db_obj;
    if (!(op->obj->flag & ZAN_FLAG_QUEUED_DELETE))
        op->reference_taken = kor_ref_adjust(op->def, db_obj, false);
    const uint32_t left = *zan_obj_ref_cnt(op->def, db_obj);
    if (left == 0)
        return true;
    zan_counter_raise(op->def->id, ZAN_CTR_DELETE_REF_CNT);
    DELETE_TRACE(op, EVENT, DELETE_REFERENCED, left, op->crud.trans_id, db_obj);
    return false;
}

void delete_put_reference_back(delete_op_t *op)
{
    if (op->reference_taken)
        kor_ref_adjust(op->def, op->crud.db_obj, true);
}

void trace_held(const delete_op_t *op, const zan_table_base_st *db_obj)
{
    const zan_trace_class_t c = zan_slt_crud_ctx(&op->crud, ZAN_TRACE_LEVEL_EVENT);
    if (!zan_trace_is_on(c))
        return;
    const uint16_t table_id = db_obj->dpd.dpd_child_list->child->table_id;
    _ringlogs(c, zan_msg_id(ZAN_MSG_HELD_FOR_CHILDREN, 3, 0x4), (uint64_t)db_obj->dpd.dpd_child_cnt,
              (uint64_t)table_id, kor_table_name_get(table_id));
}

/* Children hold the object: it waits for them, marked, or in one table is refused. */
bool delete_without_children(delete_op_t *op)
{
    zan_table_base_st *db_obj = op->crud.db_obj;
    if (db_obj->dpd.dpd_child_cnt == 0)
        return true;
    if (op->def->delete_delay) {
        DELETE_TRACE(op, EVENT, DELETE_REFUSED, db_obj->dpd.dpd_child_cnt, op->crud.trans_id,
                     db_obj);
        delete_put_reference_back(op);
        return fail(op, ZAN_RC_STILL_REFERENCED);
    }
    *zan_obj_trans_id(op->def, db_obj) = op->crud.trans_id;
    db_obj->base_trans_id = op->crud.trans_id;
    trace_held(op, db_obj);
    db_obj->dpd.del_flag |= ZAN_DEL_FLAG_DELAY_DELETE;
    const zan_rcode rc = zan_delete_independent_hw_resource(op->crud.props, db_obj);
    if (rc != EOK)
        DELETE_TRACE(op, ERROR, DELETE_INDEPENDENT_FAILED, op->crud.trans_id, rc);
    zan_table_set_batch_continue(op->response, EOK);
    return fail(op, ZAN_RC_DELAY_DELETE);
}

/* ---- Hardware ---- */

void delete_copy(delete_op_t *op)
{
    zan_table_base_st *new_obj = op->crud.props->copy_ctor(op->crud.db_obj);
    ZAN_ASSERT(new_obj, "new_obj");
    if (is_async(op)) {
        new_obj->flag |= ZAN_FLAG_IS_ASYNC_WRITE;
        new_obj->obj_handle = ZAN_POISON_NO_DB_OBJ;
    }
    *zan_obj_trans_id(op->def, new_obj) = op->crud.trans_id;
    new_obj->base_trans_id = op->crud.trans_id;
    op->crud.new_obj = new_obj;
}

void delete_pre_hook(delete_op_t *op)
{
    op->pre.old_obj = op->crud.new_obj;
    op->crud.rdesc_ctx = &op->pre;
    op->crud.rdesc_rc = op->crud.props->pre_delete_rdesc(&op->pre);
    op->hook_rc = op->crud.rdesc_rc;
    if (op->hook_rc != EOK)
        DELETE_TRACE(op, ERROR, DELETE_RDESC_FAILED, op->crud.trans_id, op->hook_rc);
}

/* The identifiers go also when hardware refused. */
bool delete_program(delete_op_t *op)
{
    zan_table_crud_ctx_t *crud = &op->crud;
    const zan_rcode rc = kor_server_program_hw(op->def, crud->new_obj, nullptr, crud);
    if (op->owned)
        zan_server_api_release_id(op->def, crud->new_obj, op->response);
    if (rc == EOK)
        return true;
    DELETE_TRACE(op, ERROR, DELETE_HW_FAILED, crud->trans_id, crud->db_obj, rc);
    delete_put_reference_back(op);
    return false;
}

/* An asynchronous table has the post action of its last NPU instead. */
void delete_post_hook(delete_op_t *op)
{
    if (is_async(op))
        return;
    zan_table_crud_ctx_t *crud = &op->crud;
    op->post.old_obj = crud->new_obj;
    zan_fill_post_rdesc(crud, &op->post);
    const zan_rcode rc = crud->props->post_delete_rdesc(&op->post);
    if (rc != EOK) {
        DELETE_TRACE(op, ERROR, DELETE_POST_FAILED, crud->trans_id, rc);
        op->hook_rc = rc;
    }
}

/* ---- Graph and database ---- */

void delete_from_database(delete_op_t *op, kor_npu_mask_t saved_mask)
{
    const zan_table_def_t *def = op->def;
    zan_table_crud_ctx_t *crud = &op->crud;
    kor_drop_adj_entries(def, crud->db_obj, crud->trans_id);
    const zan_db_del_ctx_t del = kor_db_delete(def, crud->db_obj);
    if (del.rc != EOK) {
        fail(op, del.rc);
        zan_counter_raise(def->id, ZAN_CTR_DB_DELETE_FAILED);
        DELETE_TRACE(op, ERROR, DELETE_DB_FAILED, crud->trans_id, crud->db_obj, del.rc);
        DELETE_TRACE(op, ERROR, DELETE_DB_KEPT, crud->trans_id, crud->db_obj);
        if (!del.free_obj)
            crud->db_obj = nullptr; /* the database has it */
        return;
    }
    zan_global_ctx_st *ctx = zan_get_global_ctx();
    crud->props->specific_access_fn(ctx ? &ctx->table[def->id] : nullptr, crud->db_obj);
    if (!del.free_obj) {
        crud->db_obj = nullptr;
        return;
    }
    kor_free_db_object(crud, true);
    kor_count_objects(def, saved_mask, -1);
}

void delete_unstore(delete_op_t *op)
{
    const zan_table_def_t *def = op->def;
    zan_table_base_st *db_obj = op->crud.db_obj;
    sanity_check_db_obj_base(db_obj, def->id);
    const kor_npu_mask_t saved_mask = db_obj->npu_mask;
    ZAN_TRACE(zan_history_class(def, op->crud.retry_mode != 0), HISTORY_DELETE, def->id,
              db_obj->obj_id, op->crud.trans_id, db_obj->base_trans_id);
    if (def->graph) {
        zan_trace_parents(def, db_obj);
        kor_core_parent_delete(def, db_obj, op->crud.trans_id);
    }
    const bool lock = def->db_lock == ZAN_DB_LOCK_DB || def->db_lock == ZAN_DB_LOCK_BOTH;
    if (lock)
        kor_db_lock();
    delete_from_database(op, saved_mask);
    if (lock)
        kor_db_unlock();
}

void delete_free(delete_op_t *op)
{
    delete_copy(op);
    delete_pre_hook(op);
    if (!delete_program(op))
        return;
    delete_post_hook(op);
    delete_unstore(op);
}

/* ---- Exit ---- */

void delete_leave(delete_op_t *op)
{
    zan_table_crud_ctx_t *crud = &op->crud;
    if (op->owned && crud->new_obj) {
        crud->props->side_data_free(crud->new_obj);
        crud->props->copy_dtor(crud->new_obj);
    }
    crud->new_obj = nullptr;
    const auto err_code = (zan_rcode)op->response->err_code;
    op->response->err_code = kor_pick_final_rc(crud, 0, err_code != EOK ? err_code : op->hook_rc);
    zan_obj_base_stamp_db((zan_rcode)op->response->err_code, crud->db_obj, op->obj);
    kor_log_not_found_key(crud, op->obj);
    zan_clear_trans_id();
}

} // namespace

zan_rcode zan_server_api_delete(const zan_table_def_t *def, zan_table_base_st *obj,
                                zan_table_response_st *response, uint32_t flags)
{
    delete_op_t op = {}; // all that one delete carries, on this frame
    const uint8_t operation = obj->table_operation;
    if (delete_enter(&op, def, obj, response, flags) && delete_find_stored(&op) &&
        delete_action(&op)) {
        delete_as_event(&op);
        op.crud.db_obj->table_operation = operation;
        if (delete_last_reference(&op) && delete_without_children(&op))
            delete_free(&op); // copy, hooks, hardware, identifiers, graph, database
    }
    delete_leave(&op); // free what is ours, final code, stamp
    return EOK;
}

zan_rcode zan_delete_independent_hw_resource(const srv_zan_table_props_t *props,
                                             zan_table_base_st *obj)
{
    using hook_f = zan_rcode (*)(zan_table_base_st *);
    const auto hook = (hook_f)props->hook[ZAN_HOOK_delete_independent_hw_resource];
    return hook ? hook(obj) : EOK;
}
