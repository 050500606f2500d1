/* The periodic statistics service.
 *
 * One thread, the secondary server thread, that walks all registered tables, rests, and begins
 * again. Of a table with counters of its own each descriptor is first brought up to date from
 * hardware, then the table's stats_walk takes the counters into the objects; an adjacency table's
 * walk does both. Anybody may wake the thread for a pass, or make one on a thread of his own, which
 * is the secondary server thread for that long.
 *
 * The list only grows, at its end: the dispatcher thread writes a row and then the number of rows.
 */
#include "clock.h"
#include "host_assert.h"
#include "host_periodic_stats.h"
#include "host_threads.h"
#include "host_trace.h"
#include "statistics.h"
#include "table_database.h"
#include "table_properties.h"

#include <cerrno>

#include <pthread.h>

namespace
{

struct active_t {
    zan_periodic_stats_key_st key;
    uint64_t passes, failed, last_ns, took_ns, longest_ns; /* under `rows` */
};

constexpr uint32_t max_active = 64; /* tables and adjacency tables */
active_t active[max_active];
uint32_t num_active;

/* Who has it is the secondary server thread. */
pthread_mutex_t pass = PTHREAD_MUTEX_INITIALIZER;
uint64_t not_fetched; /* descriptors, ever; under `pass` */
/* What the passes did; the mutex of the adjacency entries inside. */
pthread_mutex_t rows = PTHREAD_MUTEX_INITIALIZER;

pthread_mutex_t rest = PTHREAD_MUTEX_INITIALIZER; /* the next six; no lock inside */
pthread_cond_t woken = PTHREAD_COND_INITIALIZER;
bool stopping, asked;
bool running;
uint64_t passes_begun, passes_over;
pthread_t thread;
uint32_t period;

uint64_t now_ns(clockid_t clock)
{
    timespec now;
    zan_clock_gettime(clock, &now);
    return (uint64_t)now.tv_sec * 1'000'000'000 + (uint64_t)now.tv_nsec;
}

/* ---- A pass ---- */

/* A descriptor that hardware did not give has the counts of before. */
zan_rcode update_descriptor(zan_table_base_st *db_obj, void *arg)
{
    const zan_rcode rc = ((const srv_zan_table_props_t *)arg)->update_rdesc_from_hw(db_obj);
    if (rc != EOK)
        host_stats_not_fetched(db_obj->table_id, HOST_TRACE_ID(NOT_FETCHED, 3), db_obj->table_id,
                               db_obj, rc);
    return EOK;
}

void walk_table(uint32_t table_id)
{
    srv_zan_table_props_t *props = zan_srv_table_props_get(table_id);
    if (props->hook_source[ZAN_HOOK_update_rdesc_from_hw] != ZAN_HOOK_NONE)
        zan_db_walk(table_id, nullptr, update_descriptor, props, 0);
    props->stats_walk();
}

/* What comes back is of no use: a failure is traced where it was, and the walk went on. */
void walk(active_t *a)
{
    const uint64_t start = now_ns(CLOCK_MONOTONIC), failed = not_fetched;
    if (a->key.kind == ZAN_STATS_TABLE)
        walk_table(a->key.id);
    else
        zan_srv_adj_props_get(a->key.id)->walk();
    const uint64_t took = now_ns(CLOCK_MONOTONIC) - start;
    pthread_mutex_lock(&rows);
    a->passes++;
    a->failed += not_fetched - failed;
    a->last_ns = now_ns(CLOCK_REALTIME);
    a->took_ns = took;
    if (took > a->longest_ns)
        a->longest_ns = took;
    pthread_mutex_unlock(&rows);
}

/* ---- The thread ---- */

/* Until the period is over, or somebody asks. False when it is time to end. */
bool have_a_rest()
{
    timespec until;
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += period / 1000;
    until.tv_nsec += (long)(period % 1000) * 1'000'000;
    until.tv_sec += until.tv_nsec / 1'000'000'000;
    until.tv_nsec %= 1'000'000'000;
    pthread_mutex_lock(&rest);
    while (!stopping && !asked &&
           pthread_cond_clockwait(&woken, &rest, CLOCK_MONOTONIC, &until) != ETIMEDOUT) {
    }
    asked = false;
    const bool more = !stopping;
    pthread_mutex_unlock(&rest);
    return more;
}

bool is_stopping()
{
    pthread_mutex_lock(&rest);
    const bool stop = stopping;
    pthread_mutex_unlock(&rest);
    return stop;
}

void count_pass(uint64_t *counter)
{
    pthread_mutex_lock(&rest);
    ++*counter;
    pthread_mutex_unlock(&rest);
}

void *thread_main(void *) noexcept
{
    pthread_setname_np(pthread_self(), "zan_stats");
    while (have_a_rest())
        zan_host_stats_pass();
    return nullptr;
}

} // namespace

