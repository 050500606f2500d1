/* The message that the NPU threads read, and the delta of an update that it may carry. */
#ifndef ZAN_PLATFORM_NPU_MESSAGE_H
#define ZAN_PLATFORM_NPU_MESSAGE_H

#include "walk_service.h"
#include "zan_table_base.h"

/* What an update changes; the argument of the update hook. On the heap for the NPU threads, on the
 * stack of the hardware step for the tables it programs itself. */
typedef struct zan_delta_lists_t {
    zan_table_base_st *new_to_old_map_ref; /* the old object, to which the map's indices refer */
    zan_table_base_st *new_obj;
    zan_table_base_st *old_obj;
    uint8_t resize;           /* the member counts differ */
    uint32_t *new_to_old_map; /* borrowed; null in tables without a resizing part */
    kor_dpd_event_ctx_t *walk_ctx;
    void *delta_buffer; /* heap; freed with the record */
    uint64_t reserved[3];
} zan_delta_lists_t;
ZAN_STATIC_ASSERT(sizeof(zan_delta_lists_t) == 80, "delta lists");

/* Ownership: filled by the dispatcher. A synchronous write uses one instance for the process, and
 * the dispatcher blocks until all NPUs have answered. A record of zan_srv_msg_alloc (is_async)
 * belongs to the NPU side after the send, with obj, old_obj and delta_lists; it comes home when the
 * last NPU has finished. The NPU threads write npu_rc (each its own entry) and npus_left only. */
typedef struct kor_core_srv_dispatch_t {
    zan_table_base_st *obj;
    zan_table_base_st *old_obj; /* update: the previous form */
    uint8_t is_resize;          /* first argument of the delete hook */
    uint32_t *new_to_old_map;
    uint8_t is_async;
    uint32_t npus_left; /* atomic */
    zan_rcode npu_rc[ZAN_MAX_NPUS];
    uint32_t num_npus;
    void *npu_stats; /* per-NPU records of the global context, for the hooks */
    uint8_t table_operation;
    uint32_t resize_aux; /* a delete releases identifiers by the update form */
    kor_dpd_event_ctx_t *walk_ctx;
    zan_delta_lists_t *delta_lists;
    kor_npu_mask_t only_npu_mask; /* not 0: an NPU outside it does nothing at all */
} kor_core_srv_dispatch_t;

ZAN_EXTERN_C_BEGIN
/* What an NPU thread runs for each message: in the server. Returns the hook's code, which is what
 * kor_exec_q_resp_read_rc gives the waiter. */
ZAN_EXPORT zan_rcode kor_core_npu_dispatcher(kor_core_srv_dispatch_t *srv_obj, int32_t npu_id);
ZAN_EXTERN_C_END

#endif
