/* What goes over the agent's socket.
 *
 * A session is a stream of frames in each direction, all numbers in host byte order, since both
 * ends run on one machine: a header of 16 bytes, then `length` bytes of payload. The client opens
 * with ZAN_FRAME_HELLO; every request after it gets exactly one reply with the request's tag, in
 * the order of the requests, and that reply may be ZAN_FRAME_ERROR. docs/wire-format.md tells the
 * session.
 */
#ifndef ZAN_WIRE_H
#define ZAN_WIRE_H

#include "zan_table_base.h"
#include "zan_trace.h"

#define ZAN_WIRE_MAGIC    0x31304c42544e415aull /* "ZANTBL01" */
#define ZAN_WIRE_VERSION  6u
#define ZAN_FRAME_MAX     (64u << 20) /* bytes of a payload */
#define ZAN_CLIENTS_MAX   64u
#define ZAN_PIPELINE_MAX  4u /* requests of one client that the agent holds; it reads no further */
#define ZAN_WIRE_NO_INDEX 0xffffffffu

typedef enum zan_frame_type_et {
    ZAN_FRAME_HELLO = 1,       /* zan_hello_st */
    ZAN_FRAME_HELLO_REPLY = 2, /* zan_hello_reply_st */
    ZAN_FRAME_BATCH = 3,       /* zan_batch_frame_st, then the objects */
    ZAN_FRAME_BATCH_REPLY = 4, /* zan_batch_reply_st, then the slots, then the objects or nothing */
    ZAN_FRAME_STATUS = 5,      /* empty */
    ZAN_FRAME_STATUS_REPLY = 6,  /* zan_status_st, then num_tables zan_table_status_st */
    ZAN_FRAME_COMPARE = 7,       /* zan_compare_st */
    ZAN_FRAME_COMPARE_REPLY = 8, /* zan_compare_reply_st, then num_differences zan_difference_st */
    ZAN_FRAME_GOODBYE = 9,       /* empty, no reply: the session is over */
    ZAN_FRAME_ERROR = 10,        /* zan_error_st */
    ZAN_FRAME_GRAPH = 11,        /* zan_graph_st, then one object that names another */
    ZAN_FRAME_GRAPH_REPLY = 12,  /* zan_graph_reply_st, then num_nodes zan_graph_node_st */
    ZAN_FRAME_WALK = 13,         /* as ZAN_FRAME_BATCH */
    ZAN_FRAME_WALK_REPLY = 14,   /* as ZAN_FRAME_BATCH_REPLY, then what the batch's walks did */
    ZAN_FRAME_WALK_COUNTS = 15,  /* empty */
    ZAN_FRAME_WALK_COUNTS_REPLY = 16, /* what all walks did since the start */
    ZAN_FRAME_RESOURCES = 17,         /* zan_resources_st: set what it says, and answer */
    ZAN_FRAME_RESOURCES_REPLY = 18,   /* zan_resources_reply_st, then its rows */
    ZAN_FRAME_FAILED = 19,            /* zan_failed_st: do what it says, and list */
    ZAN_FRAME_FAILED_REPLY = 20,      /* zan_failed_reply_st, then num_rows zan_failed_row_st */
    ZAN_FRAME_QUARANTINE = 21,        /* zan_failed_st */
    ZAN_FRAME_QUARANTINE_REPLY = 22,  /* zan_failed_reply_st, then zan_quarantine_row_st */
    ZAN_FRAME_TABLE = 23,             /* zan_table_st */
    ZAN_FRAME_TABLE_REPLY = 24,       /* zan_table_record_st */
    ZAN_FRAME_SIM = 25,               /* zan_sim_st: how the simulated NPUs behave */
    ZAN_FRAME_SIM_REPLY = 26,         /* empty */
    ZAN_FRAME_WATCH = 27,             /* zan_watch_st: the notifications that the client wants */
    ZAN_FRAME_WATCH_REPLY = 28,       /* empty */
    ZAN_FRAME_NOTIFICATION = 29,      /* from the agent, unasked, tag 0: zan_notification_st, then
                                         an object or another message */
    ZAN_FRAME_TRACE = 30,             /* zan_trace_st */
    ZAN_FRAME_TRACE_REPLY = 31,       /* zan_trace_reply_st, then num_records zan_trace_record_st */
    ZAN_FRAME_STATS = 32,          /* zan_stats_st, then nothing or one object that names another */
    ZAN_FRAME_STATS_REPLY = 33,    /* zan_stats_reply_st, then its rows */
    ZAN_FRAME_COUNTERS = 40,       /* zan_counters_st: do what it says, and answer */
    ZAN_FRAME_COUNTERS_REPLY = 41, /* zan_counters_reply_st, then num_tables
                                      zan_counters_table_st */
    ZAN_FRAME_TRACE_CLASSES = 42,  /* zan_trace_classes_st: switch them, and answer */
    ZAN_FRAME_TRACE_CLASSES_REPLY = 43, /* zan_trace_classes_reply_st */
    ZAN_FRAME_PERF = 44,                /* zan_perf_st */
    ZAN_FRAME_PERF_REPLY = 45,  /* zan_perf_reply_st, then num_tables zan_perf_table_st, then
                                   num_slow zan_perf_slow_st */
    ZAN_FRAME_ABOUT = 46,       /* empty */
    ZAN_FRAME_ABOUT_REPLY = 47, /* zan_about_st, then its command line, a line for each word */
} zan_frame_type_et;

