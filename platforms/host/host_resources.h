/* The hardware databases of the host's NPUs: how full they are, and from when on that is told.
 *
 * Occupancy is what the server has accounted; it differs from what an NPU holds where the rules of
 * accounting do (docs/operate-the-agent.md). Any thread, unless said otherwise.
 */
#ifndef ZAN_HOST_RESOURCES_H
#define ZAN_HOST_RESOURCES_H

#include "resource_layer.h"
#include "zan_table_def.h"

/* One database of one NPU. */
typedef struct zan_host_resource_st {
    uint64_t capacity; /* entries; 0: without limit, and always green */
    uint64_t used;
    uint64_t high_water; /* most that were ever used */
    uint32_t state;      /* zan_resource_state_et */
    uint32_t crossings;  /* changes of state so far */
} zan_host_resource_st;

/* Percent of the capacity. A state is entered at its first figure and left below its second, so
 * that one object that comes and goes does not make it change each time. */
typedef struct zan_host_thresholds_st {
    uint8_t yellow, yellow_clear;
    uint8_t red, red_clear;
} zan_host_thresholds_st;

ZAN_EXTERN_C_BEGIN
/* Zeros for an NPU or a database that there is not. */
ZAN_EXPORT void zan_host_resource_get(uint32_t npu, uint32_t hwdb, zan_host_resource_st *out);
/* Entries that the objects of a table take on an NPU. */
ZAN_EXPORT uint64_t zan_host_resource_used_by(uint32_t npu, uint32_t table_id);
/* Set how much a database takes, on one NPU or, with ZAN_MAX_NPUS, on all; and from when on it is
 * told. The state follows at once. False for what there is not, for more than UINT64_MAX / 100
 * entries, and for thresholds that do not rise
 * (yellow_clear <= yellow < red <= 100, yellow < red_clear <= red). */
ZAN_EXPORT bool zan_host_resource_set_capacity(uint32_t npu, uint32_t hwdb, uint64_t capacity);
ZAN_EXPORT bool zan_host_resource_set_thresholds(uint32_t hwdb,
                                                 const zan_host_thresholds_st *thresholds);
ZAN_EXPORT void zan_host_resource_get_thresholds(uint32_t hwdb, zan_host_thresholds_st *out);
/* "green", "yellow", "red". */
ZAN_EXPORT const char *zan_host_resource_state_name(uint32_t state);

/* The list of handles for the global context, one for each NPU; and all databases empty, without
 * limit. Once per start. */
void **host_resources_start(void);
/* An NPU has taken an object of the table, or let go of it, without the flows' own accounting. */
void host_resources_correct(uint32_t npu, uint32_t table_id, bool taken);
ZAN_EXTERN_C_END

#endif
