/* Recycled memory: heap copies, records, messages, side arrays.
 *
 * A write allocates some blocks, and they come back to the same thread a little later. So the
 * thread that holds the dispatcher keeps what is freed, by size, and gives it out again: no lock,
 * no search, and the block is often still in the cache. A block carries its class in front of it.
 * Any other thread allocates from the system, and its blocks join the lists when the dispatcher
 * frees them.
 *
 * In sanitizer builds every block comes from the system and goes back to it.
 */
#include "object_memory.h"
#include "host_assert.h"
#include "host_blocks.h"
#include "host_threads.h"

#include <atomic>
#include <cstring>

namespace
{

constexpr uint32_t class_bytes = 16;
constexpr uint32_t largest = 8192;
constexpr uint32_t num_classes = largest / class_bytes + 1;
constexpr uint32_t no_class = 0; /* larger than `largest`, or no memory to be kept */

/* In front of each block; as large as the alignment. */
struct alignas(16) header_t {
    header_t *next; /* while free */
    uint32_t size_class;
};

header_t *free_blocks[num_classes];
/* The dispatcher's own count is written by its holder only; the other by all. */
std::atomic<uint64_t> dispatcher_out, others_out;

inline header_t *header_of(void *block)
{
    return (header_t *)block - 1;
}

void count(int change)
{
    if (host_holds_dispatcher())
        dispatcher_out.store(dispatcher_out.load(std::memory_order_relaxed) +
                                 (uint64_t)(int64_t)change,
                             std::memory_order_relaxed);
    else
        others_out.fetch_add((uint64_t)(int64_t)change, std::memory_order_relaxed);
}

} // namespace

void *host_block_alloc(size_t size)
{
    if (HOST_SANITIZED)
        return malloc(size);
    const uint32_t size_class =
        size <= largest ? (uint32_t)((size + class_bytes - 1) / class_bytes) : no_class;
    if (size_class != no_class && host_holds_dispatcher() && free_blocks[size_class]) {
        header_t *header = free_blocks[size_class];
        free_blocks[size_class] = header->next;
        return header + 1;
    }
    if (size > SIZE_MAX / 2)
        return nullptr;
    auto *header = (header_t *)malloc(
        sizeof(header_t) + (size_class != no_class ? (size_t)size_class * class_bytes : size));
    if (!header)
        return nullptr;
    header->size_class = size_class;
    return header + 1;
}

void host_block_free(void *block)
{
    if (HOST_SANITIZED || !block) {
        free(block);
        return;
    }
    header_t *header = header_of(block);
    if (header->size_class == no_class || !host_holds_dispatcher()) {
        free(header);
        return;
    }
    header->next = free_blocks[header->size_class];
    free_blocks[header->size_class] = header;
}

void host_blocks_trim(void)
{
    for (header_t *&list : free_blocks)
        while (list) {
            header_t *gone = list;
            list = gone->next;
            free(gone);
        }
}

void *zan_heap_alloc(size_t size)
{
    void *block = host_block_alloc(size ? size : 1);
    if (block)
        count(1);
    return block;
}

void *zan_heap_calloc(size_t size)
{
    void *block = zan_heap_alloc(size);
    if (block)
        memset(block, 0, size);
    return block;
}

void zan_heap_free(void *block)
{
    if (!block)
        return;
    HOST_ASSERT(!host_is_npu_thread(), "an NPU thread frees nothing: its blocks go home");
    count(-1);
    host_block_free(block);
}

uint64_t zan_heap_blocks_in_use(void)
{
    return dispatcher_out.load(std::memory_order_relaxed) +
           others_out.load(std::memory_order_relaxed);
}
