/* Back-walks. Not there yet: nothing pushes an event, so that a walk has nothing to carry. */
#include "table_server_api_common.h"

uint64_t kor_core_get_attrib_update_mask(const zan_table_def_t *def, zan_table_base_st *new_obj,
                                         zan_table_base_st *old_obj)
{
    const srv_zan_table_props_t *props = zan_table_state(def)->props;
    return props->get_platform_attrib_mask(new_obj, old_obj) |
           props->get_infra_attrib_mask(new_obj, old_obj);
}

void zan_server_prep_walk_ctx(const zan_table_def_t *, zan_table_crud_ctx_t *crud)
{
    crud->walk_ctx->current_obj = crud->db_obj;
    crud->walk_ctx->response = crud->response;
    zan_walk_ctx_set_trans_id(crud->walk_ctx, crud->trans_id);
    zan_walk_ctx_set_from_retry(crud->walk_ctx, crud->retry_mode != 0);
}

zan_rcode zan_core_event_bwalk(kor_dpd_event_ctx_t *)
{
    return EOK;
}

zan_rcode zan_server_event_post_processing(const zan_table_def_t *, kor_dpd_event_ctx_t *)
{
    return ZAN_RC_INVALID;
}

zan_rcode zan_server_bwalk_child_process_events(const zan_table_def_t *, kor_dpd_event_ctx_t *)
{
    return ZAN_RC_INVALID;
}

zan_rcode zan_server_bwalk_child_callback(const zan_table_def_t *, zan_table_base_st *,
                                          kor_dpd_event_ctx_t *)
{
    return ZAN_RC_INVALID;
}
