/* The exported names of a table: one-liners that hand its definition to the one flow.
 *
 * The generator emits one ZAN_TABLE_ENTRIES line for each table, and the others as its definition
 * asks.
 */
#ifndef ZAN_TABLE_ENTRIES_H
#define ZAN_TABLE_ENTRIES_H

#include "repeated_delta.h"
#include "table_server_api_common.h"
#include "zan_accessors.h"

#define ZAN_ENTRY(result) extern "C" ZAN_EXPORT result
#define ZAN_DEF(U)        (zan_table_defs[U##_TABLE_ID])
#define ZAN_BASE(object)  ((zan_table_base_st *)(object))

#define ZAN_TABLE_READ(T, U, read)                                                                 \
    ZAN_ENTRY(zan_rcode)                                                                           \
    zan_server_api_##T##_##read(zan_##T##_obj_st *obj, zan_##T##_response_obj_st *response,        \
                                uint32_t flags)                                                    \
    {                                                                                              \
        return zan_server_api_get_common(ZAN_DEF(U), ZAN_BASE(obj), response, flags);              \
    }

#define ZAN_TABLE_TRACE_CLASS(U, level, index)                                                     \
    ZAN_ENTRY(zan_trace_class_t) ZAN_##U##_##level##__(void)                                       \
    {                                                                                              \
        return U##_TABLE_ID * 3 + index;                                                           \
    }

