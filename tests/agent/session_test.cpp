/* Sessions with a real agent: a process of its own, with the host platform and two simulated NPUs.
 *
 * One part uses the client library as its users do. The other sends what no client of ours would
 * send, over raw sockets, and after each offence a second client must still be served. Every test
 * ends with the agent's orderly stop: a process that died of anything fails the test.
 */
#include "agent_process.h"
#include "wire_batches.h"
#include "zan_client.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

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

object_t parse(const char *table, const std::string &text)
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

std::string group_text(int id, int members)
{
    std::string text = "nhg_id=" + std::to_string(id);
    for (int m = 0; m < members; m++)
        text += " weight[" + std::to_string(m) + "]=" + std::to_string(m + 1);
    return text;
}

TEST_F(session, creates_reads_and_walks)
{
    EXPECT_EQ(zan_client_node(client)->num_npus, 2u);
    EXPECT_EQ(create("l3intf", "intf=300 ipv4_mtu=1500"), (zan_rcode)EOK);
    EXPECT_EQ(create("l3intf", "intf=5 ipv4_mtu=9000"), (zan_rcode)EOK);
    EXPECT_EQ(create("l3intf", "intf=5 ipv4_mtu=9000"), ZAN_RC_EXISTS);
    std::string text;
    EXPECT_EQ(read("l3intf", "intf=300", &text), (zan_rcode)EOK);
    EXPECT_EQ(text, "intf=300 ipv4_mtu=1500");
    EXPECT_EQ(read("l3intf", "intf=301", &text), ZAN_RC_NOT_FOUND);
    EXPECT_EQ(read("l3intf", "intf=5", &text, ZAN_TABLE_GET_NEXT), (zan_rcode)EOK);
    EXPECT_EQ(text, "intf=300 ipv4_mtu=1500");

    std::string walk;
    zan_rcode rc;
    const auto visit = [](const zan_table_base_st *obj, void *arg) {
        char key[64];
        const zan_table_def_t *def = zan_table_def_get(obj->table_id);
        zan_key_print(def, zan_obj_key(def, obj), key, sizeof key);
        *(std::string *)arg += std::string(key) + ";";
        return 0;
    };
    EXPECT_EQ(zan_client_walk(client, zan_table_def_find("l3intf"), nullptr, visit, &walk, &rc), 0);
    EXPECT_EQ(rc, (zan_rcode)EOK);
    EXPECT_EQ(walk, "intf=5;intf=300;");

    zan_compare_reply_st comparison;
    zan_difference_st *differences;
    ASSERT_EQ(zan_client_compare(client, ZAN_WIRE_NO_INDEX, 10, &comparison, &differences), 0);
    free(differences);
    EXPECT_EQ(comparison.compared, 4u);
    EXPECT_EQ(comparison.missing + comparison.different + comparison.surplus, 0u);
}

/* The request has room for fewer, for as many, and for more members than the stored object has. */
TEST_F(session, reads_objects_of_any_member_count)
{
    for (const int members : {0, 1, 3, 8, 9, 40, 1000}) {
        SCOPED_TRACE(members);
        EXPECT_EQ(create("ipnhgroup", group_text(members + 1, members)), (zan_rcode)EOK);
        std::string text;
        EXPECT_EQ(read("ipnhgroup", "nhg_id=" + std::to_string(members + 1), &text),
                  (zan_rcode)EOK);
        const std::string last =
            "weight[" + std::to_string(members - 1) + "]=" + std::to_string(members);
        EXPECT_EQ(text.find(last) != std::string::npos, members > 0) << text;
        EXPECT_EQ(text.find("weight[" + std::to_string(members) + "]"), std::string::npos);
    }
}

/* A read with room to spare must not move the objects behind it in the batch. */
TEST_F(session, reads_with_room_to_spare_in_mid_batch)
{
    EXPECT_EQ(create("ipnhgroup", group_text(1, 2)), (zan_rcode)EOK);
    const batch_t batch(zan_batch_new(0, 0));
    const object_t request = parse("ipnhgroup", "nhg_id=1 num_elements=30");
    for (int i = 0; i < 3; i++)
        zan_batch_append(batch.get(), request.get(), ZAN_TABLE_GET);
    ASSERT_EQ(zan_client_run(client, batch.get()), 0) << zan_client_error(client);
    for (uint32_t i = 0; i < 3; i++) {
        EXPECT_EQ(zan_batch_rc(batch.get(), i), (zan_rcode)EOK);
        const object_t found(zan_batch_object(batch.get(), i));
        ASSERT_TRUE(found);
        EXPECT_EQ(zan_obj_num_elements(zan_table_def_find("ipnhgroup"), found.get()), 2u);
    }
}

