/* The hardware step on this thread: the platform's hook is called once for each NPU of the node, or
 * once for the object, with the NPU queues stopped meanwhile. */
#include "hardware_step.h"

namespace
{

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

/* ---- The hooks; in two tables one call with lists stands for all three ---- */

zan_rcode call_create(const hw_op_t *op)
{
    if (op->def->repeated_delta)
        return zan_update_repeated_new(op->def, op->new_obj, nullptr);
    return op->crud->props->create(op->new_obj);
}

zan_rcode call_delete(const hw_op_t *op)
{
    if (op->def->repeated_delta)
        return zan_update_repeated_new(op->def, nullptr, op->new_obj);
    return op->crud->props->delete_(0, op->new_obj);
}

zan_rcode call_update(const hw_op_t *op, zan_delta_lists_t *lists)
{
    if (op->def->repeated_delta)
        return zan_update_repeated_new(op->def, op->new_obj, op->old_obj);
    return op->crud->props->update(lists);
}

/* Free what hardware holds beside the object's own entry; an optional hook. */
zan_rcode call_delete_independent(const hw_op_t *op)
{
    return zan_delete_independent_hw_resource(op->crud->props, op->new_obj);
}

/* Keep a failing hook's code, count it, and say what it means for the operation. */
zan_rcode take_code(hw_op_t *op, zan_rcode raw, uint32_t operation_class, uint32_t npu)
{
    if (raw != EOK) {
        op->crud->hw_rc = raw;
        kor_server_api_increment_hw_err_counters(op->def, operation_class, npu, raw);
    }
    return zan_table_npd_rc_to_rc(raw, op->crud);
}

/* The first failure is the operation's; each has its counter. */
void take_first(hw_op_t *op, zan_rcode rc, zan_counter_et counter)
{
    if (rc == EOK || op->crud->response->err_code != EOK)
        return;
    zan_counter_raise(op->def->id, counter);
    hw_fail(op, rc);
}

/* ---- Once for each NPU ---- */

void set_npu(hw_op_t *op, uint32_t npu)
{
    *zan_obj_npu_mask_req(op->def, op->new_obj) = npu;
    op->new_obj->npu_id = (uint8_t)npu;
}

void undo_create(hw_op_t *op, kor_npu_mask_t done)
{
    for (; done; done &= done - 1) {
        const uint32_t npu = (uint32_t)__builtin_ctzll(done);
        set_npu(op, npu);
        const zan_rcode rc = call_delete(op);
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

void create_on_all(hw_op_t *op)
{
    kor_npu_mask_t done = 0;
    for (kor_npu_mask_t left = zan_prep_srv_ctx_get_mask(op->ctx, op->new_obj); left;
         left &= left - 1) {
        const uint32_t npu = (uint32_t)__builtin_ctzll(left);
        set_npu(op, npu);
        timespec taken;
        const zan_rcode raw = timed(&taken, [&] { return call_create(op); });
        table_dispatch_npu_perf_update(op->def->id, &taken, npu);
        const zan_rcode rc = take_code(op, raw, ZAN_HW_ERR_CREATE, npu);
        kor_server_api_oor_accounting(op->def, (kor_npu_mask_t)1 << npu, op->new_obj, 1, rc);
        if (rc != EOK) {
            zan_counter_raise(op->def->id, ZAN_CTR_CREATE_DIRECT_FAILED);
            hw_fail(op, rc);
            undo_create(op, done);
            return;
        }
        done |= (kor_npu_mask_t)1 << npu;
    }
}

/* Every NPU is tried; the first failure is the result. */
void update_on_all(hw_op_t *op, zan_delta_lists_t *lists)
{
    for (kor_npu_mask_t left = op->ctx->npu_mask_all; left; left &= left - 1) {
        const uint32_t npu = (uint32_t)__builtin_ctzll(left);
        set_npu(op, npu);
        timespec taken;
        const zan_rcode raw = timed(&taken, [&] { return call_update(op, lists); });
        table_dispatch_npu_perf_update(op->def->id, &taken, npu);
        take_first(op, take_code(op, raw, ZAN_HW_ERR_UPDATE, npu), ZAN_CTR_UPDATE_HW_FAILED);
    }
}

void delete_on_all(hw_op_t *op)
{
    const kor_npu_mask_t mask = zan_prep_srv_ctx_get_mask(op->ctx, op->new_obj);
    if (mask == 0)
        zan_counter_raise(op->def->id, ZAN_CTR_DELETE_NO_NPU);
    for (kor_npu_mask_t left = mask; left; left &= left - 1) {
        const uint32_t npu = (uint32_t)__builtin_ctzll(left);
        set_npu(op, npu);
        call_delete_independent(op);
        timespec taken;
        const zan_rcode raw = timed(&taken, [&] { return call_delete(op); });
        table_dispatch_npu_perf_update(op->def->id, &taken, npu);
        const zan_rcode rc = take_code(op, raw, ZAN_HW_ERR_DELETE, npu);
        kor_server_api_oor_accounting(op->def, (kor_npu_mask_t)1 << npu, op->new_obj, 0, raw);
        take_first(op, rc, ZAN_CTR_DELETE_HW_FAILED);
    }
}

/* ---- Once for the object ---- */

void create_on_mask(hw_op_t *op)
{
    const kor_npu_mask_t mask = op->new_obj->npu_mask;
    if (op->ctx->per_object_npu_mask && mask != 0 && (mask & op->ctx->npu_mask_all) == 0) {
        zan_counter_raise(op->def->id, ZAN_CTR_CREATE_NOT_FOR_NODE);
        return;
    }
    const kor_npu_mask_t asked = *zan_obj_npu_mask_req(op->def, op->new_obj);
    timespec taken;
    const zan_rcode raw = timed(&taken, [&] { return call_create(op); });
    table_dispatch_npu_perf_update_with_mask(op->def->id, &taken, asked, op->ctx->num_npus);
    const zan_rcode rc = take_code(op, raw, ZAN_HW_ERR_CREATE, 0);
    kor_server_api_oor_accounting(op->def, asked, op->new_obj, 1, rc);
    if (rc != EOK)
        hw_fail(op, rc);
}

/* An NPU that the update adds or drops is accounted; one that keeps the object is not. */
void account_moves(hw_op_t *op, zan_rcode rc)
{
    const kor_npu_mask_t now = *zan_obj_npu_mask_req(op->def, op->new_obj);
    const kor_npu_mask_t before = *zan_obj_npu_mask_req(op->def, op->old_obj);
    for (kor_npu_mask_t left = now ^ before; left; left &= left - 1) {
        const kor_npu_mask_t bit = left & -left;
        if (now & bit)
            kor_server_api_oor_accounting(op->def, bit, op->new_obj, 1, rc);
        else
            kor_server_api_oor_accounting(op->def, bit, op->old_obj, 0, rc);
    }
}

void update_on_mask(hw_op_t *op, zan_delta_lists_t *lists)
{
    const kor_npu_mask_t mask =
        *zan_obj_npu_mask_req(op->def, op->old_obj) | *zan_obj_npu_mask_req(op->def, op->new_obj);
    timespec taken;
    const zan_rcode raw = timed(&taken, [&] { return call_update(op, lists); });
    const zan_rcode rc = take_code(op, raw, ZAN_HW_ERR_UPDATE, 0);
    if (rc != EOK) {
        zan_counter_raise(op->def->id, ZAN_CTR_UPDATE_HW_FAILED);
        hw_fail(op, rc);
    }
    table_dispatch_npu_perf_update_with_mask(op->def->id, &taken, mask, op->ctx->num_npus);
    account_moves(op, rc);
    hw_count_recovery(op);
}

void delete_on_mask(hw_op_t *op)
{
    /* A held object went through that hook when it was held. */
    if (!zan_obj_base_is_delay_delete(op->new_obj)) {
        const zan_rcode rc = call_delete_independent(op);
        if (rc != EOK) {
            /* The code stays the operation's; the object itself goes all the same. */
            zan_counter_raise(op->def->id, ZAN_CTR_DELETE_INDEPENDENT_FAILED);
            op->crud->response->err_code = rc;
        }
    }
    const kor_npu_mask_t asked = *zan_obj_npu_mask_req(op->def, op->new_obj);
    timespec taken;
    const zan_rcode raw = timed(&taken, [&] { return call_delete(op); });
    table_dispatch_npu_perf_update_with_mask(op->def->id, &taken, asked, op->ctx->num_npus);
    const zan_rcode rc = take_code(op, raw, ZAN_HW_ERR_DELETE, 0);
    kor_server_api_oor_accounting(op->def, asked, op->new_obj, 0, raw);
    if (rc != EOK)
        hw_fail(op, rc);
}

/* ---- With the queues stopped ---- */

bool stop_queues(const hw_op_t *op)
{
    return zan_npu_bcast_dummy_wait(op->def, op->crud->trans_id, op->crud->retry_mode != 0) == 1;
}

void update(hw_op_t *op, zan_delta_lists_t *lists)
{
    if (op->def->table_class == 0)
        update_on_all(op, lists);
    else
        update_on_mask(op, lists);
    zan_heap_free(lists->delta_buffer);
}

} // namespace

void hw_direct(hw_op_t *op)
{
    const zan_table_operation_et operation = op->crud->table_operation;
    const bool on_all = op->def->table_class == 0;
    zan_delta_lists_t lists = {};
    bool stopped = false;
    if (operation == ZAN_TABLE_UPDATE) {
        hw_fill_lists(op, &lists);
        op->crud->delta_lists = &lists;
        if (!zan_obj_base_get_non_blocking_update(op->new_obj))
            stopped = stop_queues(op);
        update(op, &lists);
        op->crud->delta_lists = nullptr;
    } else {
        stopped = stop_queues(op);
        if (operation == ZAN_TABLE_CREATE)
            on_all ? create_on_all(op) : create_on_mask(op);
        else
            on_all ? delete_on_all(op) : delete_on_mask(op);
    }
    if (stopped)
        zan_sync_allow_all_npu_queues(op->def->id, operation, op->crud->trans_id);
}
