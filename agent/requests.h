/* The requests of clients, run on the dispatcher thread.
 *
 * Each function takes a request and gives back the reply: its type, and a frame with room for the
 * header in front. All of them hold the dispatcher (locks included) while they touch the server.
 */
#ifndef ZAN_REQUESTS_H
#define ZAN_REQUESTS_H

#include "message_check.h"
#include "npu_control.h"
#include "replays.h"
#include "table_crud_ctx.h"
#include "transport.h"
#include "zan_agent.h"

#include <string>

/* The node as the dispatcher thread knows it. */
struct node_t {
    zan_hello_reply_st facts;
    npu_control_t npus;
    uint32_t private_size[ZAN_NUM_TABLES];
    uint32_t hooks[3]; /* slots by zan_hook_source_et */
    uint32_t stats_period_ms;
    int64_t started_ms;    /* CLOCK_MONOTONIC */
    uint64_t started_ns;   /* CLOCK_REALTIME */
    uint32_t last_trans;   /* given to an object that came without a transaction */
    uint64_t first_cycles; /* at first_ms */
    int64_t first_ms;
    uint64_t batches, objects, refused;
    replays_t replays;
    uint32_t sim_failures;  /* rules that simulated NPUs were given */
    uint64_t trace_errors;  /* seen in the trace ring */
    std::string trace_file; /* with its directory; empty: the ring is in memory */
};

struct answer_t {
    uint16_t type; /* zan_frame_type_et */
    std::vector<uint8_t> frame;
};

/* The dispatcher and the programming lock, for a scope. */
struct dispatcher_hold_t {
    dispatcher_hold_t();
    ~dispatcher_hold_t();
    dispatcher_hold_t(const dispatcher_hold_t &) = delete;
    dispatcher_hold_t &operator=(const dispatcher_hold_t &) = delete;
};

/* All NPU queues stopped behind what they hold, for a scope under dispatcher_hold_t: what was sent
 * before is done. `stopped` is false when the queues do not let themselves be stopped. */
struct npus_standstill_t {
    bool stopped;
    npus_standstill_t();
    ~npus_standstill_t();
    npus_standstill_t(const npus_standstill_t &) = delete;
    npus_standstill_t &operator=(const npus_standstill_t &) = delete;
};

/* `reply_max`: bytes that the reply may take at most. */
answer_t run_batch(node_t *node, request_t *request, uint32_t reply_max);
answer_t run_status(node_t *node, const transport_t *transport);
answer_t run_compare(node_t *node, const request_t &request);
answer_t run_graph(node_t *node, request_t *request);
answer_t run_walk(node_t *node, request_t *request);
answer_t run_resources(node_t *node, const request_t &request);
answer_t run_walk_counts(node_t *node, const request_t &request);
answer_t run_failed(node_t *node, const request_t &request);
answer_t run_quarantine(node_t *node, const request_t &request);
answer_t run_table(node_t *node, const request_t &request);
answer_t run_sim(node_t *node, const request_t &request);
answer_t run_watch(node_t *node, const request_t &request);
answer_t run_trace(node_t *node, const request_t &request);
answer_t run_trace_classes(node_t *node, const request_t &request);
answer_t run_counters(node_t *node, const request_t &request);
answer_t run_perf(node_t *node, const request_t &request);
answer_t run_about(node_t *node, const request_t &request);
answer_t run_stats(node_t *node, request_t *request);
/* From now on the cycles of traces are measured against the clock. */
void learn_cycles(node_t *node);

/* Where the transport gets notifications from, and how it is told of them (by any thread). */
bool next_notification(notification_t *out);
void wake_transport(void *transport);

/* At the end, with nothing under way: whether no identifier was lost. Says what is left. */
bool identifiers_are_accounted_for(uint32_t num_npus);

/* Retries of a failed write before quarantine; 0: without end. */
void set_retries(uint32_t budget);
/* Do what is due of failed writes; the milliseconds until there is more to do. */
int64_t retry_failed_writes(node_t *node);

/* Do what the command line says of the hardware databases, ended by one without words. False and a
 * message when one says nothing. */
bool set_resources(const npu_control_t &npus, const zan_agent_resource_t *resources);

/* All figures of the node as OpenMetrics text. */
std::string metrics_text(const node_t &node, const transport_t *transport);

/* What a table counts of its requests; it gives that out under its own name. Null for a table that
 * does not. */
const zan_resource_info_t *resource_info(const zan_table_def_t *def);

/* A failure count of an NPU, which its thread raises meanwhile. */
inline uint32_t npu_errors(const uint32_t *count)
{
    return __atomic_load_n(count, __ATOMIC_RELAXED);
}

/* A request that cannot be run as it stands, with the field at fault; it is counted. */
answer_t refuse_request(node_t *node, const char *field, const char *text);

/* The one object behind the first `head` bytes of a request, which names another by key or handle;
 * proved well-formed. Null: the request is refused, with this answer. */
const zan_table_base_st *named_object(node_t *node, request_t *request, size_t head,
                                      answer_t *refusal);

int64_t monotonic_ms();

#endif
