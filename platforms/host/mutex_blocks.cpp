/* Who waits for a mutex, and where: a slot for each thread that has said so. For whoever looks into
 * a process that stands still, with a debugger or through zan_host_mutex_blocks.
 */
#include "host_control.h"
#include "locks.h"

#include <atomic>

#include <unistd.h>

namespace
{

struct slot_t {
    std::atomic<bool> taken;
    std::atomic<const void *> mutex; /* written last: the rest is valid while it is not null */
    std::atomic<const char *> function;
    std::atomic<uint32_t> line;
    std::atomic<int> thread;
};

constexpr uint32_t num_slots = 64;
slot_t slots[num_slots];
thread_local slot_t *own;

} // namespace

/* A thread that finds no slot is not told of. */
void ptd_set_mutex_block(const void *mutex, const char *function, uint32_t line)
{
    for (slot_t &slot : slots) {
        if (slot.taken.exchange(true))
            continue;
        slot.function = function;
        slot.line = line;
        slot.thread = gettid();
        slot.mutex = mutex;
        own = &slot;
        return;
    }
}

void ptd_unset_mutex_block(void)
{
    if (own) {
        own->mutex = nullptr;
        own->taken = false;
    }
    own = nullptr;
}

uint32_t zan_host_mutex_blocks(zan_host_mutex_block_st *out, uint32_t max)
{
    uint32_t count = 0;
    for (const slot_t &slot : slots)
        if (const void *mutex = slot.mutex; mutex && count < max)
            out[count++] = {mutex, slot.function, slot.line, slot.thread};
    return count;
}
