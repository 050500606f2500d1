/* A platform for tests that says yes to every route and keeps none: whoever compares must notice.
 * It has one hook, so that the agent runs with it, and tells what it holds by the names that the
 * agent looks for. */
#include "iproute.h"
#include "npu_sim_control.h"

#include <cstdio>

extern "C" {

ZAN_EXPORT zan_rcode srv_iproute_create(zan_table_base_st *)
{
    return EOK;
}

uint64_t npu_sim_count(uint32_t, uint32_t)
{
    return 0;
}

int npu_sim_compare(uint32_t, const zan_table_base_st *obj, char *why, size_t why_size)
{
    snprintf(why, why_size, "forgotten");
    return obj->table_id == IPROUTE_TABLE_ID;
}
}
