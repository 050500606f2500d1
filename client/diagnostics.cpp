/* What the agent counts and measures. */
#include "client_state.h"

#include <cstdlib>
#include <cstring>

int zan_client_counters(zan_client_t *client, const zan_counters_st *request,
                        zan_counters_reply_st *reply, zan_counters_table_st **tables)
{
    byte_block_t bytes = {};
    const int asked = client_ask(client, ZAN_FRAME_COUNTERS, request, sizeof *request,
                                 ZAN_FRAME_COUNTERS_REPLY, &bytes);
    return client_take(
        client, asked, &bytes, reply, sizeof *reply,
        {{offsetof(zan_counters_reply_st, num_tables), sizeof **tables, (void **)tables}});
}

int zan_client_trace_classes(zan_client_t *client, const zan_trace_classes_st *request,
                             zan_trace_classes_reply_st *reply)
{
    byte_block_t bytes = {};
    const int asked = client_ask(client, ZAN_FRAME_TRACE_CLASSES, request, sizeof *request,
                                 ZAN_FRAME_TRACE_CLASSES_REPLY, &bytes);
    return client_take(client, asked, &bytes, reply, sizeof *reply, {});
}

int zan_client_perf(zan_client_t *client, uint32_t table_id, zan_perf_reply_st *reply,
                    zan_perf_table_st **tables, zan_perf_slow_st **slow)
{
    const zan_perf_st request = {table_id, 0};
    byte_block_t bytes = {};
    const int asked =
        client_ask(client, ZAN_FRAME_PERF, &request, sizeof request, ZAN_FRAME_PERF_REPLY, &bytes);
    return client_take(client, asked, &bytes, reply, sizeof *reply,
                       {{offsetof(zan_perf_reply_st, num_tables), sizeof **tables, (void **)tables},
                        {offsetof(zan_perf_reply_st, num_slow), sizeof **slow, (void **)slow}});
}

int zan_client_about(zan_client_t *client, zan_about_st *about, char **command_line)
{
    byte_block_t bytes = {};
    const int asked =
        client_ask(client, ZAN_FRAME_ABOUT, nullptr, 0, ZAN_FRAME_ABOUT_REPLY, &bytes);
    const int result =
        client_take(client, asked, &bytes, about, sizeof *about,
                    {{offsetof(zan_about_st, command_line_len), 1, (void **)command_line}});
    if (result == 0)
        (*command_line)[about->command_line_len] = 0; /* in the byte that rows have behind them */
    return result;
}
