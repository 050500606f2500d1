/* The agent's life: start the host platform, see that the hooks are there, serve, stop in order.
 *
 * The calling thread is the dispatcher thread; the transport has one I/O thread of its own, the
 * host platform its NPU threads. Signals are blocked before any of them is started, and taken by
 * the I/O thread.
 */
#include "zan_agent.h"

#include "listener.h"
#include "metrics_server.h"
#include "requests.h"

#include "clock.h"
#include "exec_queue.h"
#include "host_control.h"
#include "host_notifications.h"
#include "host_start.h"
#include "internal_queues.h"
#include "table_database.h"
#include "table_flows.h"
#include "table_properties.h"
#include "thread_control.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <string>

#include <dlfcn.h>

namespace
{

/* While something may be outstanding at the NPUs, the idle dispatcher looks that often, and for so
 * many rounds after the queues were last seen filled. */
constexpr int idle_ms = 50;
constexpr int settle_rounds = 20;
constexpr int calm_ms = 1000;

template <typename function_t> void look_up(const char *name, function_t *function)
{
    *function = (function_t)dlsym(RTLD_DEFAULT, name);
}

void block_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

/* Stepped, nothing happens that the seed has not decided. */
uint32_t stats_period_ms(const zan_agent_options_t *options)
{
    return options->stepped ? 0 : options->stats_period * 1000;
}

bool start_host(const zan_agent_options_t *options)
{
    zan_host_config_t config = {};
    config.num_npus = options->num_npus;
    config.per_object_npu_mask = options->per_object_npu_mask;
    config.standby = options->standby;
    config.stepped = options->stepped;
    config.seed = options->seed;
    config.stats_period_ms = stats_period_ms(options);
    const zan_rcode rc = zan_host_start(&config);
    if (rc != EOK)
        fprintf(stderr, "zan_agent: the host platform did not start: 0x%08x %s\n", rc,
                rcd_strerror(rc));
    return rc == EOK;
}

void learn_node(node_t *node, const zan_agent_options_t *options)
{
    node->npus = npu_control_find();
    node->facts.fingerprint = zan_schema_fingerprint;
    node->facts.version = ZAN_WIRE_VERSION;
    node->facts.num_npus = options->num_npus;
    if (options->standby)
        node->facts.node |= ZAN_NODE_STANDBY;
    if (options->per_object_npu_mask)
        node->facts.node |= ZAN_NODE_PER_OBJECT_NPU_MASK;
    if (options->stepped)
        node->facts.node |= ZAN_NODE_STEPPED;
    if (node->npus.can_compare())
        node->facts.node |= ZAN_NODE_CAN_COMPARE;
    node->stats_period_ms = stats_period_ms(options);
    node->started_ms = monotonic_ms();
    timespec now;
    zan_clock_gettime(CLOCK_REALTIME, &now);
    node->started_ns = (uint64_t)now.tv_sec * 1'000'000'000 + (uint64_t)now.tv_nsec;
    learn_cycles(node);
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        node->private_size[id] = kor_npd_get_table_size(id);
        const srv_zan_table_props_t *props = zan_srv_table_props_get(id);
        for (int hook = 0; hook < ZAN_HOOK_COUNT; hook++)
            node->hooks[props->hook_source[hook]]++;
    }
}

/* A platform that was bound too late, or not at all, would be silently absent. */
bool hooks_are_there(const node_t *node, const zan_agent_options_t *options)
{
    printf("zan_agent: platform %s: %u hooks bound, %u defaults, %u open\n",
           options->platform ? options->platform : "none", node->hooks[ZAN_HOOK_PLATFORM],
           node->hooks[ZAN_HOOK_DEFAULT], node->hooks[ZAN_HOOK_NONE]);
    fflush(stdout);
    if (node->hooks[ZAN_HOOK_PLATFORM] || options->allow_no_hooks)
        return true;
    fprintf(stderr, "zan_agent: no hook of a platform is bound, so no hardware would be written: "
                    "name another --platform, or say --no-hooks if that is meant\n");
    return false;
}

