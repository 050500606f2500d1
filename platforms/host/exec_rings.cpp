/* Rings, and the NPU threads.
 *
 * A push costs a store. The NPU sees a run of messages, not each: when the run is full, when
 * somebody waits for it, and at the end of a batch. Before it parks a thread looks again for a
 * while: it spins if the machine has cores for all threads here, else it lets the others run first,
 * which halves the cost of a message with 3 NPUs on 2 cores.
 */
#include "exec_rings.h"
#include "clock.h"
#include "host_assert.h"
#include "host_threads.h"
#include "table_properties.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <new>
#include <thread>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

host_exec_t host_exec;

namespace
{

/* Each look may take the ring's line away from the producer: some pauses lie between two. All of
 * them last some 0.2 ms, in which a busy dispatcher fills a run. */
constexpr uint32_t spin_turns = 200, pauses_per_turn = 64, yield_turns = 4;

void futex_wait(std::atomic<uint32_t> *word, uint32_t value, const timespec *timeout)
{
    syscall(SYS_futex, (uint32_t *)word, FUTEX_WAIT_PRIVATE, value, timeout, nullptr, 0);
}

void futex_wake(std::atomic<uint32_t> *word)
{
    syscall(SYS_futex, (uint32_t *)word, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

inline void publish(uint32_t npu)
{
    host_ring_t *ring = &host_exec.rings[npu];
    ring->sent.store(ring->pushed.load(std::memory_order_relaxed));
    host_ring_wake(npu);
}

/* Before parking: whether to look again, and a pause until then. */
inline bool look_again(uint32_t turn)
{
    if (!host_exec.spin) {
        std::this_thread::yield();
        return turn < yield_turns;
    }
#ifdef __x86_64__
    for (uint32_t i = 0; i < pauses_per_turn; i++)
        __builtin_ia32_pause();
#endif
    return turn < spin_turns;
}

inline bool can_run_at(uint32_t npu, uint64_t at)
{
    const host_ring_t *ring = &host_exec.rings[npu];
    if (at == ring->sent.load() || at >= ring->limit.load() || (host_exec.held.load() >> npu & 1))
        return false;
    const host_exec_msg_t *msg = ring->slots[at % HOST_RING_SLOTS];
    return msg->kind != HOST_EXEC_GATE || msg->closed.load() == 0;
}

/* ---- Running a message ---- */

zan_rcode run_batch_end(uint32_t table_id, uint32_t npu)
{
    srv_zan_table_props_t *props = zan_srv_table_props_get(table_id);
    return props && props->async_batch_end_npu_cb ? props->async_batch_end_npu_cb(table_id, npu)
                                                  : 0;
}

/* The NPU is done with a barrier message: the last one opens the gate. */
void open_gate(host_exec_msg_t *gate)
{
    if (gate->closed.fetch_sub(1) != 1)
        return;
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++)
        host_ring_wake(npu);
}

/* Show the producer how far the NPU has come. */
void show_done(host_ring_t *ring)
{
    const uint64_t done = ring->ran.load(std::memory_order_relaxed);
    if (done == ring->done.load(std::memory_order_relaxed))
        return;
    ring->done.store(done);
    if (ZAN_LIKELY(done < ring->wake_at.load()))
        return;
    ring->wake_at.store(UINT64_MAX);
    host_exec.wait_word.fetch_add(1);
    futex_wake(&host_exec.wait_word);
}

/* ---- The NPU threads ---- */

/* Sleep until somebody wakes the ring, unless there is something to run. */
void park(uint32_t npu)
{
    host_ring_t *ring = &host_exec.rings[npu];
    show_done(ring); /* a thread that was held back in the middle of a run */
    for (uint32_t turn = 0; look_again(turn); turn++)
        if (host_ring_can_run(npu))
            return;
    ring->parked.store(1);
    if (!host_ring_can_run(npu) && !host_exec.quit.load())
        futex_wait(&ring->parked, 1, nullptr);
    ring->parked.store(0, std::memory_order_relaxed);
}

void *npu_thread(void *arg) noexcept
{
    const uint32_t npu = (uint32_t)(uintptr_t)arg;
    zan_thread_set_role(ZAN_THREAD_NPU, (int)npu);
    char name[16];
    snprintf(name, sizeof name, "zan_npu%u", npu);
    pthread_setname_np(pthread_self(), name);
    for (;;) {
        if (host_ring_run_one(npu))
            continue;
        if (host_exec.quit.load() && !host_ring_can_run(npu) &&
            host_exec.rings[npu].ran.load() == host_exec.rings[npu].sent.load())
            return nullptr;
        park(npu);
        if (host_exec.quit.load())
            std::this_thread::yield(); /* a gate is still closed: others drain */
    }
}

} // namespace

/* ---- Rings ---- */

bool host_rings_make(uint32_t num_npus)
{
    host_exec.rings = new (std::nothrow) host_ring_t[num_npus]();
    if (!host_exec.rings)
        return false;
    for (uint32_t npu = 0; npu < num_npus; npu++) {
        host_exec.rings[npu].limit.store(UINT64_MAX);
        host_exec.rings[npu].wake_at.store(UINT64_MAX);
    }
    host_exec.num_npus = num_npus;
    host_exec.spin = std::thread::hardware_concurrency() > num_npus;
    return true;
}

void host_rings_free(void)
{
    delete[] host_exec.rings;
    host_exec.rings = nullptr;
    host_exec.num_npus = 0;
}

bool host_ring_can_run(uint32_t npu)
{
    return can_run_at(npu, host_exec.rings[npu].ran.load(std::memory_order_relaxed));
}

bool host_ring_run_one(uint32_t npu)
{
    host_ring_t *ring = &host_exec.rings[npu];
    uint64_t at = ring->ran.load(std::memory_order_relaxed);
    if (!can_run_at(npu, at))
        return false;
    host_exec_msg_t *msg = ring->slots[at++ % HOST_RING_SLOTS];
    if (msg->kind == HOST_EXEC_REQUEST)
        ring->last_rc.store(kor_core_npu_dispatcher(msg->head.payload, (int32_t)npu),
                            std::memory_order_relaxed);
    else if (msg->kind == HOST_EXEC_BATCH_END)
        run_batch_end(msg->table_id, npu);
    if (msg->gate)
        open_gate(msg->gate);
    ring->ran.store(at, std::memory_order_relaxed);
    if (at - ring->done.load(std::memory_order_relaxed) >= HOST_RING_RUN || !can_run_at(npu, at))
        show_done(ring); /* from here on the messages are the producer's */
    return true;
}

void host_ring_push(uint32_t npu, host_exec_msg_t *msg)
{
    host_ring_t *ring = &host_exec.rings[npu];
    const uint64_t at = ring->pushed.load(std::memory_order_relaxed);
    ring->slots[at % HOST_RING_SLOTS] = msg;
    ring->pushed.store(at + 1, std::memory_order_relaxed);
    if (at + 1 - ring->sent.load(std::memory_order_relaxed) < HOST_RING_RUN)
        host_exec.unsent = true;
    else
        publish(npu);
}

void host_rings_publish(void)
{
    if (!host_exec.unsent)
        return;
    host_exec.unsent = false;
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++)
        publish(npu);
}

