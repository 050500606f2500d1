/* Adjacency tables: side tables of counters of a parent table's objects.
 *
 * An object of a parent table owns one entry in each adjacency table of its table, from its store
 * to its delete. The dispatcher thread makes and gives back the entries with the three zan_npi
 * calls. The periodic statistics walk visits them on the secondary server thread, through the two
 * functions that the platform has for each adjacency table: ZAN_ADJ_SERVICES(mplsstats) declares
 * those of one.
 *
 * An entry that a walk has in hand stays where it is until the walk is done with it, also when its
 * object goes meanwhile. That the object goes is told by the stale mark, which is set before
 * anything else; a walk leaves such an entry alone.
 */
#ifndef ZAN_PLATFORM_ADJACENCY_H
#define ZAN_PLATFORM_ADJACENCY_H

#include "zan_table_base.h"

#define ZAN_ADJ_STALE 0x1u

typedef struct zan_adj_entry_st {
    uint8_t flag; /* ZAN_ADJ_STALE; set on the dispatcher thread, read on both: atomic */
    uint8_t reserved;
    uint16_t index; /* of the adjacency table */
    uint16_t parent_id, key_size;
    uint32_t stale_trace_id; /* with the mark: the transaction that takes the object away */
    const void *key;         /* of the object, key_size bytes that live as long as the entry */
    /* The latest counts, which the platform's hook update_db_from_rdesc writes. They are the
     * walk's: other threads read the replica. */
    uint64_t packets, bytes;
} zan_adj_entry_st;

/* What zan_adj_srv_<adj>_shm_replicate_data is called for. */
enum {
    ZAN_ADJ_REPLICATE_ENTRY = 1, /* copy the entry's counts to where other threads read them */
    ZAN_ADJ_REPLICATE_END = 2,   /* the pass is over; the entry is null */
};

typedef zan_rcode (*zan_adj_visit_f)(zan_adj_entry_st *entry, void *arg);

/* Secondary server thread. The walk brings each entry's descriptor up to date (the table's hook
 * update_rdesc_from_hw) and visits it, under no lock. It returns the first code of a visit that is
 * not 0, which ends it; else 0. */
#define ZAN_ADJ_SERVICES(A)                                                                        \
    ZAN_EXPORT zan_rcode zan_adj_srv_##A##_db_walk(zan_adj_visit_f visit, void *arg);              \
    ZAN_EXPORT void zan_adj_srv_##A##_shm_replicate_data(zan_adj_entry_st *entry, uint32_t mode);

ZAN_EXTERN_C_BEGIN
/* Dispatcher thread, with a database object of a table that has an adjacency list. */
/* Make its entries, with counts of 0. Without memory it has fewer, and goes uncounted. */
ZAN_EXPORT void zan_npi_init_adj_list(zan_table_base_st *db_obj);
/* From now on no walk reads them. `trace_id` is the transaction that takes the object away; a walk
 * that meets a marked entry traces it. */
ZAN_EXPORT void zan_npi_mark_adj_entries_as_stale(zan_table_base_st *db_obj, uint32_t trace_id);
/* Give them back. An object without entries is left alone. */
ZAN_EXPORT void zan_npi_free_adj_entries_list(zan_table_base_st *db_obj);
ZAN_EXTERN_C_END

#endif
