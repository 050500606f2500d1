/* Clock and sleep: the system's, or a virtual clock that stands but for sleeps.
 *
 * Under the virtual clock every clock reads what it read when it was stopped, plus what has been
 * slept and advanced since; a sleep costs nothing.
 */
#include "clock.h"
#include "host_control.h"
#include "host_threads.h"

#include <atomic>
#include <cstdio>

#include <cerrno>

#include <pthread.h>
#include <sched.h>
#ifdef __x86_64__
#include <x86intrin.h>
#endif

namespace
{

constexpr int64_t second_ns = 1000000000;

std::atomic<bool> is_virtual;
std::atomic<int64_t> realtime_ns, monotonic_ns; /* of the virtual clock */

int64_t to_ns(const timespec &t)
{
    return (int64_t)t.tv_sec * second_ns + t.tv_nsec;
}

timespec from_ns(int64_t ns)
{
    return {(time_t)(ns / second_ns), (long)(ns % second_ns)};
}

int64_t read_ns(clockid_t clock)
{
    timespec t;
    clock_gettime(clock, &t);
    return to_ns(t);
}

} // namespace

void zan_host_clock_set_virtual(bool on)
{
    realtime_ns.store(read_ns(CLOCK_REALTIME));
    monotonic_ns.store(read_ns(CLOCK_MONOTONIC));
    is_virtual.store(on);
}

void zan_host_clock_advance(uint64_t microseconds)
{
    realtime_ns.fetch_add((int64_t)microseconds * 1000);
    monotonic_ns.fetch_add((int64_t)microseconds * 1000);
}

void host_let_time_pass(uint64_t microseconds)
{
    if (is_virtual.load()) {
        zan_host_clock_advance(microseconds);
        sched_yield(); /* who waits for another thread must not keep the processor from it */
        return;
    }
    timespec left = from_ns((int64_t)microseconds * 1000);
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

int zan_clock_gettime(clockid_t clock, timespec *out)
{
    if (ZAN_LIKELY(!is_virtual.load(std::memory_order_relaxed)))
        return clock_gettime(clock, out);
    *out = from_ns(clock == CLOCK_MONOTONIC ? monotonic_ns.load() : realtime_ns.load());
    return 0;
}

void zan_usleep(uint64_t microseconds)
{
    host_let_time_pass(microseconds);
    if (host_stepped)
        host_exec_q_step();
}

void clock_diff(const timespec *a, const timespec *b, timespec *out)
{
    timespec now;
    if (!b) {
        zan_clock_gettime(CLOCK_REALTIME, &now);
        b = &now;
    }
    const int64_t diff = to_ns(*b) - to_ns(*a);
    *out = from_ns(diff > 0 ? diff : 0);
}

void zan_divide_timespec(const timespec *in, uint32_t n, timespec *out)
{
    *out = from_ns(n ? to_ns(*in) / n : 0);
}

uint64_t zan_clock_cycles(void)
{
#ifdef __x86_64__
    return __rdtsc();
#else
    return (uint64_t)read_ns(CLOCK_MONOTONIC);
#endif
}

char *ctime_r_msec(const timespec *when, char *buffer, size_t length)
{
    struct tm local;
    localtime_r(&when->tv_sec, &local);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    snprintf(buffer, length, "%s.%03u", text, (unsigned)(when->tv_nsec / 1000000) % 1000);
    return buffer;
}
