#include "watch_queue.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

namespace
{

constexpr size_t max_bytes = 8 << 20; /* an object may have very many members */

} // namespace

bool is_watch(const zan_watch_st &wanted)
{
    for (uint32_t table_id = ZAN_NUM_TABLES; table_id < 6 * 64; table_id++)
        if (wanted.tables[table_id / 64] >> table_id % 64 & 1)
            return false;
    return true;
}

bool watch_queue_t::watches_anything() const
{
    const auto *tables = wanted_.tables;
    return wanted_.wants_resource ||
           std::any_of(tables, tables + std::size(wanted_.tables), [](uint64_t t) { return t; });
}

bool watch_queue_t::wants(const zan_notification_st &head) const
{
    if (head.type == ZAN_NOTIFY_RESOURCE)
        return wanted_.wants_resource != 0;
    return head.table_id < ZAN_NUM_TABLES &&
           (wanted_.tables[head.table_id / 64] >> head.table_id % 64 & 1);
}

void watch_queue_t::watch(const zan_watch_st &wanted)
{
    wanted_ = wanted;
    if (!watches_anything())
        lost_ = 0;
    for (auto at = waiting_.begin(); at != waiting_.end();)
        at = wants(at->notification->head) ? std::next(at) : remove(at);
}

void watch_queue_t::lose(uint32_t count)
{
    if (watches_anything())
        lost_ += count;
}

watch_queue_t::entries_t::iterator watch_queue_t::remove(entries_t::iterator at)
{
    bytes_ -= at->notification->message.size();
    by_object_.erase(at->notification->object);
    return waiting_.erase(at);
}

void watch_queue_t::drop_oldest()
{
    lost_ += 1 + waiting_.front().replaced;
    remove(waiting_.begin());
}

/* Of one object the newest stays. One that was overtaken comes behind it, and is the older. */
uint32_t watch_queue_t::put(notification_ptr_t notification)
{
    const size_t bytes = notification->message.size();
    entries_t fresh(1, {std::move(notification), 0});
    entry_t *entry = &fresh.front();
    const auto [place, is_new] =
        by_object_.try_emplace(entry->notification->object, waiting_.end());
    if (!is_new) {
        entry_t *same = &*place->second;
        same->replaced++;
        if (same->notification->sequence > entry->notification->sequence)
            return 0;
        entry->replaced = same->replaced;
        bytes_ -= same->notification->message.size();
        waiting_.erase(place->second);
    }
    const uint32_t lost_before = lost_;
    while (!waiting_.empty() &&
           (waiting_.size() >= ZAN_WATCH_QUEUE_MAX || bytes_ + bytes > max_bytes))
        drop_oldest();
    waiting_.splice(waiting_.end(), fresh);
    bytes_ += bytes;
    place->second = std::prev(waiting_.end());
    return lost_ - lost_before;
}

std::vector<uint8_t> watch_queue_t::take()
{
    const entry_t &entry = waiting_.front();
    zan_notification_st head = entry.notification->head;
    head.lost = lost_;
    head.replaced = entry.replaced;
    const std::vector<uint8_t> &message = entry.notification->message;
    std::vector<uint8_t> frame(sizeof(zan_frame_hdr_st) + sizeof head + message.size());
    memcpy(frame.data() + sizeof(zan_frame_hdr_st), &head, sizeof head);
    if (!message.empty())
        memcpy(frame.data() + sizeof(zan_frame_hdr_st) + sizeof head, message.data(),
               message.size());
    lost_ = 0;
    remove(waiting_.begin());
    return frame;
}
