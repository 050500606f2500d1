/* Ranks: every object's is above all its parents', so that no path leads from an object to one of
 * equal or lower rank. A bind of a child without children just sets its rank; nearly all others
 * find the child's rank high enough already, which is one comparison.
 *
 * Otherwise the child must rise above its new parent, and perhaps some of what is below it. The
 * objects that rise are taken up in the order of their former ranks: that order is a topological
 * one, so that each is taken up once, after all parents that rise. A path from the child to the new
 * parent leads through objects that rise, and would make the parent rise: that is the cycle, and
 * all is put back.
 *
 * No recursion; the work space is kept from one repair to the next.
 */
#include "graph_area.h"

#include <cstdlib>

namespace
{

/* An object that rises, and the rank it had. */
struct raised_t {
    uint64_t former;
    zan_table_base_st *obj;
};

struct work_t {
    raised_t *items;
    uint32_t count, size;
};

work_t raised;  /* all that rose, to be put back or unmarked */
work_t pending; /* a heap, lowest former rank first: raised, children not looked at yet */

bool has_space(work_t *work)
{
    if (work->count < work->size)
        return true;
    const uint32_t size = work->size ? work->size * 2 : 64;
    auto *items = (raised_t *)realloc(work->items, size * sizeof(raised_t));
    if (!items)
        return false;
    work->items = items;
    work->size = size;
    return true;
}

void heap_push(work_t *heap, raised_t item)
{
    uint32_t at = heap->count++;
    while (at > 0 && heap->items[(at - 1) / 2].former > item.former) {
        heap->items[at] = heap->items[(at - 1) / 2];
        at = (at - 1) / 2;
    }
    heap->items[at] = item;
}

raised_t heap_pop(work_t *heap)
{
    const raised_t lowest = heap->items[0];
    const raised_t moved = heap->items[--heap->count];
    uint32_t at = 0;
    for (;;) {
        uint32_t child = at * 2 + 1;
        if (child >= heap->count)
            break;
        if (child + 1 < heap->count && heap->items[child + 1].former < heap->items[child].former)
            child++;
        if (heap->items[child].former >= moved.former)
            break;
        heap->items[at] = heap->items[child];
        at = child;
    }
    if (heap->count)
        heap->items[at] = moved;
    return lowest;
}

/* Take an object up, once; false without memory. */
bool take_up(zan_table_base_st *obj)
{
    host_graph_area_t *area = host_area(obj);
    if (area->repair)
        return true;
    if (!has_space(&raised) || !has_space(&pending))
        return false;
    area->repair = 1;
    raised.items[raised.count++] = {area->rank, obj};
    heap_push(&pending, {area->rank, obj});
    return true;
}

/* End of a repair: unmark all, and put the former ranks back when it came to nothing. */
void finish(bool put_back)
{
    for (uint32_t i = 0; i < raised.count; i++) {
        host_graph_area_t *area = host_area(raised.items[i].obj);
        area->repair = 0;
        if (put_back)
            area->rank = raised.items[i].former;
    }
    raised.count = pending.count = 0;
}

zan_rcode raise(zan_table_base_st *obj, uint64_t rank)
{
    if (host_area(obj)->rank >= rank)
        return EOK;
    if (!take_up(obj))
        return ZAN_RC_NO_MEMORY;
    host_area(obj)->rank = rank;
    return EOK;
}

zan_rcode repair(const zan_table_base_st *parent, zan_table_base_st *child)
{
    zan_rcode rc = raise(child, host_area(parent)->rank + 1);
    while (rc == EOK && pending.count) {
        const zan_table_base_st *obj = heap_pop(&pending).obj;
        if (obj == parent)
            return ZAN_RC_BIND_REFUSED;
        const uint64_t above = host_area(obj)->rank + 1;
        for (const host_link_t *link = host_first_child(obj); link && rc == EOK; link = link->next)
            rc = raise(link->ends.child, above);
    }
    return rc;
}

} // namespace

zan_rcode host_ranks_make_room(const zan_table_base_st *parent, zan_table_base_st *child)
{
    host_graph_area_t *area = host_area(child);
    const uint64_t rank = host_area(parent)->rank;
    if (parent == child)
        return ZAN_RC_BIND_REFUSED;
    if (area->rank > rank)
        return EOK;
    if (area->dpd_child_cnt == 0) {
        area->rank = rank + 1;
        return EOK;
    }
    const zan_rcode rc = repair(parent, child);
    finish(rc != EOK);
    return rc;
}

bool host_ranks_path_exists(zan_table_base_st *from, const zan_table_base_st *to)
{
    if (from == to)
        return true;
    if (host_area(from)->rank >= host_area(to)->rank)
        return false;
    bool found = !take_up(from);
    while (!found && pending.count) {
        const zan_table_base_st *obj = heap_pop(&pending).obj;
        for (const host_link_t *link = host_first_child(obj); link && !found; link = link->next) {
            zan_table_base_st *child = link->ends.child;
            found =
                child == to || (host_area(child)->rank < host_area(to)->rank && !take_up(child));
        }
    }
    finish(false);
    return found;
}

void host_ranks_release(void)
{
    free(raised.items);
    free(pending.items);
    raised = pending = {};
}
