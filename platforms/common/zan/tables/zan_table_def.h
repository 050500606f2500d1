/* The definition of a table as data.
 *
 * Every table behaves the same but for its definition: one algorithm reads these records. They are
 * constant, emitted by the generator from schema/<group>/<table>.toml, and hold declared facts
 * only; what a table gathers at run time is in its srv_zan_table_props_t. To add a table, see
 * docs/add-a-table.md.
 *
 * The fixed part of an object, in this order, each field at its natural alignment:
 *
 *   zan_table_base_st, [adjacency list, 24 bytes, 12 tables], trans_id, npu_mask_req,
 *   npu_mask_req_set, key, [obj_ref_cnt and its is-set byte], [num_elements], attributes,
 * references, unions, padding
 *
 * An attribute is its value followed by its is-set byte. A reference is a zan_ref_value_st followed
 * by the parent's key, and so is a union, whose variants share the one storage under the selector.
 * A repeated attribute, reference or union has one entry for each member of the object: the fixed
 * part holds a pointer, the entries lie in the dynamic part, one array after the other in the order
 * of the pointers, each padded to 8 bytes. Behind the values of a repeated attribute come its
 * is-set bytes, padded likewise.
 */
#ifndef ZAN_TABLE_DEF_H
#define ZAN_TABLE_DEF_H

#include "zan_table_base.h"

/* A stored reference. The parent's key follows at ZAN_REF_KEY_OFFSET, in the parent's key type. */
typedef struct zan_ref_value_st {
    uint64_t refhdl;   /* obj_handle of the parent; set and 0 asks to drop the reference */
    uint32_t selector; /* union: the variant, 1 is the first; 0 in a plain reference */
    uint8_t is_set;    /* union: the client said which variant; 0 in a plain reference */
    uint8_t refkey_set;
    uint8_t refhdl_set;
    uint8_t reserved;
} zan_ref_value_st;

#define ZAN_REF_KEY_OFFSET 16u
ZAN_STATIC_ASSERT(sizeof(zan_ref_value_st) == ZAN_REF_KEY_OFFSET, "reference value");

typedef enum zan_shape_et {
    ZAN_SHAPE_SINGLE,   /* one value, one is-set byte */
    ZAN_SHAPE_ARRAY,    /* `count` values in the fixed part under one is-set byte */
    ZAN_SHAPE_PER_NPU,  /* ZAN_MAX_NPUS values in the fixed part, an is-set byte each */
    ZAN_SHAPE_REPEATED, /* one value and is-set byte for each member, in the dynamic part */
} zan_shape_et;

/* Name of a value of an enumeration, or of a bit of a bit mask, whose value is 1 << n. */
typedef struct zan_value_name_t {
    const char *name;
    uint32_t value;
} zan_value_name_t;

/* A field of a key, or an attribute. */
typedef struct zan_field_def_t {
    const char *name;
    const char *doc;
    const zan_value_name_t *names; /* ZAN_TYPE_ENUM and ZAN_TYPE_BITS; null otherwise */
    uint16_t num_names;
    uint8_t type;           /* zan_type_et */
    uint8_t shape;          /* zan_shape_et; a key field is ZAN_SHAPE_SINGLE */
    uint16_t width;         /* bytes of one value */
    uint16_t count;         /* values in the fixed part: 1, N, ZAN_MAX_NPUS, or 0 when repeated */
    uint32_t offset;        /* attribute: of the value, or of the pointer, in the object;
                               key field: from the start of the key */
    uint32_t set_offset;    /* of the is-set byte or bytes in the object; 0 in keys and repeated */
    uint64_t trigger_mask;  /* attribute update bits that a change of this attribute raises */
    uint8_t server_visible; /* the flows read or write it by name */
    uint8_t statistic;      /* hardware's value: counted or measured there, not programmed */
} zan_field_def_t;

/* An attribute that is copied from the parent at each resolution. Both have the same type. */
typedef struct zan_inherit_def_t {
    uint16_t attr;        /* index in the child's attributes */
    uint16_t parent_attr; /* index in the parent's attributes */
} zan_inherit_def_t;

typedef struct zan_ref_def_t {
    const char *stem;
    uint16_t parent_id;
    uint16_t key_size; /* of the parent's key */
    uint32_t offset;   /* of the zan_ref_value_st, or of the pointer to the members' */
    uint16_t stride;   /* bytes of one stored reference */
    uint8_t repeated;
    uint16_t num_inherits;
    const zan_inherit_def_t *inherits;
} zan_ref_def_t;

typedef struct zan_variant_def_t {
    const char *stem;
    uint16_t parent_id;
    uint16_t selector;
    uint16_t key_size;
    uint16_t num_inherits;
    const zan_inherit_def_t *inherits;
} zan_variant_def_t;

