/* What the retry and the quarantine tell each other. Dispatcher thread. */
#ifndef ZAN_RETRY_H
#define ZAN_RETRY_H

#include "host_retry.h"
#include "object_names.h"

#include <utility>
#include <vector>

/* One object whose hardware is not as the database has it. */
struct failed_t {
    zan_host_failed_state_et state;
    uint32_t operation;         /* that failed last */
    zan_rcode rc;               /* its code */
    kor_npu_mask_t npus;        /* where a write failed since the last attempt */
    kor_npu_mask_t npus_before; /* where it had failed when the last attempt was sent */
    uint32_t attempts;          /* in all */
    uint32_t spent;             /* of the budget */
    int64_t due_us;             /* by CLOCK_MONOTONIC */
    bool failed_again;          /* while the attempt was under way */
    bool forgotten;             /* by the operator: the attempt under way is the last */
    bool blind;                 /* called for room that did not show */
    bool unstored;              /* the object that failed has left the database since */
    kor_npu_mask_t unaccounted; /* NPUs on which it will take an entry that is in no books */
    kor_npu_mask_t not_deleted; /* NPUs on which the last delete failed that left it stored */
    uint32_t delete_trans;      /* the transaction of that delete; 0: there was none */
    kept_object_t gone;         /* not stored any more, and NPUs hold it still: these */
    kor_npu_mask_t holders;
    std::vector<object_name_t> waiting;   /* children that wait for this one */
    std::vector<object_name_t> followers; /* in quarantine already, for its sake */
};

/* An element of the map of all of them: it stays where it is until it leaves. */
using failed_entry_t = std::pair<const object_name_t, failed_t>;

/* ---- out_of_service.cpp ---- */

/* Take an object out of service that depends on the stored object `root` and that nothing depends
 * on; at last `root` itself. A code says why that cannot be now. */
zan_rcode host_quarantine_take_out(const object_name_t &root, failed_t *failed);
/* Put back what was taken out for an object that itself stays, or has gone otherwise. */
void host_quarantine_release_followers(const std::vector<object_name_t> &followers);
/* Put back some of what was released, `limit` at most; how many there were. */
uint32_t host_quarantine_put_back(uint32_t limit);
bool host_quarantine_has_released(void);
/* The key is a client's again: it has stored the object anew, or deletes it. */
void host_quarantine_forget(const zan_table_base_st *obj);
void host_quarantine_counts(zan_host_retry_counts_st *out);
/* Forget what is out of service. */
void host_out_of_service_stop(void);

/* ---- quarantine.cpp ---- */

void host_quarantine_free_table(uint32_t table_id);

/* ---- retry.cpp ---- */

int64_t host_retry_now_us(void); /* by CLOCK_MONOTONIC */
const zan_host_retry_config_st *host_retry_config(void);
/* Its next attempt comes in the next run, unless one is under way. */
void host_retry_call_soon(failed_entry_t *entry);
/* The object leaves the database: another of its name is another object. */
void host_retry_unstored(const zan_table_base_st *db_obj);
/* Forget all failures. The properties must still be there. */
void host_retry_stop(void);

#endif
