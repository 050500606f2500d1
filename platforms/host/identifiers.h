/* The identifier allocators, for the host's other services; hooks and owners of the host have
 * host_identifier_hooks.h and host_services.h. */
#ifndef ZAN_HOST_IDENTIFIERS_H
#define ZAN_HOST_IDENTIFIERS_H

#include "zan_tables_private.h"

/* Bring towards the cache where the identifiers of a key, in its byte form, are or would be. The
 * dispatcher. */
void host_identifiers_prefetch(const zan_table_def_t *def, const uint8_t *key);

/* A delete of the object goes to the NPU threads, which give its identifiers back when they are
 * through. Until then another object of the key may hold them too. The dispatcher. */
void host_identifiers_leave(const zan_table_base_st *obj);

#endif
