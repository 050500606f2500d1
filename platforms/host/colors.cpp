/* Colours: which objects an event of a colour may touch.
 *
 * A table subscribes to a colour of a source table; each such pair of source and colour is a need.
 * An object of the subscribing table that has been painted has the need, and so has every object
 * with a child that has it: needs go up. That an object of the source table stands above, or is
 * one itself, goes down. An object carries a colour when it has a need of that colour and the
 * need's source is above: it is on a path from a painted object up to a source.
 *
 * Both are kept up to date by each bind and unbind. The children with a need are counted in their
 * parent, so that a need ends with the last of them; what is above is worked out anew from the few
 * parents. Few needs concern one table, so that an object counts them in a few slots of its graph
 * area; what a slot stands for depends on the table alone. Most tables have none, and then a bind
 * costs two loads.
 */
#include "graph_area.h"
#include "host_assert.h"
#include "host_trace.h"
#include "walk_service.h"
#include "zan_table_def.h"

#include <cstdlib>
#include <cstring>

namespace
{

constexpr uint32_t max_needs = 16;
constexpr uint8_t no_slot = 0xff;

/* Sets of needs: by number over all tables, or by slot within one. */
using needs_t = uint16_t;
using slots_t = uint8_t;

struct need_t {
    uint16_t source_table;
    uint8_t color;
};

struct table_colors_t {
    uint8_t num_slots;
    uint8_t need_of[HOST_COLOR_SLOTS];
    uint8_t slot_of[max_needs];
    slots_t subscribed; /* needs of a painted object */
    slots_t source;     /* needs whose source is this table */
};

need_t needs[max_needs];
uint32_t num_needs;
table_colors_t tables[ZAN_NUM_TABLES];

/* ---- What concerns which table ---- */

uint32_t need_number(uint16_t source_table, uint8_t color)
{
    for (uint32_t i = 0; i < num_needs; i++)
        if (needs[i].source_table == source_table && needs[i].color == color)
            return i;
    HOST_ASSERT(num_needs < max_needs, "a set of needs has a bit for each");
    needs[num_needs] = {source_table, color};
    return num_needs++;
}

uint8_t color_of(const zan_subscription_def_t *s)
{
    return zan_table_defs[s->source_table]->events[s->event_id - 1].color;
}

/* Tables from which `to` can be reached through child tables, `to` among them. */
void mark_above(bool *marked)
{
    for (bool more = true; more;) {
        more = false;
        for (const zan_table_def_t *def : zan_table_defs)
            for (uint32_t c = 0; c < def->num_children && !marked[def->id]; c++)
                if (marked[def->children[c]])
                    marked[def->id] = more = true;
    }
}

void mark_below(bool *marked)
{
    for (bool more = true; more;) {
        more = false;
        for (const zan_table_def_t *def : zan_table_defs)
            for (uint32_t c = 0; c < def->num_children && marked[def->id]; c++)
                if (!marked[def->children[c]])
                    marked[def->children[c]] = more = true;
    }
}

/* A need concerns the tables that lie between its source and a subscriber, both included. */
void place_need(uint32_t number)
{
    bool above[ZAN_NUM_TABLES] = {}, below[ZAN_NUM_TABLES] = {};
    below[needs[number].source_table] = true;
    mark_below(below);
    for (const zan_table_def_t *def : zan_table_defs)
        for (uint32_t i = 0; i < def->num_subscriptions; i++)
            if (def->subscriptions[i].source_table == needs[number].source_table &&
                color_of(&def->subscriptions[i]) == needs[number].color)
                above[def->id] = true;
    mark_above(above);
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        if (!above[id] || !below[id])
            continue;
        table_colors_t *t = &tables[id];
        HOST_ASSERT(t->num_slots < HOST_COLOR_SLOTS, "an object has a slot for each need");
        t->need_of[t->num_slots] = (uint8_t)number;
        t->slot_of[number] = t->num_slots++;
    }
}

void note_subscriptions(const zan_table_def_t *def)
{
    table_colors_t *t = &tables[def->id];
    for (uint32_t i = 0; i < def->num_subscriptions; i++) {
        const uint8_t color = color_of(&def->subscriptions[i]);
        if (color == 0)
            continue;
        const uint8_t slot = t->slot_of[need_number(def->subscriptions[i].source_table, color)];
        if (slot != no_slot)
            t->subscribed |= (slots_t)(1u << slot);
    }
    for (uint32_t slot = 0; slot < t->num_slots; slot++)
        if (needs[t->need_of[slot]].source_table == def->id)
            t->source |= (slots_t)(1u << slot);
}

