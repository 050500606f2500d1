/* Does a request ask for anything that the stored object does not hold already?
 *
 * A request is sparse. What it does not set is no wish and never a difference; what it sets differs
 * when the stored object holds another value or none. A reference may be named by handle, by key or
 * by both: each way of naming that is used is compared. A handle of 0 asks for no parent, so it
 * differs when there is one, and the key beside it has no meaning.
 */
#include <cstring>

#include "../zan_tables_private.h"

static bool values_differ(const zan_field_def_t *attr, const zan_table_base_st *obj,
                          const zan_table_base_st *db_obj, uint32_t num_elements)
{
    if (attr->shape == ZAN_SHAPE_SINGLE || attr->shape == ZAN_SHAPE_ARRAY) {
        if (!*zan_obj_attr_set(attr, obj, 0, 0))
            return false;
        return !*zan_obj_attr_set(attr, db_obj, 0, 0) ||
               memcmp(zan_obj_attr(attr, obj, 0), zan_obj_attr(attr, db_obj, 0),
                      (size_t)attr->width * attr->count) != 0;
    }
    uint32_t count = attr->shape == ZAN_SHAPE_REPEATED ? num_elements : attr->count;
    for (uint32_t i = 0; i < count; i++) {
        if (!*zan_obj_attr_set(attr, obj, i, num_elements))
            continue;
        if (!*zan_obj_attr_set(attr, db_obj, i, num_elements) ||
            memcmp(zan_obj_attr(attr, obj, i), zan_obj_attr(attr, db_obj, i), attr->width) != 0)
            return true;
    }
    return false;
}

static bool ref_differs(uint16_t parent_id, const zan_ref_value_st *ref,
                        const zan_ref_value_st *db_ref)
{
    if (ref->refhdl_set) {
        uint64_t db_hdl = db_ref->refhdl_set ? db_ref->refhdl : 0;
        if (ref->refhdl != db_hdl)
            return true;
        if (!ref->refhdl)
            return false;
    }
    if (!ref->refkey_set)
        return false;
    return !db_ref->refkey_set ||
           zan_key_cmp(zan_table_def_get(parent_id), zan_ref_key(ref), zan_ref_key(db_ref)) != 0;
}

static bool union_differs(const zan_union_def_t *u, const zan_ref_value_st *value,
                          const zan_ref_value_st *db_value)
{
    if (!value->is_set && !value->selector)
        return false;
    if (value->selector != db_value->selector || (value->is_set && !db_value->is_set))
        return true;
    if (!value->selector || value->selector > u->num_variants)
        return false;
    return ref_differs(u->variants[value->selector - 1].parent_id, value, db_value);
}

/* The number of the first attribute, reference or union that differs, or -1. */
static int32_t first_difference(const zan_table_def_t *def, const zan_table_base_st *obj,
                                const zan_table_base_st *db_obj, uint32_t num_elements)
{
    int32_t index = 0;
    for (unsigned i = 0; i < def->num_attrs; i++, index++)
        if (values_differ(&def->attrs[i], obj, db_obj, num_elements))
            return index;
    for (unsigned i = 0; i < def->num_refs; i++, index++) {
        const zan_ref_def_t *ref = &def->refs[i];
        uint32_t count = ref->repeated ? num_elements : 1;
        for (uint32_t member = 0; member < count; member++)
            if (ref_differs(ref->parent_id, zan_obj_ref(ref, obj, member),
                            zan_obj_ref(ref, db_obj, member)))
                return index;
    }
    for (unsigned i = 0; i < def->num_unions; i++, index++) {
        const zan_union_def_t *u = &def->unions[i];
        if (u->nested_in) /* seen in the union that stores it */
            continue;
        uint32_t count = u->repeated ? num_elements : 1;
        for (uint32_t member = 0; member < count; member++)
            if (union_differs(u, zan_obj_union(u, obj, member), zan_obj_union(u, db_obj, member)))
                return index;
    }
    return -1;
}

bool zan_obj_attrs_differ(const zan_table_def_t *def, const zan_table_base_st *obj,
                          const zan_table_base_st *db_obj, int32_t *index)
{
    uint32_t num_elements = zan_obj_num_elements(def, obj);
    bool counts_differ = num_elements != zan_obj_num_held(def, db_obj);
    int32_t first = counts_differ ? -1 : first_difference(def, obj, db_obj, num_elements);
    if (index)
        *index = first;
    return counts_differ || first >= 0;
}
