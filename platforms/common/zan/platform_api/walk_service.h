/* Back-walks: a change of an object carried to all that depends on it; colours; table bitmaps.
 *
 * The server decides which events a change means and pushes them on the update's walk context; the
 * service visits what hangs below the object and has the server update it. A child's update comes
 * back here with the context of the walk it runs in, takes a nested context, and its events are
 * taken on below the child.
 *
 * The visit goes by rank: an object is visited once, after all its changed parents, with the events
 * of all of them. Before the children of a table are visited the table's
 * bwalk_child_process_events decides what the events mean to it, then bwalk_child_callback runs for
 * each child. An event goes on below every visited object, changed or not, whose table has a direct
 * child table with an interest in the event; a coloured event reaches only objects that carry its
 * colour. After the last visit event_post_processing runs for every context with a post_proc event,
 * in reverse order of the visits, the source of the walk last.
 *
 * At a yield inside a child's update an FRR thread may delete and rebind what it likes and run
 * walks of its own.
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
    uint64_t count; /* visits of the table's objects with the event; kept by the walk service */
} zan_event_stat_t;

/* An event on its way. Made by zan_bwalk_event_data_alloc, filled by who pushes it; from
 * dpd_event_push on it is the context's, which frees it at its end. */
typedef struct zan_bwalk_event_data {
    zan_table_base_st *source_obj; /* that pushed it; null once it has been deleted */
    zan_table_base_st *old_obj;    /* old copy of the source; only with post_proc */
    uint8_t post_proc;
    uint16_t table_id; /* of the source */
    uint64_t attrib_mask;
    uint8_t color;
    uint32_t event_id;      /* index in the array that it came from */
    uint64_t *child_bitmap; /* the record's */
    uint8_t force;          /* a child table's subscription forces the update */
} zan_bwalk_event_data;

/* Events in the order of their push; the service's own inside. */
struct zan_bwalk_event_list_t;

/* What a walk is on behalf of. */
typedef enum zan_bwalk_type_et {
    ZAN_BWALK_OF_UPDATE = 1,
    ZAN_BWALK_OF_RETRY = 2, /* an update in retry mode */
} zan_bwalk_type_et;

/* Values of `action` that async_bwalk_error_handling chooses from when the update of a child in an
 * asynchronous table has failed. Its first argument is a kor_dpd_event_ctx_t that lives for the
 * call: the child is its current_obj, null when it is gone, and the code stands in its response. */
enum {
    ZAN_BWALK_STOP = 0,  /* visit nothing further */
    ZAN_BWALK_GO_ON = 1, /* the default */
};

/* Counts of a table since the start. Dispatcher thread; others read torn sums at worst. */
typedef struct zan_bwalk_stats_st {
    /* of the table as the source of walks and events */
    uint64_t num_walks;
    uint64_t num_failed_walks;
    uint64_t num_evt_pushed;
    uint64_t num_evt_pruned;        /* nobody below the object wants it */
    uint64_t num_evt_color_skipped; /* the object does not carry its colour */
    uint64_t walk_ns;               /* spent in walks that began here */
    /* of its objects as children */
    uint64_t num_child_updates;
    uint64_t num_child_forced;      /* of the updates, those that had to go to hardware */
    uint64_t num_child_skips;       /* visits without an interest */
    uint64_t num_child_failures;    /* updates that came back with a code */
    uint64_t num_child_color_skips; /* not visited: no event's colour on it */
    uint64_t num_revisits;          /* visits of an object that the walk had visited already */
} zan_bwalk_stats_st;

/* The walk context of one update. Owned by the walk service; the flows read and write the fields
 * named here, the service keeps its own state behind them.
 *
 * A hook on an NPU thread that is given a context may ask for its transaction, identity and retry
 * mode, push attribute bits, and look through its events: at what they are, not at their source
 * and force. All else is the dispatcher's. */
typedef struct kor_dpd_event_ctx_t {
    zan_table_base_st *current_obj; /* database object of the source; null once it was deleted */
    zan_table_base_st *old_obj;     /* heap copies that a post_proc event took */
    zan_table_base_st *new_obj;
    uint32_t num_events;      /* on event_list */
    uint64_t attrib_upd_mask; /* hooks on NPU threads add to it: atomic */
    zan_table_response_st *response;
    uint8_t force_update;
    uint8_t child_update_needed;
    uint8_t child_force_update;
    uint8_t held_by_npu_threads; /* messages to the NPU threads that carry this context */
    uint32_t num_evt_update;
    uint32_t num_evt_force;
    struct zan_bwalk_event_list_t *event_list;
    uint32_t trans_id;
    /* With the copies: what the hook behind the update is told of the steps in front of it. */
    zan_rcode reserve_rc, rdesc_rc, hw_rc;
    void *rdesc;
} kor_dpd_event_ctx_t;

