/* The hooks of the simulated NPUs: NPU_SIM_HOOKS(T) supplies create, update, delete, event and get
 * of a table, NPU_SIM_EOD(T) its end of download, NPU_SIM_REPEATED(T) its update by lists,
 * NPU_SIM_STATISTICS(T) its counters, NPU_SIM_ADJACENCY(A) those of an adjacency table. All other
 * hooks stay absent. */
#ifndef NPU_SIM_HOOKS_H
#define NPU_SIM_HOOKS_H

#include "adjacency.h"
#include "npu_message.h"
#include "repeated_delta.h"

/* Each returns the simulated hardware's code. Called on an NPU thread, or on the dispatcher thread
 * for the NPUs of the object: see npu_sim.cpp. */
zan_rcode npu_sim_create(const zan_table_base_st *obj);
zan_rcode npu_sim_update(const zan_delta_lists_t *delta);
zan_rcode npu_sim_delete(const zan_table_base_st *obj);
zan_rcode npu_sim_event(const zan_table_base_st *obj);
zan_rcode npu_sim_eod(const zan_table_base_st *obj);
zan_rcode npu_sim_get(zan_table_base_st *obj);

/* Counters: latch, and take what was latched. */
zan_rcode npu_sim_latch(zan_table_base_st *obj);
zan_rcode npu_sim_take(zan_table_base_st *obj);
zan_rcode npu_sim_adj_latch(zan_adj_entry_st *entry);
zan_rcode npu_sim_adj_take(zan_adj_entry_st *entry);

zan_rcode npu_sim_update_members(const zan_repeated_delta_t *delta);
int32_t npu_sim_compare_members(const void *old_element, const void *new_element);

#define NPU_SIM_HOOKS(T)                                                                           \
    extern "C" ZAN_EXPORT zan_rcode srv_##T##_create(zan_table_base_st *obj)                       \
    {                                                                                              \
        return npu_sim_create(obj);                                                                \
    }                                                                                              \
    extern "C" ZAN_EXPORT zan_rcode srv_##T##_update(zan_delta_lists_t *delta)                     \
    {                                                                                              \
        return npu_sim_update(delta);                                                              \
    }                                                                                              \
    extern "C" ZAN_EXPORT zan_rcode srv_##T##_delete(zan_table_base_st *obj)                       \
    {                                                                                              \
        return npu_sim_delete(obj);                                                                \
    }                                                                                              \
    extern "C" ZAN_EXPORT zan_rcode srv_##T##_event(kor_dpd_event_ctx_t *, zan_table_base_st *obj) \
    {                                                                                              \
        return npu_sim_event(obj);                                                                 \
    }                                                                                              \
    extern "C" ZAN_EXPORT zan_rcode srv_##T##_get(zan_table_base_st *obj)                          \
    {                                                                                              \
        return npu_sim_get(obj);                                                                   \
    }

#define NPU_SIM_EOD(T)                                                                             \
    extern "C" ZAN_EXPORT zan_rcode srv_##T##_eod(zan_table_base_st *obj)                          \
    {                                                                                              \
        return npu_sim_eod(obj);                                                                   \
    }

#define NPU_SIM_STATISTICS(T)                                                                      \
    extern "C" ZAN_EXPORT zan_rcode srv_##T##_update_rdesc_from_hw(zan_table_base_st *obj)         \
    {                                                                                              \
        return npu_sim_latch(obj);                                                                 \
    }                                                                                              \
    extern "C" ZAN_EXPORT zan_rcode srv_##T##_update_zan_db_stats_from_rdesc(                      \
        zan_table_base_st *db_obj)                                                                 \
    {                                                                                              \
        return npu_sim_take(db_obj);                                                               \
    }

#define NPU_SIM_ADJACENCY(A)                                                                       \
    extern "C" ZAN_EXPORT zan_rcode srv_##A##_adj_periodic_stats_update_rdesc_from_hw(             \
        zan_adj_entry_st *entry)                                                                   \
    {                                                                                              \
        return npu_sim_adj_latch(entry);                                                           \
    }                                                                                              \
    extern "C" ZAN_EXPORT zan_rcode srv_##A##_adj_periodic_stats_update_db_from_rdesc(             \
        zan_adj_entry_st *entry)                                                                   \
    {                                                                                              \
        return npu_sim_adj_take(entry);                                                            \
    }

#define NPU_SIM_REPEATED(T)                                                                        \
    extern "C" ZAN_EXPORT zan_rcode srv_##T##_update_deprecated(zan_repeated_delta_t *delta,       \
                                                                uint32_t)                          \
    {                                                                                              \
        return npu_sim_update_members(delta);                                                      \
    }                                                                                              \
    extern "C" ZAN_EXPORT int32_t srv_##T##_compare_dynamic_struct_deprecated(                     \
        const void *old_element, const void *new_element)                                          \
    {                                                                                              \
        return npu_sim_compare_members(old_element, new_element);                                  \
    }

#endif
