/* A platform whose hooks return at once: what is measured is the server. */
#include "npu_message.h"

#define INSTANT_HOOKS(T)                                                                           \
    ZAN_EXPORT zan_rcode srv_##T##_create(zan_table_base_st *obj);                                 \
    ZAN_EXPORT zan_rcode srv_##T##_update(zan_delta_lists_t *delta);                               \
    ZAN_EXPORT zan_rcode srv_##T##_delete(zan_table_base_st *obj);                                 \
    ZAN_EXPORT zan_rcode srv_##T##_get(zan_table_base_st *obj);                                    \
    zan_rcode srv_##T##_create(zan_table_base_st *obj)                                             \
    {                                                                                              \
        (void)obj;                                                                                 \
        return EOK;                                                                                \
    }                                                                                              \
    zan_rcode srv_##T##_update(zan_delta_lists_t *delta)                                           \
    {                                                                                              \
        (void)delta;                                                                               \
        return EOK;                                                                                \
    }                                                                                              \
    zan_rcode srv_##T##_delete(zan_table_base_st *obj)                                             \
    {                                                                                              \
        (void)obj;                                                                                 \
        return EOK;                                                                                \
    }                                                                                              \
    zan_rcode srv_##T##_get(zan_table_base_st *obj)                                                \
    {                                                                                              \
        (void)obj;                                                                                 \
        return EOK;                                                                                \
    }

INSTANT_HOOKS(iproute)
INSTANT_HOOKS(ip6route)
INSTANT_HOOKS(ipnhgroup)
INSTANT_HOOKS(ip6nhgroup)
