/* The entries of the adjacency tables.
 *
 * All entries of one object lie in one block of the shared pool, which stands in the list of its
 * parent table: the object leads to its block by its adjacency list, the walks of the table's
 * adjacency tables go along the list, each by its own entry of every block.
 *
 * One mutex keeps the lists and the replicas. A walk holds it while it steps on, but not while it
 * visits: the block it has in hand is `held`, and one that is given back meanwhile stays in its
 * list, marked, until the walk lets go of it. Such a block waits in `left` for the dispatcher
 * thread, to which the pool belongs. There is one walk at a time.
 */
#include "adjacency.h"
#include "clock.h"
#include "host_adjacency_tables.h"
#include "host_assert.h"
#include "host_periodic_stats.h"
#include "host_trace.h"
#include "table_database.h"
#include "table_properties.h"
#include "thread_control.h"
#include "zan_tables_private.h"

#include <cstring>

#include <pthread.h>

namespace
{

struct counted_t {
    zan_adj_entry_st entry;
    /* The replica. */
    uint64_t packets, bytes, at_ns;
};

/* What one object has: the entries, then its key. */
struct block_t {
    block_t *next, *prev;
    uint32_t num_entries;
    bool gone; /* given back while a walk held it */
    counted_t counted[];
};

struct list_t {
    block_t *first;
    uint64_t num_blocks;
};

list_t lists[ZAN_NUM_TABLES];
block_t *held; /* by the walk */
block_t *left; /* by it, for the dispatcher thread; linked by next */
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;

struct lock_t {
    lock_t()
    {
        pthread_mutex_lock(&mutex);
    }
    ~lock_t()
    {
        pthread_mutex_unlock(&mutex);
    }
    lock_t(const lock_t &) = delete;
    lock_t &operator=(const lock_t &) = delete;
};

/* The first word of the adjacency list of an object. */
block_t **block_of(const zan_table_base_st *db_obj)
{
    return (block_t **)zan_obj_at(db_obj, zan_table_defs[db_obj->table_id]->adj_list_offset);
}

const zan_adj_def_t *adj_def(uint32_t index)
{
    for (uint32_t i = 0; i < zan_num_adj_defs; i++)
        if (zan_adj_defs[i].index == index)
            return &zan_adj_defs[i];
    return nullptr;
}

/* Which of the entries of its parent's objects is that of an adjacency table. */
uint32_t position_of(const zan_adj_def_t *adj)
{
    const zan_table_def_t *parent = zan_table_defs[adj->parent_id];
    uint32_t at = 0;
    while (parent->adjacencies[at] != adj->index)
        at++;
    return at;
}

/* ---- Lists; under the mutex ---- */

void link(uint32_t table_id, block_t *block)
{
    list_t *list = &lists[table_id];
    block->next = list->first;
    block->prev = nullptr;
    if (list->first)
        list->first->prev = block;
    list->first = block;
    list->num_blocks++;
}

void unlink(block_t *block)
{
    list_t *list = &lists[block->counted[0].entry.parent_id];
    (block->prev ? block->prev->next : list->first) = block->next;
    if (block->next)
        block->next->prev = block->prev;
    list->num_blocks--;
}

/* Let go of what the walk had, and take the next one that is still its object's. */
block_t *step(block_t *next)
{
    block_t *former = held;
    while (next && next->gone)
        next = next->next;
    held = next;
    if (former && former->gone) {
        unlink(former);
        former->next = left;
        left = former;
    }
    return next;
}

/* Of one that is going nothing is asked; the visit tells of it. */
void fetch(const zan_adj_props_t *props, zan_adj_entry_st *entry)
{
    if (!props->update_rdesc_from_hw ||
        (__atomic_load_n(&entry->flag, __ATOMIC_ACQUIRE) & ZAN_ADJ_STALE))
        return;
    const zan_rcode rc = props->update_rdesc_from_hw(entry);
    if (rc != EOK)
        host_stats_not_fetched(entry->parent_id, HOST_TRACE_ID(ADJ_NOT_FETCHED, 3), entry->index,
                               entry, rc);
}

/* ---- Blocks; dispatcher thread ---- */

void free_left()
{
    block_t *block;
    {
        const lock_t lock;
        block = left;
        left = nullptr;
    }
    while (block) {
        block_t *next = block->next;
        zan_shm_free(block);
        block = next;
    }
}

block_t *make_block(const zan_table_def_t *def, const zan_table_base_st *db_obj)
{
    const size_t entries = sizeof(block_t) + def->num_adjacencies * sizeof(counted_t);
    auto *block = (block_t *)zan_shm_dyn_alloc(def->id, entries + def->key_size);
    if (!block)
        return nullptr;
    void *key = (uint8_t *)block + entries;
    memcpy(key, zan_obj_key(def, db_obj), def->key_size);
    block->num_entries = def->num_adjacencies;
    for (uint32_t i = 0; i < block->num_entries; i++) {
        zan_adj_entry_st *entry = &block->counted[i].entry;
        entry->index = def->adjacencies[i];
        entry->parent_id = def->id;
        entry->key_size = (uint16_t)def->key_size;
        entry->key = key;
    }
    return block;
}

} // namespace

