/* The locks of locks.h.
 *
 * Each thread knows which it holds. So one that takes a lock twice, or gives back what it has not,
 * gets an errno number instead of standing still; and stepped mode, where an NPU's work runs on the
 * dispatcher's thread, can drop them for that long.
 */
#include "locks.h"
#include "host_threads.h"

#include <cerrno>

#include <pthread.h>

namespace
{

enum lock_et {
    LOCK_DISPATCH,
    LOCK_PROGRAMMING,
    LOCK_FEC_ID,
    LOCK_DB,
    LOCK_DB_STATS,
    LOCKS
};

pthread_mutex_t mutexes[LOCKS] = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER,
                                  PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER,
                                  PTHREAD_MUTEX_INITIALIZER};
thread_local __attribute__((tls_model("initial-exec"))) uint32_t held; /* bit n: mutexes[n] */
thread_local uint32_t hardware_closed; /* kor_hw_access_complete without its counterpart */

int take(lock_et lock)
{
    if (held & 1u << lock)
        return EDEADLK;
    const int rc = pthread_mutex_lock(&mutexes[lock]);
    if (rc == 0)
        held |= 1u << lock;
    return rc;
}

int give(lock_et lock)
{
    if (!(held & 1u << lock))
        return EPERM;
    held &= ~(1u << lock);
    return pthread_mutex_unlock(&mutexes[lock]);
}

} // namespace

int kor_core_lock_dispatch_lock(void)
{
    return take(LOCK_DISPATCH);
}

int kor_core_unlock_dispatch_lock(void)
{
    return give(LOCK_DISPATCH);
}

int zan_threads_server_programming_lock(void)
{
    return take(LOCK_PROGRAMMING);
}

int zan_threads_server_programming_unlock(void)
{
    return give(LOCK_PROGRAMMING);
}

int kor_core_fec_id_lock(void)
{
    return take(LOCK_FEC_ID);
}

int kor_core_fec_id_unlock(void)
{
    return give(LOCK_FEC_ID);
}

int kor_db_lock(void)
{
    return take(LOCK_DB);
}

int kor_db_unlock(void)
{
    return give(LOCK_DB);
}

int kor_db_stats_lock(void)
{
    return take(LOCK_DB_STATS);
}

int kor_db_stats_unlock(void)
{
    return give(LOCK_DB_STATS);
}

/* The host's hardware needs no closing, but the two calls must alternate. */
int kor_hw_access_complete(void)
{
    if (hardware_closed)
        return EALREADY;
    hardware_closed = 1;
    return 0;
}

int kor_hw_access_in_progress(void)
{
    if (!hardware_closed)
        return EALREADY;
    hardware_closed = 0;
    return 0;
}

/* ---- For the other services of the host ---- */

uint32_t host_locks_drop(void)
{
    const uint32_t dropped = held;
    for (int lock = LOCKS; lock-- > 0;)
        if (dropped & 1u << lock)
            give((lock_et)lock);
    return dropped;
}

void host_locks_retake(uint32_t dropped)
{
    for (int lock = 0; lock < LOCKS; lock++)
        if (dropped & 1u << lock)
            take((lock_et)lock);
}

bool host_programming_lock_drop(void)
{
    return (held & 1u << LOCK_PROGRAMMING) && give(LOCK_PROGRAMMING) == 0;
}

void host_programming_lock_retake(bool dropped)
{
    if (dropped)
        take(LOCK_PROGRAMMING);
}
