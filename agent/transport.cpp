/* One poll loop over the listener, the signals, the dispatcher's wake-up and the sessions.
 *
 * Flow control is in one place, wants_to_read: a session is read only while it has fewer than
 * ZAN_PIPELINE_MAX requests whose replies are not sent in full, and while the queue to the
 * dispatcher has room. A frame that was begun is read to its end, so that its deadline is the
 * client's alone.
 */
#include "transport.h"

#include "listener.h"

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include <csignal>
#include <ctime>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr size_t max_queued = 128; /* requests that wait for the dispatcher */
constexpr int64_t hello_ms = 10'000;
constexpr int64_t frame_ms = 30'000;   /* from a frame's first byte to its last */
constexpr int64_t drain_ms = 30'000;   /* without progress, of a client that does not read */
constexpr int64_t farewell_ms = 2'000; /* for the last replies when the agent ends */
constexpr size_t first_read = 64 << 10;

/* A frame on its way out. A client that does not read its replies is cut off; one that does not
 * read its notifications keeps its queue, which is bounded. */
struct output_t {
    std::vector<uint8_t> frame;
    bool is_reply;
};

/* A session's life: opened by accept, greeted by a good hello, then requests; `closing` once an
 * error ends it: nothing is read any more, and it is closed when its output is sent. */
struct session_t {
    int fd = -1;
    uint64_t id = 0;
    bool greeted = false;
    bool closing = false;
    uint32_t under_way = 0; /* requests whose replies are not sent in full */
    zan_frame_hdr_st hdr = {};
    size_t hdr_len = 0; /* bytes of the header that are there */
    std::vector<uint8_t> payload;
    size_t payload_len = 0;
    int64_t read_by = 0; /* deadline of hello or frame; 0: none */
    std::deque<output_t> out;
    size_t out_at = 0;     /* bytes of the first that are sent */
    uint32_t replies = 0;  /* in `out` */
    int64_t write_by = 0;  /* deadline of progress, while there are replies */
    watch_queue_t watched; /* notifications behind what is in `out` */
};

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
    std::atomic<uint32_t> num_clients{0};
    std::atomic<uint64_t> num_refused{0}, num_dropped{0};

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

int64_t now_ms()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (int64_t)t.tv_sec * 1000 + t.tv_nsec / 1000000;
}

void set_header(std::vector<uint8_t> *frame, uint16_t type, uint64_t tag)
{
    const zan_frame_hdr_st hdr = {(uint32_t)(frame->size() - sizeof hdr), type, 0, tag};
    memcpy(frame->data(), &hdr, sizeof hdr);
}

/* ---- Sessions: output ---- */

void close_session(transport_t *t, session_t *s)
{
    close(s->fd);
    *s = session_t();
    t->num_clients--;
}

/* One that is closing hears no notifications any more. */
bool has_output(const session_t *s)
{
    return !s->out.empty() || (!s->closing && !s->watched.empty());
}

/* The next frame to send: replies first. */
const std::vector<uint8_t> &next_frame(session_t *s)
{
    if (s->out.empty()) {
        std::vector<uint8_t> frame = s->watched.take();
        set_header(&frame, ZAN_FRAME_NOTIFICATION, 0);
        s->out.push_back({std::move(frame), false});
    }
    return s->out.front().frame;
}

void frame_is_sent(session_t *s)
{
    if (s->out.front().is_reply) {
        s->replies--;
        s->under_way -= s->under_way != 0; /* a hello's and an error's belong to no request */
    }
    s->out.pop_front();
    s->out_at = 0;
}

