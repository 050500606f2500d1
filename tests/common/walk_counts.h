/* The counts of walks, over all tables. */
#ifndef ZAN_WALK_COUNTS_H
#define ZAN_WALK_COUNTS_H

#include "walk_service.h"

namespace bench
{

struct walk_counts_t {
    uint64_t walks = 0, failed = 0, pushed = 0, pruned = 0, color_skipped = 0;
    uint64_t updates = 0, forced = 0, skips = 0, failures = 0, not_reached = 0, revisits = 0;
};

inline walk_counts_t walk_counts()
{
    walk_counts_t c;
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        const zan_bwalk_stats_st *s = zan_dpd_get_bwalk_stats(id);
        c.walks += s->num_walks;
        c.failed += s->num_failed_walks;
        c.pushed += s->num_evt_pushed;
        c.pruned += s->num_evt_pruned;
        c.color_skipped += s->num_evt_color_skipped;
        c.updates += s->num_child_updates;
        c.forced += s->num_child_forced;
        c.skips += s->num_child_skips;
        c.failures += s->num_child_failures;
        c.not_reached += s->num_child_color_skips;
        c.revisits += s->num_revisits;
    }
    return c;
}

} // namespace bench

#endif