/* Once nothing refuses the start any more: the file of the agent before must not go aside for one
 * that does not run. What was traced so far moves along. The file with its directory; empty when
 * the ring is in memory. */
std::string open_trace(const zan_agent_options_t *options)
{
    if (options->trace_file && strcmp(options->trace_file, "none") == 0)
        return "";
    const std::string path = options->trace_file ? std::string(options->trace_file)
                                                 : std::string(options->socket_path) + ".trace";
    std::error_code no_directory;
    const std::string absolute = std::filesystem::absolute(path, no_directory).string();
    errno = ENAMETOOLONG; /* for those whom the agent tells of it */
    make_parent_directory(path.c_str());
    if (absolute.size() >= sizeof zan_about_st::trace_file || !zan_host_trace_open(path.c_str())) {
        fprintf(stderr, "zan_agent: no trace file %s (%s): the ring ends with the process\n",
                path.c_str(), strerror(errno));
        return "";
    }
    return absolute;
}

answer_t run_request(node_t *node, const transport_t *transport, request_t *request)
{
    try {
        switch (request->hdr.type) {
        case ZAN_FRAME_BATCH:
            return run_batch(node, request, ZAN_FRAME_MAX);
        case ZAN_FRAME_STATUS:
            return run_status(node, transport);
        case ZAN_FRAME_GRAPH:
            return run_graph(node, request);
        case ZAN_FRAME_WALK:
            return run_walk(node, request);
        case ZAN_FRAME_WALK_COUNTS:
            return run_walk_counts(node, *request);
        case ZAN_FRAME_RESOURCES:
            return run_resources(node, *request);
        case ZAN_FRAME_FAILED:
            return run_failed(node, *request);
        case ZAN_FRAME_QUARANTINE:
            return run_quarantine(node, *request);
        case ZAN_FRAME_TABLE:
            return run_table(node, *request);
        case ZAN_FRAME_SIM:
            return run_sim(node, *request);
        case ZAN_FRAME_WATCH:
            return run_watch(node, *request);
        case ZAN_FRAME_TRACE:
            return run_trace(node, *request);
        case ZAN_FRAME_TRACE_CLASSES:
            return run_trace_classes(node, *request);
        case ZAN_FRAME_COUNTERS:
            return run_counters(node, *request);
        case ZAN_FRAME_PERF:
            return run_perf(node, *request);
        case ZAN_FRAME_ABOUT:
            return run_about(node, *request);
        case ZAN_FRAME_STATS:
            return run_stats(node, request);
        default: /* the transport lets no other type pass */
            return run_compare(node, *request);
        }
    } catch (const std::bad_alloc &) {
        return {ZAN_FRAME_ERROR, make_error_frame(ZAN_WIRE_UNAVAILABLE, ZAN_WIRE_NO_INDEX, "",
                                                  "the agent has no memory for the answer")};
    }
}

/* Take in what the NPUs are done with. */
void settle(node_t *node)
{
    {
        const dispatcher_hold_t hold;
        zan_dsp_q_process_post_npu();
    }
    node->trace_errors += zan_host_trace_new_errors();
}

void give_metrics(node_t *node, const transport_t *transport, metrics_server_t *metrics)
{
    node->trace_errors += zan_host_trace_new_errors();
    std::string text;
    try {
        text = metrics_text(*node, transport);
    } catch (const std::bad_alloc &) {
    }
    metrics_answer(metrics, std::move(text));
}

/* Once: a thread claims its ring when it traces first, which may be at any time. */
void tell_of_rings_outside_file(const node_t &node)
{
    static bool told;
    const int fault = zan_host_trace_file_fault();
    if (fault == 0 || told)
        return;
    told = true;
    fprintf(stderr,
            "zan_agent: trace file %s: no room (%s): a ring is in memory, and ends with the "
            "process\n",
            node.trace_file.c_str(), strerror(fault));
}

