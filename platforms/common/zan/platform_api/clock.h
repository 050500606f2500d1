/* Clock and sleep.
 *
 * The server reads time and sleeps through this service alone, so that a test can let thirty
 * minutes pass at no cost. Any thread, no lock held or taken.
 */
#ifndef ZAN_PLATFORM_CLOCK_H
#define ZAN_PLATFORM_CLOCK_H

#include "zan_types.h"

#include <sys/types.h>
#include <time.h>

ZAN_EXTERN_C_BEGIN
/* As clock_gettime(2) for CLOCK_REALTIME, CLOCK_REALTIME_COARSE and CLOCK_MONOTONIC. */
ZAN_EXPORT int zan_clock_gettime(clockid_t clock, struct timespec *out);
/* Sleep at least that long. */
ZAN_EXPORT void zan_usleep(uint64_t microseconds);
/* out := b - a; a null b means now, by CLOCK_REALTIME. A negative difference is given as 0. */
ZAN_EXPORT void clock_diff(const struct timespec *a, const struct timespec *b,
                           struct timespec *out);
/* out := in / n; n of 0 gives 0. */
ZAN_EXPORT void zan_divide_timespec(const struct timespec *in, uint32_t n, struct timespec *out);
/* The cycle counter: cheap, monotonic per core, for traces and short durations only. */
ZAN_EXPORT uint64_t zan_clock_cycles(void);
/* Local time of day with milliseconds as "2026-01-31 12:00:00.123"; returns buffer. */
ZAN_EXPORT char *ctime_r_msec(const struct timespec *when, char *buffer, size_t length);
ZAN_EXTERN_C_END

#endif
