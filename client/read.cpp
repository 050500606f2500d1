/* Reads by key and in key order, and what the node tells of itself. */
#include "client_state.h"

#include <cstdlib>
#include <cstring>

/* Members that the first try has room for. */
static const uint32_t first_room = 8;

static zan_table_base_st *make_request(const zan_table_def_t *def, const zan_table_base_st *lookup,
                                       uint32_t room)
{
    zan_table_base_st *request = zan_obj_ctor(def, 0, room);
    if (!request)
        return nullptr;
    request->key_len = lookup->key_len;
    request->obj_handle = lookup->obj_handle;
    request->getopt_mask = lookup->getopt_mask;
    memcpy(zan_obj_key(def, request), zan_obj_key(def, lookup), def->key_size);
    return request;
}

static int read_once(zan_client_t *client, uint8_t operation, const zan_table_base_st *request,
                     zan_batch_t *batch, zan_rcode *rc, zan_table_base_st **out)
{
    zan_batch_clear(batch);
    if (zan_batch_append(batch, request, operation))
        return client_fail(client, "the read does not fit into a batch");
    if (zan_client_run(client, batch))
        return -1;
    *rc = zan_batch_rc(batch, 0);
    if (*rc != EOK)
        return 0;
    *out = zan_batch_object(batch, 0);
    return *out ? 0 : client_fail(client, "the agent's answer holds no object");
}

static int read_with_room(zan_client_t *client, uint8_t operation, const zan_table_base_st *lookup,
                          zan_batch_t *batch, zan_rcode *rc, zan_table_base_st **out)
{
    const zan_table_def_t *def = zan_table_def_get(lookup->table_id);
    if (!def)
        return client_fail(client, "%u is no table", lookup->table_id);
    for (uint32_t room = first_room;; room *= 2) {
        zan_table_base_st *request = make_request(def, lookup, room);
        if (!request)
            return client_fail(client, "no memory");
        const int result = read_once(client, operation, request, batch, rc, out);
        free(request);
        const bool more = result == 0 && *rc == ZAN_RC_INVALID_READ && def->num_elements_offset;
        if (!more || room >= ZAN_ELEMENTS_MAX)
            return result;
    }
}

int zan_client_read(zan_client_t *client, uint8_t operation, const zan_table_base_st *lookup,
                    zan_rcode *rc, zan_table_base_st **out)
{
    *out = nullptr;
    zan_batch_t *batch = zan_batch_new(0, 0);
    if (!batch)
        return client_fail(client, "no memory");
    const int result = read_with_room(client, operation, lookup, batch, rc, out);
    zan_batch_free(batch);
    return result;
}

/* Steps until the visitor or the table ends it. `*at` is the last object read, and ours. */
static int walk_steps(zan_client_t *client, const zan_table_def_t *def,
                      const zan_table_base_st *from, zan_batch_t *batch, zan_table_base_st **at,
                      zan_client_visit_f visit, void *arg, zan_rcode *rc)
{
    uint8_t operation = from ? ZAN_TABLE_GET_GT_EQ : ZAN_TABLE_GET_FIRST;
    *at = make_request(def, from ? from : *at, 0);
    while (*at) {
        (*at)->obj_handle = 0; /* by key: the object may go while we look at it */
        zan_table_base_st *next = nullptr;
        if (read_with_room(client, operation, *at, batch, rc, &next))
            return -1;
        if (*rc != EOK) {
            *rc = *rc == ZAN_RC_NOT_FOUND ? (zan_rcode)EOK : *rc;
            return 0;
        }
        free(*at);
        *at = next;
        if (visit(next, arg))
            return 0;
        operation = ZAN_TABLE_GET_NEXT;
    }
    return client_fail(client, "no memory");
}

int zan_client_walk(zan_client_t *client, const zan_table_def_t *def, const zan_table_base_st *from,
                    zan_client_visit_f visit, void *arg, zan_rcode *rc)
{
    zan_table_base_st *empty = zan_obj_ctor(def, 0, 0);
    zan_batch_t *batch = zan_batch_new(0, 0);
    zan_table_base_st *at = empty;
    *rc = EOK;
    const int result = empty && batch ? walk_steps(client, def, from, batch, &at, visit, arg, rc)
                                      : client_fail(client, "no memory");
    if (at != empty)
        free(at);
    free(empty);
    zan_batch_free(batch);
    return result;
}

/* ---- The node ---- */

/* Split a reply into its head and `count` records behind it, in memory of their own. */
static int take_records(zan_client_t *client, const byte_block_t *reply, size_t head, size_t count,
                        size_t record, void **out)
{
    if (reply->len != head + count * record)
        return client_lose(client, "the agent's reply has %zu bytes", reply->len);
    *out = malloc(count * record + 1);
    if (!*out)
        return client_fail(client, "no memory");
    memcpy(*out, reply->bytes + head, count * record);
    return 0;
}

