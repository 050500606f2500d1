/* What a hardware code becomes on its way to a client.
 *
 * The table's hw_rc_mode decides. 0: the code is the result. 1: on a create the table's hook says
 * whether the object stays in the database, on other operations the code is held but not the
 * result. 2: it is neither; the object stays and the write is lost until somebody repeats it.
 */
#include "table_server_api_common.h"

#include <cstring>

namespace
{

struct mapped_t {
    zan_rcode client, held;
};

mapped_t map_create_by_hook(zan_rcode raw, zan_table_crud_ctx_t *crud)
{
    /* The hook is told table 0 whichever table asks. */
    const zan_sync_err_in_t in = {raw, crud->trans_id, 0};
    zan_sync_err_out_t out = {1, raw};
    crud->props->sync_error_handling(&in, &out);
    return {zan_sync_err_get_out_rc(&out), out.out_rc};
}

mapped_t map_code(zan_rcode raw, zan_table_crud_ctx_t *crud)
{
    switch (crud->props->hw_rc_mode) {
    case 0:
        return {raw, raw};
    case 1:
        if (crud->table_operation == ZAN_TABLE_CREATE)
            return map_create_by_hook(raw, crud);
        return {0, raw};
    default:
        return {0, 0};
    }
}

} // namespace

uint64_t zan_hw_rcode_cx_to_rc(const zan_rcode *rc, zan_table_crud_ctx_t *crud)
{
    const zan_rcode raw = *rc;
    if (raw == EOK)
        return 0;
    const mapped_t mapped = map_code(raw, crud);
    const uint32_t table_id = crud->props->def->id;
    ZAN_TRACE_TABLE(zan_slt_crud_ctx(crud, ZAN_TRACE_LEVEL_ERROR), table_id, HW_CODE_MAPPED,
                    table_id, crud->trans_id, raw, mapped.client, mapped.held);
    return (uint64_t)mapped.held << 32 | mapped.client;
}

zan_rcode zan_table_npd_rc_to_rc(zan_rcode rc, zan_table_crud_ctx_t *crud)
{
    return (zan_rcode)zan_hw_rcode_cx_to_rc(&rc, crud);
}

void zan_table_set_batch_continue(zan_table_response_st *response, zan_rcode rc)
{
    if (rc == EOK)
        response->batch_continue = 1;
}

void zan_send_async_resolve_error(zan_table_base_st *obj, zan_rcode rc)
{
    zan_send_srv_notif(obj, rc == ZAN_RC_BIND_REFUSED ? ZAN_NOTIF_BIND_REFUSED
                                                      : ZAN_NOTIF_RESOLVE_FAILED);
}

/* ---- The sync error hook ---- */

zan_rcode zan_sync_err_get_input_rc(const zan_sync_err_in_t *in)
{
    return in ? in->input_rc : 0;
}

uint32_t zan_sync_err_get_trans_id(const zan_sync_err_in_t *in)
{
    return in ? in->trans_id : 0;
}

uint16_t zan_sync_err_get_table_id(const zan_sync_err_in_t *in)
{
    return in ? in->table_id : 0;
}

void zan_sync_err_set_dont_keep_in_db(zan_sync_err_out_t *out)
{
    if (out)
        out->keep_in_db = 0;
}

zan_rcode zan_sync_err_get_out_rc(const zan_sync_err_out_t *out_arg)
{
    ZAN_ASSERT(out_arg, "out_arg");
    return out_arg->keep_in_db ? 0 : out_arg->out_rc;
}

zan_rcode srv_sync_error_handling_infra_default(const zan_sync_err_in_t *in,
                                                zan_sync_err_out_t *out)
{
    const uint32_t trans_id = zan_sync_err_get_trans_id(in);
    const zan_rcode rc = zan_sync_err_get_input_rc(in);
    const uint16_t table_id = zan_sync_err_get_table_id(in);
    const bool keep = rc == EOK || rc == ZAN_RC_KEEP_LACKING || rc == ZAN_RC_KEEP_REFUSED;
    if (!keep)
        zan_sync_err_set_dont_keep_in_db(out);
    ZAN_TRACE(zan_slt_table_id(table_id, ZAN_TRACE_LEVEL_ERROR), SYNC_ERR_DEFAULT, trans_id, rc,
              keep);
    return EOK;
}

zan_rcode srv_async_bwalk_error_handling_infra_default(void *, uint16_t *action)
{
    *action = 1;
    return EOK;
}

void zan_event_ignore_post_processing_error(zan_table_response_st *response)
{
    response->err_code = EOK;
}

zan_table_base_st *srv_delete_action_ctx_get_new_obj(const srv_delete_action_ctx_t *ctx)
{
    return ctx->new_obj;
}

zan_table_base_st *srv_delete_action_ctx_get_old_obj(const srv_delete_action_ctx_t *ctx)
{
    return ctx->old_obj;
}
