#include "session.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include <ctime>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr int64_t hello_ms = 10'000;
constexpr int64_t frame_ms = 30'000; /* from a frame's first byte to its last */
constexpr int64_t drain_ms = 30'000; /* without progress, of a client that does not read */
constexpr size_t first_read = 64 << 10;

bool is_request(uint16_t type)
{
    switch (type) {
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
    case ZAN_FRAME_WATCH:
    case ZAN_FRAME_TRACE:
    case ZAN_FRAME_TRACE_CLASSES:
    case ZAN_FRAME_COUNTERS:
    case ZAN_FRAME_PERF:
    case ZAN_FRAME_ABOUT:
    case ZAN_FRAME_STATS:
        return true;
    default:
        return false;
    }
}

/* Null, or why it is no hello of a client that fits. */
const char *hello_fault(const zan_frame_hdr_st &hdr, const uint8_t *payload, size_t len, char *text,
                        size_t size)
{
    zan_hello_st hello;
    if (hdr.type != ZAN_FRAME_HELLO || len != sizeof hello)
        return "the session must begin with a hello";
    memcpy(&hello, payload, sizeof hello);
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

} // namespace

int64_t session_now_ms()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (int64_t)t.tv_sec * 1000 + t.tv_nsec / 1000000;
}

void set_frame_header(std::vector<uint8_t> *frame, uint16_t type, uint64_t tag)
{
    const zan_frame_hdr_st hdr = {(uint32_t)(frame->size() - sizeof hdr), type, 0, tag};
    memcpy(frame->data(), &hdr, sizeof hdr);
}

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

/* ---- From accept to close ---- */

void session_t::open(int fd, uint64_t id, const zan_hello_reply_st *node, session_counts_t *counts)
{
    fd_ = fd;
    id_ = id;
    node_ = node;
    counts_ = counts;
    read_by_ = session_now_ms() + hello_ms;
    counts->open++;
}

void session_t::close()
{
    ::close(fd_);
    counts_->open--;
    *this = session_t();
}

/* It cannot go on: say why, then close. */
void session_t::end(zan_wire_error_et error, const char *text)
{
    counts_->refused++;
    std::vector<uint8_t> frame = make_error_frame(error, ZAN_WIRE_NO_INDEX, "", text);
    set_frame_header(&frame, ZAN_FRAME_ERROR, hdr_.tag);
    closing_ = true;
    under_way_ = 0; /* what is answered later goes nowhere */
    read_by_ = 0;
    queue_reply(std::move(frame));
    send();
}

void session_t::check_deadlines(int64_t now_ms)
{
    if (write_by_ && now_ms >= write_by_)
        close();
    else if (read_by_ && now_ms >= read_by_)
        end(greeted_ ? ZAN_WIRE_BAD_FRAME : ZAN_WIRE_BAD_HELLO,
            greeted_ ? "the frame did not arrive in time" : "no hello came in time");
}

bool session_t::wants_to_read(bool queue_has_room, bool stopping) const
{
    if (closing_ || stopping)
        return false;
    return hdr_len_ > 0 || (queue_has_room && under_way_ < ZAN_PIPELINE_MAX);
}

short session_t::events(bool queue_has_room, bool stopping) const
{
    return (short)((wants_to_read(queue_has_room, stopping) ? POLLIN : 0) |
                   (has_output() ? POLLOUT : 0));
}

/* ---- In ---- */

/* Where the next bytes go, and how many: the payload grows as it fills. */
size_t session_t::next_room(uint8_t **at)
{
    if (hdr_len_ < sizeof hdr_) {
        *at = (uint8_t *)&hdr_ + hdr_len_;
        return sizeof hdr_ - hdr_len_;
    }
    if (payload_len_ == payload_.size()) {
        const size_t want = payload_len_ ? 2 * payload_len_ : first_read;
        payload_.resize(want < hdr_.length ? want : hdr_.length);
    }
    *at = payload_.data() + payload_len_;
    return payload_.size() - payload_len_;
}

/* Count bytes in; false when the header that they complete is refused. */
bool session_t::count_bytes(size_t n)
{
    if (hdr_len_ == sizeof hdr_) {
        payload_len_ += n;
        return true;
    }
    if (hdr_len_ == 0 && greeted_)
        read_by_ = session_now_ms() + frame_ms;
    hdr_len_ += n;
    payload_len_ = 0;
    payload_.clear();
    if (hdr_len_ < sizeof hdr_)
        return true;
    const uint32_t max = greeted_ ? ZAN_FRAME_MAX : (uint32_t)sizeof(zan_hello_st);
    char text[160];
    if (hdr_.reserved || hdr_.length > max) {
        snprintf(text, sizeof text,
                 "no frame header: a length of %u bytes (at most %u) and a "
                 "reserved field of %u",
                 hdr_.length, max, hdr_.reserved);
        end(greeted_ ? ZAN_WIRE_BAD_FRAME : ZAN_WIRE_BAD_HELLO, text);
        return false;
    }
    return true;
}

