/* status and compare: what the node holds and did, and whether its NPUs hold the same. */
#include "objects.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <numeric>

namespace
{

constexpr uint32_t differences_shown = 20;

const char *difference_kind(uint16_t kind)
{
    switch (kind) {
    case ZAN_DIFFERENCE_MISSING:
        return "missing";
    case ZAN_DIFFERENCE_CONTENT:
        return "different";
    default:
        return "surplus";
    }
}

json_t npu_json(const zan_npu_status_st &npu, uint32_t index)
{
    json_t out;
    out["npu"] = index;
    out["objects"] = npu.objects;
    out["bytes"] = npu.bytes;
    out["programmed"] = npu.program_cnt;
    out["creates"] = npu.creates;
    out["updates"] = npu.updates;
    out["deletes"] = npu.deletes;
    out["gets"] = npu.gets;
    out["failures"] = npu.failures;
    return out;
}

json_t table_json(const zan_table_status_st &table, uint32_t num_npus)
{
    json_t out;
    out["table"] = kor_table_name_get(table.table_id);
    out["stored"] = table.stored;
    out["index_bytes"] = table.index_bytes;
    out["identifiers"] = table.identifiers;
    out["creates"] = table.creates;
    out["duplicates"] = table.duplicates;
    out["resolve_failed"] = table.resolve_failed;
    out["bind_failed"] = table.bind_failed;
    out["reserve_failed"] = table.reserve_failed;
    out["insert_failed"] = table.insert_failed;
    out["hardware_failed"] = table.hw_failed;
    out["rolled_back"] = table.rolled_back;
    out["updates"] = table.updates;
    out["references_changed"] = table.refs_changed;
    out["update_failed"] = table.update_failed;
    out["deletes"] = table.deletes;
    out["still_referenced"] = table.still_referenced;
    out["delete_failed"] = table.delete_failed;
    out["held"] = json_t::array();
    out["hardware_create_errors"] = json_t::array();
    out["hardware_update_errors"] = json_t::array();
    out["hardware_delete_errors"] = json_t::array();
    for (uint32_t npu = 0; npu < num_npus; npu++) {
        out["held"].push_back(table.held[npu]);
        out["hardware_create_errors"].push_back(table.hw_create_errors[npu]);
        out["hardware_update_errors"].push_back(table.hw_update_errors[npu]);
        out["hardware_delete_errors"].push_back(table.hw_delete_errors[npu]);
    }
    return out;
}

json_t status_json(const zan_status_st &status, const zan_table_status_st *tables)
{
    json_t out;
    out["num_npus"] = status.num_npus;
    out["standby"] = (status.node & ZAN_NODE_STANDBY) != 0;
    out["per_object_npu_mask"] = (status.node & ZAN_NODE_PER_OBJECT_NPU_MASK) != 0;
    out["stepped"] = (status.node & ZAN_NODE_STEPPED) != 0;
    out["can_compare"] = (status.node & ZAN_NODE_CAN_COMPARE) != 0;
    out["clients"] = status.num_clients;
    out["queue_depth"] = status.queue_depth;
    out["uptime_ms"] = status.uptime_ms;
    out["pool_bytes"] = status.pool_bytes;
    out["index_bytes"] = status.index_bytes;
    out["heap_blocks"] = status.heap_blocks;
    out["trace_errors"] = status.trace_errors;
    out["batches"] = status.batches;
    out["objects"] = status.objects;
    out["refused_messages"] = status.refused;
    out["hooks"] = {{"platform", status.hooks_platform},
                    {"default", status.hooks_default},
                    {"none", status.hooks_none}};
    out["npus"] = json_t::array();
    for (uint32_t npu = 0; npu < status.num_npus; npu++)
        out["npus"].push_back(npu_json(status.npu[npu], npu));
    out["tables"] = json_t::array();
    for (uint32_t i = 0; i < status.num_tables; i++)
        out["tables"].push_back(table_json(tables[i], status.num_npus));
    return out;
}

void print_node(FILE *out, const zan_status_st &s)
{
    fprintf(out, "node      %s%s%s%s, %s, up %.1f s\n", plural(s.num_npus, "NPU", "NPUs").c_str(),
            s.node & ZAN_NODE_STANDBY ? ", standby" : "",
            s.node & ZAN_NODE_PER_OBJECT_NPU_MASK ? ", per-object NPU masks" : "",
            s.node & ZAN_NODE_STEPPED ? ", stepped" : "",
            plural(s.num_clients, "client", "clients").c_str(), (double)s.uptime_ms / 1000);
    fprintf(out, "hooks     %llu platform, %llu default, %llu open\n",
            (unsigned long long)s.hooks_platform, (unsigned long long)s.hooks_default,
            (unsigned long long)s.hooks_none);
    fprintf(out, "memory    %llu bytes of objects, %llu bytes of indices, %llu heap blocks\n",
            (unsigned long long)s.pool_bytes, (unsigned long long)s.index_bytes,
            (unsigned long long)s.heap_blocks);
    fprintf(out,
            "served    %llu objects in %llu batches, %llu messages refused, %llu errors traced\n",
            (unsigned long long)s.objects, (unsigned long long)s.batches,
            (unsigned long long)s.refused, (unsigned long long)s.trace_errors);
    fprintf(out, "queues    %u messages wait for the NPUs\n", s.queue_depth);
    for (uint32_t npu = 0; npu < s.num_npus; npu++)
        fprintf(out,
                "NPU %u     %llu objects, %llu bytes; %llu creates, %llu updates, %llu deletes, "
                "%llu failures\n",
                npu, (unsigned long long)s.npu[npu].objects, (unsigned long long)s.npu[npu].bytes,
                (unsigned long long)s.npu[npu].creates, (unsigned long long)s.npu[npu].updates,
                (unsigned long long)s.npu[npu].deletes, (unsigned long long)s.npu[npu].failures);
}

/* A write that the client was waiting for is counted as a failure of the operation and of each NPU
 * that refused it; of one that nobody waited for only the NPUs know. */
uint64_t with_hardware(uint32_t operations, const uint32_t (&npus)[ZAN_MAX_NPUS])
{
    return std::max<uint64_t>(operations,
                              std::accumulate(std::begin(npus), std::end(npus), uint64_t(0)));
}

uint64_t failures(const zan_table_status_st &t)
{
    return (uint64_t)t.resolve_failed + t.bind_failed + t.reserve_failed + t.insert_failed +
           t.duplicates + with_hardware(t.hw_failed, t.hw_create_errors) +
           with_hardware(t.update_failed, t.hw_update_errors) +
           with_hardware(t.delete_failed, t.hw_delete_errors);
}

void print_tables(FILE *out, const zan_status_st &status, const zan_table_status_st *tables)
{
    if (!status.num_tables) {
        fprintf(out, "tables    all empty\n");
        return;
    }
    fprintf(out, "\n%-20s %10s %10s %10s %10s %10s %11s\n", "table", "stored", "creates", "updates",
            "deletes", "failures", "identifiers");
    for (uint32_t i = 0; i < status.num_tables; i++)
        fprintf(out, "%-20s %10llu %10u %10u %10u %10llu %11llu\n",
                kor_table_name_get(tables[i].table_id), (unsigned long long)tables[i].stored,
                tables[i].creates, tables[i].updates, tables[i].deletes,
                (unsigned long long)failures(tables[i]), (unsigned long long)tables[i].identifiers);
}

json_t compare_json(const zan_compare_reply_st &reply, const zan_difference_st *differences)
{
    json_t out;
    out["compared"] = reply.compared;
    out["tables"] = reply.num_tables;
    out["missing"] = reply.missing;
    out["different"] = reply.different;
    out["surplus"] = reply.surplus;
    out["differences"] = json_t::array();
    for (uint32_t i = 0; i < reply.num_differences; i++)
        out["differences"].push_back({{"table", kor_table_name_get(differences[i].table_id)},
                                      {"npu", differences[i].npu},
                                      {"kind", difference_kind(differences[i].kind)},
                                      {"text", differences[i].text}});
    return out;
}

} // namespace

