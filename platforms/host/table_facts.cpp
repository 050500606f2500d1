/* Facts of a table that the database answers by its id: the size of the private area, and how to
 * compare two keys. */
#include "host_assert.h"
#include "host_control.h"
#include "table_database.h"
#include "zan_tables_private.h"

#include <pthread.h>

namespace
{

/* The host keeps a few words of its own in some objects, as a hardware platform would; the server
 * must carry them along. */
const struct {
    const char *table;
    uint32_t size;
} private_areas[] = {
    {"ipnhgroup", 16},
    {"ipnh", 16},
    {"test_nh", 8},
};

uint32_t private_size[ZAN_NUM_TABLES];
pthread_once_t once = PTHREAD_ONCE_INIT;

void fill(void)
{
    for (const auto &area : private_areas)
        if (const zan_table_def_t *def = zan_table_def_find(area.table))
            private_size[def->id] = area.size;
}

int compare_keys(const zan_table_base_st *a, const zan_table_base_st *b)
{
    const zan_table_def_t *def = zan_table_def_get(a->table_id);
    return zan_key_cmp(def, zan_obj_key(def, a), zan_obj_key(def, b));
}

} // namespace

uint32_t kor_npd_get_table_size(uint32_t table_id)
{
    pthread_once(&once, fill);
    return table_id < ZAN_NUM_TABLES ? private_size[table_id] : 0;
}

void zan_host_set_private_size(uint32_t table_id, uint32_t size)
{
    HOST_ASSERT(table_id < ZAN_NUM_TABLES && size % 8 == 0, "a table, and a multiple of 8");
    pthread_once(&once, fill);
    private_size[table_id] = size;
}

kor_table_key_cmp_f kor_table_get_key_cmp_fn_ptr(uint32_t table_id)
{
    return zan_table_def_get(table_id) ? compare_keys : nullptr;
}
