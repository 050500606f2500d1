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

#define HOST_EXEC_MESSAGE 1u
#define HOST_EXEC_RECORD  2u

/* One block: a queue message, and room for the record of an asynchronous write, which the server
 * asks for separately. The block is free when neither part is out. */
typedef struct host_exec_msg_t {
    zan_exec_q_msg_st head;
    uint8_t kind;          /* host_exec_kind_et */
    uint8_t comes_home;    /* the record, with its copies, is freed when the message comes home */
    uint8_t out;           /* HOST_EXEC_MESSAGE, HOST_EXEC_RECORD: with server or queue */
    uint32_t table_id;     /* HOST_EXEC_BATCH_END */
    host_exec_msg_t *gate; /* of a barrier message, else null */
    uint32_t rings_left;   /* producer: rings that it was not collected from yet */
    std::atomic<uint32_t> closed; /* HOST_EXEC_GATE: NPUs that are not done with the barrier */
    host_exec_msg_t *next_home;   /* producer: collected from all */
    kor_core_srv_dispatch_t record;
} host_exec_msg_t;

/* One NPU. Positions count messages since the start; the slot is the position modulo the ring. The
 * producer is the thread that controls the queue, the consumer the NPU's thread.
 *
 *     collected <= done <= ran <= sent <= pushed <= collected + HOST_RING_SLOTS
 *
 * A line that both threads write costs each of them a trip to the other's cache, so positions are
 * shown to the other side in runs: the producer moves `sent` behind a run of messages, the consumer
 * `done`, or as soon as it has nothing more to run. A message goes home when the producer has
 * collected it from every ring it was pushed to.
 *
 * A message is taken at position `ran`, if it is below `sent` and below `limit`. Who changes what
 * the other side waits for does so with a sequentially consistent store and then reads `parked` or
 * `wake_at`; who goes to sleep writes that first and then looks again: one of the two sees the
 * other. */
typedef struct host_ring_t {
    /* The producer's, which the consumer reads. */
    alignas(64) std::atomic<uint64_t> sent;
    std::atomic<uint64_t> limit;   /* stopped here; UINT64_MAX: runs */
    std::atomic<uint64_t> wake_at; /* the producer waits for `done` to reach it; UINT64_MAX: no */
    /* The producer's own. */
    alignas(64) std::atomic<uint64_t> pushed; /* others read it for the depth */
    uint64_t collected;
    uint64_t wait_for; /* `done` of the wait that is armed */
    /* The consumer's, which the producer reads. */
    alignas(64) std::atomic<uint64_t> done;
    std::atomic<zan_rcode> last_rc;
    /* The consumer's own. */
    alignas(64) std::atomic<uint64_t> ran;    /* others read it for the depth */
    alignas(64) std::atomic<uint32_t> parked; /* futex: 1 while the thread sleeps */
    alignas(64) host_exec_msg_t *slots[HOST_RING_SLOTS];
    pthread_t thread;
} host_ring_t;

typedef struct host_exec_t {
    uint32_t num_npus; /* 0: not started */
    bool spin;         /* there are cores for it */
    bool unsent;       /* producer: a ring has messages behind its `sent` */
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
/* Append to the ring, which has room. The NPU sees the message once a run of HOST_RING_RUN is
 * there, or by host_rings_publish. Producer. */
#define HOST_RING_RUN 32u
void host_ring_push(uint32_t npu, host_exec_msg_t *msg);
/* Show every NPU what was pushed, and wake it. One load when there is nothing. Producer. */
void host_rings_publish(void);
/* Stepped: show how far every NPU has come. */
void host_rings_show_done(void);
/* Take what the NPUs are done with out of the rings; what no ring has any more goes home. Costs a
 * load for each NPU when there is nothing. Producer. */
void host_rings_collect(void);
/* Wake the NPU's thread if it is parked. */
void host_ring_wake(uint32_t npu);
/* All rings have done what target[npu] says. */
bool host_rings_reached(const uint64_t *target);
/* Block the producer until then, for `microseconds` at most; false when they have passed. Stepped:
 * run messages instead. */
bool host_rings_wait(const uint64_t *target, uint64_t microseconds);

/* ---- exec_messages.cpp ---- */

host_exec_msg_t *host_exec_msg_take(host_exec_kind_et kind);
/* No ring has the message any more: the next post-NPU step frees it. Producer. */
void host_exec_send_home(host_exec_msg_t *msg);

/* ---- exec_stepped.cpp ---- */

void host_stepped_start(uint64_t seed);
void host_stepped_stop(void);
/* Run the head of some NPU that may run; false when none may. */
bool host_stepped_run_one(void);

#endif
