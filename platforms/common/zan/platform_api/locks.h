/* The locks that the server shares with its platform.
 *
 * Order, outermost first. Nobody takes one while holding one below it, but for the first two:
 *
 *   1 dispatch lock      held by who holds the dispatcher; dropped in the in-flight wait only
 *   1 programming lock   held by the dispatcher thread while it runs flows; dropped while it waits
 *                        for the NPU threads
 *   2 fec id lock        identifier allocation; around the hook loops only, never across a
 *                        hardware step
 *   3 notification mutex one per table, in the server
 *   4 database lock      creates and deletes of database objects in the statistics tables, against
 *                        the statistics thread
 *   5 statistics lock    updates of them, and reads of their counters
 *
 * Inside the last two come only locks of a platform's own, which have no other inside.
 *
 * Each of the first two is dropped and taken again under the other, so they have no order: only the
 * thread that runs flows may hold both, and any other takes one of them alone.
 *
 * All return 0, or an errno number when the lock is broken.
 */
#ifndef ZAN_PLATFORM_LOCKS_H
#define ZAN_PLATFORM_LOCKS_H

#include "zan_table_def.h"

ZAN_EXTERN_C_BEGIN
ZAN_EXPORT int kor_core_lock_dispatch_lock(void);
ZAN_EXPORT int kor_core_unlock_dispatch_lock(void);
ZAN_EXPORT int zan_threads_server_programming_lock(void);
ZAN_EXPORT int zan_threads_server_programming_unlock(void);
ZAN_EXPORT int kor_core_fec_id_lock(void);
ZAN_EXPORT int kor_core_fec_id_unlock(void);
ZAN_EXPORT int kor_db_lock(void);
ZAN_EXPORT int kor_db_unlock(void);
ZAN_EXPORT int kor_db_stats_lock(void);
ZAN_EXPORT int kor_db_stats_unlock(void);
/* The calling thread is about to block on a mutex, and where; and no longer. For who looks into a
 * process that stands still. */
ZAN_EXPORT void ptd_set_mutex_block(const void *mutex, const char *function, uint32_t line);
ZAN_EXPORT void ptd_unset_mutex_block(void);
/* Hardware access of the dispatcher thread is closed and reopened around the in-flight wait. */
ZAN_EXPORT int kor_hw_access_complete(void);
ZAN_EXPORT int kor_hw_access_in_progress(void);
ZAN_EXTERN_C_END

#ifdef __cplusplus
/* For as long as it lives the statistics walk writes no counters, which are attributes of stored
 * objects: held while the attributes of one are read. Only the tables that the walk writes have
 * the lock; of what the caller holds already it takes nothing. */
class zan_counters_hold_t
{
public:
    explicit zan_counters_hold_t(const zan_table_def_t *def)
        : locked_(def->periodic_stats && kor_db_stats_lock() == EOK)
    {
    }
    ~zan_counters_hold_t()
    {
        if (locked_)
            kor_db_stats_unlock();
    }
    zan_counters_hold_t(const zan_counters_hold_t &) = delete;
    zan_counters_hold_t &operator=(const zan_counters_hold_t &) = delete;

private:
    const bool locked_;
};
#endif

#endif
