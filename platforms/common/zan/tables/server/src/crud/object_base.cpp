/* The header of an object: stamps, masks, marks, and the checks that every object must pass. */
#include "table_server_api_common.h"

#include <cstdio>

void zan_obj_base_reset_transient_flags(zan_table_base_st *obj)
{
    obj->flag &= ~(uint32_t)ZAN_FLAG_TRANSIENT_MASK;
}

void zan_obj_base_stamp_rc(zan_rcode rc, zan_table_base_st *db_obj, zan_table_base_st *obj)
{
    if (db_obj) {
        db_obj->rc_stamp = rc;
        if (obj) {
            db_obj->base_trans_id = obj->base_trans_id;
            db_obj->table_operation = obj->table_operation;
        }
    }
    if (obj)
        obj->rc_stamp = rc;
}

/* A failure other than the delay delete itself ends the delete's postponement. */
void zan_obj_base_reset_delay_delete_flag(zan_rcode rc, zan_table_base_st *db_obj)
{
    if (db_obj && rc != 0 && rc != ZAN_RC_DELAY_DELETE)
        db_obj->dpd.del_flag &= (uint8_t)~ZAN_DEL_FLAG_DELAY_DELETE;
}

void zan_obj_base_stamp_db(zan_rcode rc, zan_table_base_st *db_obj, zan_table_base_st *obj)
{
    zan_obj_base_stamp_rc(rc, db_obj, obj);
    zan_obj_base_reset_delay_delete_flag(rc, db_obj);
}

bool zan_obj_has_recovered_err(const zan_table_base_st *new_obj, const zan_table_base_st *db_obj)
{
    return new_obj && db_obj && new_obj->rc_stamp == 0 && db_obj->rc_stamp != 0;
}

kor_npu_mask_t zan_prep_srv_ctx_get_mask(const zan_global_ctx_st *ctx, const zan_table_base_st *obj)
{
    return ctx->per_object_npu_mask ? ctx->npu_mask_all & obj->npu_mask : ctx->npu_mask_all;
}

void zan_obj_base_take_npu_mask(const zan_table_def_t *def, zan_table_base_st *obj)
{
    if (def->table_class == 0) {
        const zan_global_ctx_st *ctx = zan_get_global_ctx();
        obj->npu_mask = ctx ? ctx->npu_mask_all : 0;
    } else {
        obj->npu_mask = *zan_obj_npu_mask_req_set(def, obj) ? *zan_obj_npu_mask_req(def, obj) : 0;
    }
}

void sanitize_input_obj(const zan_table_def_t *def, const zan_table_base_st *obj,
                        zan_table_operation_et operation)
{
    ZAN_ASSERT(obj, "obj");
    if (ZAN_UNLIKELY(obj->table_id != def->id)) {
        char text[96];
        snprintf(text, sizeof text, "obj->table_id == %s_TABLE_ID", def->upper);
        ZAN_ASSERT(false, text);
    }
    ZAN_ASSERT(obj->total_obj_size, "obj->total_obj_size");
    if (operation == ZAN_TABLE_GET)
        ZAN_ASSERT(obj->table_operation == ZAN_TABLE_RESERVE ||
                       (obj->table_operation >= ZAN_TABLE_GET &&
                        obj->table_operation <= ZAN_TABLE_GET_NEXT),
                   "a read or ZAN_TABLE_RESERVE");
}

void kor_ref_set(const zan_table_def_t *def, zan_table_base_st *obj, uint32_t count)
{
    if (!def->obj_ref_cnt_offset)
        return;
    *zan_obj_ref_cnt(def, obj) = count;
    *zan_obj_ref_cnt_set(def, obj) = 1;
}

void kor_ref_copy(const zan_table_def_t *def, const zan_table_base_st *from, zan_table_base_st *to)
{
    if (!def->obj_ref_cnt_offset)
        return;
    *zan_obj_ref_cnt(def, to) = *zan_obj_ref_cnt(def, from);
    *zan_obj_ref_cnt_set(def, to) = *zan_obj_ref_cnt_set(def, from);
}

bool kor_ref_adjust(const zan_table_def_t *def, zan_table_base_st *db_obj, bool up)
{
    uint32_t *count = zan_obj_ref_cnt(def, db_obj);
    if (!*zan_obj_ref_cnt_set(def, db_obj)) { /* nobody's: there is nothing to take from it */
        kor_ref_set(def, db_obj, 0);
        if (!up)
            return false;
    }
    if (up && *count >= def->obj_ref_cnt_limit) {
        ZAN_TRACE_TABLE(zan_slt_table_id(def->id, ZAN_TRACE_LEVEL_ERROR), def->id, REF_CNT_LIMIT,
                        db_obj, *count);
        return false;
    }
    if (!up && *count == 0) {
        ZAN_TRACE_TABLE(zan_slt_table_id(def->id, ZAN_TRACE_LEVEL_ERROR), def->id, REF_CNT_ZERO,
                        db_obj);
        return false;
    }
    *count += up ? 1u : (uint32_t)-1;
    ZAN_TRACE_TABLE(zan_slt_table_id(def->id, ZAN_TRACE_LEVEL_VERBOSE), def->id, REF_CNT, db_obj,
                    *count);
    return true;
}

bool zan_srv_base_is_set_getopt(const zan_table_base_st *obj_base, uint16_t mask)
{
    ZAN_ASSERT(obj_base != NULL, "obj_base != NULL");
    return (obj_base->getopt_mask & mask) != 0;
}

void zan_obj_base_clear_stale(const zan_table_crud_ctx_t *crud)
{
    if (!crud->is_inside_bwalk)
        crud->db_obj->flag &= ~(uint32_t)ZAN_FLAG_STALE;
}
