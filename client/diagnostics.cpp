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

int zan_client_perf(zan_client_t *client, uint32_t table_id, zan_perf_reply_st *reply,
                    zan_perf_table_st **tables, zan_perf_slow_st **slow)
{
    *tables = nullptr;
    *slow = nullptr;
    const zan_perf_st request = {table_id, 0};
    byte_block_t bytes = {};
    int result =
        client_ask(client, ZAN_FRAME_PERF, &request, sizeof request, ZAN_FRAME_PERF_REPLY, &bytes);
    if (result == 0 && bytes.len < sizeof *reply)
        result = client_lose(client, "the agent's durations have %zu bytes", bytes.len);
    if (result == 0) {
        memcpy(reply, bytes.bytes, sizeof *reply);
        result = client_take_two(client, &bytes, sizeof *reply,
                                 {reply->num_tables, sizeof **tables, (void **)tables},
                                 {reply->num_slow, sizeof **slow, (void **)slow});
    }
    free(bytes.bytes);
    return result;
}

int zan_client_about(zan_client_t *client, zan_about_st *about, char **command_line)
{
    *command_line = nullptr;
    byte_block_t bytes = {};
    int result = client_ask(client, ZAN_FRAME_ABOUT, nullptr, 0, ZAN_FRAME_ABOUT_REPLY, &bytes);
    if (result == 0 && bytes.len < sizeof *about)
        result = client_lose(client, "what the agent is has %zu bytes", bytes.len);
    if (result == 0) {
        memcpy(about, bytes.bytes, sizeof *about);
        result = client_take_records(client, &bytes, sizeof *about, about->command_line_len, 1,
                                     (void **)command_line);
    }
    free(bytes.bytes);
    if (result == 0)
        (*command_line)[about->command_line_len] = 0; /* records have a byte behind them */
    return result;
}
