/* Out of service and back: what goes into quarantine, why, and what is put back.
 *
 * An object that others depend on cannot leave the database before them. So they go first, from the
 * last of them upwards, each as an entry that names the object for whose sake it went, the root. A
 * release puts root and followers back the other way round, and a follower that finds its parent
 * missing stays.
 */
#include "host_control.h"
#include "host_trace.h"
#include "notification.h"
#include "retry.h"
#include "retry_writes.h"

#include "dependency_graph.h"
#include "zan_tables_private.h"

#include <algorithm>
#include <deque>
#include <map>
#include <utility>
#include <vector>

namespace
{

/* Why an object is here. One that was put here by zan_db_quarantine_add alone has no such record.
 */
struct reason_t {
    zan_table_base_st *copy;
    object_name_t root; /* its own name when it is the root */
    zan_rcode rc;
    uint32_t attempts;
    uint32_t references; /* that clients hold, in the tables that count them */
    bool releasing;
    std::vector<object_name_t> followers; /* of a root, in the order in which they went */
};

using reasons_t = std::map<object_name_t, reason_t>;
reasons_t reasons;
std::deque<object_name_t> released; /* to be put back, in this order */
std::vector<object_name_t> refused; /* released, and a parent was missing */
bool progress;                      /* something was put back since they were tried */
uint64_t taken_out, put_back;

reasons_t::iterator first_of(uint32_t table_id)
{
    return reasons.lower_bound({(uint16_t)table_id, {}, {}});
}

bool is_of(reasons_t::iterator at, uint32_t table_id)
{
    return at != reasons.end() && at->first.table_id == table_id;
}

/* ---- Out ---- */

/* An object below `obj` that nothing depends on, or obj itself. */
zan_table_base_st *lowest(zan_table_base_st *obj)
{
    while (obj->dpd.dpd_child_list)
        obj = obj->dpd.dpd_child_list->child;
    return obj;
}

/* The creates that it takes to have the object as it is. */
uint32_t references_of(const zan_table_base_st *obj)
{
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    const bool counted = def->obj_ref_cnt_offset && *zan_obj_ref_cnt_set(def, obj);
    return counted ? std::max(*zan_obj_ref_cnt(def, obj), 1u) : 1;
}

/* A reference by handle would lead into whatever has the parent's block by the time the object is
 * put back. The key that goes with it is that of the parent itself: the client may have given
 * another. */
void name_by_key(zan_ref_value_st *ref)
{
    const auto *parent = (const zan_table_base_st *)(uintptr_t)ref->refhdl;
    if (!parent)
        return;
    const zan_table_def_t *def = zan_table_defs[parent->table_id];
    memcpy(zan_ref_key(ref), zan_obj_key(def, parent), def->key_size);
    ref->refkey_set = 1;
    ref->refhdl = 0;
    ref->refhdl_set = 0;
}

/* The copy of an object that is still stored, and so are its parents. */
void name_parents_by_key(zan_table_base_st *copy)
{
    const zan_table_def_t *def = zan_table_defs[copy->table_id];
    const uint32_t members = zan_obj_num_elements(def, copy);
    for (uint32_t i = 0; i < def->num_refs; i++)
        for (uint32_t m = 0; m < (def->refs[i].repeated ? members : 1); m++)
            name_by_key(zan_obj_ref(&def->refs[i], copy, m));
    for (uint32_t i = 0; i < def->num_unions; i++)
        for (uint32_t m = 0; m < (def->unions[i].repeated ? members : 1); m++)
            name_by_key(zan_obj_union(&def->unions[i], copy, m));
}

/* One delete takes it out, however many references clients hold. */
zan_rcode unstore(const object_name_t &name, const zan_table_base_st *copy)
{
    const zan_table_def_t *def = zan_table_defs[copy->table_id];
    if (def->obj_ref_cnt_offset)
        *zan_obj_ref_cnt_set(def, find_stored(name)) = 0;
    const zan_rcode rc = host_retry_request(copy, ZAN_TABLE_DELETE);
    zan_table_base_st *left = find_stored(name);
    if (!left)
        return EOK;
    if (def->obj_ref_cnt_offset)
        memcpy(zan_obj_ref_cnt(def, left), zan_obj_ref_cnt(def, copy), ZAN_REF_CNT_BYTES);
    return rc != EOK ? rc : ZAN_RC_DELAY_DELETE;
}

/* ---- Back ---- */

void trace_put_back(const reason_t &reason)
{
    const host_trace_for_t transaction(reason.copy->base_trans_id);
    if (zan_trace_is_on(ZAN_CLASS_ZAN_RETRY_EVENT__))
        _ringlog_3(ZAN_CLASS_ZAN_RETRY_EVENT__, HOST_TRACE_ID(PUT_BACK, 3), reason.copy->table_id,
                   reason.rc, reason.copy->base_trans_id);
}

/* The code of a create says that a parent is missing. */
bool misses_parent(zan_rcode rc)
{
    return rc == ZAN_RC_NOT_FOUND || rc == ZAN_RC_PARENT_QUARANTINED;
}

/* One create for each reference that clients held; all but the first find the object there. The
 * record is taken out of the map meanwhile: what is stored anew is forgotten here by its key. */
bool store(const object_name_t &name, reason_t *reason)
{
    for (uint32_t i = 0; i < reason->references; i++) {
        const zan_rcode rc = host_retry_request(reason->copy, ZAN_TABLE_CREATE);
        if (i == 0)
            reason->rc = rc;
        if (!find_stored(name))
            return false;
    }
    return true;
}

void put_back_one(const object_name_t &name)
{
    auto node = reasons.extract(name);
    if (node.empty())
        return; /* a client was quicker */
    reason_t *reason = &node.mapped();
    const bool root_is_out = !same_name(name, reason->root) && reasons.count(reason->root) != 0;
    const bool is_back = !root_is_out && store(name, reason);
    trace_put_back(*reason);
    if (!is_back) {
        reason->releasing = false;
        if (root_is_out)
            reason->rc = ZAN_RC_PARENT_QUARANTINED;
        if (misses_parent(reason->rc))
            refused.push_back(name);
        reasons.insert(std::move(node));
        return;
    }
    put_back++;
    progress = true;
    zan_send_srv_notif(reason->copy, ZAN_NOTIF_IN_SERVICE);
    zan_db_quarantine_remove(reason->copy);
}

/* What was refused for a parent has another try when others are back, which may be that parent. */
void try_refused_again()
{
    if (!released.empty() || !std::exchange(progress, false))
        return;
    for (const object_name_t &name : std::exchange(refused, {})) {
        const auto at = reasons.find(name);
        if (at != reasons.end() && !at->second.releasing) {
            at->second.releasing = true;
            released.push_back(name);
        }
    }
}

/* ---- What an operator names ---- */

/* One entry, those of a table, or all; roots first, so that their followers come along in order. */
std::vector<object_name_t> named(uint32_t table_id, const void *key)
{
    std::vector<object_name_t> names;
    if (key) {
        if (table_id < ZAN_NUM_TABLES)
            names.push_back(name_of_key(zan_table_defs[table_id], key));
        return names;
    }
    for (const auto &[name, reason] : reasons)
        if (table_id == name.table_id || table_id == ZAN_NUM_TABLES)
            names.push_back(name);
    std::stable_partition(names.begin(), names.end(), [](const object_name_t &name) {
        return same_name(name, reasons.find(name)->second.root);
    });
    return names;
}

/* Those of the followers that are here for this root: a client may have made one anew since, and it
 * may have failed for itself. */
std::vector<object_name_t> own_followers(const object_name_t &root, const reason_t &reason)
{
    std::vector<object_name_t> own;
    for (const object_name_t &name : reason.followers) {
        const auto at = reasons.find(name);
        if (at != reasons.end() && same_name(at->second.root, root))
            own.push_back(name);
    }
    return own;
}

/* The number of objects that go back. */
uint32_t release(const object_name_t &name)
{
    const auto at = reasons.find(name);
    if (at == reasons.end() || at->second.releasing)
        return 0;
    at->second.releasing = true;
    released.push_back(name);
    uint32_t count = 1;
    const std::vector<object_name_t> followers = own_followers(name, at->second);
    for (auto follower = followers.rbegin(); follower != followers.rend(); ++follower)
        count += release(*follower);
    return count;
}

/* The number of objects that are freed. */
uint32_t drop(const object_name_t &name)
{
    const auto node = reasons.extract(name);
    if (node.empty())
        return 0;
    zan_db_quarantine_remove(node.mapped().copy);
    uint32_t count = 1;
    for (const object_name_t &follower : own_followers(name, node.mapped()))
        count += drop(follower);
    return count;
}

} // namespace

