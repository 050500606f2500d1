/* Two routers select a table's operation.
 *
 * The route of the batch path knows its table, and a bad operation there is a broken invariant. The
 * route by which the server gives itself work answers 0 to an unknown table or operation. The
 * asymmetry is meant.
 */
#include "table_server_api_common.h"

#include <cstring>

namespace
{

zan_rcode stale_mark(zan_table_base_st *db_obj, void *arg)
{
    const auto *marker = (const zan_table_base_st *)arg;
    const zan_table_def_t *def = zan_table_defs[db_obj->table_id];
    if (!zan_obj_is_replayed(def, db_obj, marker))
        return EOK;
    zan_counter_raise(def->id, ZAN_CTR_REPLAY_MARKED);
    zan_obj_mark_stale(def, db_obj);
    return EOK;
}

zan_rcode stale_sweep(zan_table_base_st *db_obj, void *)
{
    if (!(db_obj->flag & ZAN_FLAG_STALE))
        return EOK;
    const srv_zan_table_props_t *props = zan_srv_table_props_get(db_obj->table_id);
    db_obj->flag &= ~(uint32_t)ZAN_FLAG_STALE;
    zan_table_base_st *copy = props->copy_ctor(db_obj);
    ZAN_ASSERT(copy, "copy");
    zan_counter_raise(db_obj->table_id, ZAN_CTR_REPLAY_SWEPT);
    copy->table_operation = ZAN_TABLE_DELETE;
    const zan_rcode rc = kor_core_obj_dispatcher(copy);
    props->copy_dtor(copy);
    return rc;
}

} // namespace

zan_rcode zan_srv_crud_from_obj_base(const zan_table_def_t *def, zan_table_base_st *obj,
                                     zan_table_response_st *resp, uint32_t arg,
                                     kor_dpd_event_ctx_t *walk_ctx)
{
    switch (obj->table_operation) {
    case ZAN_TABLE_CREATE:
        return zan_server_api_create(def, obj, resp, arg);
    case ZAN_TABLE_DELETE: // reports through the slot alone
        zan_server_api_delete(def, obj, resp, arg);
        return EOK;
    case ZAN_TABLE_EVENT:
        ZAN_ASSERT(def->event_entry, "0");
        return EOK;
    case ZAN_TABLE_UPDATE:
        return zan_server_api_update(def, obj, resp, arg, walk_ctx);
    case ZAN_TABLE_GET:
    case ZAN_TABLE_GET_FIRST:
    case ZAN_TABLE_GET_GT_EQ:
    case ZAN_TABLE_GET_NEXT:
        return zan_server_api_get_common(def, obj, resp, arg);
    case ZAN_TABLE_REPLAY_START:
        resp->obj = kor_core_replay_start(def, obj->client_epoch == ZAN_EPOCH_ANY ? nullptr : obj);
        return EOK;
    case ZAN_TABLE_REPLAY_END:
        resp->obj = kor_core_replay_end(def, obj);
        return EOK;
    case ZAN_TABLE_EOD:
        ZAN_ASSERT(def->eod_entry, "0");
        return zan_server_api_eod(def, obj, resp);
    default:
        ZAN_ASSERT(false, "0");
    }
}

zan_rcode kor_core_obj_dispatcher(zan_table_base_st *obj)
{
    zan_table_response_st response = {};
    const zan_table_def_t *def = zan_table_def_get(obj->table_id);
    if (!def)
        return EOK;
    zan_rcode rc = EOK;
    switch (obj->table_operation) {
    case ZAN_TABLE_CREATE:
        rc = zan_server_api_create(def, obj, &response, 0);
        break;
    case ZAN_TABLE_DELETE:
        rc = zan_server_api_delete(def, obj, &response, 0);
        break;
    case ZAN_TABLE_UPDATE:
        rc = zan_server_api_update(def, obj, &response, 0, nullptr);
        break;
    case ZAN_TABLE_GET:
    case ZAN_TABLE_GET_FIRST:
    case ZAN_TABLE_GET_GT_EQ:
    case ZAN_TABLE_GET_NEXT:
        rc = zan_server_api_get_common(def, obj, &response, 0);
        break;
    case ZAN_TABLE_EOD:
        if (def->eod_entry)
            rc = zan_server_api_eod(def, obj, &response);
        break;
    default: // an event's entry does nothing, and replay has no route here
        break;
    }
    return rc != EOK ? rc : (zan_rcode)response.err_code;
}

/* The next object is taken before the visit, so that the visitor may delete the one it has. */
uint64_t kor_core_iterator(const zan_table_def_t *def, zan_iterator_visitor_f visitor, void *arg)
{
    if (zan_core_is_secondary_server_thread() && def->periodic_stats)
        return 0;
    if (!zan_server_table_once(def))
        return 0;
    memset(zan_table_state(def)->db_ctx.scratch, 0, sizeof zan_table_state(def)->db_ctx.scratch);
    zan_table_base_st lookup = {};
    lookup.key_len = 4;
    lookup.table_id = def->id;
    uint64_t count = 0;
    zan_table_base_st *entry = zan_db_get_first(&lookup);
    while (entry) {
        count++;
        zan_table_base_st *next = zan_db_get_next(entry);
        visitor(entry, arg);
        entry = next;
    }
    return count;
}

uint64_t kor_core_replay_start(const zan_table_def_t *def, zan_table_base_st *arg)
{
    return kor_core_iterator(def, stale_mark, arg);
}

uint64_t kor_core_replay_end(const zan_table_def_t *def, zan_table_base_st *arg)
{
    return kor_core_iterator(def, stale_sweep, arg);
}

zan_rcode kor_srv_walk(const zan_table_def_t *def, void *walk_arg, zan_db_walk_f cb, void *cb_arg,
                       uint32_t flags)
{
    return zan_db_walk(def->id, walk_arg, cb, cb_arg, flags);
}
