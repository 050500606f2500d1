/* The records that every other file speaks in: the common header of an object, the response slot,
 * the request header of a batch.
 *
 * A client sends a batch as one contiguous message of serialized objects. The server walks them,
 * works on a heap copy of each and keeps the lasting form in the table database. The header is the
 * same in all three forms, so that a pointer to any of them is a zan_table_base_st *.
 *
 *   serialized  fixed part, then the dynamic attributes at once (total_obj_size = fixed + dynamic),
 *               or behind a gap of the platform-private size (fixed + private + dynamic)
 *   heap        one calloc'ed block: fixed, private, dynamic; heap_form is 1
 *   database    a pool slot: fixed, private; the dynamic attributes in shared memory of their own
 *
 * Both records are a wire format in host byte order: a client runs on the same machine.
 */
#ifndef ZAN_TABLE_BASE_H
#define ZAN_TABLE_BASE_H

#include <time.h>

#include "zan_rcodes.h"
#include "zan_types.h"

typedef enum zan_table_operation_et {
    ZAN_TABLE_RESERVE = 0, /* never reaches a table's entry */
    ZAN_TABLE_CREATE = 1,
    ZAN_TABLE_DELETE = 2,
    ZAN_TABLE_EVENT = 3,
    ZAN_TABLE_UPDATE = 4,
    ZAN_TABLE_GET = 5,
    ZAN_TABLE_GET_FIRST = 6,
    ZAN_TABLE_GET_GT_EQ = 7,
    ZAN_TABLE_GET_NEXT = 8,
    ZAN_TABLE_REPLAY_START = 9,
    ZAN_TABLE_REPLAY_END = 10,
    ZAN_TABLE_EOD = 11,
    ZAN_TABLE_OPERATION_COUNT
} zan_table_operation_et;

/* As client_epoch of a replay's marker: the objects of all clients. */
#define ZAN_EPOCH_ANY 0xffffffffu

/* Bits of zan_table_base_st.flag. "client" bits may be set by a client; the agent clears the rest.
 */
enum {
    ZAN_FLAG_STALE = 1u << 0,      /* replay start marked it, nobody has sent it since */
    ZAN_FLAG_RETRY_MODE = 1u << 1, /* client: write it again whether it changed or not */
    ZAN_FLAG_USE_ASYNC_BARRIER = 1u
                                 << 2, /* client: hold later writes back until this one is done */
    ZAN_FLAG_NON_BLOCKING_UPDATE = 1u << 3, /* client: do not stop the NPU queues for this update */
    ZAN_FLAG_CARRY = 1u << 4,               /* client: kept on the stored object, never cleared */
    ZAN_FLAG_IS_ASYNC_WRITE = 1u << 5,      /* nobody waits for the hardware write */
    ZAN_FLAG_IS_ASYNC_DISPATCH = 1u << 6, /* client: the batch is asynchronous; one slot for all */
    ZAN_FLAG_CARRY_HI = 1u << 7,          /* client: copied to the stored object on replacement */
    ZAN_FLAG_DELETING = 1u << 9,          /* set at the entry of a delete */
    ZAN_FLAG_TRANSIENT_10 = 1u << 10,
    ZAN_FLAG_QUEUED_DELETE = 1u << 12, /* this delete comes from the delay-delete queue */
    ZAN_FLAG_OOR_HELD = 1u << 14,
    ZAN_FLAG_TRANSIENT_15 = 1u << 15,
    ZAN_FLAG_TRANSIENT_17 = 1u << 17,
    ZAN_FLAG_FWALK_COLORED = 1u << 18, /* a forward walk has painted the object */

    ZAN_FLAG_TRANSIENT_MASK =
        ZAN_FLAG_TRANSIENT_10 | ZAN_FLAG_TRANSIENT_15 | ZAN_FLAG_TRANSIENT_17, /* 0x28400 */
    ZAN_FLAG_CLIENT_MASK = ZAN_FLAG_RETRY_MODE | ZAN_FLAG_USE_ASYNC_BARRIER |
                           ZAN_FLAG_NON_BLOCKING_UPDATE | ZAN_FLAG_CARRY |
                           ZAN_FLAG_IS_ASYNC_DISPATCH | ZAN_FLAG_CARRY_HI,
};

/* Bits of getopt_mask: options of a read. */
enum {
    ZAN_GETOPT_STALE_ONLY = 0x1,    /* the search passes over objects that are not stale */
    ZAN_GETOPT_FORMAT_TEXT = 0x2,   /* render the object as text into the payload */
    ZAN_GETOPT_STOP_QUEUES_A = 0x4, /* stop the NPU queues for this read */
    ZAN_GETOPT_STOP_QUEUES_B = 0x8, /* the same */
    ZAN_GETOPT_SHOW_BUFFER = 0x100, /* the platform's show text; skips the per-NPU reads */
    ZAN_GETOPT_STOP_QUEUES_MASK = 0x10c,
};