/* Its followers stay: each says what it waits for. */
void host_quarantine_forget(const zan_table_base_st *obj)
{
    if (ZAN_LIKELY(reasons.empty()))
        return;
    const auto node = reasons.extract(name_of(obj));
    if (!node.empty())
        zan_db_quarantine_remove(node.mapped().copy);
}

/* ---- Out and back ---- */

zan_rcode host_quarantine_take_out(const object_name_t &root, failed_t *failed)
{
    const zan_table_base_st *obj = lowest(find_stored(root));
    const object_name_t name = name_of(obj);
    const bool itself = same_name(name, root);
    reason_t reason = {
        zan_db_quarantine_add(obj), root, obj->rc_stamp, 0, references_of(obj), false, {}};
    if (!reason.copy)
        return ZAN_RC_NO_MEMORY;
    name_parents_by_key(reason.copy);
    const zan_rcode rc = unstore(name, reason.copy);
    if (rc != EOK) {
        zan_db_quarantine_remove(reason.copy);
        return rc;
    }
    if (itself) {
        reason.rc = failed->rc;
        reason.attempts = failed->attempts;
        reason.followers = std::move(failed->followers);
        failed->followers.clear();
    } else {
        failed->followers.push_back(name);
    }
    if (zan_trace_is_on(ZAN_CLASS_ZAN_RETRY_ERROR__)) {
        const host_trace_for_t transaction(reason.copy->base_trans_id);
        _ringlog_4(ZAN_CLASS_ZAN_RETRY_ERROR__, HOST_TRACE_ID(TAKEN_OUT, 4), name.table_id,
                   root.table_id, reason.rc, reason.copy->base_trans_id);
    }
    zan_send_srv_notif(reason.copy, ZAN_NOTIF_OUT_OF_SERVICE);
    reasons[name] = std::move(reason);
    taken_out++;
    return EOK;
}

