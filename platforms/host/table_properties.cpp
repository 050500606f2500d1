/* The properties service: keeps the 361 records, and fills the slots that the tables' own functions
 * do not.
 *
 * Side data of an object is the platform's private area, which follows the fixed part in every form
 * of an object of a table that has one. A hook may keep what it likes there; these slots see to it
 * that it follows the object from form to form.
 */
#include "table_properties.h"
#include "host_blocks.h"
#include "host_services.h"
#include "write_watch.h"
#include "zan_tables_private.h"

#include <algorithm>
#include <cstring>

namespace
{

srv_zan_table_props_t records[ZAN_NUM_TABLES];
constexpr uint32_t num_adj_records = 32;
zan_adj_props_t adj_records[num_adj_records];

uint8_t *private_area(const srv_zan_table_props_t *props, const zan_table_base_st *obj)
{
    return (uint8_t *)obj + props->obj_size;
}

/* A request comes with a private area of nobody's; one about to be stored gets its own by the copy.
 */
void side_data_init(zan_table_base_st *obj, bool persistent)
{
    const srv_zan_table_props_t *props = &records[obj->table_id];
    if (props->private_size != 0 && !persistent)
        memset(private_area(props, obj), 0, props->private_size);
}

/* The area lies in the object's own block; what it held must not be taken for live. */
void side_data_free(zan_table_base_st *obj)
{
    const srv_zan_table_props_t *props = &records[obj->table_id];
    if (props->private_size != 0)
        memset(private_area(props, obj), 0, props->private_size);
}

void side_data_copy(zan_table_base_st *to, const zan_table_base_st *from)
{
    const srv_zan_table_props_t *props = &records[to->table_id];
    if (props->private_size != 0)
        memcpy(private_area(props, to), private_area(props, from), props->private_size);
}

/* The field by which the members of a table that is programmed by lists are told apart, if it is
 * set; null: nothing tells the member. */
const void *member_name(const zan_table_def_t *def, const zan_element_def_t *e,
                        const zan_table_base_st *obj, uint32_t member)
{
    if (e->kind == ZAN_ELEMENT_UNION) {
        const zan_ref_value_st *value = zan_obj_union(&def->unions[e->index], obj, member);
        return value->is_set ? value : nullptr;
    }
    const zan_field_def_t *attr = &def->attrs[e->index];
    return *zan_obj_attr_set(attr, obj, member, zan_obj_num_elements(def, obj))
               ? zan_obj_attr(attr, obj, member)
               : nullptr;
}

const zan_element_def_t *match_field(const zan_table_def_t *def)
{
    for (uint32_t i = 0; def->element_match_field && i < def->num_elements; i++)
        if (strcmp(def->elements[i].name, def->element_match_field) == 0)
            return &def->elements[i];
    return nullptr;
}

/* Two members of one name could both be taken for the same old one. */
zan_rcode check_names(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    const zan_element_def_t *e = def->repeated_delta ? match_field(def) : nullptr;
    const uint32_t members = zan_obj_num_elements(def, obj);
    if (!e || members < 2)
        return EOK;
    auto **names = (const void **)host_block_alloc(members * sizeof(void *));
    if (!names)
        return ZAN_RC_NO_MEMORY;
    const void **end = names;
    for (uint32_t member = 0; member < members; member++)
        if (const void *name = member_name(def, e, obj, member))
            *end++ = name;
    std::sort(names, end, [e](const void *a, const void *b) { return memcmp(a, b, e->width) < 0; });
    const bool unique = std::adjacent_find(names, end, [e](const void *a, const void *b) {
                            return memcmp(a, b, e->width) == 0;
                        }) == end;
    host_block_free(names);
    return unique ? zan_rcode{EOK} : ZAN_RC_INVALID;
}

/* The graph has parent slots for so many references of one object, and no more. */
zan_rcode check_parents(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    const uint32_t members = zan_obj_num_elements(def, obj);
    if (def->max_parents_single + (uint64_t)def->max_parents_per_member * members <= UINT16_MAX)
        return EOK;
    uint32_t parents = 0;
    for (uint32_t i = 0; i < def->num_refs; i++)
        for (uint32_t m = 0; m < (def->refs[i].repeated ? members : 1); m++)
            parents += zan_obj_ref(&def->refs[i], obj, m)->refhdl != 0;
    for (uint32_t i = 0; i < def->num_unions; i++)
        for (uint32_t m = 0; m < (def->unions[i].repeated ? members : 1); m++)
            parents += !def->unions[i].nested_in && zan_obj_union(&def->unions[i], obj, m)->refhdl;
    return parents <= UINT16_MAX ? zan_rcode{EOK} : ZAN_RC_INVALID;
}

zan_rcode side_data_validate(zan_table_base_st *obj)
{
    const zan_table_def_t *def = records[obj->table_id].def;
    char where[128];
    if (zan_obj_invalid_field(def, obj, where, sizeof where))
        return ZAN_RC_INVALID;
    const zan_rcode rc = check_parents(def, obj);
    return rc != EOK ? rc : check_names(def, obj);
}

uint64_t no_attrib_mask(zan_table_base_st *, zan_table_base_st *)
{
    return 0;
}

zan_event_record_t *no_extra_events(uint32_t *length)
{
    *length = 0;
    return nullptr;
}

void take_event_table(zan_event_record_t *)
{
}

void no_event_filter(uint8_t *, zan_event_filter_t *)
{
}

zan_rcode take_evt_stats(void)
{
    return EOK;
}

zan_rcode format_obj_payload(zan_table_base_st *db_obj, char *payload, uint32_t size,
                             uint32_t *used)
{
    const size_t wanted = zan_obj_print(records[db_obj->table_id].def, db_obj, payload, size) + 1;
    *used = wanted <= size ? (uint32_t)wanted : size;
    return wanted <= size ? (zan_rcode)EOK : ZAN_RC_SHOW_BUFFER_SMALL;
}

void fill_service_slots(const zan_table_def_t *def, srv_zan_table_props_t *props)
{
    props->option_bits = (uint8_t)((def->serialize_back ? ZAN_OPTION_SERIALIZE_BACK : 0) |
                                   (def->async_batch_end ? ZAN_OPTION_ASYNC_BATCH_END : 0));
    props->side_data_init = side_data_init;
    props->side_data_free = side_data_free;
    props->side_data_copy = side_data_copy;
    props->side_data_inherit = side_data_copy;
    props->side_data_validate = side_data_validate;
    props->get_infra_attrib_mask = no_attrib_mask;
    props->get_platform_attrib_mask = no_attrib_mask;
    props->get_extra_events = no_extra_events;
    props->set_event_table = take_event_table;
    props->event_filter = no_event_filter;
    props->format_obj_payload = format_obj_payload;
    props->register_evt_stats = take_evt_stats;
    props->register_event_table = take_event_table;
}

} // namespace

srv_zan_table_props_t *zan_srv_table_props_get(uint32_t table_id)
{
    return table_id < ZAN_NUM_TABLES ? &records[table_id] : nullptr;
}

zan_adj_props_t *zan_srv_adj_props_get(uint32_t index)
{
    return index < num_adj_records ? &adj_records[index] : nullptr;
}

void zan_host_fill_table_properties(void)
{
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        memset(&records[id], 0, sizeof records[id]);
        zan_srv_npi_init_table_props(id, &records[id]);
        fill_service_slots(zan_table_defs[id], &records[id]);
        host_watch_writes(&records[id]);
        zan_srv_npi_init_adj_props(id);
    }
}
