/* The session: the socket, the hello, frames out and in, and what went wrong in words. */
#include "client_state.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

bool block_reserve(byte_block_t *block, size_t len)
{
    if (len <= block->capacity)
        return true;
    size_t capacity = block->capacity ? block->capacity : 4096;
    while (capacity < len)
        capacity *= 2;
    void *bytes = realloc(block->bytes, capacity);
    if (!bytes)
        return false;
    block->bytes = (uint8_t *)bytes;
    block->capacity = capacity;
    return true;
}

/* ---- Failures ---- */

static int fail_v(zan_client_t *client, const char *format, va_list args)
{
    client->has_refusal = false;
    vsnprintf(client->error, sizeof client->error, format, args);
    return -1;
}

int client_fail(zan_client_t *client, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int result = fail_v(client, format, args);
    va_end(args);
    return result;
}

int client_lose(zan_client_t *client, const char *format, ...)
{
    if (client->fd >= 0)
        close(client->fd);
    client->fd = -1;
    va_list args;
    va_start(args, format);
    const int result = fail_v(client, format, args);
    va_end(args);
    return result;
}

/* The agent's words, with the place in front. */
int client_take_refusal(zan_client_t *client, const byte_block_t *payload)
{
    if (payload->len != sizeof client->refusal)
        return client_lose(client, "the agent sent an error of %zu bytes", payload->len);
    zan_error_st *e = &client->refusal;
    memcpy(e, payload->bytes, sizeof *e);
    e->field[sizeof e->field - 1] = 0;
    e->text[sizeof e->text - 1] = 0;
    char place[160] = "";
    if (e->object_index != ZAN_WIRE_NO_INDEX)
        snprintf(place, sizeof place, "object %u: ", e->object_index);
    if (e->field[0])
        snprintf(place + strlen(place), sizeof place - strlen(place), "%s: ", e->field);
    client_fail(client, "%s%s", place, e->text);
    client->has_refusal = true;
    return -1;
}

/* ---- Frames ---- */

int client_send(zan_client_t *client, uint8_t *frame)
{
    if (client->fd < 0)
        return client_fail(client, "the session is over: connect again");
    zan_frame_hdr_st hdr;
    memcpy(&hdr, frame, sizeof hdr);
    if (hdr.length > ZAN_FRAME_MAX)
        return client_fail(client, "%u bytes exceed a frame of %u", hdr.length, ZAN_FRAME_MAX);
    if (client->next_tag - client->reply_tag >= ZAN_PIPELINE_MAX)
        return client_fail(client, "%u requests are under way already", ZAN_PIPELINE_MAX);
    hdr.tag = client->next_tag;
    memcpy(frame, &hdr, sizeof hdr);
    const size_t len = sizeof hdr + hdr.length;
    for (size_t at = 0; at < len;) {
        const ssize_t n = send(client->fd, frame + at, len - at, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EPIPE || errno == ECONNRESET))
            break; /* the agent may have said why: the reply tells */
        if (n < 0)
            return client_lose(client, "sending to the agent: %s", strerror(errno));
        at += (size_t)n;
    }
    client->next_tag++;
    return 0;
}

