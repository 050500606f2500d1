/* Which slabs of the pool are free: runs of neighbours, merged when they meet again.
 *
 * A slab is named by its index. Most requests are for one slab; a block that is larger than a slab
 * takes a run. The pages of a freed run go back to the system, but for a few single slabs that are
 * kept warm, since a table that empties often fills again at once.
 */
#ifndef ZAN_HOST_SLAB_RUNS_H
#define ZAN_HOST_SLAB_RUNS_H

#include <cstdint>

#define HOST_SLAB_SHIFT 16
#define HOST_SLAB_SIZE  (1u << HOST_SLAB_SHIFT)
#define HOST_NO_SLAB    UINT32_MAX

/* Start over with `num_slabs` slabs at `base`, none in use. False without memory. */
bool host_slab_runs_open(uint8_t *base, uint32_t num_slabs);
void host_slab_runs_close(void);
/* The first slab of a run of `length`, or HOST_NO_SLAB. Its pages hold anything. */
uint32_t host_slab_run_take(uint32_t length);
void host_slab_run_give(uint32_t first, uint32_t length);
/* No slab from here on is in use. */
uint32_t host_slab_runs_end(void);

#endif
