/* The rings of the execution queue, and what takes messages from them: inside the host only.
 *
 *   exec_queue.cpp     what the server calls: broadcast, wait, stop and go
 *   exec_rings.cpp     the rings; which message may run now; the NPU threads: parking, waking
 *   exec_messages.cpp  messages and records, their way home, and who frees what
 *   exec_stepped.cpp   the run without threads
 */
#ifndef ZAN_HOST_EXEC_RINGS_H
#define ZAN_HOST_EXEC_RINGS_H

#include "exec_queue.h"
#include "npu_message.h"

#include <atomic>

#include <pthread.h>

#define HOST_RING_SLOTS 4096u /* a power of two */

typedef enum host_exec_kind_et {
    HOST_EXEC_REQUEST,   /* run kor_core_npu_dispatcher on the payload */
    HOST_EXEC_BATCH_END, /* call the slot async_batch_end_npu_cb of table_id */
    HOST_EXEC_GATE,      /* no NPU passes before all NPUs of the barrier message are done with it */
} host_exec_kind_et;

/* One block: a queue message, and room for the record of an asynchronous write, which the server
 * asks for separately. The block is free when neither part is out. */
typedef struct host_exec_msg_t {
    zan_exec_q_msg_st head;
    uint8_t kind;       /* host_exec_kind_et */
    uint8_t comes_home; /* the record, with its copies, is freed when the message comes home */
    uint8_t message_out, record_out; /* with the server or the queue */
    uint32_t table_id;               /* HOST_EXEC_BATCH_END */
    host_exec_msg_t *gate;           /* of a barrier message, else null */
    host_exec_msg_t *next_home;
    std::atomic<uint32_t> npus_left; /* NPUs that have it before them */
    std::atomic<uint32_t> closed;    /* HOST_EXEC_GATE: NPUs that are not done with the barrier */
    kor_core_srv_dispatch_t record;
} host_exec_msg_t;

/* One NPU. Positions count messages since the start; the slot is the position modulo the ring. The
 * producer is the thread that controls the queue, the consumer the NPU's thread.
 *
 * A message is taken at position `done`, if it is below `sent` and below `limit`. Who changes what
 * the other side waits for does so with a sequentially consistent store and then reads `parked` or
 * `wake_at`; who goes to sleep writes that first and then looks again: one of the two sees the
 * other. */
typedef struct host_ring_t {
    alignas(64) std::atomic<uint64_t> sent;
    std::atomic<uint64_t> limit;   /* stopped here; UINT64_MAX: runs */
    std::atomic<uint64_t> wake_at; /* the producer waits for `done` to reach it; UINT64_MAX: no */
    uint64_t wait_for;             /* producer: `done` of the wait that is armed */
    uint64_t done_seen;            /* producer: `done` when it was last read */
    uint64_t woken_for;            /* producer: `sent` when the thread was last woken */
    alignas(64) std::atomic<uint64_t> done;
    std::atomic<zan_rcode> last_rc;
    alignas(64) std::atomic<uint32_t> parked; /* futex: 1 while the thread sleeps */
    alignas(64) host_exec_msg_t *slots[HOST_RING_SLOTS];
    pthread_t thread;
} host_ring_t;

typedef struct host_exec_t {
    uint32_t num_npus; /* 0: not started */
    bool spin;         /* there are cores for it */
    bool wakes_owed;   /* producer: a ring has messages that its thread was not woken for */
    host_ring_t *rings;
    std::atomic<bool> quit;
    std::atomic<uint64_t> held;      /* NPUs that start no message */
    std::atomic<uint32_t> wait_word; /* futex of the producer: raised at each wake */
    std::atomic<uint64_t> resp_period_us;
} host_exec_t;
extern host_exec_t host_exec;

/* ---- exec_rings.cpp ---- */

bool host_rings_make(uint32_t num_npus);
void host_rings_free(void);
bool host_threads_start(void);
void host_threads_join(void);
/* The head of the NPU's ring may run now. */
bool host_ring_can_run(uint32_t npu);
/* Run it; false when there is none that may run. Under the NPU's identity. */
bool host_ring_run_one(uint32_t npu);
/* Append to the ring, which has room. A parked thread is left to sleep: the producer wakes it once
 * there are HOST_RING_WAKE_BATCH messages for it, or by host_rings_wake_owed. Producer. */
#define HOST_RING_WAKE_BATCH 64u
void host_ring_push(uint32_t npu, host_exec_msg_t *msg);
/* Wake every thread that sleeps on messages. One load when there is none. Producer. */
void host_rings_wake_owed(void);
/* Wake the NPU's thread if it is parked. */
void host_ring_wake(uint32_t npu);
/* All rings have done what target[npu] says. */
bool host_rings_reached(const uint64_t *target);
/* Block the producer until then, for `microseconds` at most; false when they have passed. Stepped:
 * run messages instead. */
bool host_rings_wait(const uint64_t *target, uint64_t microseconds);

/* ---- exec_messages.cpp ---- */

host_exec_msg_t *host_exec_msg_take(host_exec_kind_et kind);
/* The last NPU is done with the message. Any thread. */
void host_exec_send_home(host_exec_msg_t *msg);

/* ---- exec_stepped.cpp ---- */

void host_stepped_start(uint64_t seed);
void host_stepped_stop(void);
/* Run the head of some NPU that may run; false when none may. */
bool host_stepped_run_one(void);

#endif
