/* What the host's statistics service offers beside what the server imports: slow operations, and
 * the durations of walks. */
#ifndef ZAN_HOST_STATISTICS_H
#define ZAN_HOST_STATISTICS_H

#include "exec_queue.h"
#include "statistics.h"

ZAN_EXTERN_C_BEGIN
/* The last slow operations of an NPU's thread, or with ZAN_MAX_NPUS of the dispatcher, the newest
 * first: their number, at most ZAN_NPU_HISTORY_ROWS. Any thread. */
ZAN_EXPORT uint32_t zan_host_slow_ops(uint32_t npu, zan_npu_op_record_st *out);
/* From this duration on an operation is slow. */
ZAN_EXPORT uint64_t zan_host_slow_op_ns(void);

/* Learn how long a cycle is; takes 2 ms. Once per start. */
void host_statistics_start(void);
/* A walk that an object of the table began took that long. Dispatcher thread, or the FRR thread
 * while it holds the dispatcher. */
void host_count_walk(uint32_t table_id, uint64_t ns);
ZAN_EXTERN_C_END

#endif
