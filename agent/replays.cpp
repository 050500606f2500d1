/* The mark of an object falls when the client sends it again, and nothing counts that. So what is
 * marked in front of a batch is looked at again behind it. Only objects that a batch names cost
 * anything, and only while a replay of their table is under way.
 */
#include "replays.h"

#include "global_context.h"
#include "host_retry.h"
#include "locks.h"
#include "zan_counters.h"

#include <algorithm>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace
{

std::vector<uint32_t> counters_of(uint32_t table_id)
{
    const uint32_t *counters = zan_get_global_ctx()->counters[0][table_id];
    return {counters, counters + ZAN_NUM_COUNTERS};
}

/* Of what clients and the platform have set. Neither what hardware counts, nor the references that
 * are counted anew, is a change. */
size_t content_of(const zan_table_base_st *obj)
{
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    std::string bytes(def->obj_size + zan_obj_dyn_size(def, zan_obj_num_held(def, obj)), 0);
    {
        const zan_counters_hold_t hold(def);
        zan_obj_serialize(def, 0, obj, bytes.data());
    }
    if (def->obj_ref_cnt_offset)
        bytes.replace(def->obj_ref_cnt_offset, ZAN_REF_CNT_BYTES, ZAN_REF_CNT_BYTES, 0);
    for (uint32_t i = 0; def->periodic_stats && i < def->num_attrs; i++)
        if (const zan_field_def_t &attr = def->attrs[i]; attr.statistic) {
            bytes.replace(attr.offset, (size_t)attr.width * attr.count,
                          (size_t)attr.width * attr.count, 0);
            bytes[attr.set_offset] = 0;
        }
    return std::hash<std::string_view>()(std::string_view(bytes).substr(def->npu_mask_req_offset));
}

bool anything_in_quarantine()
{
    zan_host_retry_counts_st counts;
    zan_host_retry_counts(&counts);
    return counts.quarantined != 0;
}

/* Whether an object of a synchronous batch was done. */
bool is_done(const uint8_t *slots, uint32_t payload, size_t index)
{
    const uint8_t *slot = slots + index * (payload + ZAN_RESPONSE_HDR_SIZE);
    return ((const zan_table_response_st *)slot)->err_code == EOK;
}

template <typename visit_t> void for_each_object(const uint8_t *msg, size_t len, visit_t visit)
{
    for (size_t at = 0; at < len;) {
        const auto *obj = (const zan_table_base_st *)(msg + at);
        at += obj->total_obj_size;
        visit(obj);
    }
}

/* Null for that of all clients. */
const zan_table_base_st *marker_of(const zan_table_base_st *start)
{
    return start->client_epoch == ZAN_EPOCH_ANY ? nullptr : start;
}

uint32_t swept_so_far(uint32_t table_id)
{
    return zan_get_global_ctx()->counters[0][table_id][ZAN_CTR_REPLAY_SWEPT];
}

} // namespace

replay_batch_t::replay_batch_t(replays_t *replays, const message_verdict_t &verdict,
                               const uint8_t *msg, size_t len)
    : replays_(replays), msg_(msg), len_(len), concerns_(verdict.replays || replays->running)
{
    if (!concerns_)
        return;
    for (uint32_t id = 0; verdict.replays && id < ZAN_NUM_TABLES; id++)
        before_.push_back({zan_db_count(id), swept_so_far(id)});
    for_each_object(msg, len, [this](const zan_table_base_st *obj) { look_at(obj); });
    merge_marked();
}

void replay_batch_t::look_at(const zan_table_base_st *obj)
{
    switch (obj->table_operation) {
    case ZAN_TABLE_REPLAY_START:
        counters_.push_back(counters_of(obj->table_id));
        starts_[obj->table_id] = obj;
        forget(obj->table_id); /* what the replay before came to is not told any more */
        break;
    case ZAN_TABLE_CREATE:
    case ZAN_TABLE_UPDATE:
    case ZAN_TABLE_DELETE:
        replays_only_ = false;
        look_at_write(obj);
        break;
    default:
        break;
    }
}

