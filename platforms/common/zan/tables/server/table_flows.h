/* The flows, each written once for all tables: the exported per-table names hand their definition
 * in.
 *
 * All of them run on the dispatcher thread, or on the FRR thread while it holds the dispatcher,
 * with the programming lock held, unless said otherwise. A request is a heap form and stays the
 * caller's; the result of an operation stands in err_code of the response slot.
 */
#ifndef ZAN_TABLE_FLOWS_H
#define ZAN_TABLE_FLOWS_H

#include <stdio.h>

#include "server_entry.h"
#include "table_crud_ctx.h"
#include "table_lists.h"

/* Visitor of an iterator; what it returns is not looked at. It may delete the object it has. */
typedef zan_rcode (*zan_iterator_visitor_f)(zan_table_base_st *db_obj, void *arg);

ZAN_EXTERN_C_BEGIN

/* ---- Dispatch (src/dispatcher) ---- */

/* Run one object; the slot's err_code must be 0. */
ZAN_EXPORT int zan_table_server_block_dispatcher(zan_table_base_st *wire_obj,
                                                 zan_table_response_st *resp);
/* Route an object that the server gives itself; an unknown table or operation answers 0. */
ZAN_EXPORT zan_rcode kor_core_obj_dispatcher(zan_table_base_st *obj);
zan_rcode zan_srv_crud_from_obj_base(const zan_table_def_t *def, zan_table_base_st *obj,
                                     zan_table_response_st *resp, uint32_t arg,
                                     kor_dpd_event_ctx_t *walk_ctx);
/* Visit all objects in key order; returns how many. */
uint64_t kor_core_iterator(const zan_table_def_t *def, zan_iterator_visitor_f visitor, void *arg);
uint64_t kor_core_replay_start(const zan_table_def_t *def, zan_table_base_st *arg);
uint64_t kor_core_replay_end(const zan_table_def_t *def, zan_table_base_st *arg);
zan_rcode kor_srv_walk(const zan_table_def_t *def, void *walk_arg, zan_db_walk_f cb, void *cb_arg,
                       uint32_t flags);

ZAN_EXPORT void internal_async_queue_process(void);
ZAN_EXPORT zan_rcode zan_core_process_queue_obj(zan_table_base_st *obj, bool delay_delete);
ZAN_EXPORT void zan_dispatch_post_step(zan_table_base_st *obj, bool end_of_run, bool east_west);
ZAN_EXPORT void zan_sync_allow_all_npu_queues(uint32_t table_id, uint32_t operation,
                                              uint32_t trans_id);

/* ---- Records of a table (src/dispatcher/table_records) ---- */

/* Fill the record from the definition and with the server's functions; null changes nothing. */
void zan_server_init_table_props(const zan_table_def_t *def, srv_zan_table_props_t *props);
void zan_server_init_adj_props(const zan_table_def_t *def);
void zan_server_get_ringlog_enums(uint32_t table_id, zan_ringlog_enums_st *enums);

/* ---- Start and stop ---- */

void zan_server_core_init(const zan_table_def_t *def);
void zan_server_register_periodic_stats(const zan_table_def_t *def);
void kor_core_deinit(const zan_table_def_t *def);
/* The process calls these two at its end; nothing brings the tables back. */
ZAN_EXPORT void zan_srv_deinit(void);
ZAN_EXPORT void handle_event_free_allocated_mask(void);
/* The reusable message of synchronous broadcasts: made at first use, never freed. */
ZAN_EXPORT void zan_alloc_npu_sync_mcast_msg(void);
/* Fill the slots that lead to hooks. */
void zan_server_callback_wrapper_setup(srv_zan_table_props_t *props);

/* ---- Operations (src/crud) ---- */

zan_rcode zan_server_api_create(const zan_table_def_t *def, zan_table_base_st *obj,
                                zan_table_response_st *response, uint32_t flags);
zan_rcode zan_server_api_update(const zan_table_def_t *def, zan_table_base_st *obj,
                                zan_table_response_st *response, uint32_t flags,
                                kor_dpd_event_ctx_t *walk_ctx);
