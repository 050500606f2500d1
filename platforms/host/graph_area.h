/* The graph's own layout of the unnamed bytes of an object's graph area, and what the walk service
 * needs of it.
 *
 * A heap copy has its source's area, byte by byte: its links lead nowhere that concerns it and are
 * never followed. What lives on a heap copy is `post_proc` alone; whoever copies a heap copy clears
 * it (zan_dpd_clear_freed_by_post_proc_flag). In a database object it is never set.
 */
#ifndef ZAN_HOST_GRAPH_AREA_H
#define ZAN_HOST_GRAPH_AREA_H

#include "dependency_graph.h"

#define HOST_COLOR_SLOTS 4 /* colours from a source that concern the objects of one table */

/* A child on its parent's list. Children of one table are a group; the first and the last of a
 * group know each other, so that a search skips whole groups, and both ends keep their marks
 * through any unbind without a look at their neighbours' headers. */
typedef struct host_link_t {
    zan_dpd_link_st ends;
    host_link_t *next, *prev; /* on the parent's list */
    uintptr_t
        group; /* other end of the group | HOST_GROUP_FIRST | HOST_GROUP_LAST; 0 between them */
} host_link_t;

#define HOST_GROUP_FIRST ((uintptr_t)1)
#define HOST_GROUP_LAST  ((uintptr_t)2)
#define HOST_GROUP_MARKS (HOST_GROUP_FIRST | HOST_GROUP_LAST)

/* Parent slots of an object that has room for more than one. All of them are on one list, since at
 * the end of the process the objects go without a delete of each. */
typedef struct host_parent_slots_t {
    host_parent_slots_t *next, *prev;
    uint32_t capacity;
    host_link_t links[];
} host_parent_slots_t;

typedef struct host_graph_area_t {
    uint64_t rank;                          /* above all its parents' */
    uint32_t color_count[HOST_COLOR_SLOTS]; /* children that need the colour, by slot */
    zan_dpd_link_st *dpd_child_list;
    uint32_t evt_pushed_count;
    uint32_t visit; /* in the walk that runs: its visit, see walk_queue.h */
    uint32_t dpd_child_cnt;
    uint16_t num_parents;
    uint16_t max_parents;
    union {
        host_link_t link;           /* the one parent slot */
        host_parent_slots_t *slots; /* with `has_slots` */
    };
    uint8_t has_slots;
    uint8_t color_mask;  /* the colours that it carries */
    uint8_t color_above; /* sources above it, by slot; HOST_PAINTED */
    uint8_t post_proc;   /* heap copies only: post-processing frees it */
    uint8_t del_flag;
    uint8_t repair; /* inside a repair of ranks: already taken up */
    uint8_t graph_e[2];
    uint32_t bwalk_id_stamp;
    uint16_t bwalk_update_count;
    uint16_t bwalk_skip_count;
} host_graph_area_t;

#define HOST_SAME_OFFSET(field)                                                                    \
    static_assert(offsetof(host_graph_area_t, field) == offsetof(zan_dpd_area_st, field), #field)
HOST_SAME_OFFSET(dpd_child_list);
HOST_SAME_OFFSET(dpd_child_cnt);
HOST_SAME_OFFSET(num_parents);
HOST_SAME_OFFSET(max_parents);
HOST_SAME_OFFSET(del_flag);
HOST_SAME_OFFSET(bwalk_id_stamp);
HOST_SAME_OFFSET(bwalk_update_count);
HOST_SAME_OFFSET(bwalk_skip_count);
static_assert(sizeof(host_graph_area_t) == sizeof(zan_dpd_area_st), "graph area");
static_assert(offsetof(host_link_t, ends) == 0, "a link begins with child and parent");

static inline host_graph_area_t *host_area(const zan_table_base_st *obj)
{
    return (host_graph_area_t *)(void *)&((zan_table_base_st *)obj)->dpd;
}

static inline host_link_t *host_first_child(const zan_table_base_st *obj)
{
    return (host_link_t *)host_area(obj)->dpd_child_list;
}

/* The first link of the next group, or null; `first` is the first of a group. */
static inline host_link_t *host_next_group(const host_link_t *first)
{
    return ((host_link_t *)(first->group & ~HOST_GROUP_MARKS))->next;
}

/* The first child of a table, or null. */
static inline host_link_t *host_children_of_table(const zan_table_base_st *parent,
                                                  uint32_t table_id)
{
    host_link_t *link = host_first_child(parent);
    while (link && link->ends.child->table_id != table_id)
        link = host_next_group(link);
    return link;
}

static inline host_link_t *host_parent_slot(const zan_table_base_st *obj, uint32_t index)
{
    host_graph_area_t *area = host_area(obj);
    return area->has_slots ? &area->slots->links[index] : &area->link;
}

/* ---- Ranks (graph_ranks.cpp) ---- */

/* Raise the rank of `child`, and of what is below it, so that the bind keeps every rank above its
 * parents'. 0, ZAN_RC_BIND_REFUSED when a path leads from the child to the parent,
 * ZAN_RC_NO_MEMORY; nothing has changed then. */
zan_rcode host_ranks_make_room(const zan_table_base_st *parent, zan_table_base_st *child);
/* Whether a path leads down from `from` to `to`; without memory the answer is true. */
bool host_ranks_path_exists(zan_table_base_st *from, const zan_table_base_st *to);
/* Give the work space back. */
void host_ranks_release(void);

/* ---- Colours (colors.cpp) ---- */

#define HOST_PAINTED ((uint8_t)0x80) /* color_above: its own subscriptions are painted */

/* Work out which colours concern which tables; once per start. */
void host_colors_start(void);
/* A child has been bound: its needs go up from the parent, the sources above go down from it. */
void host_colors_bound(zan_table_base_st *parent, zan_table_base_st *child);
/* A link is about to go: the child's needs leave the parent. */
void host_colors_unbinding(zan_table_base_st *parent, const zan_table_base_st *child);
/* All links of a child are gone: no source is above it any more, and its own paint is off. */
void host_colors_unbound(zan_table_base_st *child);
/* Give the work space back. */
void host_colors_release(void);

/* ---- Parent slots (dependency_graph.cpp) ---- */

/* Free the parent slots of all objects; no object may be used afterwards. */
void host_parent_slots_release(void);

#endif
