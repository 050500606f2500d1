/* Sessions with a real agent, by the client library, as its users have them. */
#include "session.h"
#include "wire_batches.h"

namespace
{

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

/* A replay may begin and end in the midst of a batch; what it came to is told all the same. */
TEST_F(session, replays_in_one_batch_with_its_objects)
{
    using operations_t = std::vector<std::tuple<const char *, zan_table_operation_et>>;
    const zan_table_def_t *def = zan_table_def_find("punt");
    auto run_all = [&](const operations_t &operations) {
        const batch_t batch(zan_batch_new(ZAN_BATCH_CONTINUE_ON_ERROR, 0));
        for (const auto &[text, operation] : operations) {
            const object_t obj = *text ? parse("punt", text) : object_t(zan_obj_ctor(def, 0, 0));
            zan_batch_append(batch.get(), obj.get(), operation);
        }
        EXPECT_EQ(zan_client_run(client, batch.get()), 0) << zan_client_error(client);
        zan_table_record_st record = {};
        EXPECT_EQ(zan_client_table(client, def->id, &record), 0) << zan_client_error(client);
        return record;
    };
    for (int i = 1; i <= 5; i++)
        ASSERT_EQ(create("punt", "punt_id=" + std::to_string(i)), (zan_rcode)EOK);
    zan_table_record_st record = run_all({{"", ZAN_TABLE_REPLAY_START},
                                          {"punt_id=1", ZAN_TABLE_CREATE},
                                          {"punt_id=2", ZAN_TABLE_CREATE},
                                          {"punt_id=3", ZAN_TABLE_DELETE}});
    EXPECT_EQ(record.replaying, 1u);
    EXPECT_EQ(record.replay_kept, 2u);
    EXPECT_EQ(record.replay_deleted, 1u);
    record = run_all({{"punt_id=4", ZAN_TABLE_CREATE}, {"", ZAN_TABLE_REPLAY_END}});
    EXPECT_EQ(record.replaying, 0u);
    EXPECT_EQ(record.replay_kept, 3u);
    EXPECT_EQ(record.replay_deleted, 1u);
    EXPECT_EQ(record.stored, 3u);
    record = run_all({{"", ZAN_TABLE_REPLAY_END}});
    EXPECT_EQ(record.replay_left, 0u) << "this one had no start";

    zan_status_st status;
    zan_table_status_st *tables = nullptr;
    ASSERT_EQ(zan_client_status(client, &status, &tables), 0);
    EXPECT_EQ(tables[0].duplicates, 0u) << "none was refused";
    free(tables);
    EXPECT_EQ(create("punt", "punt_id=1"), ZAN_RC_EXISTS);
    ASSERT_EQ(zan_client_status(client, &status, &tables), 0);
    EXPECT_EQ(tables[0].duplicates, 1u);
    free(tables);
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

} // namespace
