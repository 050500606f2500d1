/* All that is counted of one table. */
#include "requests.h"

#include "global_context.h"
#include "host_services.h"
#include "table_crud_ctx.h"
#include "table_database.h"

#include <cstring>
#include <string>

#include <dlfcn.h>

namespace
{

void fill_info(const zan_table_def_t *def, zan_table_record_st *out)
{
    const zan_resource_info_t *info = resource_info(def);
    if (!info)
        return;
    out->creates = info->create_cnt;
    out->deletes = info->delete_cnt;
    out->updates = info->update_cnt;
    out->reads = info->get_cnt;
    out->resolve_failed = info->resolve_fail_cnt;
    out->reserve_failed = info->reserve_fail_cnt;
    out->release_failed = info->release_fail_cnt;
    out->update_id_failed = info->update_id_fail_cnt;
    out->not_found = info->not_found_cnt;
    out->duplicate_creates = info->dup_create_cnt;
    out->dbobj_alloc_failed = info->dbobj_alloc_fail_cnt;
    out->retry_updates = info->retry_update_cnt;
    out->recovered_errors = info->recovered_err_cnt;
}

void fill_identifiers(uint32_t table_id, zan_table_record_st *out)
{
    zan_host_identifiers_st ids;
    zan_host_identifiers_get(table_id, &ids);
    out->ids_capacity = ids.capacity;
    out->ids_held = ids.held;
    out->ids_orphaned = ids.orphaned;
    out->ids_refused = ids.refused;
    out->ids_reclaimed = ids.reclaimed;
}

void fill_npus(const node_t *node, const zan_global_table_st &table, zan_table_record_st *out)
{
    for (uint32_t npu = 0; npu < out->num_npus; npu++) {
        const zan_table_npu_block_st &block = table.npu[npu];
        out->npu[npu] = {npu_errors(&block.create_err_cnt), npu_errors(&block.delete_err_cnt),
                         npu_errors(&block.update_err_cnt), block.obj_cnt,
                         node->npus.count ? node->npus.count(npu, out->table_id) : 0};
    }
}

} // namespace

const zan_resource_info_t *resource_info(const zan_table_def_t *def)
{
    using get_t = const zan_resource_info_t *(*)(void);
    const std::string name = std::string("kor_") + def->name + "_get_resource_info";
    const auto get = (get_t)dlsym(RTLD_DEFAULT, name.c_str());
    return get ? get() : nullptr;
}

answer_t run_table(node_t *node, const request_t &request)
{
    zan_table_st asked;
    if (request.payload.size() != sizeof asked)
        return refuse_request(node, "length", "the request's payload has another size");
    memcpy(&asked, request.payload.data(), sizeof asked);
    const zan_table_def_t *def = zan_table_def_get(asked.table_id);
    if (!def)
        return refuse_request(node, "table_id", "there is no such table");
    const dispatcher_hold_t hold;
    const zan_global_ctx_st *ctx = zan_get_global_ctx();
    zan_table_record_st record = {};
    record.table_id = def->id;
    record.num_npus = node->facts.num_npus;
    record.stored = zan_db_count(def->id);
    record.quarantine_max_depth = ctx->table[def->id].quarantine_max_depth;
    fill_info(def, &record);
    fill_identifiers(def->id, &record);
    fill_npus(node, ctx->table[def->id], &record);
    const uint32_t sets[] = {0, 1, 2 + ctx->active_bank};
    for (uint32_t i = 0; i < 3; i++)
        memcpy(record.counters[i], ctx->counters[sets[i]][def->id], sizeof record.counters[i]);
    const replay_t &replay = node->replays.of[def->id];
    record.replaying = replay.running;
    record.replay_kept = replay.kept;
    record.replay_changed = replay.changed;
    record.replay_deleted = replay.deleted;
    record.replay_left = replay.left;
    record.replay_dropped = replay.dropped;
    for (uint32_t i = 0; i < replay.before.size(); i++)
        record.counters[3][i] = record.counters[0][i] - replay.before[i];
    std::vector<uint8_t> frame(sizeof(zan_frame_hdr_st) + sizeof record);
    memcpy(frame.data() + sizeof(zan_frame_hdr_st), &record, sizeof record);
    return {ZAN_FRAME_TABLE_REPLY, std::move(frame)};
}
