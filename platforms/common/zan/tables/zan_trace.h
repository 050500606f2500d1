/* What a trace says: its class, its message, and both as text.
 *
 * Every message of the server and of the host stands in one list here. To add one: a line below,
 * and ZAN_TRACE at the place. The text is for the reader of the ring and takes the arguments in
 * order: %x and %u, %d a signed one, %s a string, and by their names %T a table, %O an operation,
 * %R a result code.
 *
 * Numbers: the host's messages come first, then those of the server's common sources. A table's
 * flows have a block of their own for each table, so that the table can be told by the number.
 */
#ifndef ZAN_TRACE_H
#define ZAN_TRACE_H

#include "zan_types.h"

/* Handle of a trace class: table_id * 3 + level - 1 for a table's, then the shared ones. */
typedef uint32_t zan_trace_class_t;

#define ZAN_TRACE_LEVEL_ERROR   1u
#define ZAN_TRACE_LEVEL_EVENT   2u
#define ZAN_TRACE_LEVEL_VERBOSE 3u

/* The shared classes, X(name). */
#define ZAN_SHARED_TRACE_CLASSES(X)                                                                \
    X(ZAN_TRANSACTION_HISTORY_EVENT__)                                                             \
    X(ZAN_TRANSACTION_HISTORY_EVENT_RETRY__)                                                       \
    X(ZAN_TRANSACTION_HISTORY_STATS_EVENT__)                                                       \
    X(ZAN_TRANSACTION_HISTORY_STATS_EVENT_RETRY__)                                                 \
    X(ZAN_QUEUE_ERROR__)                                                                           \
    X(ZAN_QUEUE_EVENT__)                                                                           \
    X(ZAN_BATCH_CRUD_ERROR__)                                                                      \
    X(ZAN_BATCH_CRUD_VERBOSE__)                                                                    \
    X(ZAN_DB_EVENT__)                                                                              \
    X(ZAN_FILE_A_BUGTRK_ERROR__)                                                                   \
    X(ZAN_BWALK_ERROR__)                                                                           \
    X(ZAN_BWALK_EVENT__)                                                                           \
    X(ZAN_BWALK_PUSH_EVENT__)                                                                      \
    X(ZAN_BWALK_COLORUNBIND_EVENT__)                                                               \
    X(ZAN_RETRY_ERROR__)                                                                           \
    X(ZAN_RETRY_EVENT__)                                                                           \
    X(ZAN_RETRY_VERBOSE__)

enum {
    ZAN_SHARED_TRACE_CLASS_BASE = ZAN_NUM_TABLES * 3,
#define ZAN_TRACE_CLASS_ENUM(name) ZAN_CLASS_##name,
    ZAN_TRACE_CLASS_BEFORE_FIRST = ZAN_SHARED_TRACE_CLASS_BASE - 1,
    ZAN_SHARED_TRACE_CLASSES(ZAN_TRACE_CLASS_ENUM)
#undef ZAN_TRACE_CLASS_ENUM
    ZAN_NUM_TRACE_CLASSES
};

/* One record of the ring, as the reader gets it. */
typedef struct zan_trace_record_st {
    uint64_t sequence; /* ascending over all threads */
    uint64_t cycles;
    uint64_t msg;
    zan_trace_class_t trace_class;
    uint32_t trans_id;
    uint64_t arg[7];
    char text[112]; /* of the string arguments, blank-separated; cut */
} zan_trace_record_st;

/* The ring as a file: this head, then `num_rings` rings of `records_per_ring` records, one behind
 * the other. Cycles are turned into time by the two moments at which both were read. */
#define ZAN_TRACE_FILE_MAGIC     0x31304352545a4e41ull /* "ANZTRC01" */
#define ZAN_TRACE_FILE_HEAD_SIZE 4096u
typedef struct zan_trace_file_st {
    uint64_t magic;
    uint64_t fingerprint; /* zan_schema_fingerprint: messages go by table ids */
    uint32_t num_rings, records_per_ring;
    uint32_t record_size; /* of zan_trace_slot_st */
    uint32_t pid;
    uint64_t first_cycles, first_ns; /* CLOCK_REALTIME */
    uint64_t last_cycles, last_ns;
} zan_trace_file_st;

/* A record in its ring; 0 as sequence: there is none, or it was being written. */
#define ZAN_TRACE_TEXT_WORDS 14
typedef struct zan_trace_slot_st {
    uint64_t sequence; /* the cycle counter when it was written */
    uint64_t msg;
    uint64_t class_and_trans; /* class in the high half */
    uint64_t arg[7];
    uint64_t text[ZAN_TRACE_TEXT_WORDS]; /* whatever was there, in a message of integers */
} zan_trace_slot_st;
ZAN_STATIC_ASSERT(sizeof(zan_trace_slot_st) == 192,
                  "a record is three cache lines, of which most traces touch one");