typedef struct zan_frame_hdr_st {
    uint32_t length; /* of the payload, at most ZAN_FRAME_MAX */
    uint16_t type;   /* zan_frame_type_et */
    uint16_t reserved;
    uint64_t tag; /* the client's; the reply carries it */
} zan_frame_hdr_st;
ZAN_STATIC_ASSERT(sizeof(zan_frame_hdr_st) == 16, "frame header");

typedef struct zan_hello_st {
    uint64_t magic;
    uint64_t fingerprint; /* zan_schema_fingerprint of the client's definitions */
    uint32_t version;
    uint32_t reserved;
    char name[40]; /* of the client, for people; terminated */
} zan_hello_st;
ZAN_STATIC_ASSERT(sizeof(zan_hello_st) == 64, "hello");

/* Bits of zan_hello_reply_st.node and zan_status_st.node. */
enum {
    ZAN_NODE_STANDBY = 1u << 0,             /* the database is written, no hardware touched */
    ZAN_NODE_PER_OBJECT_NPU_MASK = 1u << 1, /* an object's own mask narrows a write */
    ZAN_NODE_STEPPED = 1u << 2,
    ZAN_NODE_CAN_COMPARE = 1u << 3, /* the platform tells what its NPUs hold */
};

typedef struct zan_hello_reply_st {
    uint64_t fingerprint;
    uint32_t version;
    uint32_t client_id; /* the number of the session; it goes into the server's traces */
    uint32_t num_npus;
    uint32_t node;
} zan_hello_reply_st;
ZAN_STATIC_ASSERT(sizeof(zan_hello_reply_st) == 24, "hello reply");

/* hdr.client_id is overwritten by the agent. An asynchronous batch has one slot. */
typedef struct zan_batch_frame_st {
    kor_table_req_hdr_st hdr;
    uint32_t payload_alloc_sz; /* of each slot; a multiple of 8 */
    uint32_t reserved;
} zan_batch_frame_st;
ZAN_STATIC_ASSERT(sizeof(zan_batch_frame_st) == 24, "batch frame");

/* The objects are written back when the batch has reads, or creates in a table that answers with
 * what it stored. The slots take slots_len bytes. */
typedef struct zan_batch_reply_st {
    int32_t last_rc; /* how the last object went */
    uint32_t num_slots;
    uint32_t payload_alloc_sz;
    uint32_t slots_len;
    uint32_t msg_len; /* 0 or the request's */
    uint32_t reserved;
} zan_batch_reply_st;
ZAN_STATIC_ASSERT(sizeof(zan_batch_reply_st) == 24, "batch reply");

/* What an NPU did and holds; zero where the platform cannot tell. */
typedef struct zan_npu_status_st {
    uint64_t program_cnt; /* attempts to program it */
    uint64_t objects, bytes;
    uint64_t creates, updates, deletes, gets, failures;
} zan_npu_status_st;

typedef struct zan_status_st {
    uint32_t node; /* ZAN_NODE_* */
    uint32_t num_npus;
    uint32_t num_clients;
    uint32_t queue_depth; /* messages waiting for the NPUs */
    uint64_t uptime_ms;
    uint64_t pool_bytes;   /* of stored objects */
    uint64_t index_bytes;  /* of the indices outside the pool */
    uint64_t heap_blocks;  /* heap copies and records in use */
    uint64_t trace_errors; /* seen in the trace ring since the start; at least that many */
    uint64_t batches, objects;
    uint64_t refused; /* messages that were not well-formed */
    uint64_t hooks_platform, hooks_default, hooks_none;
    zan_npu_status_st npu[ZAN_MAX_NPUS];
    uint32_t num_tables; /* of the tables that hold something or were asked to */
    uint32_t reserved;
} zan_status_st;

