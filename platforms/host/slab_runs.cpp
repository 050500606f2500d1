/* Free runs of slabs.
 *
 * Everything above `fresh` was never used. Below it a free run is known by its two ends: the first
 * slab has the length and stands in a list, the last has the length too, so that a run that is
 * given back finds both neighbours in one step. The records are an array beside the pool, sparse as
 * it is.
 */
#include "slab_runs.h"
#include "host_assert.h"

#include <sys/mman.h>

namespace
{

struct run_end_t {
    uint32_t length;     /* of the free run that begins or ends here; 0: in use or inside a run */
    uint32_t next, prev; /* other free runs; on the first slab only */
};

constexpr uint32_t warm_max = 16;

uint8_t *pool_base;
run_end_t *ends;
size_t ends_size;
uint32_t num_slabs, fresh, first_free = HOST_NO_SLAB;
uint32_t warm[warm_max], num_warm;

void list_add(uint32_t first, uint32_t length)
{
    ends[first] = {length, first_free, HOST_NO_SLAB};
    ends[first + length - 1].length = length;
    if (first_free != HOST_NO_SLAB)
        ends[first_free].prev = first;
    first_free = first;
}

void list_remove(uint32_t first)
{
    const run_end_t run = ends[first];
    if (run.prev == HOST_NO_SLAB)
        first_free = run.next;
    else
        ends[run.prev].next = run.next;
    if (run.next != HOST_NO_SLAB)
        ends[run.next].prev = run.prev;
    ends[first].length = 0;
    ends[first + run.length - 1].length = 0;
}

uint32_t take_freed(uint32_t length)
{
    for (uint32_t first = first_free; first != HOST_NO_SLAB; first = ends[first].next) {
        const uint32_t have = ends[first].length;
        if (have < length)
            continue;
        list_remove(first);
        if (have > length)
            list_add(first + length, have - length);
        return first;
    }
    return HOST_NO_SLAB;
}

} // namespace

bool host_slab_runs_open(uint8_t *base, uint32_t count)
{
    ends_size = (size_t)count * sizeof(run_end_t);
    void *map = mmap(nullptr, ends_size, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (map == MAP_FAILED)
        return false;
    ends = (run_end_t *)map;
    pool_base = base;
    num_slabs = count;
    fresh = 0;
    first_free = HOST_NO_SLAB;
    num_warm = 0;
    return true;
}

void host_slab_runs_close(void)
{
    munmap(ends, ends_size);
    ends = nullptr;
}

uint32_t host_slab_run_take(uint32_t length)
{
    if (length == 1 && num_warm)
        return warm[--num_warm];
    const uint32_t freed = take_freed(length);
    if (freed != HOST_NO_SLAB)
        return freed;
    if (num_slabs - fresh < length)
        return HOST_NO_SLAB;
    fresh += length;
    return fresh - length;
}

void host_slab_run_give(uint32_t first, uint32_t length)
{
    if (length == 1 && num_warm < warm_max) {
        warm[num_warm++] = first;
        return;
    }
    madvise(pool_base + ((size_t)first << HOST_SLAB_SHIFT), (size_t)length << HOST_SLAB_SHIFT,
            MADV_REMOVE);
    const uint32_t after = first + length;
    if (after < fresh && ends[after].length) {
        const uint32_t joined = ends[after].length;
        list_remove(after);
        length += joined;
    }
    if (first > 0 && ends[first - 1].length) {
        const uint32_t joined = ends[first - 1].length;
        list_remove(first - joined);
        first -= joined;
        length += joined;
    }
    if (first + length == fresh)
        fresh = first;
    else
        list_add(first, length);
}

uint32_t host_slab_runs_end(void)
{
    return fresh;
}
