/* The hardware step: the one place where an operation reaches hardware.
 *
 * Four forms. Two hand the work to the NPU threads by a broadcast: asynchronously, or waiting for
 * all of them. Two call the platform's hook on this thread, with the NPU queues stopped: once for
 * each NPU of the node, or once for the object, whose mask says which NPUs.
 *
 * The result decides between commit and roll-back. A result of 0 with hw_rc set means that the
 * hardware failed and the table keeps the object all the same.
 */
#include "table_server_api_common.h"

namespace
{

constexpr zan_rcode not_an_operation = 22; /* EINVAL; never reaches a client */

struct hw_op_t {
    const zan_table_def_t *def;
    zan_table_base_st *new_obj, *old_obj;
    zan_table_crud_ctx_t *crud;
    zan_global_ctx_st *ctx;
    zan_rcode result;
};

zan_rcode fail(hw_op_t *op, zan_rcode rc)
{
    op->crud->response->err_code = rc;
    return rc;
}

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

/* Runs `call` and gives the time it took. */
template <class Call> zan_rcode timed(timespec *taken, Call call)
{
    timespec start, end;
    zan_clock_gettime(CLOCK_REALTIME, &start);
    const zan_rcode rc = call();
    zan_clock_gettime(CLOCK_REALTIME, &end);
    clock_diff(&start, &end, taken);
    return rc;
}

/* ---- Through the NPU threads ---- */

void async_create(hw_op_t *op)
{
    op->result = kor_core_npu_bcast(op->new_obj, nullptr, op->crud, op->ctx);
    if (op->result != EOK)
        fail(op, op->result);
}

void sync_bcast_create(hw_op_t *op)
{
    op->result = kor_core_npu_bcast(op->new_obj, nullptr, op->crud, op->ctx);
    kor_server_api_oor_accounting(op->def, platcfg_config_get_avail_npu_mask(), op->new_obj, 1,
                                  op->crud->hw_rc);
    if (op->result != EOK)
        fail(op, op->result);
}

/* ---- On this thread, once for each NPU ---- */

void set_npu(hw_op_t *op, uint32_t npu)
{
    *zan_obj_npu_mask_req(op->def, op->new_obj) = npu;
    op->new_obj->npu_id = (uint8_t)npu;
}

void undo_direct_create(hw_op_t *op, kor_npu_mask_t done)
{
    for (; done; done &= done - 1) {
        const uint32_t npu = (uint32_t)__builtin_ctzll(done);
        set_npu(op, npu);
        const zan_rcode rc = op->crud->props->delete_(0, op->new_obj);
        kor_server_api_increment_hw_err_counters(op->def, ZAN_HW_ERR_DELETE, npu, rc);
        kor_server_api_oor_accounting(op->def, (kor_npu_mask_t)1 << npu, op->new_obj, 0, rc);
        if (rc != EOK)
            ZAN_TRACE_TABLE(zan_slt_crud_ctx(op->crud, ZAN_TRACE_LEVEL_ERROR), op->def->id,
                            HW_UNDO_FAILED, npu, rc, op->crud->trans_id);
        else
            ZAN_TRACE_TABLE(zan_slt_crud_ctx(op->crud, ZAN_TRACE_LEVEL_EVENT), op->def->id,
                            HW_UNDONE, npu, op->crud->trans_id);
    }
}

void direct_all_create(hw_op_t *op)
{
    const srv_zan_table_props_t *props = op->crud->props;
    const uint32_t id = op->def->id;
    kor_npu_mask_t done = 0;
    for (kor_npu_mask_t left = zan_prep_srv_ctx_get_mask(op->ctx, op->new_obj); left;
         left &= left - 1) {
        const uint32_t npu = (uint32_t)__builtin_ctzll(left);
        set_npu(op, npu);
        timespec taken;
        const zan_rcode raw = timed(&taken, [&] { return props->create(op->new_obj); });
        table_dispatch_npu_perf_update(id, &taken, npu);
        if (raw != EOK) {
            op->crud->hw_rc = raw;
            kor_server_api_increment_hw_err_counters(op->def, ZAN_HW_ERR_CREATE, npu, raw);
        }
        const zan_rcode rc = zan_table_npd_rc_to_rc(raw, op->crud);
        kor_server_api_oor_accounting(op->def, (kor_npu_mask_t)1 << npu, op->new_obj, 1, rc);
        if (rc != EOK) {
            zan_counter_raise(id, ZAN_CTR_CREATE_DIRECT_FAILED);
            op->result = fail(op, rc);
            undo_direct_create(op, done);
            return;
        }
        done |= (kor_npu_mask_t)1 << npu;
    }
}

/* ---- On this thread, once for the object ---- */

void direct_mask_create(hw_op_t *op)
{
    const srv_zan_table_props_t *props = op->crud->props;
    const kor_npu_mask_t mask = op->new_obj->npu_mask;
    if (op->ctx->per_object_npu_mask && mask != 0 && (mask & op->ctx->npu_mask_all) == 0) {
        zan_counter_raise(op->def->id, ZAN_CTR_CREATE_NOT_FOR_NODE);
        return;
    }
    timespec taken;
    const zan_rcode raw = timed(&taken, [&] { return props->create(op->new_obj); });
    table_dispatch_npu_perf_update_with_mask(
        op->def->id, &taken, *zan_obj_npu_mask_req(op->def, op->new_obj), op->ctx->num_npus);
    if (raw != EOK) {
        op->crud->hw_rc = raw;
        kor_server_api_increment_hw_err_counters(op->def, ZAN_HW_ERR_CREATE, 0, raw);
    }
    op->result = zan_table_npd_rc_to_rc(raw, op->crud);
    kor_server_api_oor_accounting(op->def, *zan_obj_npu_mask_req(op->def, op->new_obj), op->new_obj,
                                  1, op->result);
    if (op->result != EOK)
        fail(op, op->result);
}

void direct_create(hw_op_t *op)
{
    zan_table_crud_ctx_t *crud = op->crud;
    const bool stopped =
        zan_npu_bcast_dummy_wait(op->def, crud->trans_id, crud->retry_mode != 0) == 1;
    if (op->def->table_class == 0)
        direct_all_create(op);
    else
        direct_mask_create(op);
    if (stopped)
        zan_sync_allow_all_npu_queues(op->def->id, crud->table_operation, crud->trans_id);
}

void program_create(hw_op_t *op)
{
    if (op->def->write_mode)
        async_create(op);
    else if (op->def->npu_threads)
        sync_bcast_create(op);
    else
        direct_create(op);
}

} // namespace

