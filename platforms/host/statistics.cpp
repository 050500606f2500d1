/* Statistics of operations. The counts of a table are the dispatcher's, those of an NPU its
 * thread's; `last_op` has both as writers. Relaxed loads and stores, no read-modify-write: a count
 * lost under a race is accepted, a torn one is not.
 */
#include "clock.h"
#include "host_services.h"
#include "host_statistics.h"
#include "thread_control.h"

#include <mutex>

namespace
{

/* An operation that takes this long is worth a row in the history. */
constexpr uint64_t slow_ns = 10'000'000;

/* zan_perf_stat_st, whose count is the sum of the buckets. */
struct durations_t {
    uint64_t total_ns, max_ns;
    uint64_t bucket[ZAN_PERF_BUCKETS];
};

struct table_t {
    uint64_t first_op_ns, last_op_ns;
    uint32_t first_trans_id, last_trans_id;
    uint64_t num_slow_ops;
    durations_t dispatch, ipc, dummy, walk;
    durations_t npu[ZAN_MAX_NPUS];
};

table_t tables[ZAN_NUM_TABLES];

/* Of the dispatcher, and of the threads that take its place. */
zan_npu_op_record_st dispatcher_history[ZAN_NPU_HISTORY_ROWS];
/* Slow operations are rare: one lock for all histories. What ends a process with a hung driver
 * reads them without. */
std::mutex history_mutex;
uint64_t history_rows[ZAN_MAX_NPUS + 1]; /* ever written, by NPU; the dispatcher's last */

thread_local uint64_t object_begin; /* in cycles */
uint64_t ns_per_cycle;              /* times 2^32 */

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

uint32_t bucket_of(uint64_t ns)
{
    const uint64_t below = (ns - (ns != 0)) | ((1u << ZAN_PERF_FIRST_BUCKET) - 1);
    const uint32_t bucket = 64 - (uint32_t)__builtin_clzll(below) - ZAN_PERF_FIRST_BUCKET;
    return bucket < ZAN_PERF_BUCKETS ? bucket : ZAN_PERF_BUCKETS - 1;
}

void count(durations_t *d, uint64_t ns)
{
    uint64_t *bucket = &d->bucket[bucket_of(ns)];
    store(bucket, load(bucket) + 1);
    store(&d->total_ns, load(&d->total_ns) + ns);
    if (ns > load(&d->max_ns))
        store(&d->max_ns, ns);
}

void read(const durations_t &d, zan_perf_stat_st *out)
{
    out->count = 0;
    for (uint32_t i = 0; i < ZAN_PERF_BUCKETS; i++)
        out->count += out->bucket[i] = load(&d.bucket[i]);
    out->total_ns = load(&d.total_ns);
    out->max_ns = load(&d.max_ns);
}

uint64_t real_ns()
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return to_ns(&t);
}

struct timespec sum_of(const struct timespec &a, const struct timespec &b)
{
    const long ns = a.tv_nsec + b.tv_nsec;
    return {a.tv_sec + b.tv_sec + ns / 1'000'000'000, ns % 1'000'000'000};
}

void keep_in_history(int npu, uint32_t table_id, const struct timespec *duration, uint32_t trans_id,
                     uint32_t operation)
{
    kor_exec_q_st *queue = get_global_exec_q();
    const std::lock_guard guard(history_mutex);
    const uint64_t next = history_rows[npu < 0 ? ZAN_MAX_NPUS : npu]++ % ZAN_NPU_HISTORY_ROWS;
    zan_npu_op_record_st *row = npu < 0 ? &dispatcher_history[next] : &queue->history[npu][next];
    if (npu >= 0) {
        *row = queue->current[npu];
    } else {
        struct timespec now;
        zan_clock_gettime(CLOCK_REALTIME, &now);
        clock_diff(duration, &now, &row->start_time);
    }
    row->op = operation;
    row->table_id = (uint16_t)table_id;
    row->id = trans_id;
    row->elapsed = *duration;
    row->end_time = sum_of(row->start_time, *duration);
}

} // namespace

