/* The quarantine lists: copies of objects that are out of service, a list for each table.
 *
 * The links stand in front of the copy, in one block of private memory: an entry is found from its
 * address, and nothing of the object is used for the list.
 */
#include "host_control.h"
#include "locks.h"
#include "retry.h"
#include "table_database.h"
#include "zan_tables_private.h"

#include <cstdlib>

namespace
{

struct entry_t {
    entry_t *next, *prev;
    zan_table_base_st copy; /* and the rest of the object behind it */
};

entry_t *first[ZAN_NUM_TABLES], *last[ZAN_NUM_TABLES];

entry_t *entry_of(const zan_table_base_st *copy)
{
    return (entry_t *)((uint8_t *)copy - offsetof(entry_t, copy));
}

} // namespace

zan_table_base_st *zan_db_quarantine_add(const zan_table_base_st *obj)
{
    const zan_table_def_t *def = zan_table_def_get(obj->table_id);
    const uint32_t private_size = kor_npd_get_table_size(def->id);
    const uint32_t dynamic = zan_obj_dyn_size(def, zan_obj_num_elements(def, obj));
    auto *entry =
        (entry_t *)calloc(1, offsetof(entry_t, copy) + def->obj_size + private_size + dynamic);
    if (!entry)
        return nullptr;
    {
        const zan_counters_hold_t hold(def);
        zan_obj_copy_to(def, private_size, obj, false, &entry->copy);
    }
    entry->prev = last[def->id];
    (entry->prev ? entry->prev->next : first[def->id]) = entry;
    last[def->id] = entry;
    return &entry->copy;
}

void zan_db_quarantine_remove(zan_table_base_st *copy)
{
    entry_t *entry = entry_of(copy);
    const uint32_t id = copy->table_id;
    (entry->prev ? entry->prev->next : first[id]) = entry->next;
    (entry->next ? entry->next->prev : last[id]) = entry->prev;
    free(entry);
}

zan_table_base_st *zan_db_quarantine_get_first(const zan_table_base_st *lookup)
{
    if (lookup->table_id >= ZAN_NUM_TABLES || !first[lookup->table_id])
        return nullptr;
    return &first[lookup->table_id]->copy;
}

zan_table_base_st *zan_db_quarantine_get_next(const zan_table_base_st *copy)
{
    entry_t *next = entry_of(copy)->next;
    return next ? &next->copy : nullptr;
}

void host_quarantine_free_table(uint32_t table_id)
{
    while (first[table_id])
        zan_db_quarantine_remove(&first[table_id]->copy);
}
