/* The global context and the facts of the node: one static record, bound once the host has started.
 */
#include "global_context.h"
#include "graph_area.h"
#include "host_control.h"
#include "host_periodic_stats.h"
#include "host_resources.h"
#include "host_services.h"
#include "host_start.h"
#include "host_statistics.h"
#include "retry.h"
#include "system_facts.h"

#include <cstring>

static zan_global_ctx_st context;
static bool started;
static bool standby;

zan_global_ctx_st *zan_get_global_ctx(void)
{
    return started ? &context : nullptr;
}

zan_rcode zan_ctx_bind(zan_global_ctx_st **ctx)
{
    *ctx = zan_get_global_ctx();
    return *ctx ? EOK : ZAN_RC_NOT_FOUND;
}

zan_rcode zan_host_start(const zan_host_config_t *config)
{
    static bool started_once;
    if (config->num_npus > ZAN_MAX_NPUS || started_once)
        return ZAN_RC_INVALID;
    started_once = true;
    memset(&context, 0, sizeof context);
    context.num_npus = config->num_npus;
    context.npu_mask_all = ((kor_npu_mask_t)1 << config->num_npus) - 1;
    context.npu_mask_active = context.npu_mask_all;
    context.per_object_npu_mask = config->per_object_npu_mask;
    context.hw_resource_list = host_resources_start();
    standby = config->standby;
    started = true;
    zan_host_fill_table_properties();
    host_statistics_start();
    host_colors_start();
    if (zan_host_exec_q_start(config->num_npus, config->stepped, config->seed)) {
        if (host_stats_start(config->stats_period_ms))
            return EOK;
        zan_host_exec_q_stop();
    }
    started = false;
    return ZAN_RC_NO_MEMORY;
}

void zan_host_stop(void)
{
    host_stats_stop();
    zan_host_exec_q_stop();
    host_retry_stop();
    zan_host_internal_queues_clear();
    zan_host_identifiers_reset();
    started = false;
}

void zan_host_set_standby(bool value)
{
    standby = value;
}

uint32_t platcfg_config_get_max_num_npus(void)
{
    return ZAN_MAX_NPUS;
}

kor_npu_mask_t platcfg_config_get_avail_npu_mask(void)
{
    return context.npu_mask_all;
}

uint32_t kor_get_node_role(const zan_table_base_st *, const zan_table_base_st *,
                           const struct zan_table_crud_ctx_t *)
{
    return standby ? ZAN_NODE_ROLE_STANDBY : ZAN_NODE_ROLE_ACTIVE;
}
