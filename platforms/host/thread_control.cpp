/* Thread roles, and the hand-over of the dispatcher to an FRR thread.
 *
 * The dispatcher's place has one holder: the dispatcher thread from zan_dispatcher_enter to
 * zan_dispatcher_leave, or an FRR thread from zan_frr_enter to zan_frr_leave. FRR threads that wait
 * stand in line by ticket. At a yield the dispatcher lets all tickets pass that were given out
 * before it, and then goes on; one that comes later has the next yield, so that neither side
 * starves.
 *
 * The mutex below is this file's own: held for the bookkeeping only, with no other lock inside.
 */
#include "thread_control.h"
#include "host_assert.h"
#include "host_control.h"
#include "host_threads.h"

#include <atomic>

#include <pthread.h>

namespace
{

/* Asked on every allocation: initial-exec spares the call that a shared library makes for it. */
thread_local __attribute__((tls_model("initial-exec")))
host_identity_t self = {ZAN_THREAD_NONE, -1, 0, false};
std::atomic<bool> dispatcher_spawned;

/* HOST_YIELD_*. */
std::atomic<int> attention;

pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
bool dispatcher_inside, frr_inside;
uint32_t dispatcher_depth;      /* entries of the dispatcher thread, one inside the other */
uint64_t admitted = UINT64_MAX; /* tickets below it may enter; all while the dispatcher is idle */
uint64_t next_ticket, served;   /* tickets below `served` have had their turn */

void let_frr_threads_in(void)
{
    pthread_mutex_lock(&mutex);
    if (dispatcher_inside) {
        const uint64_t last = next_ticket;
        admitted = last; /* one that comes later has the next yield */
        dispatcher_inside = false;
        pthread_cond_broadcast(&changed);
        while (served < last || frr_inside)
            pthread_cond_wait(&changed, &mutex);
        dispatcher_inside = true;
        admitted = UINT64_MAX;
    }
    pthread_mutex_unlock(&mutex);
}

} // namespace

/* ---- Roles ---- */

zan_thread_role_et zan_thread_set_role(zan_thread_role_et role, int npu)
{
    const zan_thread_role_et former = self.role;
    self.role = role;
    self.npu = role == ZAN_THREAD_NPU ? npu : -1;
    if (role == ZAN_THREAD_DISPATCHER)
        dispatcher_spawned.store(true, std::memory_order_relaxed);
    return former;
}

bool zan_core_is_dispatch_thread(void)
{
    return self.role == ZAN_THREAD_DISPATCHER;
}

bool zan_core_is_frr_thread(void)
{
    return self.role == ZAN_THREAD_FRR;
}

bool zan_core_is_secondary_server_thread(void)
{
    return self.role == ZAN_THREAD_STATS;
}

bool zan_core_is_dispatcher_spawned(void)
{
    return dispatcher_spawned.load(std::memory_order_relaxed);
}

uint32_t kor_core_get_npu_id(const zan_table_base_st *obj)
{
    return self.role == ZAN_THREAD_NPU ? (uint32_t)self.npu : obj->npu_id;
}

bool zan_check_action_allowed(uint32_t action)
{
    if (self.role == ZAN_THREAD_DISPATCHER)
        return true;
    return self.holds_dispatcher && action == ZAN_BWALK_ALLOWED;
}

bool host_holds_dispatcher(void)
{
    return self.role == ZAN_THREAD_DISPATCHER || self.holds_dispatcher;
}

int zan_thread_npu(void)
{
    return self.role == ZAN_THREAD_NPU ? self.npu : -1;
}

bool host_is_npu_thread(void)
{
    return self.role == ZAN_THREAD_NPU;
}

host_identity_t host_self(void)
{
    return self;
}

void host_become(host_identity_t identity)
{
    self = identity;
}

/* ---- The dispatcher's place ---- */

void host_yield_attention(int change)
{
    attention.fetch_add(change, std::memory_order_relaxed);
}

void zan_allow_access_frr_thread(void)
{
    if (ZAN_LIKELY(attention.load(std::memory_order_relaxed) == 0))
        return;
    if (self.role != ZAN_THREAD_DISPATCHER)
        return;
    host_exec_q_step();
    if (attention.load(std::memory_order_relaxed) < HOST_YIELD_FRR)
        return;
    host_exec_q_flush(); /* the NPUs do not wait for the FRR threads' turns */
    let_frr_threads_in();
}

uint32_t zan_host_frr_waiting(void)
{
    return (uint32_t)attention.load(std::memory_order_relaxed) / HOST_YIELD_FRR;
}

void zan_frr_enter(void)
{
    HOST_ASSERT(self.role == ZAN_THREAD_FRR && !self.holds_dispatcher,
                "an FRR thread outside the dispatcher");
    pthread_mutex_lock(&mutex);
    const uint64_t ticket = next_ticket++;
    host_yield_attention(HOST_YIELD_FRR);
    while (dispatcher_inside || frr_inside || served != ticket || ticket >= admitted)
        pthread_cond_wait(&changed, &mutex);
    host_yield_attention(-HOST_YIELD_FRR);
    frr_inside = true;
    pthread_mutex_unlock(&mutex);
    self.holds_dispatcher = true;
}

void zan_frr_leave(void)
{
    HOST_ASSERT(self.holds_dispatcher, "an FRR thread inside the dispatcher");
    self.holds_dispatcher = false;
    pthread_mutex_lock(&mutex);
    frr_inside = false;
    served++;
    pthread_cond_broadcast(&changed);
    pthread_mutex_unlock(&mutex);
}

void zan_dispatcher_enter(void)
{
    HOST_ASSERT(self.role == ZAN_THREAD_DISPATCHER, "the dispatcher thread");
    pthread_mutex_lock(&mutex);
    while (dispatcher_depth == 0 && frr_inside)
        pthread_cond_wait(&changed, &mutex);
    dispatcher_depth++;
    dispatcher_inside = true;
    pthread_mutex_unlock(&mutex);
}

void zan_dispatcher_leave(void)
{
    HOST_ASSERT(self.role == ZAN_THREAD_DISPATCHER, "the dispatcher thread");
    pthread_mutex_lock(&mutex);
    HOST_ASSERT(dispatcher_depth > 0, "each leave follows an enter");
    if (--dispatcher_depth == 0) {
        dispatcher_inside = false;
        pthread_cond_broadcast(&changed);
    }
    pthread_mutex_unlock(&mutex);
}

/* ---- The transaction ---- */

void zan_set_trans_id(uint32_t trans_id, zan_table_response_st *, uint32_t)
{
    self.trans_id = trans_id;
}

void zan_clear_trans_id(void)
{
    self.trans_id = 0;
}

uint32_t zan_get_trans_id(void)
{
    return self.trans_id;
}