typedef struct zan_table_status_st {
    uint64_t stored;
    uint64_t index_bytes;
    uint64_t identifiers; /* held, over all NPUs */
    uint64_t held[ZAN_MAX_NPUS];
    uint32_t hw_create_errors[ZAN_MAX_NPUS], hw_update_errors[ZAN_MAX_NPUS],
        hw_delete_errors[ZAN_MAX_NPUS];
    /* Counters since the start. resolve_failed: creates and updates; update_failed: what hardware
     * refused, synchronously, as hw_failed of the creates. */
    uint32_t creates, duplicates, resolve_failed, bind_failed, reserve_failed, insert_failed,
        hw_failed, rolled_back;
    uint32_t updates, refs_changed, update_failed;
    uint32_t deletes, still_referenced, delete_failed;
    uint32_t table_id;
    uint32_t reserved;
} zan_table_status_st;

/* Compare the database with what the NPUs hold, all queues stopped meanwhile. */
typedef struct zan_compare_st {
    uint32_t table_id;        /* or ZAN_WIRE_NO_INDEX for all tables */
    uint32_t max_differences; /* to report in full; all are counted */
} zan_compare_st;

typedef struct zan_compare_reply_st {
    uint64_t compared;           /* objects times NPUs that should hold them */
    uint64_t missing, different; /* not held; held with another content */
    uint64_t surplus;            /* held but not stored, or not for that NPU */
    uint32_t num_tables;         /* with objects */
    uint32_t num_differences;
} zan_compare_reply_st;

typedef enum zan_difference_et {
    ZAN_DIFFERENCE_MISSING = 1,
    ZAN_DIFFERENCE_CONTENT = 2,
    ZAN_DIFFERENCE_SURPLUS = 3, /* of a whole table: no key; `text` tells how many */
} zan_difference_et;

typedef struct zan_difference_st {
    uint32_t table_id;
    uint16_t npu;
    uint16_t kind;  /* zan_difference_et */
    char text[184]; /* the key, then what differs; terminated */
} zan_difference_st;
ZAN_STATIC_ASSERT(sizeof(zan_difference_st) == 192, "difference");

/* What an object leads to and what leads to it, some levels far. */
typedef struct zan_graph_st {
    uint32_t depth;    /* levels in each direction, at most ZAN_GRAPH_DEPTH_MAX */
    uint32_t children; /* of one object to show, at most ZAN_GRAPH_CHILDREN_MAX */
    uint64_t reserved;
} zan_graph_st;
#define ZAN_GRAPH_DEPTH_MAX    32u
#define ZAN_GRAPH_CHILDREN_MAX 1000u
#define ZAN_GRAPH_NODES_MAX    10000u

typedef struct zan_graph_reply_st {
    uint64_t err_code; /* of the search for the object */
    uint32_t num_nodes;
    uint32_t cut; /* 1: there would have been more than ZAN_GRAPH_NODES_MAX */
} zan_graph_reply_st;

/* Bits of zan_graph_node_st.colors. */
enum {
    ZAN_COLOR_GREEN = 1u << 0,
    ZAN_COLOR_RED = 1u << 1,
    ZAN_COLOR_BROWN = 1u << 2,
};

typedef enum zan_graph_side_et {
    ZAN_GRAPH_SELF = 0,
    ZAN_GRAPH_PARENT = 1, /* what `from` leads to */
    ZAN_GRAPH_CHILD = 2,  /* what leads to `from` */
} zan_graph_side_et;

/* Nodes come depth first: all behind a node whose `from` is not it or below it are of others. An
 * object that is reached on several ways stands there once for each. */
typedef struct zan_graph_node_st {
    uint64_t handle;
    uint32_t from; /* the node by which it was reached; ZAN_WIRE_NO_INDEX for the object itself */
    uint32_t table_id;
    uint32_t num_parents, num_children;
    uint8_t side; /* zan_graph_side_et */
    uint8_t delete_pending;
    uint8_t colors; /* that it carries: ZAN_COLOR_* */
    uint8_t reserved;
    uint16_t update_count, skip_count; /* visits by walks that updated it, and that left it alone */
    uint32_t evt_pushed_count;         /* events that it pushed on walks */
    uint32_t last_walk;                /* that updated it; 0: none did */
    uint32_t trans_id;                 /* of its last operation */
    zan_rcode rc_stamp;                /* how that went */
    uint8_t inflight;                  /* a write is with the NPUs */
    uint8_t failed_npus;               /* NPUs on which its write failed: it is being retried */
    uint8_t reserved2[2];
    zan_rcode failed_rc; /* how that write failed */
    uint32_t attempts;   /* to repeat it */
    uint32_t reserved3;
    char key[128]; /* terminated */
} zan_graph_node_st;
ZAN_STATIC_ASSERT(sizeof(zan_graph_node_st) == 192, "graph node");

