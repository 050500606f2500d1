/* A session: one client at its socket. Whole requests come out of it; replies and notifications go
 * in. I/O thread.
 *
 * Nothing is trusted: a frame is bounded, grows only as its bytes arrive, and must arrive in time;
 * a client that sends nonsense is told so and cut off. One that does not read its replies is not
 * read from either, and cut off in the end; one that does not read its notifications keeps its
 * queue, which is bounded.
 *
 * Whatever reads or sends may close the session.
 */
#ifndef ZAN_SESSION_H
#define ZAN_SESSION_H

#include "watch_queue.h"
#include "zan_table_def.h"

#include <atomic>
#include <deque>
#include <vector>

/* A request that arrived whole. Its payload is 16-byte aligned. */
struct request_t {
    uint64_t session;
    zan_frame_hdr_st hdr;
    std::vector<uint8_t> payload;
};

/* Frames are header and payload; the header in front is filled in last. */
void set_frame_header(std::vector<uint8_t> *frame, uint16_t type, uint64_t tag);
/* An error as a frame with room for its header in front. */
std::vector<uint8_t> make_error_frame(zan_wire_error_et error, uint32_t object_index,
                                      const char *field, const char *text);

/* Of all sessions together; other threads read them. */
struct session_counts_t {
    std::atomic<uint32_t> open{0};
    std::atomic<uint64_t> refused{0}; /* messages that were not well-formed */
    std::atomic<uint64_t> dropped{0}; /* notifications that nobody read in time */
};

/* Milliseconds by CLOCK_MONOTONIC: that of all deadlines. */
int64_t session_now_ms();

class session_t
{
public:
    /* Begin on a connected socket, which the session closes. `node` is what the client is told of
     * the agent; both pointers must stay. */
    void open(int fd, uint64_t id, const zan_hello_reply_st *node, session_counts_t *counts);
    void close();
    bool is_open() const
    {
        return fd_ >= 0;
    }
    uint64_t id() const
    {
        return id_;
    }
    int fd() const
    {
        return fd_;
    }
    /* Replies or notifications wait to be sent. */
    bool has_output() const;
    /* A frame is on its way in, or a request to its reply, or there was no hello yet. */
    bool is_busy() const
    {
        return hdr_len_ != 0 || under_way_ != 0 || !greeted_;
    }
    /* What to poll(2) for. */
    short events(bool queue_has_room, bool stopping) const;

    /* Read once; true when a request has arrived whole. */
    bool receive(request_t *request);
    /* Send as much as the socket takes. */
    void send();
    /* The reply to a request; nowhere if the session has ended meanwhile. */
    void reply(std::vector<uint8_t> frame);
    void check_deadlines(int64_t now_ms);

    bool wants(const zan_notification_st &head) const;
    void put(notification_ptr_t notification);
    /* So many notifications were lost before they came here. */
    void lose(uint32_t count);
    /* Send the notifications unless replies are ahead of them: then poll(2) tells when. */
    void send_notifications();

private:
    /* A frame on its way out. */
    struct output_t {
        std::vector<uint8_t> frame;
        bool is_reply;
    };

    bool wants_to_read(bool queue_has_room, bool stopping) const;
    size_t next_room(uint8_t **at);
    bool count_bytes(size_t n);
    bool take_frame(request_t *request);
    void greet();
    void watch();
    const std::vector<uint8_t> &next_frame();
    void frame_is_sent();
    void queue_reply(std::vector<uint8_t> frame);
    void end(zan_wire_error_et error, const char *text);

    int fd_ = -1;
    uint64_t id_ = 0;
    const zan_hello_reply_st *node_ = nullptr;
    session_counts_t *counts_ = nullptr;
    bool greeted_ = false;   /* by a good hello */
    bool closing_ = false;   /* nothing is read any more; closed when its output is sent */
    uint32_t under_way_ = 0; /* requests whose replies are not sent in full */

    zan_frame_hdr_st hdr_ = {};
    size_t hdr_len_ = 0; /* bytes of the header that are there */
    std::vector<uint8_t> payload_;
    size_t payload_len_ = 0;
    int64_t read_by_ = 0; /* deadline of hello or frame; 0: none */

    std::deque<output_t> out_;
    size_t out_at_ = 0;     /* bytes of the first that are sent */
    uint32_t replies_ = 0;  /* in out_ */
    int64_t write_by_ = 0;  /* deadline of progress, while there are replies */
    watch_queue_t watched_; /* notifications behind what is in out_ */
};

#endif
