/* The internal queues, and the small services around the post-step.
 *
 * Both queues are rings of pointers outside the objects. That an object stands in queue 1 is a mark
 * that the pool keeps for its block: an entry whose object has gone meanwhile is passed over when
 * it comes up, and until then covers a new object in the same block.
 */
#include "internal_queues.h"
#include "host_control.h"
#include "host_threads.h"
#include "shared_pool.h"
#include "table_database.h"
#include "table_properties.h"

#include <atomic>
#include <cstdlib>

#include <pthread.h>

namespace
{

/* A queue 1 entry's object may be gone, so that its table stands beside it. */
struct entry_t {
    zan_table_base_st *obj;
    uint32_t table_id;
};

/* A ring that grows; `size` is a power of two. */
struct fifo_t {
    entry_t *entries;
    uint32_t size, first;
    std::atomic<uint32_t> count;
};

struct east_west_t {
    east_west_t *next;
    zan_host_east_west_f function;
    void *arg;
};

fifo_t delay_delete, internal_async;
pthread_mutex_t async_mutex = PTHREAD_MUTEX_INITIALIZER; /* guards internal_async */

pthread_mutex_t east_west_mutex = PTHREAD_MUTEX_INITIALIZER;
std::atomic<east_west_t *> east_west_first;
east_west_t **east_west_end; /* where the next is to be put; under the mutex */

bool grow(fifo_t *fifo)
{
    const uint32_t size = fifo->size ? fifo->size * 2 : 64;
    auto *entries = (entry_t *)malloc(size * sizeof(entry_t));
    if (!entries)
        return false;
    for (uint32_t i = 0; i < fifo->size; i++)
        entries[i] = fifo->entries[(fifo->first + i) & (fifo->size - 1)];
    free(fifo->entries);
    fifo->entries = entries;
    fifo->size = size;
    fifo->first = 0;
    return true;
}

bool put(fifo_t *fifo, zan_table_base_st *obj)
{
    const uint32_t count = fifo->count.load(std::memory_order_relaxed);
    if (count == fifo->size && !grow(fifo))
        return false;
    fifo->entries[(fifo->first + count) & (fifo->size - 1)] = {obj, obj->table_id};
    fifo->count.store(count + 1, std::memory_order_release);
    return true;
}

entry_t take(fifo_t *fifo)
{
    const uint32_t count = fifo->count.load(std::memory_order_relaxed);
    if (count == 0)
        return {nullptr, 0};
    const entry_t entry = fifo->entries[fifo->first];
    fifo->first = (fifo->first + 1) & (fifo->size - 1);
    fifo->count.store(count - 1, std::memory_order_release);
    return entry;
}

zan_rcode enqueue_delay_delete(zan_table_base_st *obj)
{
    const auto address = (uint64_t)(uintptr_t)obj;
    if (host_pool_set_mark(address, HOST_MARK_QUEUED, true))
        return EOK; /* stands in it already */
    if (put(&delay_delete, obj))
        return EOK;
    host_pool_set_mark(address, HOST_MARK_QUEUED, false);
    return ZAN_RC_NO_MEMORY;
}

zan_table_base_st *dequeue_delay_delete(void)
{
    for (;;) {
        const entry_t entry = take(&delay_delete);
        if (!entry.obj)
            return nullptr;
        const auto address = (uint64_t)(uintptr_t)entry.obj;
        host_pool_set_mark(address, HOST_MARK_QUEUED, false);
        if (host_pool_is_stored(entry.table_id, address) &&
            (entry.obj->dpd.del_flag & ZAN_DEL_FLAG_DELAY_DELETE))
            return entry.obj;
    }
}

void clear(fifo_t *fifo)
{
    free(fifo->entries);
    fifo->entries = nullptr;
    fifo->size = fifo->first = 0;
    fifo->count.store(0, std::memory_order_relaxed);
}

} // namespace

zan_rcode kor_core_queue_enqueue(zan_table_base_st *obj, uint32_t queue)
{
    if (!obj || (queue != ZAN_QUEUE_DELAY_DELETE && queue != ZAN_QUEUE_INTERNAL_ASYNC))
        return ZAN_RC_BAD_ARGUMENT;
    if (queue == ZAN_QUEUE_DELAY_DELETE)
        return enqueue_delay_delete(obj);
    pthread_mutex_lock(&async_mutex);
    const bool done = put(&internal_async, obj);
    pthread_mutex_unlock(&async_mutex);
    return done ? zan_rcode{EOK} : ZAN_RC_NO_MEMORY;
}

zan_table_base_st *kor_core_queue_dequeue(uint32_t queue)
{
    if (kor_server_is_queue_empty(queue))
        return nullptr;
    if (queue == ZAN_QUEUE_DELAY_DELETE)
        return dequeue_delay_delete();
    pthread_mutex_lock(&async_mutex);
    zan_table_base_st *obj = take(&internal_async).obj;
    pthread_mutex_unlock(&async_mutex);
    return obj;
}

bool kor_server_is_queue_empty(uint32_t queue)
{
    if (queue == ZAN_QUEUE_DELAY_DELETE)
        return delay_delete.count.load(std::memory_order_relaxed) == 0;
    return queue != ZAN_QUEUE_INTERNAL_ASYNC ||
           internal_async.count.load(std::memory_order_relaxed) == 0;
}

void zan_host_internal_queues_clear(void)
{
    while (kor_core_queue_dequeue(ZAN_QUEUE_DELAY_DELETE)) {
    }
    while (zan_table_base_st *obj = kor_core_queue_dequeue(ZAN_QUEUE_INTERNAL_ASYNC))
        zan_srv_table_props_get(obj->table_id)->copy_dtor(obj);
    clear(&delay_delete);
    clear(&internal_async);
}

/* ---- East-west ---- */

bool zan_host_east_west_inject(zan_host_east_west_f function, void *arg)
{
    auto *added = (east_west_t *)malloc(sizeof(east_west_t));
    if (!added)
        return false;
    *added = {nullptr, function, arg};
    pthread_mutex_lock(&east_west_mutex);
    if (east_west_first.load(std::memory_order_relaxed))
        *east_west_end = added;
    else
        east_west_first.store(added, std::memory_order_relaxed);
    east_west_end = &added->next;
    pthread_mutex_unlock(&east_west_mutex);
    return true;
}

/* The last thing that a batch does: here at the latest the NPU threads hear of what it sent. */
void zan_dsp_q_process_east_west(void)
{
    host_exec_q_flush();
    if (ZAN_LIKELY(!east_west_first.load(std::memory_order_relaxed)))
        return;
    pthread_mutex_lock(&east_west_mutex);
    east_west_t *next = east_west_first.exchange(nullptr, std::memory_order_relaxed);
    pthread_mutex_unlock(&east_west_mutex);
    while (next) {
        const east_west_t now = *next;
        free(next);
        now.function(now.arg);
        next = now.next;
    }
    host_exec_q_flush(); /* what they sent */
}

/* ---- A postponed delete that is over ---- */

void zan_call_pd_handle_delayed_delete_rc(zan_rcode rc, zan_table_base_st *obj)
{
    /* The client hears of the delete when it has gone through: not when it failed, and not when the
     * object found children again and stays. */
    if (rc != EOK || zan_db_hdl_is_valid(obj->table_id, obj->obj_handle))
        return;
    srv_zan_table_props_t *props = zan_srv_table_props_get(obj->table_id);
    if (props && props->delete_notify)
        props->delete_notify(obj);
}
