/* What a trace costs.
 *
 *   on       a call with its class on: a record of four integers in the thread's ring
 *   off      the same call with its class off
 *   at once  on, by two threads at the same time: each has a ring of its own, so that neither waits
 *   create   all routes, with all classes on and with all off
 *
 * A round of calls goes through the ring once and more, so that every record is written to memory
 * that has left the nearest cache. Rounds are short, and the median is taken: those in which the
 * machine did something else do not count.
 */
#include "bench.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <thread>

#include "trace_messages.h"

namespace bench
{

namespace
{

constexpr size_t rounds = 8; /* of creates; even */
constexpr size_t calls_in_round = 20'000;
constexpr zan_trace_class_t measured = ZAN_CLASS_ZAN_TRANSACTION_HISTORY_EVENT__;

/* The calls stand as they do in a flow: the compiler may keep nothing from one to the next. */
double time_calls(size_t count)
{
    stopwatch_t watch;
    watch.start();
    for (size_t i = 0; i < count; i++) {
        ZAN_TRACE(measured, HISTORY_REPLACE, 49u, i, i + 1, i);
        asm volatile("" ::: "memory");
    }
    watch.stop();
    return watch.seconds();
}

double time_calls_at_once(size_t count)
{
    double other = 0;
    std::thread thread([&] { other = time_calls(count); });
    const double own = time_calls(count);
    thread.join();
    return std::max(own, other);
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/* Of a round, in nanoseconds a call; there are so many calls in all. */
template <class Time> double median_ns(size_t calls, Time time)
{
    std::vector<double> seconds;
    for (size_t done = 0; done < calls; done += calls_in_round)
        seconds.push_back(time(calls_in_round));
    return median(seconds) * 1e9 / (double)calls_in_round;
}

void set_all_classes(bool on)
{
    memset(zan_trace_enabled, on, ZAN_NUM_TRACE_CLASSES);
}

/* Batch by batch on and off in turn, so that what else the machine does falls on both; the next
 * round the other way round, so that each batch is created both ways. */
void compare_creates(const batches_t &batches)
{
    std::vector<double> seconds[2];
    for (size_t round = 0; round < rounds; round++) {
        for (size_t i = 0; i < batches.count; i++) {
            const bool on = (i + round) % 2;
            set_all_classes(on);
            seconds[on].push_back(batches.create(i));
        }
        batches.remove_all();
    }
    const double on = median(seconds[true]), off = median(seconds[false]);
    printf("create   all classes on %8.1f us a batch, off %8.1f us\n", on * 1e6, off * 1e6);
    printf("create   ratio of on to off  %7.3f\n", on / off);
}

} // namespace

void count_traces(size_t calls, bool on)
{
    set_all_classes(on);
    time_calls(calls);
}

void run_traces(size_t calls, const batches_t &batches)
{
    set_all_classes(true);
    const double on = median_ns(calls, time_calls);
    const double at_once = median_ns(calls, time_calls_at_once);
    set_all_classes(false);
    const double off = median_ns(calls, time_calls);
    printf("trace    on %.2f ns a call, off %.2f ns, by two threads at once %.2f ns\n", on, off,
           at_once);
    compare_creates(batches);
}

} // namespace bench
