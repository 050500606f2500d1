/* What exists once per table as a symbol of its own, in one array over all tables.
 *
 * The generator emits ZAN_TABLE_LIST_BEGIN, ZAN_TABLE_LIST_ENTRY(id, table) in order of the ids,
 * and ZAN_TABLE_LIST_END; symbols that only some tables have are looked at weakly.
 */
#ifndef ZAN_TABLE_LISTS_H
#define ZAN_TABLE_LISTS_H

#include <iterator>
#include <utility>

#include "table_hooks.h"

typedef struct zan_table_entry_t {
    void (*init_once)(void);  /* pthread_once routine: kor_core_<table>_init */
    void (*stats_once)(void); /* pthread_once routine: zan_<table>_register_periodic_stats_done */
    zan_rcode (*stats_walk)(void);
    zan_rcode (*bwalk_child_process_events)(void *, kor_dpd_event_ctx_t *walk_ctx, void *);
    zan_event_record_t *events;  /* null in tables without events */
    zan_event_stat_t *evt_stats; /* null in tables without subscriptions */
    const zan_hook_pair_t *hooks_common;
    const zan_hook_pair_t *hooks_identifiers;
    const zan_hook_pair_t *hooks_post_actions;
    const zan_hook_pair_t *hooks_async_q_err;
    const zan_hook_pair_t *hooks_repeated;
    const zan_hook_pair_t *hooks_delete_action;
} zan_table_entry_t;

/* An adjacency table. */
typedef struct zan_adj_ops_t {
    const zan_adj_def_t *def;
    zan_rcode (*db_walk)(zan_adj_visit_f visit, void *arg);
    void (*shm_replicate_data)(zan_adj_entry_st *entry, uint32_t mode);
    zan_rcode (*walk)(void);                        /* its periodic walk */
    void (*callback_setup)(zan_adj_props_t *props); /* null without hooks, and so are they */
    const zan_hook_pair_t *hooks;                   /* ZAN_ADJ_HOOK_LIST */
} zan_adj_ops_t;

ZAN_EXTERN_C_BEGIN
/* By table id. */
const zan_table_entry_t *zan_table_entry_get(uint32_t table_id);
/* By the index of an adjacency table; null where there is none. */
const zan_adj_ops_t *zan_adj_ops_get(uint32_t index);
ZAN_EXTERN_C_END

#define ZAN_TABLE_LIST_BEGIN template <uint32_t Id> zan_table_entry_t zan_table_entry_of();

#define ZAN_TABLE_LIST_ENTRY(id, T)                                                                \
    extern "C" void zan_once_init_##T(void);                                                       \
    extern "C" void zan_once_stats_##T(void);                                                      \
    extern "C" zan_rcode zan_stats_walk_##T(void);                                                 \
    extern "C" zan_rcode zan_##T##_bwalk_child_process_events(                                     \
        void *, kor_dpd_event_ctx_t *walk_ctx, void *);                                            \
    extern "C" ZAN_WEAK ZAN_HIDDEN zan_event_record_t *const zan_events_of_##T;                    \
    extern "C" ZAN_WEAK ZAN_HIDDEN zan_event_stat_t *const zan_evt_stats_of_##T;                   \
    extern "C" ZAN_HIDDEN const zan_hook_pair_t zan_hooks_common_##T[];                            \
    extern "C" ZAN_WEAK ZAN_HIDDEN const zan_hook_pair_t zan_hooks_identifiers_##T[];              \
    extern "C" ZAN_WEAK ZAN_HIDDEN const zan_hook_pair_t zan_hooks_post_actions_##T[];             \
    extern "C" ZAN_WEAK ZAN_HIDDEN const zan_hook_pair_t zan_hooks_async_q_err_##T[];              \
    extern "C" ZAN_WEAK ZAN_HIDDEN const zan_hook_pair_t zan_hooks_repeated_##T[];                 \
    extern "C" ZAN_WEAK ZAN_HIDDEN const zan_hook_pair_t zan_hooks_delete_action_##T[];            \
    template <> zan_table_entry_t zan_table_entry_of<id>()                                         \
    {                                                                                              \
        return {zan_once_init_##T,                                                                 \
                zan_once_stats_##T,                                                                \
                zan_stats_walk_##T,                                                                \
                zan_##T##_bwalk_child_process_events,                                              \
                &zan_events_of_##T ? zan_events_of_##T : nullptr,                                  \
                &zan_evt_stats_of_##T ? zan_evt_stats_of_##T : nullptr,                            \
                zan_hooks_common_##T,                                                              \
                zan_hooks_identifiers_##T,                                                         \
                zan_hooks_post_actions_##T,                                                        \
                zan_hooks_async_q_err_##T,                                                         \
                zan_hooks_repeated_##T,                                                            \
                zan_hooks_delete_action_##T};                                                      \
    }

#define ZAN_TABLE_LIST_END                                                                         \
    template <size_t... Id> static const zan_table_entry_t *all(std::index_sequence<Id...>)        \
    {                                                                                              \
        static const zan_table_entry_t entries[] = {zan_table_entry_of<Id>()...};                  \
        return entries;                                                                            \
    }                                                                                              \
    const zan_table_entry_t *zan_table_entry_get(uint32_t table_id)                                \
    {                                                                                              \
        return &all(std::make_index_sequence<ZAN_NUM_TABLES>())[table_id];                         \
    }

/* Adjacency tables by index, ZAN_ADJ_LIST_GAP where there is none. */
#define ZAN_ADJ_DECLARE(A) extern "C" ZAN_HIDDEN const zan_adj_ops_t zan_adj_of_##A;
#define ZAN_ADJ_LIST_BEGIN                                                                         \
    const zan_adj_ops_t *zan_adj_ops_get(uint32_t index)                                           \
    {                                                                                              \
        static const zan_adj_ops_t *const list[] = {
#define ZAN_ADJ_LIST_ENTRY(A) &zan_adj_of_##A,
#define ZAN_ADJ_LIST_GAP      nullptr,
#define ZAN_ADJ_LIST_END                                                                           \
    }                                                                                              \
    ;                                                                                              \
    return index < std::size(list) ? list[index] : nullptr;                                        \
    }

#endif
