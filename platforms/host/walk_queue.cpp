/* Visits of walks: a stack in chunks, and for each walk a queue by rank. */
#include "walk_queue.h"
#include "graph_area.h"
#include "host_blocks.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>

namespace
{

constexpr uint32_t chunk_shift = 14; /* visits of a chunk, as a power of two */
constexpr uint32_t chunk_size = 1u << chunk_shift;
constexpr uint32_t max_chunks = 1u << (32 - chunk_shift - 2);

host_visit_t **chunks;
uint32_t num_chunks;
uint32_t used = 1; /* visits on the stack; number 0 is none */
uint32_t num_walks;

host_visit_t *visit_of(uint32_t number)
{
    return &chunks[number >> chunk_shift][number & (chunk_size - 1)];
}

/* The number in an object's area, or 0 when it is an old one. */
uint32_t number_of(const zan_table_base_st *obj)
{
    const uint32_t number = host_area(obj)->visit;
    return number != 0 && number < used && visit_of(number)->obj == obj ? number : 0;
}

bool has_chunk(uint32_t number)
{
    const uint32_t index = number >> chunk_shift;
    if (index < num_chunks)
        return true;
    if (!chunks)
        chunks = (host_visit_t **)calloc(max_chunks, sizeof *chunks);
    if (!chunks || index == max_chunks)
        return false;
    chunks[index] = (host_visit_t *)malloc(chunk_size * sizeof(host_visit_t));
    if (!chunks[index])
        return false;
    num_chunks++;
    return true;
}

void free_chunks(uint32_t keep)
{
    while (num_chunks > keep)
        free(chunks[--num_chunks]);
}

/* ---- Ranks: a heap of those that somebody waits with, a hash table of all seen ---- */

uint32_t place_of(const host_rank_queue_t *by_rank, uint32_t size, uint64_t rank)
{
    uint32_t place = (uint32_t)(rank * 0x9e3779b97f4a7c15u >> 32) & (size - 1);
    while (by_rank[place].used && by_rank[place].rank != rank)
        place = (place + 1) & (size - 1);
    return place;
}

bool has_room(host_walk_queue_t *queue)
{
    if (queue->num_ranks * 2 < queue->size)
        return true;
    const uint32_t size = queue->size ? queue->size * 2 : 16;
    auto *by_rank = (host_rank_queue_t *)host_block_alloc(size * sizeof(host_rank_queue_t));
    auto *heap = (uint64_t *)host_block_alloc(size * sizeof(uint64_t));
    if (!by_rank || !heap) {
        host_block_free(by_rank);
        host_block_free(heap);
        return false;
    }
    memset(by_rank, 0, size * sizeof *by_rank);
    for (uint32_t i = 0; i < queue->size; i++)
        if (queue->by_rank[i].used)
            by_rank[place_of(by_rank, size, queue->by_rank[i].rank)] = queue->by_rank[i];
    if (queue->size) {
        memcpy(heap, queue->heap, queue->num_heap * sizeof *heap);
        host_block_free(queue->by_rank);
        host_block_free(queue->heap);
    }
    queue->by_rank = by_rank;
    queue->heap = heap;
    queue->size = size;
    queue->recent = 0;
    return true;
}

/* std's heaps have the greatest in front. */
constexpr std::greater<uint64_t> lowest_first{};

/* Nearly always the rank that was used last. */
host_rank_queue_t *queue_of_rank(host_walk_queue_t *queue, uint64_t rank)
{
    if (!has_room(queue))
        return nullptr;
    host_rank_queue_t *waiting = &queue->by_rank[queue->recent];
    if (!waiting->used || waiting->rank != rank) {
        queue->recent = place_of(queue->by_rank, queue->size, rank);
        waiting = &queue->by_rank[queue->recent];
    }
    if (!waiting->used) {
        *waiting = {rank, 0, 0, true, false};
        queue->num_ranks++;
    }
    if (!waiting->in_heap) {
        waiting->in_heap = true;
        queue->heap[queue->num_heap++] = rank;
        std::push_heap(queue->heap, queue->heap + queue->num_heap, lowest_first);
    }
    return waiting;
}

bool put_number(host_walk_queue_t *queue, uint32_t number)
{
    host_rank_queue_t *waiting = queue_of_rank(queue, host_area(visit_of(number)->obj)->rank);
    if (!waiting)
        return false;
    visit_of(number)->next = 0;
    if (waiting->last)
        visit_of(waiting->last)->next = number;
    else
        waiting->first = number;
    waiting->last = number;
    return true;
}

/* The first visit of the lowest rank, taken out; 0 for none. */
uint32_t take_lowest(host_walk_queue_t *queue, uint64_t *rank)
{
    while (queue->num_heap) {
        *rank = queue->heap[0];
        host_rank_queue_t *lowest = &queue->by_rank[place_of(queue->by_rank, queue->size, *rank)];
        if (const uint32_t number = lowest->first) {
            lowest->first = visit_of(number)->next;
            if (lowest->first == 0)
                lowest->last = 0;
            else
                __builtin_prefetch(visit_of(lowest->first)->obj);
            return number;
        }
        lowest->in_heap = false;
        std::pop_heap(queue->heap, queue->heap + queue->num_heap--, lowest_first);
    }
    return 0;
}

} // namespace

void host_walk_queue_start(host_walk_queue_t *queue)
{
    *queue = {};
    queue->first_visit = used;
    num_walks++;
}

void host_walk_queue_end(host_walk_queue_t *queue)
{
    for (uint32_t number = queue->first_visit; num_walks > 1 && number < used; number++) {
        const host_visit_t *visit = visit_of(number);
        if (visit->obj && visit->outer)
            host_area(visit->obj)->visit = visit->outer;
    }
    used = queue->first_visit;
    if (--num_walks == 0)
        free_chunks(4);
    host_block_free(queue->by_rank);
    host_block_free(queue->heap);
}

host_visit_t *host_walk_queue_reach(host_walk_queue_t *queue, zan_table_base_st *obj)
{
    const uint32_t known = number_of(obj);
    if (known >= queue->first_visit && known != 0)
        return visit_of(known);
    if (!has_chunk(used))
        return nullptr;
    const uint32_t number = used++;
    host_visit_t *visit = visit_of(number);
    *visit = {};
    visit->obj = obj;
    visit->outer = known;
    host_area(obj)->visit = number;
    return visit;
}

bool host_walk_queue_put(host_walk_queue_t *queue, host_visit_t *visit)
{
    return put_number(queue, host_area(visit->obj)->visit);
}

host_visit_t *host_walk_queue_next(host_walk_queue_t *queue, uint64_t *rank)
{
    while (const uint32_t number = take_lowest(queue, rank)) {
        host_visit_t *visit = visit_of(number);
        if (!visit->obj)
            continue;
        const bool risen = host_area(visit->obj)->rank > *rank;
        if (!risen || !put_number(queue, number))
            return visit;
    }
    return nullptr;
}

void host_visits_forget(const zan_table_base_st *obj)
{
    uint32_t number = number_of(obj);
    while (number) {
        host_visit_t *visit = visit_of(number);
        visit->obj = nullptr;
        if (visit->pushed)
            host_walk_ctx_forget_source(visit->pushed);
        number = visit->outer;
    }
}

void host_visits_release(void)
{
    free_chunks(0);
    free(chunks);
    chunks = nullptr;
}
