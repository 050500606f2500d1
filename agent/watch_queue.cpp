#include "watch_queue.h"

#include <cstring>
#include <utility>

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

void watch_queue_t::put(notification_ptr_t notification)
{
    uint32_t replaced = 0;
    const auto same = by_object_.find(notification->object);
    if (same != by_object_.end()) {
        replaced = same->second->replaced + 1;
        lost_ += same->second->notification->head.lost;
        waiting_.erase(same->second);
        by_object_.erase(same);
    } else if (waiting_.size() == ZAN_WATCH_QUEUE_MAX) {
        lost_ += 1 + waiting_.front().notification->head.lost;
        by_object_.erase(waiting_.front().notification->object);
        waiting_.pop_front();
    }
    waiting_.push_back({std::move(notification), replaced});
    by_object_[waiting_.back().notification->object] = std::prev(waiting_.end());
}

std::vector<uint8_t> watch_queue_t::take()
{
    const entry_t entry = std::move(waiting_.front());
    by_object_.erase(entry.notification->object);
    waiting_.pop_front();
    zan_notification_st head = entry.notification->head;
    head.lost += std::exchange(lost_, 0);
    head.replaced = entry.replaced;
    const std::vector<uint8_t> &message = entry.notification->message;
    std::vector<uint8_t> frame(sizeof(zan_frame_hdr_st) + sizeof head + message.size());
    memcpy(frame.data() + sizeof(zan_frame_hdr_st), &head, sizeof head);
    if (!message.empty())
        memcpy(frame.data() + sizeof(zan_frame_hdr_st) + sizeof head, message.data(),
               message.size());
    return frame;
}