/* Poison written to obj_handle: of a database object on its way out, and of the heap copy of an
 * asynchronous write that has no database object to lead to. */
#define ZAN_POISON_FREED_DB_OBJ 0xdeadfeeeull
#define ZAN_POISON_NO_DB_OBJ    0xdeadbeefull

#define ZAN_DEL_FLAG_DELAY_DELETE 0x1u /* del_flag: the object waits for its children to go */

#define ZAN_WRITE_KIND_REPLACE     1 /* a create that may become an update */
#define ZAN_WRITE_KIND_STRICT      2 /* a repeat counts a reference, a difference is refused */
#define ZAN_WRITE_KIND_REPLACE_REF 3 /* as 1, and counts a reference */

/* Links and state of the dependency graph and the pool. Only the graph service writes here, but for
 * the delay-delete mark and the counts of walks, which the flows write. The graph's own layout of
 * the unnamed bytes is private to it. */
typedef struct zan_dpd_area_st {
    uint64_t graph_a[3];
    struct zan_dpd_link_st *dpd_child_list; /* first child link; null without children */
    uint32_t evt_pushed_count;              /* events that it has pushed on walks */
    uint32_t graph_b;
    uint32_t dpd_child_cnt; /* children that reference this object */
    uint16_t num_parents;   /* parent slots in use */
    uint16_t max_parents;   /* parent slots prepared by kor_dpd_parent_init */
    uint64_t graph_c[5];
    uint8_t graph_d[4];
    uint8_t del_flag;
    uint8_t graph_e[3];
    uint32_t bwalk_id_stamp;     /* last walk that updated the object */
    uint16_t bwalk_update_count; /* updates by walks */
    uint16_t bwalk_skip_count;   /* visits that left it alone */
} zan_dpd_area_st;

typedef struct zan_table_base_st {
    union {
        zan_dpd_area_st dpd;
        uint8_t dpd_area[104];
    };
    struct timespec client_time; /* stamped by the client when it sent the object */
    uint32_t client_epoch;       /* replay scope mark */
    uint8_t reserved[20];
    uint64_t obj_handle;     /* database object: its own address; request: the object meant, or 0 */
    kor_npu_mask_t npu_mask; /* NPUs to which the object applies */
    uint32_t flag;           /* ZAN_FLAG_* */
    uint32_t base_trans_id;  /* transaction that touched the object last */
    uint32_t total_obj_size; /* bytes of this form, dynamic attributes included; never 0 */
    zan_rcode rc_stamp;      /* last code recorded on the object */
    uint16_t key_len;        /* bytes of the key; 0: the object is named by obj_handle */
    uint16_t table_id;
    uint32_t obj_id;         /* identity in its table; an update keeps it */
    uint8_t hw_state;        /* 3 once a create has written the object */
    uint8_t npu_id;          /* the NPU that a per-NPU call is for */
    uint8_t heap_form;       /* 1 in a heap copy */
    uint8_t inflight;        /* 1 while an asynchronous write is with the NPU threads; atomic */
    uint8_t table_operation; /* zan_table_operation_et */
    uint8_t write_kind;      /* ZAN_WRITE_KIND_* */
    uint16_t getopt_mask;    /* ZAN_GETOPT_* */
} zan_table_base_st;

