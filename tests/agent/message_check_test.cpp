/* The message check: what is refused, and that what is accepted can do no harm.
 *
 * A table of single faults says for each the object and the field that the refusal must name. A
 * seeded mutation of well-formed batches of all tables then looks for anything that slips through:
 * an accepted batch must satisfy every assertion that the server makes about its input, and be
 * clean of what only the server may write. Run under the sanitizers, the same test finds reads
 * beyond the batch. The corpus holds batches that were once interesting; it is shared with the
 * fuzzer.
 */
#include "message_check.h"
#include "message_invariants.h"
#include "wire_batches.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace
{

constexpr uint32_t num_npus = 2;
constexpr uint32_t gap = 16; /* private area of the table that has one */
constexpr uint16_t iproute = 49, l3intf = 46, ipnhgroup = 61;

const uint32_t *private_sizes()
{
    static uint32_t sizes[ZAN_NUM_TABLES];
    sizes[ipnhgroup] = gap;
    return sizes;
}

message_facts_t facts()
{
    return {num_npus, private_sizes(), {1'700'000'000, 0}, ZAN_FRAME_MAX};
}

message_verdict_t check(wire_t *wire)
{
    return message_check(facts(), wire->frame, wire->bytes(), wire->len);
}

/* Three creates, one of them with members, and a read. */
wire_t good_batch()
{
    wire_t wire;
    wire.add("l3intf", "intf=1 ipv4_mtu=1500 urpf_mode=loose npu_mask_req=0x3", ZAN_TABLE_CREATE);
    wire.add("ipnhgroup", "nhg_id=1 nexthop_next_obj[0].ipnh.nh_id=1 weight[1]=2",
             ZAN_TABLE_CREATE);
    wire.add("iproute", "vrf_id=0 prefix=10.0.0.0/8 next_obj.ipnhgroup.nhg_id=1", ZAN_TABLE_CREATE);
    wire.add("iproute", "vrf_id=0 prefix=10.0.0.0/8", ZAN_TABLE_GET);
    return wire;
}

template <typename value_t> void put(zan_table_base_st *obj, uint32_t offset, value_t value)
{
    memcpy((uint8_t *)obj + offset, &value, sizeof value);
}

uint32_t attr_offset(uint16_t id, const char *name)
{
    for (unsigned i = 0; i < def_of(id)->num_attrs; i++)
        if (strcmp(def_of(id)->attrs[i].name, name) == 0)
            return def_of(id)->attrs[i].offset;
    ADD_FAILURE() << name;
    return 0;
}

struct fault_t {
    const char *what;
    std::function<void(wire_t *)> make;
    uint32_t object; /* that the refusal names */
    const char *field;
    const char *words; /* part of the reason */
};

/* Objects of the good batch: 0 l3intf, 1 ipnhgroup, 2 and 3 iproute. */
const fault_t faults[] = {
    {"wrong sum", [](wire_t *w) { w->frame.hdr.msg_len -= 8; }, ZAN_WIRE_NO_INDEX, "msg_len", ""},
    {"no slot", [](wire_t *w) { w->frame.hdr.num_resp = 0; }, ZAN_WIRE_NO_INDEX, "num_resp", ""},
    {"too few slots", [](wire_t *w) { w->frame.hdr.num_resp = 3; }, ZAN_WIRE_NO_INDEX, "num_resp",
     "3 response slots for 4"},
    {"slots beyond a frame", [](wire_t *w) { w->frame.hdr.num_resp = 0xffffffff; },
     ZAN_WIRE_NO_INDEX, "num_resp", "smaller"},
    {"odd payload", [](wire_t *w) { w->frame.payload_alloc_sz = 12; }, ZAN_WIRE_NO_INDEX,
     "payload_alloc_sz", ""},
    {"huge payload", [](wire_t *w) { w->frame.payload_alloc_sz = 0xfffffff8; }, ZAN_WIRE_NO_INDEX,
     "num_resp", ""},
    {"continue_on_error", [](wire_t *w) { w->frame.hdr.continue_on_error = 2; }, ZAN_WIRE_NO_INDEX,
     "continue_on_error", ""},
    {"size zero", [](wire_t *w) { w->obj(1)->total_obj_size = 0; }, 1, "total_obj_size", ""},
    {"size unaligned", [](wire_t *w) { w->obj(1)->total_obj_size += 4; }, 1, "total_obj_size", ""},
    {"size below the header", [](wire_t *w) { w->obj(1)->total_obj_size = 184; }, 1,
     "total_obj_size", ""},
    {"size beyond the batch", [](wire_t *w) { w->obj(3)->total_obj_size += 8; }, 3,
     "total_obj_size", "the batch ends"},
    {"size below the fixed part", [](wire_t *w) { w->obj(3)->total_obj_size -= 8; }, 3,
     "total_obj_size", "fixed part"},
    {"size without its members", [](wire_t *w) { w->obj(1)->total_obj_size -= 8; }, 1,
     "total_obj_size", "2 members"},
    {"unknown table", [](wire_t *w) { w->obj(2)->table_id = ZAN_NUM_TABLES; }, 2, "table_id", ""},
    {"more members than fit",
     [](wire_t *w) { put(w->obj(1), def_of(ipnhgroup)->num_elements_offset, 3u); }, 1,
     "total_obj_size", "3 members"},
    {"members without end",
     [](wire_t *w) { put(w->obj(1), def_of(ipnhgroup)->num_elements_offset, 0xffffffffu); }, 1,
     "num_elements", ""},
    {"reserve", [](wire_t *w) { w->obj(0)->table_operation = ZAN_TABLE_RESERVE; }, 0,
     "table_operation", ""},
    {"event", [](wire_t *w) { w->obj(0)->table_operation = ZAN_TABLE_EVENT; }, 0, "table_operation",
     ""},
    {"update of nothing",
     [](wire_t *w) {
         w->obj(2)->table_operation = ZAN_TABLE_UPDATE;
         w->obj(2)->key_len = 0;
     },
     2, "key_len", "needs a key or a handle"},
    {"delete of nothing",
     [](wire_t *w) {
         w->obj(2)->table_operation = ZAN_TABLE_DELETE;
         w->obj(2)->key_len = 0;
     },
     2, "key_len", "needs a key or a handle"},
    {"write kind of an update",
     [](wire_t *w) {
         w->obj(2)->table_operation = ZAN_TABLE_UPDATE;
         w->obj(2)->write_kind = ZAN_WRITE_KIND_REPLACE;
     },
     2, "write_kind", "only a create"},
    {"no such operation", [](wire_t *w) { w->obj(2)->table_operation = 200; }, 2, "table_operation",
     "200"},
    {"end of download where there is none",
     [](wire_t *w) { w->obj(2)->table_operation = ZAN_TABLE_EOD; }, 2, "table_operation",
     "end of download"},
    {"mixed batch", [](wire_t *w) { w->obj(2)->flag |= ZAN_FLAG_IS_ASYNC_DISPATCH; }, 2, "flag",
     "wholly"},
    {"asynchronous read",
     [](wire_t *w) {
         for (size_t i = 0; i < 4; i++)
             w->obj(i)->flag |= ZAN_FLAG_IS_ASYNC_DISPATCH;
     },
     3, "table_operation", "writes only"},
    {"stale flag", [](wire_t *w) { w->obj(2)->flag |= ZAN_FLAG_STALE; }, 2, "flag",
     "bit 0 (stale)"},
    {"queued delete flag", [](wire_t *w) { w->obj(2)->flag |= ZAN_FLAG_QUEUED_DELETE; }, 2, "flag",
     "bit 12"},
    {"unused flag", [](wire_t *w) { w->obj(2)->flag |= 1u << 31; }, 2, "flag", "bit 31"},
    {"barrier on a synchronous table",
     [](wire_t *w) { w->obj(0)->flag |= ZAN_FLAG_USE_ASYNC_BARRIER; }, 0, "flag", "barrier"},
    {"read option on a write", [](wire_t *w) { w->obj(2)->getopt_mask = ZAN_GETOPT_STALE_ONLY; }, 2,
     "getopt_mask", ""},
    {"unknown read option", [](wire_t *w) { w->obj(3)->getopt_mask = 0x10; }, 3, "getopt_mask", ""},
    {"text without payload", [](wire_t *w) { w->obj(3)->getopt_mask = ZAN_GETOPT_SHOW_BUFFER; }, 3,
     "getopt_mask", "payload"},
    {"unknown write kind", [](wire_t *w) { w->obj(2)->write_kind = 20; }, 2, "write_kind", ""},
    {"write kind of a read", [](wire_t *w) { w->obj(3)->write_kind = 1; }, 3, "write_kind", ""},
    {"key of another size", [](wire_t *w) { w->obj(2)->key_len = 4; }, 2, "key_len", ""},
    {"create without a key", [](wire_t *w) { w->obj(2)->key_len = 0; }, 2, "key_len", ""},
    {"read without key and handle", [](wire_t *w) { w->obj(3)->key_len = 0; }, 3, "key_len", ""},
    {"NPU that is none", [](wire_t *w) { *zan_obj_npu_mask_req(def_of(l3intf), w->obj(0)) = 0x4; },
     0, "npu_mask_req", "NPU 2"},
    {"is-set byte of the mask",
     [](wire_t *w) { *zan_obj_npu_mask_req_set(def_of(l3intf), w->obj(0)) = 2; }, 0, "npu_mask_req",
     ""},
    {"enumeration", [](wire_t *w) { put(w->obj(0), attr_offset(l3intf, "urpf_mode"), 77u); }, 0,
     "urpf_mode", ""},
    {"prefix length",
     [](wire_t *w) {
         auto *key = (uint8_t *)zan_obj_key(def_of(iproute), w->obj(2));
         key[def_of(iproute)->keys[1].offset + 4] = 33;
     },
     2, "prefix", ""},
    {"host bits",
     [](wire_t *w) {
         auto *key = (uint8_t *)zan_obj_key(def_of(iproute), w->obj(2));
         key[def_of(iproute)->keys[1].offset + 3] = 1;
     },
     2, "prefix", ""},
    {"selector without a variant",
     [](wire_t *w) { zan_obj_union(&def_of(iproute)->unions[0], w->obj(2), 0)->selector = 9; }, 2,
     "next_obj", ""},
};

TEST(message_check, names_object_and_field_of_each_fault)
{
    for (const fault_t &fault : faults) {
        SCOPED_TRACE(fault.what);
        wire_t wire = good_batch();
        fault.make(&wire);
        const message_verdict_t v = check(&wire);
        EXPECT_FALSE(v.ok);
        EXPECT_EQ(v.object_index, fault.object);
        EXPECT_STREQ(v.field, fault.field);
        EXPECT_NE(std::string(v.reason).find(fault.words), std::string::npos) << v.reason;
        EXPECT_STRNE(v.reason, "");
    }
}

TEST(message_check, accepts_what_is_well_formed)
{
    wire_t wire = good_batch();
    const message_verdict_t v = check(&wire);
    EXPECT_TRUE(v.ok) << v.object_index << " " << v.field << " " << v.reason;
    EXPECT_EQ(v.num_objects, 4u);
    EXPECT_TRUE(v.answers_in_place);
    EXPECT_FALSE(v.is_async);

    wire_t async;
    for (int i = 0; i < 3; i++)
        async.add("iproute", "vrf_id=0 prefix=10.0.0.0/8", ZAN_TABLE_CREATE,
                  ZAN_FLAG_IS_ASYNC_DISPATCH | ZAN_FLAG_USE_ASYNC_BARRIER);
    async.frame.hdr.num_resp = 1;
    EXPECT_TRUE(check(&async).ok);
    EXPECT_TRUE(check(&async).is_async);
}

/* The dynamic part may stand behind a gap of the private area's size, and nothing else fits. */
TEST(message_check, takes_the_gap_of_the_private_area)
{
    wire_t wire;
    wire.add("ipnhgroup", "nhg_id=1 weight[0]=7 weight[1]=8", ZAN_TABLE_CREATE);
    const zan_table_def_t *def = def_of(ipnhgroup);
    const size_t dyn = wire.len - def->obj_size;
    wire.words.resize((wire.len + gap) / 8);
    memmove(wire.bytes() + def->obj_size + gap, wire.bytes() + def->obj_size, dyn);
    memset(wire.bytes() + def->obj_size, 0xee, gap);
    wire.len += gap;
    wire.frame.hdr.msg_len += gap;
    wire.obj(0)->total_obj_size += gap;
    EXPECT_TRUE(check(&wire).ok);
    for (uint32_t i = 0; i < gap; i++)
        EXPECT_EQ(wire.bytes()[def->obj_size + i], 0) << "the gap is the platform's";
    EXPECT_EQ(*(uint32_t *)(wire.bytes() + def->obj_size + gap), 7u) << "the members are not";
}

TEST(message_check, clears_what_only_the_server_may_write)
{
    wire_t wire = good_batch();
    zan_table_base_st *obj = wire.obj(1);
    memset(obj->dpd_area, 0xff, sizeof obj->dpd_area);
    memset(obj->reserved, 0xff, sizeof obj->reserved);
    obj->npu_mask = ~0ull;
    obj->rc_stamp = obj->obj_id = 0xffffffff;
    obj->hw_state = obj->npu_id = obj->heap_form = obj->inflight = 0xff;
    obj->client_time = {-1, -1};
    obj->client_epoch = 5;
    obj->obj_handle = 0x1234;
    obj->base_trans_id = 6;
    EXPECT_TRUE(check(&wire).ok);
    EXPECT_EQ(find_broken_invariant(facts(), wire.frame, wire.bytes(), wire.len, 4, false), "");
    EXPECT_EQ(obj->client_time.tv_sec, facts().now.tv_sec);
    EXPECT_EQ(obj->client_epoch, 5u) << "the client's own";
    EXPECT_EQ(obj->obj_handle, 0x1234u) << "decided at its use";
    EXPECT_EQ(obj->base_trans_id, 6u);
}

/* Each table: an empty create passes with any number of members, and one byte less never does. */
TEST(message_check, every_table)
{
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        const zan_table_def_t *def = def_of((uint16_t)id);
        SCOPED_TRACE(def->name);
        EXPECT_EQ(def->obj_size % 8, 0u);
        for (const uint32_t members : {0u, 1u, 5u}) {
            zan_table_base_st *heap = zan_obj_ctor(def, 0, members);
            ASSERT_TRUE(heap);
            heap->key_len = def->key_size;
            wire_t wire;
            wire.add(heap, ZAN_TABLE_CREATE);
            free(heap);
            wire_t cut = wire;
            const message_verdict_t v = check(&wire);
            EXPECT_TRUE(v.ok) << v.field << ": " << v.reason;
            cut.len -= 8;
            cut.frame.hdr.msg_len -= 8;
            EXPECT_FALSE(check(&cut).ok);
        }
    }
}

/* ---- Mutation ---- */

TEST(message_check, mutated_batches_never_break_an_invariant)
{
    std::mt19937_64 rng(20240611);
    unsigned accepted = 0, refused = 0;
    for (unsigned round = 0; round < 60'000; round++) {
        wire_t wire = random_batch(&rng);
        for (unsigned n = (unsigned)(rng() % 4); n; n--)
            mutate(&wire, &rng);
        /* An exact copy: a read beyond the batch is one beyond the allocation. */
        const std::unique_ptr<uint8_t[]> msg(new uint8_t[wire.len]);
        memcpy(msg.get(), wire.bytes(), wire.len);
        const message_verdict_t v = message_check(facts(), wire.frame, msg.get(), wire.len);
        (v.ok ? accepted : refused)++;
        if (!v.ok) {
            ASSERT_STRNE(v.reason, "") << "round " << round;
            continue;
        }
        ASSERT_EQ(find_broken_invariant(facts(), wire.frame, msg.get(), wire.len, v.num_objects,
                                        v.is_async),
                  "")
            << "round " << round;
    }
    EXPECT_GT(accepted, 10'000u);
    EXPECT_GT(refused, 10'000u);
}

/* Each file is a batch frame and objects, as the fuzzer takes them. */
TEST(message_check, corpus)
{
    unsigned files = 0;
    for (const auto &entry : std::filesystem::directory_iterator(ZAN_AGENT_CORPUS)) {
        SCOPED_TRACE(entry.path().filename().string());
        std::ifstream in(entry.path(), std::ios::binary);
        const std::string data((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
        EXPECT_EQ(check_raw_batch((const uint8_t *)data.data(), data.size()), "");
        files++;
    }
    EXPECT_GE(files, 10u);
}

/* The corpus is made of the faults above: ZAN_WRITE_CORPUS=<directory> writes it anew. */
TEST(message_check, write_corpus)
{
    const char *directory = getenv("ZAN_WRITE_CORPUS");
    if (!directory)
        GTEST_SKIP() << "only when ZAN_WRITE_CORPUS names a directory";
    auto write = [directory](std::string name, wire_t *wire) {
        for (char &c : name)
            c = c == ' ' ? '_' : c;
        std::ofstream out(std::string(directory) + "/" + name + ".bin", std::ios::binary);
        out.write((const char *)&wire->frame, sizeof wire->frame);
        out.write((const char *)wire->bytes(), (std::streamsize)wire->len);
        EXPECT_TRUE(out.good());
    };
    wire_t good = good_batch();
    write("good batch", &good);
    for (const fault_t &fault : faults) {
        wire_t wire = good_batch();
        fault.make(&wire);
        write(fault.what, &wire);
    }
}

} // namespace