void zan_npi_init_adj_list(zan_table_base_st *db_obj)
{
    const zan_table_def_t *def = zan_table_defs[db_obj->table_id];
    free_left();
    block_t *block = def->num_adjacencies ? make_block(def, db_obj) : nullptr;
    *block_of(db_obj) = block;
    if (!block)
        return;
    const lock_t lock;
    link(def->id, block);
}

void zan_npi_mark_adj_entries_as_stale(zan_table_base_st *db_obj, uint32_t trace_id)
{
    block_t *block = *block_of(db_obj);
    for (uint32_t i = 0; block && i < block->num_entries; i++) {
        zan_adj_entry_st *entry = &block->counted[i].entry;
        entry->stale_trace_id = trace_id;
        __atomic_fetch_or(&entry->flag, ZAN_ADJ_STALE, __ATOMIC_RELEASE);
    }
}

void zan_npi_free_adj_entries_list(zan_table_base_st *db_obj)
{
    block_t *block = *block_of(db_obj);
    *block_of(db_obj) = nullptr;
    free_left();
    if (!block)
        return;
    {
        const lock_t lock;
        if (block == held) {
            block->gone = true;
            return;
        }
        unlink(block);
    }
    zan_shm_free(block);
}

/* ---- The walk and the replicas, for the two functions of each adjacency table ---- */

zan_rcode host_adj_walk(uint32_t index, zan_adj_visit_f visit, void *arg)
{
    HOST_ASSERT(zan_core_is_secondary_server_thread(),
                "entries are walked on the secondary server thread");
    const zan_adj_def_t *adj = adj_def(index);
    const zan_adj_props_t *props = zan_srv_adj_props_get(index);
    const uint32_t at = position_of(adj);
    zan_rcode rc = EOK;
    block_t *block;
    {
        const lock_t lock;
        block = step(lists[adj->parent_id].first);
    }
    while (block) {
        zan_adj_entry_st *entry = &block->counted[at].entry;
        fetch(props, entry);
        rc = visit(entry, arg);
        const lock_t lock;
        block = step(rc == EOK ? block->next : nullptr);
    }
    return rc;
}

void host_adj_replicate(zan_adj_entry_st *entry, uint32_t mode)
{
    if (mode != ZAN_ADJ_REPLICATE_ENTRY)
        return; /* each entry is in its replica already */
    timespec now;
    zan_clock_gettime(CLOCK_REALTIME, &now);
    auto *counted = (counted_t *)entry;
    const lock_t lock;
    counted->packets = entry->packets;
    counted->bytes = entry->bytes;
    counted->at_ns = (uint64_t)now.tv_sec * 1'000'000'000 + (uint64_t)now.tv_nsec;
}

/* ---- For others of the host, and for the agent ---- */

uint32_t zan_host_adj_get(const zan_table_base_st *db_obj, zan_host_adj_st *out, uint32_t max)
{
    if (!zan_table_defs[db_obj->table_id]->adj_list_offset)
        return 0;
    const block_t *block = *block_of(db_obj);
    const lock_t lock;
    for (uint32_t i = 0; block && i < block->num_entries && i < max; i++) {
        const counted_t *c = &block->counted[i];
        out[i] = {c->entry.index, c->packets, c->bytes, c->at_ns};
    }
    return block ? block->num_entries : 0;
}

uint64_t host_adj_count(uint32_t index)
{
    const lock_t lock;
    return lists[adj_def(index)->parent_id].num_blocks;
}

void host_adj_forget_table(uint32_t table_id)
{
    free_left();
    const lock_t lock;
    lists[table_id] = {};
}
