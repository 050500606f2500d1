/* The resource layer keeps the occupancy of hardware databases, per NPU.
 *
 * The server tells it of each write that hardware took and of each delete; the layer decides when a
 * database runs full and calls kor_send_oor. Its callbacks run on the dispatcher thread and on NPU
 * threads at once, for different NPUs, under no lock; two calls for one NPU come one after the
 * other. */
#ifndef ZAN_PLATFORM_RESOURCE_LAYER_H
#define ZAN_PLATFORM_RESOURCE_LAYER_H

#include "zan_table_base.h"

/* The question which hardware databases an object occupies. */
typedef struct zan_hwdb_query_st {
    uint32_t table_id;
    uint32_t reserved0[6];
    uint32_t num_paths;
    uint32_t num_paths_aux;
    uint32_t reserved1;
    const zan_table_base_st *obj;
} zan_hwdb_query_st;
ZAN_ASSERT_OFFSET(zan_hwdb_query_st, num_paths, 28);
ZAN_ASSERT_OFFSET(zan_hwdb_query_st, num_paths_aux, 32);
ZAN_ASSERT_OFFSET(zan_hwdb_query_st, obj, 40);
ZAN_STATIC_ASSERT(sizeof(zan_hwdb_query_st) == 48, "resource query");

typedef struct kor_hwdb_entry_t {
    uint32_t hwdb;      /* the hardware database; 0: unused */
    uint32_t count;     /* explicit amount */
    uint32_t use_count; /* count replaces the caller's amount */
    uint32_t sub_id;
} kor_hwdb_entry_t;

typedef struct kor_hwdb_mask_t {
    kor_hwdb_entry_t entry[2];
    uint32_t hwdb_flags;
} kor_hwdb_mask_t;

/* States of a database, by how full it is. */
typedef enum zan_resource_state_et {
    ZAN_RESOURCE_GREEN,
    ZAN_RESOURCE_YELLOW,
    ZAN_RESOURCE_RED,
} zan_resource_state_et;

/* A database of an NPU has come to another state. */
typedef void (*kor_send_oor_f)(void *npu_resource, uint32_t hwdb, uint32_t state);

/* `amount`: 1, the object has come to occupy an entry; 0, it has given it back; or the explicit
 * amount of the entry that get_hwdb_mask has filled. */
typedef struct kor_arch_resources_cb_t {
    void (*account)(void *npu_resource, uint32_t hwdb, uint32_t table_id, uint32_t amount,
                    const zan_table_base_st *obj, kor_send_oor_f send_oor);
    void (*account_sub)(void *npu_resource, uint32_t hwdb, uint32_t sub_id, uint32_t one,
                        uint32_t table_id, uint32_t amount, const zan_table_base_st *obj,
                        kor_send_oor_f send_oor);
    void (*get_hwdb_mask)(kor_hwdb_mask_t *out, const zan_hwdb_query_st *query, void *npu_resource);
} kor_arch_resources_cb_t;

ZAN_EXTERN_C_BEGIN
/* The layer's callbacks, or null when the platform has none. Any thread. */
ZAN_EXPORT const kor_arch_resources_cb_t *kor_arch_resources_cb_get(void);
/* Tell operator and clients of a state; given to the layer with each call. Any thread. */
ZAN_EXPORT void kor_send_oor(void *npu_resource, uint32_t hwdb, uint32_t state);
ZAN_EXTERN_C_END

#endif
