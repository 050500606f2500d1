/* A lookup record: an object's header and as much of its fixed part as the longest key needs. */
#ifndef ZAN_LOOKUP_H
#define ZAN_LOOKUP_H

#include <string.h>

#include "zan_tables_private.h"

typedef struct zan_lookup_t {
    zan_table_base_st base;
    uint8_t rest[64 + ZAN_KEY_SIZE_MAX];
} zan_lookup_t;

static inline void zan_lookup_init(zan_lookup_t *lookup, const zan_table_def_t *def)
{
    memset(&lookup->base, 0, sizeof lookup->base);
    lookup->base.table_id = def->id;
}

static inline void zan_lookup_set_key(zan_lookup_t *lookup, const zan_table_def_t *def,
                                      const void *key)
{
    memcpy(zan_obj_key(def, &lookup->base), key, def->key_size);
    lookup->base.key_len = def->key_size;
}

#endif