/* Argument of the event_filter slot. */
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

/* Begin the counts of walks that start at a table. Any thread. */
ZAN_EXPORT void table_bwalk_originator_stats_alloc(uint32_t table_id);
/* The counts of a table; they live as long as the process. */
ZAN_EXPORT zan_bwalk_stats_st *zan_dpd_get_bwalk_stats(uint32_t table_id);
ZAN_EXPORT void zan_bwalk_stats_increment_num_evt_pushed(zan_bwalk_stats_st *stats);

/* A zeroed event, or null without memory. */
ZAN_EXPORT zan_bwalk_event_data *zan_bwalk_event_data_alloc(void);
/* Put an event at the end of its context's own list, which then owns it. False without memory: the
 * event is freed. */
ZAN_EXPORT bool dpd_event_push(struct zan_bwalk_event_list_t *list, zan_bwalk_event_data *event);
/* Iterate over a list; null at its end. An event that is removed is gone for the rest of the walk;
 * take the next one first. */
ZAN_EXPORT zan_bwalk_event_data *dpd_get_first_event(const struct zan_bwalk_event_list_t *list);
ZAN_EXPORT zan_bwalk_event_data *dpd_get_next_event(const struct zan_bwalk_event_list_t *list,
                                                    const zan_bwalk_event_data *event);
ZAN_EXPORT void dpd_event_remove(struct zan_bwalk_event_list_t *list, zan_bwalk_event_data *event);

/* Carry the events of an update's own context to all that depends on its current_obj. The first
 * code of a child's update, or ZAN_RC_NO_MEMORY when the walk could not keep what it had still to
 * visit; a child that was deleted meanwhile is no failure. The walk goes on behind a failure. */
ZAN_EXPORT zan_rcode kor_dpd_event_bwalk(kor_dpd_event_ctx_t *walk_ctx, uint32_t trans_id);

/* Add attribute update bits for the next push of the table's events. Any thread that works for the
 * update. */
ZAN_EXPORT void zan_walk_ctx_push_attr_upd_mask(kor_dpd_event_ctx_t *walk_ctx, uint32_t table_id,
                                                uint64_t mask);
/* A context for an update: a fresh one, or nested under the walk that runs. Null without memory. */
ZAN_EXPORT kor_dpd_event_ctx_t *zan_walk_ctx_alloc_walk_ctx(kor_dpd_event_ctx_t *running);
/* The root of a walk is through with its context and those nested under it. A context that the NPU
 * threads hold goes when they have let go too. */
ZAN_EXPORT void zan_walk_ctx_dtor(kor_dpd_event_ctx_t *walk_ctx);
/* Free the copies that a post_proc event took, in front of zan_walk_ctx_dtor; while the NPU threads
 * hold the context they stay until both are through. Copies that still bear the mark below have not
 * seen their post_update_rdesc: it runs here. */
ZAN_EXPORT void zan_walk_ctx_free_old_obj_from_dispatcher(kor_dpd_event_ctx_t *walk_ctx);
/* The request that the update began with; never followed. */
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
/* Identity of the walk, never 0: one for a root and all contexts nested under it. */
ZAN_EXPORT uint32_t zan_walk_ctx_get_bwalk_id(const kor_dpd_event_ctx_t *walk_ctx);
ZAN_EXPORT zan_bwalk_type_et zan_walk_ctx_get_bwalk_type(const kor_dpd_event_ctx_t *walk_ctx);
/* The source; null once it has been deleted. */
ZAN_EXPORT zan_table_base_st *zan_walk_ctx_get_current_obj(const kor_dpd_event_ctx_t *walk_ctx);
ZAN_EXPORT uint32_t zan_walk_ctx_get_num_events(const kor_dpd_event_ctx_t *walk_ctx);
/* The final mask, bits of hooks included. */
ZAN_EXPORT void zan_walk_ctx_set_attrib_upd_mask(kor_dpd_event_ctx_t *walk_ctx, uint64_t mask);
ZAN_EXPORT void zan_walk_ctx_increment_num_bwalk_child_updates(kor_dpd_event_ctx_t *walk_ctx);
/* The transaction of a walk. */
ZAN_EXPORT void zan_walk_ctx_set_trans_id(kor_dpd_event_ctx_t *walk_ctx, uint32_t trans_id);
ZAN_EXPORT uint32_t zan_walk_ctx_get_trans_id(const kor_dpd_event_ctx_t *walk_ctx);

/* Paint the colours that a new object subscribes to, on itself and on the way up to their sources;
 * a forward walk. What it paints goes with its unbinding, so that it paints again after a reference
 * change. What objects below need goes along with every bind and unbind by itself. */
ZAN_EXPORT void zan_colored_event_fwalk_on_create(zan_table_base_st *db_obj);
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
