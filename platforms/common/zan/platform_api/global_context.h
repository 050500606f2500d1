/* The global context: what all tables share, held by the platform for the life of the process.
 *
 * Written on the dispatcher thread, except for the per-NPU rows, which belong to the NPU's thread.
 * Counters are plain increments: a lost count under a race is accepted.
 */
#ifndef ZAN_PLATFORM_GLOBAL_CONTEXT_H
#define ZAN_PLATFORM_GLOBAL_CONTEXT_H

#include "zan_types.h"

#define ZAN_NUM_COUNTERS  61
/* Sets of counters: 0 counts since the start, 1 since the operator's last reset, 2 and up are the
 * banks, of which `active_bank` is the one that counts now. */
#define ZAN_COUNTER_SETS  8
#define ZAN_COUNTER_BANKS (ZAN_COUNTER_SETS - 2)

/* Hardware failures and objects of one table on one NPU. The failures are counted by the thread
 * that programs the NPU, and read by any: as atomics, relaxed. */
typedef struct zan_table_npu_block_st {
    uint32_t create_err_cnt;
    uint32_t delete_err_cnt;
    uint32_t update_err_cnt;
    uint32_t obj_cnt; /* objects stored whose npu_mask has this NPU */
} zan_table_npu_block_st;
ZAN_STATIC_ASSERT(sizeof(zan_table_npu_block_st) == 16, "NPU block");

/* The table's record. Zero until the table's first operation. */
typedef struct zan_global_table_st {
    uint32_t table_id;
    uint8_t first_option;        /* the option bytes are as the definition sets them */
    uint8_t first_option_active; /* set when the first option byte is */
    uint8_t second_option;
    uint8_t reserved;
    void *specific[2];             /* results of the platform's specific_init */
    uint32_t quarantine_max_depth; /* longest search of the quarantine so far */
    zan_table_npu_block_st npu[ZAN_MAX_NPUS];
} zan_global_table_st;

/* One NPU's record. */
typedef struct zan_global_npu_st {
    uint64_t program_cnt; /* attempts to program this NPU */
} zan_global_npu_st;

typedef struct zan_global_ctx_st {
    uint32_t num_npus;           /* 0 to ZAN_MAX_NPUS */
    uint8_t per_object_npu_mask; /* each object's npu_mask narrows a write */
    kor_npu_mask_t npu_mask_all;
    kor_npu_mask_t npu_mask_active; /* the NPUs to write */
    void **hw_resource_list; /* one opaque handle per NPU; may be null, and so may an entry */
    uint32_t active_bank;    /* below ZAN_COUNTER_BANKS */
    zan_global_npu_st npu[ZAN_MAX_NPUS];
    zan_global_table_st table[ZAN_NUM_TABLES];
    uint32_t counters[ZAN_COUNTER_SETS][ZAN_NUM_TABLES][ZAN_NUM_COUNTERS];
} zan_global_ctx_st;

ZAN_EXTERN_C_BEGIN
/* The context, or null before the platform has made it. Any thread. */
ZAN_EXPORT zan_global_ctx_st *zan_get_global_ctx(void);
/* Bind a table to the context: non-zero, or a null *ctx, when there is none. Any thread. */
ZAN_EXPORT zan_rcode zan_ctx_bind(zan_global_ctx_st **ctx);
ZAN_EXTERN_C_END

#endif
