/* The properties record of a table, and the service that keeps the 361 of them.
 *
 * The record's scalars come from the table's definition; the slots lead to platform hooks, to the
 * server's own functions, and to the properties service. The service makes the records at start by
 * zan_srv_npi_init_table_props and fills the slots marked [service]. Read-only once filled.
 *
 * Hooks run on the dispatcher thread, on the FRR thread while it holds the dispatcher, or on the
 * NPU threads, as the table's definition says; a hook must be safe against itself on other NPUs. A
 * hook returns a hardware code, 0 for success. It never frees what it is given.
 */
#ifndef ZAN_PLATFORM_TABLE_PROPERTIES_H
#define ZAN_PLATFORM_TABLE_PROPERTIES_H

#include "adjacency.h"
#include "notification.h"
#include "npu_message.h"
#include "trace.h"
#include "walk_service.h"
#include "zan_table_def.h"

/* Bits of option_bits. */
enum {
    ZAN_OPTION_SERIALIZE_BACK = 1u << 0,
    ZAN_OPTION_ASYNC_BATCH_END = 1u << 2,
};

/* Argument of the hooks around the touching of an object's hardware descriptor. */
typedef struct zan_rdesc_hook_ctx_t {
    zan_table_base_st *new_obj;
    zan_table_base_st *old_obj;
    kor_dpd_event_ctx_t *walk_ctx;
    zan_rcode reserve_rc, rdesc_rc, hw_rc, bwalk_rc; /* post hooks only */
    void *rdesc; /* what the pre hook leaves for the post hook */
} zan_rdesc_hook_ctx_t;

/* Of copies that a walk has taken: what their post_update_rdesc is told. */
static inline zan_rdesc_hook_ctx_t zan_rdesc_hook_ctx_of_walk(kor_dpd_event_ctx_t *walk_ctx)
{
    zan_rdesc_hook_ctx_t post = {
        walk_ctx->new_obj,  walk_ctx->old_obj, walk_ctx, walk_ctx->reserve_rc,
        walk_ctx->rdesc_rc, walk_ctx->hw_rc,   0,        walk_ctx->rdesc};
    return post;
}

/* Return codes by NPU, for release_id: obj stands behind them. */
typedef struct zan_release_id_ctx_t {
    zan_rcode npu_rc[ZAN_MAX_NPUS];
    zan_table_base_st *obj;
} zan_release_id_ctx_t;

/* The question whether an object stays in the database in spite of a hardware failure. */
typedef struct zan_sync_err_in_t {
    zan_rcode input_rc;
    uint32_t trans_id;
    uint16_t table_id;
} zan_sync_err_in_t;

typedef struct zan_sync_err_out_t {
    zan_bool_t keep_in_db;
    zan_rcode out_rc;
} zan_sync_err_out_t;

/* A failed object of internal queue 2: the hook must clear do_assert, or the process ends. */
typedef struct zan_async_q_err_in_t {
    zan_table_base_st *obj;
    zan_rcode rc;
} zan_async_q_err_in_t;

typedef struct zan_async_q_err_out_t {
    zan_bool_t do_assert;
} zan_async_q_err_out_t;

/* The show buffer of a read. */
typedef struct zan_get_sdk_ctx_t {
    zan_table_base_st *obj;
    char *buf;
    uint32_t buf_size;
    uint32_t *used;
} zan_get_sdk_ctx_t;

/* Argument of srv_<table>_delete_action_select. */
typedef struct srv_delete_action_ctx_t {
    zan_table_base_st *new_obj; /* the request */
    zan_table_base_st *old_obj; /* the database object */
} srv_delete_action_ctx_t;

/* The hooks that a platform may supply as srv_<table>_<name>, and a library as
 * srv_<table>_<name>_infra_default. X(name) for every table: */
