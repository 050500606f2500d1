/* What a trace costs.
 *
 *   on       a call with its class on: a record of four integers in the thread's ring
 *   off      the same call with its class off
 *   at once  on, by two threads at the same time: each has a ring of its own, so that neither waits
 *   create   all routes: with all classes off, as they are at start, and with all on
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

/* Which classes are on. */
enum setting_et {
    NONE,
    AT_START,
    ALL,
    SETTINGS
};

constexpr size_t rounds = 3 * SETTINGS; /* of creates */
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

class classes_t
{
public:
    classes_t()
    {
        for (zan_trace_class_t c = 0; c < ZAN_NUM_TRACE_CLASSES; c++)
            at_start_.push_back(zan_trace_is_on(c));
    }
    void set(setting_et setting) const
    {
        for (zan_trace_class_t c = 0; c < ZAN_NUM_TRACE_CLASSES; c++)
            zan_trace_switch(c, setting == AT_START ? at_start_[c] : setting == ALL);
    }

private:
    std::vector<bool> at_start_;
};

/* Batch by batch one setting after the other, so that what else the machine does falls on all of
 * them; the next round begins with another, so that each batch is created in every setting. */
void compare_creates(const classes_t &classes, const batches_t &batches)
{
    std::vector<double> seconds[SETTINGS];
    for (size_t round = 0; round < rounds; round++) {
        for (size_t i = 0; i < batches.count; i++) {
            const auto setting = (setting_et)((i + round) % SETTINGS);
            classes.set(setting);
            seconds[setting].push_back(batches.create(i));
        }
        batches.remove_all();
    }
    const double none = median(seconds[NONE]), at_start = median(seconds[AT_START]),
                 all = median(seconds[ALL]);
    printf("create   a batch with all classes off %.1f us, as at start %.1f us, all on %.1f us\n",
           none * 1e6, at_start * 1e6, all * 1e6);
    printf("create   ratio to all off: as at start %.3f, all on %.3f\n", at_start / none,
           all / none);
}

} // namespace

void count_traces(size_t calls, bool on)
{
    classes_t().set(on ? ALL : NONE);
    time_calls(calls);
}

void run_traces(size_t calls, const batches_t &batches)
{
    const classes_t classes;
    classes.set(ALL);
    const double on = median_ns(calls, time_calls);
    const double at_once = median_ns(calls, time_calls_at_once);
    classes.set(NONE);
    const double off = median_ns(calls, time_calls);
    printf("trace    on %.2f ns a call, off %.2f ns, by two threads at once %.2f ns\n", on, off,
           at_once);
    compare_creates(classes, batches);
}

} // namespace bench
