/* Control of the simulated NPUs: what each holds, and how it is told to fail, to be slow, to be
 * full.
 *
 * Found by name in the running process, so that a tool can work with any platform: a platform that
 * lacks these functions cannot tell. All of them may be called by any thread.
 */
#ifndef NPU_SIM_CONTROL_H
#define NPU_SIM_CONTROL_H

#include "zan_table_base.h"

/* The simulated hardware's own codes. */
#define NPU_SIM_RC_FULL    0x4fa0c01cu /* its table, or the hardware database, is full */
#define NPU_SIM_RC_UNKNOWN 0x4fa0c002u /* delete of what the NPU does not hold */

/* For npu_sim_fail: any table, NPU or operation; and a create, update or delete. */
#define NPU_SIM_ANY   0xffffffffu
#define NPU_SIM_WRITE 0xfffffffeu

typedef struct npu_sim_failure_t {
    uint32_t table_id;  /* or NPU_SIM_ANY */
    uint32_t npu;       /* or NPU_SIM_ANY */
    uint32_t operation; /* ZAN_TABLE_CREATE, _UPDATE, _DELETE, _EVENT, _EOD, _GET, NPU_SIM_WRITE
                           or NPU_SIM_ANY */
    uint32_t nth;       /* the first matching call that fails, counted from 1 */
    uint32_t count;     /* how many fail from there on; 0: all */
    zan_rcode rc;
} npu_sim_failure_t;

/* Counts of an NPU since the start. */
typedef struct npu_sim_counts_t {
    uint64_t creates, updates, deletes, events, eods, gets;
    uint64_t failures; /* told to fail, full, or unknown */
} npu_sim_counts_t;

ZAN_EXTERN_C_BEGIN
/* Objects that an NPU holds in a table. */
ZAN_EXPORT uint64_t npu_sim_count(uint32_t npu, uint32_t table_id);
/* Bytes of the objects that an NPU holds, over all tables. */
ZAN_EXPORT uint64_t npu_sim_bytes(uint32_t npu);
ZAN_EXPORT void npu_sim_counts(uint32_t npu, npu_sim_counts_t *out);
/* Compare an object with what the NPU holds under its key: 0 equal, 1 not held, 2 different, and
 * then `why` names the first field that differs. A stored object's counters must stand still
 * meanwhile: zan_counters_hold_t. */
ZAN_EXPORT int npu_sim_compare(uint32_t npu, const zan_table_base_st *obj, char *why,
                               size_t why_size);
/* Add a failure to those in force. */
ZAN_EXPORT void npu_sim_fail(const npu_sim_failure_t *failure);
/* Let so many of a thousand creates, updates and deletes fail, picked by a seed; 0: none. */
ZAN_EXPORT void npu_sim_fail_at_random(uint32_t per_mille, uint64_t seed, zan_rcode rc);
/* Forget all failures. */
ZAN_EXPORT void npu_sim_fail_no_more(void);
/* Objects that an NPU takes in a table; 0 is without limit. */
ZAN_EXPORT void npu_sim_set_capacity(uint32_t npu, uint32_t table_id, uint64_t capacity);
/* Objects that an NPU takes in a hardware database (zan_hwdb_et), over all its tables; 0 is without
 * limit. And objects that it holds there. */
ZAN_EXPORT void npu_sim_set_db_capacity(uint32_t npu, uint32_t hwdb, uint64_t capacity);
ZAN_EXPORT uint64_t npu_sim_db_count(uint32_t npu, uint32_t hwdb);
/* How long each call on an NPU takes, in microseconds; the caller's thread sleeps. */
ZAN_EXPORT void npu_sim_set_latency(uint32_t npu, uint64_t microseconds);
/* Forget all objects, failures, limits and counts. No hook may run meanwhile. */
ZAN_EXPORT void npu_sim_reset(void);
ZAN_EXTERN_C_END

#endif
