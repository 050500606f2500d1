/* The hardware step from within: what its forms share. */
#ifndef ZAN_HARDWARE_STEP_H
#define ZAN_HARDWARE_STEP_H

#include "table_server_api_common.h"

struct hw_op_t {
    const zan_table_def_t *def;
    zan_table_base_st *new_obj, *old_obj;
    zan_table_crud_ctx_t *crud;
    zan_global_ctx_st *ctx;
    zan_rcode result;
};

/* Each runs the operation of the context and leaves its outcome in op->result. */
void hw_bcast_async(hw_op_t *op); /* hardware_bcast.cpp */
void hw_bcast_sync(hw_op_t *op);
void hw_direct(hw_op_t *op); /* hardware_direct.cpp */

/* The operation ends with this code; the slot has it too. */
inline void hw_fail(hw_op_t *op, zan_rcode rc)
{
    op->crud->response->err_code = rc;
    op->result = rc;
}

/* Count an update that succeeded where the attempt before it had failed. */
inline void hw_count_recovery(hw_op_t *op)
{
    if (op->result == EOK && op->crud->hw_rc == EOK &&
        zan_obj_has_recovered_err(op->new_obj, op->old_obj))
        zan_table_state(op->def)->info.recovered_err_cnt++;
}

/* What an update tells the hook, beside its delta's own lists. */
inline void hw_fill_lists(const hw_op_t *op, zan_delta_lists_t *lists)
{
    lists->new_to_old_map_ref = op->old_obj;
    lists->new_obj = op->new_obj;
    lists->old_obj = op->old_obj;
    lists->resize =
        zan_obj_num_elements(op->def, op->new_obj) != zan_obj_num_elements(op->def, op->old_obj);
    lists->new_to_old_map = op->crud->new_to_old_map;
    lists->walk_ctx = op->crud->walk_ctx;
    op->crud->props->calc_update_delta_lists(lists);
}

#endif