/* The hardware databases (zan_hwdb_et): what to set, if anything, before the answer. */
enum {
    ZAN_RESOURCES_SET_CAPACITY = 1u << 0,
    ZAN_RESOURCES_SET_THRESHOLDS = 1u << 1,
};
#define ZAN_RESOURCES_ALL_NPUS 8u

typedef struct zan_resources_st {
    uint32_t set; /* ZAN_RESOURCES_SET_* */
    uint32_t hwdb;
    uint32_t npu;          /* of the capacity; or ZAN_RESOURCES_ALL_NPUS */
    uint8_t thresholds[4]; /* percent: yellow, yellow_clear, red, red_clear */
    uint64_t capacity;     /* entries; 0: without limit */
} zan_resources_st;
ZAN_STATIC_ASSERT(sizeof(zan_resources_st) == 24, "resources request");

/* Then num_databases zan_resource_st, by database and NPU, then num_tables zan_resource_table_st:
 * those of which an object occupies something. */
typedef struct zan_resources_reply_st {
    uint32_t num_npus, num_databases, num_tables;
    uint32_t reserved;
} zan_resources_reply_st;
ZAN_STATIC_ASSERT(sizeof(zan_resources_reply_st) == 16, "resources reply");

typedef struct zan_resource_st {
    uint32_t hwdb, npu;
    uint64_t capacity, used, high_water;
    uint64_t held;      /* objects that the NPU holds; UINT64_MAX where the platform cannot tell */
    uint32_t state;     /* 0 green, 1 yellow, 2 red */
    uint32_t crossings; /* changes of state so far */
    uint8_t thresholds[4];
    uint8_t reserved[4];
} zan_resource_st;
ZAN_STATIC_ASSERT(sizeof(zan_resource_st) == 56, "database of an NPU");

typedef struct zan_resource_table_st {
    uint32_t table_id, hwdb;
    uint64_t used[8]; /* by NPU */
} zan_resource_table_st;
ZAN_STATIC_ASSERT(sizeof(zan_resource_table_st) == 72, "occupancy of a table");

/* Failed writes, and objects out of service. */
typedef enum zan_failed_action_et {
    ZAN_FAILED_LIST = 0,    /* rows behind the key, or from the start */
    ZAN_FAILED_RETRY = 1,   /* failed: attempt now, with a new budget */
    ZAN_FAILED_FORGET = 2,  /* failed: attempt no more */
    ZAN_FAILED_RELEASE = 3, /* quarantine: put back, and what was taken out for it */
    ZAN_FAILED_DROP = 4,    /* quarantine: free, and what was taken out for it */
} zan_failed_action_et;
#define ZAN_FAILED_KEY_MAX  80u
#define ZAN_FAILED_ROWS_MAX 1000u

typedef struct zan_failed_st {
    uint32_t action;       /* zan_failed_action_et */
    uint32_t table_id;     /* of this table only; or ZAN_WIRE_NO_INDEX for all */
    uint32_t has_key;      /* an object is named: the one to act on, or behind which to list */
    uint32_t key_table_id; /* its table */
    uint8_t key[ZAN_FAILED_KEY_MAX]; /* its key structure */
} zan_failed_st;
ZAN_STATIC_ASSERT(sizeof(zan_failed_st) == 96, "request about failed writes");

typedef struct zan_failed_reply_st {
    uint64_t failed, quarantined;                      /* now */
    uint64_t attempts, recovered, taken_out, put_back; /* since the start */
    uint32_t done;                                     /* objects that the action was done to */
    uint32_t num_rows; /* of a list; ZAN_FAILED_ROWS_MAX of them: ask for what is behind the last */
} zan_failed_reply_st;
ZAN_STATIC_ASSERT(sizeof(zan_failed_reply_st) == 56, "reply about failed writes");

