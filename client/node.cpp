/* What the node tells of itself, and what it is told to do about it. */
#include "client_state.h"

#include <cstdlib>
#include <cstring>

/* The rows of one kind, from `*at` on; `*at` moves behind them. */
static int take_rows(zan_client_t *client, const byte_block_t *reply, const void *head,
                     const client_rows_t &rows, size_t *at)
{
    uint32_t count;
    memcpy(&count, (const uint8_t *)head + rows.count_offset, sizeof count);
    const size_t bytes = count * rows.size;
    if (reply->len - *at < bytes)
        return client_lose(client, "the agent's reply has %zu bytes", reply->len);
    *rows.out = malloc(bytes + 1);
    if (!*rows.out)
        return client_fail(client, "no memory");
    memcpy(*rows.out, reply->bytes + *at, bytes);
    *at += bytes;
    return 0;
}

int client_take(zan_client_t *client, int asked, byte_block_t *reply, void *head, size_t head_size,
                std::initializer_list<client_rows_t> rows)
{
    for (const client_rows_t &kind : rows)
        *kind.out = nullptr;
    int result = asked;
    size_t at = head_size;
    if (result == 0 && reply->len < head_size)
        result = client_lose(client, "the agent's reply has %zu bytes", reply->len);
    if (result == 0)
        memcpy(head, reply->bytes, head_size);
    for (const client_rows_t &kind : rows)
        if (result == 0)
            result = take_rows(client, reply, head, kind, &at);
    if (result == 0 && reply->len != at)
        result = client_lose(client, "the agent's reply has %zu bytes", reply->len);
    free(reply->bytes);
    for (const client_rows_t &kind : rows)
        if (result != 0) {
            free(*kind.out);
            *kind.out = nullptr;
        }
    return result;
}

int zan_client_status(zan_client_t *client, zan_status_st *status, zan_table_status_st **tables)
{
    byte_block_t reply = {};
    return client_take(
        client, client_ask(client, ZAN_FRAME_STATUS, nullptr, 0, ZAN_FRAME_STATUS_REPLY, &reply),
        &reply, status, sizeof *status,
        {{offsetof(zan_status_st, num_tables), sizeof **tables, (void **)tables}});
}

int client_take_walk_counts(zan_client_t *client, const byte_block_t *reply, size_t at,
                            zan_walk_counts_st **counts)
{
    zan_walk_counts_st head = {};
    if (reply->len >= at + sizeof head)
        memcpy(&head, reply->bytes + at, sizeof head);
    const size_t size = sizeof head + (size_t)head.num_tables * sizeof(zan_walk_table_st) +
                        (size_t)head.num_events * sizeof(zan_walk_event_st);
    if (reply->len != at + size)
        return client_lose(client, "the agent's walk counts have %zu bytes", reply->len);
    *counts = (zan_walk_counts_st *)malloc(size);
    if (!*counts)
        return client_fail(client, "no memory");
    memcpy(*counts, reply->bytes + at, size);
    return 0;
}

const zan_walk_table_st *zan_client_walk_tables(const zan_walk_counts_st *counts)
{
    return (const zan_walk_table_st *)(counts + 1);
}

const zan_walk_event_st *zan_client_walk_events(const zan_walk_counts_st *counts)
{
    return (const zan_walk_event_st *)(zan_client_walk_tables(counts) + counts->num_tables);
}

int zan_client_walk_counts(zan_client_t *client, zan_walk_counts_st **counts)
{
    *counts = nullptr;
    byte_block_t reply = {};
    int result =
        client_ask(client, ZAN_FRAME_WALK_COUNTS, nullptr, 0, ZAN_FRAME_WALK_COUNTS_REPLY, &reply);
    if (result == 0)
        result = client_take_walk_counts(client, &reply, 0, counts);
    free(reply.bytes);
    return result;
}

int zan_client_resources(zan_client_t *client, const zan_resources_st *request,
                         zan_resources_reply_st *reply, zan_resource_st **databases,
                         zan_resource_table_st **tables)
{
    const zan_resources_st nothing = {};
    byte_block_t bytes = {};
    const int asked = client_ask(client, ZAN_FRAME_RESOURCES, request ? request : &nothing,
                                 sizeof nothing, ZAN_FRAME_RESOURCES_REPLY, &bytes);
    return client_take(
        client, asked, &bytes, reply, sizeof *reply,
        {{offsetof(zan_resources_reply_st, num_databases), sizeof **databases, (void **)databases},
         {offsetof(zan_resources_reply_st, num_tables), sizeof **tables, (void **)tables}});
}

int zan_client_compare(zan_client_t *client, uint32_t table_id, uint32_t max_differences,
                       zan_compare_reply_st *reply, zan_difference_st **differences)
{
    const zan_compare_st request = {table_id, max_differences};
    byte_block_t bytes = {};
    const int asked = client_ask(client, ZAN_FRAME_COMPARE, &request, sizeof request,
                                 ZAN_FRAME_COMPARE_REPLY, &bytes);
    return client_take(client, asked, &bytes, reply, sizeof *reply,
                       {{offsetof(zan_compare_reply_st, num_differences), sizeof **differences,
                         (void **)differences}});
}

