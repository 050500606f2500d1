/* The dependency graph: binding, unbinding, and the marks of an object.
 *
 * A link is in the child's memory, in its graph area or its array of parent slots, and stands on
 * the parent's list: both ends are found from either, and a bind allocates nothing.
 */
#include "dependency_graph.h"
#include "graph_area.h"
#include "host_assert.h"
#include "host_blocks.h"
#include "internal_queues.h"
#include "shared_pool.h"
#include "table_database.h"
#include "walk_service.h"
#include "zan_tables_private.h"

#include <cstring>

namespace
{

/* Links whose parent is in the table: a table without any has no path down from its objects. */
uint64_t links_below[ZAN_NUM_TABLES];

/* ---- The child list ---- */

void insert_after(zan_table_base_st *parent, host_link_t *before, host_link_t *link)
{
    link->prev = before;
    if (before) {
        link->next = before->next;
        before->next = link;
    } else {
        link->next = host_first_child(parent);
        host_area(parent)->dpd_child_list = &link->ends;
    }
    if (link->next)
        link->next->prev = link;
}

/* At the end of its table's group, or as a group of its own at the end of the list. */
void add_to_list(zan_table_base_st *parent, host_link_t *link)
{
    const uint32_t table_id = link->ends.child->table_id;
    host_link_t *last = nullptr;
    for (host_link_t *first = host_first_child(parent); first; first = last->next) {
        last = (host_link_t *)(first->group & ~HOST_GROUP_MARKS);
        if (first->ends.child->table_id != table_id)
            continue;
        insert_after(parent, last, link);
        last->group = last == first ? (uintptr_t)link | HOST_GROUP_FIRST : 0;
        first->group = (uintptr_t)link | HOST_GROUP_FIRST;
        link->group = (uintptr_t)first | HOST_GROUP_LAST;
        return;
    }
    insert_after(parent, last, link);
    link->group = (uintptr_t)link | HOST_GROUP_FIRST | HOST_GROUP_LAST;
}

/* The group closes up behind a link that leaves at one of its ends. */
void leave_group(const host_link_t *link)
{
    const uintptr_t marks = link->group & HOST_GROUP_MARKS;
    if (marks == 0 || marks == HOST_GROUP_MARKS)
        return;
    auto *other = (host_link_t *)(link->group & ~HOST_GROUP_MARKS);
    host_link_t *heir = marks == HOST_GROUP_FIRST ? link->next : link->prev;
    if (heir == other) {
        heir->group = (uintptr_t)heir | HOST_GROUP_MARKS;
        return;
    }
    heir->group = (uintptr_t)other | marks;
    other->group = (uintptr_t)heir | (marks ^ HOST_GROUP_MARKS);
}

void remove_from_list(zan_table_base_st *parent, host_link_t *link)
{
    leave_group(link);
    if (link->prev)
        link->prev->next = link->next;
    else
        host_area(parent)->dpd_child_list = link->next ? &link->next->ends : nullptr;
    if (link->next)
        link->next->prev = link->prev;
}

/* ---- Unbinding ---- */

/* Unbind the slot; true when the parent waits for its delete and has lost its last child. */
bool unbind(host_link_t *link)
{
    zan_table_base_st *parent = link->ends.parent;
    host_graph_area_t *area = host_area(parent);
    HOST_ASSERT(area->dpd_child_cnt > 0, "a parent counts its children");
    host_colors_unbinding(parent, link->ends.child);
    remove_from_list(parent, link);
    memset(link, 0, sizeof *link);
    links_below[parent->table_id]--;
    return --area->dpd_child_cnt == 0 && (area->del_flag & ZAN_DEL_FLAG_DELAY_DELETE);
}

/* Unbind all without a report: a parent that waits for this goes on the delete queue from here. */
void unbind_all(zan_table_base_st *child)
{
    host_graph_area_t *area = host_area(child);
    for (uint32_t i = 0; i < area->num_parents; i++) {
        host_link_t *link = host_parent_slot(child, i);
        zan_table_base_st *parent = link->ends.parent;
        if (unbind(link))
            kor_core_queue_enqueue(parent, ZAN_QUEUE_DELAY_DELETE);
    }
    area->num_parents = 0;
    host_colors_unbound(child);
}

/* The stored form of a request: what its handle leads to; a heap copy's may lead nowhere, and then
 * the key counts. */
zan_table_base_st *stored_form(const zan_table_base_st *request)
{
    zan_table_base_st *stored = zan_db_get(request);
    if (stored || request->obj_handle == 0 || request->key_len == 0)
        return stored;
    const zan_table_def_t *def = zan_table_def_get(request->table_id);
    alignas(zan_table_base_st) uint8_t lookup[sizeof(zan_table_base_st) + 64 + ZAN_KEY_SIZE_MAX];
    HOST_ASSERT(def->key_offset + def->key_size <= sizeof lookup, "the key begins near the header");
    auto *by_key = (zan_table_base_st *)lookup;
    memcpy(lookup, request, sizeof(zan_table_base_st));
    by_key->obj_handle = 0;
    memcpy(zan_obj_key(def, by_key), zan_obj_key(def, request), def->key_size);
    return zan_db_get(by_key);
}

} // namespace