zan_rcode zan_server_api_delete(const zan_table_def_t *def, zan_table_base_st *obj,
                                zan_table_response_st *response, uint32_t flags);
zan_rcode zan_server_api_get_common(const zan_table_def_t *def, zan_table_base_st *obj,
                                    zan_table_response_st *response, uint32_t flags);
zan_rcode zan_server_api_eod(const zan_table_def_t *def, zan_table_base_st *obj,
                             zan_table_response_st *response);
/* Reserve what a create or update needs: the code that decides is the one to act on. */
zan_rcode zan_server_api_reserve_id(const zan_table_def_t *def, zan_table_crud_ctx_t *crud);
zan_rcode zan_server_api_update_reserve_id(const zan_table_def_t *def, zan_table_crud_ctx_t *crud);
void zan_server_api_release_id(const zan_table_def_t *def, zan_table_base_st *obj,
                               zan_table_response_st *response);
void zan_server_api_update_release_id(const zan_table_def_t *def, zan_table_base_st *new_or_old,
                                      zan_table_base_st *old_obj, zan_table_response_st *response);
/* The one place where a create, update or delete reaches hardware. */
zan_rcode kor_server_program_hw(const zan_table_def_t *def, zan_table_base_st *new_obj,
                                zan_table_base_st *old_obj, zan_table_crud_ctx_t *crud);
zan_rcode srv_set_sdk_show_buf(const zan_table_def_t *def, zan_get_sdk_ctx_t *ctx,
                               const char *text);
void kor_srv_npd_delay_delete(const zan_table_def_t *def, zan_table_base_st *obj, zan_rcode rc);

/* The last step of an update: rewrite the stored object from `src` and bind it anew if its
 * references changed. `obj` is the request, which gets the stored attributes back. */
void zan_server_api_update_db(const zan_table_def_t *def, zan_table_base_st *src,
                              zan_table_base_st *obj, zan_table_crud_ctx_t *crud,
                              zan_bool_t *ref_changed);
/* Complete a request: every attribute that it does not set is copied from the stored object. The
 * second is for what the statistics walk writes, and is called under the lock of the write-back. */
void zan_inherit_from_stored(const zan_table_def_t *def, zan_table_base_st *obj,
                             const zan_table_base_st *db_obj);
void zan_inherit_statistics(const zan_table_def_t *def, zan_table_base_st *obj,
                            const zan_table_base_st *db_obj);
/* The steps of that, compiled at the table's first use; freed with the table. */
bool zan_inherit_plan_make(const zan_table_def_t *def);
void zan_inherit_plan_free(const zan_table_def_t *def);
/* Tables with lists of added, deleted and modified members: what a create (no old object), a delete
 * (no new one) or an update means for the members, in one call of the platform. */
zan_rcode zan_update_repeated_new(const zan_table_def_t *def, zan_table_base_st *new_obj,
                                  zan_table_base_st *old_obj);
/* An element record of a list by index, `i` up to and including the count: the lists have an entry
 * to spare. Null above. */
const void *zan_delta_element(const zan_table_def_t *def, const uint8_t *elems,
                              const uint32_t *array, uint32_t count, uint32_t i);
/* Write an element for people; null appends to /tmp/svr_<table>_update_dump. */
void zan_dump_element(const zan_table_def_t *def, FILE *file, const void *element);
/* Free what hardware holds for an object beside its own entry; 0 without the hook. */
zan_rcode zan_delete_independent_hw_resource(const srv_zan_table_props_t *props,
                                             zan_table_base_st *obj);

/* Slots that take an object tell the table by it. */
bool zan_server_is_attrib_changed(zan_table_base_st *obj, zan_table_base_st *db_obj,
                                  uint32_t *new_to_old_map, int32_t *index);
void zan_server_calc_update_delta_lists(zan_delta_lists_t *lists);
void zan_server_print_key_from_base_obj(const zan_table_base_st *obj, bool is_old);
void zan_server_copy_key_from_base(void *key, const zan_table_base_st *obj);
zan_rcode kor_send_table_notification(const zan_table_def_t *def, zan_srv_send_notif_st *notif);
zan_rcode zan_server_stats_walk(const zan_table_def_t *def);
/* One pass over an adjacency table, on the same thread; and its slots in its record. */
zan_rcode zan_server_adj_walk(const zan_adj_ops_t *adj);
void zan_server_adj_callback_wrapper_setup(const zan_adj_ops_t *adj, zan_adj_props_t *props);

