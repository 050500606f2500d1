/* A platform for tests that says yes to every route and keeps none: whoever compares must notice.
 * It has one hook, so that the agent runs with it, and tells what it holds by the names that the
 * agent looks for. And the first delete of a meter profile makes their table refuse to begin a
 * replay. */
#include "iproute.h"
#include "npu_sim_control.h"
#include "table_properties.h"

#include <cstdio>
#include <utility>

#include <dlfcn.h>

static decltype(srv_zan_table_props_t::crud_from_obj_base) usual;

static zan_rcode refuse_replay(zan_table_base_st *obj, zan_table_response_st *resp, uint32_t arg,
                               kor_dpd_event_ctx_t *walk_ctx)
{
    if (obj->table_operation != ZAN_TABLE_REPLAY_START)
        return usual(obj, resp, arg, walk_ctx);
    resp->err_code = ZAN_RC_INVALID;
    return ZAN_RC_INVALID;
}

extern "C" {

ZAN_EXPORT zan_rcode srv_iproute_create(zan_table_base_st *)
{
    return EOK;
}

ZAN_EXPORT zan_rcode srv_meterprofile_delete(zan_table_base_st *obj)
{
    const auto get =
        (decltype(&zan_srv_table_props_get))dlsym(RTLD_DEFAULT, "zan_srv_table_props_get");
    srv_zan_table_props_t *props = get(obj->table_id);
    if (props->crud_from_obj_base != refuse_replay)
        usual = std::exchange(props->crud_from_obj_base, refuse_replay);
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