/* ---- Announcing a bind ----
 *
 * The parent whose bind was checked last is most likely the next to get a child. A bind touches the
 * first and the last link of the child's group, which stand in other objects: their lines are asked
 * for in two steps, since the second step's addresses stand in the first's line. */

static uint64_t
    checked_parent; /* a handle; whether it still leads anywhere is decided at its use */

static void announce_list(uint64_t parent_handle)
{
    checked_parent = parent_handle;
    __builtin_prefetch(host_first_child((const zan_table_base_st *)(uintptr_t)parent_handle));
}

static void announce_links(void)
{
    if (host_pool_stored_table(checked_parent) < 0)
        return;
    const host_link_t *first =
        host_first_child((const zan_table_base_st *)(uintptr_t)checked_parent);
    if (!first)
        return;
    __builtin_prefetch(first->ends.child);
    __builtin_prefetch((const void *)(first->group & ~HOST_GROUP_MARKS), 1);
}

void kor_dpd_table_list_init(zan_table_base_st *db_obj)
{
    announce_links();
    memset(&db_obj->dpd, 0, sizeof db_obj->dpd);
}

static host_parent_slots_t *all_slots;

static host_parent_slots_t *new_slots(uint32_t capacity)
{
    auto *slots = (host_parent_slots_t *)host_block_alloc(sizeof(host_parent_slots_t) +
                                                          capacity * sizeof(host_link_t));
    if (!slots)
        return nullptr;
    slots->capacity = capacity;
    slots->prev = nullptr;
    slots->next = all_slots;
    if (all_slots)
        all_slots->prev = slots;
    all_slots = slots;
    return slots;
}

static void take_slots(host_graph_area_t *area, uint32_t capacity)
{
    host_parent_slots_t *slots = new_slots(capacity);
    if (!slots)
        return;
    area->slots = slots;
    area->has_slots = 1;
}

static void free_slots(host_graph_area_t *area)
{
    if (!area->has_slots)
        return;
    host_parent_slots_t *slots = area->slots;
    if (slots->next)
        slots->next->prev = slots->prev;
    if (slots->prev)
        slots->prev->next = slots->next;
    else
        all_slots = slots->next;
    host_block_free(slots);
    memset(&area->link, 0, sizeof area->link);
    area->has_slots = 0;
}

void host_parent_slots_release(void)
{
    while (host_parent_slots_t *slots = all_slots) {
        all_slots = slots->next;
        host_block_free(slots);
    }
}

void kor_dpd_parent_init(zan_table_base_st *db_obj, uint32_t max_parents, uint32_t)
{
    host_graph_area_t *area = host_area(db_obj);
    unbind_all(db_obj);
    if (max_parents > UINT16_MAX)
        max_parents = UINT16_MAX;
    if (area->has_slots && area->slots->capacity < max_parents)
        free_slots(area);
    if (max_parents > 1 && !area->has_slots)
        take_slots(area, max_parents);
    /* Without memory there is the one slot, and the second bind is refused. */
    area->max_parents = (uint16_t)(max_parents > 1 && !area->has_slots ? 1 : max_parents);
    if (area->dpd_child_cnt == 0)
        area->rank = 0;
}