/* What a start in front of it in the batch will mark counts as marked. */
void replay_batch_t::look_at_write(const zan_table_base_st *obj)
{
    const auto start = starts_.find(obj->table_id);
    const bool starts = start != starts_.end();
    if (!starts && !replays_->of[obj->table_id].running)
        return;
    const zan_table_base_st *stored = zan_db_get(obj);
    if (!stored)
        return;
    const bool is_marked = starts ? zan_obj_is_replayed(zan_table_defs[obj->table_id], stored,
                                                        marker_of(start->second))
                                  : (stored->flag & ZAN_FLAG_STALE) != 0;
    const bool is_plain =
        obj->write_kind < ZAN_WRITE_KIND_REPLACE || obj->write_kind > ZAN_WRITE_KIND_REPLACE_REF;
    if (is_marked)
        marked_.push_back({name_of(stored), content_of(stored),
                           obj->table_operation == ZAN_TABLE_CREATE && is_plain,
                           obj->table_operation == ZAN_TABLE_DELETE});
}

/* Each object once, with all that the batch asks of it. */
void replay_batch_t::merge_marked()
{
    std::stable_sort(marked_.begin(), marked_.end(),
                     [](const marked_t &a, const marked_t &b) { return a.name < b.name; });
    size_t kept = 0;
    for (size_t i = 0; i < marked_.size(); i++) {
        if (kept && same_name(marked_[kept - 1].name, marked_[i].name)) {
            marked_[kept - 1].plain_create |= marked_[i].plain_create;
            marked_[kept - 1].deletes |= marked_[i].deletes;
        } else {
            marked_[kept++] = marked_[i];
        }
    }
    marked_.resize(kept);
}

void replay_batch_t::forget(uint32_t table_id)
{
    marked_.erase(
        std::remove_if(marked_.begin(), marked_.end(),
                       [table_id](const marked_t &m) { return m.name.table_id == table_id; }),
        marked_.end());
}

void replay_batch_t::settle_marked()
{
    for (const marked_t &m : marked_) {
        const zan_table_base_st *stored = find_stored(m.name);
        replay_t *replay = &replays_->of[m.name.table_id];
        if (!stored) {
            replay->deleted += m.deletes; /* else the end of the replay has taken it */
        } else if (!(stored->flag & ZAN_FLAG_STALE)) {
            (content_of(stored) == m.content ? replay->kept : replay->changed)++;
            replays_->accepted[m.name.table_id] += m.plain_create;
        }
    }
}

void replay_batch_t::begin(const zan_table_base_st *start)
{
    replay_t *replay = &replays_->of[start->table_id];
    replays_->running += !replay->running;
    *replay = {};
    replay->running = true;
    replay->before = counters_[begun_];
    zan_host_quarantine_replay_start(start->table_id, marker_of(start));
}

void replay_batch_t::end(uint32_t table_id)
{
    replay_t *replay = &replays_->of[table_id];
    const uint32_t dropped = zan_host_quarantine_replay_end(table_id);
    if (!replay->running)
        return;
    replays_->running--;
    replay->running = false;
    replay->dropped = dropped;
    if (!replays_only_)
        return;
    const uint64_t stored = zan_db_count(table_id);
    const uint64_t swept = swept_so_far(table_id) - before_[table_id].swept;
    const uint64_t gone = before_[table_id].stored - std::min(before_[table_id].stored, stored);
    replay->left = swept - std::min(swept, gone);
}

/* Operation by operation: which replays the batch began and ended, by its slots, and what of the
 * quarantine the client has sent again. A replay comes in synchronous batches only. */
void replay_batch_t::note(const uint8_t *slots, uint32_t payload)
{
    if (!concerns_ && !anything_in_quarantine())
        return;
    size_t index = 0;
    for_each_object(msg_, len_, [&](const zan_table_base_st *obj) {
        switch (obj->table_operation) {
        case ZAN_TABLE_REPLAY_START:
            if (is_done(slots, payload, index))
                begin(obj);
            else
                forget(obj->table_id);
            begun_++;
            break;
        case ZAN_TABLE_REPLAY_END:
            if (is_done(slots, payload, index))
                end(obj->table_id);
            break;
        case ZAN_TABLE_CREATE:
        case ZAN_TABLE_UPDATE:
            zan_host_quarantine_sent(obj);
            break;
        default:
            break;
        }
        index++;
    });
    settle_marked();
}