TEST_F(session, decides_handles_at_their_use)
{
    EXPECT_EQ(create("l3intf", "intf=1 ipv4_mtu=1500"), (zan_rcode)EOK);
    std::string text;
    for (const char *handle :
         {"handle=0x1", "handle=0xdeadbeef", "handle=0xffffffffffffffff", "handle=0x7fffffff0000"})
        EXPECT_EQ(read("l3intf", handle, &text), ZAN_RC_NOT_FOUND) << handle;
    EXPECT_NE(create("macllnh", "intf=1 adj_id=1 l3intf_obj.l3intf.handle=0x123450"),
              (zan_rcode)EOK);

    /* The true one works, but not for another table. */
    const object_t lookup = parse("l3intf", "intf=1");
    zan_rcode rc;
    zan_table_base_st *found;
    ASSERT_EQ(zan_client_read(client, ZAN_TABLE_GET, lookup.get(), &rc, &found), 0);
    ASSERT_TRUE(found);
    const std::string handle = "handle=" + std::to_string(found->obj_handle);
    free(found);
    EXPECT_EQ(read("l3intf", handle, &text), (zan_rcode)EOK);
    EXPECT_EQ(read("ipnh", handle, &text), ZAN_RC_NOT_FOUND);
}

TEST_F(session, refuses_a_batch_and_goes_on)
{
    const batch_t batch(zan_batch_new(0, 0));
    const object_t obj = parse("l3intf", "intf=1 ipv4_mtu=1500");
    zan_batch_append(batch.get(), obj.get(), ZAN_TABLE_CREATE);
    zan_batch_append(batch.get(), obj.get(), ZAN_TABLE_EVENT);
    EXPECT_EQ(zan_client_run(client, batch.get()), -1);
    ASSERT_TRUE(zan_client_refusal(client));
    EXPECT_EQ(zan_client_refusal(client)->object_index, 1u);
    EXPECT_STREQ(zan_client_refusal(client)->field, "table_operation");
    EXPECT_STREQ(zan_client_error(client),
                 "object 1: table_operation: 3 is no operation that a client may ask for");
    EXPECT_FALSE(zan_client_lost(client));
    std::string text;
    EXPECT_EQ(read("l3intf", "intf=1", &text), ZAN_RC_NOT_FOUND) << "no part of it was run";
}

TEST_F(session, pipelines_replies_in_order)
{
    std::vector<batch_t> batches;
    for (int i = 0; i < (int)ZAN_PIPELINE_MAX; i++) {
        batches.emplace_back(zan_batch_new(0, 0));
        const object_t obj = parse("l3intf", "intf=" + std::to_string(i / 2 + 1));
        zan_batch_append(batches[i].get(), obj.get(), ZAN_TABLE_CREATE);
        EXPECT_EQ(zan_client_submit(client, batches[i].get()), 0);
    }
    EXPECT_EQ(zan_client_submit(client, batches[0].get()), -1) << "that is one too many";
    for (int i = 0; i < (int)ZAN_PIPELINE_MAX; i++) {
        EXPECT_EQ(zan_client_complete(client, batches[i].get()), 0) << zan_client_error(client);
        EXPECT_EQ(zan_batch_rc(batches[i].get(), 0), i % 2 ? ZAN_RC_EXISTS : (zan_rcode)EOK);
    }
}

