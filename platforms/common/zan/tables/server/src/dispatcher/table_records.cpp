/* A table's properties record: scalars from its definition, slots that lead to the server's own
 * functions and, by the rule below, to hooks.
 *
 * A hook leads to srv_<table>_<hook> of the platform; else to srv_<table>_<hook>_infra_default of a
 * library; else to its family's fall-back, which for most returns 0. Both addresses are weak and
 * are looked up here, once. The few families that differ keep a wrapper each, which tells the table
 * by the object.
 */
#include "table_lists.h"
#include "table_server_api_common.h"

#include <cstring>

namespace
{

using props_t = srv_zan_table_props_t;

/* ---- Where hooks lead ---- */

void find_hooks(props_t *props)
{
    const zan_table_entry_t *entry = zan_table_entry_get(props->def->id);
    const struct {
        const zan_hook_pair_t *pairs;
        uint32_t first, count;
    } groups[] = {
#define GROUP(name, first, count) {entry->hooks_##name, first, count},
        ZAN_HOOK_GROUPS(GROUP)
#undef GROUP
    };
    for (const auto &group : groups) {
        if (!group.pairs)
            continue;
        for (uint32_t i = 0; i < group.count; i++) {
            const zan_hook_pair_t *pair = &group.pairs[i];
            props->hook[group.first + i] = pair->platform ? pair->platform : pair->dflt;
            props->hook_source[group.first + i] = pair->platform ? ZAN_HOOK_PLATFORM
                                                  : pair->dflt   ? ZAN_HOOK_DEFAULT
                                                                 : ZAN_HOOK_NONE;
        }
    }
}

/* The function that stands for an absent hook of a slot's type: it returns 0, or nothing. */
template <class Result, class... A> Result hook_absent(A...)
{
    if constexpr (!__is_same(Result, void))
        return Result();
}

template <class Result, class... A>
void lead(props_t *props, Result (**slot)(A...), zan_hook_et hook,
          Result (*fallback)(A...) = hook_absent<Result, A...>)
{
    void (*found)(void) = props->hook[hook];
    *slot = found ? (Result(*)(A...))found : fallback;
}

template <class Function> Function hook_of(const zan_table_base_st *obj, zan_hook_et hook)
{
    return (Function)zan_srv_table_props_get(obj->table_id)->hook[hook];
}

/* ---- Wrappers of the families that differ ---- */

/* The hook takes the object alone. */
zan_rcode delete_wrapper(uint32_t, zan_table_base_st *obj)
{
    auto *hook = hook_of<zan_rcode (*)(zan_table_base_st *)>(obj, ZAN_HOOK_delete);
    return hook ? hook(obj) : EOK;
}

zan_rcode event_absent(kor_dpd_event_ctx_t *walk_ctx, zan_table_base_st *obj)
{
    ZAN_TRACE_TABLE(zan_slt_obj_base(obj, ZAN_TRACE_LEVEL_EVENT), obj->table_id, EVENT_HOOK_ABSENT,
                    walk_ctx, obj);
    return EOK;
}

uint8_t color_absent(const zan_table_base_st *)
{
    return 1;
}

/* The platform gets the code by NPU with the object behind it, a default the object. */
zan_rcode release_id_wrapper(int32_t npu, zan_rcode rc, zan_table_base_st *obj)
{
    const props_t *props = zan_srv_table_props_get(obj->table_id);
    void (*hook)(void) = props->hook[ZAN_HOOK_release_id];
    if (!hook)
        return EOK;
    if (props->hook_source[ZAN_HOOK_release_id] == ZAN_HOOK_DEFAULT)
        return ((zan_rcode(*)(int32_t, zan_table_base_st *))hook)(npu, obj);
    zan_release_id_ctx_t record = {};
    record.npu_rc[kor_core_get_npu_id(obj) % ZAN_MAX_NPUS] = rc;
    record.obj = obj;
    return ((zan_rcode(*)(int32_t, zan_release_id_ctx_t *))hook)(npu, &record);
}

void internal_async_q_err_wrapper(zan_table_base_st *obj, zan_rcode rc)
{
    void (*hook)(void) =
        zan_srv_table_props_get(obj->table_id)->hook[ZAN_HOOK_internal_async_q_err];
    if (!hook) {
        ZAN_ASSERT(rc == EOK, "rc == EOK");
        return;
    }
    zan_async_q_err_in_t in_args = {obj, rc};
    zan_async_q_err_out_t out_args = {1};
    ((void (*)(zan_async_q_err_in_t *, zan_async_q_err_out_t *))hook)(&in_args, &out_args);
    ZAN_ASSERT(out_args.do_assert == 0, "out_args.do_assert == FALSE");
}

/* ---- The server's own slots ---- */

const zan_table_def_t *def_of(const zan_table_base_st *obj)
{
    return zan_table_defs[obj->table_id];
}

zan_rcode alloc_dbobj_params(zan_table_base_st *db_obj, const zan_table_base_st *obj)
{
    return zan_server_shmwin_alloc_dbobj_params(def_of(obj), db_obj, obj);
}

void free_dbobj_params(zan_table_base_st *db_obj)
{
    zan_server_shmwin_free_dbobj_params(def_of(db_obj), db_obj);
}

zan_rcode resolve_ref(zan_table_base_st *obj, zan_table_base_st *db_obj, uint8_t is_inside_bwalk)
{
    return kor_core_resolve_ref(def_of(obj), obj, db_obj, is_inside_bwalk);
}

uint32_t get_npi_dyn_attribs_sz(const zan_table_base_st *obj)
{
    const zan_table_def_t *def = def_of(obj);
    return zan_obj_dyn_size(def, zan_obj_num_elements(def, obj));
}

zan_rcode crud_from_obj_base(zan_table_base_st *obj, zan_table_response_st *resp, uint32_t arg,
                             kor_dpd_event_ctx_t *walk_ctx)
{
    return zan_srv_crud_from_obj_base(def_of(obj), obj, resp, arg, walk_ctx);
}

zan_table_base_st *get_db_obj(zan_table_base_st *obj)
{
    obj->obj_handle = 0;
    zan_table_base_st *db_obj = zan_db_get(obj);
    if (db_obj && db_obj->obj_id == obj->obj_id)
        return db_obj;
    ZAN_TRACE_TABLE(zan_slt_obj_base(obj, ZAN_TRACE_LEVEL_EVENT), obj->table_id, GET_DB_OBJ_MISS,
                    obj->base_trans_id, obj->obj_id);
    return nullptr;
}

void fix_ptrs_from_base(zan_table_base_st *obj)
{
    const props_t *props = zan_srv_table_props_get(obj->table_id);
    zan_obj_fix_ptrs(props->def, obj, (uint8_t *)obj + props->obj_size + props->private_size);
}

zan_table_base_st *copy_ctor(const zan_table_base_st *obj)
{
    return zan_server_copy_ctor(def_of(obj), obj);
}

void copy_dtor(zan_table_base_st *obj)
{
    if (obj)
        zan_server_copy_dtor(def_of(obj), obj);
}

uint32_t serialize(const zan_table_base_st *obj, void *buffer)
{
    const props_t *props = zan_srv_table_props_get(obj->table_id);
    return zan_obj_serialize(props->def, props->private_size, obj, buffer);
}

void *get_npd_handle(const zan_table_base_st *obj)
{
    const props_t *props = zan_srv_table_props_get(obj->table_id);
    return props->private_size ? (uint8_t *)obj + props->obj_size : nullptr;
}

uint64_t get_npi_handle(const zan_table_base_st *obj)
{
    return obj->obj_handle;
}

void delete_notify(zan_table_base_st *obj)
{
    ZAN_TRACE_TABLE(zan_slt_obj_base(obj, ZAN_TRACE_LEVEL_EVENT), obj->table_id, DELETE_NOTIFIED,
                    obj->base_trans_id);
    zan_send_srv_notif(obj, ZAN_NOTIF_DELETED);
}

zan_rcode send_notification(zan_srv_send_notif_st *notif)
{
    return kor_send_table_notification(def_of(notif->obj), notif);
}

void npd_delay_delete(zan_table_base_st *obj, zan_rcode rc)
{
    kor_srv_npd_delay_delete(def_of(obj), obj, rc);
}

zan_rcode bwalk_child_callback(zan_table_base_st *child, kor_dpd_event_ctx_t *walk_ctx)
{
    return zan_server_bwalk_child_callback(def_of(child), child, walk_ctx);
}

zan_rcode event_post_processing(kor_dpd_event_ctx_t *walk_ctx)
{
    if (!walk_ctx || !walk_ctx->old_obj)
        return EOK;
    return zan_server_event_post_processing(def_of(walk_ctx->old_obj), walk_ctx);
}

void fill_scalars(const zan_table_def_t *def, props_t *props)
{
    props->def = def;
    props->write_mode = def->write_mode;
    props->table_class = def->table_class;
    props->evt_walk_suppressed = def->evt_walk_suppressed;
    props->evt_has_events = def->event_chain;
    props->evt_walk_childless = def->evt_walk_childless;
    props->periodic_stats = def->periodic_stats;
    props->delete_delay = def->delete_delay;
    props->hw_rc_mode = def->hw_rc_mode;
    props->obj_size = def->obj_size;
    props->track_inflight = def->track_inflight;
    props->private_size = kor_npd_get_table_size(def->id);
}

void fill_own_slots(const zan_table_def_t *def, props_t *props)
{
    props->empty_hook = hook_absent<void>;
    props->get_npd_handle = get_npd_handle;
    props->get_npi_handle = get_npi_handle;
    props->shmwin_alloc_dbobj_params = alloc_dbobj_params;
    props->shmwin_free_dbobj_params = free_dbobj_params;
    props->resolve_ref = resolve_ref;
    props->is_attrib_changed = zan_server_is_attrib_changed;
    props->get_npi_dyn_attribs_sz = get_npi_dyn_attribs_sz;
    props->crud_from_obj_base = crud_from_obj_base;
    props->get_db_obj = get_db_obj;
    props->bwalk_child_callback = bwalk_child_callback;
    props->bwalk_child_process_events = zan_table_entry_get(def->id)->bwalk_child_process_events;
    props->event_post_processing = event_post_processing;
    props->fix_ptrs_from_base = fix_ptrs_from_base;
    props->set_npd_exists = zan_server_set_npd_exists;
    props->copy_ctor = copy_ctor;
    props->copy_dtor = copy_dtor;
    props->calc_update_delta_lists = zan_server_calc_update_delta_lists;
    props->delete_notify =
        def->delete_notify ? delete_notify : hook_absent<void, zan_table_base_st *>;
    props->send_notification = send_notification;
    props->print_key_from_base_obj = zan_server_print_key_from_base_obj;
    props->stats_walk =
        def->periodic_stats ? zan_table_entry_get(def->id)->stats_walk : hook_absent<zan_rcode>;
    props->serialize = serialize;
    props->copy_key_from_base = zan_server_copy_key_from_base;
    props->npd_delay_delete = npd_delay_delete;
}

uint32_t first_pointer(const zan_table_def_t *def)
{
    uint32_t first = UINT32_MAX;
    for (uint32_t i = 0; i < def->num_attrs; i++)
        if (def->attrs[i].shape == ZAN_SHAPE_REPEATED && def->attrs[i].offset < first)
            first = def->attrs[i].offset;
    for (uint32_t i = 0; i < def->num_refs; i++)
        if (def->refs[i].repeated && def->refs[i].offset < first)
            first = def->refs[i].offset;
    for (uint32_t i = 0; i < def->num_unions; i++)
        if (def->unions[i].repeated && !def->unions[i].nested_in && def->unions[i].offset < first)
            first = def->unions[i].offset;
    return first == UINT32_MAX ? 0 : first;
}

} // namespace

