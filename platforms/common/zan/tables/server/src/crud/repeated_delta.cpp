/* What an update means for the members of a table that is programmed by lists.
 *
 * The members of the old and of the new object become element records; each old one looks for its
 * partner among the new ones, and the platform gets lists of what is added, deleted and modified in
 * one call. A create has no old side, a delete no new one.
 *
 * Whether two records are the same member is the platform's to say, but members that differ in the
 * table's match field are not asked about: the new members stand sorted by it, so that lists of
 * thousands cost a search for each old member. All arrays are on the heap, with an entry to spare:
 * an accessor's index that is equal to the count reads that one.
 */
#include "repeated_delta.h"
#include "table_server_api_common.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace
{

enum element_state_t : uint32_t {
    UNMATCHED = 0,
    EQUAL = 1,
    DELETED = 2,
    MODIFIED = 3,
    ADDED = 4,
};

/* The fields that every element record begins with. */
struct element_head_t {
    zan_table_base_st *owner;
    uint32_t index, side;
};

struct lists_t {
    const zan_table_def_t *def;
    const zan_element_def_t *match; /* null: every pair may be the same member */
    zan_repeated_delta_t delta;
    uint32_t *old_state, *new_state, *new_to_old;
    uint32_t *by_match; /* new elements, by match field and then by index */
};

const uint8_t *value_of(const zan_table_def_t *def, const zan_element_def_t *e,
                        const zan_table_base_st *obj, uint32_t member, uint8_t *is_set)
{
    if (e->kind == ZAN_ELEMENT_ATTR) {
        const zan_field_def_t *attr = &def->attrs[e->index];
        *is_set = *zan_obj_attr_set(attr, obj, member, zan_obj_num_elements(def, obj));
        return (const uint8_t *)zan_obj_attr(attr, obj, member);
    }
    if (e->kind == ZAN_ELEMENT_UNION) {
        const zan_ref_value_st *value = zan_obj_union(&def->unions[e->index], obj, member);
        *is_set = value->is_set;
        return (const uint8_t *)value;
    }
    const zan_ref_value_st *value = zan_obj_ref(&def->refs[e->index], obj, member);
    *is_set = e->kind == ZAN_ELEMENT_REFKEY ? value->refkey_set : value->refhdl_set;
    return e->kind == ZAN_ELEMENT_REFKEY ? (const uint8_t *)zan_ref_key(value)
                                         : (const uint8_t *)&value->refhdl;
}

void build_elements(const zan_table_def_t *def, zan_table_base_st *obj, uint32_t count,
                    uint32_t side, uint8_t *elems)
{
    for (uint32_t member = 0; member < count; member++) {
        uint8_t *elem = elems + (size_t)member * def->element_record_bytes;
        *(element_head_t *)elem = {obj, member, side};
        for (uint32_t i = 0; i < def->num_elements; i++) {
            const zan_element_def_t *e = &def->elements[i];
            memcpy(elem + e->offset, value_of(def, e, obj, member, elem + e->set_offset), e->width);
        }
    }
}

const zan_element_def_t *match_field(const zan_table_def_t *def)
{
    for (uint32_t i = 0; i < def->num_elements; i++)
        if (def->element_match_field &&
            strcmp(def->elements[i].name, def->element_match_field) == 0)
            return &def->elements[i];
    return nullptr;
}

const uint8_t *old_elem(const lists_t *l, uint32_t i)
{
    return l->delta.old_elems + (size_t)i * l->def->element_record_bytes;
}

const uint8_t *new_elem(const lists_t *l, uint32_t j)
{
    return l->delta.new_elems + (size_t)j * l->def->element_record_bytes;
}

int compare_match(const lists_t *l, const uint8_t *a, const uint8_t *b)
{
    if (l->match && a[l->match->set_offset] != b[l->match->set_offset])
        return a[l->match->set_offset] < b[l->match->set_offset] ? -1 : 1;
    return l->match ? memcmp(a + l->match->offset, b + l->match->offset, l->match->width) : 0;
}

/* A member whose match field is not set may be any: it goes and comes, it is never the same. */
bool is_named(const lists_t *l, const uint8_t *elem)
{
    return !l->match || elem[l->match->set_offset];
}

/* ---- The steps ---- */

uint8_t *make_elements(uint32_t count, const zan_table_def_t *def)
{
    return (uint8_t *)zan_heap_calloc(((size_t)count + 1) * def->element_record_bytes);
}

void make_lists(lists_t *l, const zan_table_def_t *def, zan_table_base_st *new_obj,
                zan_table_base_st *old_obj)
{
    l->def = def;
    l->match = match_field(def);
    zan_repeated_delta_t *d = &l->delta;
    d->old_obj = old_obj;
    d->new_obj = new_obj;
    d->old_count = old_obj ? zan_obj_num_held(def, old_obj) : 0;
    d->new_count = new_obj ? zan_obj_num_held(def, new_obj) : 0;
    const size_t old_room = (size_t)d->old_count + 1, new_room = (size_t)d->new_count + 1;
    auto *words = (uint32_t *)zan_heap_calloc((2 * old_room + 6 * new_room) * sizeof(uint32_t));
    ZAN_ASSERT(words, "__old");
    l->old_state = words;
    d->del_array = words + old_room;
    words += 2 * old_room;
    for (uint32_t **array : {&l->new_state, &l->new_to_old, &l->by_match, &d->add_array,
                             &d->mod_array, &d->mod_new_to_old_array}) {
        *array = words;
        words += new_room;
    }
    uint8_t *__old = make_elements(d->old_count, def);
    ZAN_ASSERT(__old, "__old");
    uint8_t *__new = make_elements(d->new_count, def);
    ZAN_ASSERT(__new, "__new");
    d->old_elems = __old;
    d->new_elems = __new;
    build_elements(def, old_obj, d->old_count, 0, __old);
    build_elements(def, new_obj, d->new_count, 1, __new);
}

void free_lists(lists_t *l)
{
    zan_heap_free(l->delta.old_elems);
    zan_heap_free(l->delta.new_elems);
    zan_heap_free(l->old_state);
}

void sort_new(lists_t *l)
{
    for (uint32_t j = 0; j < l->delta.new_count; j++)
        l->by_match[j] = j;
    std::sort(l->by_match, l->by_match + l->delta.new_count, [l](uint32_t a, uint32_t b) {
        const int order = compare_match(l, new_elem(l, a), new_elem(l, b));
        return order ? order < 0 : a < b;
    });
}

/* The first new element that the platform takes for the old one. An element that has a partner
 * already is not left out: a later match overwrites the earlier. */
void match_old(lists_t *l, uint32_t i, uint32_t *mod_count)
{
    const srv_zan_table_props_t *props = zan_table_state(l->def)->props;
    const uint8_t *old = old_elem(l, i);
    if (!is_named(l, old))
        return;
    const uint32_t *end = l->by_match + l->delta.new_count;
    const uint32_t *at = std::lower_bound((const uint32_t *)l->by_match, end, old,
                                          [l](uint32_t j, const uint8_t *elem) {
                                              return compare_match(l, new_elem(l, j), elem) < 0;
                                          });
    for (; at != end && compare_match(l, new_elem(l, *at), old) == 0; at++) {
        if (!is_named(l, new_elem(l, *at)))
            continue;
        const int32_t answer = props->compare_dynamic_struct_deprecated(old, new_elem(l, *at));
        if (answer == ZAN_ELEMENT_OTHER)
            continue;
        const element_state_t state = answer == ZAN_ELEMENT_MODIFIED ? MODIFIED : EQUAL;
        l->old_state[i] = l->new_state[*at] = state;
        if (state == MODIFIED) {
            l->new_to_old[*at] = i;
            ++*mod_count;
        }
        return;
    }
}

void match_all(lists_t *l)
{
    zan_repeated_delta_t *d = &l->delta;
    sort_new(l);
    for (uint32_t i = 0; i < d->old_count; i++) {
        match_old(l, i, &d->mod_count);
        if (l->old_state[i] != UNMATCHED)
            continue;
        l->old_state[i] = DELETED;
        d->del_count++;
    }
    for (uint32_t j = 0; j < d->new_count; j++)
        if (l->new_state[j] == UNMATCHED) {
            l->new_state[j] = ADDED;
            d->add_count++;
        }
}

void fill_arrays(lists_t *l)
{
    zan_repeated_delta_t *d = &l->delta;
    uint32_t __add_idx = 0, __mod_idx = 0, __del_idx = 0;
    for (uint32_t i = 0; i < d->old_count; i++)
        if (l->old_state[i] == DELETED)
            d->del_array[__del_idx++] = i;
    for (uint32_t j = 0; j < d->new_count; j++) {
        if (l->new_state[j] == ADDED)
            d->add_array[__add_idx++] = j;
        if (l->new_state[j] == MODIFIED) {
            d->mod_array[__mod_idx] = j;
            d->mod_new_to_old_array[__mod_idx++] = l->new_to_old[j];
        }
    }
    const uint32_t add_count = d->add_count, mod_count = d->mod_count, del_count = d->del_count;
    ZAN_TRACE_TABLE(zan_slt_table_id(l->def->id, ZAN_TRACE_LEVEL_VERBOSE), l->def->id, DELTA_COUNTS,
                    add_count, del_count, mod_count, mod_count);
    ZAN_ASSERT(add_count == __add_idx, "add_count == __add_idx");
    ZAN_ASSERT(mod_count == __mod_idx, "mod_count == __mod_idx");
    ZAN_ASSERT(del_count == __del_idx, "del_count == __del_idx");
    d->mod_new_to_old_count = mod_count;
}

} // namespace

