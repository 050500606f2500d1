/* One poll loop over the listener, the signals, the dispatcher's wake-up and the sessions.
 *
 * Flow control: a session is read only while it has fewer than ZAN_PIPELINE_MAX requests whose
 * replies are not sent in full, and while the queue to the dispatcher has room. A frame that was
 * begun is read to its end, so that its deadline is the client's alone.
 */
#include "transport.h"

#include "listener.h"

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include <csignal>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr size_t max_queued = 128;     /* requests that wait for the dispatcher */
constexpr int64_t farewell_ms = 2'000; /* for the last replies when the agent ends */

struct reply_t {
    uint64_t session;
    std::vector<uint8_t> frame;
};

} // namespace

struct transport_t {
    zan_hello_reply_st node;
    std::string path;
    next_notification_f next_notification;
    int listener = -1, signals = -1, wake = -1;
    std::thread thread;
    std::atomic<bool> stopping{false}, finish{false};
    session_counts_t counts;

    std::mutex mutex; /* over the two queues */
    std::condition_variable arrived;
    std::deque<request_t> requests;
    std::deque<reply_t> replies;

    /* The I/O thread's own. */
    session_t sessions[ZAN_CLIENTS_MAX];
    uint64_t last_session = 0;
    int64_t accept_again = 0; /* no descriptors: do not try before */
    int64_t finish_by = 0;
};

namespace
{

void put_request(transport_t *t, request_t request)
{
    {
        const std::lock_guard<std::mutex> lock(t->mutex);
        t->requests.push_back(std::move(request));
    }
    t->arrived.notify_one();
}

void accept_session(transport_t *t)
{
    const int fd = accept4(t->listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOMEM)
            t->accept_again = session_now_ms() + 1000;
        return;
    }
    session_t *s = t->sessions;
    while (s < t->sessions + ZAN_CLIENTS_MAX && s->is_open())
        s++;
    if (s == t->sessions + ZAN_CLIENTS_MAX) {
        std::vector<uint8_t> frame =
            make_error_frame(ZAN_WIRE_UNAVAILABLE, ZAN_WIRE_NO_INDEX, "",
                             "the agent serves as many clients as it can: try again later");
        set_frame_header(&frame, ZAN_FRAME_ERROR, 0);
        send(fd, frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        close(fd);
        return;
    }
    s->open(fd, ++t->last_session, &t->node, &t->counts);
}

void serve_session(transport_t *t, session_t *s, short events)
{
    if (events & POLLOUT)
        s->send();
    if (s->is_open() && (events & POLLIN)) {
        request_t request;
        if (s->receive(&request))
            put_request(t, std::move(request));
    } else if (s->is_open() && (events & (POLLERR | POLLHUP))) {
        s->close();
    }
}

void take_replies(transport_t *t)
{
    uint64_t count;
    if (read(t->wake, &count, sizeof count) < 0 && errno != EAGAIN)
        return;
    std::deque<reply_t> replies;
    {
        const std::lock_guard<std::mutex> lock(t->mutex);
        replies.swap(t->replies);
    }
    for (reply_t &reply : replies)
        for (session_t &s : t->sessions)
            if (s.is_open() && s.id() == reply.session) {
                s.reply(std::move(reply.frame));
                break;
            }
}

bool is_wanted(const transport_t *t, const zan_notification_st &head)
{
    for (const session_t &s : t->sessions)
        if (s.wants(head))
            return true;
    return false;
}

/* What was lost before it came to a session may have been for anybody. */
void tell_of_loss(transport_t *t, uint32_t lost)
{
    for (session_t &s : t->sessions)
        if (lost && s.is_open())
            s.lose(lost);
}

/* Into the queues of those who want it. */
void spread(transport_t *t, notification_t notification)
{
    tell_of_loss(t, std::exchange(notification.head.lost, 0));
    if (!is_wanted(t, notification.head))
        return;
    try {
        const auto shared = std::make_shared<const notification_t>(std::move(notification));
        for (session_t &s : t->sessions)
            if (s.wants(shared->head))
                s.put(shared);
    } catch (const std::bad_alloc &) {
        tell_of_loss(t, 1);
    }
}

/* Some notifications, into the queues and on their way; true when there may be more. */
bool take_notifications(transport_t *t)
{
    constexpr uint32_t at_a_time = 256;
    notification_t notification;
    uint32_t taken = 0;
    while (taken < at_a_time && t->next_notification && t->next_notification(&notification)) {
        spread(t, std::move(notification));
        taken++;
    }
    for (session_t &s : t->sessions)
        if (s.is_open())
            s.send_notifications();
    return taken == at_a_time;
}

void begin_stop(transport_t *t)
{
    signalfd_siginfo info;
    if (read(t->signals, &info, sizeof info) != (ssize_t)sizeof info)
        return;
    close(t->listener);
    t->listener = -1;
    unlink(t->path.c_str());
    t->stopping = true;
    t->arrived.notify_one();
}

void check_deadlines(transport_t *t, int64_t now_ms)
{
    for (session_t &s : t->sessions)
        if (s.is_open())
            s.check_deadlines(now_ms);
}

bool all_sent(const transport_t *t)
{
    for (const session_t &s : t->sessions)
        if (s.is_open() && s.has_output())
            return false;
    return true;
}

bool is_over(transport_t *t)
{
    if (!t->finish)
        return false;
    const int64_t now = session_now_ms();
    if (!t->finish_by)
        t->finish_by = now + farewell_ms;
    take_replies(t);
    while (take_notifications(t)) {
    }
    return all_sent(t) || now >= t->finish_by;
}

void poll_once(transport_t *t)
{
    pollfd fds[3 + ZAN_CLIENTS_MAX];
    session_t *of[3 + ZAN_CLIENTS_MAX];
    nfds_t count = 3;
    const bool stopping = t->stopping;
    bool room;
    {
        const std::lock_guard<std::mutex> lock(t->mutex);
        room = t->requests.size() < max_queued;
    }
    fds[0] = {session_now_ms() < t->accept_again ? -1 : t->listener, POLLIN, 0};
    fds[1] = {stopping ? -1 : t->signals, POLLIN, 0};
    fds[2] = {t->wake, POLLIN, 0};
    for (session_t &s : t->sessions) {
        if (!s.is_open())
            continue;
        of[count] = &s;
        fds[count++] = {s.fd(), s.events(room, stopping), 0};
    }
    if (poll(fds, count, stopping || !room ? 20 : 500) < 0)
        return;
    for (nfds_t i = 3; i < count; i++)
        if (fds[i].revents)
            serve_session(t, of[i], fds[i].revents);
    if (fds[2].revents) {
        take_replies(t);
        if (take_notifications(t))
            transport_wake(t);
    }
    if (fds[1].revents)
        begin_stop(t);
    if (fds[0].revents && t->listener >= 0)
        accept_session(t);
    check_deadlines(t, session_now_ms());
}

void run_io(transport_t *t) noexcept
{
    for (bool over = false; !over;) {
        try {
            poll_once(t);
            over = is_over(t);
        } catch (const std::bad_alloc &) {
            fprintf(stderr, "zan_agent: no memory for a client's message; it is cut off\n");
            for (session_t &s : t->sessions) /* in the middle of a frame, or of a reply's way */
                if (s.is_open() && s.is_busy())
                    s.close();
            transport_wake(t);
        }
    }
    for (session_t &s : t->sessions)
        if (s.is_open())
            s.close();
}

/* ---- Start ---- */

bool open_events(transport_t *t)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    t->signals = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    t->wake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (t->signals >= 0 && t->wake >= 0)
        return true;
    perror("zan_agent: signal and event descriptors");
    return false;
}

