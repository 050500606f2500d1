/* The record of one operation, the records of a table, and the helpers that all flows share.
 *
 * A zan_table_crud_ctx_t lives on the stack of the table's entry for the length of one call. It is
 * never shared between threads; the NPU threads read the copies that it names after the hand-over.
 */
#ifndef ZAN_TABLE_CRUD_CTX_H
#define ZAN_TABLE_CRUD_CTX_H

#include <pthread.h>

#include "global_context.h"
#include "locks.h"
#include "resource_layer.h"
#include "table_database.h"
#include "table_properties.h"
#include "trace_messages.h"
#include "zan_counters.h"
#include "zan_db.h"
#include "zan_tables_private.h"

/* A table's database context: its type, and scratch that every entry clears before it touches the
 * database. */
typedef struct kor_db_ctx_t {
    uint32_t db_type; /* 0 until the table's init has finished, 1 after */
    uint8_t scratch[404];
} kor_db_ctx_t;

/* Counters of one table's operations, for the life of the process. Dispatcher thread. */
typedef struct zan_resource_info_t {
    uint64_t create_cnt;
    uint64_t delete_cnt;
    uint64_t update_cnt;
    uint64_t get_cnt; /* reads of any kind */
    uint32_t resolve_fail_cnt;
    uint32_t reserve_fail_cnt; /* each NPU counts */
    uint32_t release_fail_cnt;
    uint32_t update_id_fail_cnt;
    uint32_t not_found_cnt;
    uint32_t dup_create_cnt;
    uint32_t dbobj_alloc_fail_cnt;
    uint32_t retry_update_cnt;
    uint32_t recovered_err_cnt;
} zan_resource_info_t;

typedef struct zan_table_crud_ctx_t {
    zan_table_operation_et table_operation;
    zan_table_response_st *response;
    uint32_t *new_to_old_map; /* borrowed; scratch of an update, null elsewhere */
    uint32_t trans_id;
    zan_bool_t
        *obj_owned_by_dispatcher; /* a local of the entry; 0 once the NPU side owns the copies */
    zan_table_base_st *new_obj;   /* heap copy of the new state, for the hardware */
    zan_table_base_st *old_obj;   /* heap copy of the old state, on an update */
    zan_table_base_st *obj;       /* the request, heap form */
    zan_table_base_st *db_obj;
    kor_dpd_event_ctx_t *walk_ctx;
    zan_delta_lists_t *delta_lists; /* for the length of an update's hardware step */
    uint8_t is_resize;
    uint8_t resize_aux;
    kor_db_ctx_t *db_ctx;
    srv_zan_table_props_t *props;
    uint8_t retry_mode;
    uint8_t is_inside_bwalk; /* the caller gave a walk context */
    uint8_t db_written;      /* a create has stored the object */
    zan_rcode reserve_rc;
    zan_rcode rdesc_rc;
    zan_rcode hw_rc;
    zan_rcode bwalk_rc;
    zan_rdesc_hook_ctx_t *rdesc_ctx;
} zan_table_crud_ctx_t;

/* What the server keeps for one table at run time. */
typedef struct zan_table_state_t {
    srv_zan_table_props_t *props; /* null until the properties service has filled the record */
    zan_global_ctx_st *ctx;       /* bound by the table's init */
    const kor_arch_resources_cb_t *arch_resources_cbs;
    pthread_once_t once;
    pthread_once_t stats_once;
    pthread_mutex_t notif_mutex; /* covers the buffer, and the hand-over of a notification */
    void *notif_buffer;
    uint32_t notif_buffer_len;
    kor_db_ctx_t db_ctx;
    uint32_t first_pointer_offset;           /* of the pointer to the dynamic part; 0 without one */
    struct zan_inherit_step_t *inherit_plan; /* null until the table's init */
    uint32_t num_inherit_steps;
    zan_resource_info_t info;
} zan_table_state_t;

extern zan_table_state_t zan_table_states[ZAN_NUM_TABLES];

static inline zan_table_state_t *zan_table_state(const zan_table_def_t *def)
{
    return &zan_table_states[def->id];
}

/* ---- Counters ---- */

