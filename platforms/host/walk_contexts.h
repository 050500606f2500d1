/* Walk contexts and event lists, for the host's other services. */
#ifndef ZAN_HOST_WALK_CONTEXTS_H
#define ZAN_HOST_WALK_CONTEXTS_H

#include "walk_service.h"

struct host_walk_ctx_t;

/* An event and who pushed it. */
struct host_event_t {
    zan_bwalk_event_data head;
    host_walk_ctx_t *source;
    uint64_t number; /* ascending in the order of the pushes */
    /* By a child table's filter, for the rest of the walk: the number of the removal, counted over
     * all events; 0: it is not. Atomic, since NPU threads pass over it. */
    uint32_t removed;
};

/* A context's own events, in the order of the pushes, or a part of them. */
struct zan_bwalk_event_list_t {
    host_event_t **events;
    uint32_t count, size; /* size 0: a part, the array is another's */
    host_walk_ctx_t *owner;
};

/* What a context carries beside what the server sees. A root has the contexts of its child updates
 * on its list, the newest first; they go with it. */
struct host_walk_ctx_t {
    kor_dpd_event_ctx_t head;
    host_walk_ctx_t *root;        /* null: this is one */
    host_walk_ctx_t *next_nested; /* of a root its contexts, of a nested one the next of its root */
    host_walk_ctx_t *next_pushed; /* of the same object, pushed on an earlier visit */
    zan_bwalk_event_list_t own;
    uint32_t num_forced;              /* as a source: matches that have forced an update */
    bool forces;                      /* as a source: there were such */
    const zan_table_base_st *request; /* of the update; for a trace, never followed */
    uint32_t bwalk_id;
    uint32_t num_child_updates;
    bool from_retry;
    bool ended; /* by the update; the NPU threads still hold it */
};

static inline bool host_event_removed(const host_event_t *event)
{
    return __atomic_load_n(&event->removed, __ATOMIC_RELAXED) != 0;
}

static inline host_walk_ctx_t *host_walk_ctx(kor_dpd_event_ctx_t *walk_ctx)
{
    return (host_walk_ctx_t *)walk_ctx;
}

static inline const host_walk_ctx_t *host_walk_ctx(const kor_dpd_event_ctx_t *walk_ctx)
{
    return (const host_walk_ctx_t *)walk_ctx;
}

/* Removals so far, over all events. */
uint32_t host_events_removed(void);

/* Fill a context that stands for a root towards the children of one visit. It is the walk's, is
 * never on the root's list, and owns no events. */
void host_walk_ctx_init_visit(host_walk_ctx_t *ctx, host_walk_ctx_t *root);
/* End the newest nested context of a root, which has pushed nothing. */
void host_walk_ctx_recycle(host_walk_ctx_t *newest);
/* The source of a context, and of those behind it that it has pushed earlier, has been deleted. */
void host_walk_ctx_forget_source(host_walk_ctx_t *ctx);
/* The message that carried the context to the NPU threads has come home: its hold on the context,
 * and on the copies that a post_proc event gave to it, ends. Dispatcher. */
void host_walk_ctx_came_home(kor_dpd_event_ctx_t *walk_ctx);

#endif
