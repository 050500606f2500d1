/* How a flow ends: the final code, the response, and the way of a database object out. */
#include "table_server_api_common.h"

zan_rcode kor_pick_final_rc(zan_table_crud_ctx_t *crud, zan_rcode post_rc, zan_rcode err_code)
{
    const zan_rcode rc = err_code      ? err_code
                         : post_rc     ? post_rc
                         : crud->hw_rc ? crud->hw_rc
                                       : crud->bwalk_rc;
    if (rc != 0) {
        const zan_trace_class_t c = zan_slt_crud_ctx(crud, ZAN_TRACE_LEVEL_ERROR);
        const uint32_t table_id = crud->props->def->id;
        ZAN_TRACE_TABLE(c, table_id, FINAL_RC, crud->trans_id, crud->rdesc_rc, err_code, post_rc,
                        crud->hw_rc, rc);
        ZAN_TRACE_TABLE(c, table_id, FINAL_RC_REST, crud->trans_id, crud->bwalk_rc,
                        crud->reserve_rc);
    }
    return rc;
}

zan_rcode kor_reconcile_response(const zan_table_def_t *def, zan_table_base_st *db_obj,
                                 zan_table_base_st *obj, bool fetch)
{
    if (!db_obj)
        return EOK;
    zan_rcode rc = EOK;
    if (def->dbobj_fetch && fetch) {
        const uint8_t operation = obj->table_operation;
        rc = kor_dbobj_get(def, db_obj, obj);
        obj->table_operation = operation;
    }
    if (db_obj->table_operation != obj->table_operation)
        ZAN_TRACE_TABLE(zan_slt_obj_base(obj, ZAN_TRACE_LEVEL_VERBOSE), def->id, OPERATION_DIFFERS,
                        db_obj->table_operation, obj->table_operation, obj->base_trans_id, db_obj);
    return rc;
}

void zan_server_print_key(const zan_table_def_t *def, zan_table_msg_et message, const void *key,
                          uint32_t trans_id, uint32_t printing_table)
{
    const zan_trace_class_t c = zan_slt_table_id(printing_table, ZAN_TRACE_LEVEL_ERROR);
    if (!zan_trace_is_on(c))
        return;
    char text[256];
    zan_key_print(def, key, text, sizeof text);
    _ringlogs(c, zan_msg_id(zan_table_msg(printing_table, message), 2, 0x2), (uint64_t)trans_id,
              text);
}

/* A scan that runs out finds nothing as a matter of course, so only these operations print. */
void kor_log_not_found_key(const zan_table_crud_ctx_t *crud, const zan_table_base_st *obj)
{
    constexpr uint32_t printing = 1u << ZAN_TABLE_CREATE | 1u << ZAN_TABLE_DELETE |
                                  1u << ZAN_TABLE_UPDATE | 1u << ZAN_TABLE_GET;
    if ((zan_rcode)crud->response->err_code != ZAN_RC_NOT_FOUND ||
        !(printing >> crud->table_operation & 1))
        return;
    const zan_table_def_t *def = crud->props->def;
    zan_server_print_key(def, ZAN_TMSG_KEY_NOT_FOUND, zan_obj_key(def, obj),
                         *zan_obj_trans_id(def, obj), def->id);
}

/* The poison comes first, so that a stale handle is seen during the teardown. */
void kor_free_db_object(zan_table_crud_ctx_t *crud, bool free_flag)
{
    if (!free_flag)
        return;
    zan_table_base_st *db_obj = crud->db_obj;
    const srv_zan_table_props_t *props = crud->props;
    db_obj->obj_handle = ZAN_POISON_FREED_DB_OBJ;
    if (props->def->graph)
        kor_dpd_reset(db_obj, 0);
    props->side_data_free(db_obj);
    props->shmwin_free_dbobj_params(db_obj);
    zan_shm_free(db_obj);
    crud->db_obj = nullptr;
}

/* The mark comes first, so that a statistics walk under way leaves the entries alone. */
void kor_drop_adj_entries(const zan_table_def_t *def, zan_table_base_st *db_obj, uint32_t trans_id)
{
    if (!def->adj_list_offset)
        return;
    zan_npi_mark_adj_entries_as_stale(db_obj, trans_id);
    zan_npi_free_adj_entries_list(db_obj);
}

void kor_count_objects(const zan_table_def_t *def, kor_npu_mask_t mask, int32_t delta)
{
    zan_global_ctx_st *ctx = zan_get_global_ctx();
    if (!ctx)
        return;
    for (uint32_t npu = 0; npu < ctx->num_npus; npu++)
        if (mask >> npu & 1)
            ctx->table[def->id].npu[npu].obj_cnt += (uint32_t)delta;
}

zan_db_del_ctx_t kor_db_delete(const zan_table_def_t *def, zan_table_base_st *db_obj)
{
    if (def->obj_ref_cnt_offset)
        ZAN_ASSERT(*zan_obj_ref_cnt(def, db_obj) == 0, "db_obj->obj_ref_cnt == 0");
    zan_db_del_ctx_t ctx = {db_obj, EOK, 1};
    zan_db_delete(&ctx);
    return ctx;
}

void zan_fill_post_rdesc(const zan_table_crud_ctx_t *crud, zan_rdesc_hook_ctx_t *post)
{
    post->reserve_rc = crud->reserve_rc;
    post->rdesc_rc = crud->rdesc_rc;
    post->hw_rc = crud->hw_rc;
    post->bwalk_rc = crud->bwalk_rc;
    post->rdesc = crud->rdesc_ctx->rdesc;
}

/* A table without a post_create_rdesc of its own still gives the descriptor of a failed create
 * back, by its delete hook. */
void zan_obj_base_free_rdesc_on_npd_fail(zan_table_crud_ctx_t *crud, zan_table_base_st *new_obj)
{
    if (crud->hw_rc == 0 || !new_obj || crud->db_written)
        return;
    zan_rdesc_hook_ctx_t record = {};
    record.old_obj = new_obj;
    const zan_rcode rc = crud->props->post_delete_rdesc(&record);
    ZAN_TRACE_TABLE(zan_slt_crud_ctx(crud, ZAN_TRACE_LEVEL_EVENT), crud->props->def->id, FREE_RDESC,
                    crud->trans_id, rc);
}