/* ---- Sets, of an object and from table to table ---- */

const table_colors_t *colors_of(const zan_table_base_st *obj)
{
    return &tables[obj->table_id];
}

needs_t to_needs(const table_colors_t *t, slots_t slots)
{
    needs_t all = 0;
    for (uint32_t slot = 0; slot < t->num_slots; slot++)
        if (slots >> slot & 1)
            all |= (needs_t)(1u << t->need_of[slot]);
    return all;
}

slots_t to_slots(const table_colors_t *t, needs_t all)
{
    slots_t slots = 0;
    for (uint32_t slot = 0; slot < t->num_slots; slot++)
        if (all >> t->need_of[slot] & 1)
            slots |= (slots_t)(1u << slot);
    return slots;
}

slots_t needed_below(const zan_table_base_st *obj)
{
    const host_graph_area_t *area = host_area(obj);
    slots_t slots = 0;
    for (uint32_t slot = 0; slot < colors_of(obj)->num_slots; slot++)
        if (area->color_count[slot])
            slots |= (slots_t)(1u << slot);
    return slots;
}

slots_t needed(const zan_table_base_st *obj)
{
    const bool painted = host_area(obj)->color_above & HOST_PAINTED;
    return needed_below(obj) | (painted ? colors_of(obj)->subscribed : slots_t{0});
}

/* Sources above the object, itself included. */
slots_t sources(const zan_table_base_st *obj)
{
    return (slots_t)(host_area(obj)->color_above & ~HOST_PAINTED) | colors_of(obj)->source;
}

uint8_t mask_of(const zan_table_base_st *obj)
{
    const table_colors_t *t = colors_of(obj);
    const slots_t carried = needed(obj) & sources(obj);
    uint8_t mask = 0;
    for (uint32_t slot = 0; slot < t->num_slots; slot++)
        if (carried >> slot & 1)
            mask |= needs[t->need_of[slot]].color;
    return mask;
}

/* ---- Objects still to be looked at; a list is one thing's at a time, so one is enough ---- */

struct todo_t {
    zan_table_base_st *obj;
    needs_t changed;
};

struct todo_list_t {
    todo_t *items;
    uint32_t count, size;
};

todo_list_t todo;

void put(zan_table_base_st *obj, needs_t changed)
{
    if (todo.count == todo.size) {
        todo.size = todo.size ? todo.size * 2 : 64;
        todo.items = (todo_t *)realloc(todo.items, todo.size * sizeof(todo_t));
        HOST_ASSERT(todo.items, "memory to paint with");
    }
    todo.items[todo.count++] = {obj, changed};
}

void put_parents(const zan_table_base_st *obj, needs_t changed)
{
    for (uint32_t i = 0; i < host_area(obj)->num_parents; i++)
        put(host_parent_slot(obj, i)->ends.parent, changed);
}

/* Children of tables that a colour concerns; whole groups of others are passed over. */
void put_children(const zan_table_base_st *obj, needs_t changed)
{
    for (const host_link_t *first = host_first_child(obj); first; first = host_next_group(first)) {
        if (tables[first->ends.child->table_id].num_slots == 0)
            continue;
        const host_link_t *end = host_next_group(first);
        for (const host_link_t *link = first; link != end; link = link->next)
            put(link->ends.child, changed);
    }
}

/* ---- Needs go up ---- */

/* One child more, or one less, has the needs; what that makes new goes on to the parents. */
void count_up(zan_table_base_st *first, needs_t changed, int by)
{
    put(first, changed);
    while (todo.count) {
        const todo_t next = todo.items[--todo.count];
        host_graph_area_t *area = host_area(next.obj);
        const slots_t before = needed(next.obj);
        const slots_t slots = to_slots(colors_of(next.obj), next.changed);
        for (uint32_t slot = 0; slot < HOST_COLOR_SLOTS; slot++)
            if (slots >> slot & 1)
                area->color_count[slot] += (uint32_t)by;
        const slots_t turned = before ^ needed(next.obj);
        if (!turned)
            continue;
        area->color_mask = mask_of(next.obj);
        put_parents(next.obj, to_needs(colors_of(next.obj), turned));
    }
}

/* ---- Sources go down ---- */