#define ZAN_COMMON_HOOKS(X)                                                                        \
    X(create)                                                                                      \
    X(update)                                                                                      \
    X(delete)                                                                                      \
    X(event)                                                                                       \
    X(eod)                                                                                         \
    X(get)                                                                                         \
    X(get_first)                                                                                   \
    X(get_next)                                                                                    \
    X(get_gt_eq)                                                                                   \
    X(resolve)                                                                                     \
    X(specific_init)                                                                               \
    X(specific_access_fn)                                                                          \
    X(pre_create_rdesc)                                                                            \
    X(post_create_rdesc)                                                                           \
    X(pre_update_rdesc)                                                                            \
    X(post_update_rdesc)                                                                           \
    X(pre_delete_rdesc)                                                                            \
    X(post_delete_rdesc)                                                                           \
    X(update_zan_db_stats_from_rdesc)                                                              \
    X(calculate_num_paths)                                                                         \
    X(update_rdesc_from_hw)                                                                        \
    X(fill_default_async_notif_cb)                                                                 \
    X(fill_sdk_show_buffer)                                                                        \
    X(sync_error_handling)                                                                         \
    X(async_bwalk_error_handling)                                                                  \
    X(color_using_fwalk)                                                                           \
    X(async_batch_end_npu_cb)                                                                      \
    X(delete_independent_hw_resource)
/* only in tables whose definition has the option: */
#define ZAN_OPTIONAL_HOOKS(X)                                                                      \
    X(reserve_id)                                                                                  \
    X(update_reserve_id)                                                                           \
    X(update_release_id)                                                                           \
    X(release_id)                                                                                  \
    X(post_create_action)                                                                          \
    X(post_update_action)                                                                          \
    X(post_delete_action)                                                                          \
    X(internal_async_q_err)                                                                        \
    X(update_deprecated)                                                                           \
    X(compare_dynamic_struct_deprecated)                                                           \
    X(delete_action_select)

typedef enum zan_hook_et {
#define ZAN_HOOK_ENUM(name) ZAN_HOOK_##name,
    ZAN_COMMON_HOOKS(ZAN_HOOK_ENUM)
    ZAN_OPTIONAL_HOOKS(ZAN_HOOK_ENUM)
#undef ZAN_HOOK_ENUM
        ZAN_HOOK_COUNT
} zan_hook_et;

/* Where a hook leads. */
typedef enum zan_hook_source_et {
    ZAN_HOOK_NONE,
    ZAN_HOOK_PLATFORM,
    ZAN_HOOK_DEFAULT,
} zan_hook_source_et;

/* Repeated-attribute delta, argument of update_deprecated; read through its accessors. */
struct zan_repeated_delta_t;

