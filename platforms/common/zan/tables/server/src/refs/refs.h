/* What the reference sources share: the lookup record and the variant of a union. */
#ifndef ZAN_REFS_H
#define ZAN_REFS_H

#include <cstring>

#include "table_server_api_common.h"

/* A lookup record: an object's header and as much of its fixed part as the longest key needs. */
struct zan_lookup_t {
    zan_table_base_st base;
    uint8_t rest[64 + ZAN_KEY_SIZE_MAX];
};

inline void zan_lookup_init(zan_lookup_t *lookup, const zan_table_def_t *def)
{
    memset(&lookup->base, 0, sizeof lookup->base);
    lookup->base.table_id = def->id;
}

inline void zan_lookup_set_key(zan_lookup_t *lookup, const zan_table_def_t *def, const void *key)
{
    memcpy(zan_obj_key(def, &lookup->base), key, def->key_size);
    lookup->base.key_len = def->key_size;
}

/* The variant that a union stands on; null for selector 0 and one beyond the declared variants. */
inline const zan_variant_def_t *zan_union_variant(const zan_union_def_t *u,
                                                  const zan_ref_value_st *value)
{
    const uint32_t index = value->selector - 1;
    return index < u->num_variants ? &u->variants[index] : nullptr;
}

#endif
