/* The watch over the write hooks: each failure is noted, whichever thread the hook ran on. */
#ifndef ZAN_HOST_WRITE_WATCH_H
#define ZAN_HOST_WRITE_WATCH_H

#include "object_names.h"
#include "table_properties.h"

/* One failed write, from one hook call. */
struct write_failure_t {
    write_failure_t *next;
    object_name_t name;
    kor_npu_mask_t npus;
    uint32_t operation;
    uint32_t trans_id;
    zan_rcode rc;
    bool retry;        /* the write was made in retry mode */
    kept_object_t obj; /* of a delete: what the NPU still holds */
};

/* Put the watch between a table's slots and its hooks. */
void host_watch_writes(srv_zan_table_props_t *props);
/* All failures since the last call, in their order; the caller deletes them. Dispatcher thread. One
 * load when there is none. */
write_failure_t *host_take_write_failures(void);

/* Whether the watch is to count the deletes of a hardware database. */
void host_watch_room(uint32_t hwdb, bool on);
/* Objects that left a hardware database of an NPU since the last call. */
uint64_t host_take_room(uint32_t hwdb, uint32_t npu);

#endif