/* What the next attempt waits for. */
typedef enum zan_failed_wait_et {
    ZAN_FAILED_WAIT_TIME,
    ZAN_FAILED_WAIT_ANSWER,     /* it has been sent */
    ZAN_FAILED_WAIT_ROOM,       /* in the hardware database */
    ZAN_FAILED_WAIT_PARENT,     /* that has failed too */
    ZAN_FAILED_WAIT_DELETE,     /* it goes with its last child */
    ZAN_FAILED_WAIT_QUARANTINE, /* it is being taken out of service */
} zan_failed_wait_et;

typedef struct zan_failed_row_st {
    uint32_t table_id;
    uint16_t operation; /* that failed last */
    uint8_t waits_for;  /* zan_failed_wait_et */
    uint8_t stored;     /* 0: deleted, and an NPU holds it still */
    zan_rcode rc;
    uint32_t attempts;
    uint64_t npu_mask; /* where it failed */
    uint64_t next_ms;  /* until the next attempt, where it waits for its time */
    uint8_t key[ZAN_FAILED_KEY_MAX];
} zan_failed_row_st;
ZAN_STATIC_ASSERT(sizeof(zan_failed_row_st) == 112, "failed object");

typedef struct zan_quarantine_row_st {
    uint32_t table_id;
    uint32_t root_table_id; /* of the object for which it was taken out; its own: it failed */
    zan_rcode rc;           /* of its last write, or of the last attempt to put it back */
    uint32_t attempts;      /* before it was taken out */
    uint32_t followers;     /* that were taken out for it */
    uint32_t releasing;     /* 1: on its way back */
    uint8_t key[ZAN_FAILED_KEY_MAX], root_key[ZAN_FAILED_KEY_MAX];
} zan_quarantine_row_st;
ZAN_STATIC_ASSERT(sizeof(zan_quarantine_row_st) == 184, "object in quarantine");

/* The periodic statistics walks, and what they counted of one object. */
typedef struct zan_stats_st {
    uint32_t walk_now; /* 1: begin one more pass; the answer does not wait for it */
    uint32_t reserved;
} zan_stats_st;

/* Then num_walks zan_stats_walk_st, then num_adjacencies zan_stats_adj_st. */
typedef struct zan_stats_reply_st {
    int32_t err_code;   /* the named object is not stored */
    uint32_t period_ms; /* between two passes; 0: they are made on demand */
    uint32_t num_walks, num_adjacencies;
    uint64_t passes;    /* that are over */
    uint64_t next_pass; /* of walk_now: the number of the pass; it is over when `passes` says so */
} zan_stats_reply_st;
ZAN_STATIC_ASSERT(sizeof(zan_stats_reply_st) == 32, "statistics reply");

/* A table, or an adjacency table, that is walked. */
typedef struct zan_stats_walk_st {
    uint32_t is_adjacency;
    uint32_t id;      /* or index */
    uint64_t objects; /* now; or entries */
    uint64_t passes;
    uint64_t failed; /* descriptors that hardware did not give */
    uint64_t age_ns; /* since the last pass over it; of the agent's clock */
    uint64_t took_ns, longest_ns;
} zan_stats_walk_st;
ZAN_STATIC_ASSERT(sizeof(zan_stats_walk_st) == 56, "statistics walk");

/* What an adjacency table counts of the named object. */
typedef struct zan_stats_adj_st {
    uint32_t index;
    uint32_t counted; /* 0: no pass has been there */
    uint64_t packets, bytes;
    uint64_t age_ns;
} zan_stats_adj_st;
ZAN_STATIC_ASSERT(sizeof(zan_stats_adj_st) == 32, "counts of an adjacency table");

/* All that is counted of one table. */
typedef struct zan_table_st {
    uint32_t table_id;
    uint32_t reserved;
} zan_table_st;

typedef struct zan_table_npu_st {
    uint32_t create_errors, delete_errors, update_errors;
    uint32_t objects; /* stored for this NPU */
    uint64_t held;    /* by it; 0 where the platform cannot tell */
} zan_table_npu_st;

