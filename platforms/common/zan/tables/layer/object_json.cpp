/* Objects as JSON, for scripts.
 *
 *   {"table":"ipnhgroup","handle":"0x7f00","key":{"nhg_id":7},"npu_mask_req":"0x3",
 *    "num_elements":2,
 *    "attributes":{"weight":[3,null]},
 *    "references":{"ipvrf":{"key":{"vrf_id":1},"handle":"0x7f40"}},
 *    "unions":{"nexthop_next_obj":[{"variant":"ipnh","key":{"nh_id":1}},null]}}
 *
 * "table", "attributes", "references" and "unions" always stand, the rest when it is set. Where an
 * array has one entry for each member, NPU or index, null stands for what is not set. Numbers are
 * JSON numbers, everything else is a string in the form that the text has; a union that is set
 * without a variant has "variant":null.
 */
#include "value_text.h"

struct json_st {
    text_out_t text;
    bool first; /* nothing written yet in the innermost object or array */
};

static void json_string(json_st *j, std::string_view text)
{
    text_raw(&j->text, '"');
    j->text.escape = true;
    text_put(&j->text, text);
    j->text.escape = false;
    text_raw(&j->text, '"');
}

static void json_comma(json_st *j)
{
    if (!j->first)
        text_raw(&j->text, ',');
    j->first = false;
}

static void json_name(json_st *j, std::string_view name)
{
    json_comma(j);
    json_string(j, name);
    text_raw(&j->text, ':');
}

static void json_open(json_st *j, char bracket)
{
    text_raw(&j->text, bracket);
    j->first = true;
}

static void json_close(json_st *j, char bracket)
{
    text_raw(&j->text, bracket);
    j->first = false;
}

static void json_hex(json_st *j, uint64_t value)
{
    text_raw(&j->text, '"');
    text_hex(&j->text, value);
    text_raw(&j->text, '"');
}

static void json_value(json_st *j, const zan_field_def_t *field, const void *value)
{
    if (type_is_number(field->type)) {
        value_print(&j->text, field, value);
        return;
    }
    text_raw(&j->text, '"');
    j->text.escape = true;
    value_print(&j->text, field, value);
    j->text.escape = false;
    text_raw(&j->text, '"');
}

static void json_key(json_st *j, const zan_table_def_t *def, const void *key)
{
    json_name(j, "key");
    json_open(j, '{');
    for (unsigned i = 0; i < def->num_keys; i++) {
        json_name(j, def->keys[i].name);
        json_value(j, &def->keys[i], (const uint8_t *)key + def->keys[i].offset);
    }
    json_close(j, '}');
}

/* ---- Attributes ---- */

static bool attr_has_any(const zan_field_def_t *attr, const zan_table_base_st *obj, uint32_t count,
                         uint32_t num_elements)
{
    for (uint32_t i = 0; i < count; i++)
        if (*zan_obj_attr_set(attr, obj, i, num_elements))
            return true;
    return false;
}

static void json_attr(json_st *j, const zan_field_def_t *attr, const zan_table_base_st *obj,
                      uint32_t num_elements)
{
    uint32_t count = attr->shape == ZAN_SHAPE_REPEATED ? num_elements : attr->count;
    if (!attr_has_any(attr, obj, count, num_elements))
        return;
    json_name(j, attr->name);
    if (attr->shape == ZAN_SHAPE_SINGLE) {
        json_value(j, attr, zan_obj_attr(attr, obj, 0));
        return;
    }
    json_open(j, '[');
    for (uint32_t i = 0; i < count; i++) {
        json_comma(j);
        if (*zan_obj_attr_set(attr, obj, i, num_elements))
            json_value(j, attr, zan_obj_attr(attr, obj, i));
        else
            text_put(&j->text, "null");
    }
    json_close(j, ']');
}

static void json_attrs(json_st *j, const zan_table_def_t *def, const zan_table_base_st *obj,
                       uint32_t num_elements)
{
    json_name(j, "attributes");
    json_open(j, '{');
    for (unsigned i = 0; i < def->num_attrs; i++)
        json_attr(j, &def->attrs[i], obj, num_elements);
    json_close(j, '}');
}

/* ---- References and unions ---- */

static bool ref_is_set(const zan_ref_value_st *ref)
{
    return ref->refkey_set || ref->refhdl_set || ref->is_set || ref->selector;
}