void send_some(transport_t *t, session_t *s)
{
    while (has_output(s)) {
        const std::vector<uint8_t> &frame = next_frame(s);
        const ssize_t n = send(s->fd, frame.data() + s->out_at, frame.size() - s->out_at,
                               MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        if (n < 0)
            return close_session(t, s);
        s->out_at += (size_t)n;
        if (s->out_at == frame.size())
            frame_is_sent(s);
        s->write_by = s->replies ? now_ms() + drain_ms : 0;
    }
    if (s->closing && !s->under_way)
        close_session(t, s);
}

void queue_output(session_t *s, std::vector<uint8_t> frame)
{
    if (s->replies++ == 0)
        s->write_by = now_ms() + drain_ms;
    s->out.push_back({std::move(frame), true});
}

/* The session cannot go on: say why, then close. */
void end_session(transport_t *t, session_t *s, zan_wire_error_et error, const char *text)
{
    t->num_refused++;
    std::vector<uint8_t> frame = make_error_frame(error, ZAN_WIRE_NO_INDEX, "", text);
    set_header(&frame, ZAN_FRAME_ERROR, s->hdr.tag);
    s->closing = true;
    s->under_way = 0; /* what is answered later goes nowhere */
    s->read_by = 0;
    queue_output(s, std::move(frame));
    send_some(t, s);
}

/* ---- Sessions: input ---- */

const char *hello_fault(const session_t *s, char *text, size_t size)
{
    zan_hello_st hello;
    if (s->hdr.type != ZAN_FRAME_HELLO || s->payload_len != sizeof hello)
        return "the session must begin with a hello";
    memcpy(&hello, s->payload.data(), sizeof hello);
    if (hello.magic != ZAN_WIRE_MAGIC)
        return "this is the table agent's socket, and that was no hello of its clients";
    if (hello.version != ZAN_WIRE_VERSION) {
        snprintf(text, size, "the client speaks version %u of the protocol, the agent version %u",
                 hello.version, ZAN_WIRE_VERSION);
        return text;
    }
    if (hello.fingerprint != zan_schema_fingerprint) {
        snprintf(text, size,
                 "the client was built from other table definitions (%016llx) than "
                 "the agent (%016llx): build both from the same definitions",
                 (unsigned long long)hello.fingerprint, (unsigned long long)zan_schema_fingerprint);
        return text;
    }
    return nullptr;
}

void greet(transport_t *t, session_t *s)
{
    char text[256];
    if (const char *fault = hello_fault(s, text, sizeof text))
        return end_session(t, s, ZAN_WIRE_BAD_HELLO, fault);
    zan_hello_reply_st reply = t->node;
    reply.client_id = (uint32_t)s->id;
    std::vector<uint8_t> frame(sizeof(zan_frame_hdr_st) + sizeof reply);
    memcpy(frame.data() + sizeof(zan_frame_hdr_st), &reply, sizeof reply);
    set_header(&frame, ZAN_FRAME_HELLO_REPLY, s->hdr.tag);
    s->greeted = true;
    queue_output(s, std::move(frame));
    send_some(t, s);
}

/* What the session wants counts from now on; the dispatcher checks the request and answers it in
 * its turn. */
void watch(session_t *s)
{
    zan_watch_st wanted;
    if (s->payload_len != sizeof wanted)
        return;
    memcpy(&wanted, s->payload.data(), sizeof wanted);
    if (is_watch(wanted))
        s->watched.watch(wanted);
}

/* Pass a whole frame on. The session may be closed afterwards. */
void take_frame(transport_t *t, session_t *s)
{
    s->hdr_len = 0;
    s->read_by = 0;
    if (!s->greeted)
        return greet(t, s);
    switch (s->hdr.type) {
    case ZAN_FRAME_BATCH:
    case ZAN_FRAME_STATUS:
    case ZAN_FRAME_COMPARE:
    case ZAN_FRAME_GRAPH:
    case ZAN_FRAME_WALK:
    case ZAN_FRAME_WALK_COUNTS:
    case ZAN_FRAME_RESOURCES:
    case ZAN_FRAME_FAILED:
    case ZAN_FRAME_QUARANTINE:
    case ZAN_FRAME_TABLE:
    case ZAN_FRAME_SIM:
    case ZAN_FRAME_TRACE:
    case ZAN_FRAME_TRACE_CLASSES:
    case ZAN_FRAME_COUNTERS:
    case ZAN_FRAME_PERF:
    case ZAN_FRAME_ABOUT:
    case ZAN_FRAME_STATS:
        break;
    case ZAN_FRAME_WATCH:
        watch(s);
        break;
    case ZAN_FRAME_GOODBYE:
        s->closing = true;
        return !s->replies && !s->under_way ? close_session(t, s) : (void)0;
    default:
        return end_session(t, s, ZAN_WIRE_BAD_FRAME, "a client does not send this type of frame");
    }
    s->under_way++;
    s->payload.resize(s->payload_len);
    {
        const std::lock_guard<std::mutex> lock(t->mutex);
        t->requests.push_back({s->id, s->hdr, std::move(s->payload)});
    }
    t->arrived.notify_one();
    s->payload = std::vector<uint8_t>();
}

/* Where the next bytes go, and how many: the payload grows as it fills. */
size_t next_room(session_t *s, uint8_t **at)
{
    if (s->hdr_len < sizeof s->hdr) {
        *at = (uint8_t *)&s->hdr + s->hdr_len;
        return sizeof s->hdr - s->hdr_len;
    }
    if (s->payload_len == s->payload.size()) {
        const size_t want = s->payload_len ? 2 * s->payload_len : first_read;
        s->payload.resize(want < s->hdr.length ? want : s->hdr.length);
    }
    *at = s->payload.data() + s->payload_len;
    return s->payload.size() - s->payload_len;
}

/* Count bytes in; false when the header that they complete is refused. */
bool count_bytes(transport_t *t, session_t *s, size_t n)
{
    if (s->hdr_len == sizeof s->hdr) {
        s->payload_len += n;
        return true;
    }
    if (s->hdr_len == 0 && s->greeted)
        s->read_by = now_ms() + frame_ms;
    s->hdr_len += n;
    s->payload_len = 0;
    s->payload.clear();
    if (s->hdr_len < sizeof s->hdr)
        return true;
    const uint32_t max = s->greeted ? ZAN_FRAME_MAX : (uint32_t)sizeof(zan_hello_st);
    char text[160];
    if (s->hdr.reserved || s->hdr.length > max) {
        snprintf(text, sizeof text,
                 "no frame header: a length of %u bytes (at most %u) and a "
                 "reserved field of %u",
                 s->hdr.length, max, s->hdr.reserved);
        end_session(t, s, s->greeted ? ZAN_WIRE_BAD_FRAME : ZAN_WIRE_BAD_HELLO, text);
        return false;
    }
    return true;
}

/* One read. The session may be closed afterwards. */
void receive_some(transport_t *t, session_t *s)
{
    uint8_t *at;
    const size_t room = next_room(s, &at);
    const ssize_t n = recv(s->fd, at, room, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (n <= 0)
        return close_session(t, s);
    if (!count_bytes(t, s, (size_t)n))
        return;
    if (s->hdr_len == sizeof s->hdr && s->payload_len == s->hdr.length)
        take_frame(t, s);
}

/* ---- The listener ---- */

void accept_session(transport_t *t)
{
    const int fd = accept4(t->listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOMEM)
            t->accept_again = now_ms() + 1000;
        return;
    }
    session_t *s = t->sessions;
    while (s < t->sessions + ZAN_CLIENTS_MAX && s->fd >= 0)
        s++;
    if (s == t->sessions + ZAN_CLIENTS_MAX) {
        std::vector<uint8_t> frame =
            make_error_frame(ZAN_WIRE_UNAVAILABLE, ZAN_WIRE_NO_INDEX, "",
                             "the agent serves as many clients as it can: try again later");
        set_header(&frame, ZAN_FRAME_ERROR, 0);
        send(fd, frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        close(fd);
        return;
    }
    s->fd = fd;
    s->id = ++t->last_session;
    s->read_by = now_ms() + hello_ms;
    t->num_clients++;
}

/* ---- The loop ---- */

bool wants_to_read(const session_t *s, bool queue_has_room, bool stopping)
{
    if (s->closing || stopping)
        return false;
    return s->hdr_len > 0 || (queue_has_room && s->under_way < ZAN_PIPELINE_MAX);
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
            if (s.fd >= 0 && s.id == reply.session && s.under_way) {
                queue_output(&s, std::move(reply.frame));
                send_some(t, &s);
                break;
            }
}

bool is_wanted(const transport_t *t, const zan_notification_st &head)
{
    for (const session_t &s : t->sessions)
        if (s.fd >= 0 && !s.closing && s.watched.wants(head))
            return true;
    return false;
}

/* What was lost before it came here may have been for anybody. */
void tell_of_loss(transport_t *t, uint32_t lost)
{
    for (session_t &s : t->sessions)
        if (lost && s.fd >= 0)
            s.watched.lose(lost);
}

/* Some notifications, into the queues of those who want them; then they are sent, and the thread
 * comes back for more. */
void take_notifications(transport_t *t)
{
    constexpr uint32_t at_a_time = 256;
    notification_t notification;
    uint32_t taken = 0;
    for (; taken < at_a_time && t->next_notification && t->next_notification(&notification);
         taken++) {
        tell_of_loss(t, std::exchange(notification.head.lost, 0));
        if (!is_wanted(t, notification.head))
            continue;
        const auto shared = std::make_shared<const notification_t>(std::move(notification));
        for (session_t &s : t->sessions)
            if (s.fd >= 0 && !s.closing && s.watched.wants(shared->head))
                t->num_dropped += s.watched.put(shared);
    }
    for (session_t &s : t->sessions)
        if (s.fd >= 0 && s.out.empty() && has_output(&s))
            send_some(t, &s);
    if (taken == at_a_time)
        transport_wake(t);
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

void check_deadlines(transport_t *t, int64_t now)
{
    for (session_t &s : t->sessions) {
        if (s.fd < 0)
            continue;
        if (s.write_by && now >= s.write_by)
            close_session(t, &s);
        else if (s.read_by && now >= s.read_by)
            end_session(t, &s, s.greeted ? ZAN_WIRE_BAD_FRAME : ZAN_WIRE_BAD_HELLO,
                        s.greeted ? "the frame did not arrive in time" : "no hello came in time");
    }
}

bool all_sent(const transport_t *t)
{
    for (const session_t &s : t->sessions)
        if (s.fd >= 0 && s.replies)
            return false;
    return true;
}

bool is_over(transport_t *t)
{
    if (!t->finish)
        return false;
    const int64_t now = now_ms();
    if (!t->finish_by)
        t->finish_by = now + farewell_ms;
    take_replies(t);
    return all_sent(t) || now >= t->finish_by;
}

void serve_session(transport_t *t, session_t *s, short events)
{
    const uint64_t id = s->id;
    if (events & POLLOUT)
        send_some(t, s);
    const bool still_there = s->fd >= 0 && s->id == id;
    if (still_there && (events & POLLIN))
        receive_some(t, s);
    else if (still_there && (events & (POLLERR | POLLHUP)))
        close_session(t, s);
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
    fds[0] = {now_ms() < t->accept_again ? -1 : t->listener, POLLIN, 0};
    fds[1] = {stopping ? -1 : t->signals, POLLIN, 0};
    fds[2] = {t->wake, POLLIN, 0};
    for (session_t &s : t->sessions) {
        if (s.fd < 0)
            continue;
        const short events = (short)((wants_to_read(&s, room, stopping) ? POLLIN : 0) |
                                     (has_output(&s) ? POLLOUT : 0));
        of[count] = &s;
        fds[count++] = {s.fd, events, 0};
    }
    if (poll(fds, count, stopping || !room ? 20 : 500) < 0)
        return;
    for (nfds_t i = 3; i < count; i++)
        if (fds[i].revents)
            serve_session(t, of[i], fds[i].revents);
    if (fds[2].revents) {
        take_replies(t);
        take_notifications(t);
    }
    if (fds[1].revents)
        begin_stop(t);
    if (fds[0].revents && t->listener >= 0)
        accept_session(t);
    check_deadlines(t, now_ms());
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
                if (s.fd >= 0 && (s.hdr_len || s.under_way))
                    close_session(t, &s);
            transport_wake(t);
        }
    }
    for (session_t &s : t->sessions)
        if (s.fd >= 0)
            close_session(t, &s);
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

std::vector<uint8_t> make_error_frame(zan_wire_error_et error, uint32_t object_index,
                                      const char *field, const char *text)
{
    zan_error_st e = {};
    e.error = error;
    e.object_index = object_index;
    snprintf(e.field, sizeof e.field, "%s", field);
    snprintf(e.text, sizeof e.text, "%s", text);
    std::vector<uint8_t> frame(sizeof(zan_frame_hdr_st) + sizeof e);
    memcpy(frame.data() + sizeof(zan_frame_hdr_st), &e, sizeof e);
    return frame;
}

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
    {
        const std::lock_guard<std::mutex> lock(t->mutex);
        t->requests.push_back({});
    }
    t->arrived.notify_one();
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
    set_header(&frame, type, request.hdr.tag);
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
    return t->num_clients;
}

uint64_t transport_num_refused(const transport_t *t)
{
    return t->num_refused;
}

uint64_t transport_num_dropped(const transport_t *t)
{
    return t->num_dropped;
}

void transport_stop(transport_t *t)
{
    t->finish = true;
    transport_wake(t);
    t->thread.join();
    if (!t->stopping) /* else it has gone already, and another agent may have one there */
        unlink(t->path.c_str());
    free_transport(t);
}
