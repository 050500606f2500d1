#include "object_maker.h"

#include <cstring>

namespace bench
{

namespace
{

/* Numbers in network order at the end of the address, so that seeds sort as their keys do. */
void fill_address(uint8_t *bytes, uint32_t size, uint32_t seed)
{
    memset(bytes, 0, size);
    bytes[0] = 0x20;
    for (uint32_t i = 0; i < 4 && i + 1 < size; i++)
        bytes[size - 1 - i] = (uint8_t)(seed >> 8 * i);
}

} // namespace

void fill_value(const zan_field_def_t *field, void *value, uint32_t seed)
{
    switch (field->type) {
    case ZAN_TYPE_BOOL:
        *(uint8_t *)value = seed & 1;
        return;
    case ZAN_TYPE_ENUM:
        *(uint32_t *)value = field->names[seed % field->num_names].value;
        return;
    case ZAN_TYPE_BITS:
        *(uint32_t *)value = field->names[seed % field->num_names].value;
        return;
    case ZAN_TYPE_NPU_MASK:
        *(uint64_t *)value = 1;
        return;
    case ZAN_TYPE_IPV4:
    case ZAN_TYPE_IPV6:
    case ZAN_TYPE_MAC:
        fill_address((uint8_t *)value, field->width, seed);
        return;
    case ZAN_TYPE_IPV4_PREFIX:
    case ZAN_TYPE_IPV6_PREFIX: {
        auto *bytes = (uint8_t *)value;
        fill_address(bytes, field->width - 1u, seed);
        bytes[field->width - 1] = (uint8_t)((field->width - 1) * 8);
        return;
    }
    default:
        memset(value, 0, field->width);
        memcpy(value, &seed, field->width < 4 ? field->width : 4);
    }
}

object_t with_key(const zan_table_def_t *def, uint32_t seed, zan_table_operation_et operation,
                  uint32_t members)
{
    object_t obj = empty(def, operation, members);
    for (uint32_t i = 0; i < def->num_keys; i++)
        fill_value(&def->keys[i], (uint8_t *)zan_obj_key(def, obj.get()) + def->keys[i].offset,
                   seed);
    obj->key_len = def->key_size;
    return obj;
}

void fill_attributes(const zan_table_def_t *def, zan_table_base_st *obj, uint32_t seed)
{
    const uint32_t members = zan_obj_num_elements(def, obj);
    for (uint32_t i = 0; i < def->num_attrs; i++) {
        const zan_field_def_t *attr = &def->attrs[i];
        const uint32_t count = attr->shape == ZAN_SHAPE_REPEATED ? members : attr->count;
        for (uint32_t m = 0; m < count; m++) {
            fill_value(attr, zan_obj_attr(attr, obj, m), seed + i * 7 + m);
            *zan_obj_attr_set(attr, obj, m, members) = 1;
        }
    }
}

void set_key(zan_ref_value_st *ref, const zan_table_def_t *parent_def,
             const zan_table_base_st *parent)
{
    memcpy(zan_ref_key(ref), zan_obj_key(parent_def, parent), parent_def->key_size);
    ref->refkey_set = 1;
}

void set_handle(zan_ref_value_st *ref, uint64_t handle)
{
    ref->refhdl = handle;
    ref->refhdl_set = 1;
}

std::vector<any_reference_t> references(const zan_table_def_t *def)
{
    std::vector<any_reference_t> all;
    for (uint32_t i = 0; i < def->num_refs; i++) {
        const zan_ref_def_t *r = &def->refs[i];
        all.push_back({r->stem, zan_table_defs[r->parent_id], r->repeated != 0, 0, r->inherits,
                       r->num_inherits, i});
    }
    for (uint32_t i = 0; i < def->num_unions; i++) {
        const zan_union_def_t *u = &def->unions[i];
        for (uint32_t v = 0; v < u->num_variants && !u->nested_in; v++)
            all.push_back({std::string(u->attr) + "." + u->variants[v].stem,
                           zan_table_defs[u->variants[v].parent_id], u->repeated != 0,
                           u->variants[v].selector, u->variants[v].inherits,
                           u->variants[v].num_inherits, i});
    }
    return all;
}

zan_ref_value_st *select_reference(const zan_table_def_t *def, const any_reference_t &ref,
                                   zan_table_base_st *obj)
{
    if (ref.selector == 0)
        return zan_obj_ref(&def->refs[ref.index], obj, 0);
    zan_ref_value_st *value = zan_obj_union(&def->unions[ref.index], obj, 0);
    value->selector = ref.selector;
    value->is_set = 1;
    return value;
}

} // namespace bench
