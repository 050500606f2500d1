/* The records behind the client library's handles, shared by its sources. */
#ifndef ZAN_CLIENT_STATE_H
#define ZAN_CLIENT_STATE_H

#include "zan_client.h"

#include <initializer_list>
#include <vector>

/* A growing block of bytes, 16-byte aligned. */
struct byte_block_t {
    uint8_t *bytes;
    size_t len, capacity;
};
bool block_reserve(byte_block_t *block, size_t len);

struct zan_client_t {
    int fd;             /* -1: lost */
    uint64_t next_tag;  /* of the next request */
    uint64_t reply_tag; /* that the next reply must carry */
    zan_hello_reply_st node;
    zan_client_notify_f notify; /* null: notifications are dropped */
    void *notify_arg;
    byte_block_t notification; /* the one that is being delivered */
    bool has_refusal;
    zan_error_st refusal;
    char error[512];
};

struct zan_batch_t {
    uint32_t flags;
    uint32_t payload;
    byte_block_t request;          /* frame header, batch frame, objects */
    std::vector<uint32_t> offsets; /* of the objects, from the start of the first */
    byte_block_t reply;            /* zan_batch_reply_st, slots, objects */
    bool answered;
};

/* Record a failure in words; always -1. */
__attribute__((format(printf, 2, 3))) int client_fail(zan_client_t *client, const char *format,
                                                      ...);
/* The same, and the session is over. */
__attribute__((format(printf, 2, 3))) int client_lose(zan_client_t *client, const char *format,
                                                      ...);

/* Send one frame: `frame` is a header with length and type filled in, the payload follows it. */
int client_send(zan_client_t *client, uint8_t *frame);
/* Receive the reply to the oldest request into `payload`: its type must be the wanted one. An error
 * reply becomes the client's refusal. */
int client_receive(zan_client_t *client, uint16_t type, byte_block_t *payload);
/* Receive whatever comes next, a reply or a notification; the latter is delivered here. The header
 * of a reply is left in *hdr, its payload in `payload`. 1: a notification was delivered, 0: a
 * reply is there, -1: neither. */
int client_receive_frame(zan_client_t *client, zan_frame_hdr_st *hdr, byte_block_t *payload);
/* An error frame's payload becomes the client's refusal; always -1. */
int client_take_refusal(zan_client_t *client, const byte_block_t *payload);
/* Give a notification to the client's function. */
int client_deliver(zan_client_t *client, const byte_block_t *frame);
/* Send a frame of a type with a payload, and receive its reply. */
int client_ask(zan_client_t *client, uint16_t type, const void *payload, uint32_t length,
               uint16_t reply_type, byte_block_t *reply);

/* A kind of rows in a reply: where in its head their number (32 bits) stands, the size of one, and
 * where they go. */
struct client_rows_t {
    size_t count_offset, size;
    void **out;
};
/* Take the reply apart that client_ask got, `asked` being what it returned, and free it: a head,
 * then rows of each kind in their order, in memory of their own with one byte more. The outs are
 * null when it fails. */
int client_take(zan_client_t *client, int asked, byte_block_t *reply, void *head, size_t head_size,
                std::initializer_list<client_rows_t> rows);

/* What walks did, as it stands in a reply from `at` to its end, in a block of its own. */
int client_take_walk_counts(zan_client_t *client, const byte_block_t *reply, size_t at,
                            zan_walk_counts_st **counts);

#endif
