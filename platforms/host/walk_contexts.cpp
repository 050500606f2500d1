/* Bitmaps of tables, and the parts of a walk context that need no walk. */
#include "walk_service.h"

#include <cstdlib>

uint64_t *kor_bm_allocate(uint32_t bits)
{
    return (uint64_t *)calloc((bits + 63) / 64, sizeof(uint64_t));
}

void kor_bm_set(uint64_t *bitmap, uint32_t bit)
{
    bitmap[bit / 64] |= (uint64_t)1 << bit % 64;
}

bool get_prune_marker(const uint64_t *child_tables, const uint64_t *event_tables)
{
    for (uint32_t word = 0; word < ZAN_TABLE_BITMAP_BITS / 64; word++)
        if (child_tables[word] & event_tables[word])
            return true;
    return false;
}

/* No walk reads colours yet, so none are painted. */
void zan_colored_event_fwalk_on_create(zan_table_base_st *)
{
}

void zan_walk_ctx_push_attr_upd_mask(kor_dpd_event_ctx_t *walk_ctx, uint32_t, uint64_t mask)
{
    walk_ctx->attrib_upd_mask |= mask;
}

void zan_walk_ctx_set_trans_id(kor_dpd_event_ctx_t *walk_ctx, uint32_t trans_id)
{
    walk_ctx->trans_id = trans_id;
}

uint32_t zan_walk_ctx_get_trans_id(const kor_dpd_event_ctx_t *walk_ctx)
{
    return walk_ctx->trans_id;
}

/* Walks that start at a table are counted from its first use on. */
static bool originates[ZAN_NUM_TABLES];

void table_bwalk_originator_stats_alloc(uint32_t table_id)
{
    originates[table_id] = true;
}