void zan_server_callback_wrapper_setup(srv_zan_table_props_t *props)
{
    find_hooks(props);
#define LEAD(name) lead(props, &props->name, ZAN_HOOK_##name)
    LEAD(create);
    LEAD(update);
    LEAD(eod);
    LEAD(get);
    LEAD(get_first);
    LEAD(get_next);
    LEAD(get_gt_eq);
    LEAD(resolve);
    LEAD(specific_init);
    LEAD(specific_access_fn);
    LEAD(pre_create_rdesc);
    LEAD(post_create_rdesc);
    LEAD(pre_update_rdesc);
    LEAD(post_update_rdesc);
    LEAD(pre_delete_rdesc);
    LEAD(post_delete_rdesc);
    LEAD(update_zan_db_stats_from_rdesc);
    LEAD(calculate_num_paths);
    LEAD(update_rdesc_from_hw);
    LEAD(fill_default_async_notif_cb);
    LEAD(fill_sdk_show_buffer);
    LEAD(async_batch_end_npu_cb);
    props->delete_ = delete_wrapper;
    lead(props, &props->event, ZAN_HOOK_event, event_absent);
    lead(props, &props->sync_error_handling, ZAN_HOOK_sync_error_handling,
         srv_sync_error_handling_infra_default);
    lead(props, &props->async_bwalk_error_handling, ZAN_HOOK_async_bwalk_error_handling,
         srv_async_bwalk_error_handling_infra_default);
    lead(props, &props->color_using_fwalk, ZAN_HOOK_color_using_fwalk, color_absent);
    const zan_table_def_t *def = props->def;
    if (def->identifiers) {
        LEAD(reserve_id);
        LEAD(update_reserve_id);
        LEAD(update_release_id);
        props->release_id = release_id_wrapper;
    }
    if (def->post_actions) {
        LEAD(post_create_action);
        LEAD(post_update_action);
        LEAD(post_delete_action);
    }
    if (def->internal_async_q_err)
        props->internal_async_q_err = internal_async_q_err_wrapper;
    if (def->repeated_delta) {
        LEAD(update_deprecated);
        LEAD(compare_dynamic_struct_deprecated);
    }
#undef LEAD
}

