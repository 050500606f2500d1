/* The execution queue, as the server sees it.
 *
 * Positions do most of it. A wait is a position for each ring that its NPU must reach: behind the
 * last broadcast, or, for a stop, behind all that was sent. A stop is that position as the ring's
 * limit, which the NPU does not pass until it is lifted: no message is needed, and when the rings
 * are empty the NPUs stand still at once.
 *
 * A barrier message is followed by a gate in every ring, which opens when all NPUs of the message
 * are done with it.
 */
#include "exec_queue.h"
#include "exec_rings.h"
#include "host_control.h"
#include "host_threads.h"
#include "identifiers.h"
#include "internal_queues.h"
#include "trace.h"

#include <cerrno>

namespace
{

constexpr uint32_t room_to_make = 64; /* messages */

kor_exec_q_st records;

bool unwaited; /* the last broadcast awaits its answers: its positions are in wait_for */
bool armed;    /* kor_exec_q_resp_wait has something to wait for */
bool stopped;
zan_host_perf_exercise_f perf_exercise;

inline uint64_t pushed_of(uint32_t npu)
{
    return host_exec.rings[npu].pushed.load(std::memory_order_relaxed);
}

inline bool has_room(uint32_t npu, uint32_t messages)
{
    return pushed_of(npu) + messages - host_exec.rings[npu].collected <= HOST_RING_SLOTS;
}

/* The rings of the mask that have no room. */
kor_npu_mask_t full_rings(kor_npu_mask_t mask, uint32_t messages)
{
    kor_npu_mask_t full = 0;
    for (kor_npu_mask_t left = mask; left; left &= left - 1)
        if (!has_room((uint32_t)__builtin_ctzll(left), messages))
            full |= left & -left;
    return full;
}

/* Make room for so many messages in every ring of the mask, with the programming lock dropped while
 * the NPUs work on it: for some more than asked, so that the next send does not wait again. False
 * when there is none after a period. */
bool make_room(kor_npu_mask_t mask, uint32_t messages)
{
    if (ZAN_LIKELY(!full_rings(mask, messages)))
        return true;
    host_rings_collect();
    const kor_npu_mask_t full = full_rings(mask, messages);
    if (!full)
        return true;
    uint64_t target[ZAN_MAX_NPUS] = {};
    for (kor_npu_mask_t left = full; left; left &= left - 1) {
        const auto npu = (uint32_t)__builtin_ctzll(left);
        target[npu] = pushed_of(npu) + room_to_make - HOST_RING_SLOTS;
    }
    host_rings_publish();
    const bool held = host_programming_lock_drop();
    host_rings_wait(target, host_exec.resp_period_us.load());
    host_programming_lock_retake(held);
    host_rings_collect();
    return full_rings(full, messages) == 0;
}

inline kor_npu_mask_t all_npus(void)
{
    return ((kor_npu_mask_t)1 << host_exec.num_npus) - 1;
}

/* Hand a message to each NPU of a mask; all have room. */
void push(host_exec_msg_t *msg, kor_npu_mask_t mask)
{
    msg->rings_left = (uint32_t)__builtin_popcountll(mask);
    for (kor_npu_mask_t left = mask; left; left &= left - 1)
        host_ring_push((uint32_t)__builtin_ctzll(left), msg);
}

} // namespace

/* ---- Start and stop ---- */

bool zan_host_exec_q_start(uint32_t num_npus, bool stepped, uint64_t seed)
{
    if (host_exec.rings || num_npus > ZAN_MAX_NPUS || !host_rings_make(num_npus))
        return false;
    if (!host_exec.resp_period_us.load())
        host_exec.resp_period_us.store(10000000);
    host_exec.held.store(0);
    unwaited = armed = stopped = false;
    if (stepped) {
        host_stepped_start(seed);
        return true;
    }
    if (host_threads_start())
        return true;
    host_rings_free();
    return false;
}

void zan_host_exec_q_stop(void)
{
    if (!host_exec.rings)
        return;
    host_exec.held.store(0);
    zan_exec_q_sync_ctrl_allow_all_queues();
    host_rings_publish();
    if (host_stepped) {
        while (host_stepped_run_one()) {
        }
        host_stepped_stop();
    } else {
        host_threads_join();
    }
    /* The owner's thread takes the dispatcher's place for this: the threads are gone. */
    const host_identity_t self = host_self();
    host_become({ZAN_THREAD_DISPATCHER, -1, 0, false});
    zan_dsp_q_process_post_npu();
    host_become(self);
    host_rings_free();
}

void zan_host_exec_q_set_resp_period(uint64_t microseconds)
{
    host_exec.resp_period_us.store(microseconds);
}

kor_npu_mask_t zan_host_exec_q_held(void)
{
    return host_exec.held.load();
}

void zan_host_exec_q_hold(kor_npu_mask_t mask)
{
    host_exec.held.store(mask);
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++)
        host_ring_wake(npu);
}