/* What the agent keeps of a request must not outlive it: the next may be longer, or empty. */
TEST_F(session, takes_requests_of_other_lengths_in_one_piece)
{
    const int fd = open_greeted();
    std::vector<uint8_t> piece;
    const auto add = [&piece](uint16_t type, const void *payload, uint32_t length) {
        const zan_frame_hdr_st hdr = {length, type, 0, 1};
        const uint8_t *bytes = (const uint8_t *)&hdr;
        piece.insert(piece.end(), bytes, bytes + sizeof hdr);
        bytes = (const uint8_t *)payload;
        piece.insert(piece.end(), bytes, bytes + length);
    };
    zan_table_st table = {};
    table.table_id = zan_table_def_find("l3intf")->id;
    add(ZAN_FRAME_TABLE, &table, sizeof table);
    add(ZAN_FRAME_STATUS, nullptr, 0);
    add(ZAN_FRAME_TABLE, &table, sizeof table);
    add(ZAN_FRAME_GRAPH, std::string(200, 0).data(), 200);
    add(ZAN_FRAME_STATUS, nullptr, 0);
    send_raw(fd, piece.data(), piece.size());
    EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_TABLE_REPLY);
    EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_STATUS_REPLY);
    EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_TABLE_REPLY);
    EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_ERROR) << "an empty graph request is an offence";
    close(fd);
    expect_alive();
}

/* ---- Notifications ---- */

class watching : public session
{
protected:
    static constexpr uint32_t num_routes = 2000; /* more than a queue and a socket hold */

    watching()
    {
        options = {"--retries", "1"};
    }
    /* A group and what depends on it go out of service and come back: so many notifications. */
    uint32_t take_out_and_put_back()
    {
        batch_t batch(zan_batch_new(0, 0));
        zan_batch_append(batch.get(), parse("ipnhgroup", "nhg_id=1").get(), ZAN_TABLE_CREATE);
        for (uint32_t i = 0; i < num_routes; i++)
            zan_batch_append(batch.get(),
                             parse("iproute", "vrf_id=0 prefix=10.0." + std::to_string(i / 256) +
                                                  "." + std::to_string(i % 256) +
                                                  "/32 next_obj.ipnhgroup.nhg_id=1")
                                 .get(),
                             ZAN_TABLE_CREATE);
        EXPECT_EQ(zan_client_run(client, batch.get()), 0) << zan_client_error(client);
        zan_sim_st sim = {ZAN_SIM_FAIL,
                          ZAN_WIRE_NO_INDEX,
                          zan_table_def_find("ipnhgroup")->id,
                          ZAN_TABLE_UPDATE,
                          0,
                          0x4fa0c005};
        EXPECT_EQ(zan_client_sim(client, &sim), 0) << zan_client_error(client);
        batch.reset(zan_batch_new(0, 0));
        zan_batch_append(batch.get(), parse("ipnhgroup", "nhg_id=1 is_pbts=true").get(),
                         ZAN_TABLE_UPDATE);
        EXPECT_EQ(zan_client_run(client, batch.get()), 0) << zan_client_error(client);
        wait_for(&zan_failed_reply_st::taken_out);
        sim.action = ZAN_SIM_WELL;
        EXPECT_EQ(zan_client_sim(client, &sim), 0) << zan_client_error(client);
        ask_quarantine(ZAN_FAILED_RELEASE);
        wait_for(&zan_failed_reply_st::put_back);
        return 2 * (1 + num_routes);
    }

private:
    zan_failed_reply_st ask_quarantine(uint32_t action)
    {
        zan_failed_st request = {};
        request.action = action;
        request.table_id = ZAN_WIRE_NO_INDEX;
        zan_failed_reply_st reply = {};
        zan_quarantine_row_st *rows = nullptr;
        EXPECT_EQ(zan_client_quarantine(client, &request, &reply, &rows), 0)
            << zan_client_error(client);
        free(rows);
        return reply;
    }
    void wait_for(uint64_t zan_failed_reply_st::*count)
    {
        for (int i = 0; i < 3000; i++) {
            if (ask_quarantine(ZAN_FAILED_LIST).*count == 1 + num_routes)
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        FAIL() << "not all of them came so far";
    }
};

/* Nothing is lost unsaid: what comes, what it stands for and what is told as lost are all. */
TEST_F(watching, tells_a_watcher_that_does_not_read_what_it_missed)
{
    const int fd = open_greeted();
    zan_watch_st watch = {};
    for (const char *table : {"ipnhgroup", "iproute"})
        watch.tables[zan_table_def_find(table)->id / 64] |= 1ull
                                                            << zan_table_def_find(table)->id % 64;
    send_frame(fd, ZAN_FRAME_WATCH, &watch, sizeof watch);
    EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_WATCH_REPLY);
    const uint32_t all = take_out_and_put_back();