/* X(name, text) */
#define ZAN_COMMON_MESSAGES(X)                                                                     \
    X(BATCH_CUT, "batch cut: rc %R, table %T, trans %u, client %u")                                \
    X(BATCH_FORGIVEN, "failure forgiven: rc %R, table %T, trans %u")                               \
    X(BATCH_FAILED, "batch failed: rc %R, table %T, keep_going %u, trans %u, client %u")           \
    X(BATCH_NOT_DISPATCHED, "object not dispatched: client %u, rc %R, table %T, trans %u")         \
    X(QUEUE_SKIP, "%s")                                                                            \
    X(QUEUE_FAILED, "internal queue: rc %R %s")                                                    \
    X(QUEUE_DRAINED, "internal async queue drained: %u objects")                                   \
    X(QUEUE_HAS_CHILDREN, "queued delete left alone, it has children: %x, children %u")            \
    X(QUEUE_OBJ_FAILED, "queued object failed: rc %R, delay_delete %u, handle %x, trans %u")       \
    X(QUEUE_OBJ_DONE, "queued object done: trans %u, operation %O, handle %x")                     \
    X(DELAY_DELETES_DONE, "delay-delete queue: %u objects")                                        \
    X(SYNC_ALLOW_REFUSED, "queues left stopped: table %T, operation %O, trans %u")                 \
    X(DUMMY_WAIT_WRONG_THREAD, "%s")                                                               \
    X(BCAST_REFUSED, "broadcast from a thread that may not control the queues: table %T")          \
    X(BCAST_STRAY_DELTA, "delta on something else than an update: table %T, trans %u")             \
    X(BCAST_UNDO_INSANE, "no undo, the create was not plain: table %T, trans %u")                  \
    X(BCAST_UNDO, "partial create undone: table %T, obj %x, trans %u, record %x, rc %R, send %x")  \
    X(SYNC_ERR_DEFAULT, "sync error: trans %u, rc %R, keep %u")                                    \
    X(BWALK_BIND_COLORS, "bound: child %x, colours %x, parent %x, colours %x")                     \
    X(HISTORY_CREATE, "created: table %T, obj %x, trans %u")                                       \
    X(HISTORY_REPLACE, "replaced: table %T, obj %x, trans %u, was %u")                             \
    X(HISTORY_DELETE, "deleted: table %T, obj_id %u, trans %u, was %u")                            \
    X(BWALK_UNBIND_COLORS, "unbound: child %x, colours %x, parents %x %x")                         \
    X(UPDATE_KEY_RESTORED, "key restored: handles %x %x, trans %u %u")                             \
    X(HELD_FOR_CHILDREN, "delete held back: %u children, first of table %u %s")                    \
    X(RETRY_MESSAGE, "in retry mode")                                                              \
    X(BWALK_EVENT_SKIPPED, "event skipped: table %T, event %u, bits %x of %x, colour %x, obj %x")  \
    X(BWALK_EVENT_PRUNED,                                                                          \
      "event pruned, nobody below wants it: table %T, event %u, obj %x, trans %u")                 \
    X(BWALK_NOT_PUSHED, "no events: childless %u, suppressed %u, table %T, obj %x")                \
    X(BWALK_BITS_REPORTED, "bits reported by the platform: %x of %x, table %T, obj %x")            \
    X(BWALK_NOT_ALLOWED, "no walk, not allowed now: table %T, trans %u, events %u")                \
    X(BWALK_NOT_STARTED, "no walk: table %T, trans %u, inside %u, events %u")                      \
    X(BWALK_FAILED, "walk failed: rc %R, table %T, trans %u, failed walks %u")                     \
    X(BWALK_POST_PROCESSING, "post-processing: obj %x, trans %u, walk %u")                         \
    X(BWALK_POST_PROCESSING_FAILED, "post-processing failed: walk %u, trans %u, obj %x, rc %R")    \
    X(BWALK_CHILD_TABLE,                                                                           \
      "needed %u, matches %u, walk %u, events %u, forced %u, type %u, table %T")                   \
    X(BWALK_CHILD, "child %x: walk %u, needed %u, matches %u, forced %u, type %u")                 \
    X(BWALK_CHILD_DONE, "walk %u: child %x, updates %u, skips %u, rc %R")

