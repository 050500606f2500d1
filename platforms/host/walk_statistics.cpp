/* Bitmaps of tables, and the counts of walks. */
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

static zan_bwalk_stats_st stats[ZAN_NUM_TABLES];

void table_bwalk_originator_stats_alloc(uint32_t table_id)
{
    stats[table_id] = {};
}

zan_bwalk_stats_st *zan_dpd_get_bwalk_stats(uint32_t table_id)
{
    return &stats[table_id];
}

void zan_bwalk_stats_increment_num_evt_pushed(zan_bwalk_stats_st *of_table)
{
    of_table->num_evt_pushed++;
}
