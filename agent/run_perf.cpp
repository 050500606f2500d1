/* How long things take: objects on the dispatcher, hook calls, walks; and what was slow. */
#include "requests.h"

#include "host_statistics.h"

#include <cstring>

namespace
{

static_assert(sizeof(zan_durations_st) == sizeof(zan_perf_stat_st) &&
                  ZAN_DURATION_BUCKETS == ZAN_PERF_BUCKETS &&
                  ZAN_DURATION_FIRST_BUCKET == ZAN_PERF_FIRST_BUCKET,
              "one layout here and on the wire");

zan_durations_st on_the_wire(const zan_perf_stat_st &stat)
{
    zan_durations_st out;
    memcpy(&out, &stat, sizeof out);
    return out;
}

uint64_t to_ns(const timespec &t)
{
    return (uint64_t)t.tv_sec * 1'000'000'000 + (uint64_t)t.tv_nsec;
}

zan_perf_table_st row_of(uint32_t table_id, const zan_table_perf_st &perf)
{
    zan_perf_table_st row = {};
    row.table_id = table_id;
    row.first_trans_id = perf.first_trans_id;
    row.last_trans_id = perf.last_trans_id;
    row.first_op_ns = perf.first_op_ns;
    row.last_op_ns = perf.last_op_ns;
    row.slow_ops = perf.num_slow_ops;
    row.dispatch = on_the_wire(perf.dispatch);
    row.ipc = on_the_wire(perf.ipc);
    row.walk = on_the_wire(perf.walk);
    for (uint32_t npu = 0; npu < ZAN_MAX_NPUS; npu++)
        row.npu[npu] = on_the_wire(perf.npu[npu]);
    return row;
}

/* A table may have been visited by walks alone. */
bool was_used(const zan_perf_table_st &row)
{
    uint64_t calls = row.dispatch.count;
    for (const zan_durations_st &npu : row.npu)
        calls += npu.count;
    return calls != 0;
}

template <class row_t> void append(std::vector<uint8_t> *frame, const row_t &row)
{
    const auto *bytes = (const uint8_t *)&row;
    frame->insert(frame->end(), bytes, bytes + sizeof row);
}

uint32_t append_slow_ops(uint32_t npu, uint32_t table_id, std::vector<uint8_t> *frame)
{
    zan_npu_op_record_st ops[ZAN_NPU_HISTORY_ROWS];
    const uint32_t count = zan_host_slow_ops(npu, ops);
    uint32_t appended = 0;
    for (uint32_t i = 0; i < count; i++) {
        if (table_id != ZAN_WIRE_NO_INDEX && ops[i].table_id != table_id)
            continue;
        const zan_perf_slow_st row = {ops[i].table_id,
                                      ops[i].op,
                                      ops[i].id,
                                      npu < ZAN_MAX_NPUS ? npu : ZAN_WIRE_NO_INDEX,
                                      to_ns(ops[i].end_time),
                                      to_ns(ops[i].elapsed)};
        append(frame, row);
        appended++;
    }
    return appended;
}

} // namespace

answer_t run_perf(node_t *node, const request_t &request)
{
    zan_perf_st asked;
    if (request.payload.size() != sizeof asked)
        return refuse_request(node, "length", "the request's payload has another size");
    memcpy(&asked, request.payload.data(), sizeof asked);
    if (asked.table_id >= ZAN_NUM_TABLES && asked.table_id != ZAN_WIRE_NO_INDEX)
        return refuse_request(node, "table_id", "there is no such table");
    zan_perf_reply_st reply = {};
    std::vector<uint8_t> frame(sizeof(zan_frame_hdr_st) + sizeof reply);
    zan_table_perf_st perf;
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        zan_table_perf_get(id, &perf);
        const zan_perf_table_st row = row_of(id, perf);
        if (id == 0) /* the server counts all stops with the first table */
            reply.stops = on_the_wire(perf.dummy);
        if (asked.table_id == ZAN_WIRE_NO_INDEX ? !was_used(row) : id != asked.table_id)
            continue;
        append(&frame, row);
        reply.num_tables++;
    }
    for (uint32_t npu = 0; npu < node->facts.num_npus; npu++)
        reply.num_slow += append_slow_ops(npu, asked.table_id, &frame);
    reply.num_slow += append_slow_ops(ZAN_MAX_NPUS, asked.table_id, &frame);
    reply.num_npus = node->facts.num_npus;
    reply.slow_ns = zan_host_slow_op_ns();
    memcpy(frame.data() + sizeof(zan_frame_hdr_st), &reply, sizeof reply);
    return {ZAN_FRAME_PERF_REPLY, std::move(frame)};
}