bool session_t::receive(request_t *request)
{
    uint8_t *at;
    const size_t room = next_room(&at);
    const ssize_t n = recv(fd_, at, room, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR))
        return false;
    if (n <= 0) {
        close();
        return false;
    }
    if (!count_bytes((size_t)n))
        return false;
    return hdr_len_ == sizeof hdr_ && payload_len_ == hdr_.length && take_frame(request);
}

/* A frame is there; true when it is for the dispatcher. */
bool session_t::take_frame(request_t *request)
{
    hdr_len_ = 0;
    read_by_ = 0;
    if (!greeted_) {
        greet();
        return false;
    }
    if (hdr_.type == ZAN_FRAME_GOODBYE) {
        closing_ = true;
        if (!replies_ && !under_way_)
            close();
        return false;
    }
    if (!is_request(hdr_.type)) {
        end(ZAN_WIRE_BAD_FRAME, "a client does not send this type of frame");
        return false;
    }
    if (hdr_.type == ZAN_FRAME_WATCH)
        watch();
    under_way_++;
    payload_.resize(payload_len_);
    *request = {id_, hdr_, std::exchange(payload_, {})};
    return true;
}

void session_t::greet()
{
    char text[256];
    if (const char *fault = hello_fault(hdr_, payload_.data(), payload_len_, text, sizeof text))
        return end(ZAN_WIRE_BAD_HELLO, fault);
    zan_hello_reply_st reply = *node_;
    reply.client_id = (uint32_t)id_;
    std::vector<uint8_t> frame(sizeof(zan_frame_hdr_st) + sizeof reply);
    memcpy(frame.data() + sizeof(zan_frame_hdr_st), &reply, sizeof reply);
    set_frame_header(&frame, ZAN_FRAME_HELLO_REPLY, hdr_.tag);
    greeted_ = true;
    queue_reply(std::move(frame));
    send();
}

/* What the session wants counts from now on; the dispatcher checks the request and answers it in
 * its turn. */
void session_t::watch()
{
    zan_watch_st wanted;
    if (payload_len_ != sizeof wanted)
        return;
    memcpy(&wanted, payload_.data(), sizeof wanted);
    if (is_watch(wanted))
        watched_.watch(wanted);
}

/* ---- Out ---- */

/* One that is closing hears no notifications any more. */
bool session_t::has_output() const
{
    return !out_.empty() || (!closing_ && !watched_.empty());
}

/* The next frame to send: replies first. */
const std::vector<uint8_t> &session_t::next_frame()
{
    if (out_.empty()) {
        std::vector<uint8_t> frame = watched_.take();
        set_frame_header(&frame, ZAN_FRAME_NOTIFICATION, 0);
        out_.push_back({std::move(frame), false});
    }
    return out_.front().frame;
}

void session_t::frame_is_sent()
{
    if (out_.front().is_reply) {
        replies_--;
        under_way_ -= under_way_ != 0; /* a hello's and an error's belong to no request */
    }
    out_.pop_front();
    out_at_ = 0;
}

void session_t::send()
{
    while (has_output()) {
        const std::vector<uint8_t> &frame = next_frame();
        const ssize_t n = ::send(fd_, frame.data() + out_at_, frame.size() - out_at_,
                                 MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        if (n < 0)
            return close();
        out_at_ += (size_t)n;
        if (out_at_ == frame.size())
            frame_is_sent();
        write_by_ = replies_ ? session_now_ms() + drain_ms : 0;
    }
    if (closing_ && !under_way_)
        close();
}

void session_t::queue_reply(std::vector<uint8_t> frame)
{
    if (replies_++ == 0)
        write_by_ = session_now_ms() + drain_ms;
    out_.push_back({std::move(frame), true});
}

void session_t::reply(std::vector<uint8_t> frame)
{
    if (!under_way_)
        return;
    queue_reply(std::move(frame));
    send();
}

/* ---- Notifications ---- */

bool session_t::wants(const zan_notification_st &head) const
{
    return is_open() && !closing_ && watched_.wants(head);
}

void session_t::put(notification_ptr_t notification)
{
    counts_->dropped += watched_.put(std::move(notification));
}

void session_t::lose(uint32_t count)
{
    watched_.lose(count);
}

void session_t::send_notifications()
{
    if (out_.empty() && has_output())
        send();
}
