/* Who the calling thread is and what it may do, and the hand-over to the FRR thread.
 *
 * Each thread of the agent registers its role once. A thread without a role may do nothing.
 */
#ifndef ZAN_PLATFORM_THREAD_CONTROL_H
#define ZAN_PLATFORM_THREAD_CONTROL_H

#include "zan_table_base.h"

typedef enum zan_thread_role_et {
    ZAN_THREAD_NONE,
    ZAN_THREAD_DISPATCHER, /* all batches, flows, queues, walks */
    ZAN_THREAD_FRR,        /* enters where the dispatcher yields */
    ZAN_THREAD_NPU,        /* one per NPU */
    ZAN_THREAD_STATS,      /* the secondary server thread */
} zan_thread_role_et;

/* Actions, for zan_check_action_allowed. */
enum {
    ZAN_BWALK_ALLOWED = 1,
    ZAN_DELAY_DELETE_Q_ALLOWED = 2,
    ZAN_EXEC_Q_CONTROL_OPS_ALLOWED = 4,
    ZAN_INTERNAL_Q_ALLOWED = 16,
};

ZAN_EXTERN_C_BEGIN
/* Give the calling thread its role; `npu` only with ZAN_THREAD_NPU, else -1. Returns the role it
 * had, so that stepped mode can put it back. */
ZAN_EXPORT zan_thread_role_et zan_thread_set_role(zan_thread_role_et role, int npu);
ZAN_EXPORT bool zan_core_is_dispatch_thread(void);
ZAN_EXPORT bool zan_core_is_frr_thread(void);
ZAN_EXPORT bool zan_core_is_secondary_server_thread(void);
/* Whether a dispatcher thread has registered yet. */
ZAN_EXPORT bool zan_core_is_dispatcher_spawned(void);
/* The NPU that the calling thread serves; outside NPU threads npu_id of the object. */
ZAN_EXPORT uint32_t kor_core_get_npu_id(const zan_table_base_st *obj);

/* The NPU whose thread calls, or -1 on any other thread. */
ZAN_EXPORT int zan_thread_npu(void);

/* Whether the calling thread may take the action: the dispatcher all of them; the FRR thread, while
 * it holds the dispatcher, walks only; all other threads none. */
ZAN_EXPORT bool zan_check_action_allowed(uint32_t action);

/* Yield point of the dispatcher thread: an FRR thread that waits takes its turn now, and the call
 * returns when the turn is over. Costs one load when nobody waits. Other threads: no effect. */
ZAN_EXPORT void zan_allow_access_frr_thread(void);
/* The FRR thread takes and gives back the dispatcher. Blocks until the next yield point, or until
 * the dispatcher is idle. */
ZAN_EXPORT void zan_frr_enter(void);
ZAN_EXPORT void zan_frr_leave(void);

/* Whether an entry of the server runs on behalf of this thread's messages: the dispatcher brackets
 * its work, so that an FRR thread may enter while it is idle. */
ZAN_EXPORT void zan_dispatcher_enter(void);
ZAN_EXPORT void zan_dispatcher_leave(void);

/* The transaction that the calling thread works for: all its traces carry it. */
ZAN_EXPORT void zan_set_trans_id(uint32_t trans_id, zan_table_response_st *response,
                                 uint32_t flags);
ZAN_EXPORT void zan_clear_trans_id(void);
ZAN_EXPORT uint32_t zan_get_trans_id(void);
ZAN_EXTERN_C_END

#endif