int run_status(session_t *session)
{
    zan_status_st status;
    zan_table_status_st *tables;
    if (zan_client_status(session->client, &status, &tables))
        return fail_session(session);
    const std::unique_ptr<zan_table_status_st, free_object_t> owned(tables);
    if (session->json) {
        fprintf(session->out, "%s\n", status_json(status, tables).dump().c_str());
    } else {
        print_node(session->out, status);
        print_tables(session->out, status, tables);
    }
    return EXIT_WELL;
}

void print_comparison(const zan_compare_reply_st &reply, const zan_difference_st *differences)
{
    printf("compared  %llu objects on NPUs: %llu missing, %llu different, %llu too many\n",
           (unsigned long long)reply.compared, (unsigned long long)reply.missing,
           (unsigned long long)reply.different, (unsigned long long)reply.surplus);
    for (uint32_t i = 0; i < reply.num_differences; i++)
        printf("  NPU %u %s %s: %s\n", differences[i].npu, difference_kind(differences[i].kind),
               kor_table_name_get(differences[i].table_id), differences[i].text);
}

int run_compare(session_t *session, const std::string &table)
{
    uint32_t table_id;
    std::string why;
    if (!find_table_or_all(table, &table_id, &why))
        return fail_text(why);
    zan_compare_reply_st reply;
    zan_difference_st *differences;
    if (zan_client_compare(session->client, table_id, differences_shown, &reply, &differences))
        return fail_session(session);
    const std::unique_ptr<zan_difference_st, free_object_t> owned(differences);
    if (session->json)
        printf("%s\n", compare_json(reply, differences).dump().c_str());
    else
        print_comparison(reply, differences);
    return reply.missing || reply.different || reply.surplus ? EXIT_REFUSED : EXIT_WELL;
}
