/* The hardware step: the one place where an operation reaches hardware.
 *
 * Four forms. Two hand the work to the NPU threads by a broadcast: asynchronously, or waiting for
 * all of them. Two call the platform's hook on this thread, with the NPU queues stopped: once for
 * each NPU of the node, or once for the object, whose mask says which NPUs.
 *
 * The result decides between commit and roll-back. A result of 0 with hw_rc set means that the
 * hardware failed and the table keeps the object all the same.
 */
#include "hardware_step.h"

namespace
{

constexpr zan_rcode not_an_operation = 22; /* EINVAL; never reaches a client */

/* Attempts by NPU: those of the node that the write concerns. */
void count_attempts(hw_op_t *op)
{
    kor_npu_mask_t mask = op->ctx->npu_mask_all;
    if (op->def->table_class != 0) {
        mask = *zan_obj_npu_mask_req(op->def, op->new_obj);
        if (mask == 0 && op->old_obj)
            mask = *zan_obj_npu_mask_req(op->def, op->old_obj);
    }
    for (kor_npu_mask_t left = mask & op->ctx->npu_mask_all; left; left &= left - 1)
        op->ctx->npu[__builtin_ctzll(left)].program_cnt++;
}

void program(hw_op_t *op)
{
    const zan_table_operation_et operation = op->crud->table_operation;
    if (operation != ZAN_TABLE_CREATE && operation != ZAN_TABLE_UPDATE &&
        operation != ZAN_TABLE_DELETE) {
        op->result = not_an_operation;
        return;
    }
    if (operation == ZAN_TABLE_UPDATE && !op->old_obj)
        hw_fail(op, ZAN_RC_BAD_ARGUMENT);
    else if (op->def->write_mode)
        hw_bcast_async(op);
    else if (op->def->npu_threads)
        hw_bcast_sync(op);
    else
        hw_direct(op);
}

} // namespace

zan_rcode kor_server_program_hw(const zan_table_def_t *def, zan_table_base_st *new_obj,
                                zan_table_base_st *old_obj, zan_table_crud_ctx_t *crud)
{
    if (kor_get_node_role(new_obj, old_obj, crud) != ZAN_NODE_ROLE_ACTIVE)
        return EOK;
    ZAN_ASSERT(new_obj, "obj");
    hw_op_t op = {def, new_obj, old_obj, crud, zan_table_state(def)->ctx, EOK};
    const uint32_t obj_id = new_obj->obj_id; /* the NPU side may own it by the end */
    count_attempts(&op);
    program(&op);
    if (op.result == EOK) {
        if (crud->hw_rc != EOK)
            zan_table_set_batch_continue(crud->response, EOK);
        return EOK;
    }
    ZAN_TRACE_TABLE(zan_slt_crud_ctx(crud, ZAN_TRACE_LEVEL_ERROR), def->id, HW_STEP_FAILED,
                    crud->table_operation, op.result, crud->trans_id, obj_id, new_obj, old_obj);
    if (crud->table_operation == ZAN_TABLE_CREATE)
        zan_counter_raise(def->id, ZAN_CTR_CREATE_HW_FAILED);
    return op.result;
}
