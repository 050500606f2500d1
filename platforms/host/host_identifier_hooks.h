/* The host's identifier hooks, as the defaults of the tables that have them:
 * HOST_IDENTIFIER_HOOKS(T) supplies the four of a table, so that a platform need not have an
 * allocator of its own. */
#ifndef ZAN_HOST_IDENTIFIER_HOOKS_H
#define ZAN_HOST_IDENTIFIER_HOOKS_H

#include "zan_table_base.h"

ZAN_EXTERN_C_BEGIN
/* `npu` is -1 for the one identifier of an object. The object's key names the holder: a second
 * reserve gives the same identifier, and a release of what is not held does nothing. Any thread. */
zan_rcode zan_host_reserve_id(int32_t npu, const zan_table_base_st *obj);
zan_rcode zan_host_release_id(int32_t npu, const zan_table_base_st *obj);
/* An update keeps its key, and with it its identifiers. */
zan_rcode zan_host_update_release_id(int32_t npu, const zan_table_base_st *new_obj,
                                     const zan_table_base_st *old_obj);
ZAN_EXTERN_C_END

#define HOST_IDENTIFIER_HOOKS(T)                                                                   \
    extern "C" ZAN_EXPORT zan_rcode srv_##T##_reserve_id_infra_default(int32_t npu,                \
                                                                       zan_table_base_st *obj)     \
    {                                                                                              \
        return zan_host_reserve_id(npu, obj);                                                      \
    }                                                                                              \
    extern "C" ZAN_EXPORT zan_rcode srv_##T##_update_reserve_id_infra_default(                     \
        int32_t npu, zan_table_base_st *new_obj, zan_table_base_st *, uint32_t *)                  \
    {                                                                                              \
        return zan_host_reserve_id(npu, new_obj);                                                  \
    }                                                                                              \
    extern "C" ZAN_EXPORT zan_rcode srv_##T##_update_release_id_infra_default(                     \
        int32_t npu, zan_table_base_st *new_obj, zan_table_base_st *old_obj)                       \
    {                                                                                              \
        return zan_host_update_release_id(npu, new_obj, old_obj);                                  \
    }                                                                                              \
    extern "C" ZAN_EXPORT zan_rcode srv_##T##_release_id_infra_default(int32_t npu,                \
                                                                       zan_table_base_st *obj)     \
    {                                                                                              \
        return zan_host_release_id(npu, obj);                                                      \
    }

#endif
