/* The node's figures as OpenMetrics text, made on the dispatcher thread.
 *
 * A family has its metadata once and all of its samples behind it. Labels are names of tables,
 * databases and counters, and numbers: nothing in them needs to be escaped.
 */
#include "requests.h"

#include "exec_queue.h"
#include "global_context.h"
#include "host_control.h"
#include "host_notifications.h"
#include "host_resources.h"
#include "host_retry.h"
#include "host_statistics.h"
#include "object_memory.h"
#include "table_database.h"
#include "zan_counters.h"

#include <algorithm>
#include <cinttypes>
#include <iterator>

namespace
{

class exposition_t
{
public:
    /* The unit is the name's last word, or empty. */
    void family(const char *name, const char *type, const char *unit, const char *help)
    {
        name_ = name;
        suffix_ = std::string(type) == "counter" ? "_total"
                  : std::string(type) == "info"  ? "_info"
                                                 : "";
        text_ += "# TYPE " + name_ + " " + type + "\n";
        if (*unit)
            text_ += "# UNIT " + name_ + " " + unit + "\n";
        text_ += "# HELP " + name_ + " " + help + "\n";
    }
    void sample(const std::string &labels, uint64_t value)
    {
        put(suffix_.c_str(), labels, std::to_string(value));
    }
    void seconds(const char *suffix, const std::string &labels, uint64_t ns)
    {
        char value[32];
        snprintf(value, sizeof value, "%" PRIu64 ".%09" PRIu64, ns / 1'000'000'000,
                 ns % 1'000'000'000);
        put(suffix, labels, value);
    }
    void histogram(const std::string &labels, const zan_perf_stat_st &stat)
    {
        uint64_t sum = 0;
        for (uint32_t i = 0; i < ZAN_PERF_BUCKETS; i++) {
            char bound[32] = "+Inf";
            if (i + 1 < ZAN_PERF_BUCKETS)
                snprintf(bound, sizeof bound, "%.11g",
                         (double)((uint64_t)1 << (i + ZAN_PERF_FIRST_BUCKET)) / 1e9);
            put("_bucket", with(labels, "le", bound), std::to_string(sum += stat.bucket[i]));
        }
        put("_count", labels, std::to_string(stat.count));
        seconds("_sum", labels, stat.total_ns);
    }
    static std::string with(const std::string &labels, const char *name, const std::string &value)
    {
        return labels + (labels.empty() ? "" : ",") + name + "=\"" + value + "\"";
    }
    std::string end()
    {
        return std::move(text_) + "# EOF\n";
    }

private:
    void put(const char *suffix, const std::string &labels, const std::string &value)
    {
        text_ += name_ + suffix + (labels.empty() ? "" : "{" + labels + "}") + " " + value + "\n";
    }
    std::string text_, name_, suffix_;
};

std::string label(const char *name, const std::string &value)
{
    return exposition_t::with("", name, value);
}

std::string of_table(uint32_t table_id)
{
    return label("table", kor_table_name_get(table_id));
}

std::string of_npu(const std::string &labels, uint32_t npu)
{
    return exposition_t::with(labels, "npu", std::to_string(npu));
}

/* ---- The node ---- */

void put_figure(exposition_t *out, const char *name, const char *type, const char *unit,
                const char *help, uint64_t value)
{
    out->family(name, type, unit, help);
    out->sample("", value);
}

void put_node(exposition_t *out, const node_t &node, const transport_t *transport)
{
    char fingerprint[32];
    snprintf(fingerprint, sizeof fingerprint, "%016llx",
             (unsigned long long)zan_schema_fingerprint);
    out->family("zan_agent", "info", "", "The agent and its table definitions.");
    out->sample(exposition_t::with(label("version", ZAN_VERSION), "fingerprint", fingerprint), 1);
    out->family("zan_uptime_seconds", "gauge", "seconds", "Time since the agent's start.");
    out->seconds("", "", (uint64_t)(monotonic_ms() - node.started_ms) * 1'000'000);
    put_figure(out, "zan_clients", "gauge", "", "Sessions that are open.",
               transport_num_clients(transport));
    put_figure(out, "zan_batches", "counter", "", "Batches that were run.", node.batches);
    put_figure(out, "zan_objects", "counter", "", "Objects in these batches.", node.objects);
    put_figure(out, "zan_refused_messages", "counter", "", "Messages that were not well-formed.",
               node.refused + transport_num_refused(transport));
    put_figure(out, "zan_traced_errors", "counter", "",
               "Errors seen in the trace ring; at least that many.", node.trace_errors);
    put_figure(out, "zan_lost_traces", "counter", "",
               "Trace calls of threads that found no ring free.", zan_host_traces_lost());
    put_figure(out, "zan_pool_bytes", "gauge", "bytes", "Memory of stored objects.",
               zan_shm_bytes_in_use());
    put_figure(out, "zan_index_bytes", "gauge", "bytes", "Memory of the indices.",
               zan_db_index_bytes());
    put_figure(out, "zan_npu_queue_messages", "gauge", "", "Messages that wait for the NPUs.",
               kor_exec_q_get_depth(get_global_exec_q()));
    put_figure(out, "zan_notifications_lost", "counter", "",
               "Notifications that there was no room for on their way to the sessions.",
               zan_host_notifications_lost());
    put_figure(out, "zan_watch_dropped", "counter", "",
               "Notifications dropped since a session did not read them.",
               transport_num_dropped(transport));
    out->family("zan_npu_programmed", "counter", "", "Attempts to program an NPU.");
    for (uint32_t npu = 0; npu < node.facts.num_npus; npu++)
        out->sample(of_npu("", npu), zan_get_global_ctx()->npu[npu].program_cnt);
}

void put_failures(exposition_t *out)
{
    zan_host_retry_counts_st counts;
    zan_host_retry_counts(&counts);
    put_figure(out, "zan_failed_objects", "gauge", "", "Objects whose write failed on an NPU.",
               counts.failed);
    put_figure(out, "zan_quarantined_objects", "gauge", "", "Objects out of service.",
               counts.quarantined);
    put_figure(out, "zan_write_retries", "counter", "", "Retries of failed writes.",
               counts.attempts);
    put_figure(out, "zan_write_recoveries", "counter", "", "Failed writes that a retry repaired.",
               counts.recovered);
    put_figure(out, "zan_taken_out_of_service", "counter", "", "Objects taken out of service.",
               counts.taken_out);
    put_figure(out, "zan_put_back_into_service", "counter", "", "Objects put back into service.",
               counts.put_back);
}

/* ---- Hardware databases ---- */

template <class Visit> void each_database(uint32_t num_npus, Visit visit)
{
    for (uint32_t hwdb = 1; hwdb < ZAN_NUM_HWDBS; hwdb++)
        for (uint32_t npu = 0; npu < num_npus; npu++) {
            zan_host_resource_st r;
            zan_host_resource_get(npu, hwdb, &r);
            if (r.used || r.capacity || r.high_water)
                visit(of_npu(label("database", zan_hwdb_name(hwdb)), npu), r);
        }
}

void put_resources(exposition_t *out, uint32_t num_npus)
{
    using r_t = zan_host_resource_st;
    out->family("zan_resource_used_entries", "gauge", "entries",
                "Entries of a hardware database in use.");
    each_database(num_npus, [out](const auto &l, const r_t &r) { out->sample(l, r.used); });
    out->family("zan_resource_highest_entries", "gauge", "entries",
                "Most entries that were ever in use.");
    each_database(num_npus, [out](const auto &l, const r_t &r) { out->sample(l, r.high_water); });
    out->family("zan_resource_capacity_entries", "gauge", "entries",
                "Entries that it takes, where there is a limit.");
    each_database(num_npus, [out](const auto &l, const r_t &r) {
        if (r.capacity)
            out->sample(l, r.capacity);
    });
    out->family("zan_resource_state", "gauge", "", "0 green, 1 yellow, 2 red.");
    each_database(num_npus, [out](const auto &l, const r_t &r) { out->sample(l, r.state); });
}

/* ---- Tables ---- */

struct used_table_t {
    uint32_t id;
    zan_table_perf_st perf;
};

std::vector<used_table_t> used_tables()
{
    const zan_global_ctx_st *ctx = zan_get_global_ctx();
    std::vector<used_table_t> tables;
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        const auto &counters = ctx->counters[0][id];
        used_table_t table = {id, {}};
        zan_table_perf_get(id, &table.perf);
        if (table.perf.dispatch.count ||
            std::any_of(std::begin(counters), std::end(counters), [](uint32_t n) { return n; }))
            tables.push_back(table);
    }
    return tables;
}

void put_counters(exposition_t *out, const std::vector<used_table_t> &tables)
{
    out->family("zan_operations", "counter", "",
                "What operations came to, by the counters' names; each wraps at 2^32.");
    for (const used_table_t &t : tables)
        for (uint32_t i = 0; i < ZAN_NUM_COUNTERS; i++)
            if (zan_counter_name(i))
                out->sample(exposition_t::with(of_table(t.id), "counter", zan_counter_name(i)),
                            zan_get_global_ctx()->counters[0][t.id][i]);
    out->family("zan_slow_operations", "counter", "",
                "Operations so slow that they are kept: zanctl perf shows them.");
    for (const used_table_t &t : tables)
        out->sample(of_table(t.id), t.perf.num_slow_ops);
    out->family("zan_stored_objects", "gauge", "", "Objects in the database.");
    for (const used_table_t &t : tables)
        out->sample(of_table(t.id), zan_db_count(t.id));
}

void put_hardware_errors(exposition_t *out, const std::vector<used_table_t> &tables,
                         uint32_t num_npus)
{
    out->family("zan_hardware_errors", "counter", "", "Writes that an NPU refused.");
    for (const used_table_t &t : tables)
        for (uint32_t npu = 0; npu < num_npus; npu++) {
            const zan_table_npu_block_st &block = zan_get_global_ctx()->table[t.id].npu[npu];
            const std::string labels = of_npu(of_table(t.id), npu);
            out->sample(exposition_t::with(labels, "operation", "create"),
                        npu_errors(&block.create_err_cnt));
            out->sample(exposition_t::with(labels, "operation", "update"),
                        npu_errors(&block.update_err_cnt));
            out->sample(exposition_t::with(labels, "operation", "delete"),
                        npu_errors(&block.delete_err_cnt));
        }
}

void put_durations(exposition_t *out, const std::vector<used_table_t> &tables, uint32_t num_npus)
{
    out->family("zan_dispatch_seconds", "histogram", "seconds", "An object on the dispatcher.");
    for (const used_table_t &t : tables)
        out->histogram(of_table(t.id), t.perf.dispatch);
    out->family("zan_hook_seconds", "histogram", "seconds", "A call of the platform's hook.");
    for (const used_table_t &t : tables)
        for (uint32_t npu = 0; npu < num_npus; npu++)
            out->histogram(of_npu(of_table(t.id), npu), t.perf.npu[npu]);
    out->family("zan_walk_seconds", "histogram", "seconds",
                "A walk, by the table of the object that began it.");
    for (const used_table_t &t : tables)
        out->histogram(of_table(t.id), t.perf.walk);
    zan_table_perf_st first; /* which counts the stops for all tables */
    zan_table_perf_get(0, &first);
    out->family("zan_queue_stop_seconds", "histogram", "seconds", "A stop of all NPU queues.");
    out->histogram("", first.dummy);
}

} // namespace

std::string metrics_text(const node_t &node, const transport_t *transport)
{
    const dispatcher_hold_t hold;
    const std::vector<used_table_t> tables = used_tables();
    exposition_t out;
    put_node(&out, node, transport);
    put_failures(&out);
    put_resources(&out, node.facts.num_npus);
    put_counters(&out, tables);
    put_hardware_errors(&out, tables, node.facts.num_npus);
    put_durations(&out, tables, node.facts.num_npus);
    return out.end();
}
