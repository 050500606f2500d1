/* The server's internal queues, first in first out.
 *
 * Queue 1 holds database objects that wait for their delete: filled when an object loses its last
 * child, drained by the post-step. A dequeue passes over an object whose delay-delete mark a new
 * create has cleared, and over one that is no longer stored; an object stands in it once at most.
 * Queue 2 holds heap objects that the platform wants to pass through the normal entries; the queue
 * owns them until they are dequeued.
 */
#ifndef ZAN_PLATFORM_INTERNAL_QUEUES_H
#define ZAN_PLATFORM_INTERNAL_QUEUES_H

#include "zan_table_base.h"

#define ZAN_QUEUE_DELAY_DELETE   1
#define ZAN_QUEUE_INTERNAL_ASYNC 2

ZAN_EXTERN_C_BEGIN
/* Queue 1: dispatcher or FRR thread. Queue 2: any thread; the object passes to the queue. Returns 0
 * or ZAN_RC_NO_MEMORY. */
ZAN_EXPORT zan_rcode kor_core_queue_enqueue(zan_table_base_st *obj, uint32_t queue);
/* Null when empty. Dispatcher thread. */
ZAN_EXPORT zan_table_base_st *kor_core_queue_dequeue(uint32_t queue);
ZAN_EXPORT bool kor_server_is_queue_empty(uint32_t queue);
/* Take in what the NPU threads have finished with: frees or recycles the copies of asynchronous
 * writes, on the dispatcher thread. */
ZAN_EXPORT void zan_dsp_q_process_post_npu(void);
/* Process east-west messages between nodes. A host stands alone: those that local tools injected.
 */
ZAN_EXPORT void zan_dsp_q_process_east_west(void);
/* The platform's side of a postponed delete that is over: on success it tells the client through
 * the slot delete_notify. `obj` is a copy that stays with the caller. */
ZAN_EXPORT void zan_call_pd_handle_delayed_delete_rc(zan_rcode rc, zan_table_base_st *obj);
ZAN_EXTERN_C_END

#endif
