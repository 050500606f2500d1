/* The periodic statistics walks: what the secondary server thread calls of a table.
 *
 * The platform's service decides when. A table with counters of its own is walked object by object,
 * the table database's locks around each, since the dispatcher writes the same objects. An
 * adjacency table is walked entry by entry under no lock: its entries belong to the walk, and the
 * stale mark tells those whose object is on its way out. Nothing that fails here reaches a client;
 * it is traced, and the walk goes on.
 */
#include "table_server_api_common.h"

namespace
{

/* The hook takes the counters of one object in. */
zan_rcode take_counters(zan_table_base_st *db_obj, void *arg)
{
    const auto *props = (const srv_zan_table_props_t *)arg;
    const zan_rcode rc = props->update_zan_db_stats_from_rdesc(db_obj);
    if (rc != EOK)
        ZAN_TRACE_TABLE(zan_slt_table_id(props->def->id, ZAN_TRACE_LEVEL_ERROR), props->def->id,
                        STATS_NOT_TAKEN, db_obj, rc);
    return EOK;
}

/* A failing entry is replicated as it stands. */
zan_rcode take_entry(zan_adj_entry_st *entry, void *)
{
    const zan_trace_class_t error = zan_slt_table_id(entry->parent_id, ZAN_TRACE_LEVEL_ERROR);
    if (__atomic_load_n(&entry->flag, __ATOMIC_ACQUIRE) & ZAN_ADJ_STALE) {
        ZAN_TRACE_TABLE(error, entry->parent_id, ADJ_STALE, entry->index, entry,
                        entry->stale_trace_id);
        return EOK;
    }
    const zan_adj_props_t *props = zan_srv_adj_props_get(entry->index);
    const zan_rcode rc = props->update_db_from_rdesc ? props->update_db_from_rdesc(entry) : EOK;
    if (rc != EOK)
        ZAN_TRACE_TABLE(error, entry->parent_id, ADJ_NOT_TAKEN, entry->index, entry, rc);
    zan_adj_ops_get(entry->index)->shm_replicate_data(entry, ZAN_ADJ_REPLICATE_ENTRY);
    return EOK;
}

timespec time_since(const timespec *start)
{
    timespec end, taken;
    zan_clock_gettime(CLOCK_REALTIME, &end);
    clock_diff(start, &end, &taken);
    return taken;
}

zan_rcode hook_absent(zan_adj_entry_st *)
{
    return EOK;
}

zan_rcode (*lead(const zan_hook_pair_t *hook))(zan_adj_entry_st *)
{
    const zan_hook_f found = hook->platform ? hook->platform : hook->dflt;
    return found ? (zan_rcode(*)(zan_adj_entry_st *))found : hook_absent;
}

} // namespace

zan_rcode zan_server_stats_walk(const zan_table_def_t *def)
{
    timespec start;
    zan_clock_gettime(CLOCK_REALTIME, &start);
    const zan_rcode rc =
        zan_db_walk(def->id, nullptr, take_counters, zan_table_state(def)->props, 0);
    const timespec taken = time_since(&start);
    ZAN_TRACE_TABLE(zan_slt_table_id(def->id, ZAN_TRACE_LEVEL_EVENT), def->id, STATS_WALKED,
                    taken.tv_sec, taken.tv_nsec, zan_db_count(def->id));
    return rc;
}

zan_rcode zan_server_adj_walk(const zan_adj_ops_t *adj)
{
    timespec start;
    zan_clock_gettime(CLOCK_REALTIME, &start);
    const zan_rcode rc = adj->db_walk(take_entry, nullptr);
    const timespec taken = time_since(&start);
    ZAN_TRACE_TABLE(zan_slt_table_id(adj->def->parent_id, ZAN_TRACE_LEVEL_EVENT),
                    adj->def->parent_id, ADJ_WALKED, adj->def->index, taken.tv_sec, taken.tv_nsec,
                    rc);
    adj->shm_replicate_data(nullptr, ZAN_ADJ_REPLICATE_END);
    return rc;
}

void zan_server_adj_callback_wrapper_setup(const zan_adj_ops_t *adj, zan_adj_props_t *props)
{
    props->update_db_from_rdesc = lead(&adj->hooks[0]);
    props->update_rdesc_from_hw = lead(&adj->hooks[1]);
}

/* zan_srv_<table>_npi_init_adj_props */
void zan_server_init_adj_props(const zan_table_def_t *def)
{
    for (uint32_t i = 0; i < def->num_adjacencies; i++) {
        const zan_adj_ops_t *adj = zan_adj_ops_get(def->adjacencies[i]);
        zan_adj_props_t *props = zan_srv_adj_props_get(def->adjacencies[i]);
        props->walk = adj->walk;
        props->callback_setup = adj->callback_setup;
        if (props->callback_setup)
            props->callback_setup(props);
    }
}
