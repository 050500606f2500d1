/* The check at the agent's end: identifiers that no stored object holds.
 *
 * Some are left on purpose. A create that is refused behind its reserve keeps what it got, so that
 * the object has the same identifiers when the client sends it again; what such creates can have
 * left is counted by the tables. Anything beyond that was lost.
 */
#include "requests.h"

#include "global_context.h"
#include "host_services.h"
#include "table_crud_ctx.h"

#include <cstdio>

namespace
{

/* The most that refused creates of a table have left, or UINT64_MAX where they are not counted: the
 * platform has a say before the hardware step. */
uint64_t explained(const zan_table_def_t *def, uint32_t num_npus)
{
    if (zan_srv_table_props_get(def->id)->hook_source[ZAN_HOOK_pre_create_rdesc] != ZAN_HOOK_NONE)
        return UINT64_MAX;
    const uint32_t *counters = zan_get_global_ctx()->counters[0][def->id];
    const uint64_t refused = (uint64_t)counters[ZAN_CTR_CREATE_RESERVE_FAILED] +
                             counters[ZAN_CTR_CREATE_DYN_ALLOC_FAILED] +
                             counters[ZAN_CTR_BIND_FAILED] + counters[ZAN_CTR_INSERT_FAILED_A];
    return refused * (def->identifiers_per_npu ? num_npus : 1);
}

} // namespace

bool identifiers_are_accounted_for(uint32_t num_npus)
{
    const dispatcher_hold_t hold;
    bool all = true;
    for (const zan_table_def_t *def : zan_table_defs) {
        zan_host_identifiers_st ids;
        zan_host_identifiers_get(def->id, &ids);
        if (ids.orphaned == 0)
            continue;
        const uint64_t most = explained(def, num_npus);
        if (ids.orphaned > most)
            fprintf(stderr,
                    "zan_agent: %s: %llu identifiers belong to no stored object, and refused "
                    "creates account for %llu at most: they leak; report this\n",
                    def->name, (unsigned long long)ids.orphaned, (unsigned long long)most);
        else
            printf(
                "zan_agent: %s: %llu identifiers are kept for objects whose create was refused\n",
                def->name, (unsigned long long)ids.orphaned);
        all &= ids.orphaned <= most;
    }
    return all;
}
