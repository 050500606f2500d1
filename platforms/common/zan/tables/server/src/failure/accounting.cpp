/* Resource accounting: what a write tells the platform's resource layer, and the count of hardware
 * failures by NPU that is kept beside it.
 *
 * On the dispatcher thread and on NPU threads at once, for different NPUs; no lock. */
#include "table_server_api_common.h"

/* The step that every write reaches. No platform of this tree has a resource layer yet
 * (kor_arch_resources_cb_get answers null), so there is nobody to tell. */
void kor_server_api_oor_accounting(const zan_table_def_t *, kor_npu_mask_t, zan_table_base_st *,
                                   uint32_t, zan_rcode)
{
}

void kor_server_api_oor_accounting_from_async_write(const zan_table_def_t *def, uint32_t npu_id,
                                                    zan_table_base_st *obj, zan_rcode rc)
{
    if (!def->write_mode)
        return;
    const kor_npu_mask_t bit = (kor_npu_mask_t)1 << npu_id;
    if (!def->object_mask_async || (*zan_obj_npu_mask_req(def, obj) & bit))
        kor_server_api_oor_accounting(def, bit, obj, 1, rc);
}

void kor_server_api_oor_accounting_from_async_write_update(const zan_table_def_t *def,
                                                           uint32_t npu_id,
                                                           zan_table_base_st *new_obj,
                                                           zan_table_base_st *old_obj, zan_rcode rc)
{
    const kor_npu_mask_t bit = (kor_npu_mask_t)1 << npu_id;
    switch (def->oor_update) {
    case ZAN_OOR_UPDATE_MASK_CHANGE: {
        const bool in_new = *zan_obj_npu_mask_req(def, new_obj) & bit;
        const bool in_old = *zan_obj_npu_mask_req(def, old_obj) & bit;
        if (in_new && !in_old)
            kor_server_api_oor_accounting(def, bit, new_obj, 1, rc);
        else if (in_old && !in_new)
            kor_server_api_oor_accounting(def, bit, old_obj, 0, rc);
        break;
    }
    case ZAN_OOR_UPDATE_RELEASE:
        kor_server_api_oor_accounting(def, bit, new_obj, 0, EOK);
        break;
    default:
        break;
    }
}

void kor_server_api_increment_hw_err_counters(const zan_table_def_t *def, uint32_t operation_class,
                                              uint32_t npu_id, zan_rcode rc)
{
    zan_global_ctx_st *ctx = zan_get_global_ctx();
    if (rc == EOK || !ctx || npu_id >= ZAN_MAX_NPUS)
        return;
    zan_table_npu_block_st *block = &ctx->table[def->id].npu[npu_id];
    switch (operation_class) {
    case ZAN_HW_ERR_CREATE:
        block->create_err_cnt++;
        break;
    case ZAN_HW_ERR_DELETE:
        block->delete_err_cnt++;
        break;
    case ZAN_HW_ERR_UPDATE:
        block->update_err_cnt++;
        break;
    default:
        break;
    }
}