zan_rcode kor_server_program_hw(const zan_table_def_t *def, zan_table_base_st *new_obj,
                                zan_table_base_st *old_obj, zan_table_crud_ctx_t *crud)
{
    if (kor_get_node_role(new_obj, old_obj, crud) != ZAN_NODE_ROLE_ACTIVE)
        return EOK;
    ZAN_ASSERT(new_obj, "obj");
    hw_op_t op = {def, new_obj, old_obj, crud, zan_table_state(def)->ctx, EOK};
    count_attempts(&op);
    if (crud->table_operation == ZAN_TABLE_CREATE)
        program_create(&op);
    else
        op.result = not_an_operation;
    if (op.result == EOK) {
        if (crud->hw_rc != EOK)
            zan_table_set_batch_continue(crud->response, EOK);
        return EOK;
    }
    ZAN_TRACE_TABLE(zan_slt_crud_ctx(crud, ZAN_TRACE_LEVEL_ERROR), def->id, HW_STEP_FAILED,
                    crud->table_operation, op.result, crud->trans_id, new_obj->obj_id, new_obj,
                    old_obj);
    if (crud->table_operation == ZAN_TABLE_CREATE)
        zan_counter_raise(def->id, ZAN_CTR_CREATE_HW_FAILED);
    return op.result;
}