/* How long a cycle is, by two looks at both clocks. */
void host_statistics_start(void)
{
    constexpr uint64_t calibration_ns = 2'000'000;
    const uint64_t begin_ns = real_ns(), begin = zan_clock_cycles();
    uint64_t taken_ns;
    do
        taken_ns = real_ns() - begin_ns;
    while (taken_ns < calibration_ns);
    ns_per_cycle = (taken_ns << 32) / (zan_clock_cycles() - begin);
}

void table_update_first_op(uint32_t table_id, const struct timespec *when, uint32_t trans_id,
                           uint32_t)
{
    table_t *t = &tables[table_id];
    object_begin = zan_clock_cycles();
    if (load(&t->first_op_ns) != 0)
        return;
    store(&t->first_op_ns, to_ns(when));
    store(&t->first_trans_id, trans_id);
}

void table_update_last_op(uint32_t table_id, const struct timespec *when, uint32_t trans_id,
                          uint32_t)
{
    table_t *t = &tables[table_id];
    store(&t->last_op_ns, to_ns(when));
    store(&t->last_trans_id, trans_id);
}

/* The duration is of a clock whose ticks are longer than most objects take. */
void table_dispatch_perf_update(uint32_t table_id, const struct timespec *, uint32_t)
{
    const uint64_t now = zan_clock_cycles();
    const uint64_t cycles = now > object_begin ? now - object_begin : 0;
    count(&tables[table_id].dispatch, (uint64_t)((unsigned __int128)cycles * ns_per_cycle >> 32));
}

void table_record_slow_op(uint32_t table_id, const struct timespec *duration, uint32_t trans_id,
                          uint32_t operation)
{
    if (to_ns(duration) < slow_ns)
        return;
    table_t *t = &tables[table_id];
    store(&t->num_slow_ops, load(&t->num_slow_ops) + 1);
    keep_in_history(zan_thread_npu(), table_id, duration, trans_id, operation);
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
        if (mask == 0 || mask >> npu & 1)
            count(&tables[table_id].npu[npu], to_ns(duration));
}

void table_npu_perf_update(uint32_t table_id, const struct timespec *duration, uint32_t npu)
{
    count(&tables[table_id].npu[npu % ZAN_MAX_NPUS], to_ns(duration));
}

void host_count_walk(uint32_t table_id, uint64_t ns)
{
    count(&tables[table_id].walk, ns);
}

void zan_table_perf_get(uint32_t table_id, zan_table_perf_st *out)
{
    const table_t &t = tables[table_id];
    out->first_op_ns = load(&t.first_op_ns);
    out->last_op_ns = load(&t.last_op_ns);
    out->first_trans_id = load(&t.first_trans_id);
    out->last_trans_id = load(&t.last_trans_id);
    out->num_slow_ops = load(&t.num_slow_ops);
    read(t.dispatch, &out->dispatch);
    read(t.ipc, &out->ipc);
    read(t.dummy, &out->dummy);
    read(t.walk, &out->walk);
    for (uint32_t npu = 0; npu < ZAN_MAX_NPUS; npu++)
        read(t.npu[npu], &out->npu[npu]);
}

uint32_t zan_host_slow_ops(uint32_t npu, zan_npu_op_record_st *out)
{
    const zan_npu_op_record_st *history =
        npu < ZAN_MAX_NPUS ? get_global_exec_q()->history[npu] : dispatcher_history;
    const std::lock_guard guard(history_mutex);
    const uint64_t rows = history_rows[npu < ZAN_MAX_NPUS ? npu : ZAN_MAX_NPUS];
    uint32_t n = 0;
    for (; n < ZAN_NPU_HISTORY_ROWS && n < rows; n++)
        out[n] = history[(rows - 1 - n) % ZAN_NPU_HISTORY_ROWS];
    return n;
}

uint64_t zan_host_slow_op_ns(void)
{
    return slow_ns;
}
