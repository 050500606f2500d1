/* What a walk does to a child table, and to a child.
 *
 * First the events are held against the table's subscriptions: does a child of this table need an
 * update, and must it go to hardware though nothing changes? Then, child by child, an update that
 * nobody asked for: a request that holds the child's key and references goes through the table's
 * ordinary update, which inherits anew from the parents. No child is ever programmed by code of its
 * own.
 *
 * The request's references are those of the stored child, since an update reads what is missing as
 * dropped, and a walk never rewires. They are taken behind the yield: an FRR thread may have moved
 * the child, or deleted it. Unions need no copy, they are inherited whole.
 */
#include "table_server_api_common.h"
#include "zan_lookup.h"

#include <cstdlib>
#include <cstring>

namespace
{

/* ---- The events against the subscriptions ---- */

/* Subscriptions go by the whole mask of an event, not by its number. */
const zan_subscription_def_t *find_subscription(const zan_table_def_t *def,
                                                const zan_bwalk_event_data *event)
{
    for (uint32_t i = 0; i < def->num_subscriptions; i++) {
        const zan_subscription_def_t *s = &def->subscriptions[i];
        if (s->source_table == event->table_id &&
            zan_table_defs[s->source_table]->events[s->event_id - 1].attrib_mask ==
                event->attrib_mask)
            return s;
    }
    return nullptr;
}

void take_event(const zan_table_def_t *def, kor_dpd_event_ctx_t *walk_ctx,
                zan_event_filter_t *filter)
{
    const zan_subscription_def_t *s = find_subscription(def, filter->event);
    if (!s)
        return;
    filter->handled = 1;
    walk_ctx->child_update_needed = 1;
    walk_ctx->num_evt_update++;
    if (!s->force)
        return;
    walk_ctx->child_force_update = 1;
    walk_ctx->num_evt_force++;
    filter->event->force = 1;
}

void examine_events(const zan_table_def_t *def, kor_dpd_event_ctx_t *walk_ctx)
{
    const srv_zan_table_props_t *props = zan_table_state(def)->props;
    walk_ctx->child_update_needed = 0;
    walk_ctx->num_evt_update = 0;
    for (zan_bwalk_event_data *event = dpd_get_first_event(walk_ctx->event_list); event;) {
        zan_event_filter_t filter = {event, 0, 0};
        props->event_filter(&walk_ctx->child_update_needed, &filter);
        if (!filter.handled)
            take_event(def, walk_ctx, &filter);
        zan_bwalk_event_data *next = dpd_get_next_event(walk_ctx->event_list, event);
        if (filter.remove)
            dpd_event_remove(walk_ctx->event_list, event);
        event = next;
    }
}

/* ---- One child ---- */

/* Member by member, key and handle each where it is set. */
void copy_reference(const zan_ref_def_t *ref, zan_table_base_st *obj,
                    const zan_table_base_st *child, uint32_t member)
{
    const zan_ref_value_st *from = zan_obj_ref(ref, child, member);
    zan_ref_value_st *to = zan_obj_ref(ref, obj, member);
    if (from->refkey_set) {
        memcpy(zan_ref_key(to), zan_ref_key(from), ref->key_size);
        to->refkey_set = from->refkey_set;
    }
    if (from->refhdl_set) {
        to->refhdl = from->refhdl;
        to->refhdl_set = from->refhdl_set;
    }
}

void copy_references(const zan_table_def_t *def, zan_table_base_st *obj,
                     const zan_table_base_st *child)
{
    const uint32_t members = zan_obj_num_held(def, child);
    for (uint32_t i = 0; i < def->num_refs; i++)
        for (uint32_t m = 0; m < (def->refs[i].repeated ? members : 1); m++)
            copy_reference(&def->refs[i], obj, child, m);
}

/* A request for the child that is stored under the key now; without one it is the bare key, and
 * its update will find nothing. */
zan_table_base_st *build_request(const zan_table_def_t *def, const zan_lookup_t *lookup,
                                 const kor_dpd_event_ctx_t *walk_ctx)
{
    const zan_table_base_st *child = zan_db_get(&lookup->base);
    zan_table_base_st *obj = zan_obj_ctor(def, zan_table_state(def)->props->private_size,
                                          child ? zan_obj_num_held(def, child) : 0);
    ZAN_ASSERT(obj, "obj");
    memcpy(zan_obj_key(def, obj), zan_obj_key(def, &lookup->base), def->key_size);
    obj->key_len = def->key_size;
    if (child)
        copy_references(def, obj, child);
    if (zan_walk_ctx_is_from_retry(walk_ctx))
        obj->flag |= ZAN_FLAG_RETRY_MODE;
    return obj;
}

/* The update of one object, in the transaction of its walk. */
zan_rcode kor_srv_single_update(const zan_table_def_t *def, zan_table_base_st *obj,
                                kor_dpd_event_ctx_t *walk_ctx)
{
    zan_table_response_st response = {};
    const uint32_t trans_id = zan_walk_ctx_get_trans_id(walk_ctx);
    obj->table_operation = ZAN_TABLE_UPDATE;
    obj->base_trans_id = trans_id;
    *zan_obj_trans_id(def, obj) = trans_id;
    zan_server_api_update(def, obj, &response, 0, walk_ctx);
    zan_set_trans_id(trans_id, nullptr, 0); /* the update has cleared it */
    return (zan_rcode)response.err_code;
}

zan_rcode update_child(const zan_table_def_t *def, zan_table_base_st *child,
                       kor_dpd_event_ctx_t *walk_ctx)
{
    zan_lookup_t lookup;
    zan_lookup_init(&lookup, def);
    zan_lookup_set_key(&lookup, def, zan_obj_key(def, child));
    child->dpd.bwalk_id_stamp = zan_walk_ctx_get_bwalk_id(walk_ctx);
    const uint16_t updates = ++child->dpd.bwalk_update_count;
    const uint16_t skips = child->dpd.bwalk_skip_count;
    zan_dpd_get_bwalk_stats(def->id)->num_child_updates++;
    zan_walk_ctx_increment_num_bwalk_child_updates(walk_ctx);
    walk_ctx->force_update = walk_ctx->child_force_update;

    zan_allow_access_frr_thread(); /* from here on the child may be gone */
    zan_table_base_st *obj = build_request(def, &lookup, walk_ctx);
    const zan_rcode rc = kor_srv_single_update(def, obj, walk_ctx);
    free(obj);
    ZAN_TRACE(ZAN_CLASS_ZAN_BWALK_EVENT__, BWALK_CHILD_DONE, zan_walk_ctx_get_bwalk_id(walk_ctx),
              child, updates, skips, rc);
    return rc;
}

zan_rcode skip_child(const zan_table_def_t *def, zan_table_base_st *child,
                     const kor_dpd_event_ctx_t *walk_ctx)
{
    child->dpd.bwalk_skip_count++;
    zan_dpd_get_bwalk_stats(def->id)->num_child_skips++;
    ZAN_TRACE(ZAN_CLASS_ZAN_BWALK_EVENT__, BWALK_CHILD_DONE, zan_walk_ctx_get_bwalk_id(walk_ctx),
              child, child->dpd.bwalk_update_count, child->dpd.bwalk_skip_count, EOK);
    return EOK;
}

} // namespace

