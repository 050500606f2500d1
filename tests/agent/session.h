/* A session with a real agent: a process of its own, with the host platform and two simulated NPUs.
 * Tests take the client library or a raw socket. Every test ends with the agent's orderly stop: a
 * process that died of anything fails the test.
 */
#ifndef SESSION_H
#define SESSION_H

#include "agent_process.h"
#include "zan_client.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

struct free_t {
    void operator()(void *block) const
    {
        free(block);
    }
    void operator()(zan_batch_t *batch) const
    {
        zan_batch_free(batch);
    }
};
using object_t = std::unique_ptr<zan_table_base_st, free_t>;
using batch_t = std::unique_ptr<zan_batch_t, free_t>;

inline object_t parse(const char *table, const std::string &text)
{
    char why[256] = "";
    object_t obj(zan_obj_parse(zan_table_def_find(table), text.c_str(), why, sizeof why));
    EXPECT_TRUE(obj) << table << " " << text << ": " << why;
    return obj;
}

class session : public testing::Test
{
protected:
    agent_process_t process;
    std::vector<std::string> options;
    std::string path;
    zan_client_t *client = nullptr;

    void SetUp() override
    {
        process.start(options);
        path = process.socket_path;
        client = process.connect();
        ASSERT_TRUE(client);
    }
    void TearDown() override
    {
        zan_client_close(client);
        process.stop();
    }

    /* The code of one create. */
    zan_rcode create(const char *table, const std::string &text)
    {
        const batch_t batch(zan_batch_new(0, 0));
        const object_t obj = parse(table, text);
        EXPECT_EQ(zan_batch_append(batch.get(), obj.get(), ZAN_TABLE_CREATE), 0);
        EXPECT_EQ(zan_client_run(client, batch.get()), 0) << zan_client_error(client);
        return zan_batch_rc(batch.get(), 0);
    }
    zan_rcode read(const char *table, const std::string &text, std::string *out,
                   uint8_t operation = ZAN_TABLE_GET)
    {
        const object_t lookup = parse(table, text);
        zan_rcode rc = ZAN_RC_BAD_ARGUMENT;
        zan_table_base_st *found = nullptr;
        EXPECT_EQ(zan_client_read(client, operation, lookup.get(), &rc, &found), 0)
            << zan_client_error(client);
        const object_t owned(found);
        char print[65536] = "";
        if (found)
            zan_obj_print(zan_table_def_find(table), found, print, sizeof print);
        *out = print;
        return rc;
    }
    void expect_alive()
    {
        zan_status_st status;
        zan_table_status_st *tables = nullptr;
        EXPECT_EQ(zan_client_status(client, &status, &tables), 0) << zan_client_error(client);
        free(tables);
    }

    /* ---- Without the library ---- */

    int open_raw()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, path.c_str(), path.size());
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        EXPECT_EQ(connect(fd, (const sockaddr *)&address, sizeof address), 0);
        return fd;
    }
    static void send_raw(int fd, const void *bytes, size_t len)
    {
        for (size_t at = 0; at < len;) {
            const ssize_t n = send(fd, (const uint8_t *)bytes + at, len - at, MSG_NOSIGNAL);
            if (n <= 0)
                return;
            at += (size_t)n;
        }
    }
    static void send_frame(int fd, uint16_t type, const void *payload, uint32_t length)
    {
        const zan_frame_hdr_st hdr = {length, type, 0, 1};
        send_raw(fd, &hdr, sizeof hdr);
        send_raw(fd, payload, length);
    }
    static zan_hello_st good_hello()
    {
        zan_hello_st hello = {};
        hello.magic = ZAN_WIRE_MAGIC;
        hello.version = ZAN_WIRE_VERSION;
        hello.fingerprint = zan_schema_fingerprint;
        return hello;
    }
    int open_greeted()
    {
        const int fd = open_raw();
        const zan_hello_st hello = good_hello();
        send_frame(fd, ZAN_FRAME_HELLO, &hello, sizeof hello);
        EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_HELLO_REPLY);
        return fd;
    }
    struct reply_t {
        zan_frame_hdr_st hdr;
        std::vector<uint8_t> payload;
        std::string error() const
        {
            return hdr.type == ZAN_FRAME_ERROR && payload.size() == sizeof(zan_error_st)
                       ? ((const zan_error_st *)payload.data())->text
                       : "";
        }
    };
    /* A whole frame; type 0 when the agent closed. */
    static reply_t receive(int fd)
    {
        reply_t reply = {};
        if (recv(fd, &reply.hdr, sizeof reply.hdr, MSG_WAITALL) != (ssize_t)sizeof reply.hdr)
            return {};
        reply.payload.resize(reply.hdr.length);
        if (reply.hdr.length && recv(fd, reply.payload.data(), reply.hdr.length, MSG_WAITALL) !=
                                    (ssize_t)reply.hdr.length)
            return {};
        return reply;
    }
    static bool is_closed(int fd)
    {
        char byte;
        return recv(fd, &byte, 1, 0) <= 0;
    }
};

#endif
