/* Messages and records of the execution queue, and their way home.
 *
 * A message that its last NPU is done with is put on a list that any thread can push to without a
 * lock; the dispatcher takes the whole list at once in zan_dsp_q_process_post_npu, which costs one
 * load when it is empty. Only there is anything freed: NPU threads free nothing.
 *
 * Who owns what: until the send the record, the copies and the delta are the flow's. A message of
 * an asynchronous write brings them home and they are freed here. A message of a synchronous write
 * brings home itself alone: its record is the server's.
 */
#include "exec_rings.h"
#include "host_assert.h"
#include "host_blocks.h"
#include "host_threads.h"
#include "internal_queues.h"
#include "object_memory.h"
#include "table_properties.h"

#include <cstring>
#include <new>

namespace
{

std::atomic<host_exec_msg_t *> home;

/* The block whose record was handed out last and whose message was not: the next message is that
 * one, so that an asynchronous write needs one block. */
host_exec_msg_t *half_taken;

host_exec_msg_t *new_block(void)
{
    void *memory = zan_heap_alloc(sizeof(host_exec_msg_t));
    return memory ? new (memory) host_exec_msg_t() : nullptr;
}

void free_if_unused(host_exec_msg_t *block)
{
    if (block->message_out || block->record_out)
        return;
    if (half_taken == block)
        half_taken = nullptr;
    zan_heap_free(block);
}

host_exec_msg_t *block_of_record(kor_core_srv_dispatch_t *record)
{
    return (host_exec_msg_t *)((uint8_t *)record - offsetof(host_exec_msg_t, record));
}

/* ---- Freeing what came home ---- */

void free_copy(zan_table_base_st *copy)
{
    if (copy)
        zan_srv_table_props_get(copy->table_id)->copy_dtor(copy);
}

/* A walk context that the message held has copies of its own, which post-processing frees. */
bool belongs_to_walk(const kor_dpd_event_ctx_t *walk_ctx, const zan_table_base_st *copy)
{
    return walk_ctx && walk_ctx->held_by_npu_threads &&
           (copy == walk_ctx->old_obj || copy == walk_ctx->new_obj);
}

void release_copies(kor_core_srv_dispatch_t *record)
{
    if (!belongs_to_walk(record->walk_ctx, record->obj))
        free_copy(record->obj);
    if (record->old_obj != record->obj && !belongs_to_walk(record->walk_ctx, record->old_obj))
        free_copy(record->old_obj);
    record->obj = record->old_obj = nullptr;
}

void release_delta(kor_core_srv_dispatch_t *record)
{
    if (!record->delta_lists)
        return;
    zan_heap_free(record->delta_lists->delta_buffer);
    zan_heap_free(record->delta_lists);
    record->delta_lists = nullptr;
}

void take_home(host_exec_msg_t *msg)
{
    if (msg->comes_home) {
        kor_core_srv_dispatch_t *record = msg->head.payload;
        release_copies(record);
        release_delta(record);
        zan_srv_msg_free(record);
    }
    msg->message_out = 0;
    free_if_unused(msg);
}

} // namespace

host_exec_msg_t *host_exec_msg_take(host_exec_kind_et kind)
{
    host_exec_msg_t *msg = half_taken ? half_taken : new_block();
    half_taken = nullptr;
    if (!msg)
        return nullptr;
    msg->kind = kind;
    msg->message_out = 1;
    return msg;
}

void host_exec_send_home(host_exec_msg_t *msg)
{
    host_exec_msg_t *first = home.load(std::memory_order_relaxed);
    do {
        msg->next_home = first;
    } while (!home.compare_exchange_weak(first, msg, std::memory_order_release,
                                         std::memory_order_relaxed));
}

void zan_dsp_q_process_post_npu(void)
{
    if (host_stepped)
        host_exec_q_step();
    if (ZAN_LIKELY(!home.load(std::memory_order_relaxed)) || !host_holds_dispatcher())
        return;
    host_exec_msg_t *last_first = home.exchange(nullptr, std::memory_order_acquire);
    host_exec_msg_t *msg = nullptr; /* in the order in which they came */
    while (last_first) {
        host_exec_msg_t *next = last_first->next_home;
        last_first->next_home = msg;
        msg = last_first;
        last_first = next;
    }
    while (msg) {
        host_exec_msg_t *next = msg->next_home;
        take_home(msg);
        msg = next;
    }
}

zan_exec_q_msg_st *zan_exec_q_msg_alloc(kor_exec_q_st *)
{
    host_exec_msg_t *msg = host_exec_msg_take(HOST_EXEC_REQUEST);
    return msg ? &msg->head : nullptr;
}

void zan_exec_q_msg_free(zan_exec_q_msg_st *head)
{
    if (!head)
        return;
    auto *msg = (host_exec_msg_t *)head;
    msg->message_out = 0;
    free_if_unused(msg);
}

kor_core_srv_dispatch_t *zan_srv_msg_alloc(uint8_t table_operation)
{
    host_exec_msg_t *block = new_block();
    if (!block)
        return nullptr;
    block->record_out = 1;
    block->record.table_operation = table_operation;
    half_taken = block;
    return &block->record;
}

void zan_srv_msg_free(kor_core_srv_dispatch_t *record)
{
    if (!record)
        return;
    host_exec_msg_t *block = block_of_record(record);
    block->record_out = 0;
    free_if_unused(block);
}