static void json_parent(json_st *j, uint16_t parent_id, const zan_ref_value_st *ref)
{
    const zan_table_def_t *parent = zan_table_def_get(parent_id);
    if (ref->refkey_set && parent)
        json_key(j, parent, zan_ref_key(ref));
    if (ref->refhdl_set) {
        json_name(j, "handle");
        json_hex(j, ref->refhdl);
    }
}

static void json_ref_value(json_st *j, const zan_ref_def_t *ref, const zan_ref_value_st *value)
{
    json_open(j, '{');
    json_parent(j, ref->parent_id, value);
    json_close(j, '}');
}

static void json_union_value(json_st *j, const zan_union_def_t *u, const zan_ref_value_st *value)
{
    json_open(j, '{');
    json_name(j, "variant");
    if (!value->selector) {
        text_put(&j->text, "null");
    } else if (value->selector > u->num_variants) {
        text_number(&j->text, value->selector, 10);
    } else {
        const zan_variant_def_t *variant = &u->variants[value->selector - 1];
        json_string(j, variant->stem);
        json_parent(j, variant->parent_id, value);
    }
    json_close(j, '}');
}

/* A reference or union, one or an array of one for each member; `print` writes one. */
template <typename def_t>
static void json_stored_ref(json_st *j, const def_t *ref, const char *name,
                            const zan_table_base_st *obj, uint32_t num_elements,
                            void (*print)(json_st *, const def_t *, const zan_ref_value_st *))
{
    uint32_t count = ref->repeated ? num_elements : 1;
    bool any = false;
    for (uint32_t i = 0; i < count && !any; i++)
        any = ref_is_set(zan_obj_ref_at(obj, ref->offset, ref->stride, ref->repeated != 0, i));
    if (!any)
        return;
    json_name(j, name);
    if (ref->repeated)
        json_open(j, '[');
    for (uint32_t i = 0; i < count; i++) {
        const zan_ref_value_st *value =
            zan_obj_ref_at(obj, ref->offset, ref->stride, ref->repeated != 0, i);
        if (ref->repeated)
            json_comma(j);
        if (ref_is_set(value))
            print(j, ref, value);
        else
            text_put(&j->text, "null");
    }
    if (ref->repeated)
        json_close(j, ']');
}

static void json_refs(json_st *j, const zan_table_def_t *def, const zan_table_base_st *obj,
                      uint32_t num_elements)
{
    json_name(j, "references");
    json_open(j, '{');
    for (unsigned i = 0; i < def->num_refs; i++)
        json_stored_ref(j, &def->refs[i], def->refs[i].stem, obj, num_elements, json_ref_value);
    json_close(j, '}');
}

static void json_unions(json_st *j, const zan_table_def_t *def, const zan_table_base_st *obj,
                        uint32_t num_elements)
{
    json_name(j, "unions");
    json_open(j, '{');
    for (unsigned i = 0; i < def->num_unions; i++)
        if (!def->unions[i].nested_in)
            json_stored_ref(j, &def->unions[i], def->unions[i].attr, obj, num_elements,
                            json_union_value);
    json_close(j, '}');
}

size_t zan_obj_print_json(const zan_table_def_t *def, const zan_table_base_st *obj, char *out,
                          size_t size)
{
    json_st j = {{out, size, 0, false}, true};
    uint32_t num_elements = zan_obj_num_held(def, obj);

    json_open(&j, '{');
    json_name(&j, "table");
    json_string(&j, def->name);
    if (obj->obj_handle) {
        json_name(&j, "handle");
        json_hex(&j, obj->obj_handle);
    }
    if (obj->key_len)
        json_key(&j, def, zan_obj_key(def, obj));
    if (*zan_obj_npu_mask_req_set(def, obj)) {
        json_name(&j, "npu_mask_req");
        json_hex(&j, *zan_obj_npu_mask_req(def, obj));
    }
    if (num_elements) {
        json_name(&j, "num_elements");
        text_number(&j.text, num_elements, 10);
    }
    json_attrs(&j, def, obj, num_elements);
    json_refs(&j, def, obj, num_elements);
    json_unions(&j, def, obj, num_elements);
    json_close(&j, '}');
    return text_end(&j.text);
}
