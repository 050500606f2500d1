/* Statistics of operations. The counts of a table are the dispatcher's, those of an NPU its
 * thread's; `last_op` has both as writers. Relaxed loads and stores, no read-modify-write: a count
 * lost under a race is accepted, a torn one is not.
 */
#include "statistics.h"
#include "exec_queue.h"
#include "host_services.h"
#include "thread_control.h"

#include <cstring>

namespace
{

/* An operation that takes this long is worth a row in the history. */
constexpr uint64_t slow_ns = 10'000'000;

zan_table_perf_st tables[ZAN_NUM_TABLES];
uint32_t history_next[ZAN_MAX_NPUS]; /* each NPU thread its own */

uint64_t to_ns(const struct timespec *t)
{
    return (uint64_t)t->tv_sec * 1'000'000'000 + (uint64_t)t->tv_nsec;
}

template <class T> void store(T *at, T value)
{
    __atomic_store_n(at, value, __ATOMIC_RELAXED);
}

template <class T> T load(const T *at)
{
    return __atomic_load_n(at, __ATOMIC_RELAXED);
}

void count(zan_perf_stat_st *stat, uint64_t ns)
{
    store(&stat->count, load(&stat->count) + 1);
    store(&stat->total_ns, load(&stat->total_ns) + ns);
    if (ns > load(&stat->max_ns))
        store(&stat->max_ns, ns);
}

void keep_in_history(uint32_t npu, uint32_t table_id, const struct timespec *duration,
                     uint32_t trans_id, uint32_t operation)
{
    kor_exec_q_st *queue = get_global_exec_q();
    zan_npu_op_record_st *row = &queue->history[npu][history_next[npu]];
    history_next[npu] = (history_next[npu] + 1) % ZAN_NPU_HISTORY_ROWS;
    *row = queue->current[npu];
    row->op = operation;
    row->table_id = (uint16_t)table_id;
    row->id = trans_id;
    row->elapsed = *duration;
    row->end_time = row->start_time;
    row->end_time.tv_nsec += duration->tv_nsec;
    row->end_time.tv_sec += duration->tv_sec + row->end_time.tv_nsec / 1'000'000'000;
    row->end_time.tv_nsec %= 1'000'000'000;
}

} // namespace

void table_update_first_op(uint32_t table_id, const struct timespec *when, uint32_t trans_id,
                           uint32_t)
{
    zan_table_perf_st *t = &tables[table_id];
    if (load(&t->first_op_ns) != 0)
        return;
    store(&t->first_op_ns, to_ns(when));
    store(&t->first_trans_id, trans_id);
}

void table_update_last_op(uint32_t table_id, const struct timespec *when, uint32_t trans_id,
                          uint32_t n)
{
    zan_table_perf_st *t = &tables[table_id];
    store(&t->last_op_ns, to_ns(when));
    store(&t->last_trans_id, trans_id);
    store(&t->num_ops, load(&t->num_ops) + n);
}

void table_dispatch_perf_update(uint32_t table_id, const struct timespec *duration, uint32_t)
{
    count(&tables[table_id].dispatch, to_ns(duration));
}

void table_record_slow_op(uint32_t table_id, const struct timespec *duration, uint32_t trans_id,
                          uint32_t operation)
{
    if (to_ns(duration) < slow_ns)
        return;
    zan_table_perf_st *t = &tables[table_id];
    store(&t->num_slow_ops, load(&t->num_slow_ops) + 1);
    const int npu = zan_thread_npu();
    if (npu >= 0)
        keep_in_history((uint32_t)npu, table_id, duration, trans_id, operation);
}

void table_ipc_perf_update(uint32_t table_id, const struct timespec *avg_delay)
{
    count(&tables[table_id].ipc, to_ns(avg_delay));
}

void table_dispatch_dummy_update(uint32_t table_id, const struct timespec *duration)
{
    count(&tables[table_id].dummy, to_ns(duration));
}

void table_dispatch_npu_perf_update(uint32_t table_id, const struct timespec *duration,
                                    uint32_t npu)
{
    count(&tables[table_id].npu[npu % ZAN_MAX_NPUS], to_ns(duration));
}

void table_dispatch_npu_perf_update_with_mask(uint32_t table_id, const struct timespec *duration,
                                              kor_npu_mask_t mask, uint32_t num_npus)
{
    for (uint32_t npu = 0; npu < num_npus && npu < ZAN_MAX_NPUS; npu++)
        if (mask >> npu & 1)
            count(&tables[table_id].npu[npu], to_ns(duration));
}

void table_npu_perf_update(uint32_t table_id, const struct timespec *duration, uint32_t npu)
{
    count(&tables[table_id].npu[npu % ZAN_MAX_NPUS], to_ns(duration));
}

const zan_table_perf_st *zan_table_perf_get(uint32_t table_id)
{
    return &tables[table_id];
}