void free_transport(transport_t *t)
{
    for (const int fd : {t->listener, t->signals, t->wake})
        if (fd >= 0)
            close(fd);
    delete t;
}

} // namespace

transport_t *transport_start(const char *path, const zan_hello_reply_st &node,
                             next_notification_f next_notification)
{
    auto *t = new transport_t();
    t->node = node;
    t->next_notification = next_notification;
    t->path = path;
    t->listener = open_listener(path);
    if (t->listener < 0 || !open_events(t)) {
        free_transport(t);
        return nullptr;
    }
    t->thread = std::thread(run_io, t);
    return t;
}

void transport_put(transport_t *t)
{
    put_request(t, {});
}

bool transport_take(transport_t *t, int timeout_ms, request_t *out)
{
    std::unique_lock<std::mutex> lock(t->mutex);
    t->arrived.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                        [t] { return !t->requests.empty() || t->stopping; });
    if (t->requests.empty())
        return false;
    *out = std::move(t->requests.front());
    t->requests.pop_front();
    return true;
}

void transport_reply(transport_t *t, const request_t &request, uint16_t type,
                     std::vector<uint8_t> frame)
{
    set_frame_header(&frame, type, request.hdr.tag);
    {
        const std::lock_guard<std::mutex> lock(t->mutex);
        t->replies.push_back({request.session, std::move(frame)});
    }
    transport_wake(t);
}

void transport_wake(transport_t *t)
{
    const uint64_t one = 1;
    if (write(t->wake, &one, sizeof one) < 0)
        perror("zan_agent: wake-up of the I/O thread");
}

bool transport_is_stopping(const transport_t *t)
{
    return t->stopping;
}

uint32_t transport_num_clients(const transport_t *t)
{
    return t->counts.open;
}

uint64_t transport_num_refused(const transport_t *t)
{
    return t->counts.refused;
}

uint64_t transport_num_dropped(const transport_t *t)
{
    return t->counts.dropped;
}

void transport_finish(transport_t *t)
{
    t->finish = true;
    transport_wake(t);
    t->thread.join();
}

void transport_free(transport_t *t)
{
    if (!t->stopping) /* else it has gone already, and another agent may have one there */
        unlink(t->path.c_str());
    free_transport(t);
}