void zan_server_get_ringlog_enums(uint32_t table_id, zan_ringlog_enums_st *enums)
{
    for (uint32_t level = 0; level < 3; level++)
        enums->level[level] = table_id * 3 + level;
}

void zan_server_init_table_props(const zan_table_def_t *def, srv_zan_table_props_t *props)
{
    if (!props)
        return;
    zan_table_state_t *state = zan_table_state(def);
    state->props = props;
    state->first_pointer_offset = first_pointer(def);
    fill_scalars(def, props);
    zan_server_get_ringlog_enums(def->id, &props->ringlog_enums);
    props->callback_wrapper_setup = zan_server_callback_wrapper_setup;
    props->callback_wrapper_setup(props);
    fill_own_slots(def, props);
    props->valid = 1;
}

void zan_srv_npi_init_table_props(uint32_t table_id, srv_zan_table_props_t *props)
{
    const zan_table_def_t *def = zan_table_def_get(table_id);
    if (def)
        zan_server_init_table_props(def, props);
}

void zan_srv_npi_init_adj_props(uint32_t table_id)
{
    const zan_table_def_t *def = zan_table_def_get(table_id);
    if (def)
        zan_server_init_adj_props(def);
}

/* ---- Slots that tell the table by the object ---- */

bool zan_server_is_attrib_changed(zan_table_base_st *obj, zan_table_base_st *db_obj, uint32_t *,
                                  int32_t *index)
{
    const zan_table_def_t *def = def_of(obj);
    const zan_counters_hold_t hold(def);
    if (zan_obj_attrs_differ(def, obj, db_obj, index))
        return true;
    if (def->table_class != 0 && *zan_obj_npu_mask_req_set(def, obj) &&
        (!*zan_obj_npu_mask_req_set(def, db_obj) ||
         *zan_obj_npu_mask_req(def, obj) != *zan_obj_npu_mask_req(def, db_obj)))
        return true;
    /* After the resolution a reference that is not there was left out or dropped. */
    return zan_refs_changed(def, obj, db_obj) != 0;
}

/* The lists of the tables that have them are built where their hook is called. */
void zan_server_calc_update_delta_lists(zan_delta_lists_t *)
{
}

void zan_server_print_key_from_base_obj(const zan_table_base_st *obj, bool is_old)
{
    const zan_table_def_t *def = def_of(obj);
    zan_server_print_key(def, is_old ? ZAN_TMSG_KEY_PRINT_OLD : ZAN_TMSG_KEY_PRINT,
                         zan_obj_key(def, obj), obj->base_trans_id, def->id);
}

void zan_server_copy_key_from_base(void *key, const zan_table_base_st *obj)
{
    if (!key || !obj)
        return;
    const zan_table_def_t *def = def_of(obj);
    memcpy(key, zan_obj_key(def, obj), def->key_size);
}
