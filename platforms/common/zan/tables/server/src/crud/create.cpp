/* The create flow.
 *
 * On a key that the database does not hold a create stores a new object and programs hardware. On a
 * key that it holds it decides, by the request's write_kind, whether this is a harmless repeat, a
 * duplicate, or an update in disguise.
 *
 * Ownership. The request is the caller's; the flow frees its side data only. The heap copy for the
 * hardware is the flow's until the broadcast passes it on. The database block is the flow's until
 * zan_db_insert has returned 0.
 */
#include "table_server_api_common.h"

namespace
{

/* All that one create carries. */
struct create_op_t {
    zan_table_crud_ctx_t crud;
    const zan_table_def_t *def;
    zan_table_base_st *obj;
    zan_table_response_st *response;
    uint32_t flags;
    zan_bool_t owned; /* behind crud.obj_owned_by_dispatcher */
    zan_rdesc_hook_ctx_t pre, post;
    zan_table_base_st *create_to_update_copy;
    zan_table_base_st *block; /* the new database object, until it is stored or freed */
    kor_npu_mask_t saved_mask;
    bool rollback; /* the hardware refused: the block goes */
    bool stored;
    zan_rcode post_rc;
};

bool is_async(const create_op_t *op)
{
    return op->def->write_mode != 0;
}

bool fail(create_op_t *op, zan_rcode rc)
{
    op->response->err_code = rc;
    return false;
}

#define CREATE_TRACE(op, level, message, ...)                                                      \
    ZAN_TRACE_TABLE(zan_slt_crud_ctx(&(op)->crud, ZAN_TRACE_LEVEL_##level), (op)->def->id,         \
                    message, __VA_ARGS__)

/* ---- Entry ---- */

/* False when the table could not start; the slot says so. */
bool create_enter(create_op_t *op, const zan_table_def_t *def, zan_table_base_st *obj,
                  zan_table_response_st *response, uint32_t flags)
{
    op->def = def;
    op->obj = obj;
    op->response = response;
    op->flags = flags;
    op->owned = 1;
    const uint32_t trans_id = *zan_obj_trans_id(def, obj);
    kor_db_ctx_t *db_ctx = &zan_table_state(def)->db_ctx;
    zan_set_trans_id(trans_id, response, flags);
    zan_crud_ctx_server_api_crud_init(&op->crud, response, obj, trans_id, &op->owned, nullptr,
                                      db_ctx, nullptr);
    zan_counter_raise(def->id, ZAN_CTR_CREATE);
    if (!zan_server_table_once(def))
        return fail(op, ZAN_RC_INVALID);
    zan_server_table_stats_once(def);
    zan_table_state(def)->info.create_cnt++;
    sanitize_input_obj(def, obj, ZAN_TABLE_CREATE);
    zan_obj_base_take_npu_mask(def, obj);
    op->saved_mask = obj->npu_mask;
    return true;
}

bool create_find_stored(create_op_t *op)
{
    const zan_table_def_t *def = op->def;
    zan_table_base_st *db_obj = zan_db_get(op->obj);
    op->crud.db_obj = db_obj;
    if (!db_obj) /* a handle that leads nowhere is no new key */
        return op->obj->obj_handle == 0 || fail(op, ZAN_RC_NOT_FOUND);
    sanity_check_db_obj_base(db_obj, def->id);
    if (def->create_waits_inflight)
        zan_server_api_inflight_block(def, op->obj, db_obj);
    op->create_to_update_copy = copy_ctor_for_create_to_update(op->obj, db_obj);
    const bool key_is_set = op->obj->key_len != 0;
    if (key_is_set && zan_key_cmp(def, zan_obj_key(def, op->obj), zan_obj_key(def, db_obj)) != 0)
        return fail(op, ZAN_RC_KEY_MISMATCH);
    return true;
}

bool create_resolve(create_op_t *op)
{
    op->crud.props->side_data_init(op->obj, false);
    zan_rcode rc = op->crud.props->resolve_ref(op->obj, op->crud.db_obj, op->crud.is_inside_bwalk);
    if (rc == EOK)
        rc = op->crud.props->resolve(op->obj, op->crud.db_obj);
    if (rc == EOK)
        return true;
    zan_table_state(op->def)->info.resolve_fail_cnt++;
    return fail(op, rc);
}

/* ---- A stored object under the key ---- */

/* Mark a create that revives an object as one that may replace it: it never counts as a plain
 * duplicate. */
void zan_create_revive_mark(zan_table_base_st *obj)
{
    if (!obj)
        return;
    switch (obj->write_kind) {
    case 0:
    case ZAN_WRITE_KIND_STRICT:
    case ZAN_WRITE_KIND_REPLACE_REF:
        obj->write_kind = ZAN_WRITE_KIND_REPLACE_REF;
        break;
    default:
        obj->write_kind = ZAN_WRITE_KIND_REPLACE;
    }
    obj->hw_state = 3;
}

void create_revive(create_op_t *op)
{
    op->crud.db_obj->dpd.del_flag &= (uint8_t)~ZAN_DEL_FLAG_DELAY_DELETE;
    zan_create_revive_mark(op->obj);
    zan_create_revive_mark(op->create_to_update_copy);
    CREATE_TRACE(op, EVENT, CREATE_REVIVED, op->crud.db_obj, op->crud.trans_id);
}

void create_count_reference(create_op_t *op)
{
    if (op->def->obj_ref_cnt_offset)
        kor_ref_adjust(op->def, op->crud.db_obj, true);
}

/* It is there again: somebody has it, whatever kind of create said so. */
void create_clear_stale(create_op_t *op)
{
    zan_table_base_st *db_obj = op->crud.db_obj;
    db_obj->flag &= ~(uint32_t)ZAN_FLAG_STALE;
    if (op->def->obj_ref_cnt_offset && !*zan_obj_ref_cnt_set(op->def, db_obj))
        kor_ref_set(op->def, db_obj, 1);
}

void create_accept_stored(create_op_t *op)
{
    create_clear_stale(op);
    op->response->obj = (uint64_t)(uintptr_t)op->crud.db_obj;
}

void create_convert_to_update(create_op_t *op)
{
    zan_table_base_st *db_obj = op->crud.db_obj;
    zan_table_base_st *copy = op->create_to_update_copy;
    ZAN_ASSERT(copy, "create_to_update_copy");
    create_clear_stale(op);
    copy->table_operation = ZAN_TABLE_UPDATE;
    zan_server_api_update(op->def, copy, op->response, op->flags, nullptr);
    op->response->obj = (uint64_t)(uintptr_t)db_obj;
    db_obj->client_epoch = copy->client_epoch;
}

void create_duplicate(create_op_t *op)
{
    zan_table_base_st *db_obj = op->crud.db_obj;
    zan_counter_raise(op->def->id, ZAN_CTR_CREATE_DUPLICATE);
    zan_table_state(op->def)->info.dup_create_cnt++;
    if (db_obj->flag & ZAN_FLAG_STALE) {
        create_accept_stored(op);
        kor_ref_set(op->def, db_obj, 1);
        return;
    }
    if (op->def->obj_ref_cnt_offset) {
        kor_ref_adjust(op->def, db_obj, true);
        op->response->obj = (uint64_t)(uintptr_t)db_obj;
    }
    fail(op, ZAN_RC_EXISTS);
}

/* A repeat, a duplicate, or an update in disguise. */
void create_on_stored(create_op_t *op)
{
    const zan_table_def_t *def = op->def;
    zan_table_base_st *db_obj = op->crud.db_obj;
    if (zan_obj_base_is_delay_delete(db_obj)) {
        if (def->create_reject) {
            CREATE_TRACE(op, ERROR, CREATE_REJECTED, db_obj, op->crud.trans_id);
            fail(op, ZAN_RC_CREATE_ON_DELETE);
            return;
        }
        create_revive(op);
    }
    const uint8_t kind = op->obj->write_kind;
    if (kind < ZAN_WRITE_KIND_REPLACE || kind > ZAN_WRITE_KIND_REPLACE_REF) {
        create_duplicate(op);
        return;
    }
    if (kind != ZAN_WRITE_KIND_REPLACE)
        create_count_reference(op);
    int32_t attr_idx = -1;
    const bool differs = op->crud.props->is_attrib_changed(op->obj, db_obj, nullptr, &attr_idx);
    CREATE_TRACE(op, EVENT, CREATE_EXISTING, db_obj, op->crud.trans_id, kind, attr_idx);
    if (kind == ZAN_WRITE_KIND_STRICT) {
        zan_counter_raise(def->id,
                          differs ? ZAN_CTR_CREATE_STRICT_DIFFERS : ZAN_CTR_CREATE_STRICT_EQUAL);
        if (!differs) {
            create_accept_stored(op);
            return;
        }
        op->response->obj = (uint64_t)(uintptr_t)db_obj;
        zan_table_state(def)->info.dup_create_cnt++;
        fail(op, ZAN_RC_EXISTS);
        return;
    }
    zan_counter_raise(def->id, differs ? ZAN_CTR_CREATE_CONVERTED : ZAN_CTR_CREATE_REPLACE_EQUAL);
    if (differs)
        create_convert_to_update(op);
    else
        create_accept_stored(op);
}

/* ---- A new key ---- */

bool create_validate(create_op_t *op)
{
    const zan_rcode rc = op->crud.props->side_data_validate(op->obj);
    if (rc == EOK)
        return true;
    zan_table_state(op->def)->info.resolve_fail_cnt++;
    return fail(op, rc);
}

bool create_reserve(create_op_t *op)
{
    const zan_rcode rc = zan_server_api_reserve_id(op->def, &op->crud);
    return rc == EOK || fail(op, rc);
}

void create_free_block(create_op_t *op)
{
    op->crud.props->shmwin_free_dbobj_params(op->block);
    zan_shm_free(op->block);
    op->block = nullptr;
    op->crud.db_obj = nullptr;
}

bool create_allocate(create_op_t *op)
{
    const srv_zan_table_props_t *props = op->crud.props;
    zan_resource_info_t *info = &zan_table_state(op->def)->info;
    op->block = (zan_table_base_st *)zan_shm_table_pool_calloc(op->def->id, props->private_size +
                                                                                props->obj_size);
    if (props->private_size != 0 && op->block)
        props->set_npd_exists(op->block, true);
    zan_fill_pre_alloc_dbobj_basic_info(op->obj, op->block);
    const zan_rcode rc = props->shmwin_alloc_dbobj_params(op->block, op->obj);
    if (rc == EOK)
        return true;
    info->dbobj_alloc_fail_cnt++;
    zan_counter_raise(op->def->id, ZAN_CTR_CREATE_DYN_ALLOC_FAILED);
    zan_shm_free(op->block);
    op->block = nullptr;
    CREATE_TRACE(op, ERROR, CREATE_ALLOC_FAILED, op->crud.trans_id, rc);
    info->dbobj_alloc_fail_cnt++; /* the object and its dynamic part count apart */
    return fail(op, ZAN_RC_NO_MEMORY_DB);
}

bool create_pre_hook(create_op_t *op)
{
    op->pre.new_obj = op->obj;
    op->crud.rdesc_rc = op->crud.props->pre_create_rdesc(&op->pre);
    op->crud.rdesc_ctx = &op->pre;
    const zan_rcode rc = zan_table_npd_rc_to_rc(op->crud.rdesc_rc, &op->crud);
    if (rc == EOK)
        return true;
    CREATE_TRACE(op, ERROR, CREATE_RDESC_FAILED, op->crud.trans_id, op->crud.rdesc_rc);
    fail(op, rc);
    create_free_block(op);
    return false;
}

/* The hardware gets a copy. Where in-flight writes are tracked it leads to the database object. */
bool create_program(create_op_t *op)
{
    zan_table_base_st *new_obj = op->crud.props->copy_ctor(op->obj);
    ZAN_ASSERT(new_obj, "new_obj");
    op->crud.new_obj = new_obj;
    if (is_async(op)) {
        new_obj->flag |= ZAN_FLAG_IS_ASYNC_WRITE;
        new_obj->obj_handle =
            op->def->track_inflight ? (uint64_t)(uintptr_t)op->block : ZAN_POISON_NO_DB_OBJ;
    }
    if (kor_server_program_hw(op->def, new_obj, nullptr, &op->crud) == EOK)
        return true;
    op->rollback = true;
    return false;
}

/* Fill the block from what was programmed: the hardware's copy in a synchronous table, since the
 * platform may have written into it, and the request where the copy is with the NPU threads. */
void create_write_block(create_op_t *op, zan_table_base_st *src)
{
    const zan_table_def_t *def = op->def;
    zan_table_base_st *block = op->block;
    const uint32_t trans_id = op->crud.trans_id;
    kor_write_dbobj_base(src, block);
    block->total_obj_size = kor_get_obj_size(def, zan_obj_num_elements(def, src));
    kor_dpd_table_list_init(block);
    block->table_operation = (uint8_t)op->crud.table_operation;
    block->obj_handle = (uint64_t)(uintptr_t)block;
    *zan_obj_trans_id(def, block) = trans_id;
    block->base_trans_id = trans_id;
    block->obj_id = trans_id;
    if (!def->track_inflight) /* else the NPU threads may have it */
        block->inflight = 0;
    block->flag &= ~(uint32_t)(ZAN_FLAG_IS_ASYNC_WRITE | ZAN_FLAG_IS_ASYNC_DISPATCH);
    zan_obj_base_reset_transient_flags(block);
    block->flag = (block->flag & ~(uint32_t)ZAN_FLAG_CARRY_HI) | (src->flag & ZAN_FLAG_CARRY_HI);
    block->hw_state = 3;
    if (!is_async(op)) {
        *zan_obj_npu_mask_req_set(def, block) = *zan_obj_npu_mask_req_set(def, src);
        *zan_obj_npu_mask_req(def, block) = *zan_obj_npu_mask_req(def, src);
    }
    kor_write_dbobj(def, src, block);
    if (def->adj_list_offset)
        zan_npi_init_adj_list(block);
}

zan_rcode create_bind(create_op_t *op)
{
    if (op->def->parent_init_without_references)
        kor_dpd_parent_init(op->block, 0, 0);
    return kor_core_parent_add(op->def, op->block);
}

zan_rcode create_insert(create_op_t *op, zan_table_base_st *src)
{
    const srv_zan_table_props_t *props = op->crud.props;
    props->side_data_init(op->block, !is_async(op));
    props->side_data_copy(op->block, src);
    const zan_rcode rc = zan_db_insert(op->block);
    if (rc == EOK) {
        op->stored = true;
        op->response->obj = (uint64_t)(uintptr_t)op->block;
        zan_global_ctx_st *ctx = zan_get_global_ctx();
        props->specific_access_fn(ctx ? &ctx->table[op->def->id] : nullptr, src);
        op->crud.db_obj = op->block;
        op->crud.db_written = 1;
        if (!is_async(op))
            zan_obj_copy_attrs(op->def, op->block, op->obj);
        return EOK;
    }
    zan_counter_raise(op->def->id, ZAN_CTR_INSERT_FAILED_A);
    zan_counter_raise(op->def->id, ZAN_CTR_INSERT_FAILED_B);
    if (rc == ZAN_RC_TABLE_FULL) {
        zan_counter_raise(op->def->id, ZAN_CTR_TABLE_FULL);
        return rc;
    }
    zan_table_state(op->def)->info.dup_create_cnt++;
    return ZAN_RC_EXISTS;
}

/* A bind or insert was refused behind an asynchronous write: the block goes, once no NPU thread
 * touches its inflight any more. */
void create_undo_store(create_op_t *op, zan_rcode rc)
{
    op->crud.db_obj = op->block;
    CREATE_TRACE(op, ERROR, CREATE_STORE_FAILED, op->crud.trans_id, op->block, rc);
    op->response->err_code = rc;
    zan_counter_raise(op->def->id, ZAN_CTR_CREATE_STORE_FAILED);
    if (op->def->track_inflight)
        zan_server_api_inflight_block(op->def, op->obj, op->block);
    op->block = nullptr;
    kor_free_db_object(&op->crud, true);
    kor_count_objects(op->def, op->saved_mask, -1);
}

/* Write, bind, insert. False when an asynchronous table took the block back. */
bool create_store(create_op_t *op)
{
    const zan_table_def_t *def = op->def;
    kor_count_objects(def, op->obj->npu_mask, 1);
    kor_ref_set(def, op->obj, 1);
    ZAN_TRACE(zan_history_class(def, op->crud.retry_mode != 0), HISTORY_CREATE, def->id, op->block,
              op->crud.trans_id);
    zan_table_base_st *src = is_async(op) ? op->obj : op->crud.new_obj;
    kor_ref_set(def, src, 1);
    const bool lock = def->db_lock == ZAN_DB_LOCK_DB || def->db_lock == ZAN_DB_LOCK_BOTH;
    if (lock)
        kor_db_lock();
    create_write_block(op, src);
    zan_rcode rc = create_bind(op);
    if (rc == EOK)
        rc = create_insert(op, src);
    if (lock)
        kor_db_unlock();
    if (rc == EOK)
        return true;
    op->response->err_code = rc;
    kor_drop_adj_entries(def, op->block, op->crud.trans_id);
    if (is_async(op)) {
        create_undo_store(op, rc);
        return false;
    }
    op->crud.db_obj = op->block; /* refused, yet kept: the table's pool adopts the block */
    return true;
}

void create_color(create_op_t *op, zan_table_base_st *db_obj)
{
    if (!zan_fwalk_coloring_is_true(op->obj))
        return;
    zan_colored_event_fwalk_on_create(db_obj);
    db_obj->flag |= ZAN_FLAG_FWALK_COLORED;
}

void create_new(create_op_t *op)
{
    if (!create_validate(op) || !create_reserve(op) || !create_allocate(op) ||
        !create_pre_hook(op) || !create_program(op))
        return;
    zan_table_base_st *block = op->block;
    if (!is_async(op) && !op->owned) { /* the NPU threads own what would be stored */
        create_color(op, block);
        create_free_block(op);
        return;
    }
    if (create_store(op))
        create_color(op, block);
}

/* ---- Exit ---- */

void create_post_hook(create_op_t *op)
{
    zan_table_crud_ctx_t *crud = &op->crud;
    op->post.new_obj = crud->new_obj;
    zan_fill_post_rdesc(crud, &op->post);
    if (crud->props->hook_source[ZAN_HOOK_post_create_rdesc] == ZAN_HOOK_NONE) {
        zan_obj_base_free_rdesc_on_npd_fail(crud, crud->new_obj);
        return;
    }
    op->post_rc = crud->props->post_create_rdesc(&op->post);
    if (op->post_rc != EOK) {
        CREATE_TRACE(op, ERROR, CREATE_POST_FAILED, crud->trans_id, op->post_rc);
        op->response->err_code = op->post_rc;
    }
}

void create_roll_back(create_op_t *op)
{
    const zan_table_def_t *def = op->def;
    CREATE_TRACE(op, ERROR, CREATE_ROLLED_BACK, op->crud.trans_id, op->block,
                 op->response->err_code);
    if (!is_async(op)) {
        if (op->owned) {
            create_free_block(op);
            if (def->identifiers)
                zan_server_api_release_id(def, op->obj, op->response);
        }
        return;
    }
    zan_server_api_release_id(def, op->obj, op->response);
    zan_counter_raise(def->id, ZAN_CTR_CREATE_ROLLED_BACK);
    if (def->track_inflight)
        zan_server_api_inflight_block(def, op->obj, op->block);
    /* A block that was never inserted is not found there; the database then keeps and frees it. */
    op->crud.props->shmwin_free_dbobj_params(op->block);
    kor_drop_adj_entries(def, op->block, op->crud.trans_id);
    const zan_db_del_ctx_t del = kor_db_delete(def, op->block);
    if (del.rc != EOK) {
        CREATE_TRACE(op, ERROR, CREATE_ROLLBACK_DELETE, op->block, op->crud.trans_id, del.rc);
    } else {
        op->crud.db_obj = op->block;
        op->block = nullptr;
        kor_free_db_object(&op->crud, true);
        kor_count_objects(def, op->saved_mask, -1);
    }
}

zan_rcode create_leave(create_op_t *op)
{
    zan_table_crud_ctx_t *crud = &op->crud;
    zan_table_response_st *response = op->response;
    const zan_rcode rc = kor_reconcile_response(op->def, crud->db_obj, op->obj, !op->stored);
    if (rc != EOK)
        response->err_code = rc;
    crud->props->copy_dtor(op->create_to_update_copy);
    const bool owned = op->owned != 0;
    crud->props->side_data_free(op->obj);
    if (owned && crud->new_obj) {
        create_post_hook(op);
        crud->props->copy_dtor(crud->new_obj);
        crud->new_obj = nullptr;
    }
    response->err_code = kor_pick_final_rc(crud, op->post_rc, (zan_rcode)response->err_code);
    if (op->rollback)
        create_roll_back(op);
    zan_obj_base_stamp_rc((zan_rcode)response->err_code, crud->db_obj, op->obj);
    kor_log_not_found_key(crud, op->obj);
    if (crud->db_obj)
        sanity_check_db_obj_base(crud->db_obj, op->def->id);
    zan_clear_trans_id();
    return op->post_rc;
}

} // namespace

zan_rcode zan_server_api_create(const zan_table_def_t *def, zan_table_base_st *obj,
                                zan_table_response_st *response, uint32_t flags)
{
    create_op_t op = {}; // all that one create carries, on this frame
    // context, counters, first use, sanity, masks
    if (create_enter(&op, def, obj, response, flags) && create_find_stored(&op) &&
        create_resolve(&op)) {
        if (op.crud.db_obj)
            create_on_stored(&op); // a repeat, a duplicate, or an update in disguise
        else
            create_new(&op); // validate, reserve, allocate, program, bind, store
    }
    return create_leave(&op); // free what is ours, final code, roll back, stamp
}
