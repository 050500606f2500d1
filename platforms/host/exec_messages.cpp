/* Messages and records of the execution queue, and their way home.
 *
 * A message that no ring has any more goes on a list of the dispatcher's, and is freed in
 * zan_dsp_q_process_post_npu. Only there is anything freed: NPU threads free nothing.
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
#include "walk_contexts.h"

#include <cstring>
#include <new>

namespace
{

/* In the order in which they came. */
host_exec_msg_t *home, **home_end = &home;

/* The block whose record was handed out last and whose message was not: the next message is that
 * one, so that an asynchronous write needs one block. */
host_exec_msg_t *half_taken;

host_exec_msg_t *new_block(void)
{
    void *memory = zan_heap_alloc(sizeof(host_exec_msg_t));
    return memory ? new (memory) host_exec_msg_t() : nullptr;
}

void give_part(host_exec_msg_t *block, uint8_t part)
{
    block->out &= (uint8_t)~part;
    if (block->out)
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
    if (record->walk_ctx && record->walk_ctx->held_by_npu_threads)
        host_walk_ctx_came_home(record->walk_ctx);
}

void release_delta(kor_core_srv_dispatch_t *record)
{
    zan_heap_free(record->new_to_old_map);
    record->new_to_old_map = nullptr;
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
    give_part(msg, HOST_EXEC_MESSAGE);
}

} // namespace

host_exec_msg_t *host_exec_msg_take(host_exec_kind_et kind)
{
    host_exec_msg_t *msg = half_taken ? half_taken : new_block();
    half_taken = nullptr;
    if (!msg)
        return nullptr;
    msg->kind = kind;
    msg->out |= HOST_EXEC_MESSAGE;
    return msg;
}

void host_exec_send_home(host_exec_msg_t *msg)
{
    msg->next_home = nullptr;
    *home_end = msg;
    home_end = &msg->next_home;
    __builtin_prefetch(&msg->record);
}

void zan_dsp_q_process_post_npu(void)
{
    if (host_stepped)
        host_exec_q_step();
    if (!host_holds_dispatcher())
        return;
    host_rings_collect();
    if (ZAN_LIKELY(!home))
        return;
    host_exec_msg_t *msg = home;
    home = nullptr;
    home_end = &home;
    while (msg) {
        host_exec_msg_t *next = msg->next_home;
        if (next && next->comes_home)
            __builtin_prefetch(next->record.obj);
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
    give_part((host_exec_msg_t *)head, HOST_EXEC_MESSAGE);
}

kor_core_srv_dispatch_t *zan_srv_msg_alloc(uint8_t table_operation)
{
    host_exec_msg_t *block = new_block();
    if (!block)
        return nullptr;
    block->out = HOST_EXEC_RECORD;
    block->record.table_operation = table_operation;
    half_taken = block;
    return &block->record;
}

void zan_srv_msg_free(kor_core_srv_dispatch_t *record)
{
    if (!record)
        return;
    give_part(block_of_record(record), HOST_EXEC_RECORD);
}
