/* Unbinding, and what tells that it is due: whether an object leads to other parents than before.
 *
 * A parent that waits for its delete and has lost its last child is not deleted here: it goes on
 * the delete queue, which the post-step drains once the present operation has ended. So a delete
 * climbs the graph one level for each pass of the queue, and nothing recurses.
 */
#include "refs.h"

#include <alloca.h>

namespace
{

uint64_t handle_of(const zan_ref_value_st *value)
{
    return value->refhdl_set == 1 ? value->refhdl : 0;
}

} // namespace

uint32_t zan_refs_changed(const zan_table_def_t *def, const zan_table_base_st *obj,
                          const zan_table_base_st *db_obj)
{
    uint32_t reason = 1;
    const uint32_t members = zan_obj_num_elements(def, obj);
    if (members != zan_obj_num_elements(def, db_obj))
        return reason;
    const bool lacks_members = zan_obj_num_held(def, obj) != zan_obj_num_held(def, db_obj);
    for (uint32_t i = 0; i < def->num_refs; i++) {
        const zan_ref_def_t *ref = &def->refs[i];
        reason++;
        if (ref->repeated && lacks_members)
            return reason;
        for (uint32_t m = 0; m < (ref->repeated ? members : 1); m++)
            if (handle_of(zan_obj_ref(ref, obj, m)) != handle_of(zan_obj_ref(ref, db_obj, m)))
                return reason;
    }
    for (uint32_t i = 0; i < def->num_unions; i++) {
        const zan_union_def_t *u = &def->unions[i];
        if (u->nested_in)
            continue;
        reason++;
        if (u->repeated && lacks_members)
            return reason;
        for (uint32_t m = 0; m < (u->repeated ? members : 1); m++) {
            const zan_ref_value_st *now = zan_obj_union(u, obj, m);
            const zan_ref_value_st *before = zan_obj_union(u, db_obj, m);
            if (now->selector != before->selector || handle_of(now) != handle_of(before))
                return reason;
        }
    }
    return 0;
}

void zan_trace_parents(const zan_table_def_t *def, const zan_table_base_st *db_obj)
{
    const uint8_t colors = zan_color_get_self_mask(db_obj);
    ZAN_TRACE_TABLE(zan_slt_table_id(def->id, ZAN_TRACE_LEVEL_VERBOSE), def->id, PARENTS,
                    db_obj->base_trans_id, db_obj, colors, kor_dpd_get_parent_safe(db_obj, 0),
                    kor_dpd_get_parent_safe(db_obj, 1));
    if (colors)
        ZAN_TRACE(ZAN_CLASS_ZAN_BWALK_COLORUNBIND_EVENT__, BWALK_UNBIND_COLORS, db_obj, colors,
                  kor_dpd_get_parent_safe(db_obj, 0), kor_dpd_get_parent_safe(db_obj, 1));
}

void kor_core_parent_delete(const zan_table_def_t *def, zan_table_base_st *db_obj,
                            uint32_t trans_id)
{
    const uint32_t slots = db_obj->dpd.max_parents;
    const uint32_t words = slots ? (slots + 63) / 64 : 1;
    kor_dpd_next_act_t next_act = {};
    next_act.num_words = words;
    next_act.bitmap = (uint64_t *)alloca(words * sizeof(uint64_t));
    next_act.parents =
        (zan_table_base_st **)alloca((slots ? slots : 1) * sizeof(zan_table_base_st *));
    memset(next_act.bitmap, 0, words * sizeof(uint64_t));

    kor_dpd_remove(db_obj, &next_act);
    const bool freed = kor_dpd_is_bmap_set(&next_act);
    const zan_trace_class_t event = zan_slt_table_id(def->id, ZAN_TRACE_LEVEL_EVENT);
    ZAN_TRACE_TABLE(event, def->id, UNBOUND, trans_id, freed, next_act.action[0],
                    next_act.action[1]);
    if (!freed)
        return;
    for (uint32_t i = 0; i < slots; i++) {
        if (!(next_act.bitmap[i / 64] >> (i % 64) & 1))
            continue;
        zan_table_base_st *parent_base = next_act.parents[i];
        ZAN_ASSERT(parent_base, "parent_base");
        const zan_rcode rc = kor_core_queue_enqueue(parent_base, ZAN_QUEUE_DELAY_DELETE);
        if (rc != EOK)
            ZAN_TRACE_TABLE(zan_slt_table_id(def->id, ZAN_TRACE_LEVEL_ERROR), def->id,
                            PARENT_NOT_QUEUED, parent_base, trans_id, rc);
        ZAN_TRACE_TABLE(event, def->id, PARENT_FREED, parent_base->table_id, trans_id, db_obj,
                        parent_base->base_trans_id, parent_base);
    }
}
