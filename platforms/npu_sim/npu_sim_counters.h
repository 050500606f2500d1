/* What the simulated NPUs count of the objects that they hold.
 *
 * An object of a statistics table, or of a table with adjacency tables, counts on each NPU from
 * the moment the NPU holds it, at a rate that its key decides: 1,000 to 9,999 packets a second of
 * 512 bytes, and a thousandth as many of anything that is not well. Counts go with the clock of the
 * process. Reading them takes two steps, as with hardware: they are latched, then taken.
 *
 * Any thread; under a lock of its own.
 */
#ifndef NPU_SIM_COUNTERS_H
#define NPU_SIM_COUNTERS_H

#include <string>

#include "adjacency.h"
#include "zan_table_def.h"

/* An NPU takes an object, which it may hold already, and gives it up. `key` is in byte form. */
void counters_begin(const zan_table_def_t *def, uint32_t npu, const std::string &key);
void counters_end(const zan_table_def_t *def, uint32_t npu, const std::string &key);
void counters_reset();

/* Latch the counts of an object, over all NPUs. */
void counters_latch(const zan_table_def_t *def, const std::string &key);
/* What was latched, into the statistics of an object; false when no NPU counts it. `only_unset`:
 * leave alone what is set. */
bool counters_take(const zan_table_def_t *def, const std::string &key, zan_table_base_st *obj,
                   bool only_unset);
/* Into an entry of an adjacency table. */
bool counters_take(const zan_table_def_t *def, const std::string &key, zan_adj_entry_st *entry);

#endif
