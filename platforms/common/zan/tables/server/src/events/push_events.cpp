/* From a change to events: which attributes an update has changed, and which of the table's events
 * that means.
 *
 * The mask of an update has a bit for each trigger attribute that differs between the update's two
 * copies, what the platform's two mask slots find, and what hooks have reported on the walk context
 * while hardware was programmed. An event whose mask meets it is pushed, unless the object does not
 * carry the event's colour, or no direct child table of the object's wants it. An event with
 * post-processing is pushed in spite of the latter, since the source itself wants it; it takes the
 * update's copies along.
 */
#include "table_server_api_common.h"

#include <cstring>

namespace
{

struct push_op_t {
    const zan_table_def_t *def;
    zan_table_crud_ctx_t *crud;
    kor_dpd_event_ctx_t *walk_ctx;
    zan_table_base_st *db_obj;
    uint64_t mask;
};

/* A member array differs at once when its length does. */
bool attr_differs(const zan_table_def_t *def, const zan_field_def_t *attr,
                  const zan_table_base_st *new_obj, const zan_table_base_st *old_obj)
{
    uint32_t values = attr->count;
    if (attr->shape == ZAN_SHAPE_REPEATED) {
        values = zan_obj_num_held(def, new_obj);
        if (values != zan_obj_num_held(def, old_obj))
            return true;
        if (values == 0)
            return false;
    }
    return memcmp(zan_obj_attr(attr, new_obj, 0), zan_obj_attr(attr, old_obj, 0),
                  (size_t)values * attr->width) != 0;
}

uint64_t trigger_mask(const zan_table_def_t *def, const zan_table_base_st *new_obj,
                      const zan_table_base_st *old_obj)
{
    uint64_t mask = 0;
    for (uint32_t i = 0; i < def->num_attrs; i++) {
        const zan_field_def_t *attr = &def->attrs[i];
        if (attr->trigger_mask && attr_differs(def, attr, new_obj, old_obj))
            mask |= attr->trigger_mask;
    }
    return mask;
}

/* The walk takes the copies, and what the hook behind the update is to be told: whoever looks at
 * the copies later sees the mark. An asynchronous write has the NPU threads read them until it is
 * done, so the old copy becomes the later event's before they get it. */
void give_copies(const push_op_t *op, zan_bwalk_event_data *data)
{
    const zan_table_crud_ctx_t *crud = op->crud;
    kor_dpd_event_ctx_t *walk_ctx = op->walk_ctx;
    walk_ctx->old_obj = crud->old_obj;
    walk_ctx->new_obj = crud->new_obj;
    walk_ctx->rdesc = crud->rdesc_ctx->rdesc;
    walk_ctx->reserve_rc = crud->reserve_rc;
    walk_ctx->rdesc_rc = crud->rdesc_rc;
    walk_ctx->hw_rc = crud->hw_rc;
    zan_dpd_set_freed_by_post_proc_flag(crud->old_obj);
    zan_dpd_set_freed_by_post_proc_flag(crud->new_obj);
    data->old_obj = crud->old_obj;
    if (op->def->write_mode)
        zan_server_make_event(op->def, crud->old_obj);
}

void push(const push_op_t *op, zan_event_record_t *event, uint32_t index)
{
    zan_bwalk_event_data *data = zan_bwalk_event_data_alloc();
    ZAN_ASSERT(data, "event_data");
    data->source_obj = op->db_obj;
    data->post_proc = event->post_proc;
    data->table_id = op->def->id;
    data->attrib_mask = event->attrib_mask;
    data->color = event->color;
    data->event_id = index;
    data->child_bitmap = event->child_bitmap;
    if (event->post_proc)
        give_copies(op, data);
    const bool pushed = dpd_event_push(op->walk_ctx->event_list, data);
    ZAN_ASSERT(pushed, "event_list");
    op->db_obj->dpd.evt_pushed_count++;
    zan_bwalk_stats_increment_num_evt_pushed(zan_dpd_get_bwalk_stats(op->def->id));
    event->pushed_count++;
}

/* No colour, or one that the object carries. */
bool passes_color(const push_op_t *op, const zan_event_record_t *event)
{
    return event->color == 0 || (event->color & zan_color_get_self_mask(op->db_obj));
}

void try_event(const push_op_t *op, zan_event_record_t *event, uint32_t index)
{
    const uint16_t id = op->def->id;
    const bool triggered = (event->attrib_mask & op->mask) != 0;
    if (!triggered || !passes_color(op, event)) {
        if (triggered)
            zan_dpd_get_bwalk_stats(id)->num_evt_color_skipped++;
        ZAN_TRACE(ZAN_CLASS_ZAN_BWALK_PUSH_EVENT__, BWALK_EVENT_SKIPPED, id, index,
                  event->attrib_mask, op->mask, event->color, op->db_obj);
        return;
    }
    if (!get_prune_marker(bwmask[id], event->child_bitmap) && !event->post_proc) {
        zan_dpd_get_bwalk_stats(id)->num_evt_pruned++;
        ZAN_TRACE(ZAN_CLASS_ZAN_BWALK_PUSH_EVENT__, BWALK_EVENT_PRUNED, id, index, op->db_obj,
                  op->crud->trans_id);
        return;
    }
    push(op, event, index);
}

/* Record 0 is reserved. */
void try_events(const push_op_t *op, zan_event_record_t *events, uint32_t length)
{
    for (uint32_t i = 1; i < length; i++)
        try_event(op, &events[i], i);
}

/* An object without children tells nobody, unless its table wants its own post-processing. */
bool wants_events(const push_op_t *op)
{
    const srv_zan_table_props_t *props = op->crud->props;
    if (!props->evt_has_events)
        return false;
    const bool childless = op->db_obj->dpd.dpd_child_cnt == 0;
    if ((!childless || props->evt_walk_childless) && !props->evt_walk_suppressed)
        return true;
    ZAN_TRACE(ZAN_CLASS_ZAN_BWALK_EVENT__, BWALK_NOT_PUSHED, props->evt_walk_childless,
              props->evt_walk_suppressed, op->def->id, op->db_obj);
    return false;
}

} // namespace

