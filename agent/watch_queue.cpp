#include "watch_queue.h"

#include <cstring>
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

void watch_queue_t::watch(const zan_watch_st &wanted)
{
    wanted_ = wanted;
}

bool watch_queue_t::wants(const zan_notification_st &head) const
{
    if (head.type == ZAN_NOTIFY_RESOURCE)
        return wanted_.wants_resource != 0;
    return head.table_id < ZAN_NUM_TABLES &&
           (wanted_.tables[head.table_id / 64] >> head.table_id % 64 & 1);
}

void watch_queue_t::lose(uint32_t count)
{
    lost_ += count;
}

void watch_queue_t::drop_oldest()
{
    lost_ += 1 + waiting_.front().replaced;
    bytes_ -= waiting_.front().notification->message.size();
    by_object_.erase(waiting_.front().notification->object);
    waiting_.pop_front();
}

uint32_t watch_queue_t::put(notification_ptr_t notification)
{
    uint32_t replaced = 0;
    const auto same = by_object_.find(notification->object);
    if (same != by_object_.end()) {
        replaced = same->second->replaced + 1;
        bytes_ -= same->second->notification->message.size();
        waiting_.erase(same->second);
        by_object_.erase(same);
    }
    const size_t bytes = notification->message.size();
    const uint32_t lost_before = lost_;
    while (!waiting_.empty() &&
           (waiting_.size() >= ZAN_WATCH_QUEUE_MAX || bytes_ + bytes > max_bytes))
        drop_oldest();
    waiting_.push_back({std::move(notification), replaced});
    bytes_ += bytes;
    by_object_[waiting_.back().notification->object] = std::prev(waiting_.end());
    return lost_ - lost_before;
}

std::vector<uint8_t> watch_queue_t::take()
{
    const entry_t entry = std::move(waiting_.front());
    by_object_.erase(entry.notification->object);
    waiting_.pop_front();
    zan_notification_st head = entry.notification->head;
    head.lost = std::exchange(lost_, 0);
    head.replaced = entry.replaced;
    const std::vector<uint8_t> &message = entry.notification->message;
    bytes_ -= message.size();
    std::vector<uint8_t> frame(sizeof(zan_frame_hdr_st) + sizeof head + message.size());
    memcpy(frame.data() + sizeof(zan_frame_hdr_st), &head, sizeof head);
    if (!message.empty())
        memcpy(frame.data() + sizeof(zan_frame_hdr_st) + sizeof head, message.data(),
               message.size());
    return frame;
}
