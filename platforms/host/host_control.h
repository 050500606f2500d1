/* Control of the host platform: what its owner, the agent or a test, does with the table database,
 * the execution queue, the clock and the internal queues, beside what the server imports.
 *
 * Owner's thread, while nothing of the server runs, unless said otherwise.
 */
#ifndef ZAN_HOST_CONTROL_H
#define ZAN_HOST_CONTROL_H

#include <time.h>

#include "exec_queue.h"
#include "table_database.h"

ZAN_EXTERN_C_BEGIN

/* ---- Execution queue ---- */

/* Make the rings of NPUs 0 to num_npus - 1 and start their threads; stepped: no threads, and an
 * order that the seed decides. False without memory or threads, or when it runs already. The thread
 * that controls the queue is the one with ZAN_EXEC_Q_CONTROL_OPS_ALLOWED. */
ZAN_EXPORT bool zan_host_exec_q_start(uint32_t num_npus, bool stepped, uint64_t seed);
/* Run what is queued, stopped or held or not, join the threads, take home what is done. */
ZAN_EXPORT void zan_host_exec_q_stop(void);
/* The period of kor_exec_q_resp_wait in microseconds; 10 s at first. Any time. */
ZAN_EXPORT void zan_host_exec_q_set_resp_period(uint64_t microseconds);
/* NPUs that start no further message, as if their driver hung; 0 lets all go on. Any thread. */
ZAN_EXPORT void zan_host_exec_q_hold(kor_npu_mask_t mask);
ZAN_EXPORT kor_npu_mask_t zan_host_exec_q_held(void);
/* A performance exercise that sees each request before the queue; null for none. See
 * zan_server_perf_sanity_process_req_fn. */
typedef bool (*zan_host_perf_exercise_f)(zan_exec_q_msg_st *msg, bool is_async_write,
                                         uint8_t *is_async_out);
ZAN_EXPORT void zan_host_set_perf_exercise(zan_host_perf_exercise_f exercise);

/* ---- Clock ---- */

/* Let all clocks stand but for sleeps and zan_host_clock_advance, from now on; or let them run
 * again. Any thread. */
ZAN_EXPORT void zan_host_clock_set_virtual(bool on);
ZAN_EXPORT void zan_host_clock_advance(uint64_t microseconds);

/* ---- Threads ---- */

/* Threads that wait for a mutex of the server, and where. Any thread. */
typedef struct zan_host_mutex_block_st {
    const void *mutex;
    const char *function; /* in which it waits; constant text */
    uint32_t line;
    int thread; /* as gettid(2) */
} zan_host_mutex_block_st;
ZAN_EXPORT uint32_t zan_host_mutex_blocks(zan_host_mutex_block_st *out, uint32_t max);

/* FRR threads that wait for their turn. Any thread. */
ZAN_EXPORT uint32_t zan_host_frr_waiting(void);

/* ---- Trace ring ---- */

/* Keep the ring in a file from now on, with what it has already: zan_trace_file_st and what
 * follows. It can be read when the process is gone. A file of that name goes aside, with ".old"
 * behind its name, unless the process that made it lives. While no other thread traces. False, with
 * errno, when it cannot be had; the ring stays in memory then. */
ZAN_EXPORT bool zan_host_trace_open(const char *path);
/* Why a thread's ring found no room in the file, an errno: it is in memory, and ends with the
 * process. 0: all are in the file, or there is none. Any thread. */
ZAN_EXPORT int zan_host_trace_file_fault(void);
/* Note in the file which cycle it is now; now and then. One thread. */
ZAN_EXPORT void zan_host_trace_tick(void);
/* The records of error classes since the last call, of all threads. It looks at what is new and at
 * nothing else; of what was overwritten meanwhile it knows nothing. Without locks. One thread. */
ZAN_EXPORT uint64_t zan_host_trace_new_errors(void);
/* Calls of threads that found no ring free, since the start: nothing is left of them. Any thread.
 */
ZAN_EXPORT uint64_t zan_host_traces_lost(void);

/* ---- Internal queues ---- */

/* Have the dispatcher thread call a function at its next east-west step. Any thread. False without
 * memory. */
typedef void (*zan_host_east_west_f)(void *arg);
ZAN_EXPORT bool zan_host_east_west_inject(zan_host_east_west_f function, void *arg);
/* Forget what stands in the internal queues; objects of queue 2 are freed by their table's
 * copy_dtor, so that the properties must still be there. */
ZAN_EXPORT void zan_host_internal_queues_clear(void);

/* ---- Table database ---- */

/* Free the index, all objects and the quarantine of a table, stored or not; it may be made again by
 * zan_db_init. The second: of all tables, and the pool and all recycled memory with them. */
ZAN_EXPORT void zan_db_fini_table(uint32_t table_id);
ZAN_EXPORT void zan_db_deinit(void);
/* Size of the private area of a table's objects, a multiple of 8; before the table's first use. */
ZAN_EXPORT void zan_host_set_private_size(uint32_t table_id, uint32_t size);
/* When the table last changed, by CLOCK_REALTIME_COARSE; zero for never. */
ZAN_EXPORT struct timespec zan_db_table_mtime(uint32_t table_id);

/* Put a copy of an object (any form, pointers valid) in the quarantine of its table. Returns the
 * entry, which the list owns, or null without memory. Dispatcher thread. */
ZAN_EXPORT zan_table_base_st *zan_db_quarantine_add(const zan_table_base_st *obj);
ZAN_EXPORT void zan_db_quarantine_remove(zan_table_base_st *entry);

ZAN_EXTERN_C_END

#endif