#define ZAN_TABLE_MESSAGES(X)                                                                      \
    X(INIT_BIND_FAILED, "no global context: rc %R, context %x")                                    \
    X(INIT_NULL_ARCH_CBS, "%s")                                                                    \
    X(STATS_REGISTERED, "%s")                                                                      \
    X(STATS_WALKED, "statistics walk: %u s, %u ns, %u objects")                                    \
    X(STATS_NOT_TAKEN, "counters of obj %x not taken: rc %R")                                      \
    X(ADJ_WALKED, "statistics walk of adjacency table %u: %u s, %u ns, rc %R")                     \
    X(ADJ_STALE, "adjacency table %u: entry %x is stale since trans %u")                           \
    X(ADJ_NOT_TAKEN, "adjacency table %u: counters of entry %x not taken: rc %R")                  \
    X(EVENT_HOOK_ABSENT, "event without a hook: walk %x, obj %x")                                  \
    X(GET_DB_OBJ_MISS, "no stored object of that identity: trans %u, obj_id %u")                   \
    X(FINAL_RC, "failed: trans %u, rdesc %x, err %x, post %x, hw %x, result %R")                   \
    X(FINAL_RC_REST, "failed: trans %u, bwalk %x, reserve %x")                                     \
    X(KEY_NOT_FOUND, "not found: trans %u, %s")                                                    \
    X(KEY_PRINT_OLD, "key of the old object: trans %u, %s")                                        \
    X(KEY_PRINT, "key: trans %u, %s")                                                              \
    X(PARENT_KEY_NOT_FOUND, "parent not found: trans %u, %s")                                      \
    X(OPERATION_DIFFERS, "operation of stored object %O and of request %O: trans %u, obj %x")      \
    X(CREATE_EXISTING, "create meets stored object %x: trans %u, write_kind %u, first change %d")  \
    X(CREATE_REVIVED, "create revives %x, which waited for its delete: trans %u")                  \
    X(CREATE_REJECTED, "create refused on %x, which waits for its delete: trans %u")               \
    X(CREATE_ALLOC_FAILED, "no memory for the dynamic part: trans %u, rc %R")                      \
    X(CREATE_RDESC_FAILED, "pre_create_rdesc failed: trans %u, rc %R")                             \
    X(CREATE_POST_FAILED, "post_create_rdesc failed: trans %u, rc %R")                             \
    X(CREATE_STORE_FAILED, "not stored: trans %u, obj %x, rc %R")                                  \
    X(CREATE_ROLLED_BACK, "create rolled back: trans %u, obj %x, rc %R")                           \
    X(CREATE_ROLLBACK_DELETE, "roll-back: obj %x was not in the database: trans %u, rc %R")        \
    X(UPDATE_UNCHANGED, "update: unchanged %u, force %u, retry %u, changed %u, trans %u, obj %x")  \
    X(UPDATE_HELD, "update refused: the object waits for its delete, trans %u, obj %x")            \
    X(UPDATE_RDESC_FAILED, "pre_update_rdesc failed: trans %u, rc %R")                             \
    X(UPDATE_POST_FAILED, "post_update_rdesc failed: trans %u, rc %R")                             \
    X(UPDATE_REFS, "references: changed %u by comparison %u, trans %u, obj %x")                    \
    X(UPDATE_BIND_FAILED, "update: bind failed, trans %u, obj %x, rc %R")                          \
    X(UPDATE_STORED, "update stored: trans %u, obj %x, resized %u")                                \
    X(UPDATE_ALLOC_FAILED, "update: no memory for %u members, trans %u, rc %R")                    \
    X(DELETE_NOT_FOUND, "delete of what is not stored: trans %u")                                  \
    X(DELETE_ACTION, "delete action: trans %u, obj %x, rc %x")                                     \
    X(DELETE_REFERENCED, "delete: %u client references left, trans %u, obj %x")                    \
    X(DELETE_REFUSED, "delete refused: %u children, trans %u, obj %x")                             \
    X(DELETE_RDESC_FAILED, "pre_delete_rdesc failed: trans %u, rc %R")                             \
    X(DELETE_POST_FAILED, "post_delete_rdesc failed: trans %u, rc %R")                             \
    X(DELETE_HW_FAILED, "delete: hardware failed, trans %u, obj %x, rc %R")                        \
    X(DELETE_DB_FAILED, "delete: the database refused, trans %u, obj %x, rc %R")                   \
    X(DELETE_DB_KEPT, "delete: the object stays unbound in the database, trans %u, obj %x")        \
    X(PARENT_NOT_QUEUED, "no memory for the delete queue: parent %x waits on, trans %u, rc %R")    \
    X(DELETE_INDEPENDENT_FAILED, "delete_independent_hw_resource failed: trans %u, rc %R")         \
    X(PARENTS, "parents: trans %u, obj %x, colours %x, %x %x")                                     \
    X(UNBOUND, "unbound: trans %u, freed %u, links %u, marked %u")                                 \
    X(PARENT_FREED, "last child gone: table %T, trans %u, child %x, parent trans %u, parent %x")   \
    X(DELTA_OBJECTS, "member lists: new %x, old %x")                                               \
    X(DELTA_COUNTS, "member lists: add %u, delete %u, modify %u, mapped %u")                       \
    X(DELTA_DONE, "member lists: deleted %u, rc %R")                                               \
    X(FREE_RDESC, "descriptor freed after a hardware failure: trans %u, rc %R")                    \
    X(REF_CNT_LIMIT, "obj_ref_cnt of %x stays at its limit %u")                                    \
    X(REF_CNT_ZERO, "obj_ref_cnt of %x is 0 already")                                              \
    X(REF_CNT, "obj_ref_cnt of %x is %u")                                                          \
    X(RESERVE_FAILED, "reserve_id failed: obj %x, rc %R, npu %u")                                  \
    X(RELEASE_FAILED, "release_id failed: obj %x, rc %R, npu %u")                                  \
    X(HW_CODE_MAPPED, "hardware failed: table %T, trans %u, raw %x, client %R, held %x")           \
    X(HW_STEP_FAILED, "hardware step: operation %O, rc %R, trans %u, obj_id %u, new %x, old %x")   \
    X(HW_UNDO_FAILED, "undo of a create failed: npu %u, rc %R, trans %u")                          \
    X(HW_UNDONE, "create undone: npu %u, trans %u")                                                \
    X(DUMMY_WAIT, "queues stopped: trans %u, %u s, %u ns, result %u")                              \
    X(RESOLVE_OLD_DROPPED, "reference dropped: trans %u, old object %x, old handle %x")            \
    X(RESOLVE_MISMATCH, "handle %x and key lead to different parents (%x): trans %u")              \
    X(RESOLVE_CHANGED, "reference changes from %x to %x: trans %u, parent trans %u")               \
    X(RESOLVE_FAILED, "reference not resolved: trans %u, parent table %T, rc %R")                  \
    X(UNION_CLEARED, "union cleared: trans %u")                                                    \
    X(UNION_CLEARED_OLD, "union cleared: old object %x, old handle %x")                            \
    X(UNION_FAILED, "union not resolved: trans %u, rc %R")                                         \
    X(NOTIFIED, "notified: type %u, trans %u")                                                     \
    X(DELETE_NOTIFIED, "notifies of a delete: trans %u")                                           \
    X(QUARANTINE_DEPTH, "long quarantine search: %u entries, was %u, table %T")                    \
    X(BIND_FAILED, "bind failed: trans %u, obj %x, parent trans %u, parent %x")                    \
    X(BOUND, "bound: trans %u, obj %x, parent trans %u, parent %x")                                \
    X(SEND_FAILED, "broadcast failed: rc %R, obj %x, old %x, trans %u, operation %O, walk %u")     \
    X(SEND_FAILED_WALK, "broadcast failed: trans of the walk %u")                                  \
    X(QUEUE_REFUSED, "the queue refused a message: rc %R, trans %u")                               \
    X(NPU_RESPONSE_FAILED, "NPUs failed: first %x, client %R, ok mask %x, trans %u")               \
    X(NPU_SKIPPED, "not for this NPU: trans %u, mask %x, npu %u")                                  \
    X(WAIT_TIMEOUT, "no answer: trans %u, retries %u, progress %u, depth %u")                      \
    X(READ_HOOK_FAILED, "read hook failed: rc %R, trans %u, obj %x")                               \
    X(READ_SHOW_CUT, "show text cut: %u of %u bytes")                                              \
    X(READ_SHOW_FAILED, "show buffer failed: rc %R, trans %u")                                     \
    X(READ_SHOW_DONE, "show buffer: %u bytes, trans %u")                                           \
    X(READ_NO_PAYLOAD, "text asked without room for it: trans %u")                                 \
    X(READ_TEXT_FAILED, "object text failed: rc %R, trans %u")                                     \
    X(INFLIGHT_WAITED, "write in flight: operation %O, obj_id %u, %u, %u turns, %u s, %u us")      \
    X(NPD_DELAY_DELETE, "postponed delete failed: rc %R")                                          \
    X(EOD_DONE, "end of download: trans %u, npu %u, rc %R")                                        \
    X(EVENT_CHAIN, "%s reaches %s")                                                                \
    X(OOR_NULL, "%s")                                                                              \
    X(OOR_NO_NPU_RESOURCE, "no resource handle for NPU %u")

