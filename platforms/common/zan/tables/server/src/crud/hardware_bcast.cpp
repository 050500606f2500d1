/* The hardware step through the NPU threads.
 *
 * Ownership. An asynchronous broadcast takes the copies and the delta along, and the flow's
 * ownership local tells so; where it still reads 1 afterwards (nothing was sent, or the send was
 * refused) they are the flow's. A refused send has freed the delta and cleared crud->delta_lists.
 */
#include "hardware_step.h"

namespace
{

/* ---- Create and delete ---- */

void create(hw_op_t *op)
{
    op->result = kor_core_npu_bcast(op->new_obj, nullptr, op->crud, op->ctx);
    if (op->result != EOK)
        hw_fail(op, op->result);
}

void remove(hw_op_t *op)
{
    op->new_obj->table_operation = ZAN_TABLE_DELETE;
    op->result = kor_core_npu_bcast(op->new_obj, nullptr, op->crud, op->ctx);
    if (op->result != EOK) {
        zan_counter_raise(op->def->id, ZAN_CTR_DELETE_BCAST_FAILED);
        hw_fail(op, op->result);
    }
}

/* ---- Update ---- */

zan_delta_lists_t *make_lists(hw_op_t *op)
{
    auto *lists = (zan_delta_lists_t *)zan_heap_calloc(sizeof(zan_delta_lists_t));
    if (!lists) {
        hw_fail(op, ZAN_RC_NO_MEMORY);
        return nullptr;
    }
    hw_fill_lists(op, lists);
    op->crud->is_resize = lists->resize;
    op->crud->resize_aux = 0;
    op->crud->delta_lists = lists;
    return lists;
}

void drop_lists(hw_op_t *op)
{
    if (op->crud->delta_lists && *op->crud->obj_owned_by_dispatcher) {
        zan_heap_free(op->crud->delta_lists->delta_buffer);
        zan_heap_free(op->crud->delta_lists);
    }
    op->crud->delta_lists = nullptr;
}

void send_update(hw_op_t *op)
{
    op->result = kor_core_npu_bcast(op->new_obj, op->old_obj, op->crud, op->ctx);
    if (op->result != EOK) {
        zan_counter_raise(op->def->id, ZAN_CTR_UPDATE_BCAST_FAILED);
        hw_fail(op, op->result);
    }
}

/* The old members leave by a delete of their own behind the update: the NPU side gets a copy of
 * the old object for it, and gives the old identifiers back when it is through. */
void delete_old_members(hw_op_t *op, zan_table_base_st *old_copy)
{
    zan_bool_t owned = 1;
    zan_table_crud_ctx_t crud = {};
    crud.table_operation = ZAN_TABLE_DELETE;
    crud.response = op->crud->response;
    crud.trans_id = op->crud->trans_id;
    crud.props = op->crud->props;
    crud.obj_owned_by_dispatcher = &owned;
    crud.is_resize = 1;
    crud.resize_aux = 1;
    op->result = kor_core_npu_bcast(old_copy, nullptr, &crud, op->ctx);
    if (op->result != EOK)
        hw_fail(op, op->result);
    if (owned)
        op->crud->props->copy_dtor(old_copy);
}

void update_async(hw_op_t *op)
{
    const srv_zan_table_props_t *props = op->crud->props;
    zan_table_base_st *old_copy = nullptr;
    if (zan_obj_num_elements(op->def, op->new_obj) != zan_obj_num_elements(op->def, op->old_obj)) {
        old_copy = props->copy_ctor(op->old_obj);
        ZAN_ASSERT(old_copy, "old_copy");
        old_copy->flag |= ZAN_FLAG_IS_ASYNC_WRITE;
        old_copy->table_operation = ZAN_TABLE_DELETE;
    }
    if (!make_lists(op)) {
        props->copy_dtor(old_copy);
        return;
    }
    send_update(op);
    if (op->result == EOK && old_copy)
        delete_old_members(op, old_copy);
    else
        props->copy_dtor(old_copy);
    drop_lists(op);
}

void update_sync(hw_op_t *op)
{
    if (!make_lists(op))
        return;
    send_update(op);
    drop_lists(op);
    hw_count_recovery(op);
}

} // namespace

void hw_bcast_async(hw_op_t *op)
{
    switch (op->crud->table_operation) {
    case ZAN_TABLE_CREATE:
        create(op);
        break;
    case ZAN_TABLE_DELETE:
        remove(op);
        break;
    default:
        update_async(op);
        break;
    }
}

void hw_bcast_sync(hw_op_t *op)
{
    const kor_npu_mask_t all = platcfg_config_get_avail_npu_mask();
    switch (op->crud->table_operation) {
    case ZAN_TABLE_CREATE:
        create(op);
        kor_server_api_oor_accounting(op->def, all, op->new_obj, 1, op->crud->hw_rc);
        break;
    case ZAN_TABLE_DELETE:
        remove(op);
        kor_server_api_oor_accounting(op->def, all, op->new_obj, 0,
                                      (zan_rcode)op->crud->response->err_code);
        break;
    default:
        update_sync(op);
        break;
    }
}
