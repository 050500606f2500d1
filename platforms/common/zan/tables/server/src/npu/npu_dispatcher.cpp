/* The NPU dispatcher: what an NPU thread runs for each message.
 *
 * Up to eight threads run it at once, for one message or for different ones. It stamps the NPU's
 * current-operation record, calls the table's hook, counts and accounts the result, and stores it.
 * The thread that brings npus_left from 1 to 0 completes an asynchronous message: that clean-up is
 * the only place where an NPU thread writes a database object, and it writes only `inflight`.
 */
#include "table_server_api_common.h"

#include <cstring>

namespace
{

struct npu_op_t {
    kor_core_srv_dispatch_t *msg;
    const zan_table_def_t *def;
    srv_zan_table_props_t *props;
    uint32_t npu;
    uint32_t trans_id;
    uint8_t operation;
    timespec start;
};

/* The order inside an arm matters: a create counts before it accounts, an update the other way. */
zan_rcode run_create(const npu_op_t *op)
{
    const zan_rcode rc = op->props->create(op->msg->obj);
    kor_server_api_increment_hw_err_counters(op->def, ZAN_HW_ERR_CREATE, op->npu, rc);
    kor_server_api_oor_accounting_from_async_write(op->def, op->npu, op->msg->obj, rc);
    return rc;
}

zan_rcode run_delete(const npu_op_t *op)
{
    const zan_rcode rc = op->props->delete_(op->msg->is_resize, op->msg->obj);
    kor_server_api_increment_hw_err_counters(op->def, ZAN_HW_ERR_DELETE, op->npu, rc);
    const kor_npu_mask_t bit = (kor_npu_mask_t)1 << op->npu;
    if (op->def->write_mode && (!op->def->object_mask_async || (op->msg->obj->npu_mask & bit)))
        kor_server_api_oor_accounting(op->def, bit, op->msg->obj, 0, rc);
    return rc;
}

zan_rcode run_update(const npu_op_t *op)
{
    const zan_rcode rc = op->props->update(op->msg->delta_lists);
    if (op->def->write_mode)
        kor_server_api_oor_accounting_from_async_write_update(op->def, op->npu, op->msg->obj,
                                                              op->msg->old_obj, rc);
    kor_server_api_increment_hw_err_counters(op->def, ZAN_HW_ERR_UPDATE, op->npu, rc);
    return rc;
}

zan_rcode run_operation(const npu_op_t *op)
{
    switch (op->operation) {
    case ZAN_TABLE_CREATE:
        return run_create(op);
    case ZAN_TABLE_DELETE:
        return run_delete(op);
    case ZAN_TABLE_EVENT: /* counted and accounted by who picked the thread */
        return op->props->event(op->msg->walk_ctx, op->msg->obj);
    case ZAN_TABLE_UPDATE:
        return run_update(op);
    default:
        return EOK;
    }
}

/* ---- The last NPU ---- */

void lower_inflight(const npu_op_t *op)
{
    auto *db_obj = (zan_table_base_st *)(uintptr_t)op->msg->obj->obj_handle;
    const uint8_t new_inflight_flag = __atomic_sub_fetch(&db_obj->inflight, 1, __ATOMIC_SEQ_CST);
    ZAN_ASSERT(new_inflight_flag == 0, "new_inflight_flag == 0");
}

void complete_delete(const npu_op_t *op)
{
    kor_core_srv_dispatch_t *msg = op->msg;
    if (op->def->write_mode) {
        zan_table_response_st response;
        memset(&response, 0, sizeof response);
        if (msg->resize_aux)
            zan_server_api_update_release_id(op->def, msg->obj, msg->old_obj, &response);
        else
            zan_server_api_release_id(op->def, msg->obj, &response);
    }
    if (op->def->post_actions)
        op->props->post_delete_action(msg->obj);
    msg->obj->obj_handle = ZAN_POISON_NO_DB_OBJ;
}

bool kor_core_npu_dispatcher_cleanup_if_last_npu(const npu_op_t *op, uint8_t operation)
{
    if (!op->msg->is_async)
        return false;
    switch (operation) {
    case ZAN_TABLE_CREATE:
        if (op->def->track_inflight) {
            if (op->def->post_actions)
                op->props->post_create_action(op->msg->obj);
            lower_inflight(op);
        }
        break;
    case ZAN_TABLE_UPDATE:
        if (op->def->track_inflight) {
            if (op->def->post_actions)
                op->props->post_update_action(op->msg->obj, op->msg->old_obj);
            lower_inflight(op);
        }
        break;
    case ZAN_TABLE_DELETE:
        complete_delete(op);
        break;
    default:
        break;
    }
    return true;
}

} // namespace

zan_rcode kor_core_npu_dispatcher(kor_core_srv_dispatch_t *srv_obj, int32_t npu_id)
{
    const zan_table_base_st *obj = srv_obj->obj;
    if (srv_obj->only_npu_mask != 0 && !(srv_obj->only_npu_mask >> npu_id & 1)) {
        ZAN_TRACE_TABLE(zan_slt_obj_base(obj, ZAN_TRACE_LEVEL_VERBOSE), obj->table_id, NPU_SKIPPED,
                        obj->base_trans_id, srv_obj->only_npu_mask, npu_id);
        return EOK;
    }
    npu_op_t op = {};
    zan_clock_gettime(CLOCK_REALTIME, &op.start);
    op.msg = srv_obj;
    op.npu = (uint32_t)npu_id;
    op.operation = srv_obj->table_operation;
    op.trans_id = obj->base_trans_id;
    op.props = zan_srv_table_props_get(obj->table_id);
    op.def = op.props->def;
    const uint16_t table_id = obj->table_id;
    zan_set_trans_id(op.trans_id, nullptr, 0);

    zan_npu_op_record_st *current = &get_global_exec_q()->current[npu_id];
    current->start_time = op.start;
    current->op = op.operation;
    current->marker = 1;
    current->table_id = table_id;
    current->id = op.trans_id;

    ZAN_ASSERT(op.def->npu_threads, "0"); /* no table that runs on the dispatcher comes here */
    const zan_rcode rc = run_operation(&op);
    srv_obj->npu_rc[npu_id] = rc;

    timespec end, elapsed;
    const uint8_t operation = srv_obj->table_operation;
    const bool last = __atomic_fetch_sub(&srv_obj->npus_left, 1, __ATOMIC_ACQ_REL) == 1;
    if (last)
        kor_core_npu_dispatcher_cleanup_if_last_npu(&op, operation);
    zan_clock_gettime(CLOCK_REALTIME, &end);
    clock_diff(&op.start, &end, &elapsed);
    table_npu_perf_update(table_id, &elapsed, op.npu);
    if (last)
        table_update_last_op(table_id, &end, op.trans_id, 1);
    table_record_slow_op(table_id, &elapsed, op.trans_id, operation);
    current->end_time = end;
    current->elapsed = elapsed;
    return rc;
}