void host_exec_q_flush(void)
{
    host_rings_publish();
}

/* ---- Send ---- */

kor_exec_q_st *get_global_exec_q(void)
{
    return &records;
}

int kor_exec_q_req_bcast(kor_exec_q_st *, zan_exec_q_msg_st *head, kor_npu_mask_t mask)
{
    if (!mask || (mask & ~all_npus()))
        return EINVAL;
    auto *msg = (host_exec_msg_t *)head;
    if (!make_room(head->use_barrier ? all_npus() : mask, head->use_barrier ? 2 : 1))
        return ENOSPC;
    msg->gate = nullptr;
    if (head->use_barrier) {
        msg->gate = host_exec_msg_take(HOST_EXEC_GATE);
        if (!msg->gate)
            return ENOMEM;
        msg->gate->closed.store((uint32_t)__builtin_popcountll(mask), std::memory_order_relaxed);
    }
    host_exec_msg_t *gate = msg->gate;
    const bool comes_home = head->payload->is_async;
    msg->comes_home = comes_home;
    if (comes_home && head->payload->table_operation == ZAN_TABLE_DELETE &&
        !head->payload->resize_aux)
        host_identifiers_leave(head->payload->obj);
    push(msg, mask); /* from here on the message may be gone */
    unwaited = !comes_home;
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++)
        host_exec.rings[npu].wait_for = mask >> npu & 1 ? pushed_of(npu) : 0;
    if (gate)
        push(gate, all_npus());
    if (!comes_home)
        host_rings_publish();
    host_exec_q_step();
    return 0;
}

void zan_exec_q_enqueue_async_batch_end_msg(uint32_t table_id)
{
    if (host_exec.num_npus == 0)
        return;
    /* As long as a wait for the NPU threads would last: by then a hung one has been told of. */
    for (uint32_t period = 0; !make_room(all_npus(), 1); period++)
        if (period == 12) {
            plat_errmsg(plat_msg_rec_zan_warn_err_getfn(), 4,
                        "An NPU takes no messages: the end of a run of writes did not reach it");
            return;
        }
    host_exec_msg_t *msg = host_exec_msg_take(HOST_EXEC_BATCH_END);
    if (!msg)
        return;
    msg->table_id = table_id;
    push(msg, all_npus());
    host_rings_publish();
    host_exec_q_step();
}

/* ---- Wait, stop and go ---- */

int zan_exec_q_sync_ctrl(void)
{
    armed = unwaited;
    unwaited = false;
    return 0;
}

int zan_exec_q_sync_ctrl_request_only(void)
{
    if (stopped)
        return EALREADY; /* who stopped them lets them go */
    stopped = armed = true;
    unwaited = false;
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++) {
        host_exec.rings[npu].wait_for = pushed_of(npu);
        host_exec.rings[npu].limit.store(pushed_of(npu));
    }
    return 0;
}

void zan_exec_q_sync_ctrl_allow_all_queues(void)
{
    stopped = false;
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++) {
        host_exec.rings[npu].limit.store(UINT64_MAX);
        if (pushed_of(npu) != host_exec.rings[npu].ran.load(std::memory_order_relaxed))
            host_ring_wake(npu);
    }
}

int kor_exec_q_resp_wait(kor_exec_q_st *)
{
    if (!armed)
        return 0;
    host_rings_publish();
    uint64_t target[ZAN_MAX_NPUS];
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++)
        target[npu] = host_exec.rings[npu].wait_for;
    if (!host_rings_wait(target, host_exec.resp_period_us.load()))
        return ZAN_EXEC_Q_TIMEOUT;
    armed = false;
    return 0;
}

zan_rcode kor_exec_q_resp_read_rc(uint32_t npu_id)
{
    return npu_id < host_exec.num_npus
               ? host_exec.rings[npu_id].last_rc.load(std::memory_order_relaxed)
               : ZAN_RC_BAD_ARGUMENT;
}

uint32_t kor_exec_q_get_depth(kor_exec_q_st *)
{
    uint64_t depth = 0;
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++)
        depth += pushed_of(npu) - host_exec.rings[npu].ran.load(std::memory_order_relaxed);
    return (uint32_t)depth;
}

void kor_exec_q_wake_npu_threads(kor_npu_mask_t mask, uint32_t)
{
    host_rings_publish();
    for (kor_npu_mask_t left = mask & all_npus(); left; left &= left - 1)
        host_ring_wake((uint32_t)__builtin_ctzll(left));
}

/* ---- Performance exercises ---- */

void zan_host_set_perf_exercise(zan_host_perf_exercise_f exercise)
{
    perf_exercise = exercise;
}

bool zan_server_perf_sanity_process_req_fn(zan_exec_q_msg_st *msg, bool is_async_write,
                                           uint8_t *is_async_out)
{
    return perf_exercise && perf_exercise(msg, is_async_write, is_async_out);
}