typedef struct zan_union_def_t {
    const char *attr;
    const zan_variant_def_t *variants; /* variants[i].selector == i + 1 */
    uint16_t num_variants;
    uint16_t stride;
    uint32_t offset;
    uint8_t repeated;
    uint16_t nested_in; /* index + 1 of the union that stores this one; 0: it has its own storage */
    uint16_t nested_selector; /* the selector there */
} zan_union_def_t;

typedef struct zan_event_def_t {
    const char *name; /* <TABLE>_<EVENT> */
    uint64_t attrib_mask;
    const uint16_t *child_tables; /* tables with an interest, in declared order */
    uint16_t child_count;
    uint16_t id; /* 1 is the first */
    uint8_t color;
    uint8_t post_proc;
} zan_event_def_t;

typedef struct zan_subscription_def_t {
    uint16_t source_table;
    uint16_t event_id;
    uint8_t force;
    const char *name; /* of the event */
} zan_subscription_def_t;

/* A value of a member in the element record of a repeated_delta table. */
typedef enum zan_element_kind_et {
    ZAN_ELEMENT_ATTR,
    ZAN_ELEMENT_REFKEY,
    ZAN_ELEMENT_REFHDL,
    ZAN_ELEMENT_UNION,
} zan_element_kind_et;

typedef struct zan_element_def_t {
    const char *name;
    const char *type;    /* as its diagnostics name it */
    uint8_t kind;        /* zan_element_kind_et */
    uint16_t index;      /* of the attribute, reference or union in the table */
    uint16_t offset;     /* in the record */
    uint16_t width;      /* bytes */
    uint16_t set_offset; /* of the is-set byte in the record */
} zan_element_def_t;

typedef enum zan_db_lock_et {
    ZAN_DB_LOCK_NONE,
    ZAN_DB_LOCK_DB,    /* kor_db_lock brackets writes of the database object */
    ZAN_DB_LOCK_STATS, /* kor_db_stats_lock does */
    ZAN_DB_LOCK_BOTH,  /* kor_db_lock on create and delete, kor_db_stats_lock on update */
} zan_db_lock_et;

typedef enum zan_oor_update_et {
    ZAN_OOR_UPDATE_NONE,
    ZAN_OOR_UPDATE_MASK_CHANGE, /* NPUs that the update adds or drops */
    ZAN_OOR_UPDATE_RELEASE,     /* a removal on each NPU, whatever the hook returned */
} zan_oor_update_et;

/* Databases of the hardware, by what they look up or hold. An object takes one entry of its
 * table's. X(enumerator, name) */
#define ZAN_HWDBS(X)                                                                               \
    X(LPM, "lpm")                                                                                  \
    X(EXACT_MATCH, "exact_match")                                                                  \
    X(NEXT_HOP, "next_hop")                                                                        \
    X(GROUP, "group")                                                                              \
    X(ENCAPSULATION, "encapsulation")                                                              \
    X(LABEL, "label")                                                                              \
    X(BRIDGE, "bridge")                                                                            \
    X(INTERFACE, "interface")                                                                      \
    X(MULTICAST, "multicast")                                                                      \
    X(ACL, "acl")                                                                                  \
    X(METER, "meter")                                                                              \
    X(QUEUE, "queue")                                                                              \
    X(COUNTER, "counter")                                                                          \
    X(OAM, "oam")                                                                                  \
    X(SECURITY, "security")                                                                        \
    X(REGISTER, "register")

typedef enum zan_hwdb_et {
    ZAN_HWDB_NONE, /* the table takes nothing */
#define ZAN_HWDB_ENUM(enumerator, name) ZAN_HWDB_##enumerator,
    ZAN_HWDBS(ZAN_HWDB_ENUM)
#undef ZAN_HWDB_ENUM
    ZAN_NUM_HWDBS
} zan_hwdb_et;