    const timeval patience = {30, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    uint32_t heard = 0, told = 0;
    while (heard + told < all) {
        const reply_t frame = receive(fd);
        ASSERT_EQ(frame.hdr.type, ZAN_FRAME_NOTIFICATION) << heard << " and " << told;
        zan_notification_st head;
        ASSERT_GT(frame.payload.size(), sizeof head);
        memcpy(&head, frame.payload.data(), sizeof head);
        heard++;
        told += head.lost + head.replaced;
    }
    EXPECT_EQ(heard + told, all);
    EXPECT_GT(told, 0u) << "its queue is bounded";

    send_frame(fd, ZAN_FRAME_GOODBYE, nullptr, 0);
    EXPECT_TRUE(is_closed(fd));
    close(fd);
}

/* ---- Walks ---- */

/* The counts in a reply, as lines of text in its order. */
std::string walk_text(zan_walk_counts_st *counts)
{
    const std::unique_ptr<zan_walk_counts_st, free_t> owned(counts);
    std::string text;
    const auto count = [&text](const char *name, uint64_t value) {
        if (value)
            text += std::string(" ") + name + "=" + std::to_string(value);
    };
    for (uint32_t i = 0; i < counts->num_tables; i++) {
        const zan_walk_table_st &t = zan_client_walk_tables(counts)[i];
        text += kor_table_name_get(t.table_id);
        count("walks", t.walks);
        count("failed_walks", t.failed_walks);
        count("pushed", t.events_pushed);
        count("pruned", t.events_pruned);
        count("off_color", t.events_off_color + t.off_color);
        count("updates", t.updates);
        count("forced", t.forced);
        count("skips", t.skips);
        count("failures", t.failures);
        count("revisits", t.revisits);
        EXPECT_EQ(t.walk_ns != 0, t.walks != 0) << "time is spent where walks begin";
        text += "\n";
    }
    for (uint32_t i = 0; i < counts->num_events; i++) {
        const zan_walk_event_st &e = zan_client_walk_events(counts)[i];
        text += zan_table_def_get(e.source)->events[e.event_id - 1].name;
        text += e.receiver == ZAN_WIRE_NO_INDEX
                    ? " pushed="
                    : std::string(" to ") + kor_table_name_get(e.receiver) + "=";
        text += std::to_string(e.count) + "\n";
    }
    return text;
}

class walks : public session
{
protected:
    /* What the walks of a batch of updates did; each update must have gone well. */
    std::string update(uint32_t flags,
                       const std::vector<std::pair<const char *, std::string>> &objects)
    {
        const batch_t batch(zan_batch_new(flags, 0));
        for (const auto &[table, text] : objects) {
            const object_t obj = parse(table, text);
            zan_batch_append(batch.get(), obj.get(), ZAN_TABLE_UPDATE);
        }
        zan_walk_counts_st *counts = nullptr;
        EXPECT_EQ(zan_client_run_walk(client, batch.get(), &counts), 0) << zan_client_error(client);
        for (uint32_t i = 0; i < zan_batch_slots(batch.get()); i++)
            EXPECT_EQ(zan_batch_rc(batch.get(), i), (zan_rcode)EOK) << i;
        return counts ? walk_text(counts) : "";
    }
    std::string totals()
    {
        zan_walk_counts_st *counts = nullptr;
        EXPECT_EQ(zan_client_walk_counts(client, &counts), 0) << zan_client_error(client);
        return counts ? walk_text(counts) : "";
    }
    /* Two groups, with three routes and one. */
    void create_routes()
    {
        for (const char *group : {"nhg_id=1", "nhg_id=2"})
            EXPECT_EQ(create("ipnhgroup", group), (zan_rcode)EOK);
        for (int i = 1; i <= 4; i++)
            EXPECT_EQ(create("iproute", "vrf_id=0 prefix=10.0.0." + std::to_string(i) +
                                            "/32 next_obj.ipnhgroup.nhg_id=" + (i < 4 ? "1" : "2")),
                      (zan_rcode)EOK);
    }
};

TEST_F(walks, are_told_with_the_batch_that_made_them)
{
    create_routes();
    EXPECT_EQ(totals(), "") << "creates push nothing";
    EXPECT_EQ(update(0, {{"ipnhgroup", "nhg_id=1 fec_id=7"}}),
              "iproute updates=3 forced=3\n"
              "ipnhgroup walks=1 pushed=1\n"
              "IPNHGROUP_FEC_ID_CHANGE to iproute=3\n"
              "IPNHGROUP_FEC_ID_CHANGE pushed=1\n");
    EXPECT_EQ(update(0, {{"ipnhgroup", "nhg_id=1 fec_id=7"}}), "") << "nothing has changed";
    EXPECT_EQ(update(0, {{"ipnhgroup", "nhg_id=2 fec_id=7"}, {"ipnhgroup", "nhg_id=1 fec_id=8"}}),
              "iproute updates=4 forced=4\n"
              "ipnhgroup walks=2 pushed=2\n"
              "IPNHGROUP_FEC_ID_CHANGE to iproute=4\n"
              "IPNHGROUP_FEC_ID_CHANGE pushed=2\n");
    EXPECT_EQ(update(ZAN_BATCH_ASYNC, {{"ipnhgroup", "nhg_id=1 ecmp_base_fec=3"}}),
              "iproute skips=3\n"
              "ipnhgroup walks=1 pushed=1\n"
              "IPNHGROUP_ECMP_BASE_FEC_CHANGE pushed=1\n")
        << "no route wants it, a group could";
    const std::string all = "iproute updates=7 forced=7 skips=3\n"
                            "ipnhgroup walks=4 pushed=4\n"
                            "IPNHGROUP_FEC_ID_CHANGE to iproute=7\n"
                            "IPNHGROUP_ECMP_BASE_FEC_CHANGE pushed=1\n"
                            "IPNHGROUP_FEC_ID_CHANGE pushed=3\n";
    EXPECT_EQ(totals(), all);

    /* A batch is refused as any other is, and then nothing has walked. */
    const batch_t batch(zan_batch_new(0, 0));
    const object_t obj = parse("ipnhgroup", "nhg_id=1 fec_id=9");
    zan_batch_append(batch.get(), obj.get(), ZAN_TABLE_UPDATE);
    zan_batch_append(batch.get(), obj.get(), ZAN_TABLE_EVENT);
    zan_walk_counts_st *counts = nullptr;
    EXPECT_EQ(zan_client_run_walk(client, batch.get(), &counts), -1);
    EXPECT_EQ(counts, nullptr);
    ASSERT_TRUE(zan_client_refusal(client));
    EXPECT_EQ(zan_client_refusal(client)->object_index, 1u);
    EXPECT_EQ(totals(), all);
}

TEST_F(walks, answer_in_place_like_any_batch)
{
    create_routes();
    const batch_t batch(zan_batch_new(0, 64));
    const object_t change = parse("ipnhgroup", "nhg_id=1 fec_id=7");
    const object_t lookup = parse("iproute", "vrf_id=0 prefix=10.0.0.4/32");
    zan_batch_append(batch.get(), change.get(), ZAN_TABLE_UPDATE);
    zan_batch_append(batch.get(), lookup.get(), ZAN_TABLE_GET);
    zan_walk_counts_st *counts = nullptr;
    ASSERT_EQ(zan_client_run_walk(client, batch.get(), &counts), 0) << zan_client_error(client);
    EXPECT_EQ(walk_text(counts).substr(0, 26), "iproute updates=3 forced=3");
    const object_t found(zan_batch_object(batch.get(), 1));
    ASSERT_TRUE(found);
    char print[256];
    zan_obj_print(zan_table_def_find("iproute"), found.get(), print, sizeof print);
    EXPECT_STREQ(print, "vrf_id=0 prefix=10.0.0.4/32 next_obj.ipnhgroup.nhg_id=2");
}

/* A reply that leaves no room for the counts is refused before anything is run. */
TEST_F(walks, leave_room_for_their_counts)
{
    wire_t wire;
    wire.add("l3intf", "intf=1", ZAN_TABLE_CREATE);
    const size_t rest = sizeof(zan_batch_reply_st) + ZAN_RESPONSE_HDR_SIZE + wire.len;
    size_t rows = sizeof(zan_walk_counts_st);
    for (const zan_table_def_t *def : zan_table_defs)
        rows += sizeof(zan_walk_table_st) +
                (def->num_events + def->num_subscriptions) * sizeof(zan_walk_event_st);
    EXPECT_LE(rows, (size_t)ZAN_WALK_COUNTS_MAX) << "all rows that there can be";
    const int fd = open_greeted();
    const struct {
        uint16_t type;
        uint32_t payload;
        uint16_t reply;
    } cases[] = {
        {ZAN_FRAME_WALK, (uint32_t)(ZAN_FRAME_MAX - ZAN_WALK_COUNTS_MAX - rest + 8),
         ZAN_FRAME_ERROR},
        {ZAN_FRAME_WALK, (uint32_t)(ZAN_FRAME_MAX - ZAN_WALK_COUNTS_MAX - rest) / 8 * 8,
         ZAN_FRAME_WALK_REPLY},
        {ZAN_FRAME_BATCH, (uint32_t)(ZAN_FRAME_MAX - rest) / 8 * 8, ZAN_FRAME_BATCH_REPLY},
    };
    for (const auto &c : cases) {
        wire.frame.payload_alloc_sz = c.payload;
        std::vector<uint8_t> payload(sizeof wire.frame + wire.len);
        memcpy(payload.data(), &wire.frame, sizeof wire.frame);
        memcpy(payload.data() + sizeof wire.frame, wire.bytes(), wire.len);
        send_frame(fd, c.type, payload.data(), (uint32_t)payload.size());
        const reply_t reply = receive(fd);
        EXPECT_EQ(reply.hdr.type, c.reply) << c.payload << ": " << reply.error();
        EXPECT_EQ(reply.error().find("exceed a reply") != std::string::npos,
                  c.reply == ZAN_FRAME_ERROR);
    }
    close(fd);
}

/* ---- Hostile input ---- */

TEST_F(session, refuses_strange_hellos)
{
    struct {
        const char *words;
        void (*spoil)(zan_hello_st *);
    } const cases[] = {
        {"no hello of its clients", [](zan_hello_st *h) { h->magic ^= 1; }},
        {"speaks version 0", [](zan_hello_st *h) { h->version = 0; }},
        {"other table definitions", [](zan_hello_st *h) { h->fingerprint++; }},
    };
    for (const auto &c : cases) {
        const int fd = open_raw();
        zan_hello_st hello = good_hello();
        c.spoil(&hello);
        send_frame(fd, ZAN_FRAME_HELLO, &hello, sizeof hello);
        EXPECT_NE(receive(fd).error().find(c.words), std::string::npos) << c.words;
        EXPECT_TRUE(is_closed(fd));
        close(fd);
    }
    const int fd = open_raw();
    send_frame(fd, ZAN_FRAME_STATUS, nullptr, 0);
    EXPECT_NE(receive(fd).error().find("begin with a hello"), std::string::npos);
    close(fd);
    expect_alive();
}

TEST_F(session, refuses_strange_frames)
{
    const zan_frame_hdr_st frames[] = {
        {ZAN_FRAME_MAX + 1, ZAN_FRAME_BATCH, 0, 1},
        {0xffffffff, ZAN_FRAME_BATCH, 0, 1},
        {0, 77, 0, 1},
        {0, ZAN_FRAME_STATUS, 9, 1},
        {0, ZAN_FRAME_BATCH_REPLY, 0, 1},
        {0, ZAN_FRAME_WALK_COUNTS_REPLY, 0, 1},
        {ZAN_FRAME_MAX + 1, ZAN_FRAME_WALK, 0, 1},
        {0, ZAN_FRAME_HELLO, 0, 1},
    };
    for (const zan_frame_hdr_st &hdr : frames) {
        const int fd = open_greeted();
        send_raw(fd, &hdr, sizeof hdr);
        EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_ERROR) << hdr.length << " " << hdr.type;
        EXPECT_TRUE(is_closed(fd));
        close(fd);
    }
    /* These are whole frames: the request is refused and the session goes on. */
    const int fd = open_greeted();
    send_frame(fd, ZAN_FRAME_BATCH, "12345678", 8);
    EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_ERROR);
    for (const uint32_t length : {0, 8, (int)sizeof(zan_batch_frame_st)}) {
        send_frame(fd, ZAN_FRAME_WALK, std::string(length, 0).data(), length);
        EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_ERROR) << "a walk of " << length << " bytes";
    }
    send_frame(fd, ZAN_FRAME_WALK_COUNTS, "12345678", 8);
    EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_ERROR);
    const zan_resources_st resources[] = {
        {8, ZAN_HWDB_LPM, 0, {}, 0},                           /* sets nothing known */
        {ZAN_RESOURCES_SET_CAPACITY, ZAN_NUM_HWDBS, 0, {}, 1}, /* no database */
        {ZAN_RESOURCES_SET_CAPACITY, ZAN_HWDB_NONE, 0, {}, 1}, /* none */
        {ZAN_RESOURCES_SET_CAPACITY, ZAN_HWDB_LPM, 9, {}, 1},  /* no NPU */
        {ZAN_RESOURCES_SET_THRESHOLDS, ZAN_HWDB_LPM, 0, {80, 75, 101, 90}, 0}, /* above 100 % */
    };
    send_frame(fd, ZAN_FRAME_RESOURCES, resources, 8);
    EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_ERROR);
    for (const zan_resources_st &r : resources) {
        send_frame(fd, ZAN_FRAME_RESOURCES, &r, sizeof r);
        EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_ERROR) << &r - resources;
    }
    const struct {
        uint16_t type;
        uint32_t words[8]; /* the fields in front; zeros behind them */
        size_t size;
    } wrong[] = {
        {ZAN_FRAME_FAILED, {}, 8},
        {ZAN_FRAME_FAILED, {ZAN_FAILED_RELEASE}, sizeof(zan_failed_st)},
        {ZAN_FRAME_FAILED, {99}, sizeof(zan_failed_st)},
        {ZAN_FRAME_FAILED, {ZAN_FAILED_LIST, ZAN_NUM_TABLES}, sizeof(zan_failed_st)},
        {ZAN_FRAME_QUARANTINE, {ZAN_FAILED_RETRY}, sizeof(zan_failed_st)},
        {ZAN_FRAME_QUARANTINE, {ZAN_FAILED_DROP, 0, 1, 70000}, sizeof(zan_failed_st)},
        {ZAN_FRAME_TABLE, {ZAN_NUM_TABLES}, sizeof(zan_table_st)},
        {ZAN_FRAME_TABLE, {}, 4},
        {ZAN_FRAME_SIM, {99, 0, 0, 1, 0, 1}, sizeof(zan_sim_st)},
        {ZAN_FRAME_SIM, {ZAN_SIM_HANG, 8, 0, 1, 0, 1}, sizeof(zan_sim_st)},
        {ZAN_FRAME_SIM, {ZAN_SIM_FAIL, 0, 9999, 1, 0, 1}, sizeof(zan_sim_st)},
        {ZAN_FRAME_SIM, {ZAN_SIM_FAIL, 0, 0, 9, 0, 1}, sizeof(zan_sim_st)},
        {ZAN_FRAME_SIM, {ZAN_SIM_FAIL, 0, 0, 1, 0, 0}, sizeof(zan_sim_st)},
        {ZAN_FRAME_SIM, {ZAN_SIM_LATENCY, 0, 0, 1, UINT32_MAX, 0}, sizeof(zan_sim_st)},
        {ZAN_FRAME_WATCH, {}, 8},
        {ZAN_FRAME_TRACE, {0, 0, 0}, sizeof(zan_trace_st)},
        {ZAN_FRAME_TRACE, {0, 0, UINT32_MAX}, sizeof(zan_trace_st)},
        {ZAN_FRAME_TRACE, {}, 8},
        {ZAN_FRAME_WATCH, {0, 0, 0, 0, 0, 0, 0, 0}, 0},
    };
    for (const auto &w : wrong) {
        uint8_t frame[256] = {};
        memcpy(frame, w.words, sizeof w.words);
        send_frame(fd, w.type, frame, w.size);
        EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_ERROR) << &w - wrong;
    }
    zan_watch_st beyond = {};
    beyond.tables[5] = (uint64_t)1 << 63;
    send_frame(fd, ZAN_FRAME_WATCH, &beyond, sizeof beyond);
    EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_ERROR) << "there is no table 383";
    send_frame(fd, ZAN_FRAME_COMPARE, "1234", 4);
    EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_ERROR);
    const zan_compare_st compare = {9999, 1};
    send_frame(fd, ZAN_FRAME_COMPARE, &compare, sizeof compare);
    EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_ERROR);
    zan_graph_st graph = {8, 8, 0};
    send_frame(fd, ZAN_FRAME_GRAPH, &graph, 8);
    EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_ERROR);
    send_frame(fd, ZAN_FRAME_GRAPH, &graph, sizeof graph);
    EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_ERROR) << "it names no object";
    graph.depth = ZAN_GRAPH_DEPTH_MAX + 1;
    send_frame(fd, ZAN_FRAME_GRAPH, &graph, sizeof graph);
    EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_ERROR);
    send_frame(fd, ZAN_FRAME_STATUS, nullptr, 0);
    EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_STATUS_REPLY);
    close(fd);
    expect_alive();
}