uint64_t kor_core_get_attrib_update_mask(const zan_table_def_t *def, zan_table_base_st *new_obj,
                                         zan_table_base_st *old_obj)
{
    const srv_zan_table_props_t *props = zan_table_state(def)->props;
    return trigger_mask(def, new_obj, old_obj) | props->get_platform_attrib_mask(new_obj, old_obj) |
           props->get_infra_attrib_mask(new_obj, old_obj);
}

void zan_server_prep_walk_ctx(const zan_table_def_t *def, zan_table_crud_ctx_t *crud)
{
    push_op_t op = {def, crud, crud->walk_ctx, crud->db_obj, 0};
    op.walk_ctx->current_obj = op.db_obj;
    op.walk_ctx->response = crud->response;
    zan_walk_ctx_set_trans_id(op.walk_ctx, crud->trans_id);
    zan_walk_ctx_set_from_retry(op.walk_ctx, zan_obj_base_get_retry_mode(crud->obj));
    if (!wants_events(&op))
        return;
    /* Hooks on the NPU threads may still be at it. */
    const uint64_t reported = __atomic_load_n(&op.walk_ctx->attrib_upd_mask, __ATOMIC_RELAXED);
    op.mask = kor_core_get_attrib_update_mask(def, crud->new_obj, crud->old_obj) | reported;
    zan_walk_ctx_set_attrib_upd_mask(op.walk_ctx, op.mask);
    if (reported)
        ZAN_TRACE(ZAN_CLASS_ZAN_BWALK_EVENT__, BWALK_BITS_REPORTED, reported, op.mask, def->id,
                  op.db_obj);
    if (def->event_chain)
        try_events(&op, crud->props->event_table, def->num_events + 1u);
    uint32_t length = 0;
    zan_event_record_t *extra = crud->props->get_extra_events(&length);
    if (length >= 2)
        try_events(&op, extra, length);
}
