/* What a walk has still to visit, in the order of the ranks.
 *
 * A walk knows each object that it has reached by a visit of its own, and the object knows its
 * visit: by the number in its graph area, which counts for nothing unless the visit of that number
 * leads back to the object. So nothing has to be cleaned up in the objects when a walk ends.
 *
 * Walks nest: at a yield an FRR thread may run one of its own, which ends before the turn does.
 * Visits are therefore a stack over all walks; a visit remembers the one that an outer walk has for
 * the same object, and gives the object back to it. An object that is deleted leaves its visits.
 */
#ifndef ZAN_HOST_WALK_QUEUE_H
#define ZAN_HOST_WALK_QUEUE_H

#include "event_sets.h"

struct host_visit_t {
    zan_table_base_st *obj;  /* null once it has been deleted */
    host_set_list_t pending; /* what it is to be visited with; empty: not waiting */
    host_walk_ctx_t *pushed; /* contexts with what the object has pushed, the newest, or null */
    uint32_t next;           /* waiting with the same rank; 0 at the end */
    uint32_t outer;          /* visit of the same object in an outer walk, or 0 */
    bool visited;            /* once or more */
};

/* Visits that wait, of objects that had one rank when they were put there, first come first. */
struct host_rank_queue_t {
    uint64_t rank;
    uint32_t first, last;
    bool used; /* a place in the table that holds a rank */
    bool in_heap;
};

struct host_walk_queue_t {
    uint32_t first_visit;       /* number of the walk's first */
    host_rank_queue_t *by_rank; /* a hash table of `size` places, a power of two */
    uint64_t *heap;             /* ranks that somebody waits with, lowest first; `size` places */
    uint32_t num_ranks, num_heap, size;
    uint32_t recent; /* place that was used last */
};

/* Dispatcher, or the FRR thread while it holds the dispatcher; the innermost walk alone. */
void host_walk_queue_start(host_walk_queue_t *queue);
/* Take the number back from the objects and end the walk's visits. */
void host_walk_queue_end(host_walk_queue_t *queue);
/* The walk's visit of an object, made if it has none; null without memory. */
host_visit_t *host_walk_queue_reach(host_walk_queue_t *queue, zan_table_base_st *obj);
/* Have a visit, which does not wait yet, wait its turn. False without memory. */
bool host_walk_queue_put(host_walk_queue_t *queue, host_visit_t *visit);
/* The next visit in turn and its rank, or null. Objects deleted meanwhile are passed over, objects
 * that have risen are put back. */
host_visit_t *host_walk_queue_next(host_walk_queue_t *queue, uint64_t *rank);

/* An object leaves the database: its visits, of all walks, lead nowhere. */
void host_visits_forget(const zan_table_base_st *obj);
/* Give the memory of visits back; no walk runs. */
void host_visits_release(void);

#endif