typedef struct srv_zan_table_props_t {
    /* ---- Scalars, from the definition ---- */
    uint32_t write_mode;
    uint32_t table_class;
    uint8_t evt_walk_suppressed;
    uint8_t evt_has_events;
    uint8_t evt_walk_childless;
    uint8_t periodic_stats;
    zan_event_stat_t *evt_stats;
    zan_event_record_t *event_table;
    uint32_t delete_delay;
    uint32_t hw_rc_mode;
    uint8_t option_bits; /* [service] bit 0 serialize_back, bit 2 async_batch_end */
    uint32_t obj_size;
    uint8_t valid;
    uint8_t track_inflight;
    zan_ringlog_enums_st ringlog_enums;

    /* ---- Slots ---- */
    void (*callback_wrapper_setup)(struct srv_zan_table_props_t *props);
    zan_rcode (*create)(zan_table_base_st *obj);
    zan_rcode (*update)(zan_delta_lists_t *delta);
    /* The hook takes the second argument alone. */
    zan_rcode (*delete_)(uint32_t is_resize, zan_table_base_st *obj);
    zan_rcode (*event)(kor_dpd_event_ctx_t *walk_ctx, zan_table_base_st *obj);
    zan_rcode (*eod)(zan_table_base_st *obj);
    zan_rcode (*get)(zan_table_base_st *obj);
    zan_rcode (*get_first)(zan_table_base_st *obj);
    zan_rcode (*get_next)(zan_table_base_st *obj);
    zan_rcode (*get_gt_eq)(zan_table_base_st *obj);
    void (*empty_hook)(void);
    zan_rcode (*update_deprecated)(struct zan_repeated_delta_t *delta, uint32_t npu_id);
    int32_t (*compare_dynamic_struct_deprecated)(const void *old_element, const void *new_element);
    zan_rcode (*resolve)(zan_table_base_st *obj, zan_table_base_st *db_obj);
    zan_rcode (*specific_init)(void **first, void **second);
    void (*specific_access_fn)(void *table_record, zan_table_base_st *obj);
    zan_rcode (*reserve_id)(int32_t npu, zan_table_base_st *obj);
    zan_rcode (*update_reserve_id)(int32_t npu, zan_table_base_st *new_obj,
                                   zan_table_base_st *old_obj, uint32_t *new_to_old_map);
    zan_rcode (*update_release_id)(int32_t npu, zan_table_base_st *new_obj,
                                   zan_table_base_st *old_obj);
    zan_rcode (*release_id)(int32_t npu, zan_rcode rc, zan_table_base_st *obj);
    zan_rcode (*pre_create_rdesc)(zan_rdesc_hook_ctx_t *ctx);
    zan_rcode (*post_create_rdesc)(zan_rdesc_hook_ctx_t *ctx);
    zan_rcode (*pre_update_rdesc)(zan_rdesc_hook_ctx_t *ctx);
    zan_rcode (*post_update_rdesc)(zan_rdesc_hook_ctx_t *ctx);
    zan_rcode (*pre_delete_rdesc)(zan_rdesc_hook_ctx_t *ctx);
    zan_rcode (*post_delete_rdesc)(zan_rdesc_hook_ctx_t *ctx);
    zan_rcode (*update_zan_db_stats_from_rdesc)(zan_table_base_st *db_obj);
    zan_rcode (*post_create_action)(zan_table_base_st *obj);
    zan_rcode (*post_update_action)(zan_table_base_st *obj, zan_table_base_st *old_obj);
    zan_rcode (*post_delete_action)(zan_table_base_st *obj);
    void (*internal_async_q_err)(zan_table_base_st *obj, zan_rcode rc);
    void (*calculate_num_paths)(const zan_table_base_st *obj, uint32_t *num_paths,
                                uint32_t *num_paths_aux);
    void *(*get_npd_handle)(const zan_table_base_st *obj);
    uint64_t (*get_npi_handle)(const zan_table_base_st *obj);
    zan_rcode (*shmwin_alloc_dbobj_params)(zan_table_base_st *db_obj, const zan_table_base_st *obj);
    void (*shmwin_free_dbobj_params)(zan_table_base_st *db_obj);
    zan_rcode (*resolve_ref)(zan_table_base_st *obj, zan_table_base_st *db_obj,
                             uint8_t is_inside_bwalk);
    bool (*is_attrib_changed)(zan_table_base_st *obj, zan_table_base_st *db_obj,
                              uint32_t *new_to_old_map, int32_t *index);
    uint32_t (*get_npi_dyn_attribs_sz)(const zan_table_base_st *obj);
    zan_rcode (*crud_from_obj_base)(zan_table_base_st *obj, zan_table_response_st *response,
                                    uint32_t arg, kor_dpd_event_ctx_t *walk_ctx);
    zan_table_base_st *(*get_db_obj)(zan_table_base_st *obj);
    zan_rcode (*bwalk_child_callback)(zan_table_base_st *child, kor_dpd_event_ctx_t *walk_ctx);
    zan_rcode (*bwalk_child_process_events)(void *unused_a, kor_dpd_event_ctx_t *walk_ctx,
                                            void *unused_b);
    zan_rcode (*event_post_processing)(kor_dpd_event_ctx_t *walk_ctx);
    void (*fix_ptrs_from_base)(zan_table_base_st *obj);
    void (*set_npd_exists)(zan_table_base_st *obj, bool exists);
    zan_table_base_st *(*copy_ctor)(const zan_table_base_st *obj);
    void (*copy_dtor)(zan_table_base_st *obj);
    void (*calc_update_delta_lists)(zan_delta_lists_t *lists);
    void (*delete_notify)(zan_table_base_st *obj);
    zan_rcode (*send_notification)(zan_srv_send_notif_st *notif);
    void (*print_key_from_base_obj)(const zan_table_base_st *obj, bool is_old);
    zan_rcode (*update_rdesc_from_hw)(zan_table_base_st *obj);
    zan_rcode (*stats_walk)(void);
    uint32_t (*serialize)(const zan_table_base_st *obj, void *buffer);
    void (*fill_default_async_notif_cb)(zan_table_base_st *obj, void *notif);
    void (*copy_key_from_base)(void *key, const zan_table_base_st *obj);
    void (*npd_delay_delete)(zan_table_base_st *obj, zan_rcode rc);
    /* [service] Prepare the references and private side data of an object: `persistent` on one that
     * is about to be stored. Safe to repeat. */
    void (*side_data_init)(zan_table_base_st *obj, bool persistent);
    /* [service] Free the inner allocations of a heap copy. Safe to repeat. */
    void (*side_data_free)(zan_table_base_st *obj);
    /* [service] Carry side data from one form of an object to another. */
    void (*side_data_copy)(zan_table_base_st *to, const zan_table_base_st *from);
    /* [service] Carry side data over on an update. */
    void (*side_data_inherit)(zan_table_base_st *new_obj, const zan_table_base_st *old_obj);
    /* [service] Validate a new object; its code fails the create or update. */
    zan_rcode (*side_data_validate)(zan_table_base_st *obj);
    /* [service] The two halves of the attribute-change mask. */
    uint64_t (*get_infra_attrib_mask)(zan_table_base_st *new_obj, zan_table_base_st *old_obj);
    uint64_t (*get_platform_attrib_mask)(zan_table_base_st *new_obj, zan_table_base_st *old_obj);
    /* [service] A further record array, with the bitmaps of its records, and its length; its
     * record 0 is reserved. */
    zan_event_record_t *(*get_extra_events)(uint32_t *length);
    /* [service] Given the table's event array, or null, at its init. */
    void (*set_event_table)(zan_event_record_t *events);
    /* [service] Called for each event before the subscriptions of a child table. */
    void (*event_filter)(uint8_t *child_update_needed, zan_event_filter_t *filter);
    /* [service] Render the object as text: `*used` counts the terminator. */
    zan_rcode (*format_obj_payload)(zan_table_base_st *db_obj, char *payload, uint32_t size,
                                    uint32_t *used);
    zan_rcode (*fill_sdk_show_buffer)(zan_get_sdk_ctx_t *ctx);
    /* [service] Called at the end of zan_<table>_init_bwalk_stats. */
    zan_rcode (*register_evt_stats)(void);
    zan_rcode (*sync_error_handling)(const zan_sync_err_in_t *in, zan_sync_err_out_t *out);
    zan_rcode (*async_bwalk_error_handling)(void *ctx, uint16_t *action);
    uint8_t (*color_using_fwalk)(const zan_table_base_st *obj);
    zan_rcode (*async_batch_end_npu_cb)(uint32_t table_id, uint32_t npu_id);
    /* [service] Given the table's event array at its init, after set_event_table. */
    void (*register_event_table)(zan_event_record_t *events);

    /* ---- Run time ---- */
    const zan_table_def_t *def;
    uint32_t private_size;               /* kor_npd_get_table_size */
    void (*hook[ZAN_HOOK_COUNT])(void);  /* the function a hook leads to, or null */
    uint8_t hook_source[ZAN_HOOK_COUNT]; /* zan_hook_source_et */
} srv_zan_table_props_t;

