/* perf: how long operations, hooks and walks take, with histograms; and the last slow operations.
 */
#include "objects.h"

#include <algorithm>

namespace
{

struct perf_t {
    zan_perf_reply_st head;
    std::vector<zan_perf_table_st> tables;
    std::vector<zan_perf_slow_st> slow; /* the newest first */
};

/* Durations of a table, by what they are of. */
struct kind_t {
    std::string name;
    const zan_durations_st *durations;
};

std::vector<kind_t> kinds_of(const zan_perf_table_st &t, uint32_t num_npus)
{
    std::vector<kind_t> kinds = {{"dispatcher", &t.dispatch}};
    for (uint32_t npu = 0; npu < num_npus; npu++)
        kinds.push_back({"NPU " + std::to_string(npu), &t.npu[npu]});
    kinds.push_back({"walks", &t.walk});
    kinds.push_back({"delivery", &t.ipc});
    return kinds;
}

double mean_us(const zan_durations_st &d)
{
    return d.count ? (double)d.total_ns / (double)d.count / 1e3 : 0;
}

double max_us(const zan_durations_st &d)
{
    return (double)d.max_ns / 1e3;
}

zan_durations_st sum_of_npus(const zan_perf_table_st &t)
{
    zan_durations_st sum = {};
    for (const zan_durations_st &npu : t.npu) {
        sum.count += npu.count;
        sum.total_ns += npu.total_ns;
        sum.max_ns = std::max(sum.max_ns, npu.max_ns);
    }
    return sum;
}

/* "2.05 us": how long a bucket's durations are at most. */
std::string bound_text(uint32_t bucket)
{
    if (bucket == ZAN_DURATION_BUCKETS - 1)
        return "more";
    static const char *const units[] = {"ns", "us", "ms", "s"};
    auto bound = (double)((uint64_t)1 << (bucket + ZAN_DURATION_FIRST_BUCKET));
    size_t unit = 0;
    for (; bound >= 1000; unit++)
        bound /= 1000;
    char text[32];
    snprintf(text, sizeof text, "%.3g %s", bound, units[unit]);
    return text;
}

/* With milliseconds. */
std::string clock_text(uint64_t ns)
{
    char fraction[8];
    snprintf(fraction, sizeof fraction, ".%03u", (unsigned)(ns / 1'000'000 % 1000));
    return time_text(ns, "%Y-%m-%d %H:%M:%S") + fraction;
}

/* ---- For people ---- */

void print_durations(FILE *out, const zan_durations_st &d)
{
    fprintf(out, " %10llu %10.1f %10.1f", (unsigned long long)d.count, mean_us(d), max_us(d));
}

void print_tables(FILE *out, const perf_t &p)
{
    fprintf(out, "%-20s %10s %10s %10s %10s %10s %10s %10s %10s %10s %6s\n", "table", "objects",
            "mean us", "max us", "hooks", "mean us", "max us", "walks", "mean us", "max us",
            "slow");
    for (const zan_perf_table_st &t : p.tables) {
        fprintf(out, "%-20s", kor_table_name_get(t.table_id));
        print_durations(out, t.dispatch);
        print_durations(out, sum_of_npus(t));
        print_durations(out, t.walk);
        fprintf(out, " %6llu\n", (unsigned long long)t.slow_ops);
    }
}

/* The buckets from the first that holds something to the last, side by side. */
void print_histograms(FILE *out, const std::vector<kind_t> &kinds)
{
    uint32_t first = ZAN_DURATION_BUCKETS, last = 0;
    for (const kind_t &kind : kinds)
        for (uint32_t i = 0; i < ZAN_DURATION_BUCKETS; i++)
            if (kind.durations->bucket[i]) {
                first = std::min(first, i);
                last = std::max(last, i);
            }
    if (first == ZAN_DURATION_BUCKETS)
        return;
    fprintf(out, "\n%-12s", "at most");
    for (const kind_t &kind : kinds)
        fprintf(out, " %10s", kind.name.c_str());
    for (uint32_t i = first; i <= last; i++) {
        fprintf(out, "\n%-12s", bound_text(i).c_str());
        for (const kind_t &kind : kinds)
            fprintf(out, " %10llu", (unsigned long long)kind.durations->bucket[i]);
    }
    fprintf(out, "\n");
}

void print_table(FILE *out, const zan_perf_table_st &t, uint32_t num_npus)
{
    const std::vector<kind_t> kinds = kinds_of(t, num_npus);
    if (t.first_op_ns)
        fprintf(out, "%s: from %s, transaction %u, to %s, transaction %u\n\n",
                kor_table_name_get(t.table_id), clock_text(t.first_op_ns).c_str(), t.first_trans_id,
                clock_text(t.last_op_ns).c_str(), t.last_trans_id);
    else
        fprintf(out, "%s: not used yet\n\n", kor_table_name_get(t.table_id));
    fprintf(out, "%-12s %10s %10s %10s\n", "", "count", "mean us", "max us");
    for (const kind_t &kind : kinds) {
        fprintf(out, "%-12s", kind.name.c_str());
        print_durations(out, *kind.durations);
        fprintf(out, "\n");
    }
    print_histograms(out, kinds);
}

std::string place_of(const zan_perf_slow_st &op)
{
    return op.npu == ZAN_WIRE_NO_INDEX ? "dispatcher" : "NPU " + std::to_string(op.npu);
}

void print_slow(FILE *out, const perf_t &p)
{
    fprintf(out, "\n%s operations of %.0f ms and more%s\n", p.slow.empty() ? "no" : "slow",
            (double)p.head.slow_ns / 1e6, p.slow.empty() ? "" : ", the newest first");
    for (const zan_perf_slow_st &op : p.slow)
        fprintf(out, "%s  %-10s  %s of %s took %.1f ms, transaction %u\n",
                clock_text(op.end_ns).c_str(), place_of(op).c_str(),
                zan_table_operation_str((uint8_t)op.operation), kor_table_name_get(op.table_id),
                (double)op.elapsed_ns / 1e6, op.trans_id);
}

void print(FILE *out, const perf_t &p, bool one_table)
{
    if (one_table) {
        print_table(out, p.tables.front(), p.head.num_npus);
    } else {
        print_tables(out, p);
        fprintf(out,
                "\nthe NPU queues were stopped %llu times, for %.1f us in the mean and %.1f at "
                "most\n",
                (unsigned long long)p.head.stops.count, mean_us(p.head.stops),
                max_us(p.head.stops));
    }
    print_slow(out, p);
}

/* ---- For scripts ---- */

json_t durations_json(const zan_durations_st &d)
{
    json_t buckets = json_t::array();
    for (uint32_t i = 0; i < ZAN_DURATION_BUCKETS; i++)
        buckets.push_back(d.bucket[i]);
    return {
        {"count", d.count}, {"total_ns", d.total_ns}, {"max_ns", d.max_ns}, {"buckets", buckets}};
}

json_t as_json(const perf_t &p)
{
    json_t bounds = json_t::array(), tables = json_t::array(), slow = json_t::array();
    for (uint32_t i = 0; i + 1 < ZAN_DURATION_BUCKETS; i++)
        bounds.push_back((uint64_t)1 << (i + ZAN_DURATION_FIRST_BUCKET));
    for (const zan_perf_table_st &t : p.tables) {
        json_t npus = json_t::array();
        for (uint32_t npu = 0; npu < p.head.num_npus; npu++)
            npus.push_back(durations_json(t.npu[npu]));
        tables.push_back({{"table", kor_table_name_get(t.table_id)},
                          {"first_operation_ns", t.first_op_ns},
                          {"last_operation_ns", t.last_op_ns},
                          {"first_transaction", t.first_trans_id},
                          {"last_transaction", t.last_trans_id},
                          {"slow", t.slow_ops},
                          {"dispatcher", durations_json(t.dispatch)},
                          {"delivery", durations_json(t.ipc)},
                          {"walks", durations_json(t.walk)},
                          {"npus", npus}});
    }
    for (const zan_perf_slow_st &op : p.slow) {
        json_t row = {{"table", kor_table_name_get(op.table_id)},
                      {"operation", zan_table_operation_str((uint8_t)op.operation)},
                      {"transaction", op.trans_id},
                      {"end_ns", op.end_ns},
                      {"elapsed_ns", op.elapsed_ns}};
        if (op.npu != ZAN_WIRE_NO_INDEX)
            row["npu"] = op.npu;
        slow.push_back(row);
    }
    return {{"bucket_bounds_ns", bounds},
            {"slow_ns", p.head.slow_ns},
            {"queue_stops", durations_json(p.head.stops)},
            {"tables", tables},
            {"slow", slow}};
}

bool ask(session_t *session, uint32_t table_id, perf_t *p)
{
    zan_perf_table_st *tables;
    zan_perf_slow_st *slow;
    if (zan_client_perf(session->client, table_id, &p->head, &tables, &slow))
        return false;
    const std::unique_ptr<zan_perf_table_st, free_object_t> owned_tables(tables);
    const std::unique_ptr<zan_perf_slow_st, free_object_t> owned_slow(slow);
    p->tables.assign(tables, tables + p->head.num_tables);
    p->slow.assign(slow, slow + p->head.num_slow);
    std::stable_sort(p->slow.begin(), p->slow.end(),
                     [](const auto &a, const auto &b) { return a.end_ns > b.end_ns; });
    return true;
}

} // namespace

int run_perf(session_t *session, const std::string &table)
{
    uint32_t table_id;
    std::string why;
    if (!find_table_or_all(table, &table_id, &why))
        return fail_text(why);
    perf_t p;
    if (!ask(session, table_id, &p))
        return fail_session(session);
    if (session->json)
        fprintf(session->out, "%s\n", as_json(p).dump().c_str());
    else
        print(session->out, p, !table.empty());
    return EXIT_WELL;
}
