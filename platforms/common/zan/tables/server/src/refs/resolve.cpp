/* Reference resolution: every reference of a request becomes a validated pair of key and handle.
 *
 * A client names a parent by key, by handle, or both. A missing parent fails the operation at once.
 * What the child inherits is copied on each resolution, and the NPUs of all parents are gathered.
 * Nothing is bound here. No allocation: the lookup record is a header and a key on the stack.
 */
#include "refs.h"

namespace
{

struct resolve_op_t {
    const zan_table_def_t *def;
    zan_table_base_st *new_obj, *db_obj;
    uint8_t is_inside_bwalk;
    uint32_t trans_id;
};

#define RESOLVE_TRACE(op, level, message, ...)                                                     \
    ZAN_TRACE_TABLE(zan_slt_obj_base((op)->new_obj, ZAN_TRACE_LEVEL_##level), (op)->def->id,       \
                    message, __VA_ARGS__)

zan_rcode report(const resolve_op_t *op, const zan_ref_def_t *ref, zan_rcode rc)
{
    RESOLVE_TRACE(op, ERROR, RESOLVE_FAILED, op->trans_id, ref->parent_id, rc);
    zan_send_async_resolve_error(op->new_obj, rc);
    return rc;
}

zan_rcode not_found(const resolve_op_t *op, const zan_ref_def_t *ref)
{
    zan_counter_raise(op->def->id, ZAN_CTR_RESOLVE_REF_FAILED);
    return report(op, ref, ZAN_RC_NOT_FOUND);
}

/* What the request says about one reference, once the handle's is-set byte has been looked at. */
enum given_t {
    GIVEN_NOTHING,
    GIVEN_KEY_ONLY,
    GIVEN_HANDLE,
    GIVEN_DROP
};

given_t what_is_given(const resolve_op_t *op, zan_ref_value_st *value,
                      const zan_ref_value_st *old_value)
{
    if (value->refhdl_set == 1 && value->refhdl != 0)
        return GIVEN_HANDLE;
    if (op->db_obj && value->refhdl_set == 1) { /* set and zero: drop it */
        zan_counter_raise(op->def->id, ZAN_CTR_RESOLVE_DROPPED);
        if (old_value && old_value->refhdl_set == 1 && old_value->refhdl != 0)
            return GIVEN_DROP;
        value->refhdl_set = 0;
    }
    return value->refkey_set == 1 ? GIVEN_KEY_ONLY : GIVEN_NOTHING;
}

void drop(const resolve_op_t *op, const zan_ref_def_t *ref, zan_ref_value_st *value,
          const zan_ref_value_st *old_value)
{
    memset(zan_ref_key(value), 0, ref->key_size);
    value->refkey_set = 1;
    RESOLVE_TRACE(op, VERBOSE, RESOLVE_OLD_DROPPED, op->trans_id, op->db_obj, old_value->refhdl);
}

/* Find the parent by what is given, and fill in what is not. */
zan_rcode find_parent(const resolve_op_t *op, const zan_ref_def_t *ref, zan_ref_value_st *value,
                      zan_table_base_st **parent)
{
    const zan_table_def_t *parent_def = zan_table_defs[ref->parent_id];
    zan_lookup_t lookup;
    zan_lookup_init(&lookup, parent_def);
    zan_table_base_st *resolved = nullptr;
    if (value->refhdl_set == 1 && value->refhdl != 0) {
        lookup.base.obj_handle = value->refhdl;
        resolved = zan_db_get(&lookup.base);
        if (!resolved)
            return not_found(op, ref);
    }
    if (value->refkey_set != 1) {
        if (!resolved)
            return not_found(op, ref);
        memcpy(zan_ref_key(value), zan_obj_key(parent_def, resolved), parent_def->key_size);
        value->refkey_set = 1;
    } else {
        lookup.base.obj_handle = 0;
        zan_lookup_set_key(&lookup, parent_def, zan_ref_key(value));
        zan_table_base_st *by_key = zan_db_get(&lookup.base);
        if (!by_key) {
            const zan_rcode rc = not_found(op, ref);
            zan_server_print_key(parent_def, ZAN_TMSG_PARENT_KEY_NOT_FOUND, zan_ref_key(value),
                                 op->trans_id, op->def->id);
            return rc;
        }
        if (!resolved) {
            resolved = by_key;
        } else if (resolved != by_key) { /* the handle stands, the key is not corrected */
            zan_counter_raise(op->def->id, ZAN_CTR_RESOLVE_MISMATCH);
            RESOLVE_TRACE(op, ERROR, RESOLVE_MISMATCH, value->refhdl, by_key, op->trans_id);
        }
        if (value->refhdl_set == 0 || value->refhdl == 0) {
            value->refhdl = (uint64_t)(uintptr_t)by_key;
            value->refhdl_set = 1;
        }
    }
    *parent = resolved;
    return EOK;
}

zan_rcode resolve_plain(const resolve_op_t *op, const zan_ref_def_t *ref, uint32_t member)
{
    zan_ref_value_st *value = zan_obj_ref(ref, op->new_obj, member);
    const zan_ref_value_st *old_value = nullptr;
    if (op->db_obj && (!ref->repeated || member < zan_obj_num_held(op->def, op->db_obj)))
        old_value = zan_obj_ref(ref, op->db_obj, member);

    switch (what_is_given(op, value, old_value)) {
    case GIVEN_NOTHING:
        return EOK;
    case GIVEN_DROP:
        drop(op, ref, value, old_value);
        return EOK;
    default:
        break;
    }
    zan_table_base_st *parent = nullptr;
    const zan_rcode rc = find_parent(op, ref, value, &parent);
    if (rc != EOK)
        return rc;
    const uint64_t old_hdl = old_value && old_value->refhdl_set == 1 ? old_value->refhdl : 0;
    if (op->db_obj && (uint64_t)(uintptr_t)parent != old_hdl)
        RESOLVE_TRACE(op, EVENT, RESOLVE_CHANGED, old_hdl, parent, op->trans_id,
                      parent->base_trans_id);
    if (!kor_dpd_check_bind_validity((uint64_t)(uintptr_t)parent, op->new_obj, op->is_inside_bwalk))
        return report(op, ref, ZAN_RC_BIND_REFUSED);
    zan_inherit_from_parent(op->def, op->new_obj, zan_table_defs[ref->parent_id], parent,
                            ref->inherits, ref->num_inherits, member, false);
    return EOK;
}

/* With a member array: one pass for each member, the single references in the first. */
zan_rcode resolve_plain_references(const resolve_op_t *op)
{
    const zan_table_def_t *def = op->def;
    const uint32_t members = zan_obj_num_elements(def, op->new_obj);
    const uint32_t passes = members > 1 ? members : 1;
    for (uint32_t member = 0; member < passes; member++)
        for (uint32_t i = 0; i < def->num_refs; i++) {
            const zan_ref_def_t *ref = &def->refs[i];
            if (ref->repeated ? member >= members : member != 0)
                continue;
            const zan_rcode rc = resolve_plain(op, ref, member);
            if (rc != EOK)
                return rc;
        }
    return EOK;
}

void gather_npus_from(const zan_table_def_t *def, zan_table_base_st *child, uint32_t parent_id,
                      const zan_ref_value_st *value)
{
    const zan_table_def_t *parent_def = zan_table_defs[parent_id];
    if (!value->refhdl_set || value->refhdl == 0 || !parent_def->npu_bmap_offset)
        return;
    const auto *parent = (const zan_table_base_st *)(uintptr_t)value->refhdl;
    *(kor_npu_mask_t *)zan_obj_at(child, def->npu_bmap_offset) |=
        *(const kor_npu_mask_t *)zan_obj_at(parent, parent_def->npu_bmap_offset);
    *(uint8_t *)zan_obj_at(child, def->npu_bmap_set_offset) |=
        *(const uint8_t *)zan_obj_at(parent, parent_def->npu_bmap_set_offset);
}

/* zan_srv_<table>_init_bmap: the object's own NPUs, to which those of its parents are added. */
void init_bmap(const zan_table_def_t *def, zan_table_base_st *obj)
{
    uint8_t *set = (uint8_t *)zan_obj_at(obj, def->npu_bmap_set_offset);
    if (!*set)
        *(kor_npu_mask_t *)zan_obj_at(obj, def->npu_bmap_offset) = 0;
}

void gather_npus(const zan_table_def_t *def, zan_table_base_st *obj)
{
    if (!def->npu_bmap_offset)
        return;
    init_bmap(def, obj);
    const uint32_t members = zan_obj_num_elements(def, obj);
    for (uint32_t i = 0; i < def->num_refs; i++)
        for (uint32_t m = 0; m < (def->refs[i].repeated ? members : 1); m++)
            gather_npus_from(def, obj, def->refs[i].parent_id, zan_obj_ref(&def->refs[i], obj, m));
    for (uint32_t i = 0; i < def->num_unions; i++) {
        const zan_union_def_t *u = &def->unions[i];
        if (u->nested_in)
            continue;
        for (uint32_t m = 0; m < (u->repeated ? members : 1); m++) {
            const zan_ref_value_st *value = zan_obj_union(u, obj, m);
            const zan_variant_def_t *variant = zan_union_variant(u, value);
            if (value->is_set && variant)
                gather_npus_from(def, obj, variant->parent_id, value);
        }
    }
}

} // namespace

zan_rcode kor_core_resolve_ref(const zan_table_def_t *def, zan_table_base_st *new_obj,
                               zan_table_base_st *db_obj, uint8_t is_inside_bwalk)
{
    const resolve_op_t op = {def, new_obj, db_obj, is_inside_bwalk,
                             *zan_obj_trans_id(def, new_obj)};
    zan_rcode rc = resolve_plain_references(&op);
    if (rc != EOK)
        return rc;
    rc = zan_core_resolve_refs_union(def, new_obj, db_obj, is_inside_bwalk);
    if (rc != EOK) {
        zan_send_async_resolve_error(new_obj, rc);
        return rc;
    }
    gather_npus(def, new_obj);
    return EOK;
}

void zan_inherit_from_parent(const zan_table_def_t *def, zan_table_base_st *child,
                             const zan_table_def_t *parent_def, const zan_table_base_st *parent,
                             const zan_inherit_def_t *inherits, uint32_t num_inherits,
                             uint32_t member, bool only_set)
{
    for (uint32_t i = 0; i < num_inherits; i++) {
        const zan_field_def_t *from = &parent_def->attrs[inherits[i].parent_attr];
        const zan_field_def_t *to = &def->attrs[inherits[i].attr];
        if (only_set && !*zan_obj_attr_set(from, parent, 0, 0))
            continue;
        memcpy(zan_obj_attr(to, child, member), zan_obj_attr(from, parent, 0), to->width);
        *zan_obj_attr_set(to, child, member, zan_obj_num_elements(def, child)) = 1;
    }
}