/* An adjacency table's record. All of it is called on the secondary server thread. */
typedef struct zan_adj_props_t {
    /* Fill the two hook slots; null in a table without hooks, and so are they. */
    void (*callback_setup)(struct zan_adj_props_t *props);
    /* One pass over all entries: visit, replicate, tell that the pass is over. */
    zan_rcode (*walk)(void);
    uint64_t gap;
    zan_rcode (*update_db_from_rdesc)(zan_adj_entry_st *entry); /* counts into the entry */
    zan_rcode (*update_rdesc_from_hw)(zan_adj_entry_st *entry); /* fetch them from hardware */
} zan_adj_props_t;

ZAN_EXTERN_C_BEGIN
/* The record of a table, filled; null for an id that is no table. Any thread. */
ZAN_EXPORT srv_zan_table_props_t *zan_srv_table_props_get(uint32_t table_id);
ZAN_EXPORT zan_adj_props_t *zan_srv_adj_props_get(uint32_t index);

/* In the server: fill the record of a table, or its adjacency records. Any other id does nothing.
 */
ZAN_EXPORT void zan_srv_npi_init_table_props(uint32_t table_id, srv_zan_table_props_t *props);
ZAN_EXPORT void zan_srv_npi_init_adj_props(uint32_t table_id);
ZAN_EXTERN_C_END

#endif
