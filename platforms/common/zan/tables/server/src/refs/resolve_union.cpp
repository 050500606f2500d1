/* Resolution of reference unions.
 *
 * Unlike a plain reference a union asks the quarantine about a missing parent, lets the key win
 * over a handle that differs, and is inherited whole from the stored object when the request does
 * not mention it. Nothing is bound here, so nothing is undone, and the caller tells the client.
 */
#include "refs.h"

namespace
{

struct union_op_t {
    const zan_table_def_t *def;
    zan_table_base_st *new_obj, *old_obj;
    uint8_t is_inside_bwalk;
    uint32_t trans_id;
};

#define UNION_TRACE(op, level, message, ...)                                                       \
    ZAN_TRACE_TABLE(zan_slt_obj_base((op)->new_obj, ZAN_TRACE_LEVEL_##level), (op)->def->id,       \
                    message, __VA_ARGS__)

const zan_ref_value_st *old_value_of(const union_op_t *op, const zan_union_def_t *u,
                                     uint32_t member)
{
    if (!op->old_obj || (u->repeated && member >= zan_obj_num_held(op->def, op->old_obj)))
        return nullptr;
    return zan_obj_union(u, op->old_obj, member);
}

/* A handle that is set and zero drops the union. */
void clear_if_dropped(const union_op_t *op, const zan_union_def_t *u, zan_ref_value_st *value,
                      uint32_t member)
{
    if (!value->refhdl_set || value->refhdl != 0)
        return;
    const uint32_t selector = value->selector;
    memset(value, 0, u->stride);
    UNION_TRACE(op, VERBOSE, UNION_CLEARED, op->trans_id);
    const zan_ref_value_st *old_value = old_value_of(op, u, member);
    if (op->old_obj)
        UNION_TRACE(op, VERBOSE, UNION_CLEARED_OLD, op->old_obj,
                    old_value && old_value->selector == selector ? old_value->refhdl : 0);
}

zan_rcode resolve_by_key(const union_op_t *op, const zan_table_def_t *parent_def,
                         zan_ref_value_st *value)
{
    zan_lookup_t lookup;
    zan_lookup_init(&lookup, parent_def);
    zan_lookup_set_key(&lookup, parent_def, zan_ref_key(value));
    zan_table_base_st *found = zan_db_get(&lookup.base);
    if (!found) {
        const zan_rcode rc = zan_slow_search_key_in_quarantine_db(&lookup.base)
                                 ? ZAN_RC_PARENT_QUARANTINED
                                 : ZAN_RC_NOT_FOUND;
        UNION_TRACE(op, ERROR, RESOLVE_FAILED, op->trans_id, parent_def->id, rc);
        zan_server_print_key(parent_def, ZAN_TMSG_PARENT_KEY_NOT_FOUND, zan_ref_key(value),
                             op->trans_id, op->def->id);
        return rc;
    }
    const uint64_t handle = (uint64_t)(uintptr_t)found;
    if (!kor_dpd_check_bind_validity(handle, op->new_obj, op->is_inside_bwalk))
        return ZAN_RC_BIND_REFUSED;
    if (value->refhdl_set && value->refhdl != 0 && value->refhdl != handle)
        UNION_TRACE(op, ERROR, RESOLVE_MISMATCH, value->refhdl, found, op->trans_id);
    value->refhdl = handle;
    value->refhdl_set = 1;
    return EOK;
}

zan_rcode resolve_by_handle(const union_op_t *op, const zan_table_def_t *parent_def,
                            zan_ref_value_st *value)
{
    if (!zan_db_hdl_is_valid(parent_def->id, value->refhdl)) {
        UNION_TRACE(op, ERROR, RESOLVE_FAILED, op->trans_id, parent_def->id, ZAN_RC_NOT_FOUND);
        return ZAN_RC_NOT_FOUND;
    }
    if (!kor_dpd_check_bind_validity(value->refhdl, op->new_obj, op->is_inside_bwalk))
        return ZAN_RC_BIND_REFUSED;
    const auto *parent = (const zan_table_base_st *)(uintptr_t)value->refhdl;
    memcpy(zan_ref_key(value), zan_obj_key(parent_def, parent), parent_def->key_size);
    value->refkey_set = 1;
    return EOK;
}

/* zan_core_<table>_resolve_refs_union_sub_*: pull the variant's attributes from the parent. */
void inherit(const union_op_t *op, const zan_variant_def_t *variant, const zan_ref_value_st *value,
             uint32_t member)
{
    if (variant->num_inherits == 0 || value->refhdl == 0 || !value->refhdl_set)
        return;
    zan_inherit_from_parent(op->def, op->new_obj, zan_table_defs[variant->parent_id],
                            (const zan_table_base_st *)(uintptr_t)value->refhdl, variant->inherits,
                            variant->num_inherits, member, true);
}

zan_rcode resolve_variant(const union_op_t *op, const zan_union_def_t *u,
                          const zan_variant_def_t *variant, zan_ref_value_st *value,
                          uint32_t member)
{
    const zan_table_def_t *parent_def = zan_table_defs[variant->parent_id];
    clear_if_dropped(op, u, value, member);
    zan_rcode rc = EOK;
    if (value->refkey_set)
        rc = resolve_by_key(op, parent_def, value);
    else if (value->refhdl_set && value->refhdl != 0)
        rc = resolve_by_handle(op, parent_def, value);
    if (rc == EOK)
        inherit(op, variant, value, member);
    return rc;
}

/* A list of another length stands alone. */
bool lists_differ(const union_op_t *op, const zan_union_def_t *u)
{
    return u->repeated &&
           zan_obj_num_elements(op->def, op->new_obj) != zan_obj_num_elements(op->def, op->old_obj);
}

/* The request does not mention the union: the old binding is taken as it stood. Every handle that
 * is stored is bound, so that it leads somewhere. */
zan_rcode inherit_whole(const union_op_t *op, const zan_union_def_t *u, zan_ref_value_st *value,
                        uint32_t member)
{
    if (value->is_set)
        return ZAN_RC_INVALID; /* a set union must say which variant */
    const zan_ref_value_st *old_value = old_value_of(op, u, member);
    if (!old_value || !old_value->is_set || lists_differ(op, u))
        return EOK;
    memcpy(value, old_value, u->stride);
    const zan_variant_def_t *variant = zan_union_variant(u, value);
    if (variant)
        inherit(op, variant, value, member);
    return EOK;
}

zan_rcode resolve_union(const union_op_t *op, const zan_union_def_t *u, uint32_t member)
{
    zan_ref_value_st *value = zan_obj_union(u, op->new_obj, member);
    if (value->selector == 0)
        return inherit_whole(op, u, value, member);
    const zan_variant_def_t *variant = zan_union_variant(u, value);
    return variant ? resolve_variant(op, u, variant, value, member) : EOK;
}

} // namespace

zan_rcode zan_core_resolve_refs_union(const zan_table_def_t *def, zan_table_base_st *new_obj,
                                      zan_table_base_st *old_obj, uint8_t is_inside_bwalk)
{
    if (def->num_unions == 0)
        return EOK;
    const union_op_t op = {def, new_obj, old_obj, is_inside_bwalk, *zan_obj_trans_id(def, new_obj)};
    const uint32_t members = zan_obj_num_elements(def, new_obj);
    const uint32_t passes = members > 1 ? members : 1;
    for (uint32_t member = 0; member < passes; member++)
        for (uint32_t i = 0; i < def->num_unions; i++) {
            const zan_union_def_t *u = &def->unions[i];
            if (u->nested_in || (u->repeated ? member >= members : member != 0))
                continue;
            const zan_rcode rc = resolve_union(&op, u, member);
            if (rc != EOK) {
                UNION_TRACE(&op, ERROR, UNION_FAILED, op.trans_id, rc);
                return rc;
            }
        }
    return EOK;
}

zan_table_base_st *zan_slow_search_key_in_quarantine_db(const zan_table_base_st *lookup)
{
    /* A quarantine of this length makes every missed key expensive, which is worth telling. */
    constexpr uint32_t worth_telling = 200;
    const uint32_t table_id = lookup->table_id;
    const kor_table_key_cmp_f cmp = kor_table_get_key_cmp_fn_ptr(table_id);
    uint32_t n = 1;
    zan_table_base_st *entry = zan_db_quarantine_get_first(lookup);
    while (entry && cmp(entry, lookup) != 0) {
        entry = zan_db_quarantine_get_next(entry);
        n++;
    }
    zan_global_ctx_st *ctx = zan_get_global_ctx();
    const uint32_t old_max = ctx ? ctx->table[table_id].quarantine_max_depth : 0;
    if (n <= old_max)
        return entry;
    if (ctx)
        ctx->table[table_id].quarantine_max_depth = n;
    if (n >= worth_telling)
        ZAN_TRACE_TABLE(zan_slt_table_id(table_id, ZAN_TRACE_LEVEL_ERROR), table_id,
                        QUARANTINE_DEPTH, n, old_max, table_id);
    return entry;
}