/* Ask about one object: the frame is a head and the object that names it, or the head alone. */
static int ask_named(zan_client_t *client, uint16_t type, const void *head, size_t head_size,
                     const zan_table_base_st *lookup, byte_block_t *reply)
{
    if (!lookup)
        return client_ask(client, type, head, (uint32_t)head_size, (uint16_t)(type + 1), reply);
    const zan_table_def_t *def = zan_table_def_get(lookup->table_id);
    if (!def)
        return client_fail(client, "%u is no table", lookup->table_id);
    byte_block_t frame = {};
    const size_t size =
        head_size + def->obj_size + zan_obj_dyn_size(def, zan_obj_num_elements(def, lookup));
    if (!block_reserve(&frame, size))
        return client_fail(client, "no memory");
    memcpy(frame.bytes, head, head_size);
    auto *wire = (zan_table_base_st *)(frame.bytes + head_size);
    const uint32_t len = zan_obj_serialize(def, 0, lookup, wire);
    wire->table_operation = ZAN_TABLE_GET;
    const int result = client_ask(client, type, frame.bytes, (uint32_t)head_size + len,
                                  (uint16_t)(type + 1), reply);
    free(frame.bytes);
    return result;
}

int zan_client_graph(zan_client_t *client, const zan_table_base_st *lookup, uint32_t depth,
                     uint32_t children, zan_graph_reply_st *reply, zan_graph_node_st **nodes)
{
    const zan_graph_st request = {depth, children, 0};
    byte_block_t bytes = {};
    const int asked = ask_named(client, ZAN_FRAME_GRAPH, &request, sizeof request, lookup, &bytes);
    return client_take(client, asked, &bytes, reply, sizeof *reply,
                       {{offsetof(zan_graph_reply_st, num_nodes), sizeof **nodes, (void **)nodes}});
}

int zan_client_stats(zan_client_t *client, const zan_table_base_st *lookup, bool walk_now,
                     zan_stats_reply_st *reply, zan_stats_walk_st **walks,
                     zan_stats_adj_st **adjacencies)
{
    const zan_stats_st request = {walk_now, 0};
    byte_block_t bytes = {};
    const int asked = ask_named(client, ZAN_FRAME_STATS, &request, sizeof request, lookup, &bytes);
    return client_take(client, asked, &bytes, reply, sizeof *reply,
                       {{offsetof(zan_stats_reply_st, num_walks), sizeof **walks, (void **)walks},
                        {offsetof(zan_stats_reply_st, num_adjacencies), sizeof **adjacencies,
                         (void **)adjacencies}});
}

static int ask_failed(zan_client_t *client, uint16_t type, const zan_failed_st *request,
                      zan_failed_reply_st *reply, size_t row, void **rows)
{
    byte_block_t bytes = {};
    const int asked =
        client_ask(client, type, request, sizeof *request, (uint16_t)(type + 1), &bytes);
    return client_take(client, asked, &bytes, reply, sizeof *reply,
                       {{offsetof(zan_failed_reply_st, num_rows), row, rows}});
}

int zan_client_failed(zan_client_t *client, const zan_failed_st *request,
                      zan_failed_reply_st *reply, zan_failed_row_st **rows)
{
    return ask_failed(client, ZAN_FRAME_FAILED, request, reply, sizeof **rows, (void **)rows);
}

int zan_client_quarantine(zan_client_t *client, const zan_failed_st *request,
                          zan_failed_reply_st *reply, zan_quarantine_row_st **rows)
{
    return ask_failed(client, ZAN_FRAME_QUARANTINE, request, reply, sizeof **rows, (void **)rows);
}

int zan_client_table(zan_client_t *client, uint32_t table_id, zan_table_record_st *record)
{
    const zan_table_st request = {table_id, 0};
    byte_block_t bytes = {};
    const int asked = client_ask(client, ZAN_FRAME_TABLE, &request, sizeof request,
                                 ZAN_FRAME_TABLE_REPLY, &bytes);
    return client_take(client, asked, &bytes, record, sizeof *record, {});
}

int zan_client_sim(zan_client_t *client, const zan_sim_st *request)
{
    byte_block_t bytes = {};
    const int result =
        client_ask(client, ZAN_FRAME_SIM, request, sizeof *request, ZAN_FRAME_SIM_REPLY, &bytes);
    free(bytes.bytes);
    return result;
}

int zan_client_trace(zan_client_t *client, uint64_t after, uint32_t max, zan_trace_reply_st *reply,
                     zan_trace_record_st **records)
{
    const zan_trace_st request = {after, max, 0};
    byte_block_t bytes = {};
    const int asked = client_ask(client, ZAN_FRAME_TRACE, &request, sizeof request,
                                 ZAN_FRAME_TRACE_REPLY, &bytes);
    return client_take(
        client, asked, &bytes, reply, sizeof *reply,
        {{offsetof(zan_trace_reply_st, num_records), sizeof **records, (void **)records}});
}