typedef struct zan_table_record_st {
    uint32_t table_id, num_npus;
    uint64_t stored;
    /* The resource-info record. */
    uint64_t creates, deletes, updates, reads;
    uint32_t resolve_failed, reserve_failed, release_failed, update_id_failed, not_found,
        duplicate_creates, dbobj_alloc_failed, retry_updates, recovered_errors;
    uint32_t quarantine_max_depth; /* longest search of the quarantine */
    /* Identifiers, over all NPUs. */
    uint64_t ids_capacity; /* that there are; 0: the table has none */
    uint64_t ids_held;
    uint64_t ids_orphaned;  /* of the held, those of keys that are not stored */
    uint64_t ids_refused;   /* reserves that found none left */
    uint64_t ids_reclaimed; /* taken back from such keys when none was left */
    zan_table_npu_st npu[ZAN_MAX_NPUS];
    /* Since the start; since the last reset; in the active bank; since its last replay began. */
    uint32_t counters[4][61];
    uint32_t replaying;      /* 1: a replay has begun and not ended */
    uint32_t replay_dropped; /* objects in quarantine that its last replay dropped at its end */
    /* Of the objects that its last replay has marked: */
    uint64_t replay_kept;    /* sent again as they stood */
    uint64_t replay_changed; /* changed by what was sent, or made anew */
    uint64_t replay_deleted; /* deleted by the client before the end */
    uint64_t replay_left;    /* swept, and still stored: held back, or refused by hardware; 0, since
                                it is not known, of an end that came with writes in its batch */
} zan_table_record_st;
ZAN_STATIC_ASSERT(sizeof(zan_table_record_st) == 1336, "record of a table");

/* The counters of the tables' operations (zan_counters.h), in sets: since the start, since the last
 * reset, and banks of which one counts at a time. */
#define ZAN_WIRE_NUM_COUNTERS 61u
#define ZAN_WIRE_NUM_BANKS    6u
typedef enum zan_counters_action_et {
    ZAN_COUNTERS_READ = 0,
    ZAN_COUNTERS_RESET = 1, /* those since the reset begin anew, of the table or of all */
    ZAN_COUNTERS_BANK = 2,  /* `bank` counts from now on, from 0, for all tables */
} zan_counters_action_et;

typedef struct zan_counters_st {
    uint32_t action;   /* zan_counters_action_et */
    uint32_t table_id; /* of this table only; ZAN_WIRE_NO_INDEX: of all that have counted */
    uint32_t bank;
    uint32_t reserved;
} zan_counters_st;
ZAN_STATIC_ASSERT(sizeof(zan_counters_st) == 16, "request about counters");

typedef struct zan_counters_reply_st {
    uint32_t num_tables;
    uint32_t active_bank; /* that counts now */
} zan_counters_reply_st;
ZAN_STATIC_ASSERT(sizeof(zan_counters_reply_st) == 8, "reply about counters");

typedef struct zan_counters_table_st {
    uint32_t table_id;
    uint32_t total[ZAN_WIRE_NUM_COUNTERS];
    uint32_t since_reset[ZAN_WIRE_NUM_COUNTERS];
    uint32_t bank[ZAN_WIRE_NUM_BANKS][ZAN_WIRE_NUM_COUNTERS];
} zan_counters_table_st;
ZAN_STATIC_ASSERT(sizeof(zan_counters_table_st) == 1956, "counters of a table");

/* How long things take, of one table or of all that were used. */
typedef struct zan_perf_st {
    uint32_t table_id; /* or ZAN_WIRE_NO_INDEX */
    uint32_t reserved;
} zan_perf_st;
ZAN_STATIC_ASSERT(sizeof(zan_perf_st) == 8, "request about durations");

/* Bucket n counts durations of at most 2^(n + ZAN_DURATION_FIRST_BUCKET) ns that are in no bucket
 * before it, the last all longer ones. */
#define ZAN_DURATION_BUCKETS      28u
#define ZAN_DURATION_FIRST_BUCKET 8u
typedef struct zan_durations_st {
    uint64_t count; /* the sum of the buckets */
    uint64_t total_ns, max_ns;
    uint64_t bucket[ZAN_DURATION_BUCKETS];
} zan_durations_st;
ZAN_STATIC_ASSERT(sizeof(zan_durations_st) == 248, "durations");

typedef struct zan_perf_reply_st {
    uint32_t num_tables, num_slow;
    uint32_t num_npus;
    uint32_t reserved;
    uint64_t slow_ns;       /* from this duration on an operation is slow */
    zan_durations_st stops; /* of all NPU queues, for one of any table's operations */
} zan_perf_reply_st;
ZAN_STATIC_ASSERT(sizeof(zan_perf_reply_st) == 272, "reply about durations");