#define ZAN_MSG_COMMON_BASE  0x18000u
#define ZAN_MSG_TABLE_BASE   0x20000u
#define ZAN_MSG_TABLE_STRIDE 0x80u

/* X(name, arguments, text) */
#define ZAN_HOST_MESSAGES(X)                                                                       \
    X(COLOR_MISMATCH, 3, "colours differ from what is needed: obj %x, carries %x, due %x")         \
    X(BWALK_ROOT_FAILED, 4, "walk %u, trans %u: its source, request %x, came to %R")               \
    X(BWALK_DONE, 7, "walk %u of table %T: %u visits, %u updates, %u deleted, %u revisits, rc %R") \
    X(WRITE_FAILED, 5, "write failed: table %T, operation %O, npus %x, rc %R, trans %u")           \
    X(RETRIED, 4, "retried: table %T, attempts %u, rc %R, trans %u")                               \
    X(NOT_FETCHED, 3, "counters not fetched: table %T, obj %x, rc %R")                             \
    X(ADJ_NOT_FETCHED, 3, "counters not fetched: adjacency table %u, entry %x, rc %R")             \
    X(TAKEN_OUT, 4, "taken out of service: table %T, for table %T, rc %R, trans %u")               \
    X(PUT_BACK, 3, "put back into service: table %T, rc %R, trans %u")

