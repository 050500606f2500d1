/* The forms of an object: their sizes, and the ways from one to another.
 *
 * An object is a fixed part, the platform's private part, and a dynamic part that holds the arrays
 * of what is repeated for each member. The arrays lie one behind the other, in the order of the
 * pointers to them in the fixed part: repeated attributes (values, then is-set bytes), references,
 * unions. So the dynamic part is one block, its start is the first pointer, and a copy of it is one
 * memcpy and a new set of pointers. An object without members has null pointers and no dynamic
 * part.
 *
 * Most tables have no repeated part at all. Every function here decides that with one test of
 * num_elements_offset, and then costs a memcpy of the fixed part.
 */
#include <cstdlib>
#include <cstring>

#include "../zan_tables_private.h"

/* The adjacency list of the tables that have one. */
static const size_t adj_list_bytes = 24;

static inline uint64_t pad8(uint64_t n)
{
    return (n + 7) & ~uint64_t{7};
}

/* Visit the arrays of the dynamic part in the order in which they lie: the offset of the pointer in
 * the fixed part, and the bytes of the array. */
template <typename visit_t>
static inline void for_each_array(const zan_table_def_t *def, uint64_t num_elements, visit_t visit)
{
    for (unsigned i = 0; i < def->num_attrs; i++)
        if (def->attrs[i].shape == ZAN_SHAPE_REPEATED)
            visit(def->attrs[i].offset,
                  pad8(num_elements * def->attrs[i].width) + pad8(num_elements));
    for (unsigned i = 0; i < def->num_refs; i++)
        if (def->refs[i].repeated)
            visit(def->refs[i].offset, pad8(num_elements * def->refs[i].stride));
    for (unsigned i = 0; i < def->num_unions; i++)
        if (def->unions[i].repeated && !def->unions[i].nested_in)
            visit(def->unions[i].offset, pad8(num_elements * def->unions[i].stride));
}

static inline uint8_t *pointer_at(const zan_table_base_st *obj, uint32_t offset)
{
    uint8_t *pointer;
    memcpy(&pointer, zan_obj_at(obj, offset), sizeof pointer);
    return pointer;
}

uint8_t *zan_obj_members(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    for (unsigned i = 0; i < def->num_attrs; i++)
        if (def->attrs[i].shape == ZAN_SHAPE_REPEATED)
            return pointer_at(obj, def->attrs[i].offset);
    for (unsigned i = 0; i < def->num_refs; i++)
        if (def->refs[i].repeated)
            return pointer_at(obj, def->refs[i].offset);
    for (unsigned i = 0; i < def->num_unions; i++)
        if (def->unions[i].repeated && !def->unions[i].nested_in)
            return pointer_at(obj, def->unions[i].offset);
    return nullptr;
}

/* A stored object whose members found no memory has their count and none of them: they read as not
 * set. */
static void copy_members(const zan_table_def_t *def, const zan_table_base_st *from, void *to,
                         uint32_t dyn_size)
{
    const uint8_t *members = zan_obj_members(def, from);
    if (members)
        memcpy(to, members, dyn_size);
    else
        memset(to, 0, dyn_size);
}

/* Where the attributes, references and unions begin; they run on to the end of the fixed part. */
static uint32_t attrs_offset(const zan_table_def_t *def)
{
    if (def->num_attrs)
        return def->attrs[0].offset;
    if (def->num_refs)
        return def->refs[0].offset;
    for (unsigned i = 0; i < def->num_unions; i++)
        if (!def->unions[i].nested_in)
            return def->unions[i].offset;
    return def->obj_size;
}

uint32_t zan_obj_dyn_size(const zan_table_def_t *def, uint32_t num_elements)
{
    if (ZAN_LIKELY(!def->num_elements_offset) || !num_elements)
        return 0;
    uint64_t size = 0;
    for_each_array(def, num_elements, [&size](uint32_t, uint64_t bytes) { size += bytes; });
    /* A count that nobody checked yet must not wrap round to a size that fits. */
    return size > UINT32_MAX ? UINT32_MAX & ~7u : (uint32_t)size;
}

void zan_obj_fix_ptrs(const zan_table_def_t *def, zan_table_base_st *obj, void *dyn)
{
    if (ZAN_LIKELY(!def->num_elements_offset))
        return;
    uint32_t num_elements = zan_obj_num_elements(def, obj);
    uint8_t *next = num_elements ? (uint8_t *)dyn : nullptr;
    for_each_array(def, num_elements, [obj, &next](uint32_t offset, uint64_t bytes) {
        memcpy(zan_obj_at(obj, offset), &next, sizeof next);
        if (next)
            next += bytes;
    });
}