typedef struct zan_perf_table_st {
    uint32_t table_id;
    uint32_t first_trans_id, last_trans_id;
    uint32_t reserved;
    uint64_t first_op_ns, last_op_ns; /* CLOCK_REALTIME; 0: never */
    uint64_t slow_ops;
    zan_durations_st dispatch; /* an object on the dispatcher */
    zan_durations_st ipc;      /* from the client's stamp to the dispatcher, mean of a batch */
    zan_durations_st walk;     /* a walk that one of its objects began */
    zan_durations_st npu[ZAN_MAX_NPUS]; /* a call of the platform's hook */
} zan_perf_table_st;
ZAN_STATIC_ASSERT(sizeof(zan_perf_table_st) == 2768, "durations of a table");

/* A slow operation; each NPU and the dispatcher keep their last ten. */
typedef struct zan_perf_slow_st {
    uint32_t table_id;
    uint32_t operation; /* zan_table_operation_et */
    uint32_t trans_id;
    uint32_t npu; /* ZAN_WIRE_NO_INDEX: on the dispatcher */
    uint64_t end_ns, elapsed_ns;
} zan_perf_slow_st;
ZAN_STATIC_ASSERT(sizeof(zan_perf_slow_st) == 32, "slow operation");

/* What the agent is. */
typedef struct zan_about_st {
    uint64_t started_ns; /* CLOCK_REALTIME */
    uint32_t pid;
    uint32_t command_line_len; /* bytes behind this */
    char version[32];          /* terminated */
    char trace_file[256];      /* with its directory, terminated; empty: the ring is in memory */
} zan_about_st;
ZAN_STATIC_ASSERT(sizeof(zan_about_st) == 304, "what the agent is");

/* Notifications that a session wants, instead of those it wanted before. */
typedef struct zan_watch_st {
    uint64_t tables[6];      /* bit n of word n / 64: table n */
    uint32_t wants_resource; /* 1: changes of state of hardware databases too */
    uint32_t reserved;
} zan_watch_st;
ZAN_STATIC_ASSERT(sizeof(zan_watch_st) == 56, "watch");
/* Notifications that the agent keeps for a session which does not read them: of one object the
 * newest only; then the oldest is dropped. */
#define ZAN_WATCH_QUEUE_MAX 1024u

#define ZAN_NOTIFY_RESOURCE 0x10000u /* type: a hardware database has changed its state */

typedef struct zan_notification_st {
    uint32_t type; /* the server's, or ZAN_NOTIFY_RESOURCE */
    uint32_t table_id;
    uint32_t operation; /* zan_table_operation_et that the object had */
    uint32_t trans_id;
    uint32_t npu_id;
    uint32_t client_epoch;
    uint32_t lost;     /* notifications that were dropped in front of this one */
    uint32_t replaced; /* earlier ones of this object that it stands for */
    uint32_t size; /* of the object in serialized form behind this, or of zan_notify_resource_st */
    uint32_t reserved;
} zan_notification_st;
ZAN_STATIC_ASSERT(sizeof(zan_notification_st) == 40, "notification");

typedef struct zan_notify_resource_st {
    uint32_t npu, hwdb;
    uint32_t state; /* 0 green, 1 yellow, 2 red */
    uint32_t reserved;
    uint64_t used, capacity;
} zan_notify_resource_st;
ZAN_STATIC_ASSERT(sizeof(zan_notify_resource_st) == 32, "state of a hardware database");

/* The oldest records of the trace ring behind one, so many at most. */
#define ZAN_TRACE_RECORDS_MAX 20000u
typedef struct zan_trace_st {
    uint64_t after; /* sequence of the last record that was read; 0: from the oldest */
    uint32_t max;   /* at most ZAN_TRACE_RECORDS_MAX */
    uint32_t reserved;
} zan_trace_st;
ZAN_STATIC_ASSERT(sizeof(zan_trace_st) == 16, "trace request");

/* A record's time is counted in cycles; these say which cycle it is now, and how fast they go. */
typedef struct zan_trace_reply_st {
    uint64_t now_cycles;
    uint64_t now_ns; /* CLOCK_REALTIME */
    uint64_t cycles_per_second;
    uint32_t num_records;
    uint32_t reserved;
} zan_trace_reply_st;
ZAN_STATIC_ASSERT(sizeof(zan_trace_reply_st) == 32, "trace reply");

/* Trace classes (zan_trace.h) as sets: bit n of word n / 64 is class n. */
#define ZAN_TRACE_CLASS_WORDS 18u
ZAN_STATIC_ASSERT(ZAN_NUM_TRACE_CLASSES <= 64 * ZAN_TRACE_CLASS_WORDS, "each class has a bit");
typedef struct zan_trace_classes_st {
    uint64_t on[ZAN_TRACE_CLASS_WORDS], off[ZAN_TRACE_CLASS_WORDS]; /* to be; no class in both */
} zan_trace_classes_st;
ZAN_STATIC_ASSERT(sizeof(zan_trace_classes_st) == 288, "request about trace classes");

