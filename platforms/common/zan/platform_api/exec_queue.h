/* The execution queue: one ring and one thread for each NPU.
 *
 * The dispatcher broadcasts a message to the rings of a mask of NPUs; each NPU's thread takes its
 * messages in order and runs kor_core_npu_dispatcher on the payload. A waiter is told when the last
 * broadcast has been answered. A message that nobody waits for comes home when its last NPU is
 * done: zan_dsp_q_process_post_npu frees the payload and the copies in it on the dispatcher thread.
 *
 * A message that nobody waits for need not reach its NPU's thread at once; it has at the end of the
 * batch, in zan_dsp_q_process_east_west.
 *
 * Two ways to run it. With threads, as in production; and stepped, where queued messages run on the
 * caller's thread, under the NPU's thread identity and no lock, in an order that a seed decides: at
 * a send, at the wait, in zan_dsp_q_process_post_npu, at a yield, in zan_usleep and at a full ring.
 *
 * Control and broadcast: the thread with ZAN_EXEC_Q_CONTROL_OPS_ALLOWED only.
 */
#ifndef ZAN_PLATFORM_EXEC_QUEUE_H
#define ZAN_PLATFORM_EXEC_QUEUE_H

#include <time.h>

#include "zan_table_base.h"

#define ZAN_EXEC_MSG_NPU_REQUEST 3u
#define ZAN_EXEC_Q_TIMEOUT       110 /* kor_exec_q_resp_wait: one period has passed */
#define ZAN_NPU_HISTORY_ROWS     10

/* Head of a queue message; the queue keeps its own fields behind it. */
typedef struct zan_exec_q_msg_st {
    uint32_t type;
    uint32_t reserved0;
    struct kor_core_srv_dispatch_t *payload;
    uint32_t count; /* NPUs in the mask */
    uint32_t reserved1[5];
    uint8_t use_barrier; /* later messages are held back until every NPU has finished this one */
} zan_exec_q_msg_st;
ZAN_ASSERT_OFFSET(zan_exec_q_msg_st, type, 0);
ZAN_ASSERT_OFFSET(zan_exec_q_msg_st, payload, 8);
ZAN_ASSERT_OFFSET(zan_exec_q_msg_st, count, 16);
ZAN_ASSERT_OFFSET(zan_exec_q_msg_st, use_barrier, 40);

/* One operation of an NPU: the one it runs now, or a row of its history. */
typedef struct zan_npu_op_record_st {
    uint32_t op;
    uint32_t marker; /* 1 when written by the NPU dispatcher */
    uint16_t table_id;
    uint32_t id; /* transaction id, or the descriptor's for operation 12 */
    struct timespec start_time;
    struct timespec end_time;
    struct timespec elapsed;
} zan_npu_op_record_st;
ZAN_STATIC_ASSERT(sizeof(zan_npu_op_record_st) == 64, "operation record");

typedef struct kor_exec_q_st {
    zan_npu_op_record_st history[ZAN_MAX_NPUS][ZAN_NPU_HISTORY_ROWS]; /* slow operations */
    zan_npu_op_record_st current[ZAN_MAX_NPUS]; /* written by the NPU's thread */
} kor_exec_q_st;

ZAN_EXTERN_C_BEGIN
ZAN_EXPORT kor_exec_q_st *get_global_exec_q(void);
/* A zeroed message; it belongs to the caller until a broadcast took it. Null without memory. */
ZAN_EXPORT zan_exec_q_msg_st *zan_exec_q_msg_alloc(kor_exec_q_st *queue);
ZAN_EXPORT void zan_exec_q_msg_free(zan_exec_q_msg_st *msg);
/* Hand the message to each NPU of the mask. Non-zero on failure, and then no NPU has it. */
ZAN_EXPORT int kor_exec_q_req_bcast(kor_exec_q_st *queue, zan_exec_q_msg_st *msg,
                                    kor_npu_mask_t mask);

/* Prepare to wait for the answers to the last broadcast, if it was not waited for yet. 0: wait. */
ZAN_EXPORT int zan_exec_q_sync_ctrl(void);
/* Stop all queues behind what they hold. 0: wait until they stand still, and let them go again with
 * zan_exec_q_sync_ctrl_allow_all_queues. */
ZAN_EXPORT int zan_exec_q_sync_ctrl_request_only(void);
ZAN_EXPORT void zan_exec_q_sync_ctrl_allow_all_queues(void);
/* Block for one period at most: 0 all answers are in, ZAN_EXEC_Q_TIMEOUT, or another errno. */
ZAN_EXPORT int kor_exec_q_resp_wait(kor_exec_q_st *queue);
/* What kor_core_npu_dispatcher returned on that NPU for its last request. */
ZAN_EXPORT zan_rcode kor_exec_q_resp_read_rc(uint32_t npu_id);
/* Messages waiting, over all rings. */
ZAN_EXPORT uint32_t kor_exec_q_get_depth(kor_exec_q_st *queue);
ZAN_EXPORT void kor_exec_q_wake_npu_threads(kor_npu_mask_t mask, uint32_t reserved);
/* Tell every NPU thread that a run of asynchronous writes of the table is over: each calls the
 * slot async_batch_end_npu_cb. */
ZAN_EXPORT void zan_exec_q_enqueue_async_batch_end_msg(uint32_t table_id);

/* A record for an asynchronous write, zeroed; null without memory. It comes home with the message,
 * or goes back through zan_srv_msg_free when the send failed. */
ZAN_EXPORT struct kor_core_srv_dispatch_t *zan_srv_msg_alloc(uint8_t table_operation);
ZAN_EXPORT void zan_srv_msg_free(struct kor_core_srv_dispatch_t *record);

/* A performance exercise may take a request out of the path: true when it did; the exercise then
 * owns what the queue would own. It may clear *is_async_out, which may be null. */
ZAN_EXPORT bool zan_server_perf_sanity_process_req_fn(zan_exec_q_msg_st *msg, bool is_async_write,
                                                      uint8_t *is_async_out);
ZAN_EXTERN_C_END

#endif