/* Raise a counter: since the start, since the last reset, and in the active bank. */
static inline void zan_counter_raise(uint32_t table_id, zan_counter_et index)
{
    zan_global_ctx_st *ctx = zan_get_global_ctx();
    if (!ctx)
        return;
    ctx->counters[0][table_id][index]++;
    ctx->counters[1][table_id][index]++;
    ctx->counters[2 + ctx->active_bank][table_id][index]++;
}

/* Which class of hardware error counters a failure belongs to. */
enum {
    ZAN_HW_ERR_CREATE = 1,
    ZAN_HW_ERR_DELETE = 2,
    ZAN_HW_ERR_UPDATE = 4,
};

ZAN_EXTERN_C_BEGIN

/* ---- Context ---- */

/* Fill the record for one operation on `obj`. With an update it takes a walk context: one nested
 * under `walk_ctx`, or a fresh one. `db_ctx` may be null; its scratch is cleared. */
void zan_crud_ctx_server_api_crud_init(zan_table_crud_ctx_t *crud, zan_table_response_st *response,
                                       zan_table_base_st *obj, uint32_t trans_id,
                                       zan_bool_t *owned_flag, kor_dpd_event_ctx_t *walk_ctx,
                                       kor_db_ctx_t *db_ctx, uint32_t *new_to_old_map);

/* Run the table's init if this is its first operation. False when the table could not start: it
 * stays unusable, and its operations are refused. */
bool zan_server_table_once(const zan_table_def_t *def);
/* And, in front of a create, register it for periodic statistics. */
void zan_server_table_stats_once(const zan_table_def_t *def);

/* The trace class of an object or table at a level; the retry class of that level in retry mode. */
zan_trace_class_t zan_slt_crud_ctx(const zan_table_crud_ctx_t *crud, uint32_t level);
zan_trace_class_t zan_slt_obj_base(const zan_table_base_st *obj, uint32_t level);
zan_trace_class_t zan_slt_table_id(uint32_t table_id, uint32_t level);
zan_trace_class_t zan_slt_table_id_retry(uint32_t table_id, uint32_t level, bool retry);

/* The class of the transaction history for a table. */
zan_trace_class_t zan_history_class(const zan_table_def_t *def, bool retry);

/* ---- Object header ---- */

void zan_obj_base_reset_transient_flags(zan_table_base_st *obj);
void zan_obj_base_stamp_rc(zan_rcode rc, zan_table_base_st *db_obj, zan_table_base_st *obj);
void zan_obj_base_stamp_db(zan_rcode rc, zan_table_base_st *db_obj, zan_table_base_st *obj);
void zan_obj_base_reset_delay_delete_flag(zan_rcode rc, zan_table_base_st *db_obj);
bool zan_obj_has_recovered_err(const zan_table_base_st *new_obj, const zan_table_base_st *db_obj);
/* The client has sent the stored object again; a walk's update is none of the client's. */
void zan_obj_base_clear_stale(const zan_table_crud_ctx_t *crud);
/* The mask of all NPUs, narrowed by the object's when the node's mask filter is on. */
kor_npu_mask_t zan_prep_srv_ctx_get_mask(const zan_global_ctx_st *ctx,
                                         const zan_table_base_st *obj);
/* npu_mask of a request: the node's in a table without masks of its own, else what it asks for. */
void zan_obj_base_take_npu_mask(const zan_table_def_t *def, zan_table_base_st *obj);

/* Assert what must hold of every request. */
void sanitize_input_obj(const zan_table_def_t *def, const zan_table_base_st *obj,
                        zan_table_operation_et operation);

/* ---- The three forms ---- */

/* Heap form of a serialized object; the caller frees it by the slot copy_dtor. Null without memory.
 */
zan_table_base_st *zan_copy_ctor_from_serialized(const zan_table_base_st *wire);
zan_table_base_st *copy_ctor_for_create_to_update(zan_table_base_st *req,
                                                  const zan_table_base_st *db_obj);