typedef struct zan_trace_classes_reply_st {
    uint64_t on[ZAN_TRACE_CLASS_WORDS]; /* that are on now */
} zan_trace_classes_reply_st;
ZAN_STATIC_ASSERT(sizeof(zan_trace_classes_reply_st) == 144, "reply about trace classes");

/* How simulated NPUs behave from now on. */
typedef enum zan_sim_action_et {
    ZAN_SIM_WELL = 0,    /* as they should: no failures, no hang, no latency */
    ZAN_SIM_FAIL = 1,    /* `count` writes (0: all) of a table and operation fail with `rc` */
    ZAN_SIM_CHANCE = 2,  /* so many of a thousand writes fail with `rc`: `count` */
    ZAN_SIM_LATENCY = 3, /* each write takes `count` microseconds */
    ZAN_SIM_HANG = 4,    /* the NPU starts no further message */
} zan_sim_action_et;

typedef struct zan_sim_st {
    uint32_t action;    /* zan_sim_action_et */
    uint32_t npu;       /* or ZAN_WIRE_NO_INDEX for all */
    uint32_t table_id;  /* or ZAN_WIRE_NO_INDEX for all */
    uint32_t operation; /* create, update or delete; or ZAN_WIRE_NO_INDEX for all three */
    uint32_t count;
    zan_rcode rc;
} zan_sim_st;
ZAN_STATIC_ASSERT(sizeof(zan_sim_st) == 24, "behaviour of simulated NPUs");

/* What walks did: this header, then num_tables zan_walk_table_st, then num_events
 * zan_walk_event_st. Only tables and events are named of which a count is not 0. */
typedef struct zan_walk_counts_st {
    uint32_t num_tables, num_events;
} zan_walk_counts_st;
ZAN_STATIC_ASSERT(sizeof(zan_walk_counts_st) == 8, "walk counts");
/* Bytes that they take at most; the reply to a walk's batch leaves as much room. */
#define ZAN_WALK_COUNTS_MAX (1u << 20)

typedef struct zan_walk_table_st {
    uint32_t table_id;
    uint32_t reserved;
    /* Of its objects as sources of walks and events. */
    uint64_t walks, failed_walks;
    uint64_t events_pushed;
    uint64_t events_pruned;    /* no table below wants them */
    uint64_t events_off_color; /* the object does not carry their colour */
    uint64_t walk_ns;          /* in walks that began here */
    /* Of its objects as children, visited by walks. */
    uint64_t updates;
    uint64_t forced; /* of the updates, those that had to go to hardware */
    uint64_t skips;  /* visited without an interest */
    uint64_t failures;
    uint64_t off_color; /* not visited: no event's colour on it */
    uint64_t revisits;  /* of an object that the same walk had visited already */
} zan_walk_table_st;
ZAN_STATIC_ASSERT(sizeof(zan_walk_table_st) == 104, "walk counts of a table");

/* Times that an event of a table was pushed, or visits of another table's objects with it. */
typedef struct zan_walk_event_st {
    uint64_t count;
    uint32_t receiver; /* the table that was visited; ZAN_WIRE_NO_INDEX: times pushed */
    uint16_t source;   /* the table whose event it is */
    uint16_t event_id; /* in the source's definition; 1 is the first */
} zan_walk_event_st;
ZAN_STATIC_ASSERT(sizeof(zan_walk_event_st) == 16, "walk counts of an event");

typedef enum zan_wire_error_et {
    ZAN_WIRE_BAD_FRAME = 1,   /* the agent closes the session */
    ZAN_WIRE_BAD_HELLO = 2,   /* likewise */
    ZAN_WIRE_BAD_BATCH = 3,   /* the batch was not run, the session goes on */
    ZAN_WIRE_BAD_REQUEST = 4, /* likewise */
    ZAN_WIRE_UNAVAILABLE = 5, /* too many clients, no memory, or the platform cannot */
} zan_wire_error_et;

typedef struct zan_error_st {
    uint32_t error;        /* zan_wire_error_et */
    uint32_t object_index; /* in the batch, or ZAN_WIRE_NO_INDEX */
    char field[96];        /* the field at fault, or empty; terminated */
    char text[256];        /* what is wrong and what to do; terminated */
} zan_error_st;
ZAN_STATIC_ASSERT(sizeof(zan_error_st) == 360, "error");

#endif
