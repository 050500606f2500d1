/* What the services of the host tell each other about the calling thread: its identity, the locks
 * it holds, and how time passes for it.
 */
#ifndef ZAN_HOST_THREADS_H
#define ZAN_HOST_THREADS_H

#include "thread_control.h"

/* Whether the calling thread is the dispatcher, or the FRR thread while it holds the dispatcher:
 * the thread for which the database, the graph and the recycled memory are. */
bool host_holds_dispatcher(void);
bool host_is_npu_thread(void);

/* Who the calling thread is, for stepped mode: it takes an NPU's identity and its own again. */
typedef struct host_identity_t {
    zan_thread_role_et role;
    int npu;
    uint32_t trans_id;
    bool holds_dispatcher; /* an FRR thread inside its turn */
} host_identity_t;
host_identity_t host_self(void);
void host_become(host_identity_t identity);

/* Drop all locks of locks.h that the calling thread holds, as a mask, and take them again. */
uint32_t host_locks_drop(void);
void host_locks_retake(uint32_t held);
/* The same for the programming lock alone. */
bool host_programming_lock_drop(void);
void host_programming_lock_retake(bool held);

/* Let time pass as zan_usleep does, but run no NPU message. */
void host_let_time_pass(uint64_t microseconds);

/* Stepped mode: run a random number of queued messages, possibly none, when the calling thread may.
 * host_stepped is false with threads, and the function is then not worth a call. */
extern bool host_stepped;
void host_exec_q_step(void);
/* Show the NPU threads all that was sent to them. Producer; one load when there is nothing. */
void host_exec_q_flush(void);

/* What makes the dispatcher's yield point look closer: not 0 when an FRR thread waits, or in
 * stepped mode. So that a yield costs one load. */
enum {
    HOST_YIELD_STEPPED = 1,
    HOST_YIELD_FRR = 2, /* added for each waiting FRR thread */
};
void host_yield_attention(int change);

#endif