uint8_t kor_dpd_check_bind_validity(uint64_t parent_handle, const zan_table_base_st *child, uint8_t)
{
    const int parent_table = host_pool_stored_table(parent_handle);
    if (parent_table < 0)
        return false;
    announce_list(parent_handle);
    /* Most tables have nothing below them: no path leads down from their objects. */
    if (links_below[child->table_id] == 0 && parent_table != child->table_id)
        return true;
    auto *parent = (zan_table_base_st *)(uintptr_t)parent_handle;
    zan_table_base_st *stored = stored_form(child);
    return !stored || !host_ranks_path_exists(stored, parent);
}

zan_rcode kor_dpd_add(zan_table_base_st *parent, zan_table_base_st *child)
{
    host_graph_area_t *area = host_area(child);
    if (area->num_parents >= area->max_parents)
        return ZAN_RC_INVALID;
    const zan_rcode rc = host_ranks_make_room(parent, child);
    if (rc != EOK)
        return rc;
    host_link_t *link = host_parent_slot(child, area->num_parents++);
    link->ends = {child, parent};
    add_to_list(parent, link);
    host_area(parent)->dpd_child_cnt++;
    links_below[parent->table_id]++;
    host_colors_bound(parent, child);
    return EOK;
}

void kor_dpd_remove(zan_table_base_st *child, kor_dpd_next_act_t *next_act)
{
    host_graph_area_t *area = host_area(child);
    for (uint32_t i = 0; i < area->num_parents; i++) {
        host_link_t *link = host_parent_slot(child, i);
        zan_table_base_st *parent = link->ends.parent;
        next_act->action[0]++;
        if (!unbind(link))
            continue;
        HOST_ASSERT(i / 64 < next_act->num_words, "next_act has a bit for each parent slot");
        next_act->action[1]++;
        next_act->bitmap[i / 64] |= (uint64_t)1 << (i % 64);
        next_act->parents[i] = parent;
    }
    area->num_parents = 0;
    host_colors_unbound(child);
}

bool kor_dpd_is_bmap_set(const kor_dpd_next_act_t *next_act)
{
    for (uint32_t i = 0; i < next_act->num_words; i++)
        if (next_act->bitmap[i])
            return true;
    return false;
}

void kor_dpd_reset(zan_table_base_st *db_obj, uint32_t)
{
    host_graph_area_t *area = host_area(db_obj);
    HOST_ASSERT(area->dpd_child_cnt == 0, "an object about to be freed has no children");
    unbind_all(db_obj);
    free_slots(area);
    memset(&db_obj->dpd, 0, sizeof db_obj->dpd);
}

zan_table_base_st *kor_dpd_get_parent_safe(const zan_table_base_st *db_obj, uint32_t index)
{
    return index < host_area(db_obj)->num_parents ? host_parent_slot(db_obj, index)->ends.parent
                                                  : nullptr;
}

const zan_dpd_link_st *kor_dpd_next_child(const zan_dpd_link_st *link)
{
    const host_link_t *next = ((const host_link_t *)link)->next;
    return next ? &next->ends : nullptr;
}

uint64_t kor_dpd_rank(const zan_table_base_st *db_obj)
{
    return host_area(db_obj)->rank;
}

/* ---- Marks ---- */

bool zan_dpd_is_set_freed_by_post_proc_flag(const zan_table_base_st *obj)
{
    return host_area(obj)->post_proc;
}

void zan_dpd_set_freed_by_post_proc_flag(zan_table_base_st *obj)
{
    host_area(obj)->post_proc = 1;
}

void zan_dpd_clear_freed_by_post_proc_flag(zan_table_base_st *obj)
{
    host_area(obj)->post_proc = 0;
}
