/* Objects as lines of text: the printer. object_parse.cpp reads the same form back.
 *
 * A line is "<path>=<value>" tokens with a blank between them: key, NPU mask, attributes,
 * references, unions, each only when set. An object without a key is named by its handle, which
 * then stands in the key's place. A reference prints the parent's key when it holds it and the
 * handle otherwise; a handle is an address, good for this run of the server only. The member count
 * follows from the greatest index and is written out only when the last member has nothing set.
 */
#include "value_text.h"

/* The left side of a token but for its last part: "next_obj[2].ipnh". */
struct path_t {
    const char *stem; /* null for a key */
    bool has_index;
    uint32_t index;
    const char *variant; /* null outside a union */
};

/* A blank if need be, the path, and '='. */
static void put_left_side(text_out_t *t, const path_t *path, const char *last)
{
    if (t->len)
        text_char(t, ' ');
    const char *separator = "";
    if (path->stem) {
        text_put(t, path->stem);
        separator = ".";
    }
    if (path->has_index) {
        text_char(t, '[');
        text_number(t, path->index, 10);
        text_char(t, ']');
    }
    for (const char *part : {path->variant, last}) {
        if (!part)
            continue;
        text_put(t, separator);
        text_put(t, part);
        separator = ".";
    }
    text_char(t, '=');
}

static void print_key(text_out_t *t, const zan_table_def_t *def, const void *key,
                      const path_t *path)
{
    for (unsigned i = 0; i < def->num_keys; i++) {
        const zan_field_def_t *field = &def->keys[i];
        put_left_side(t, path, field->name);
        value_print(t, field, (const uint8_t *)key + field->offset);
    }
}

static void print_attr(text_out_t *t, const zan_field_def_t *attr, const zan_table_base_st *obj,
                       uint32_t num_elements)
{
    uint32_t count = attr->shape == ZAN_SHAPE_REPEATED ? num_elements : attr->count;
    for (uint32_t i = 0; i < count; i++) {
        if (!*zan_obj_attr_set(attr, obj, i, num_elements))
            continue;
        path_t path = {attr->name, attr->shape != ZAN_SHAPE_SINGLE, i, nullptr};
        put_left_side(t, &path, nullptr);
        value_print(t, attr, zan_obj_attr(attr, obj, i));
    }
}

/* Key or handle of a reference; whether it had either. A handle of 0, which drops the parent,
 * prints beside the key: the key alone would read as a reference that stands. */
static bool print_parent(text_out_t *t, uint16_t parent_id, const zan_ref_value_st *ref,
                         const path_t *path)
{
    const zan_table_def_t *parent = zan_table_def_get(parent_id);
    bool has_key = ref->refkey_set && parent && parent->num_keys;
    if (has_key)
        print_key(t, parent, zan_ref_key(ref), path);
    if (ref->refhdl_set && (!has_key || !ref->refhdl)) {
        put_left_side(t, path, "handle");
        text_hex(t, ref->refhdl);
    }
    return has_key || ref->refhdl_set;
}

static void print_union(text_out_t *t, const zan_union_def_t *u, const zan_ref_value_st *value,
                        uint32_t member)
{
    path_t path = {u->attr, u->repeated != 0, member, nullptr};
    if (!value->selector) {
        if (!value->is_set)
            return;
        put_left_side(t, &path, nullptr);
        text_put(t, "none");
    } else if (value->selector > u->num_variants) {
        put_left_side(t, &path, nullptr);
        text_number(t, value->selector, 10);
    } else {
        const zan_variant_def_t *variant = &u->variants[value->selector - 1];
        path.variant = variant->stem;
        if (print_parent(t, variant->parent_id, value, &path))
            return;
        path.variant = nullptr; /* a variant that names no parent yet */
        put_left_side(t, &path, nullptr);
        text_put(t, variant->stem);
    }
}

static void print_refs(text_out_t *t, const zan_table_def_t *def, const zan_table_base_st *obj,
                       uint32_t num_elements)
{
    for (unsigned i = 0; i < def->num_refs; i++) {
        const zan_ref_def_t *ref = &def->refs[i];
        uint32_t count = ref->repeated ? num_elements : 1;
        for (uint32_t member = 0; member < count; member++) {
            path_t path = {ref->stem, ref->repeated != 0, member, nullptr};
            print_parent(t, ref->parent_id, zan_obj_ref(ref, obj, member), &path);
        }
    }
    for (unsigned i = 0; i < def->num_unions; i++) {
        const zan_union_def_t *u = &def->unions[i];
        uint32_t count = u->nested_in ? 0 : u->repeated ? num_elements : 1;
        for (uint32_t member = 0; member < count; member++)
            print_union(t, u, zan_obj_union(u, obj, member), member);
    }
}

/* Whether anything of a member prints, so that its index tells the count. */
static bool member_has_text(const zan_table_def_t *def, const zan_table_base_st *obj,
                            uint32_t member, uint32_t num_elements)
{
    for (unsigned i = 0; i < def->num_attrs; i++)
        if (def->attrs[i].shape == ZAN_SHAPE_REPEATED &&
            *zan_obj_attr_set(&def->attrs[i], obj, member, num_elements))
            return true;
    for (unsigned i = 0; i < def->num_refs; i++) {
        if (!def->refs[i].repeated)
            continue;
        const zan_ref_value_st *ref = zan_obj_ref(&def->refs[i], obj, member);
        if (ref->refkey_set || ref->refhdl_set)
            return true;
    }
    for (unsigned i = 0; i < def->num_unions; i++) {
        if (!def->unions[i].repeated || def->unions[i].nested_in)
            continue;
        const zan_ref_value_st *value = zan_obj_union(&def->unions[i], obj, member);
        if (value->is_set || value->selector)
            return true;
    }
    return false;
}

size_t zan_key_print(const zan_table_def_t *def, const void *key, char *out, size_t size)
{
    text_out_t t = {out, size, 0, false};
    const path_t top = {};
    print_key(&t, def, key, &top);
    return text_end(&t);
}

size_t zan_obj_print(const zan_table_def_t *def, const zan_table_base_st *obj, char *out,
                     size_t size)
{
    text_out_t t = {out, size, 0, false};
    const path_t top = {};
    uint32_t num_elements = zan_obj_num_held(def, obj);

    if (obj->key_len) {
        print_key(&t, def, zan_obj_key(def, obj), &top);
    } else if (obj->obj_handle) {
        put_left_side(&t, &top, "handle");
        text_hex(&t, obj->obj_handle);
    }
    if (*zan_obj_npu_mask_req_set(def, obj)) {
        put_left_side(&t, &top, "npu_mask_req");
        text_hex(&t, *zan_obj_npu_mask_req(def, obj));
    }
    if (num_elements && !member_has_text(def, obj, num_elements - 1, num_elements)) {
        put_left_side(&t, &top, "num_elements");
        text_number(&t, num_elements, 10);
    }
    for (unsigned i = 0; i < def->num_attrs; i++)
        print_attr(&t, &def->attrs[i], obj, num_elements);
    print_refs(&t, def, obj, num_elements);
    return text_end(&t);
}