#define ZAN_ASSERT_OFFSET(type, field, offset)                                                     \
    ZAN_STATIC_ASSERT(offsetof(type, field) == (offset), #type "." #field)

ZAN_ASSERT_OFFSET(zan_table_base_st, dpd.dpd_child_list, 24);
ZAN_ASSERT_OFFSET(zan_table_base_st, dpd.dpd_child_cnt, 40);
ZAN_ASSERT_OFFSET(zan_table_base_st, dpd.del_flag, 92);
ZAN_ASSERT_OFFSET(zan_table_base_st, client_time, 104);
ZAN_ASSERT_OFFSET(zan_table_base_st, client_epoch, 120);
ZAN_ASSERT_OFFSET(zan_table_base_st, reserved, 124);
ZAN_ASSERT_OFFSET(zan_table_base_st, obj_handle, 144);
ZAN_ASSERT_OFFSET(zan_table_base_st, npu_mask, 152);
ZAN_ASSERT_OFFSET(zan_table_base_st, flag, 160);
ZAN_ASSERT_OFFSET(zan_table_base_st, base_trans_id, 164);
ZAN_ASSERT_OFFSET(zan_table_base_st, total_obj_size, 168);
ZAN_ASSERT_OFFSET(zan_table_base_st, rc_stamp, 172);
ZAN_ASSERT_OFFSET(zan_table_base_st, key_len, 176);
ZAN_ASSERT_OFFSET(zan_table_base_st, table_id, 178);
ZAN_ASSERT_OFFSET(zan_table_base_st, obj_id, 180);
ZAN_ASSERT_OFFSET(zan_table_base_st, hw_state, 184);
ZAN_ASSERT_OFFSET(zan_table_base_st, npu_id, 185);
ZAN_ASSERT_OFFSET(zan_table_base_st, heap_form, 186);
ZAN_ASSERT_OFFSET(zan_table_base_st, inflight, 187);
ZAN_ASSERT_OFFSET(zan_table_base_st, table_operation, 188);
ZAN_ASSERT_OFFSET(zan_table_base_st, write_kind, 189);
ZAN_ASSERT_OFFSET(zan_table_base_st, getopt_mask, 190);
ZAN_STATIC_ASSERT(sizeof(zan_table_base_st) == 192, "header");

/* The response slot of one object. A synchronous batch has one for each object, slot i at
 * i * (payload_alloc_sz of the first slot + 32) bytes; an asynchronous batch has one for all. */
typedef struct zan_table_response_st {
    uint64_t obj;           /* database object; after a replay operation the objects visited */
    uint64_t err_code;      /* zan_rcode of this object */
    uint8_t batch_continue; /* this object's failure does not stop the batch */
    uint8_t batch_cut;      /* not dispatched: the batch was already cut short */
    uint8_t reserved[2];
    uint32_t payload_alloc_sz; /* bytes available at payload */
    uint32_t payload_used_sz;  /* bytes in use; never above payload_alloc_sz */
    char payload[4];           /* text or data of a read; runs on behind the header */
} zan_table_response_st;

#define ZAN_RESPONSE_HDR_SIZE 32u

ZAN_ASSERT_OFFSET(zan_table_response_st, obj, 0);
ZAN_ASSERT_OFFSET(zan_table_response_st, err_code, 8);
ZAN_ASSERT_OFFSET(zan_table_response_st, batch_continue, 16);
ZAN_ASSERT_OFFSET(zan_table_response_st, batch_cut, 17);
ZAN_ASSERT_OFFSET(zan_table_response_st, payload_alloc_sz, 20);
ZAN_ASSERT_OFFSET(zan_table_response_st, payload_used_sz, 24);
ZAN_ASSERT_OFFSET(zan_table_response_st, payload, 28);
ZAN_STATIC_ASSERT(sizeof(zan_table_response_st) == ZAN_RESPONSE_HDR_SIZE, "response header");

/* The request header of a batch, passed by value. */
typedef struct kor_table_req_hdr_st {
    uint32_t num_resp;  /* response slots available */
    uint32_t msg_len;   /* bytes of the message; never 0 */
    uint32_t client_id; /* carried into the dispatcher's traces; 0 silences its error trace */
    uint8_t continue_on_error; /* a failure does not stop the batch */
    uint8_t reserved[3];
} kor_table_req_hdr_st;

ZAN_ASSERT_OFFSET(kor_table_req_hdr_st, num_resp, 0);
ZAN_ASSERT_OFFSET(kor_table_req_hdr_st, msg_len, 4);
ZAN_ASSERT_OFFSET(kor_table_req_hdr_st, client_id, 8);
ZAN_ASSERT_OFFSET(kor_table_req_hdr_st, continue_on_error, 12);
ZAN_STATIC_ASSERT(sizeof(kor_table_req_hdr_st) == 16, "request header");

/* Types of notifications that the server and its host send; a platform has others. */
enum {
    ZAN_NOTIF_DELETED = 6, /* a postponed delete has gone through */
    ZAN_NOTIF_RESOLVE_FAILED = 15,
    ZAN_NOTIF_BIND_REFUSED = 16,
    ZAN_NOTIF_NOT_FOUND = 17,
    ZAN_NOTIF_RESERVE_FAILED = 18,
    ZAN_NOTIF_OUT_OF_SERVICE = 20, /* the host's: its writes failed for good, or its parent's did */
    ZAN_NOTIF_IN_SERVICE = 21,     /* the host's: put back */
};

ZAN_EXTERN_C_BEGIN
/* Name of an operation for people ("create"); "unknown" for any other code. */
ZAN_EXPORT const char *zan_table_operation_str(uint8_t operation);
ZAN_EXTERN_C_END

static inline bool zan_obj_base_get_retry_mode(const zan_table_base_st *obj)
{
    return (obj->flag & ZAN_FLAG_RETRY_MODE) != 0;
}

static inline bool zan_obj_base_get_use_async_barrier(const zan_table_base_st *obj)
{
    return (obj->flag & ZAN_FLAG_USE_ASYNC_BARRIER) != 0;
}

static inline bool zan_obj_base_get_non_blocking_update(const zan_table_base_st *obj)
{
    return (obj->flag & ZAN_FLAG_NON_BLOCKING_UPDATE) != 0;
}

#endif
