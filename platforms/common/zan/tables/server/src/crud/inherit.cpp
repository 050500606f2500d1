/* Completing a sparse request from the stored object.
 *
 * Which bytes to look at and to copy is the same for every update of a table, so it is compiled
 * once into a list of steps: a byte that says whether a value is set, and the value. A value for
 * each NPU is a step of its own. Only the members have to be looked at by attribute, and only when
 * both objects have as many: a list of another length stands alone.
 */
#include "table_server_api_common.h"

#include <cstdlib>
#include <cstring>

struct zan_inherit_step_t {
    uint32_t set_offset, offset;
    uint32_t width; /* bytes */
};

namespace
{

/* What the statistics walk writes is inherited when the object is written back: a walk may have
 * been there since the update began. */
bool belongs_to_the_walk(const zan_table_def_t *def, const zan_field_def_t *attr)
{
    return def->periodic_stats && attr->statistic;
}

template <class Step> void each_step(const zan_table_def_t *def, Step step)
{
    step(def->npu_mask_req_set_offset, def->npu_mask_req_offset, sizeof(kor_npu_mask_t));
    const uint32_t max_npus = platcfg_config_get_max_num_npus();
    for (uint32_t i = 0; i < def->num_attrs; i++) {
        const zan_field_def_t *attr = &def->attrs[i];
        if (belongs_to_the_walk(def, attr))
            continue;
        if (attr->shape == ZAN_SHAPE_SINGLE || attr->shape == ZAN_SHAPE_ARRAY)
            step(attr->set_offset, attr->offset, (uint32_t)attr->width * attr->count);
        else if (attr->shape == ZAN_SHAPE_PER_NPU)
            for (uint32_t npu = 0; npu < attr->count && npu < max_npus; npu++)
                step(attr->set_offset + npu, attr->offset + npu * attr->width, attr->width);
    }
}

void inherit_members(const zan_table_def_t *def, zan_table_base_st *obj,
                     const zan_table_base_st *db_obj, uint32_t members)
{
    for (uint32_t i = 0; i < def->num_attrs; i++) {
        const zan_field_def_t *attr = &def->attrs[i];
        if (attr->shape != ZAN_SHAPE_REPEATED)
            continue;
        for (uint32_t m = 0; m < members; m++) {
            uint8_t *set = zan_obj_attr_set(attr, obj, m, members);
            if (*set)
                continue;
            *set = *zan_obj_attr_set(attr, db_obj, m, members);
            memcpy(zan_obj_attr(attr, obj, m), zan_obj_attr(attr, db_obj, m), attr->width);
        }
    }
}

} // namespace

bool zan_inherit_plan_make(const zan_table_def_t *def)
{
    zan_table_state_t *state = zan_table_state(def);
    uint32_t count = 0;
    each_step(def, [&](uint32_t, uint32_t, uint32_t) { count++; });
    state->inherit_plan = (zan_inherit_step_t *)calloc(count, sizeof(zan_inherit_step_t));
    if (!state->inherit_plan)
        return false;
    state->num_inherit_steps = 0;
    each_step(def, [&](uint32_t set_offset, uint32_t offset, uint32_t width) {
        state->inherit_plan[state->num_inherit_steps++] = {set_offset, offset, width};
    });
    return true;
}

void zan_inherit_plan_free(const zan_table_def_t *def)
{
    zan_table_state_t *state = zan_table_state(def);
    free(state->inherit_plan);
    state->inherit_plan = nullptr;
    state->num_inherit_steps = 0;
}

void zan_inherit_from_stored(const zan_table_def_t *def, zan_table_base_st *obj,
                             const zan_table_base_st *db_obj)
{
    const zan_table_state_t *state = zan_table_state(def);
    auto *to = (uint8_t *)obj;
    const auto *from = (const uint8_t *)db_obj;
    for (uint32_t i = 0; i < state->num_inherit_steps; i++) {
        const zan_inherit_step_t *step = &state->inherit_plan[i];
        if (to[step->set_offset])
            continue;
        to[step->set_offset] = from[step->set_offset];
        memcpy(to + step->offset, from + step->offset, step->width);
    }
    const uint32_t members = zan_obj_num_elements(def, obj);
    if (members != 0 && members == zan_obj_num_held(def, db_obj))
        inherit_members(def, obj, db_obj, members);
    kor_ref_copy(def, db_obj, obj); /* the server's alone */
}

void zan_inherit_statistics(const zan_table_def_t *def, zan_table_base_st *obj,
                            const zan_table_base_st *db_obj)
{
    for (uint32_t i = 0; i < def->num_attrs; i++) {
        const zan_field_def_t *attr = &def->attrs[i];
        uint8_t *set = zan_obj_attr_set(attr, obj, 0, 0);
        if (!belongs_to_the_walk(def, attr) || *set)
            continue;
        *set = *zan_obj_attr_set(attr, db_obj, 0, 0);
        memcpy(zan_obj_attr(attr, obj, 0), zan_obj_attr(attr, db_obj, 0),
               (size_t)attr->width * attr->count);
    }
}
