/* The functions that the periodic walks of the adjacency tables come through, two for each:
 * HOST_ADJACENCY(name, index) supplies those of one. */
#ifndef ZAN_HOST_ADJACENCY_TABLES_H
#define ZAN_HOST_ADJACENCY_TABLES_H

#include "adjacency.h"

zan_rcode host_adj_walk(uint32_t index, zan_adj_visit_f visit, void *arg);
void host_adj_replicate(zan_adj_entry_st *entry, uint32_t mode);

#define HOST_ADJACENCY(A, index)                                                                   \
    extern "C" {                                                                                   \
    ZAN_ADJ_SERVICES(A)                                                                            \
    zan_rcode zan_adj_srv_##A##_db_walk(zan_adj_visit_f visit, void *arg)                          \
    {                                                                                              \
        return host_adj_walk(index, visit, arg);                                                   \
    }                                                                                              \
    void zan_adj_srv_##A##_shm_replicate_data(zan_adj_entry_st *entry, uint32_t mode)              \
    {                                                                                              \
        host_adj_replicate(entry, mode);                                                           \
    }                                                                                              \
    }

#endif
