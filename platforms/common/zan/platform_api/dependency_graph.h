/* The dependency graph.
 *
 * An object is bound to each of its parents: it stands on the parent's child list, children of one
 * table together, and the parent stands in one of its parent slots. Links are intrusive: an object
 * with one parent keeps its link in its own graph area. Every object has a rank above all its
 * parents'; a bind that would close a cycle is found by it and refused.
 *
 * Dispatcher thread, or the FRR thread while it holds the dispatcher. No lock.
 */
#ifndef ZAN_PLATFORM_DEPENDENCY_GRAPH_H
#define ZAN_PLATFORM_DEPENDENCY_GRAPH_H

#include "zan_table_base.h"

/* One entry of a child list leads to the child; the rest of it is the graph's own. */
typedef struct zan_dpd_link_st {
    zan_table_base_st *child;
    zan_table_base_st *parent;
} zan_dpd_link_st;

/* What kor_dpd_remove reports about the parents. The caller provides the bitmap, zeroed, of
 * (n + 63) / 64 words, and the array of n pointers, n being the object's parent slots; at least one
 * of each. */
typedef struct kor_dpd_next_act_t {
    uint64_t action[2]; /* [0] links removed, [1] parents marked; for traces */
    uint64_t *bitmap;   /* bit i: parents[i] waits for its delete and has lost its last child */
    uint32_t num_words;
    zan_table_base_st **parents;
} kor_dpd_next_act_t;

ZAN_EXTERN_C_BEGIN
/* Prepare the child list of a new database object. */
ZAN_EXPORT void kor_dpd_table_list_init(zan_table_base_st *db_obj);
/* Prepare parent slots for up to max_parents parents; before every round of binds. */
ZAN_EXPORT void kor_dpd_parent_init(zan_table_base_st *db_obj, uint32_t max_parents,
                                    uint32_t reserved);
/* Whether `child` may bind to the parent with this handle now: the parent is stored, and no path
 * leads from the child down to it. `child` is a request; its stored form, if any, is found by key.
 */
ZAN_EXPORT uint8_t kor_dpd_check_bind_validity(uint64_t parent, const zan_table_base_st *child,
                                               uint8_t is_inside_bwalk);
/* Bind. 0, ZAN_RC_INVALID without a free parent slot, ZAN_RC_BIND_REFUSED when it would close a
 * cycle, ZAN_RC_NO_MEMORY. */
ZAN_EXPORT zan_rcode kor_dpd_add(zan_table_base_st *parent, zan_table_base_st *child);
/* Unbind from all parents. Marks in next_act, at the index of its slot, each parent that is
 * delete-pending and has lost its last child. */
ZAN_EXPORT void kor_dpd_remove(zan_table_base_st *child, kor_dpd_next_act_t *next_act);
ZAN_EXPORT bool kor_dpd_is_bmap_set(const kor_dpd_next_act_t *next_act);
/* Clear the graph fields of an object about to be freed; what is still bound is unbound first. */
ZAN_EXPORT void kor_dpd_reset(zan_table_base_st *db_obj, uint32_t reserved);
/* The parent in a slot, or null; for traces and diagnostics. */
ZAN_EXPORT zan_table_base_st *kor_dpd_get_parent_safe(const zan_table_base_st *db_obj,
                                                      uint32_t index);
/* The child link behind this one, or null: children of one table follow each other. */
ZAN_EXPORT const zan_dpd_link_st *kor_dpd_next_child(const zan_dpd_link_st *link);
/* The object's rank: above all its parents'. */
ZAN_EXPORT uint64_t kor_dpd_rank(const zan_table_base_st *db_obj);
ZAN_EXTERN_C_END

#endif
