/* Resource accounting: what a write tells the platform's resource layer, and the count of hardware
 * failures by NPU that is kept beside it.
 *
 * On the dispatcher thread and on NPU threads at once, for different NPUs; no lock. */
#include "table_server_api_common.h"

#include <cstdio>
#include <cstring>

namespace
{

/* What is missing, under the name of the table's call. */
void trace_null(const zan_table_def_t *def, uint32_t level, const char *what)
{
    const zan_trace_class_t c = zan_slt_table_id(def->id, level);
    if (!zan_trace_is_on(c))
        return;
    char text[112];
    snprintf(text, sizeof text, "server_api_%s_oor_accounting,NULL %s", def->name, what);
    _ringlogs(c, zan_msg_id(zan_table_msg(def->id, ZAN_TMSG_OOR_NULL), 1, 0x1), text);
}

/* Which databases the object occupies: asked once, of NPU 0, for all NPUs. */
void kor_get_hwdb_mask_for_table(kor_hwdb_mask_t *out, const zan_hwdb_query_st *query,
                                 void *npu_resource)
{
    memset(out, 0, sizeof *out);
    const kor_arch_resources_cb_t *layer = kor_arch_resources_cb_get();
    if (layer && layer->get_hwdb_mask)
        layer->get_hwdb_mask(out, query, npu_resource);
}

void account_entry(const zan_table_def_t *def, const kor_hwdb_entry_t *entry,
                   kor_npu_mask_t npu_mask, zan_table_base_st *obj, uint32_t is_add)
{
    const zan_table_state_t *state = zan_table_state(def);
    const kor_arch_resources_cb_t *layer = state->arch_resources_cbs;
    const zan_global_ctx_st *ctx = state->ctx;
    const uint32_t amount = entry->use_count ? entry->count : is_add;
    for (uint32_t npu = 0; entry->hwdb != 0 && npu < ctx->num_npus; npu++) {
        if (!(npu_mask >> npu & 1))
            continue;
        void *resource = ctx->hw_resource_list[npu];
        if (!resource)
            ZAN_TRACE_TABLE(zan_slt_table_id(def->id, ZAN_TRACE_LEVEL_ERROR), def->id,
                            OOR_NO_NPU_RESOURCE, npu);
        else if (def->oor_account_plain)
            layer->account(resource, entry->hwdb, def->id, amount, obj, kor_send_oor);
        else
            layer->account_sub(resource, entry->hwdb, entry->sub_id, 1, def->id, amount, obj,
                               kor_send_oor);
    }
}

/* Whether there is a layer to tell, and something to tell of. The test looks at `account` for every
 * table, also for those that then call account_sub. */
bool can_account(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    const zan_table_state_t *state = zan_table_state(def);
    if (!state->arch_resources_cbs || !state->arch_resources_cbs->account) {
        trace_null(def, ZAN_TRACE_LEVEL_EVENT, "arch_resources_cbs");
        return false;
    }
    if (!state->ctx->hw_resource_list) {
        trace_null(def, ZAN_TRACE_LEVEL_ERROR, "hw_resource_list");
        return false;
    }
    if (!obj) {
        trace_null(def, ZAN_TRACE_LEVEL_ERROR, "obj");
        return false;
    }
    return true;
}

} // namespace

/* A failed write holds nothing, and a failed delete gives nothing back. */
void kor_server_api_oor_accounting(const zan_table_def_t *def, kor_npu_mask_t npu_mask,
                                   zan_table_base_st *obj, uint32_t is_add, zan_rcode rc)
{
    if (rc != EOK || !can_account(def, obj))
        return;
    zan_hwdb_query_st query = {};
    query.table_id = def->id;
    query.num_paths = 1;
    query.obj = obj;
    const zan_table_state_t *state = zan_table_state(def);
    if (state->props->calculate_num_paths)
        state->props->calculate_num_paths(obj, &query.num_paths, &query.num_paths_aux);
    if (!state->ctx->hw_resource_list[0]) {
        trace_null(def, ZAN_TRACE_LEVEL_ERROR, "arch_resources,npu0");
        return;
    }
    kor_hwdb_mask_t mask;
    kor_get_hwdb_mask_for_table(&mask, &query, state->ctx->hw_resource_list[0]);
    for (const kor_hwdb_entry_t &entry : mask.entry)
        account_entry(def, &entry, npu_mask, obj, is_add);
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

/* A count lost under a race is accepted. */
static void count_one(uint32_t *counter)
{
    __atomic_store_n(counter, __atomic_load_n(counter, __ATOMIC_RELAXED) + 1, __ATOMIC_RELAXED);
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
        count_one(&block->create_err_cnt);
        break;
    case ZAN_HW_ERR_DELETE:
        count_one(&block->delete_err_cnt);
        break;
    case ZAN_HW_ERR_UPDATE:
        count_one(&block->update_err_cnt);
        break;
    default:
        break;
    }
}
