/* What the reference sources share. */
#ifndef ZAN_REFS_H
#define ZAN_REFS_H

#include <cstring>

#include "table_server_api_common.h"
#include "zan_lookup.h"

/* The variant that a union stands on; null for selector 0 and one beyond the declared variants. */
inline const zan_variant_def_t *zan_union_variant(const zan_union_def_t *u,
                                                  const zan_ref_value_st *value)
{
    const uint32_t index = value->selector - 1;
    return index < u->num_variants ? &u->variants[index] : nullptr;
}

#endif