void host_rings_show_done(void)
{
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++)
        show_done(&host_exec.rings[npu]);
}

void host_rings_collect(void)
{
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++) {
        host_ring_t *ring = &host_exec.rings[npu];
        const uint64_t done = ring->done.load();
        while (ring->collected != done) {
            host_exec_msg_t *msg = ring->slots[ring->collected++ % HOST_RING_SLOTS];
            if (--msg->rings_left == 0)
                host_exec_send_home(msg);
        }
    }
}

void host_ring_wake(uint32_t npu)
{
    host_ring_t *ring = &host_exec.rings[npu];
    if (ZAN_LIKELY(ring->parked.load() == 0))
        return;
    if (ring->parked.exchange(0) == 1)
        futex_wake(&ring->parked);
}

/* ---- The producer waits ---- */

bool host_rings_reached(const uint64_t *target)
{
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++)
        if (host_exec.rings[npu].done.load() < target[npu])
            return false;
    return true;
}

namespace
{

bool wait_stepped(const uint64_t *target, uint64_t microseconds)
{
    while (!host_rings_reached(target))
        if (!host_stepped_run_one()) {
            host_let_time_pass(microseconds);
            return false;
        }
    return true;
}

void wait_once(const uint64_t *target, const timespec *timeout)
{
    const uint32_t word = host_exec.wait_word.load();
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++) {
        host_ring_t *ring = &host_exec.rings[npu];
        if (ring->done.load() < target[npu])
            ring->wake_at.store(target[npu]);
    }
    if (!host_rings_reached(target))
        futex_wait(&host_exec.wait_word, word, timeout);
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++)
        host_exec.rings[npu].wake_at.store(UINT64_MAX);
}

} // namespace

bool host_rings_wait(const uint64_t *target, uint64_t microseconds)
{
    if (host_stepped)
        return wait_stepped(target, microseconds);
    if (host_rings_reached(target))
        return true;
    for (uint32_t turn = 0; look_again(turn); turn++)
        if (host_rings_reached(target))
            return true;
    /* The period is real time: the threads work in it, whatever the virtual clock says. */
    timespec start, now, passed;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        if (host_rings_reached(target))
            return true;
        clock_gettime(CLOCK_MONOTONIC, &now);
        clock_diff(&start, &now, &passed);
        const uint64_t passed_us =
            (uint64_t)passed.tv_sec * 1000000 + (uint64_t)passed.tv_nsec / 1000;
        if (passed_us >= microseconds)
            return false;
        const uint64_t left = microseconds - passed_us;
        const timespec timeout = {(time_t)(left / 1000000), (long)(left % 1000000 * 1000)};
        wait_once(target, &timeout);
    }
}

/* ---- Threads ---- */

bool host_threads_start(void)
{
    host_exec.quit.store(false);
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++) {
        if (pthread_create(&host_exec.rings[npu].thread, nullptr, npu_thread,
                           (void *)(uintptr_t)npu) == 0)
            continue;
        const uint32_t all = host_exec.num_npus;
        host_exec.num_npus = npu; /* those that run */
        host_threads_join();
        host_exec.num_npus = all;
        return false;
    }
    return true;
}

void host_threads_join(void)
{
    host_exec.quit.store(true);
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++)
        host_ring_wake(npu);
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++)
        pthread_join(host_exec.rings[npu].thread, nullptr);
}