void host_quarantine_release_followers(const std::vector<object_name_t> &followers)
{
    for (auto follower = followers.rbegin(); follower != followers.rend(); ++follower)
        release(*follower);
}

uint32_t host_quarantine_put_back(uint32_t limit)
{
    uint32_t done = 0;
    for (; done < limit && !released.empty(); done++) {
        const object_name_t name = released.front();
        released.pop_front();
        put_back_one(name);
        try_refused_again();
    }
    return done;
}

bool host_quarantine_has_released(void)
{
    return !released.empty();
}

void host_quarantine_counts(zan_host_retry_counts_st *out)
{
    out->quarantined = reasons.size();
    out->taken_out = taken_out;
    out->put_back = put_back;
}

bool zan_host_quarantined_next(zan_host_quarantined_st *row)
{
    const auto at = row->listed
                        ? reasons.upper_bound(name_of_key(zan_table_defs[row->table_id], row->key))
                        : first_of(row->table_id);
    if (at == reasons.end())
        return false;
    const auto &[name, reason] = *at;
    *row = {name.table_id,
            1,
            reason.releasing,
            (uint32_t)own_followers(name, reason).size(),
            reason.root.table_id,
            reason.rc,
            reason.attempts,
            {},
            {}};
    memcpy(row->key, name.key, sizeof row->key);
    memcpy(row->root_key, reason.root.key, sizeof row->root_key);
    return true;
}

uint32_t zan_host_quarantine_release(uint32_t table_id, const void *key)
{
    uint32_t count = 0;
    for (const object_name_t &name : named(table_id, key))
        count += release(name);
    return count;
}

uint32_t zan_host_quarantine_drop(uint32_t table_id, const void *key)
{
    uint32_t count = 0;
    for (const object_name_t &name : named(table_id, key))
        count += drop(name);
    return count;
}

/* ---- Replay ---- */

void zan_host_quarantine_replay_start(uint32_t table_id, const zan_table_base_st *marker)
{
    const zan_table_def_t *def = zan_table_defs[table_id];
    for (auto at = first_of(def->id); is_of(at, def->id); ++at)
        if (zan_obj_is_replayed(def, at->second.copy, marker)) {
            zan_obj_mark_stale(def, at->second.copy);
            at->second.references = 1;
        }
}

void zan_host_quarantine_sent(const zan_table_base_st *obj)
{
    if (ZAN_LIKELY(reasons.empty()) || obj->key_len == 0 || obj->obj_handle != 0)
        return;
    const auto at = reasons.find(name_of(obj));
    if (at != reasons.end())
        at->second.copy->flag &= ~(uint32_t)ZAN_FLAG_STALE;
}

uint32_t zan_host_quarantine_replay_end(uint32_t table_id)
{
    uint32_t count = 0;
    for (auto at = first_of(table_id); is_of(at, table_id);) {
        if (!(at->second.copy->flag & ZAN_FLAG_STALE)) {
            ++at;
            continue;
        }
        zan_db_quarantine_remove(at->second.copy);
        at = reasons.erase(at);
        count++;
    }
    return count;
}

void host_out_of_service_stop(void)
{
    while (!reasons.empty())
        drop(reasons.begin()->first);
    released.clear();
    refused.clear();
}