#define ZAN_TABLE_ENTRIES(T, U)                                                                    \
    /* operations */                                                                               \
    ZAN_ENTRY(zan_rcode)                                                                           \
    zan_server_api_##T##_create(zan_##T##_obj_st *obj, zan_##T##_response_obj_st *response,        \
                                uint32_t flags)                                                    \
    {                                                                                              \
        return zan_server_api_create(ZAN_DEF(U), ZAN_BASE(obj), response, flags);                  \
    }                                                                                              \
    ZAN_ENTRY(zan_rcode)                                                                           \
    zan_server_api_##T##_update(zan_##T##_obj_st *obj, zan_##T##_response_obj_st *response,        \
                                uint32_t flags, kor_dpd_event_ctx_t *walk_ctx)                     \
    {                                                                                              \
        return zan_server_api_update(ZAN_DEF(U), ZAN_BASE(obj), response, flags, walk_ctx);        \
    }                                                                                              \
    ZAN_ENTRY(zan_rcode)                                                                           \
    zan_server_api_##T##_delete(zan_##T##_obj_st *obj, zan_##T##_response_obj_st *response,        \
                                uint32_t flags)                                                    \
    {                                                                                              \
        return zan_server_api_delete(ZAN_DEF(U), ZAN_BASE(obj), response, flags);                  \
    }                                                                                              \
    ZAN_TABLE_READ(T, U, get)                                                                      \
    ZAN_TABLE_READ(T, U, get_first)                                                                \
    ZAN_TABLE_READ(T, U, get_next)                                                                 \
    ZAN_TABLE_READ(T, U, get_gt_eq)                                                                \
    ZAN_ENTRY(zan_rcode)                                                                           \
    zan_srv_##T##_crud_from_obj_base(zan_table_base_st *obj, zan_table_response_st *resp,          \
                                     uint32_t arg, kor_dpd_event_ctx_t *walk_ctx)                  \
    {                                                                                              \
        return zan_srv_crud_from_obj_base(ZAN_DEF(U), obj, resp, arg, walk_ctx);                   \
    }                                                                                              \
    ZAN_ENTRY(void)                                                                                \
    zan_server_api_##T##_release_id(zan_##T##_obj_st *obj, zan_##T##_response_obj_st *response)    \
    {                                                                                              \
        zan_server_api_release_id(ZAN_DEF(U), ZAN_BASE(obj), response);                            \
    }                                                                                              \
    ZAN_ENTRY(void)                                                                                \
    zan_server_api_##T##_update_release_id(zan_##T##_obj_st *new_or_old,                           \
                                           zan_##T##_obj_st *old_obj,                              \
                                           zan_##T##_response_obj_st *response)                    \
    {                                                                                              \
        zan_server_api_update_release_id(ZAN_DEF(U), ZAN_BASE(new_or_old), ZAN_BASE(old_obj),      \
                                         response);                                                \
    }                                                                                              \
    /* core */                                                                                     \
    ZAN_ENTRY(zan_rcode)                                                                           \
    kor_core_##T##_resolve_ref(zan_##T##_obj_st *new_obj, zan_##T##_obj_st *db_obj,                \
                               uint8_t is_inside_bwalk)                                            \
    {                                                                                              \
        return kor_core_resolve_ref(ZAN_DEF(U), ZAN_BASE(new_obj), ZAN_BASE(db_obj),               \
                                    is_inside_bwalk);                                              \
    }                                                                                              \
    ZAN_ENTRY(zan_rcode)                                                                           \
    zan_core_##T##_resolve_refs_union(zan_##T##_obj_st *new_obj, zan_##T##_obj_st *old_obj,        \
                                      uint8_t is_inside_bwalk)                                     \
    {                                                                                              \
        return zan_core_resolve_refs_union(ZAN_DEF(U), ZAN_BASE(new_obj), ZAN_BASE(old_obj),       \
                                           is_inside_bwalk);                                       \
    }                                                                                              \
    ZAN_ENTRY(uint64_t) kor_core_##T##_iterator(zan_iterator_visitor_f visitor, void *arg)         \
    {                                                                                              \
        return kor_core_iterator(ZAN_DEF(U), visitor, arg);                                        \
    }                                                                                              \
    ZAN_ENTRY(uint64_t) kor_core_##T##_replay_start(zan_##T##_obj_st *arg)                         \
    {                                                                                              \
        return kor_core_replay_start(ZAN_DEF(U), ZAN_BASE(arg));                                   \
    }                                                                                              \
    ZAN_ENTRY(uint64_t) kor_core_##T##_replay_end(zan_##T##_obj_st *arg)                           \
    {                                                                                              \
        return kor_core_replay_end(ZAN_DEF(U), ZAN_BASE(arg));                                     \
    }                                                                                              \
    ZAN_ENTRY(void) kor_core_##T##_deinit(void)                                                    \
    {                                                                                              \
        kor_core_deinit(ZAN_DEF(U));                                                               \
    }                                                                                              \
    ZAN_ENTRY(uint64_t)                                                                            \
    kor_core_##T##_get_attrib_update_mask(zan_##T##_obj_st *new_obj, zan_##T##_obj_st *old_obj)    \
    {                                                                                              \
        return kor_core_get_attrib_update_mask(ZAN_DEF(U), ZAN_BASE(new_obj), ZAN_BASE(old_obj));  \
    }                                                                                              \
    /* hardware */                                                                                 \
    ZAN_ENTRY(zan_rcode)                                                                           \
    kor_server_##T##_hw_thread_picker(zan_##T##_obj_st *old_obj, zan_##T##_obj_st *obj,            \
                                      zan_##T##_response_obj_st *response,                         \
                                      kor_dpd_event_ctx_t *walk_ctx)                               \
    {                                                                                              \
        return kor_server_hw_thread_picker(ZAN_DEF(U), ZAN_BASE(old_obj), ZAN_BASE(obj), response, \
                                           walk_ctx);                                              \
    }                                                                                              \
    ZAN_ENTRY(void)                                                                                \
    kor_server_api_##T##_oor_accounting(kor_npu_mask_t npu_mask, zan_table_base_st *obj,           \
                                        uint32_t is_add, zan_rcode rc)                             \
    {                                                                                              \
        kor_server_api_oor_accounting(ZAN_DEF(U), npu_mask, obj, is_add, rc);                      \
    }                                                                                              \
    ZAN_ENTRY(void)                                                                                \
    kor_server_api_##T##_oor_accounting_from_async_write(uint32_t npu_id, zan_table_base_st *obj,  \
                                                         zan_rcode rc)                             \
    {                                                                                              \
        kor_server_api_oor_accounting_from_async_write(ZAN_DEF(U), npu_id, obj, rc);               \
    }                                                                                              \
    ZAN_ENTRY(void)                                                                                \
    kor_server_api_##T##_oor_accounting_from_async_write_update(                                   \
        uint32_t npu_id, zan_table_base_st *new_obj, zan_table_base_st *old_obj, zan_rcode rc)     \
    {                                                                                              \
        kor_server_api_oor_accounting_from_async_write_update(ZAN_DEF(U), npu_id, new_obj,         \
                                                              old_obj, rc);                        \
    }                                                                                              \
    ZAN_ENTRY(void)                                                                                \
    kor_server_api_##T##_increment_hw_err_counters(uint32_t operation_class, uint32_t npu_id,      \
                                                   zan_rcode rc)                                   \
    {                                                                                              \
        kor_server_api_increment_hw_err_counters(ZAN_DEF(U), operation_class, npu_id, rc);         \
    }                                                                                              \
    /* objects */                                                                                  \
    ZAN_ENTRY(zan_table_base_st *) zan_##T##_copy_ctor(const zan_table_base_st *obj)               \
    {                                                                                              \
        return zan_server_copy_ctor(ZAN_DEF(U), obj);                                              \
    }                                                                                              \
    ZAN_ENTRY(void) zan_##T##_copy_dtor(zan_table_base_st *obj)                                    \
    {                                                                                              \
        zan_server_copy_dtor(ZAN_DEF(U), obj);                                                     \
    }                                                                                              \
    ZAN_ENTRY(void) zan_##T##_set_npd_exists(zan_table_base_st *obj, bool exists)                  \
    {                                                                                              \
        zan_server_set_npd_exists(obj, exists);                                                    \
    }                                                                                              \
    ZAN_ENTRY(bool)                                                                                \
    zan_##T##_is_attrib_changed(zan_table_base_st *obj, zan_table_base_st *db_obj,                 \
                                uint32_t *new_to_old_map, int32_t *index)                          \
    {                                                                                              \
        return zan_server_is_attrib_changed(obj, db_obj, new_to_old_map, index);                   \
    }                                                                                              \
    ZAN_ENTRY(void) zan_##T##_calc_update_delta_lists(zan_delta_lists_t *lists)                    \
    {                                                                                              \
        zan_server_calc_update_delta_lists(lists);                                                 \
    }                                                                                              \
    ZAN_ENTRY(void) zan_##T##_print_key_from_base_obj(const zan_table_base_st *obj, bool is_old)   \
    {                                                                                              \
        zan_server_print_key_from_base_obj(obj, is_old);                                           \
    }                                                                                              \
    ZAN_ENTRY(void)                                                                                \
    zan_##T##_obj_printer_print_key_with_enum(const void *key, uint32_t trans_id,                  \
                                              uint32_t message)                                    \
    {                                                                                              \
        zan_server_print_key(ZAN_DEF(U), (zan_table_msg_et)message, key, trans_id, U##_TABLE_ID);  \
    }                                                                                              \
    ZAN_ENTRY(void) kor_srv_##T##_copy_key_from_base(void *key, const zan_table_base_st *obj)      \
    {                                                                                              \
        zan_server_copy_key_from_base(key, obj);                                                   \
    }                                                                                              \
    ZAN_ENTRY(void) kor_srv_##T##_npd_delay_delete(zan_table_base_st *obj, zan_rcode rc)           \
    {                                                                                              \
        kor_srv_npd_delay_delete(ZAN_DEF(U), obj, rc);                                             \
    }                                                                                              \
    ZAN_ENTRY(zan_rcode)                                                                           \
    kor_srv_##T##_walk(void *walk_arg, zan_db_walk_f cb, void *cb_arg, uint32_t flags)             \
    {                                                                                              \
        return kor_srv_walk(ZAN_DEF(U), walk_arg, cb, cb_arg, flags);                              \
    }                                                                                              \
    ZAN_ENTRY(uint32_t) kor_##T##_get_db_type(void)                                                \
    {                                                                                              \
        return zan_table_state(ZAN_DEF(U))->db_ctx.db_type;                                        \
    }                                                                                              \
    ZAN_ENTRY(zan_resource_info_t *) kor_##T##_get_resource_info(void)                             \
    {                                                                                              \
        return &zan_table_state(ZAN_DEF(U))->info;                                                 \
    }                                                                                              \
    ZAN_ENTRY(zan_rcode) kor_##T##_send_notification(zan_srv_send_notif_st *notif)                 \
    {                                                                                              \
        return kor_send_table_notification(ZAN_DEF(U), notif);                                     \
    }                                                                                              \
    ZAN_ENTRY(zan_rcode)                                                                           \
    srv_##T##_set_sdk_show_buf(zan_get_sdk_ctx_t *ctx, const char *text)                           \
    {                                                                                              \
        return srv_set_sdk_show_buf(ZAN_DEF(U), ctx, text);                                        \
    }                                                                                              \
    ZAN_ENTRY(zan_##T##_obj_st *)                                                                  \
    srv_##T##_get_table_obj_from_get_sdk_ctx(const zan_get_sdk_ctx_t *ctx)                         \
    {                                                                                              \
        return (zan_##T##_obj_st *)ctx->obj;                                                       \
    }                                                                                              \
    /* events */                                                                                   \
    ZAN_ENTRY(void) zan_##T##_prep_walk_ctx(zan_table_crud_ctx_t crud_ctx)                         \
    {                                                                                              \
        zan_server_prep_walk_ctx(ZAN_DEF(U), &crud_ctx);                                           \
    }                                                                                              \
    ZAN_ENTRY(zan_rcode) zan_##T##_event_post_processing(kor_dpd_event_ctx_t *walk_ctx)            \
    {                                                                                              \
        return zan_server_event_post_processing(ZAN_DEF(U), walk_ctx);                             \
    }                                                                                              \
    ZAN_ENTRY(zan_rcode) zan_##T##_init_bwalk_stats(void)                                          \
    {                                                                                              \
        return zan_server_init_bwalk_stats(ZAN_DEF(U));                                            \
    }                                                                                              \
    ZAN_ENTRY(zan_rcode)                                                                           \
    zan_##T##_bwalk_child_process_events(void *, kor_dpd_event_ctx_t *walk_ctx, void *)            \
    {                                                                                              \
        return zan_server_bwalk_child_process_events(ZAN_DEF(U), walk_ctx);                        \
    }                                                                                              \
    ZAN_ENTRY(zan_rcode)                                                                           \
    zan_##T##_bwalk_child_callback(zan_table_base_st *child, kor_dpd_event_ctx_t *walk_ctx)        \
    {                                                                                              \
        return zan_server_bwalk_child_callback(ZAN_DEF(U), child, walk_ctx);                       \
    }                                                                                              \
    /* records and traces */                                                                       \
    ZAN_ENTRY(void) zan_srv_##T##_npi_init_table_props(srv_zan_table_props_t *props)               \
    {                                                                                              \
        zan_server_init_table_props(ZAN_DEF(U), props);                                            \
    }                                                                                              \
    ZAN_ENTRY(void) zan_srv_##T##_npi_init_adj_props(void)                                         \
    {                                                                                              \
        zan_server_init_adj_props(ZAN_DEF(U));                                                     \
    }                                                                                              \
    ZAN_ENTRY(void) srv_##T##_callback_wrapper_setup(srv_zan_table_props_t *props)                 \
    {                                                                                              \
        zan_server_callback_wrapper_setup(props);                                                  \
    }                                                                                              \
    ZAN_ENTRY(void) zan_##T##_get_ringlog_enums(zan_ringlog_enums_st *enums)                       \
    {                                                                                              \
        zan_server_get_ringlog_enums(U##_TABLE_ID, enums);                                         \
    }                                                                                              \
    ZAN_TABLE_TRACE_CLASS(U, ERROR, 0)                                                             \
    ZAN_TABLE_TRACE_CLASS(U, EVENT, 1)                                                             \
    ZAN_TABLE_TRACE_CLASS(U, VERBOSE, 2)                                                           \
    /* routines that pthread_once and the statistics thread call without an argument */            \
    extern "C" void zan_once_init_##T(void)                                                        \
    {                                                                                              \
        zan_server_core_init(ZAN_DEF(U));                                                          \
    }                                                                                              \
    extern "C" void zan_once_stats_##T(void)                                                       \
    {                                                                                              \
        zan_server_register_periodic_stats(ZAN_DEF(U));                                            \
    }                                                                                              \
    extern "C" zan_rcode zan_stats_walk_##T(void)                                                  \
    {                                                                                              \
        return zan_server_stats_walk(ZAN_DEF(U));                                                  \
    }

/* Operation 3: an event reaches hardware through the thread picker, so the entry does nothing. */
#define ZAN_TABLE_EVENT_ENTRY(T)                                                                   \
    ZAN_ENTRY(zan_rcode) zan_server_api_##T##_event(void)                                          \
    {                                                                                              \
        return EOK;                                                                                \
    }

#define ZAN_TABLE_EOD_ENTRY(T)                                                                     \
    ZAN_ENTRY(zan_rcode)                                                                           \
    zan_server_api_##T##_eod(zan_##T##_obj_st *obj, zan_##T##_response_obj_st *response)           \
    {                                                                                              \
        return zan_server_api_eod(zan_table_defs[obj->base.table_id], &obj->base, response);       \
    }

/* For hooks: record on the walk context that the event's attributes changed. */
#define ZAN_TABLE_PUSH_EVENT(T, U, event, mask)                                                    \
    ZAN_ENTRY(void) zan_walk_events_##T##_push_##event(kor_dpd_event_ctx_t *walk_ctx)              \
    {                                                                                              \
        zan_walk_ctx_push_attr_upd_mask(walk_ctx, U##_TABLE_ID, (mask));                           \
    }

/* The event array: record 0 is reserved, the others follow in order of their ids. */
#define ZAN_TABLE_EVENTS_BEGIN(T, U)                                                               \
    extern "C" ZAN_EXPORT zan_event_record_t T##_events[];                                         \
    zan_event_record_t T##_events[] = {{0, #U "_NPI_TYPE_INVALID", 0, 0, nullptr, {}, 0, 0, 0},
#define ZAN_TABLE_EVENT(U, id, name, mask, color, post_proc, child_count, ...)                     \
    {(id), #U "_" #name, (mask), 0, nullptr, {__VA_ARGS__}, (child_count), (color), (post_proc)},
#define ZAN_TABLE_EVENTS_END(T)                                                                    \
    }                                                                                              \
    ;                                                                                              \
    extern "C" ZAN_HIDDEN zan_event_record_t *const zan_events_of_##T;                             \
    zan_event_record_t *const zan_events_of_##T = T##_events;

#define ZAN_TABLE_STATS_BEGIN(T)                                                                   \
    extern "C" ZAN_EXPORT zan_event_stat_t T##_npi_evt_stats[];                                    \
    zan_event_stat_t T##_npi_evt_stats[] = {
#define ZAN_TABLE_STAT(event_id, source, name) {(event_id), (source), name, 0},
#define ZAN_TABLE_STATS_END(T)                                                                     \
    }                                                                                              \
    ;                                                                                              \
    extern "C" ZAN_HIDDEN zan_event_stat_t *const zan_evt_stats_of_##T;                            \
    zan_event_stat_t *const zan_evt_stats_of_##T = T##_npi_evt_stats;
#define ZAN_TABLE_NO_STATS(T)
/* The update by lists of members, and its accessors for the platform. */
#define ZAN_DELTA_COUNT(T, list)                                                                   \
    ZAN_ENTRY(uint32_t) srv_##T##_get_##list##_count(const srv_##T##_delta_t *delta)               \
    {                                                                                              \
        return delta ? delta->list##_count : 0;                                                    \
    }
#define ZAN_DELTA_ARRAY(T, U, list, side)                                                          \
    ZAN_ENTRY(const srv_##T##_element_t *)                                                         \
    srv_##T##_get_##list##_array_by_idx(const srv_##T##_delta_t *delta, uint32_t i)                \
    {                                                                                              \
        return delta ? (const srv_##T##_element_t *)zan_delta_element(                             \
                           ZAN_DEF(U), delta->side##_elems, delta->list##_array,                   \
                           delta->list##_count, i)                                                 \
                     : nullptr;                                                                    \
    }
#define ZAN_TABLE_REPEATED_DELTA(T, U)                                                             \
    ZAN_ENTRY(zan_rcode)                                                                           \
    srv_##T##_update_repeated_new(zan_table_base_st *new_obj, zan_table_base_st *old_obj)          \
    {                                                                                              \
        return zan_update_repeated_new(ZAN_DEF(U), new_obj, old_obj);                              \
    }                                                                                              \
    ZAN_DELTA_COUNT(T, add)                                                                        \
    ZAN_DELTA_COUNT(T, del)                                                                        \
    ZAN_DELTA_COUNT(T, mod)                                                                        \
    ZAN_DELTA_COUNT(T, mod_new_to_old)                                                             \
    ZAN_DELTA_ARRAY(T, U, add, new)                                                                \
    ZAN_DELTA_ARRAY(T, U, del, old)                                                                \
    ZAN_DELTA_ARRAY(T, U, mod, new)                                                                \
    ZAN_DELTA_ARRAY(T, U, mod_new_to_old, old)                                                     \
    ZAN_ENTRY(void) srv_##T##_dynamic_struct_dump(FILE *file, const srv_##T##_element_t *element)  \
    {                                                                                              \
        zan_dump_element(ZAN_DEF(U), file, element);                                               \
    }
/* An adjacency table, with the index of its definition: without hooks, and with. */
#define ZAN_TABLE_ADJ_OPS(A, def, setup, hooks)                                                    \
    extern "C" {                                                                                   \
    ZAN_ADJ_SERVICES(A)                                                                            \
    extern ZAN_HIDDEN const zan_adj_ops_t zan_adj_of_##A;                                          \
    zan_rcode zan_adj_walk_##A(void)                                                               \
    {                                                                                              \
        return zan_server_adj_walk(&zan_adj_of_##A);                                               \
    }                                                                                              \
    const zan_adj_ops_t zan_adj_of_##A = {&zan_adj_defs[def],                                      \
                                          zan_adj_srv_##A##_db_walk,                               \
                                          zan_adj_srv_##A##_shm_replicate_data,                    \
                                          zan_adj_walk_##A,                                        \
                                          setup,                                                   \
                                          hooks};                                                  \
    }
#define ZAN_TABLE_ADJ(A, def) ZAN_TABLE_ADJ_OPS(A, def, nullptr, nullptr)
#define ZAN_TABLE_ADJ_HOOKS(A, def)                                                                \
    ZAN_ADJ_HOOK_LIST(ZAN_HOOK_DECLARE, ZAN_HOOK_DECLARE_ALONE, A)                                 \
    static const zan_hook_pair_t zan_adj_hooks_##A[] = {                                           \
        ZAN_ADJ_HOOK_LIST(ZAN_HOOK_PAIR, ZAN_HOOK_PAIR_ALONE, A)};                                 \
    ZAN_ENTRY(void) srv_##A##_adj_callback_wrapper_setup(zan_adj_props_t *props);                  \
    ZAN_TABLE_ADJ_OPS(A, def, srv_##A##_adj_callback_wrapper_setup, zan_adj_hooks_##A)             \
    void srv_##A##_adj_callback_wrapper_setup(zan_adj_props_t *props)                              \
    {                                                                                              \
        zan_server_adj_callback_wrapper_setup(&zan_adj_of_##A, props);                             \
    }

#endif
