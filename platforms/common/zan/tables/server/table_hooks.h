/* The hooks of a table, as weak addresses.
 *
 * For a platform writer: define any srv_<table>_<hook> with C linkage in the platform library,
 * which is loaded before the server; the signatures are the slots of srv_zan_table_props_t. Absent
 * hooks are normal. The generator emits one ZAN_TABLE_HOOKS line for each table, and the others
 * where the table's definition has the option.
 */
#ifndef ZAN_TABLE_HOOKS_H
#define ZAN_TABLE_HOOKS_H

#include "table_properties.h"

typedef void (*zan_hook_f)(void);

/* What a hook may lead to; either may be null. */
typedef struct zan_hook_pair_t {
    zan_hook_f platform; /* srv_<table>_<hook> */
    zan_hook_f dflt;     /* srv_<table>_<hook>_infra_default */
} zan_hook_pair_t;

#define ZAN_HOOK_DECLARE(T, name)                                                                  \
    extern "C" ZAN_WEAK ZAN_EXPORT void srv_##T##_##name(void);                                    \
    extern "C" ZAN_WEAK ZAN_EXPORT void srv_##T##_##name##_infra_default(void);
#define ZAN_HOOK_PAIR(T, name) {srv_##T##_##name, srv_##T##_##name##_infra_default},

/* A hook that no library has a default for. */
#define ZAN_HOOK_DECLARE_ALONE(T, name) extern "C" ZAN_WEAK ZAN_EXPORT void srv_##T##_##name(void);
#define ZAN_HOOK_PAIR_ALONE(T, name)    {srv_##T##_##name, nullptr},

/* F(T, name) for a hook that a library may have a default for, A(T, name) for one without. The
 * common ones, in the order of ZAN_COMMON_HOOKS: */
/* clang-format off */
#define ZAN_HOOK_LIST(F, A, T)                                                                     \
    F(T, create) F(T, update) F(T, delete) F(T, event) F(T, eod)                                   \
    F(T, get) F(T, get_first) F(T, get_next) F(T, get_gt_eq)                                       \
    F(T, resolve) F(T, specific_init) F(T, specific_access_fn)                                     \
    F(T, pre_create_rdesc) F(T, post_create_rdesc) F(T, pre_update_rdesc)                          \
    F(T, post_update_rdesc) F(T, pre_delete_rdesc) F(T, post_delete_rdesc)                         \
    F(T, update_zan_db_stats_from_rdesc) F(T, calculate_num_paths) F(T, update_rdesc_from_hw)      \
    F(T, fill_default_async_notif_cb) F(T, fill_sdk_show_buffer)                                   \
    A(T, sync_error_handling) A(T, async_bwalk_error_handling) A(T, color_using_fwalk)             \
    F(T, async_batch_end_npu_cb) A(T, delete_independent_hw_resource)
/* Those of an option: */
#define ZAN_HOOK_LIST_IDENTIFIERS(F, A, T)                                                         \
    F(T, reserve_id) F(T, update_reserve_id) F(T, update_release_id) F(T, release_id)
#define ZAN_HOOK_LIST_POST_ACTIONS(F, A, T)                                                        \
    F(T, post_create_action) F(T, post_update_action) F(T, post_delete_action)
#define ZAN_HOOK_LIST_ASYNC_Q_ERR(F, A, T) A(T, internal_async_q_err)
#define ZAN_HOOK_LIST_REPEATED(F, A, T)                                                            \
    F(T, update_deprecated) F(T, compare_dynamic_struct_deprecated)
#define ZAN_HOOK_LIST_DELETE_ACTION(F, A, T) A(T, delete_action_select)
/* clang-format on */

/* Those of an adjacency table. */
#define ZAN_ADJ_HOOK_LIST(F, A, T)                                                                 \
    F(T, adj_periodic_stats_update_db_from_rdesc) F(T, adj_periodic_stats_update_rdesc_from_hw)

#define ZAN_TABLE_HOOK_ARRAY(T, array, LIST)                                                       \
    LIST(ZAN_HOOK_DECLARE, ZAN_HOOK_DECLARE_ALONE, T)                                              \
    extern "C" ZAN_HIDDEN const zan_hook_pair_t zan_hooks_##array##_##T[];                         \
    const zan_hook_pair_t zan_hooks_##array##_##T[] = {LIST(ZAN_HOOK_PAIR, ZAN_HOOK_PAIR_ALONE, T)};

#define ZAN_TABLE_HOOKS(T) ZAN_TABLE_HOOK_ARRAY(T, common, ZAN_HOOK_LIST)
#define ZAN_TABLE_HOOKS_IDENTIFIERS(T)                                                             \
    ZAN_TABLE_HOOK_ARRAY(T, identifiers, ZAN_HOOK_LIST_IDENTIFIERS)
#define ZAN_TABLE_HOOKS_POST_ACTIONS(T)                                                            \
    ZAN_TABLE_HOOK_ARRAY(T, post_actions, ZAN_HOOK_LIST_POST_ACTIONS)
#define ZAN_TABLE_HOOKS_ASYNC_Q_ERR(T)                                                             \
    ZAN_TABLE_HOOK_ARRAY(T, async_q_err, ZAN_HOOK_LIST_ASYNC_Q_ERR)
#define ZAN_TABLE_HOOKS_REPEATED(T) ZAN_TABLE_HOOK_ARRAY(T, repeated, ZAN_HOOK_LIST_REPEATED)
#define ZAN_TABLE_HOOKS_DELETE_ACTION(T)                                                           \
    ZAN_TABLE_HOOK_ARRAY(T, delete_action, ZAN_HOOK_LIST_DELETE_ACTION)

/* The groups and where each stands among the hooks of a properties record. */
#define ZAN_HOOK_GROUPS(X)                                                                         \
    X(common, ZAN_HOOK_create, ZAN_HOOK_reserve_id - ZAN_HOOK_create)                              \
    X(identifiers, ZAN_HOOK_reserve_id, 4)                                                         \
    X(post_actions, ZAN_HOOK_post_create_action, 3)                                                \
    X(async_q_err, ZAN_HOOK_internal_async_q_err, 1)                                               \
    X(repeated, ZAN_HOOK_update_deprecated, 2)                                                     \
    X(delete_action, ZAN_HOOK_delete_action_select, 1)

#endif
