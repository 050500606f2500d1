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

} // namespace

replay_batch_t::replay_batch_t(replays_t *replays, const message_verdict_t &verdict,
                               const uint8_t *msg, size_t len)
    : replays_(replays), msg_(msg), len_(len), concerns_(verdict.replays || replays->running)
{
    if (!concerns_)
        return;
    if (verdict.replays)
        for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++)
            stored_.push_back(zan_db_count(id));
    for_each_object(msg, len, [this](const zan_table_base_st *obj) { look_at(obj); });
    std::sort(marked_.begin(), marked_.end(),
              [](const marked_t &a, const marked_t &b) { return a.name < b.name; });
    marked_.erase(
        std::unique(marked_.begin(), marked_.end(),
                    [](const marked_t &a, const marked_t &b) { return same_name(a.name, b.name); }),
        marked_.end());
}

void replay_batch_t::look_at(const zan_table_base_st *obj)
{
    switch (obj->table_operation) {
    case ZAN_TABLE_REPLAY_START:
        counters_.push_back(counters_of(obj->table_id));
        break;
    case ZAN_TABLE_REPLAY_END:
        break;
    case ZAN_TABLE_CREATE:
    case ZAN_TABLE_UPDATE:
    case ZAN_TABLE_DELETE:
        replays_only_ = false;
        if (!replays_->of[obj->table_id].running)
            break;
        if (const zan_table_base_st *stored = zan_db_get(obj))
            if (stored->flag & ZAN_FLAG_STALE)
                marked_.push_back({name_of(stored), content_of(stored)});
        break;
    default:
        break;
    }
}

void replay_batch_t::settle_marked()
{
    for (const marked_t &m : marked_) {
        const zan_table_base_st *stored = find_stored(m.name);
        replay_t *replay = &replays_->of[m.name.table_id];
        if (!stored)
            replay->deleted++;
        else if (!(stored->flag & ZAN_FLAG_STALE))
            (content_of(stored) == m.content ? replay->kept : replay->changed)++;
    }
}

void replay_batch_t::begin(const zan_table_base_st *obj)
{
    replay_t *replay = &replays_->of[obj->table_id];
    replays_->running += !replay->running;
    *replay = {};
    replay->running = true;
    replay->before = counters_[begun_];
    zan_host_quarantine_replay_start(obj->table_id,
                                     obj->client_epoch == ZAN_EPOCH_ANY ? nullptr : obj);
}

void replay_batch_t::end(uint32_t table_id)
{
    replay_t *replay = &replays_->of[table_id];
    replays_->running -= replay->running;
    replay->running = false;
    replay->dropped = zan_host_quarantine_replay_end(table_id);
    if (!replays_only_ || replay->before.empty())
        return;
    const uint64_t swept =
        counters_of(table_id)[ZAN_CTR_REPLAY_SWEPT] - replay->before[ZAN_CTR_REPLAY_SWEPT];
    const uint64_t gone = stored_[table_id] - std::min(stored_[table_id], zan_db_count(table_id));
    replay->left = swept - std::min(swept, gone);
}

/* Operation by operation: which replays the batch began and ended, by its slots, and what of the
 * quarantine the client has sent again. A replay comes in synchronous batches only. */
void replay_batch_t::note(const uint8_t *slots, uint32_t payload)
{
    if (!concerns_ && !anything_in_quarantine())
        return;
    settle_marked();
    size_t index = 0;
    for_each_object(msg_, len_, [&](const zan_table_base_st *obj) {
        switch (obj->table_operation) {
        case ZAN_TABLE_REPLAY_START:
            if (is_done(slots, payload, index))
                begin(obj);
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
}
