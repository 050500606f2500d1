/* The hooks of the simulated NPUs: NPU_SIM_HOOKS(T) supplies create, update, delete, event and get
 * of a table, NPU_SIM_EOD(T) its end of download. All other hooks stay absent. */
#ifndef NPU_SIM_HOOKS_H
#define NPU_SIM_HOOKS_H

#include "npu_message.h"

/* Each returns the simulated hardware's code. Called on an NPU thread, or on the dispatcher thread
 * for the NPUs of the object: see npu_sim.cpp. */
zan_rcode npu_sim_create(const zan_table_base_st *obj);
zan_rcode npu_sim_update(const zan_delta_lists_t *delta);
zan_rcode npu_sim_delete(const zan_table_base_st *obj);
zan_rcode npu_sim_event(const zan_table_base_st *obj);
zan_rcode npu_sim_eod(const zan_table_base_st *obj);
zan_rcode npu_sim_get(zan_table_base_st *obj);

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

#endif