/* ---- References (src/refs) ---- */

/* Turn every reference of a request into key and handle, inherit, and gather the NPUs. `db_obj` is
 * the stored object or null. */
zan_rcode kor_core_resolve_ref(const zan_table_def_t *def, zan_table_base_st *new_obj,
                               zan_table_base_st *db_obj, uint8_t is_inside_bwalk);
zan_rcode zan_core_resolve_refs_union(const zan_table_def_t *def, zan_table_base_st *new_obj,
                                      zan_table_base_st *old_obj, uint8_t is_inside_bwalk);
/* Bind a database object to its parents: the result of the last bind tried. */
zan_rcode kor_core_parent_add(const zan_table_def_t *def, zan_table_base_st *db_obj);
/* Take a stored object off all its parents; a parent that waited for this goes on the delete queue.
 */
void kor_core_parent_delete(const zan_table_def_t *def, zan_table_base_st *db_obj,
                            uint32_t trans_id);
/* Whether a resolved object leads to other parents than the stored one: the number of the first
 * comparison that differs, counted from 1, or 0. The member count is the first. */
uint32_t zan_refs_changed(const zan_table_def_t *def, const zan_table_base_st *obj,
                          const zan_table_base_st *db_obj);
/* The object is bound to nothing and has no members: forget the handles of the rest. */
void zan_refs_forget_handles(const zan_table_def_t *def, zan_table_base_st *db_obj);
/* Trace where an object leads, before it is unbound. */
void zan_trace_parents(const zan_table_def_t *def, const zan_table_base_st *db_obj);
/* The quarantined object with the lookup record's key, or null. */
ZAN_EXPORT zan_table_base_st *zan_slow_search_key_in_quarantine_db(const zan_table_base_st *lookup);
/* Copy the inherited attributes of a member's reference from its parent. `only_set` leaves out what
 * the parent has not set. */
void zan_inherit_from_parent(const zan_table_def_t *def, zan_table_base_st *child,
                             const zan_table_def_t *parent_def, const zan_table_base_st *parent,
                             const zan_inherit_def_t *inherits, uint32_t num_inherits,
                             uint32_t member, bool only_set);

/* ---- Events (src/events) ---- */

/* The direct child tables of each table, ZAN_TABLE_BITMAP_BITS wide; null until its first use. */
ZAN_EXPORT extern uint64_t *bwmask[ZAN_NUM_TABLES];
/* The last part of a table's init: bwmask, statistics, event bitmaps. */
void zan_server_init_events(const zan_table_def_t *def);
zan_rcode zan_server_init_bwalk_stats(const zan_table_def_t *def);
uint64_t kor_core_get_attrib_update_mask(const zan_table_def_t *def, zan_table_base_st *new_obj,
                                         zan_table_base_st *old_obj);
void zan_server_prep_walk_ctx(const zan_table_def_t *def, zan_table_crud_ctx_t *crud);
/* Carry the change to all that depends on the object. */
zan_rcode zan_core_event_bwalk(kor_dpd_event_ctx_t *walk_ctx);
zan_rcode zan_server_event_post_processing(const zan_table_def_t *def,
                                           kor_dpd_event_ctx_t *walk_ctx);
/* Make an old copy the object of the event that post-processing sends. */
void zan_server_make_event(const zan_table_def_t *def, zan_table_base_st *old_obj);
zan_rcode zan_server_bwalk_child_process_events(const zan_table_def_t *def,
                                                kor_dpd_event_ctx_t *walk_ctx);
zan_rcode zan_server_bwalk_child_callback(const zan_table_def_t *def, zan_table_base_st *child,
                                          kor_dpd_event_ctx_t *walk_ctx);
ZAN_EXPORT bool zan_fwalk_coloring_is_true(const zan_table_base_st *obj);

