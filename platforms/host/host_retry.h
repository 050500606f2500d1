/* Failed writes: what has not reached the hardware as the database has it, and what becomes of it.
 *
 * Each object whose create, update or delete failed on some NPU is retried: by an ordinary request
 * in retry mode while it is stored, and where it is not any more by a delete of what an NPU still
 * holds. Attempts come at growing intervals; one that failed for want of room comes when its
 * hardware database has some. A stored object that has used up its budget of attempts goes into
 * quarantine, and what depends on it goes before it.
 *
 * Dispatcher thread with its locks held, unless said otherwise. Keys are the tables' key
 * structures.
 */
#ifndef ZAN_HOST_RETRY_H
#define ZAN_HOST_RETRY_H

#include "zan_tables_private.h"

typedef struct zan_host_retry_config_st {
    uint32_t first_ms;   /* until the first retry; each failure doubles it */
    uint32_t longest_ms; /* at most; all intervals vary by a quarter up or down */
    uint32_t budget;     /* attempts before quarantine; 0: without end */
    uint64_t seed;       /* of the variation */
} zan_host_retry_config_st;

/* What the next attempt waits for. */
typedef enum zan_host_failed_state_et {
    ZAN_HOST_FAILED_TIME,       /* its interval */
    ZAN_HOST_FAILED_UNDER_WAY,  /* the NPUs: the attempt has been sent */
    ZAN_HOST_FAILED_ROOM,       /* room in its hardware database */
    ZAN_HOST_FAILED_PARENT,     /* a parent that has failed too */
    ZAN_HOST_FAILED_DELETE,     /* its delete, or its revival: it is looked at now and then */
    ZAN_HOST_FAILED_QUARANTINE, /* nothing: it is being taken out of service */
} zan_host_failed_state_et;

/* One failed object. Also the cursor of a listing: before the first zero, or zero but for the table
 * at which to begin. */
typedef struct zan_host_failed_st {
    uint16_t table_id;
    uint8_t listed; /* the row is filled */
    uint8_t stored;
    uint32_t state;          /* zan_host_failed_state_et */
    uint32_t operation;      /* that failed last */
    kor_npu_mask_t npu_mask; /* where */
    zan_rcode rc;            /* how */
    uint32_t attempts;       /* retries so far */
    uint64_t next_us;        /* until the next attempt, where it waits for its interval */
    uint8_t key[ZAN_KEY_SIZE_MAX];
} zan_host_failed_st;

/* One object in quarantine, and the cursor of its listing, as above. */
typedef struct zan_host_quarantined_st {
    uint16_t table_id;
    uint8_t listed;
    uint8_t releasing;      /* it is on its way back */
    uint32_t followers;     /* objects that were taken out since they depend on it */
    uint16_t root_table_id; /* of the object for which it was taken out; its own, if it failed */
    zan_rcode rc;           /* of its last write; of the last attempt to put it back */
    uint32_t attempts;      /* retries before it was taken out */
    uint8_t key[ZAN_KEY_SIZE_MAX], root_key[ZAN_KEY_SIZE_MAX];
} zan_host_quarantined_st;

typedef struct zan_host_retry_counts_st {
    uint64_t failed;                                   /* objects that wait for a retry now */
    uint64_t quarantined;                              /* objects in quarantine now */
    uint64_t attempts, recovered, taken_out, put_back; /* since the start */
} zan_host_retry_counts_st;

ZAN_EXTERN_C_BEGIN
/* Any time; the intervals that run stay. */
ZAN_EXPORT void zan_host_retry_configure(const zan_host_retry_config_st *config);
/* What is in force: at first 100 ms, 30 s, 10 attempts. */
ZAN_EXPORT void zan_host_retry_get_config(zan_host_retry_config_st *out);
/* Do what is due, a bounded number of objects of it. Between batches, never within one. Returns the
 * microseconds until there is more to do: 0 for at once, UINT64_MAX when nothing waits. */
ZAN_EXPORT uint64_t zan_host_retry_run(void);
ZAN_EXPORT void zan_host_retry_counts(zan_host_retry_counts_st *out);

/* The next row behind the cursor, in the order of table and key; false behind the last. */
ZAN_EXPORT bool zan_host_failed_next(zan_host_failed_st *row);
ZAN_EXPORT bool zan_host_quarantined_next(zan_host_quarantined_st *row);
/* The row of one object; false when it has not failed. */
ZAN_EXPORT bool zan_host_failed_get(uint32_t table_id, const void *key, zan_host_failed_st *row);

/* On one object; with a null key on all of a table, with ZAN_NUM_TABLES on all. They return the
 * number of objects that it was done to.
 *   retry    attempt at the next run, with a new budget
 *   forget   attempt no more: hardware stays as it is until the next write; an attempt that is
 *            under way is listed until the NPUs have answered
 *   release  put back into service, and after it what was taken out for it
 *   drop     free the object, and what was taken out for it: nothing is put back */
ZAN_EXPORT uint32_t zan_host_failed_retry(uint32_t table_id, const void *key);
ZAN_EXPORT uint32_t zan_host_failed_forget(uint32_t table_id, const void *key);
ZAN_EXPORT uint32_t zan_host_quarantine_release(uint32_t table_id, const void *key);
ZAN_EXPORT uint32_t zan_host_quarantine_drop(uint32_t table_id, const void *key);

/* A replay reaches what is in quarantine, too. Its owner tells of it behind the server's part, in
 * the order of the operations:
 *   start  mark the objects of the table, as the server marks those that are stored: with a null
 *          marker of all clients
 *   sent   a client's create or update, by key: whatever came of it, the mark goes
 *   end    free those of the table that are still marked; their number. What was taken out for one
 *          of them stays: it has a mark of its own, if its table is in a replay
 * A marked object that is put back is stored with its mark. */
ZAN_EXPORT void zan_host_quarantine_replay_start(uint32_t table_id,
                                                 const zan_table_base_st *marker);
ZAN_EXPORT void zan_host_quarantine_sent(const zan_table_base_st *obj);
ZAN_EXPORT uint32_t zan_host_quarantine_replay_end(uint32_t table_id);
ZAN_EXTERN_C_END

#endif