zan_rcode zan_server_bwalk_child_process_events(const zan_table_def_t *def,
                                                kor_dpd_event_ctx_t *walk_ctx)
{
    const uint32_t num_events = zan_walk_ctx_get_num_events(walk_ctx);
    if (num_events != 0)
        examine_events(def, walk_ctx);
    ZAN_TRACE(ZAN_CLASS_ZAN_BWALK_EVENT__, BWALK_CHILD_TABLE, walk_ctx->child_update_needed,
              walk_ctx->num_evt_update, zan_walk_ctx_get_bwalk_id(walk_ctx), num_events,
              walk_ctx->num_evt_force, zan_walk_ctx_get_bwalk_type(walk_ctx), def->id);
    return EOK;
}

zan_rcode zan_server_bwalk_child_callback(const zan_table_def_t *def, zan_table_base_st *child,
                                          kor_dpd_event_ctx_t *walk_ctx)
{
    ZAN_TRACE(ZAN_CLASS_ZAN_BWALK_EVENT__, BWALK_CHILD, child, zan_walk_ctx_get_bwalk_id(walk_ctx),
              walk_ctx->child_update_needed, walk_ctx->num_evt_update, walk_ctx->num_evt_force,
              zan_walk_ctx_get_bwalk_type(walk_ctx));
    return walk_ctx->child_update_needed ? update_child(def, child, walk_ctx)
                                         : skip_child(def, child, walk_ctx);
}
