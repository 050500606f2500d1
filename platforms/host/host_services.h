/* What the host's sources offer to each other, to the agent and to tests, beside the services that
 * the server imports. */
#ifndef ZAN_HOST_SERVICES_H
#define ZAN_HOST_SERVICES_H

#include "zan_table_base.h"

/* No identifier is left for the table on an NPU. */
#define ZAN_HOST_RC_NO_IDENTIFIER 0xcf90c01cu

ZAN_EXTERN_C_BEGIN
/* Make the properties record of every table. Once per start. */
void zan_host_fill_table_properties(void);

/* ---- Identifiers: per table and NPU index, -1 for those of the object as a whole ---- */

#define ZAN_IDENTIFIER_NONE UINT32_MAX
/* The identifier that an object holds, by its key, or ZAN_IDENTIFIER_NONE. Any thread. */
ZAN_EXPORT uint32_t zan_host_identifier_of(const zan_table_base_st *obj, int32_t npu);
/* Identifiers held in a table, over all NPUs. Any thread. */
ZAN_EXPORT uint64_t zan_host_identifiers_held(uint32_t table_id);
typedef struct zan_host_identifiers_st {
    uint64_t capacity; /* over the NPUs that have given any out; 0: none has */
    uint64_t held;
    uint64_t orphaned;  /* of these, by keys that are not stored: their creates ended too early */
    uint64_t refused;   /* reserves that found none left */
    uint64_t reclaimed; /* numbers of orphans, taken back when none was left */
} zan_host_identifiers_st;
/* Looks over all of them. Dispatcher thread. */
ZAN_EXPORT void zan_host_identifiers_get(uint32_t table_id, zan_host_identifiers_st *out);
/* How many a table has on each NPU; dispatcher thread, before the first reserve counts. */
ZAN_EXPORT void zan_host_identifiers_set_capacity(uint32_t table_id, uint32_t capacity);
/* Forget all identifiers and capacities. */
ZAN_EXPORT void zan_host_identifiers_reset(void);

/* ---- Table database ---- */

/* Whether an object is stored under a key in its byte form. Dispatcher thread. */
bool host_db_holds(uint32_t table_id, const uint8_t *key);

ZAN_EXTERN_C_END

#endif
