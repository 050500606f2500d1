/* What the agent counts and measures. */
#include "client_state.h"

#include <cstdlib>
#include <cstring>

int zan_client_counters(zan_client_t *client, const zan_counters_st *request,
                        zan_counters_reply_st *reply, zan_counters_table_st **tables)
{
    *tables = nullptr;
    byte_block_t bytes = {};
    int result = client_ask(client, ZAN_FRAME_COUNTERS, request, sizeof *request,
                            ZAN_FRAME_COUNTERS_REPLY, &bytes);
    if (result == 0 && bytes.len < sizeof *reply)
        result = client_lose(client, "the agent's counters have %zu bytes", bytes.len);
    if (result == 0) {
        memcpy(reply, bytes.bytes, sizeof *reply);
        result = client_take_records(client, &bytes, sizeof *reply, reply->num_tables,
                                     sizeof **tables, (void **)tables);
    }
    free(bytes.bytes);
    return result;
}

int zan_client_trace_classes(zan_client_t *client, const zan_trace_classes_st *request,
                             zan_trace_classes_reply_st *reply)
{
    byte_block_t bytes = {};
    int result = client_ask(client, ZAN_FRAME_TRACE_CLASSES, request, sizeof *request,
                            ZAN_FRAME_TRACE_CLASSES_REPLY, &bytes);
    if (result == 0 && bytes.len != sizeof *reply)
        result = client_lose(client, "the agent's trace classes have %zu bytes", bytes.len);
    if (result == 0)
        memcpy(reply, bytes.bytes, sizeof *reply);
    free(bytes.bytes);
    return result;
}
