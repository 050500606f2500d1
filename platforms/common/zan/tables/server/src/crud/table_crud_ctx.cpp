/* The context of an operation: its initialiser, the lazy start of its table, and the trace classes.
 */
#include "table_lists.h"
#include "table_server_api_common.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

zan_table_state_t zan_table_states[ZAN_NUM_TABLES] = {};

void zan_assert_failed(const char *text, const char *function, const char *file, int line)
{
    char message[512];
    snprintf(message, sizeof message, "assertion \"%s\" failed in %s, %s:%d", text, function, file,
             line);
    fprintf(stderr, "%s\n", message);
    plat_errmsg(plat_msg_rec_zan_warn_err_getfn(), 2, message);
    abort();
}

void zan_crud_ctx_server_api_crud_init(zan_table_crud_ctx_t *crud, zan_table_response_st *response,
                                       zan_table_base_st *obj, uint32_t trans_id,
                                       zan_bool_t *owned_flag, kor_dpd_event_ctx_t *walk_ctx,
                                       kor_db_ctx_t *db_ctx, uint32_t *new_to_old_map)
{
    memset(crud, 0, sizeof *crud);
    crud->response = response;
    crud->obj = obj;
    crud->trans_id = trans_id;
    crud->obj_owned_by_dispatcher = owned_flag;
    crud->db_ctx = db_ctx;
    crud->new_to_old_map = new_to_old_map;
    crud->is_inside_bwalk = walk_ctx != nullptr;
    crud->table_operation = (zan_table_operation_et)obj->table_operation;
    crud->props = zan_srv_table_props_get(obj->table_id);
    crud->retry_mode = zan_obj_base_get_retry_mode(obj);
    if (crud->table_operation == ZAN_TABLE_EVENT)
        crud->walk_ctx = walk_ctx;
    if (crud->table_operation == ZAN_TABLE_UPDATE) {
        crud->walk_ctx = zan_walk_ctx_alloc_walk_ctx(walk_ctx);
        ZAN_ASSERT(crud->walk_ctx, "walk_ctx");
        zan_walk_ctx_set_trans_id(crud->walk_ctx, trans_id);
        zan_walk_ctx_set_new_obj_heap(crud->walk_ctx, obj);
    }
    if (db_ctx)
        memset(db_ctx->scratch, 0, sizeof db_ctx->scratch);
}

bool zan_server_table_once(const zan_table_def_t *def)
{
    zan_table_state_t *state = zan_table_state(def);
    if (ZAN_LIKELY(__atomic_load_n(&state->db_ctx.db_type, __ATOMIC_ACQUIRE)))
        return true;
    int prc = pthread_once(&state->once, zan_table_entry_get(def->id)->init_once);
    ZAN_ASSERT(prc == EOK, "prc == EOK");
    return state->db_ctx.db_type != 0;
}

void zan_server_table_stats_once(const zan_table_def_t *def)
{
    if (!def->periodic_stats && def->num_adjacencies == 0)
        return;
    int prc =
        pthread_once(&zan_table_state(def)->stats_once, zan_table_entry_get(def->id)->stats_once);
    ZAN_ASSERT(prc == EOK, "prc == EOK");
}

zan_trace_class_t zan_slt_table_id_retry(uint32_t table_id, uint32_t level, bool retry)
{
    const srv_zan_table_props_t *props = zan_srv_table_props_get(table_id);
    return zan_ringlog_en_with_retry(&props->ringlog_enums, level, retry);
}

zan_trace_class_t zan_slt_table_id(uint32_t table_id, uint32_t level)
{
    return zan_slt_table_id_retry(table_id, level, false);
}

zan_trace_class_t zan_slt_obj_base(const zan_table_base_st *obj, uint32_t level)
{
    return zan_slt_table_id_retry(obj->table_id, level, zan_obj_base_get_retry_mode(obj));
}

zan_trace_class_t zan_slt_crud_ctx(const zan_table_crud_ctx_t *crud, uint32_t level)
{
    return zan_ringlog_en_with_retry(&crud->props->ringlog_enums, level, crud->retry_mode != 0);
}

zan_trace_class_t zan_history_class(const zan_table_def_t *def, bool retry)
{
    if (def->stats_table)
        return retry ? ZAN_CLASS_ZAN_TRANSACTION_HISTORY_STATS_EVENT_RETRY__
                     : ZAN_CLASS_ZAN_TRANSACTION_HISTORY_STATS_EVENT__;
    return retry ? ZAN_CLASS_ZAN_TRANSACTION_HISTORY_EVENT_RETRY__
                 : ZAN_CLASS_ZAN_TRANSACTION_HISTORY_EVENT__;
}

/* ---- The shared classes, as functions ---- */

#define ZAN_TRACE_CLASS_FUNCTION(name)                                                             \
    extern "C" ZAN_EXPORT zan_trace_class_t name(void)                                             \
    {                                                                                              \
        return ZAN_CLASS_##name;                                                                   \
    }
ZAN_SHARED_TRACE_CLASSES(ZAN_TRACE_CLASS_FUNCTION)