typedef struct zan_table_def_t {
    const char *name;  /* "iproute" */
    const char *upper; /* "IPROUTE" */
    const char *group; /* "IP unicast and next hops" */
    const char *doc;
    uint16_t id;

    /* Options: 0 is the plain value of each. */
    uint8_t write_mode;  /* 1: asynchronous hardware writes */
    uint8_t table_class; /* 0: all NPUs; 1 and 2: the object's own mask */
    uint8_t hw_rc_mode;  /* how a hardware code becomes the object's result, 0 to 2 */
    uint8_t npu_threads; /* 1: programmed through the NPU threads; 0: on the dispatcher thread */
    uint8_t object_mask_async; /* NPU-thread accounting looks at the object's own mask */
    uint8_t track_inflight;
    uint8_t create_waits_inflight; /* a create too waits for a write in flight, as update and delete
                                      do */
    uint8_t delete_delay;          /* 5: a delete with children is refused, not postponed */
    uint8_t serialize_back;
    uint8_t async_batch_end;
    uint8_t evt_walk_suppressed;
    uint8_t evt_walk_childless;
    uint8_t periodic_stats;
    uint8_t stats_table; /* its history goes to the statistics classes */
    uint8_t db_lock;     /* zan_db_lock_et */
    uint8_t event_entry;
    uint8_t eod_entry;
    uint8_t event_chain;
    uint8_t identifiers;                   /* has the four identifier hooks */
    uint8_t identifiers_per_npu;           /* on create: one call for each NPU, else one in all */
    uint8_t identifiers_per_npu_on_update; /* the same in the update and release functions */
    uint8_t notify_update_reserve;         /* notification 18 when a reserve of an update fails */
    uint8_t notify_update_missing;         /* notification 17 when an update finds no object */
    uint8_t delete_action_select;
    uint8_t delete_calls_picker;
    uint8_t internal_async_q_err;
    uint8_t post_actions; /* post_create_action and kin */
    uint8_t repeated_delta;
    uint8_t update_of_missing_creates;
    uint8_t delete_notify;
    uint8_t replay_client_filter;
    uint8_t create_reject;
    uint8_t change_test; /* an update without a change ends early */
    uint8_t dbobj_fetch; /* a failed operation reads the stored object back into the request */
    uint8_t parent_init_without_references;
    uint8_t parent_init_on_update; /* of the 15 above, those that call it on an update too */
    uint8_t graph;                 /* takes part in the dependency graph as a child */
    uint8_t oor_account_plain;     /* the accounting calls account, not account_sub */
    uint8_t oor_update;            /* zan_oor_update_et */
    uint8_t hwdb;                  /* zan_hwdb_et: where its objects take hardware */
    uint8_t init_option_bytes[2];
    uint32_t obj_ref_cnt_limit; /* 0: the table does not count client references */

    /* Layout, in bytes from the start of the object. */
    uint32_t obj_size;
    uint32_t trans_id_offset;
    uint32_t npu_mask_req_offset;
    uint32_t npu_mask_req_set_offset;
    uint32_t key_offset;
    uint16_t key_size;            /* of the key structure */
    uint16_t key_bytes;           /* of its order-preserving byte form */
    uint32_t adj_list_offset;     /* 0: no adjacency list */
    uint32_t obj_ref_cnt_offset;  /* uint32_t count of client references, is-set byte; 0: none */
    uint32_t num_elements_offset; /* uint32_t member count; 0: no repeated part */
    uint32_t npu_bmap_offset;     /* 0: no npu_bmap attribute */
    uint32_t npu_bmap_set_offset;
    uint8_t resizing;    /* an update may change num_elements */
    uint8_t has_per_npu; /* has an attribute of shape ZAN_SHAPE_PER_NPU */

    uint16_t num_keys, num_attrs, num_refs, num_unions;
    const zan_field_def_t *keys;
    const zan_field_def_t *attrs;
    const zan_ref_def_t *refs;
    const zan_union_def_t *unions;
    uint16_t max_parents_per_member, max_parents_single;

    uint16_t num_events, num_subscriptions, num_children, num_adjacencies;
    const zan_event_def_t *events; /* events[i].id == i + 1 */
    const zan_subscription_def_t *subscriptions;
    const uint16_t *children;    /* direct child tables, ascending */
    const uint16_t *adjacencies; /* adjacency indices, ascending */

    const zan_element_def_t *elements; /* of the element record of a repeated_delta table */
    uint16_t num_elements, element_record_bytes;
    const char *element_match_field;
} zan_table_def_t;

/* A side table of counters that belongs to a parent table and has no operations of its own. */
typedef struct zan_adj_def_t {
    const char *name;
    uint16_t index;
    uint16_t parent_id;
    uint8_t hooks;
} zan_adj_def_t;

ZAN_EXTERN_C_BEGIN
/* All definitions by table id, and the adjacency tables in order of index. Constant. */
ZAN_EXPORT extern const zan_table_def_t *const zan_table_defs[ZAN_NUM_TABLES];
ZAN_EXPORT extern const zan_adj_def_t zan_adj_defs[];
ZAN_EXPORT extern const uint16_t zan_num_adj_defs;
/* Digest of all definitions: a client built from others is refused at its hello. */
ZAN_EXPORT extern const uint64_t zan_schema_fingerprint;

/* The definition of a table by id or by name; null when there is none. Any thread. */
ZAN_EXPORT const zan_table_def_t *zan_table_def_get(uint32_t table_id);
ZAN_EXPORT const zan_table_def_t *zan_table_def_find(const char *name);
/* Name of a hardware database; "none", and "unknown" for a number that is none. */
ZAN_EXPORT const char *zan_hwdb_name(uint32_t hwdb);
/* Its number, or ZAN_HWDB_NONE. */
ZAN_EXPORT uint32_t zan_hwdb_find(const char *name);
/* Name of a table; "unknown" for an id that is none. */
ZAN_EXPORT const char *kor_table_name_get(uint32_t table_id);
ZAN_EXTERN_C_END

#endif