TEST_F(session, survives_noise_and_broken_connections)
{
    std::mt19937_64 rng(7);
    for (int round = 0; round < 300; round++) {
        const int fd = round % 2 ? open_greeted() : open_raw();
        uint8_t noise[512];
        for (uint8_t &byte : noise)
            byte = (uint8_t)rng();
        const size_t len = rng() % sizeof noise;
        if (round % 3 == 0) { /* a frame that promises more than comes */
            const zan_frame_hdr_st hdr = {(uint32_t)(len + 1 + rng() % 100000), ZAN_FRAME_BATCH, 0,
                                          1};
            send_raw(fd, &hdr, sizeof hdr);
        }
        send_raw(fd, noise, len);
        close(fd);
    }
    expect_alive();
}

/* A client that asks and never reads its answers fills its own session and nothing else. */
TEST_F(session, serves_others_beside_a_client_that_does_not_read)
{
    const int fd = open_greeted();
    fcntl(fd, F_SETFL, O_NONBLOCK);
    const zan_frame_hdr_st status = {0, ZAN_FRAME_STATUS, 0, 1};
    size_t sent = 0;
    for (int quiet = 0; quiet < 20;) {
        const ssize_t n = send(fd, &status, sizeof status, MSG_NOSIGNAL);
        if (n > 0) {
            sent += (size_t)n;
            quiet = 0;
        } else {
            ASSERT_EQ(errno, EAGAIN);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            quiet++;
        }
    }
    EXPECT_GT(sent, 0u);
    expect_alive();
    close(fd);
}

