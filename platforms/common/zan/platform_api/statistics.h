/* Statistics of operations: per table first and last operation, durations, the slow ones.
 *
 * Called on every object, so each call is a handful of stores; no lock. Durations are timespecs.
 */
#ifndef ZAN_PLATFORM_STATISTICS_H
#define ZAN_PLATFORM_STATISTICS_H

#include "zan_table_base.h"

/* Durations of one kind of work. Bucket n counts those of at most 2^(n + ZAN_PERF_FIRST_BUCKET) ns
 * that are in no bucket before it, the last all that are longer than the others take. */
#define ZAN_PERF_BUCKETS      28u
#define ZAN_PERF_FIRST_BUCKET 8u
typedef struct zan_perf_stat_st {
    uint64_t count; /* the sum of the buckets */
    uint64_t total_ns;
    uint64_t max_ns;
    uint64_t bucket[ZAN_PERF_BUCKETS];
} zan_perf_stat_st;

/* What the service keeps for one table. */
typedef struct zan_table_perf_st {
    uint64_t first_op_ns, last_op_ns; /* CLOCK_REALTIME */
    uint32_t first_trans_id, last_trans_id;
    uint64_t num_slow_ops;
    zan_perf_stat_st dispatch;          /* an object on the dispatcher thread */
    zan_perf_stat_st ipc;               /* from the client's stamp to the batch's entry */
    zan_perf_stat_st dummy;             /* stopping the NPU queues */
    zan_perf_stat_st walk;              /* a walk that one of its objects began */
    zan_perf_stat_st npu[ZAN_MAX_NPUS]; /* hook calls */
} zan_table_perf_st;

ZAN_EXTERN_C_BEGIN
ZAN_EXPORT void table_update_first_op(uint32_t table_id, const struct timespec *when,
                                      uint32_t trans_id, uint32_t count);
ZAN_EXPORT void table_update_last_op(uint32_t table_id, const struct timespec *when,
                                     uint32_t trans_id, uint32_t count);
/* Behind table_update_first_op of the same object, on the same thread: the service measures from
 * there by a clock of its own, since the duration that it is given may be of a coarse one. */
ZAN_EXPORT void table_dispatch_perf_update(uint32_t table_id, const struct timespec *duration,
                                           uint32_t count);
/* Keeps the operation when it was slow: in the history of the calling NPU thread, or of the
 * dispatcher. */
ZAN_EXPORT void table_record_slow_op(uint32_t table_id, const struct timespec *duration,
                                     uint32_t trans_id, uint32_t operation);
ZAN_EXPORT void table_ipc_perf_update(uint32_t table_id, const struct timespec *avg_delay);
ZAN_EXPORT void table_dispatch_dummy_update(uint32_t table_id, const struct timespec *duration);
/* A hook call on the dispatcher thread: for one NPU, or for those of a mask, of which there are
 * num_npus; an empty mask is an object that asks for none, and is for all. */
ZAN_EXPORT void table_dispatch_npu_perf_update(uint32_t table_id, const struct timespec *duration,
                                               uint32_t npu);
ZAN_EXPORT void table_dispatch_npu_perf_update_with_mask(uint32_t table_id,
                                                         const struct timespec *duration,
                                                         kor_npu_mask_t mask, uint32_t num_npus);
/* A message on an NPU thread. */
ZAN_EXPORT void table_npu_perf_update(uint32_t table_id, const struct timespec *duration,
                                      uint32_t npu);
/* A copy of what is kept for a table. Any thread, without a lock: what is counted meanwhile may be
 * in it in part. */
ZAN_EXPORT void zan_table_perf_get(uint32_t table_id, zan_table_perf_st *out);

/* The periodic statistics service: on the secondary server thread it calls, now and then, the slot
 * stats_walk of each registered table, and `walk` of each registered adjacency table. Registered
 * once, at a table's first create, and for good. Dispatcher thread. `kind` is 1 for a table, by its
 * id, and 2 for an adjacency table, by its index. */
enum {
    ZAN_STATS_TABLE = 1,
    ZAN_STATS_ADJACENCY = 2,
};
typedef struct zan_periodic_stats_key_st {
    uint32_t kind;
    uint32_t id; /* or index */
} zan_periodic_stats_key_st;
ZAN_EXPORT void zan_periodic_stats_add_active_table(zan_periodic_stats_key_st key, uint32_t one);
ZAN_EXTERN_C_END

#endif
