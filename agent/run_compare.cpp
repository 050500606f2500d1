/* The comparison: is every stored object on every NPU that should hold it, with the same content,
 * and nothing else?
 *
 * All NPU queues are stopped behind what they hold before the first object is looked at, so that
 * what the dispatcher has sent is also done, and let go again at the end.
 */
#include "requests.h"

#include "exec_queue.h"
#include "global_context.h"
#include "locks.h"
#include "table_database.h"
#include "table_flows.h"

#include <cstdio>
#include <cstring>

npus_standstill_t::npus_standstill_t() : stopped(zan_exec_q_sync_ctrl_request_only() == 0)
{
    if (stopped)
        zan_npu_bcast_wait_for_npu_threads(0, 0);
}

npus_standstill_t::~npus_standstill_t()
{
    if (stopped)
        zan_exec_q_sync_ctrl_allow_all_queues();
}

namespace
{

constexpr uint32_t most_differences = 10'000;

struct comparison_t {
    const node_t *node;
    const zan_table_def_t *def;
    uint32_t max_differences;
    zan_compare_reply_st reply;
    uint64_t expected[ZAN_MAX_NPUS]; /* of the table: objects that the NPU does hold as it should */
    std::vector<zan_difference_st> differences;
};

/* Where a write of the object goes. */
kor_npu_mask_t npus_of(const zan_table_base_st *db_obj)
{
    const zan_global_ctx_st *ctx = zan_get_global_ctx();
    const kor_npu_mask_t mask =
        ctx->per_object_npu_mask ? ctx->npu_mask_all & db_obj->npu_mask : ctx->npu_mask_all;
    return mask & ctx->npu_mask_active;
}

zan_difference_st *add_difference(comparison_t *c, uint32_t npu, zan_difference_et kind)
{
    if (c->differences.size() >= c->max_differences)
        return nullptr;
    zan_difference_st d = {};
    d.table_id = c->def->id;
    d.npu = (uint16_t)npu;
    d.kind = (uint16_t)kind;
    c->differences.push_back(d);
    return &c->differences.back();
}

void compare_on(comparison_t *c, uint32_t npu, const zan_table_base_st *db_obj)
{
    char why[96] = "";
    c->reply.compared++;
    const zan_counters_hold_t hold(zan_table_defs[db_obj->table_id]);
    const int result = c->node->npus.compare(npu, db_obj, why, sizeof why);
    if (result != 1)
        c->expected[npu]++;
    if (result == 0)
        return;
    c->reply.missing += result == 1;
    c->reply.different += result != 1;
    zan_difference_st *d =
        add_difference(c, npu, result == 1 ? ZAN_DIFFERENCE_MISSING : ZAN_DIFFERENCE_CONTENT);
    if (!d)
        return;
    zan_key_print(c->def, zan_obj_key(c->def, db_obj), d->text, sizeof d->text);
    const size_t at = strlen(d->text);
    snprintf(d->text + at, sizeof d->text - at, " %s", result == 1 ? "not held" : why);
}

zan_rcode compare_object(zan_table_base_st *db_obj, void *arg)
{
    auto *c = (comparison_t *)arg;
    for (kor_npu_mask_t left = npus_of(db_obj); left; left &= left - 1)
        compare_on(c, (uint32_t)__builtin_ctzll(left), db_obj);
    return EOK;
}

void count_surplus(comparison_t *c)
{
    for (uint32_t npu = 0; npu < c->node->facts.num_npus; npu++) {
        const uint64_t held = c->node->npus.count(npu, c->def->id);
        if (held <= c->expected[npu])
            continue;
        const uint64_t surplus = held - c->expected[npu];
        c->reply.surplus += surplus;
        if (zan_difference_st *d = add_difference(c, npu, ZAN_DIFFERENCE_SURPLUS))
            snprintf(d->text, sizeof d->text, "%llu objects too many", (unsigned long long)surplus);
    }
}

void compare_table(comparison_t *c, uint32_t table_id)
{
    c->def = zan_table_defs[table_id];
    memset(c->expected, 0, sizeof c->expected);
    if (zan_db_count(table_id)) {
        c->reply.num_tables++;
        zan_db_walk(table_id, nullptr, compare_object, c, 0);
    }
    count_surplus(c);
}

answer_t refuse(zan_wire_error_et error, const char *field, const char *text)
{
    return {ZAN_FRAME_ERROR, make_error_frame(error, ZAN_WIRE_NO_INDEX, field, text)};
}

} // namespace

answer_t run_compare(node_t *node, const request_t &request)
{
    zan_compare_st asked;
    if (request.payload.size() != sizeof asked)
        return refuse(ZAN_WIRE_BAD_REQUEST, "length", "the comparison's payload has another size");
    memcpy(&asked, request.payload.data(), sizeof asked);
    const bool all = asked.table_id == ZAN_WIRE_NO_INDEX;
    if (!all && asked.table_id >= ZAN_NUM_TABLES)
        return refuse(ZAN_WIRE_BAD_REQUEST, "table_id", "no such table");
    if (!node->npus.can_compare())
        return refuse(ZAN_WIRE_UNAVAILABLE, "", "this platform cannot tell what its NPUs hold");
    if (node->facts.node & ZAN_NODE_STANDBY)
        return refuse(ZAN_WIRE_UNAVAILABLE, "",
                      "the node is on standby: no hardware was touched, nothing to compare");

    comparison_t c = {};
    c.node = node;
    c.max_differences =
        asked.max_differences < most_differences ? asked.max_differences : most_differences;
    c.differences.reserve(c.max_differences); /* nothing may be thrown through the walk */
    {
        const dispatcher_hold_t hold;
        const npus_standstill_t standstill;
        if (!standstill.stopped)
            return refuse(ZAN_WIRE_UNAVAILABLE, "", "the NPU queues cannot be stopped now");
        for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++)
            if (all || id == asked.table_id)
                compare_table(&c, id);
    }
    c.reply.num_differences = (uint32_t)c.differences.size();
    const size_t records = c.differences.size() * sizeof(zan_difference_st);
    std::vector<uint8_t> frame(sizeof(zan_frame_hdr_st) + sizeof c.reply + records);
    memcpy(frame.data() + sizeof(zan_frame_hdr_st), &c.reply, sizeof c.reply);
    if (records)
        memcpy(frame.data() + sizeof(zan_frame_hdr_st) + sizeof c.reply, c.differences.data(),
               records);
    return {ZAN_FRAME_COMPARE_REPLY, std::move(frame)};
}