zan_table_base_st *zan_server_copy_ctor(const zan_table_def_t *def, const zan_table_base_st *obj);
void zan_server_copy_dtor(const zan_table_def_t *def, zan_table_base_st *obj);
zan_rcode zan_server_shmwin_alloc_dbobj_params(const zan_table_def_t *def,
                                               zan_table_base_st *db_obj,
                                               const zan_table_base_st *obj);
void zan_server_shmwin_free_dbobj_params(const zan_table_def_t *def, zan_table_base_st *db_obj);
void zan_server_set_npd_exists(zan_table_base_st *obj, bool exists);
void zan_fill_pre_alloc_dbobj_basic_info(const zan_table_base_st *obj_base,
                                         zan_table_base_st *dbobj_base);
/* Header of the database form, without the graph area; `inflight` stays as it is. */
void kor_write_dbobj_base(const zan_table_base_st *src, zan_table_base_st *db_obj);
/* Key, attributes and references; the dynamic part must be allocated for src's members. */
void kor_write_dbobj(const zan_table_def_t *def, const zan_table_base_st *src,
                     zan_table_base_st *db_obj);
/* Attributes and references of the database object into a request of any member count. */
zan_rcode kor_dbobj_get(const zan_table_def_t *def, const zan_table_base_st *db_obj,
                        zan_table_base_st *obj);
/* Bytes of an object of the table with that many members. */
uint32_t kor_get_obj_size(const zan_table_def_t *def, uint32_t num_elements);

/* ---- Ends of a flow ---- */

/* The first non-zero of err_code, post_rc, hw_rc, bwalk_rc; traced when there is one. */
zan_rcode kor_pick_final_rc(zan_table_crud_ctx_t *crud, zan_rcode post_rc, zan_rcode err_code);
zan_rcode kor_reconcile_response(const zan_table_def_t *def, zan_table_base_st *db_obj,
                                 zan_table_base_st *obj, bool fetch);
void kor_log_not_found_key(const zan_table_crud_ctx_t *crud, const zan_table_base_st *obj);
/* Poison, take out of the graph, free side data, dynamic part and block; clears crud->db_obj. */
void kor_free_db_object(zan_table_crud_ctx_t *crud, bool free_flag);
/* Give back the adjacency entries of an object that goes. */
void kor_drop_adj_entries(const zan_table_def_t *def, zan_table_base_st *db_obj, uint32_t trans_id);
/* The objects of the table on each NPU of the mask: one more, or one less. */
void kor_count_objects(const zan_table_def_t *def, kor_npu_mask_t mask, int32_t delta);
zan_db_del_ctx_t kor_db_delete(const zan_table_def_t *def, zan_table_base_st *db_obj);
/* One client reference more (up) or less; refused at the limit and at 0, traced either way. One
 * that is not set is set by it, and has none to give. */
bool kor_ref_adjust(const zan_table_def_t *def, zan_table_base_st *db_obj, bool up);
/* In a table that counts them, else nothing: set the count; take it over, set or not. */
void kor_ref_set(const zan_table_def_t *def, zan_table_base_st *obj, uint32_t count);
void kor_ref_copy(const zan_table_def_t *def, const zan_table_base_st *from, zan_table_base_st *to);
/* What every post-operation hook is told: the four codes, and what the hook in front has left. */
void zan_fill_post_rdesc(const zan_table_crud_ctx_t *crud, zan_rdesc_hook_ctx_t *post);
void zan_obj_base_free_rdesc_on_npd_fail(zan_table_crud_ctx_t *crud, zan_table_base_st *new_obj);
void zan_server_print_key(const zan_table_def_t *def, zan_table_msg_et message, const void *key,
                          uint32_t trans_id, uint32_t printing_table);

/* ---- Return codes ---- */

/* What a hardware code means for the operation: low half for the client, high half held. */
uint64_t zan_hw_rcode_cx_to_rc(const zan_rcode *rc, zan_table_crud_ctx_t *crud);
zan_rcode zan_table_npd_rc_to_rc(zan_rcode rc, zan_table_crud_ctx_t *crud);
void zan_table_set_batch_continue(zan_table_response_st *response, zan_rcode rc);
void zan_send_async_resolve_error(zan_table_base_st *obj, zan_rcode rc);

ZAN_EXTERN_C_END

#endif