zan_rcode zan_update_repeated_new(const zan_table_def_t *def, zan_table_base_st *new_obj,
                                  zan_table_base_st *old_obj)
{
    const zan_trace_class_t verbose = zan_slt_table_id(def->id, ZAN_TRACE_LEVEL_VERBOSE);
    ZAN_TRACE_TABLE(verbose, def->id, DELTA_OBJECTS, new_obj, old_obj);
    lists_t lists = {};
    make_lists(&lists, def, new_obj, old_obj);
    match_all(&lists);
    fill_arrays(&lists);
    const zan_table_base_st *obj = new_obj ? new_obj : old_obj;
    const zan_rcode rc =
        zan_table_state(def)->props->update_deprecated(&lists.delta, obj ? obj->npu_id : 0);
    ZAN_TRACE_TABLE(verbose, def->id, DELTA_DONE, lists.delta.del_count, rc);
    free_lists(&lists);
    return rc;
}

/* ---- For the platform ---- */

const void *zan_delta_element(const zan_table_def_t *def, const uint8_t *elems,
                              const uint32_t *array, uint32_t count, uint32_t i)
{
    return i <= count ? elems + (size_t)array[i] * def->element_record_bytes : nullptr;
}

void zan_dump_element(const zan_table_def_t *def, FILE *file, const void *element)
{
    FILE *own = nullptr;
    if (!file) {
        char path[96];
        snprintf(path, sizeof path, "/tmp/svr_%s_update_dump", def->name);
        file = own = fopen(path, "a+");
        if (!file)
            return;
    }
    const auto *bytes = (const uint8_t *)element;
    fprintf(file, "** Start dumping data **\n");
    for (uint32_t i = 0; i < def->num_elements; i++) {
        const zan_element_def_t *e = &def->elements[i];
        uint64_t value = 0;
        memcpy(&value, bytes + e->offset, e->width < sizeof value ? e->width : sizeof value);
        fprintf(file, "%s(%s): 0x%llx(size=%s)\n", e->name,
                bytes[e->set_offset] ? "SET" : "NOT SET", (unsigned long long)value, e->type);
    }
    if (own)
        fclose(own);
}