void add_sources(zan_table_base_st *first, needs_t above)
{
    put(first, above);
    while (todo.count) {
        const todo_t next = todo.items[--todo.count];
        host_graph_area_t *area = host_area(next.obj);
        const slots_t added =
            (slots_t)(to_slots(colors_of(next.obj), next.changed) & ~area->color_above);
        if (!added)
            continue;
        area->color_above |= added;
        area->color_mask = mask_of(next.obj);
        put_children(next.obj, to_needs(colors_of(next.obj), added));
    }
}

slots_t sources_of_parents(const zan_table_base_st *obj)
{
    needs_t above = 0;
    for (uint32_t i = 0; i < host_area(obj)->num_parents; i++) {
        const zan_table_base_st *parent = host_parent_slot(obj, i)->ends.parent;
        above |= to_needs(colors_of(parent), sources(parent));
    }
    return to_slots(colors_of(obj), above);
}

/* What no parent has above it any more ends, and so on down. */
void drop_sources(zan_table_base_st *first)
{
    put(first, 0);
    while (todo.count) {
        zan_table_base_st *obj = todo.items[--todo.count].obj;
        host_graph_area_t *area = host_area(obj);
        const slots_t left = sources_of_parents(obj);
        if ((slots_t)(area->color_above & ~HOST_PAINTED & ~left) == 0)
            continue;
        area->color_above &= (uint8_t)(HOST_PAINTED | left);
        area->color_mask = mask_of(obj);
        put_children(obj, 0);
    }
}

/* The forward walk of one object. */
void paint(zan_table_base_st *obj)
{
    const table_colors_t *t = colors_of(obj);
    host_graph_area_t *area = host_area(obj);
    if (t->subscribed == 0 || (area->color_above & HOST_PAINTED))
        return;
    const needs_t wanted = to_needs(t, (slots_t)(t->subscribed & ~needed_below(obj)));
    area->color_above |= HOST_PAINTED;
    area->color_mask = mask_of(obj);
    for (uint32_t i = 0; wanted && i < area->num_parents; i++)
        count_up(host_parent_slot(obj, i)->ends.parent, wanted, 1);
}

} // namespace

void host_colors_start(void)
{
    num_needs = 0;
    memset(tables, 0, sizeof tables);
    for (table_colors_t &t : tables)
        memset(t.slot_of, no_slot, sizeof t.slot_of);
    for (const zan_table_def_t *def : zan_table_defs)
        for (uint32_t i = 0; i < def->num_subscriptions; i++)
            if (const uint8_t color = color_of(&def->subscriptions[i]))
                need_number(def->subscriptions[i].source_table, color);
    for (uint32_t i = 0; i < num_needs; i++)
        place_need(i);
    for (const zan_table_def_t *def : zan_table_defs)
        note_subscriptions(def);
}

void host_colors_bound(zan_table_base_st *parent, zan_table_base_st *child)
{
    if (colors_of(parent)->num_slots == 0 || colors_of(child)->num_slots == 0)
        return;
    if (const slots_t slots = needed(child))
        count_up(parent, to_needs(colors_of(child), slots), 1);
    if (const slots_t above = sources(parent))
        add_sources(child, to_needs(colors_of(parent), above));
}

void host_colors_unbinding(zan_table_base_st *parent, const zan_table_base_st *child)
{
    if (colors_of(parent)->num_slots == 0 || colors_of(child)->num_slots == 0)
        return;
    if (const slots_t slots = needed(child))
        count_up(parent, to_needs(colors_of(child), slots), -1);
}

void host_colors_unbound(zan_table_base_st *child)
{
    host_graph_area_t *area = host_area(child);
    if (area->color_above == 0)
        return;
    area->color_above &= (uint8_t)~HOST_PAINTED;
    area->color_mask = mask_of(child);
    drop_sources(child);
}

void host_colors_release(void)
{
    free(todo.items);
    todo = {};
}

void zan_colored_event_fwalk_on_create(zan_table_base_st *db_obj)
{
    paint(db_obj);
}

void zan_colored_event_fwalk_on_update(zan_table_base_st *db_obj)
{
    paint(db_obj);
}

void zan_colored_event_validate_child_colors(zan_table_base_st *db_obj)
{
    const uint8_t mask = host_area(db_obj)->color_mask;
    const uint8_t due = mask_of(db_obj);
    if (mask != due)
        _ringlog_3(ZAN_CLASS_ZAN_FILE_A_BUGTRK_ERROR__, HOST_TRACE_ID(COLOR_MISMATCH, 3),
                   (uint64_t)(uintptr_t)db_obj, mask, due);
}

uint8_t zan_color_get_self_mask(const zan_table_base_st *obj)
{
    return host_area(obj)->color_mask;
}
