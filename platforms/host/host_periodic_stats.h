/* The periodic statistics service of the host: its passes, what they did, and the replicas of the
 * adjacency tables' counts, which other threads read.
 */
#ifndef ZAN_HOST_PERIODIC_STATS_H
#define ZAN_HOST_PERIODIC_STATS_H

#include "zan_table_base.h"

/* One registered table, or adjacency table. Times of CLOCK_REALTIME. */
typedef struct zan_host_stats_st {
    uint32_t kind, id; /* as zan_periodic_stats_key_st */
    uint64_t passes;   /* over it */
    uint64_t objects;  /* that it holds now, or entries */
    uint64_t last_ns;  /* when the last pass was over it; 0: none was */
    uint64_t took_ns, longest_ns;
    uint64_t failed; /* descriptors that hardware did not give, over all passes; each is traced */
} zan_host_stats_st;

/* The counts of an object in one adjacency table, as the last pass left them. */
typedef struct zan_host_adj_st {
    uint16_t index;
    uint64_t packets, bytes;
    uint64_t at_ns; /* when; 0: no pass has been there */
} zan_host_adj_st;

ZAN_EXTERN_C_BEGIN
/* One pass over all that is registered, on the calling thread, which is the secondary server thread
 * for that long; a pass that is under way is waited for. Any thread. */
ZAN_EXPORT void zan_host_stats_pass(void);
/* Have the service's thread make a pass as soon as it can, and go on. The number of that pass;
 * 0 when there is no thread: then nobody makes one. Any thread. */
ZAN_EXPORT uint64_t zan_host_stats_wake(void);
/* Passes that are over. Any thread. */
ZAN_EXPORT uint64_t zan_host_stats_passes(void);
/* What is registered, in order; the number. Any thread. */
ZAN_EXPORT uint32_t zan_host_stats_get(zan_host_stats_st *out, uint32_t max);
/* The counts of a database object; the number of its adjacency tables. Dispatcher thread. */
ZAN_EXPORT uint32_t zan_host_adj_get(const zan_table_base_st *db_obj, zan_host_adj_st *out,
                                     uint32_t max);
ZAN_EXTERN_C_END

/* ---- Inside the host ---- */

/* The service's thread, with so many milliseconds between its passes; 0: none. False without a
 * thread. */
bool host_stats_start(uint32_t period_ms);
void host_stats_stop(void);

/* Hardware did not give the descriptor of an object, or of an entry: count and trace it, at the
 * error class of the parent's table. `message` is HOST_TRACE_ID(..., 3). Thread of the pass. */
void host_stats_not_fetched(uint32_t parent_id, uint64_t message, uint32_t id, const void *what,
                            zan_rcode rc);

/* Entries of an adjacency table. Any thread. */
uint64_t host_adj_count(uint32_t index);
/* Forget the entries of a parent table, whose blocks go with it. No pass is under way. */
void host_adj_forget_table(uint32_t table_id);

#endif
