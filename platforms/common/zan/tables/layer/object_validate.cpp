/* Is everything in an object a value that its type allows?
 *
 * The bytes come from a client and mean nothing yet. Sizes and member count were checked and the
 * pointers fixed up before, so every address here is good; every content may be bad. What is not
 * set has no meaning and is not looked at. In good objects, nearly all, no text is written.
 */
#include "value_text.h"

/* Where the walk over the fields stands; turned into text only when something is wrong. */
struct place_t {
    const char *stem;
    bool has_index;
    uint32_t index;
    const char *variant; /* null outside a union */
};

struct check_st {
    char *where;
    size_t where_size;
};

/* Write the path and hand back the name of the field at its end. */
static const char *report(const check_st *check, const place_t *place, const char *field)
{
    text_out_t t = {check->where, check->where_size, 0, false};
    text_put(&t, place->stem ? place->stem : "");
    if (place->has_index) {
        text_char(&t, '[');
        text_number(&t, place->index, 10);
        text_char(&t, ']');
    }
    for (const char *part : {place->variant, field}) {
        if (!part)
            continue;
        if (t.len)
            text_char(&t, '.');
        text_put(&t, part);
    }
    text_end(&t);
    return field ? field : place->stem;
}

static const char *check_key(const check_st *check, const zan_table_def_t *def, const void *key,
                             const place_t *place)
{
    for (unsigned i = 0; i < def->num_keys; i++) {
        const zan_field_def_t *field = &def->keys[i];
        if (!value_is_valid(field, (const uint8_t *)key + field->offset))
            return report(check, place, field->name);
    }
    return nullptr;
}

static const char *check_attr(const check_st *check, const zan_field_def_t *attr,
                              const zan_table_base_st *obj, uint32_t num_elements)
{
    /* Nearly all attributes of nearly all objects. */
    if (attr->shape == ZAN_SHAPE_SINGLE && !*zan_obj_attr_set(attr, obj, 0, 0))
        return nullptr;
    uint32_t count = attr->shape == ZAN_SHAPE_REPEATED ? num_elements : attr->count;
    for (uint32_t i = 0; i < count; i++) {
        uint8_t set = *zan_obj_attr_set(attr, obj, i, num_elements);
        if (set > 1 || (set && !value_is_valid(attr, zan_obj_attr(attr, obj, i)))) {
            place_t place = {attr->name, attr->shape != ZAN_SHAPE_SINGLE, i, nullptr};
            return report(check, &place, nullptr);
        }
    }
    return nullptr;
}

static const char *check_parent(const check_st *check, uint16_t parent_id,
                                const zan_ref_value_st *ref, const place_t *place)
{
    if (ref->refkey_set > 1)
        return report(check, place, nullptr);
    if (ref->refhdl_set > 1)
        return report(check, place, "handle");
    const zan_table_def_t *parent = zan_table_def_get(parent_id);
    if (!ref->refkey_set || !parent)
        return nullptr;
    return check_key(check, parent, zan_ref_key(ref), place);
}

static const char *check_ref(const check_st *check, const zan_ref_def_t *ref,
                             const zan_ref_value_st *value, uint32_t member)
{
    place_t place = {ref->stem, ref->repeated != 0, member, nullptr};
    if (value->selector || value->is_set)
        return report(check, &place, nullptr);
    return check_parent(check, ref->parent_id, value, &place);
}

static const char *check_union(const check_st *check, const zan_union_def_t *u,
                               const zan_ref_value_st *value, uint32_t member)
{
    place_t place = {u->attr, u->repeated != 0, member, nullptr};
    if (value->is_set > 1 || value->selector > u->num_variants)
        return report(check, &place, nullptr);
    if (!value->selector) /* without a variant nothing says what the key would be */
        return value->refkey_set || value->refhdl_set ? report(check, &place, nullptr) : nullptr;
    if (!value->is_set) /* a variant of a union that is not set */
        return report(check, &place, nullptr);
    const zan_variant_def_t *variant = &u->variants[value->selector - 1];
    place.variant = variant->stem;
    return check_parent(check, variant->parent_id, value, &place);
}

static const char *check_refs(const check_st *check, const zan_table_def_t *def,
                              const zan_table_base_st *obj, uint32_t num_elements)
{
    for (unsigned i = 0; i < def->num_refs; i++) {
        const zan_ref_def_t *ref = &def->refs[i];
        uint32_t count = ref->repeated ? num_elements : 1;
        for (uint32_t member = 0; member < count; member++)
            if (const char *bad = check_ref(check, ref, zan_obj_ref(ref, obj, member), member))
                return bad;
    }
    for (unsigned i = 0; i < def->num_unions; i++) {
        const zan_union_def_t *u = &def->unions[i];
        uint32_t count = u->nested_in ? 0 : u->repeated ? num_elements : 1;
        for (uint32_t member = 0; member < count; member++)
            if (const char *bad = check_union(check, u, zan_obj_union(u, obj, member), member))
                return bad;
    }
    return nullptr;
}

const char *zan_obj_invalid_field(const zan_table_def_t *def, const zan_table_base_st *obj,
                                  char *where, size_t where_size)
{
    const check_st check = {where, where_size};
    const place_t top = {};
    uint32_t num_elements = zan_obj_num_elements(def, obj);
    if (where_size)
        where[0] = '\0';

    if (obj->key_len)
        if (const char *bad = check_key(&check, def, zan_obj_key(def, obj), &top))
            return bad;
    if (*zan_obj_npu_mask_req_set(def, obj) > 1)
        return report(&check, &top, "npu_mask_req");
    for (unsigned i = 0; i < def->num_attrs; i++)
        if (const char *bad = check_attr(&check, &def->attrs[i], obj, num_elements))
            return bad;
    return check_refs(&check, def, obj, num_elements);
}