TEST_F(session, refuses_the_client_too_many)
{
    std::vector<int> fds;
    for (uint32_t i = 1; i < ZAN_CLIENTS_MAX; i++)
        fds.push_back(open_greeted());
    const int fd = open_raw();
    EXPECT_NE(receive(fd).error().find("as many clients as it can"), std::string::npos);
    close(fd);
    expect_alive();
    for (const int each : fds)
        close(each);
    for (int tries = 0; tries < 100; tries++) { /* its seats are free again */
        const int again = open_raw();
        const zan_hello_st hello = good_hello();
        send_frame(again, ZAN_FRAME_HELLO, &hello, sizeof hello);
        const bool greeted = receive(again).hdr.type == ZAN_FRAME_HELLO_REPLY;
        close(again);
        if (greeted)
            return;
    }
    ADD_FAILURE() << "no seat is free again";
}

/* What the message check lets pass must be harmless in the server itself. */
TEST_F(session, survives_mutated_batches)
{
    std::mt19937_64 rng(4711);
    const int fd = open_greeted();
    unsigned run = 0, refused = 0;
    for (unsigned round = 0; round < 4000; round++) {
        wire_t wire = random_batch(&rng);
        for (unsigned n = (unsigned)(rng() % 4); n; n--)
            mutate(&wire, &rng);
        wire.frame.payload_alloc_sz = rng() % 2 ? 256 : 0;
        std::vector<uint8_t> payload(sizeof wire.frame + wire.len);
        memcpy(payload.data(), &wire.frame, sizeof wire.frame);
        memcpy(payload.data() + sizeof wire.frame, wire.bytes(), wire.len);
        const bool walk = round % 2;
        send_frame(fd, walk ? ZAN_FRAME_WALK : ZAN_FRAME_BATCH, payload.data(),
                   (uint32_t)payload.size());
        const uint16_t type = receive(fd).hdr.type;
        ASSERT_TRUE(type == (walk ? ZAN_FRAME_WALK_REPLY : ZAN_FRAME_BATCH_REPLY) ||
                    type == ZAN_FRAME_ERROR)
            << "round " << round << ": the agent is gone";
        (type == ZAN_FRAME_ERROR ? refused : run)++;
    }
    EXPECT_GT(run, 500u);
    EXPECT_GT(refused, 500u);
    close(fd);
    expect_alive();
}

} // namespace