static int receive_bytes(zan_client_t *client, uint8_t *out, size_t len)
{
    for (size_t at = 0; at < len;) {
        const ssize_t n = recv(client->fd, out + at, len - at, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return client_lose(client, "receiving from the agent: %s", strerror(errno));
        if (n == 0)
            return client_lose(client, "the agent closed the session");
        at += (size_t)n;
    }
    return 0;
}

int client_receive_frame(zan_client_t *client, zan_frame_hdr_st *hdr, byte_block_t *payload)
{
    if (receive_bytes(client, (uint8_t *)hdr, sizeof *hdr))
        return -1;
    if (hdr->length > ZAN_FRAME_MAX)
        return client_lose(client, "the agent sent a frame of %u bytes", hdr->length);
    const bool notified = hdr->type == ZAN_FRAME_NOTIFICATION;
    byte_block_t *block = notified ? &client->notification : payload;
    if (!block_reserve(block, hdr->length))
        return client_lose(client, "no memory for a frame of %u bytes", hdr->length);
    block->len = hdr->length;
    if (receive_bytes(client, block->bytes, hdr->length))
        return -1;
    if (!notified)
        return 0;
    return client_deliver(client, block) ? -1 : 1;
}

int client_receive(zan_client_t *client, uint16_t type, byte_block_t *payload)
{
    if (client->fd < 0)
        return client_fail(client, "the session is over: connect again");
    if (client->reply_tag == client->next_tag)
        return client_fail(client, "no request is under way");
    zan_frame_hdr_st hdr;
    int received;
    while ((received = client_receive_frame(client, &hdr, payload)) > 0) {
    }
    if (received < 0)
        return -1;
    if (hdr.type == ZAN_FRAME_ERROR) { /* one that ends the session may carry any tag */
        client->reply_tag++;
        return client_take_refusal(client, payload);
    }
    if (hdr.tag != client->reply_tag || hdr.type != type)
        return client_lose(client,
                           "the agent answered request %llu with a frame of type %u, "
                           "request %llu",
                           (unsigned long long)client->reply_tag, hdr.type,
                           (unsigned long long)hdr.tag);
    client->reply_tag++;
    return 0;
}

int client_ask(zan_client_t *client, uint16_t type, const void *payload, uint32_t length,
               uint16_t reply_type, byte_block_t *reply)
{
    const zan_frame_hdr_st hdr = {length, type, 0, 0};
    auto *frame = (uint8_t *)malloc(sizeof hdr + length);
    if (!frame)
        return client_fail(client, "no memory");
    memcpy(frame, &hdr, sizeof hdr);
    if (length)
        memcpy(frame + sizeof hdr, payload, length);
    const int sent = client_send(client, frame);
    free(frame);
    return sent ? -1 : client_receive(client, reply_type, reply);
}

/* ---- Open and close ---- */

/* What to do about an agent that is not reached. */
static int explain_connect(zan_client_t *client, const char *path, int error)
{
    struct stat facts = {};
    if (error == EACCES || error == EPERM)
        return client_lose(
            client,
            "no way to the agent at %s (%s): ask as its user, or as one who may write "
            "to the socket",
            path, strerror(error));
    if (error == ECONNREFUSED && stat(path, &facts) == 0 && !S_ISSOCK(facts.st_mode))
        return client_lose(client, "%s is a %s, no socket: name the one that zan_agent listens on",
                           path, S_ISDIR(facts.st_mode) ? "directory" : "file");
    if (error == ECONNREFUSED)
        return client_lose(client,
                           "no agent listens at %s (%s): start zan_agent, or name its socket", path,
                           strerror(error));
    return client_lose(client, "no agent at %s (%s): start zan_agent, or name its socket", path,
                       strerror(error));
}

static int open_socket(zan_client_t *client, const char *path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof address.sun_path)
        return client_fail(client, "the socket path %s is too long: at most %zu bytes", path,
                           sizeof address.sun_path - 1);
    memcpy(address.sun_path, path, strlen(path));
    client->fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (client->fd < 0)
        return client_fail(client, "a socket: %s", strerror(errno));
    if (connect(client->fd, (const sockaddr *)&address, sizeof address) < 0)
        return explain_connect(client, path, errno);
    return 0;
}

static int say_hello(zan_client_t *client, const char *name)
{
    zan_hello_st hello = {};
    hello.magic = ZAN_WIRE_MAGIC;
    hello.fingerprint = zan_schema_fingerprint;
    hello.version = ZAN_WIRE_VERSION;
    snprintf(hello.name, sizeof hello.name, "%s", name);
    byte_block_t reply = {};
    int result =
        client_ask(client, ZAN_FRAME_HELLO, &hello, sizeof hello, ZAN_FRAME_HELLO_REPLY, &reply);
    if (result == 0 && reply.len != sizeof client->node)
        result = client_lose(client, "the agent's hello has %zu bytes", reply.len);
    if (result == 0)
        memcpy(&client->node, reply.bytes, sizeof client->node);
    free(reply.bytes);
    return result;
}

zan_client_t *zan_client_connect(const char *socket_path, const char *name, char *why,
                                 size_t why_size)
{
    auto *client = new (std::nothrow) zan_client_t{};
    if (!client) {
        snprintf(why, why_size, "no memory");
        return nullptr;
    }
    client->fd = -1;
    if (open_socket(client, socket_path) == 0 && say_hello(client, name) == 0)
        return client;
    snprintf(why, why_size, "%s", client->error);
    zan_client_close(client);
    return nullptr;
}

void zan_client_close(zan_client_t *client)
{
    if (!client)
        return;
    if (client->fd >= 0) {
        const zan_frame_hdr_st goodbye = {0, ZAN_FRAME_GOODBYE, 0, client->next_tag};
        send(client->fd, &goodbye, sizeof goodbye, MSG_NOSIGNAL | MSG_DONTWAIT);
        close(client->fd);
    }
    free(client->notification.bytes);
    delete client;
}

const zan_hello_reply_st *zan_client_node(const zan_client_t *client)
{
    return &client->node;
}

const char *zan_client_error(const zan_client_t *client)
{
    return client->error;
}

const zan_error_st *zan_client_refusal(const zan_client_t *client)
{
    return client->has_refusal ? &client->refusal : nullptr;
}

bool zan_client_lost(const zan_client_t *client)
{
    return client->fd < 0;
}
