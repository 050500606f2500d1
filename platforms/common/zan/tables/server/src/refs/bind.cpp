/* Binding a stored object to its parents, in the order of resolution. A bind that fails is traced
 * and counted, and the others stand: the result is the last one's. */
#include "refs.h"

namespace
{

struct bind_op_t {
    const zan_table_def_t *def;
    zan_table_base_st *db_obj;
    zan_rcode last;
};

/* A handle that is stored must be one that is bound: else its object could go unseen. */
void forget_handle(zan_ref_value_st *value)
{
    value->refhdl = 0;
    value->refhdl_set = 0;
}

void bind_one(bind_op_t *op, zan_ref_value_st *value)
{
    if (value->refhdl_set != 1 || value->refhdl == 0)
        return;
    auto *parent = (zan_table_base_st *)(uintptr_t)value->refhdl;
    const uint32_t id = op->def->id;
    op->last = kor_dpd_add(parent, op->db_obj);
    if (op->last != EOK) {
        zan_counter_raise(id, ZAN_CTR_BIND_FAILED);
        ZAN_TRACE_TABLE(zan_slt_table_id(id, ZAN_TRACE_LEVEL_ERROR), id, BIND_FAILED,
                        op->db_obj->base_trans_id, op->db_obj, parent->base_trans_id, parent);
        forget_handle(value);
        return;
    }
    ZAN_TRACE_TABLE(zan_slt_table_id(id, ZAN_TRACE_LEVEL_EVENT), id, BOUND,
                    op->db_obj->base_trans_id, op->db_obj, parent->base_trans_id, parent);
    ZAN_TRACE(ZAN_CLASS_ZAN_BWALK_EVENT__, BWALK_BIND_COLORS, op->db_obj,
              zan_color_get_self_mask(op->db_obj), parent, zan_color_get_self_mask(parent));
}

void bind_plain(bind_op_t *op, uint32_t member, uint32_t members)
{
    const zan_table_def_t *def = op->def;
    for (uint32_t i = 0; i < def->num_refs; i++)
        if (def->refs[i].repeated ? member < members : member == 0)
            bind_one(op, zan_obj_ref(&def->refs[i], op->db_obj, member));
}

void bind_unions(bind_op_t *op, uint32_t member, uint32_t members)
{
    const zan_table_def_t *def = op->def;
    for (uint32_t i = 0; i < def->num_unions; i++) {
        const zan_union_def_t *u = &def->unions[i];
        if (u->nested_in || (u->repeated ? member >= members : member != 0))
            continue;
        zan_ref_value_st *value = zan_obj_union(u, op->db_obj, member);
        if (zan_union_variant(u, value))
            bind_one(op, value);
    }
}

} // namespace

void zan_refs_forget_handles(const zan_table_def_t *def, zan_table_base_st *db_obj)
{
    for (uint32_t i = 0; i < def->num_refs; i++)
        if (!def->refs[i].repeated)
            forget_handle(zan_obj_ref(&def->refs[i], db_obj, 0));
    for (uint32_t i = 0; i < def->num_unions; i++)
        if (!def->unions[i].nested_in && !def->unions[i].repeated)
            forget_handle(zan_obj_union(&def->unions[i], db_obj, 0));
}

zan_rcode kor_core_parent_add(const zan_table_def_t *def, zan_table_base_st *db_obj)
{
    if (def->num_refs == 0 && def->num_unions == 0)
        return EOK;
    const uint32_t members = zan_obj_num_elements(def, db_obj);
    kor_dpd_parent_init(db_obj, def->max_parents_single + def->max_parents_per_member * members, 0);
    bind_op_t op = {def, db_obj, EOK};
    const uint32_t passes = members > 1 ? members : 1;
    for (uint32_t member = 0; member < passes; member++)
        bind_plain(&op, member, members);
    for (uint32_t member = 0; member < passes; member++)
        bind_unions(&op, member, members);
    return op.last;
}
