/* What one session watches, and what waits for it. I/O thread.
 *
 * A session that reads slowly, or not at all, must not make memory grow. So its queue is bounded: a
 * newer notification of the same object takes the place of the older one, at the end, and when the
 * queue is full all the same, by number or by bytes, the oldest goes, which the next that is sent
 * tells. Without memory (std::bad_alloc) nothing has changed.
 */
#ifndef ZAN_WATCH_QUEUE_H
#define ZAN_WATCH_QUEUE_H

#include "../client/zan_wire.h"

#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

/* Whether the tables that are asked for exist. */
bool is_watch(const zan_watch_st &wanted);

/* One notification, shared by the queues of all sessions that want it. */
struct notification_t {
    zan_notification_st head;
    std::vector<uint8_t> message;
    std::string object;    /* what it is about: equal for two of the same object */
    uint64_t sequence = 0; /* rises in the order in which they were made, which some overtake */
};
using notification_ptr_t = std::shared_ptr<const notification_t>;

class watch_queue_t
{
public:
    /* Watch this from now on, and nothing else: neither what waits of it, nor what was lost before
     * anything was watched, is told any more. */
    void watch(const zan_watch_st &wanted);
    bool wants(const zan_notification_st &head) const;
    /* Returns how many notifications it dropped to make room. */
    uint32_t put(notification_ptr_t notification);
    /* So many were lost before they came here; of what is no matter. */
    void lose(uint32_t count);
    bool empty() const
    {
        return waiting_.empty();
    }
    /* The oldest as a frame with room for its header; not when empty. */
    std::vector<uint8_t> take();

private:
    struct entry_t {
        notification_ptr_t notification;
        uint32_t replaced;
    };
    using entries_t = std::list<entry_t>;
    bool watches_anything() const;
    entries_t::iterator remove(entries_t::iterator at);
    void drop_oldest();
    zan_watch_st wanted_ = {};
    entries_t waiting_;
    std::unordered_map<std::string, entries_t::iterator> by_object_;
    size_t bytes_ = 0; /* of the messages that wait */
    uint32_t lost_ = 0;
};

#endif
