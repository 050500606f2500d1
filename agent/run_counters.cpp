/* The counters of the tables' operations: read, reset, and counted into another bank. */
#include "requests.h"

#include "global_context.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace
{

static_assert(ZAN_WIRE_NUM_COUNTERS == ZAN_NUM_COUNTERS && ZAN_WIRE_NUM_BANKS == ZAN_COUNTER_BANKS,
              "as many here as on the wire");

/* Sets of the global context. */
constexpr uint32_t total = 0, since_reset = 1, first_bank = 2;

bool has_counted(const zan_global_ctx_st &ctx, uint32_t table_id)
{
    const auto &counters = ctx.counters[total][table_id];
    return std::any_of(std::begin(counters), std::end(counters), [](uint32_t n) { return n != 0; });
}

zan_counters_table_st read_table(const zan_global_ctx_st &ctx, uint32_t table_id)
{
    zan_counters_table_st row;
    row.table_id = table_id;
    memcpy(row.total, ctx.counters[total][table_id], sizeof row.total);
    memcpy(row.since_reset, ctx.counters[since_reset][table_id], sizeof row.since_reset);
    for (uint32_t bank = 0; bank < ZAN_WIRE_NUM_BANKS; bank++)
        memcpy(row.bank[bank], ctx.counters[first_bank + bank][table_id], sizeof row.bank[bank]);
    return row;
}

void reset(zan_global_ctx_st *ctx, uint32_t table_id)
{
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++)
        if (id == table_id || table_id == ZAN_WIRE_NO_INDEX)
            memset(ctx->counters[since_reset][id], 0, sizeof ctx->counters[since_reset][id]);
}

/* A bank holds what was counted since it began to count last. */
void count_in(zan_global_ctx_st *ctx, uint32_t bank)
{
    memset(ctx->counters[first_bank + bank], 0, sizeof ctx->counters[first_bank + bank]);
    ctx->active_bank = bank;
}

answer_t answer(const zan_global_ctx_st &ctx, uint32_t table_id)
{
    zan_counters_reply_st reply = {0, ctx.active_bank};
    std::vector<uint8_t> frame(sizeof(zan_frame_hdr_st) + sizeof reply);
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        if (table_id == ZAN_WIRE_NO_INDEX ? !has_counted(ctx, id) : id != table_id)
            continue;
        const zan_counters_table_st row = read_table(ctx, id);
        const auto *bytes = (const uint8_t *)&row;
        frame.insert(frame.end(), bytes, bytes + sizeof row);
        reply.num_tables++;
    }
    memcpy(frame.data() + sizeof(zan_frame_hdr_st), &reply, sizeof reply);
    return {ZAN_FRAME_COUNTERS_REPLY, std::move(frame)};
}

} // namespace

answer_t run_counters(node_t *node, const request_t &request)
{
    zan_counters_st asked;
    if (request.payload.size() != sizeof asked)
        return refuse_request(node, "length", "the request's payload has another size");
    memcpy(&asked, request.payload.data(), sizeof asked);
    if (asked.table_id >= ZAN_NUM_TABLES && asked.table_id != ZAN_WIRE_NO_INDEX)
        return refuse_request(node, "table_id", "there is no such table");
    if (asked.action > ZAN_COUNTERS_BANK)
        return refuse_request(node, "action", "counters are read, reset, or counted in a bank");
    if (asked.action == ZAN_COUNTERS_BANK && asked.bank >= ZAN_WIRE_NUM_BANKS)
        return refuse_request(node, "bank", "there is no such bank");
    const dispatcher_hold_t hold;
    zan_global_ctx_st *ctx = zan_get_global_ctx();
    if (asked.action == ZAN_COUNTERS_RESET)
        reset(ctx, asked.table_id);
    if (asked.action == ZAN_COUNTERS_BANK)
        count_in(ctx, asked.bank);
    return answer(*ctx, asked.table_id);
}
