/* Walk contexts, colours and table bitmaps.
 *
 * Dispatcher thread, or the FRR thread while it holds the dispatcher, unless said otherwise.
 */
#ifndef ZAN_PLATFORM_WALK_SERVICE_H
#define ZAN_PLATFORM_WALK_SERVICE_H

#include "zan_table_base.h"

/* One event of a table's <table>_events array. Record 0 is reserved: all zero but for its name. */
typedef struct zan_event_record_t {
    uint32_t event_id; /* its index */
    const char *name;
    uint64_t attrib_mask;   /* any one of these attribute update bits triggers it */
    uint32_t pushed_count;  /* times pushed; dispatcher thread only */
    uint64_t *child_bitmap; /* made at start-up from child_tables; ZAN_TABLE_BITMAP_BITS wide */
    int32_t child_tables[ZAN_NUM_TABLES]; /* the first child_count are valid */
    int32_t child_count;
    uint8_t color;     /* 0 uncoloured, else green 1, red 2, brown 4 */
    uint8_t post_proc; /* the source needs post-processing after the walk */
} zan_event_record_t;

/* One event that a table receives. */
typedef struct zan_event_stat_t {
    uint32_t event_id;
    uint32_t source_table;
    const char *name;
    uint64_t count; /* maintained by the walk service */
} zan_event_stat_t;

struct zan_bwalk_event_list_t;

/* The walk context of one update. Owned by the walk service; the flows read and write the fields
 * named here, the service keeps its own state behind them. */
typedef struct kor_dpd_event_ctx_t {
    zan_table_base_st *current_obj; /* database object of the source */
    zan_table_base_st *old_obj;     /* heap copies that a post_proc event took */
    zan_table_base_st *new_obj;
    uint32_t num_events;
    uint64_t attrib_upd_mask;
    zan_table_response_st *response;
    uint8_t force_update;
    uint8_t child_update_needed;
    uint8_t child_force_update;
    uint8_t held_by_npu_threads; /* messages to the NPU threads that carry this context */
    uint32_t num_evt_update;
    uint32_t num_evt_force;
    struct zan_bwalk_event_list_t *event_list;
    uint32_t trans_id;
} kor_dpd_event_ctx_t;

/* Argument of the event_filter slot. */
struct zan_bwalk_event_data;
typedef struct zan_event_filter_t {
    struct zan_bwalk_event_data *event;
    uint8_t remove;
    uint8_t handled;
} zan_event_filter_t;

ZAN_EXTERN_C_BEGIN
/* A zeroed bitmap of that many bits, to be freed with free; null without memory. Any thread. */
ZAN_EXPORT uint64_t *kor_bm_allocate(uint32_t bits);
ZAN_EXPORT void kor_bm_set(uint64_t *bitmap, uint32_t bit);

/* Whether two bitmaps of tables have a table in common. */
ZAN_EXPORT bool get_prune_marker(const uint64_t *child_tables, const uint64_t *event_tables);

/* Make room for the counts of walks that start at a table. Any thread. */
ZAN_EXPORT void table_bwalk_originator_stats_alloc(uint32_t table_id);

/* Add attribute update bits for the next push of the table's events. */
ZAN_EXPORT void zan_walk_ctx_push_attr_upd_mask(kor_dpd_event_ctx_t *walk_ctx, uint32_t table_id,
                                                uint64_t mask);
/* A context for an update: a fresh one, or nested under the walk that runs. Null without memory. */
ZAN_EXPORT kor_dpd_event_ctx_t *zan_walk_ctx_alloc_walk_ctx(kor_dpd_event_ctx_t *running);
/* The root of a walk is through with its context and those nested under it. A context that the NPU
 * threads hold goes when they have let go too. */
ZAN_EXPORT void zan_walk_ctx_dtor(kor_dpd_event_ctx_t *walk_ctx);
/* Free the copies that a post_proc event took, in front of zan_walk_ctx_dtor; while the NPU threads
 * hold the context they stay until both are through. */
ZAN_EXPORT void zan_walk_ctx_free_old_obj_from_dispatcher(kor_dpd_event_ctx_t *walk_ctx);
/* The request that the update began with; a record for traces, never followed. */
ZAN_EXPORT void zan_walk_ctx_set_new_obj_heap(kor_dpd_event_ctx_t *walk_ctx,
                                              zan_table_base_st *obj);
/* The source ran in retry mode. */
ZAN_EXPORT void zan_walk_ctx_set_from_retry(kor_dpd_event_ctx_t *walk_ctx, bool retry);
ZAN_EXPORT bool zan_walk_ctx_is_from_retry(const kor_dpd_event_ctx_t *walk_ctx);
/* The context belongs to a child update of a running walk. */
ZAN_EXPORT bool zan_walk_ctx_is_inside_bwalk(const kor_dpd_event_ctx_t *walk_ctx);
/* The update goes on though no attribute changed. */
ZAN_EXPORT bool zan_walk_ctx_is_force_update(const kor_dpd_event_ctx_t *walk_ctx);
/* A post_proc event took the update's copies. */
ZAN_EXPORT bool zan_walk_ctx_owns_old_obj(const kor_dpd_event_ctx_t *walk_ctx);
/* The code that the root of the walk came to. */
ZAN_EXPORT void zan_walk_ctx_stamp_root_error(kor_dpd_event_ctx_t *walk_ctx, zan_rcode rc);
/* The transaction of a walk. */
ZAN_EXPORT void zan_walk_ctx_set_trans_id(kor_dpd_event_ctx_t *walk_ctx, uint32_t trans_id);
ZAN_EXPORT uint32_t zan_walk_ctx_get_trans_id(const kor_dpd_event_ctx_t *walk_ctx);

/* Paint a new object's colours on the way up to its sources; a forward walk. */
ZAN_EXPORT void zan_colored_event_fwalk_on_create(zan_table_base_st *db_obj);
/* The same after a reference change. */
ZAN_EXPORT void zan_colored_event_fwalk_on_update(zan_table_base_st *db_obj);
/* Report to the bug log when an object's colours are not what its children need. */
ZAN_EXPORT void zan_colored_event_validate_child_colors(zan_table_base_st *db_obj);
/* The colours that an object carries: green 1, red 2, brown 4. */
ZAN_EXPORT uint8_t zan_color_get_self_mask(const zan_table_base_st *obj);

/* The mark on a heap copy that says that post-processing frees it. Any thread that owns the copy.
 */
ZAN_EXPORT bool zan_dpd_is_set_freed_by_post_proc_flag(const zan_table_base_st *obj);
ZAN_EXPORT void zan_dpd_set_freed_by_post_proc_flag(zan_table_base_st *obj);
ZAN_EXPORT void zan_dpd_clear_freed_by_post_proc_flag(zan_table_base_st *obj);
ZAN_EXTERN_C_END

#endif