int zan_client_status(zan_client_t *client, zan_status_st *status, zan_table_status_st **tables)
{
    *tables = nullptr;
    byte_block_t reply = {};
    int result = client_ask(client, ZAN_FRAME_STATUS, nullptr, 0, ZAN_FRAME_STATUS_REPLY, &reply);
    if (result == 0 && reply.len < sizeof *status)
        result = client_lose(client, "the agent's status has %zu bytes", reply.len);
    if (result == 0) {
        memcpy(status, reply.bytes, sizeof *status);
        result = take_records(client, &reply, sizeof *status, status->num_tables, sizeof **tables,
                              (void **)tables);
    }
    free(reply.bytes);
    return result;
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

/* The two kinds of rows stand one behind the other. */
static int take_resources(zan_client_t *client, const byte_block_t *bytes,
                          zan_resources_reply_st *reply, zan_resource_st **databases,
                          zan_resource_table_st **tables)
{
    if (bytes->len < sizeof *reply)
        return client_lose(client, "the agent's resources have %zu bytes", bytes->len);
    memcpy(reply, bytes->bytes, sizeof *reply);
    const size_t front = sizeof *reply + (size_t)reply->num_databases * sizeof **databases;
    if (bytes->len < front)
        return client_lose(client, "the agent's resources have %zu bytes", bytes->len);
    const byte_block_t first = {bytes->bytes, front, front};
    if (take_records(client, &first, sizeof *reply, reply->num_databases, sizeof **databases,
                     (void **)databases))
        return -1;
    return take_records(client, bytes, front, reply->num_tables, sizeof **tables, (void **)tables);
}

int zan_client_resources(zan_client_t *client, const zan_resources_st *request,
                         zan_resources_reply_st *reply, zan_resource_st **databases,
                         zan_resource_table_st **tables)
{
    *databases = nullptr;
    *tables = nullptr;
    const zan_resources_st nothing = {};
    byte_block_t bytes = {};
    int result = client_ask(client, ZAN_FRAME_RESOURCES, request ? request : &nothing,
                            sizeof nothing, ZAN_FRAME_RESOURCES_REPLY, &bytes);
    if (result == 0)
        result = take_resources(client, &bytes, reply, databases, tables);
    free(bytes.bytes);
    if (result == 0)
        return 0;
    free(*databases);
    *databases = nullptr;
    return result;
}

int zan_client_compare(zan_client_t *client, uint32_t table_id, uint32_t max_differences,
                       zan_compare_reply_st *reply, zan_difference_st **differences)
{
    *differences = nullptr;
    const zan_compare_st request = {table_id, max_differences};
    byte_block_t bytes = {};
    int result = client_ask(client, ZAN_FRAME_COMPARE, &request, sizeof request,
                            ZAN_FRAME_COMPARE_REPLY, &bytes);
    if (result == 0 && bytes.len < sizeof *reply)
        result = client_lose(client, "the agent's comparison has %zu bytes", bytes.len);
    if (result == 0) {
        memcpy(reply, bytes.bytes, sizeof *reply);
        result = take_records(client, &bytes, sizeof *reply, reply->num_differences,
                              sizeof **differences, (void **)differences);
    }
    free(bytes.bytes);
    return result;
}

int zan_client_graph(zan_client_t *client, const zan_table_base_st *lookup, uint32_t depth,
                     uint32_t children, zan_graph_reply_st *reply, zan_graph_node_st **nodes)
{
    *nodes = nullptr;
    const zan_table_def_t *def = zan_table_def_get(lookup->table_id);
    if (!def)
        return client_fail(client, "%u is no table", lookup->table_id);
    const zan_graph_st request = {depth, children, 0};
    byte_block_t frame = {}, bytes = {};
    const size_t size =
        sizeof request + def->obj_size + zan_obj_dyn_size(def, zan_obj_num_elements(def, lookup));
    if (!block_reserve(&frame, size))
        return client_fail(client, "no memory");
    memcpy(frame.bytes, &request, sizeof request);
    auto *wire = (zan_table_base_st *)(frame.bytes + sizeof request);
    const uint32_t len = zan_obj_serialize(def, 0, lookup, wire);
    wire->table_operation = ZAN_TABLE_GET;
    int result = client_ask(client, ZAN_FRAME_GRAPH, frame.bytes, (uint32_t)sizeof request + len,
                            ZAN_FRAME_GRAPH_REPLY, &bytes);
    free(frame.bytes);
    if (result == 0 && bytes.len < sizeof *reply)
        result = client_lose(client, "the agent's graph has %zu bytes", bytes.len);
    if (result == 0) {
        memcpy(reply, bytes.bytes, sizeof *reply);
        result = take_records(client, &bytes, sizeof *reply, reply->num_nodes, sizeof **nodes,
                              (void **)nodes);
    }
    free(bytes.bytes);
    return result;
}