#define ZAN_MSG_HOST_BASE 0x10000u
typedef enum zan_host_msg_et {
    ZAN_MSG_HOST_BEFORE_FIRST = ZAN_MSG_HOST_BASE - 1,
#define ZAN_MSG_ENUM(name, arguments, text) HOST_TRACE_##name,
    ZAN_HOST_MESSAGES(ZAN_MSG_ENUM)
#undef ZAN_MSG_ENUM
} zan_host_msg_et;

typedef enum zan_msg_et {
    ZAN_MSG_COMMON_BEFORE_FIRST = ZAN_MSG_COMMON_BASE - 1,
#define ZAN_MSG_ENUM(name, text) ZAN_MSG_##name,
    ZAN_COMMON_MESSAGES(ZAN_MSG_ENUM)
#undef ZAN_MSG_ENUM
} zan_msg_et;

/* Index of a message in its table's block. */
typedef enum zan_table_msg_et {
#define ZAN_MSG_ENUM(name, text) ZAN_TMSG_##name,
    ZAN_TABLE_MESSAGES(ZAN_MSG_ENUM)
#undef ZAN_MSG_ENUM
    ZAN_TMSG_COUNT
} zan_table_msg_et;
ZAN_STATIC_ASSERT((unsigned)ZAN_TMSG_COUNT <= ZAN_MSG_TABLE_STRIDE, "a table's block is full");

ZAN_EXTERN_C_BEGIN
/* A record out of its slot; false when there is none, or when it was written meanwhile. */
ZAN_EXPORT bool zan_trace_take(const zan_trace_slot_st *slot, zan_trace_record_st *out);
/* Text of a message number; null for a number that is none. */
ZAN_EXPORT const char *zan_trace_message_text(uint32_t number);
/* The table whose flow traces by a number, or UINT32_MAX. */
ZAN_EXPORT uint32_t zan_trace_message_table(uint32_t number);
/* Whether an argument of the record is that table. */
ZAN_EXPORT bool zan_trace_names_table(const zan_trace_record_st *record, uint32_t table_id);
/* Level of a class: 1 error, 2 event, 3 verbose. */
ZAN_EXPORT uint32_t zan_trace_class_level(zan_trace_class_t c);
/* Name of a class: "iproute_error", or a shared one's as "retry_event"; cut to the buffer. Returns
 * the length it wants to have. */
ZAN_EXPORT size_t zan_trace_class_print(zan_trace_class_t c, char *out, size_t size);
/* The class of that name, or ZAN_NUM_TRACE_CLASSES. */
ZAN_EXPORT zan_trace_class_t zan_trace_class_find(const char *name);
/* The message of a record with its arguments; cut to the buffer. Returns the length it wants. */
ZAN_EXPORT size_t zan_trace_print(const zan_trace_record_st *record, char *out, size_t size);
ZAN_EXTERN_C_END

#endif