void serve(node_t *node, transport_t *transport, metrics_server_t *metrics)
{
    int rounds = 0;
    int64_t retry_ms = 0; /* until failed writes are due */
    for (;;) {
        request_t request;
        const int64_t wait_ms = std::min<int64_t>(rounds ? idle_ms : calm_ms, retry_ms);
        if (transport_take(transport, (int)wait_ms, &request)) {
            if (request.session == 0) {
                give_metrics(node, transport, metrics);
            } else {
                answer_t answer = run_request(node, transport, &request);
                transport_reply(transport, request, answer.type, std::move(answer.frame));
                rounds = settle_rounds;
            }
        } else if (transport_is_stopping(transport)) {
            return;
        } else if (rounds) {
            settle(node);
            if (kor_exec_q_get_depth(get_global_exec_q()) == 0)
                rounds--;
        }
        retry_ms = retry_failed_writes(node);
        zan_host_trace_tick();
        tell_of_rings_outside_file(*node);
    }
}

/* Wait until the NPUs have done what was sent. */
void drain(node_t *node)
{
    {
        const dispatcher_hold_t hold;
        const npus_standstill_t standstill;
    }
    settle(node);
}

/* However serving ends, the I/O thread must have ended before what it calls is torn down. */
struct stop_transport_t {
    void operator()(transport_t *transport) const
    {
        transport_finish(transport);
        zan_host_notif_set_receiver(nullptr, nullptr);
        transport_free(transport);
    }
};
using transport_ptr_t = std::unique_ptr<transport_t, stop_transport_t>;

struct stop_metrics_t {
    void operator()(metrics_server_t *server) const
    {
        metrics_stop(server);
    }
};
using metrics_ptr_t = std::unique_ptr<metrics_server_t, stop_metrics_t>;

void ask_for_metrics(void *transport)
{
    transport_put((transport_t *)transport);
}

int serve_until_stopped(const zan_agent_options_t *options)
{
    static node_t node;
    learn_node(&node, options);
    if (!set_resources(node.npus, options->resources))
        return 2;
    set_retries(options->retries);
    if (!hooks_are_there(&node, options))
        return 1;
    {
        const transport_ptr_t transport(
            transport_start(options->socket_path, node.facts, next_notification));
        if (!transport)
            return 1;
        const metrics_ptr_t metrics(
            options->metrics ? metrics_start(options->metrics, ask_for_metrics, transport.get())
                             : nullptr);
        if (options->metrics && !metrics)
            return 1;
        node.trace_file = open_trace(options);
        zan_host_notif_set_receiver(wake_transport, transport.get());
        printf("zan_agent: %u NPUs%s, %d tables; listening at %s\n", options->num_npus,
               options->standby ? " on standby" : "", ZAN_NUM_TABLES, options->socket_path);
        fflush(stdout);
        serve(&node, transport.get(), metrics.get());
        drain(&node);
    }
    printf("zan_agent: stopped after %llu objects in %llu batches\n",
           (unsigned long long)node.objects, (unsigned long long)node.batches);
    return identifiers_are_accounted_for(options->num_npus) ? 0 : 1;
}

void tear_down()
{
    {
        const dispatcher_hold_t hold;
        zan_srv_deinit();
        handle_event_free_allocated_mask();
    }
    zan_host_stop();
}

} // namespace

npu_control_t npu_control_find()
{
    npu_control_t control;
    look_up("npu_sim_count", &control.count);
    look_up("npu_sim_bytes", &control.bytes);
    look_up("npu_sim_counts", &control.counts);
    look_up("npu_sim_compare", &control.compare);
    look_up("npu_sim_set_db_capacity", &control.set_db_capacity);
    look_up("npu_sim_fail", &control.fail);
    look_up("npu_sim_fail_at_random", &control.fail_at_random);
    look_up("npu_sim_fail_no_more", &control.fail_no_more);
    look_up("npu_sim_set_latency", &control.set_latency);
    return control;
}

int zan_agent_main(const zan_agent_options_t *options)
{
    block_signals();
    zan_thread_set_role(ZAN_THREAD_DISPATCHER, -1);
    if (!start_host(options))
        return 1;
    int status = 1;
    try {
        status = serve_until_stopped(options);
    } catch (const std::exception &e) {
        fprintf(stderr, "zan_agent: %s\n", e.what());
    }
    tear_down();
    return status;
}
