/* The status: figures of the node, of each NPU, and of each table that holds something or was asked
 * to.
 */
#include "requests.h"

#include "exec_queue.h"
#include "global_context.h"
#include "host_control.h"
#include "host_services.h"
#include "object_memory.h"
#include "table_crud_ctx.h"
#include "table_database.h"

#include <cstring>
#include <ctime>

namespace
{

void fill_npu(const node_t *node, uint32_t npu, zan_npu_status_st *out)
{
    out->program_cnt = zan_get_global_ctx()->npu[npu].program_cnt;
    if (node->npus.bytes)
        out->bytes = node->npus.bytes(npu);
    if (!node->npus.counts)
        return;
    npu_sim_counts_t counts = {};
    node->npus.counts(npu, &counts);
    out->creates = counts.creates;
    out->updates = counts.updates;
    out->deletes = counts.deletes;
    out->gets = counts.gets;
    out->failures = counts.failures;
}

void fill_node(const node_t *node, const transport_t *transport, zan_status_st *out)
{
    out->node = node->facts.node;
    out->num_npus = node->facts.num_npus;
    out->num_clients = transport_num_clients(transport);
    out->queue_depth = kor_exec_q_get_depth(get_global_exec_q());
    out->uptime_ms = (uint64_t)(monotonic_ms() - node->started_ms);
    out->pool_bytes = zan_shm_bytes_in_use();
    out->index_bytes = zan_db_index_bytes();
    out->heap_blocks = zan_heap_blocks_in_use();
    out->trace_errors = node->trace_errors;
    out->batches = node->batches;
    out->objects = node->objects;
    out->refused = node->refused + transport_num_refused(transport);
    out->hooks_platform = node->hooks[ZAN_HOOK_PLATFORM];
    out->hooks_default = node->hooks[ZAN_HOOK_DEFAULT];
    out->hooks_none = node->hooks[ZAN_HOOK_NONE];
    for (uint32_t npu = 0; npu < out->num_npus; npu++)
        fill_npu(node, npu, &out->npu[npu]);
}

/* False for a table that nobody used. */
bool fill_table(const node_t *node, uint32_t table_id, zan_status_st *status,
                zan_table_status_st *out)
{
    const zan_global_ctx_st *ctx = zan_get_global_ctx();
    const uint32_t *counters = ctx->counters[0][table_id];
    memset(out, 0, sizeof *out);
    out->table_id = table_id;
    out->stored = zan_db_count(table_id);
    bool used = out->stored || counters[ZAN_CTR_CREATE];
    for (uint32_t npu = 0; npu < status->num_npus; npu++) {
        out->held[npu] = node->npus.count ? node->npus.count(npu, table_id) : 0;
        const zan_table_npu_block_st *errors = &ctx->table[table_id].npu[npu];
        out->hw_create_errors[npu] = npu_errors(&errors->create_err_cnt);
        out->hw_update_errors[npu] = npu_errors(&errors->update_err_cnt);
        out->hw_delete_errors[npu] = npu_errors(&errors->delete_err_cnt);
        status->npu[npu].objects += out->held[npu];
        used |= out->held[npu] != 0;
    }
    if (!used)
        return false;
    out->index_bytes = zan_db_index_bytes_of(table_id);
    out->identifiers = zan_host_identifiers_held(table_id);
    out->creates = counters[ZAN_CTR_CREATE];
    out->duplicates = counters[ZAN_CTR_CREATE_DUPLICATE] + counters[ZAN_CTR_CREATE_STRICT_DIFFERS] -
                      node->replays.accepted[table_id];
    const zan_resource_info_t *info = resource_info(zan_table_defs[table_id]);
    out->resolve_failed = info ? info->resolve_fail_cnt : 0;
    out->bind_failed = counters[ZAN_CTR_BIND_FAILED];
    out->reserve_failed = counters[ZAN_CTR_CREATE_RESERVE_FAILED];
    out->insert_failed = counters[ZAN_CTR_INSERT_FAILED_A];
    out->hw_failed = counters[ZAN_CTR_CREATE_HW_FAILED];
    out->rolled_back = counters[ZAN_CTR_CREATE_ROLLED_BACK];
    out->updates = counters[ZAN_CTR_UPDATE];
    out->refs_changed = counters[ZAN_CTR_REFS_CHANGED_A];
    out->update_failed = counters[ZAN_CTR_UPDATE_BCAST_FAILED] + counters[ZAN_CTR_UPDATE_HW_FAILED];
    out->deletes = counters[ZAN_CTR_DELETE];
    out->still_referenced = counters[ZAN_CTR_DELETE_REF_CNT];
    out->delete_failed =
        counters[ZAN_CTR_DELETE_BCAST_FAILED] + counters[ZAN_CTR_DELETE_HW_FAILED] +
        counters[ZAN_CTR_DELETE_INDEPENDENT_FAILED] + counters[ZAN_CTR_DB_DELETE_FAILED];
    return true;
}

} // namespace

int64_t monotonic_ms()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (int64_t)t.tv_sec * 1000 + t.tv_nsec / 1000000;
}

answer_t run_status(node_t *node, const transport_t *transport)
{
    zan_status_st status = {};
    zan_table_status_st table;
    std::vector<uint8_t> frame(sizeof(zan_frame_hdr_st) + sizeof status);
    node->trace_errors += zan_host_trace_new_errors();
    const dispatcher_hold_t hold;
    fill_node(node, transport, &status);
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        if (!fill_table(node, id, &status, &table))
            continue;
        const auto *bytes = (const uint8_t *)&table;
        frame.insert(frame.end(), bytes, bytes + sizeof table);
        status.num_tables++;
    }
    memcpy(frame.data() + sizeof(zan_frame_hdr_st), &status, sizeof status);
    return {ZAN_FRAME_STATUS_REPLY, std::move(frame)};
}
