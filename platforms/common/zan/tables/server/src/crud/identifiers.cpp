/* Resource identifiers: reserved before an object is written, given back when it goes.
 *
 * The allocator is the platform's, behind the four identifier hooks. A table of the per-NPU kind
 * has one call for each NPU under the fec id lock, any other one call for the object, with -1 for
 * the NPU and no lock. A failed reserve releases nothing: the release hook is for objects that
 * reached the hardware step.
 */
#include "table_server_api_common.h"

namespace
{

void fec_id_lock()
{
    const int lrc = kor_core_fec_id_lock();
    ZAN_ASSERT(lrc == 0, "lrc == 0");
}

void fec_id_unlock()
{
    const int lrc = kor_core_fec_id_unlock();
    ZAN_ASSERT(lrc == 0, "lrc == 0");
}

uint32_t num_npus()
{
    const zan_global_ctx_st *ctx = zan_get_global_ctx();
    return ctx ? ctx->num_npus : 0;
}

/* Every NPU is tried; what counts for the flow is the last. */
zan_rcode reserve_per_npu(const zan_table_def_t *def, zan_table_crud_ctx_t *crud)
{
    zan_rcode rc = EOK;
    bool failed = false;
    fec_id_lock();
    for (uint32_t npu = 0; npu < num_npus(); npu++) {
        rc = crud->props->reserve_id((int32_t)npu, crud->obj);
        if (rc == EOK)
            continue;
        zan_counter_raise(def->id, ZAN_CTR_CREATE_RESERVE_FAILED);
        ZAN_TRACE_TABLE(zan_slt_crud_ctx(crud, ZAN_TRACE_LEVEL_ERROR), def->id, RESERVE_FAILED,
                        crud->obj, rc, npu);
        crud->response->err_code = rc;
        zan_table_state(def)->info.reserve_fail_cnt++;
        failed = true;
    }
    if (failed)
        zan_send_srv_notif(crud->obj, ZAN_NOTIF_RESERVE_FAILED);
    fec_id_unlock();
    return rc;
}

zan_rcode reserve_once(const zan_table_def_t *def, zan_table_crud_ctx_t *crud)
{
    const zan_rcode rc = crud->props->reserve_id(-1, crud->obj);
    if (rc != EOK) {
        crud->response->err_code = rc;
        zan_table_state(def)->info.reserve_fail_cnt++;
        zan_send_srv_notif(crud->obj, ZAN_NOTIF_RESERVE_FAILED);
    }
    return rc;
}

/* Unlike a create, an update stops at the first NPU that fails. */
zan_rcode update_reserve(const zan_table_def_t *def, zan_table_crud_ctx_t *crud, int32_t npu,
                         uint32_t *new_to_old_map)
{
    const zan_rcode rc =
        crud->props->update_reserve_id(npu, crud->obj, crud->db_obj, new_to_old_map);
    if (rc == EOK)
        return EOK;
    ZAN_TRACE_TABLE(zan_slt_crud_ctx(crud, ZAN_TRACE_LEVEL_ERROR), def->id, RESERVE_FAILED,
                    crud->obj, rc, npu);
    crud->response->err_code = rc;
    zan_table_state(def)->info.update_id_fail_cnt++;
    if (def->notify_update_reserve)
        zan_send_srv_notif(crud->obj, ZAN_NOTIF_RESERVE_FAILED);
    return rc;
}

zan_rcode update_reserve_per_npu(const zan_table_def_t *def, zan_table_crud_ctx_t *crud)
{
    zan_rcode rc = EOK;
    fec_id_lock();
    for (uint32_t npu = 0; npu < num_npus() && rc == EOK; npu++)
        rc = update_reserve(def, crud, (int32_t)npu, crud->new_to_old_map);
    fec_id_unlock();
    return rc;
}

/* Both releases have one shape: `call` for each NPU or once, each failure traced and counted. */
template <class Call>
void release(const zan_table_def_t *def, const zan_table_base_st *obj,
             zan_table_response_st *response, uint32_t *fail_cnt, Call call)
{
    auto one = [&](int32_t npu) {
        const zan_rcode rc = call(npu);
        if (rc == EOK)
            return;
        ZAN_TRACE_TABLE(zan_slt_table_id(def->id, ZAN_TRACE_LEVEL_ERROR), def->id, RELEASE_FAILED,
                        obj, rc, npu);
        response->err_code = rc;
        __atomic_fetch_add(fail_cnt, 1, __ATOMIC_RELAXED); /* NPU threads come here too */
    };
    if (!def->identifiers_per_npu_on_update) {
        one(-1);
        return;
    }
    fec_id_lock();
    for (uint32_t npu = 0; npu < num_npus(); npu++)
        one((int32_t)npu);
    fec_id_unlock();
}

} // namespace

zan_rcode zan_server_api_reserve_id(const zan_table_def_t *def, zan_table_crud_ctx_t *crud)
{
    if (def->identifiers)
        crud->reserve_rc =
            def->identifiers_per_npu ? reserve_per_npu(def, crud) : reserve_once(def, crud);
    return zan_table_npd_rc_to_rc(crud->reserve_rc, crud);
}

zan_rcode zan_server_api_update_reserve_id(const zan_table_def_t *def, zan_table_crud_ctx_t *crud)
{
    if (def->identifiers)
        crud->reserve_rc = def->identifiers_per_npu_on_update
                               ? update_reserve_per_npu(def, crud)
                               : update_reserve(def, crud, -1, nullptr);
    return zan_table_npd_rc_to_rc(crud->reserve_rc, crud);
}

void zan_server_api_release_id(const zan_table_def_t *def, zan_table_base_st *obj,
                               zan_table_response_st *response)
{
    zan_resource_info_t *info = &zan_table_state(def)->info;
    if (!def->identifiers)
        return;
    const srv_zan_table_props_t *props = zan_table_state(def)->props;
    release(def, obj, response, &info->release_fail_cnt, [&](int32_t npu) {
        return props->release_id(npu, (zan_rcode)response->err_code, obj);
    });
}

void zan_server_api_update_release_id(const zan_table_def_t *def, zan_table_base_st *new_or_old,
                                      zan_table_base_st *old_obj, zan_table_response_st *response)
{
    zan_resource_info_t *info = &zan_table_state(def)->info;
    if (!def->identifiers)
        return;
    const srv_zan_table_props_t *props = zan_table_state(def)->props;
    release(def, new_or_old, response, &info->update_id_fail_cnt,
            [&](int32_t npu) { return props->update_release_id(npu, new_or_old, old_obj); });
}