bool host_stats_start(uint32_t period_ms)
{
    if (period_ms == 0)
        return true;
    period = period_ms;
    stopping = false;
    const bool started = pthread_create(&thread, nullptr, thread_main, nullptr) == 0;
    pthread_mutex_lock(&rest);
    running = started;
    pthread_mutex_unlock(&rest);
    return started;
}

void host_stats_not_fetched(uint32_t parent_id, uint64_t message, uint32_t id, const void *what,
                            zan_rcode rc)
{
    not_fetched++;
    const uint32_t error = zan_srv_table_props_get(parent_id)->ringlog_enums.level[0];
    if (zan_trace_is_on(error))
        _ringlog_3(error, message, id, (uint64_t)(uintptr_t)what, rc);
}

void host_stats_stop(void)
{
    pthread_mutex_lock(&rest);
    const bool ran = running;
    running = false;
    stopping = true;
    pthread_cond_signal(&woken);
    pthread_mutex_unlock(&rest);
    if (ran)
        pthread_join(thread, nullptr);
}

void zan_periodic_stats_add_active_table(zan_periodic_stats_key_st key, uint32_t)
{
    HOST_ASSERT(num_active < max_active, "there is room for all tables that are walked");
    active[num_active].key = key;
    __atomic_store_n(&num_active, num_active + 1, __ATOMIC_RELEASE);
}

void zan_host_stats_pass(void)
{
    pthread_mutex_lock(&pass);
    count_pass(&passes_begun);
    const host_identity_t self = host_self();
    host_become({ZAN_THREAD_STATS, -1, 0, false});
    const uint32_t n = __atomic_load_n(&num_active, __ATOMIC_ACQUIRE);
    for (uint32_t i = 0; i < n && !is_stopping(); i++)
        walk(&active[i]);
    host_become(self);
    count_pass(&passes_over);
    pthread_mutex_unlock(&pass);
}

uint64_t zan_host_stats_wake(void)
{
    pthread_mutex_lock(&rest);
    const uint64_t next = running ? passes_begun + 1 : 0;
    asked = running;
    pthread_cond_signal(&woken);
    pthread_mutex_unlock(&rest);
    return next;
}

uint64_t zan_host_stats_passes(void)
{
    pthread_mutex_lock(&rest);
    const uint64_t over = passes_over;
    pthread_mutex_unlock(&rest);
    return over;
}

uint32_t zan_host_stats_get(zan_host_stats_st *out, uint32_t max)
{
    const uint32_t n = __atomic_load_n(&num_active, __ATOMIC_ACQUIRE);
    pthread_mutex_lock(&rows);
    for (uint32_t i = 0; i < n && i < max; i++) {
        const active_t *a = &active[i];
        const bool table = a->key.kind == ZAN_STATS_TABLE;
        out[i] = {a->key.kind,   a->key.id,
                  a->passes,     table ? zan_db_count(a->key.id) : host_adj_count(a->key.id),
                  a->last_ns,    a->took_ns,
                  a->longest_ns, a->failed};
    }
    pthread_mutex_unlock(&rows);
    return n;
}