zan_table_base_st *zan_obj_ctor(const zan_table_def_t *def, uint32_t private_size,
                                uint32_t num_elements)
{
    if (!def->num_elements_offset)
        num_elements = 0;
    if (num_elements > ZAN_ELEMENTS_MAX)
        return nullptr;
    size_t inner_size = (size_t)def->obj_size + private_size;
    size_t total_size = inner_size + zan_obj_dyn_size(def, num_elements);
    zan_table_base_st *obj = (zan_table_base_st *)calloc(1, total_size);
    if (!obj)
        return nullptr;
    obj->table_id = def->id;
    obj->total_obj_size = (uint32_t)total_size;
    obj->heap_form = 1;
    if (num_elements) {
        *(uint32_t *)zan_obj_at(obj, def->num_elements_offset) = num_elements;
        zan_obj_fix_ptrs(def, obj, (uint8_t *)obj + inner_size);
    }
    return obj;
}

/* Header and fixed part, and what lies behind them up to `size`. A stored object may be copied
 * while its write is under way: then an NPU thread lowers `inflight` meanwhile, and nothing else.
 */
static void copy_fixed(const zan_table_def_t *def, const zan_table_base_st *from, void *to,
                       uint32_t size)
{
    if (ZAN_LIKELY(!def->track_inflight)) {
        memcpy(to, (const void *)from, size);
        return;
    }
    constexpr uint32_t at = offsetof(zan_table_base_st, inflight), behind = at + 1;
    memcpy(to, (const void *)from, at);
    *((uint8_t *)to + at) = __atomic_load_n(&from->inflight, __ATOMIC_RELAXED);
    memcpy((uint8_t *)to + behind, (const uint8_t *)from + behind, size - behind);
}

void zan_obj_copy_to(const zan_table_def_t *def, uint32_t private_size,
                     const zan_table_base_st *from, bool from_has_private, zan_table_base_st *to)
{
    uint32_t inner_size = def->obj_size + private_size;
    if (from_has_private) {
        copy_fixed(def, from, to, inner_size);
    } else {
        copy_fixed(def, from, to, def->obj_size);
        if (private_size) /* the block may be a recycled one */
            memset((uint8_t *)to + def->obj_size, 0, private_size);
    }
    to->heap_form = 1;
    to->total_obj_size = inner_size;
    if (ZAN_LIKELY(!def->num_elements_offset))
        return;

    uint32_t dyn_size = zan_obj_dyn_size(def, zan_obj_num_elements(def, from));
    uint8_t *dyn = (uint8_t *)to + inner_size;
    if (dyn_size)
        copy_members(def, from, dyn, dyn_size);
    zan_obj_fix_ptrs(def, to, dyn);
    to->total_obj_size += dyn_size;
}

/* What only means something at this address or in this form, as zeros: a client gets no addresses.
 */
static void clear_form_fields(const zan_table_def_t *def, uint8_t *fixed)
{
    fixed[offsetof(zan_table_base_st, heap_form)] = 0;
    if (def->adj_list_offset)
        memset(fixed + def->adj_list_offset, 0, adj_list_bytes);
    if (def->num_elements_offset)
        for_each_array(def, 0, [fixed](uint32_t offset, uint64_t) {
            memset(fixed + offset, 0, sizeof(void *));
        });
}

uint32_t zan_obj_serialize(const zan_table_def_t *def, uint32_t private_size,
                           const zan_table_base_st *obj, void *buffer)
{
    uint8_t *out = (uint8_t *)buffer;
    uint32_t dyn_size = zan_obj_dyn_size(def, zan_obj_num_elements(def, obj));
    uint32_t written = def->obj_size;

    copy_fixed(def, obj, out, def->obj_size);
    clear_form_fields(def, out);
    if (private_size && obj->total_obj_size == def->obj_size + private_size + dyn_size) {
        memset(out + written, 0, private_size);
        written += private_size;
    }
    if (dyn_size)
        copy_members(def, obj, out + written, dyn_size);
    written += dyn_size;
    memcpy(out + offsetof(zan_table_base_st, total_obj_size), &written, sizeof written);
    return written;
}

void zan_obj_copy_attrs(const zan_table_def_t *def, const zan_table_base_st *from,
                        zan_table_base_st *to)
{
    uint32_t start = attrs_offset(def);
    if (ZAN_LIKELY(!def->num_elements_offset)) {
        memcpy(zan_obj_at(to, start), zan_obj_at(from, start), def->obj_size - start);
        return;
    }

    uint8_t *dyn =
        zan_obj_members(def, to); /* stays where it is; the copy overwrites the pointers */
    uint32_t num_elements = zan_obj_num_elements(def, from);
    memcpy(zan_obj_at(to, start), zan_obj_at(from, start), def->obj_size - start);
    *(uint32_t *)zan_obj_at(to, def->num_elements_offset) = num_elements;
    if (num_elements)
        copy_members(def, from, dyn, zan_obj_dyn_size(def, num_elements));
    zan_obj_fix_ptrs(def, to, dyn);
}