/* ---- NPU fan-out (src/npu) ---- */

/* Send an operation to the NPU threads: waits and collects the codes of a synchronous write, hands
 * the copies over on an asynchronous one. Stores the held hardware code in crud->hw_rc. */
ZAN_EXPORT zan_rcode kor_core_npu_bcast(zan_table_base_st *obj, zan_table_base_st *old_obj,
                                        zan_table_crud_ctx_t *crud, zan_global_ctx_st *ctx);
/* Bounded wait for the NPU threads. Drops the programming lock while it blocks. */
ZAN_EXPORT void zan_npu_bcast_wait_for_npu_threads(uint32_t table_id, uint32_t trans_id);
/* The end of that wait: the process leaves with exit status 203. */
[[noreturn]] void zan_unresponsive_driver_exhausted(uint32_t table_id);
/* Stop the NPU queues: 1 when they are stopped and must be let go again, else 0. */
uint32_t zan_npu_bcast_dummy_wait(const zan_table_def_t *def, uint32_t trans_id, bool retry_mode);
zan_rcode kor_server_hw_thread_picker(const zan_table_def_t *def, zan_table_base_st *old_obj,
                                      zan_table_base_st *obj, zan_table_response_st *response,
                                      kor_dpd_event_ctx_t *walk_ctx);

/* ---- Failure handling (src/failure) ---- */

void kor_server_api_oor_accounting(const zan_table_def_t *def, kor_npu_mask_t npu_mask,
                                   zan_table_base_st *obj, uint32_t is_add, zan_rcode rc);
void kor_server_api_oor_accounting_from_async_write(const zan_table_def_t *def, uint32_t npu_id,
                                                    zan_table_base_st *obj, zan_rcode rc);
void kor_server_api_oor_accounting_from_async_write_update(const zan_table_def_t *def,
                                                           uint32_t npu_id,
                                                           zan_table_base_st *new_obj,
                                                           zan_table_base_st *old_obj,
                                                           zan_rcode rc);
void kor_server_api_increment_hw_err_counters(const zan_table_def_t *def, uint32_t operation_class,
                                              uint32_t npu_id, zan_rcode rc);
/* Raise or lower inflight of the database object that obj_handle leads to. */
void zan_atomic_mod_inflight_flag_in_dbobj_with_handle(const srv_zan_table_props_t *props,
                                                       zan_table_base_st *obj, bool raise);
/* Block until no asynchronous write of the database object is with the NPU threads. */
void zan_server_api_inflight_block(const zan_table_def_t *def, zan_table_base_st *new_obj,
                                   zan_table_base_st *db_obj);
ZAN_EXPORT zan_rcode srv_sync_error_handling_infra_default(const zan_sync_err_in_t *in,
                                                           zan_sync_err_out_t *out);
ZAN_EXPORT zan_rcode srv_async_bwalk_error_handling_infra_default(void *ctx, uint16_t *action);
ZAN_EXPORT zan_rcode zan_sync_err_get_input_rc(const zan_sync_err_in_t *in);
ZAN_EXPORT uint32_t zan_sync_err_get_trans_id(const zan_sync_err_in_t *in);
ZAN_EXPORT uint16_t zan_sync_err_get_table_id(const zan_sync_err_in_t *in);
ZAN_EXPORT void zan_sync_err_set_dont_keep_in_db(zan_sync_err_out_t *out);
ZAN_EXPORT zan_rcode zan_sync_err_get_out_rc(const zan_sync_err_out_t *out_arg);
ZAN_EXPORT void zan_event_ignore_post_processing_error(zan_table_response_st *response);
ZAN_EXPORT zan_table_base_st *srv_delete_action_ctx_get_new_obj(const srv_delete_action_ctx_t *ctx);
ZAN_EXPORT zan_table_base_st *srv_delete_action_ctx_get_old_obj(const srv_delete_action_ctx_t *ctx);

/* Read options of a request. */
ZAN_EXPORT bool zan_srv_base_is_set_getopt(const zan_table_base_st *obj_base, uint16_t mask);

ZAN_EXTERN_C_END

#endif
