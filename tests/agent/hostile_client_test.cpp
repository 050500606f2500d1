/* What no client of ours would send, over raw sockets: after each offence a second client must
 * still be served. So must it be beside a client that does not read what it asked for.
 */
#include "session.h"
#include "wire_batches.h"

#include <cerrno>
#include <chrono>
#include <thread>

#include <sys/time.h>

namespace
{

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
        {ZAN_FRAME_STATS, {}, 4},
        {ZAN_FRAME_STATS, {2}, sizeof(zan_stats_st)},
        {ZAN_FRAME_STATS, {}, sizeof(zan_stats_st) + 200},
        {ZAN_FRAME_WATCH, {0, 0, 0, 0, 0, 0, 0, 0}, 0},
        {ZAN_FRAME_COUNTERS, {}, 8},
        {ZAN_FRAME_COUNTERS, {ZAN_COUNTERS_READ, ZAN_NUM_TABLES}, sizeof(zan_counters_st)},
        {ZAN_FRAME_COUNTERS, {ZAN_COUNTERS_BANK + 1}, sizeof(zan_counters_st)},
        {ZAN_FRAME_COUNTERS, {ZAN_COUNTERS_BANK, 0, ZAN_WIRE_NUM_BANKS}, sizeof(zan_counters_st)},
        {ZAN_FRAME_TRACE_CLASSES, {}, 144},
        {ZAN_FRAME_PERF, {ZAN_NUM_TABLES}, sizeof(zan_perf_st)},
        {ZAN_FRAME_PERF, {}, 0},
        {ZAN_FRAME_ABOUT, {}, 8},
    };
    for (const auto &w : wrong) {
        uint8_t frame[256] = {};
        memcpy(frame, w.words, sizeof w.words);
        send_frame(fd, w.type, frame, w.size);
        EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_ERROR) << &w - wrong;
    }
    zan_trace_classes_st classes = {};
    classes.on[0] = classes.off[0] = 1;
    send_frame(fd, ZAN_FRAME_TRACE_CLASSES, &classes, sizeof classes);
    EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_ERROR) << "on and off";
    classes = {};
    classes.off[ZAN_NUM_TRACE_CLASSES / 64] = (uint64_t)1 << ZAN_NUM_TRACE_CLASSES % 64;
    send_frame(fd, ZAN_FRAME_TRACE_CLASSES, &classes, sizeof classes);
    EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_ERROR) << "one behind the last";
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

    /* A session that watches these tables, of which nobody reads what it is told. */
    int watch(const std::vector<const char *> &tables)
    {
        const int fd = open_greeted();
        watch(fd, tables);
        EXPECT_EQ(receive(fd).hdr.type, ZAN_FRAME_WATCH_REPLY);
        const timeval patience = {30, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        return fd;
    }
    static void watch(int fd, const std::vector<const char *> &tables)
    {
        zan_watch_st wanted = {};
        for (const char *table : tables)
            wanted.tables[zan_table_def_find(table)->id / 64] |=
                1ull << zan_table_def_find(table)->id % 64;
        send_frame(fd, ZAN_FRAME_WATCH, &wanted, sizeof wanted);
    }
    static zan_notification_st head_of(const reply_t &frame)
    {
        zan_notification_st head = {};
        EXPECT_EQ(frame.hdr.type, ZAN_FRAME_NOTIFICATION);
        if (frame.payload.size() < sizeof head)
            ADD_FAILURE() << "a notification of " << frame.payload.size() << " bytes";
        else
            memcpy(&head, frame.payload.data(), sizeof head);
        return head;
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
    const int fd = watch({"ipnhgroup", "iproute"}), tired = watch({"iproute"});
    const uint32_t all = take_out_and_put_back();
    uint32_t heard = 0, told = 0;
    while (heard + told < all && !HasFailure()) {
        const zan_notification_st head = head_of(receive(fd));
        heard++;
        told += head.lost + head.replaced;
    }
    EXPECT_EQ(heard + told, all);
    EXPECT_GT(told, 0u) << "its queue is bounded";

    watch(tired, {});
    while (receive(tired).hdr.type == ZAN_FRAME_NOTIFICATION) {
    }
    for (const int one : {fd, tired}) {
        send_frame(one, ZAN_FRAME_GOODBYE, nullptr, 0);
        EXPECT_TRUE(is_closed(one)) << "nothing waits for one that watches no more";
        close(one);
    }
}

/* A delete that is told at once may overtake what was told of the object before; who reads hears it
 * last all the same. */
TEST_F(watching, hears_last_what_became_of_an_object)
{
    const int fd = watch({"llnh", "iproute"});
    const std::string next_hop = "intf=1 adj_id=1";
    auto run_all =
        [&](std::initializer_list<std::tuple<const char *, std::string, zan_table_operation_et>>
                operations) {
            const batch_t batch(zan_batch_new(ZAN_BATCH_CONTINUE_ON_ERROR, 0));
            for (const auto &[table, text, operation] : operations)
                zan_batch_append(batch.get(), parse(table, text).get(), operation);
            EXPECT_EQ(zan_client_run(client, batch.get()), 0) << zan_client_error(client);
        };
    for (uint32_t round = 0; round < 20; round++) {
        run_all({{"l3intf", "intf=1", ZAN_TABLE_CREATE},
                 {"llnh", next_hop + " l3intf_obj.l3intf.intf=1", ZAN_TABLE_CREATE},
                 {"ipnhgroup",
                  "nhg_id=1 nexthop_next_obj[0].llnh.intf=1 nexthop_next_obj[0].llnh.adj_id=1",
                  ZAN_TABLE_CREATE}});
        run_all({{"llnh", next_hop + " l3intf_obj.l3intf.intf=99", ZAN_TABLE_UPDATE},
                 {"llnh", next_hop, ZAN_TABLE_DELETE},
                 {"ipnhgroup", "nhg_id=1", ZAN_TABLE_DELETE},
                 {"iproute", "vrf_id=0 prefix=10.0.0.0/8 next_obj.ipnhgroup.nhg_id=1",
                  ZAN_TABLE_CREATE}}); /* refused, and told behind all others */
        const uint32_t end = zan_table_def_find("iproute")->id;
        uint32_t last = 0, heard = 0;
        for (zan_notification_st head = head_of(receive(fd)); head.table_id != end && !HasFailure();
             head = head_of(receive(fd))) {
            last = head.type;
            heard += 1 + head.replaced;
        }
        ASSERT_EQ(last, 6u) << "round " << round;
        ASSERT_EQ(heard, 2u);
    }
    close(fd);
}

} // namespace
