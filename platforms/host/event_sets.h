/* Sets of events, as a walk carries them from object to object.
 *
 * Most objects of a walk are reached by the same few sets, so a set is made once and is known by
 * its address: what it means to a table is worked out once too (walk.cpp). The sets of a walk go
 * with it.
 */
#ifndef ZAN_HOST_EVENT_SETS_H
#define ZAN_HOST_EVENT_SETS_H

#include "walk_contexts.h"

#define HOST_COLOR_MASKS 8 /* masks of three colours */

struct host_event_set_t;

/* What a set means to a table, for visits of one rank. */
struct host_table_pass_t {
    host_table_pass_t *next; /* of the same set */
    uint16_t table_id;
    uint8_t needed, force;
    uint64_t rank;
    uint32_t made_at; /* removals of events so far: a later one does not concern its visits */
    uint32_t num_evt_update, num_evt_force;
    uint64_t visits;         /* not told yet to the counts of what the table receives */
    host_event_set_t *below; /* what goes on below an object of the table; null for nothing */
};

struct host_event_set_t {
    host_event_set_t *next_same_hash, *next;
    uint64_t hash;
    host_table_pass_t *passes;
    host_event_set_t *of_mask[HOST_COLOR_MASKS]; /* what reaches an object of that mask */
    uint8_t of_mask_known;                       /* bits: of_mask holds the answer, null included */
    uint8_t colors;                              /* of all its events */
    host_walk_ctx_t ctx;                         /* for the children that it reaches */
    uint32_t count;
    host_event_t *events[]; /* in the order of the pushes; those of one source stand together */
};

/* The sets of one walk, and the lists of them. */
struct host_event_sets_t {
    host_walk_ctx_t *root;
    host_event_set_t *all;
    host_event_set_t **by_hash; /* num_buckets lists, a power of two; 0 at first */
    uint32_t num_buckets, num_sets;
    host_event_set_t *last_a, *last_b, *last_union;
    struct host_set_node_t *all_nodes, *free_nodes;
    bool no_memory; /* something could not be kept: the walk is not complete */
};

/* Sets that are to be one when they are needed: the first, and the others. */
struct host_set_list_t {
    host_event_set_t *first;
    struct host_set_node_t *more;
};

/* The set of these events, in order of their numbers; null for none, and without memory. */
host_event_set_t *host_event_set(host_event_sets_t *sets, host_event_t *const *events,
                                 uint32_t count);
/* Add a set to a list. */
void host_set_list_add(host_event_sets_t *sets, host_set_list_t *list, host_event_set_t *set);
/* All events of a list's sets, as one; the list is empty then. Null without memory. */
host_event_set_t *host_set_list_merge(host_event_sets_t *sets, host_set_list_t *list);
/* The events of a set that reach an object which carries these colours: those without a colour and
 * those of one of them. */
host_event_set_t *host_event_set_for_mask(host_event_sets_t *sets, host_event_set_t *set,
                                          uint8_t mask);
void host_event_sets_free(host_event_sets_t *sets);

#endif
