/* The small network that a loaded routing table leads into: interfaces, the link-layer next hops on
 * them, next hops of both families, and next-hop groups of several members each. */
#ifndef ZANCTL_TOPOLOGY_H
#define ZANCTL_TOPOLOGY_H

#include "zanctl.h"

/* Groups 1 to topology_groups of each family; routes are spread over them. */
constexpr uint32_t topology_groups = 64;

/* Link-layer next hops on each interface. */
constexpr uint32_t topology_neighbours = 4;

/* The objects of one table, in the order in which they are created. */
struct topology_stage_t {
    const char *words; /* for people */
    const zan_table_def_t *def;
    std::vector<object_ptr_t> objects;
};

/* Parents before children. An agent that honours per-object NPU masks writes an interface only
 * where it asks to be: `npu_mask` then is the mask to ask for, else 0. Throws std::runtime_error.
 */
std::vector<topology_stage_t> make_topology(kor_npu_mask_t npu_mask);

#endif
