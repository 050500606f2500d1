/* trace and history: the trace ring, a line for each record. */
#include "objects.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <set>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr unsigned poll_us = 200'000; /* while the ring is followed */

/* What is shown. */
struct filter_t {
    const zan_table_def_t *table; /* null: any */
    std::optional<uint32_t> trans;
    bool errors;
    uint64_t from_ns; /* CLOCK_REALTIME */
    /* Of one object: its handle, and the transactions that wrote it. */
    uint64_t handle;
    std::set<uint32_t> transactions;
};

bool is_of_table(const zan_trace_record_st &r, uint32_t table_id)
{
    return zan_trace_message_table((uint32_t)r.msg) == table_id ||
           zan_trace_names_table(&r, table_id) ||
           (r.trace_class < ZAN_SHARED_TRACE_CLASS_BASE && r.trace_class / 3 == table_id);
}

bool mentions(const zan_trace_record_st &r, uint64_t handle)
{
    const auto *end = r.arg + std::min<uint64_t>(r.msg >> 32 & 0xff, std::size(r.arg));
    return std::find(r.arg, end, handle) != end;
}

bool passes(const zan_trace_record_st &r, uint64_t when_ns, const filter_t &f)
{
    if (f.handle && !mentions(r, f.handle) && !f.transactions.count(r.trans_id))
        return false;
    return (!f.table || is_of_table(r, f.table->id)) && (!f.trans || r.trans_id == *f.trans) &&
           (!f.errors || zan_trace_class_level(r.trace_class) == ZAN_TRACE_LEVEL_ERROR) &&
           when_ns >= f.from_ns;
}

uint64_t time_of(const zan_trace_record_st &r, const zan_trace_reply_st &now)
{
    constexpr double year = 366.0 * 24 * 3600; /* beyond it the cycles say nothing */
    const double ago = now.cycles_per_second == 0 ? 0
                                                  : (double)(int64_t)(now.now_cycles - r.cycles) /
                                                        (double)now.cycles_per_second;
    return now.now_ns - (uint64_t)(int64_t)(std::clamp(ago, -year, year) * 1e9);
}

void print(const session_t *session, const zan_trace_record_st &r, uint64_t when_ns)
{
    char name[96], text[512];
    zan_trace_class_print(r.trace_class, name, sizeof name);
    zan_trace_print(&r, text, sizeof text);
    const std::string clock = time_text(when_ns, "%H:%M:%S");
    const auto us = (unsigned)(when_ns / 1000 % 1'000'000);
    const uint32_t table = zan_trace_message_table((uint32_t)r.msg);
    if (session->json) {
        json_t out = {{"time_ns", when_ns}, {"class", name}, {"transaction", r.trans_id}};
        if (table != UINT32_MAX)
            out["table"] = kor_table_name_get(table);
        out["text"] = text;
        fprintf(session->out, "%s\n", out.dump().c_str());
    } else {
        fprintf(session->out, "%s.%06u %-24s %s%s%s (trans %u)\n", clock.c_str(), us, name,
                table != UINT32_MAX ? kor_table_name_get(table) : "",
                table != UINT32_MAX ? ": " : "", text, r.trans_id);
    }
}

struct shown_t {
    zan_trace_record_st record;
    uint64_t when_ns;
};

/* All records behind `*after`, those that pass at the end of `found`. */
int read_ring(session_t *session, const filter_t &filter, uint64_t *after,
              std::deque<shown_t> *found, size_t most)
{
    for (;;) {
        zan_trace_reply_st reply;
        zan_trace_record_st *records = nullptr;
        if (zan_client_trace(session->client, *after, ZAN_TRACE_RECORDS_MAX, &reply, &records))
            return fail_session(session);
        const std::unique_ptr<zan_trace_record_st, free_object_t> own(records);
        for (uint32_t i = 0; i < reply.num_records; i++) {
            const uint64_t when_ns = time_of(records[i], reply);
            if (passes(records[i], when_ns, filter))
                found->push_back({records[i], when_ns});
            if (found->size() > most)
                found->pop_front();
        }
        if (reply.num_records)
            *after = records[reply.num_records - 1].sequence;
        if (reply.num_records < ZAN_TRACE_RECORDS_MAX)
            return EXIT_WELL;
    }
}

/* ---- A ring in a file ---- */

struct mapped_t {
    const uint8_t *bytes = nullptr;
    size_t size = 0;
    ~mapped_t()
    {
        if (bytes)
            munmap((void *)bytes, size);
    }
    bool map(const std::string &path)
    {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat facts = {};
        if (fd < 0)
            return false;
        if (fstat(fd, &facts) == 0 && facts.st_size > 0) {
            void *memory = mmap(nullptr, (size_t)facts.st_size, PROT_READ, MAP_SHARED, fd, 0);
            if (memory != MAP_FAILED) {
                bytes = (const uint8_t *)memory;
                size = (size_t)facts.st_size;
            }
        }
        close(fd);
        return bytes;
    }
};

/* What is wrong with the file, or "". */
std::string file_fault(const mapped_t &map, zan_trace_file_st *head)
{
    if (map.size < ZAN_TRACE_FILE_HEAD_SIZE)
        return "it is no trace file";
    memcpy(head, map.bytes, sizeof *head);
    if (head->magic != ZAN_TRACE_FILE_MAGIC || head->record_size != sizeof(zan_trace_slot_st))
        return "it is no trace file";
    if (head->fingerprint != zan_schema_fingerprint)
        return "its agent was built from other table definitions than this zanctl";
    const uint64_t slots = (uint64_t)head->num_rings * head->records_per_ring;
    if (slots > map.size || map.size < ZAN_TRACE_FILE_HEAD_SIZE + slots * head->record_size)
        return "it is cut short";
    return "";
}

/* The last moment in the file takes the place of now. */
zan_trace_reply_st moment_of(const zan_trace_file_st &head)
{
    zan_trace_reply_st now = {};
    now.now_cycles = head.last_cycles;
    now.now_ns = head.last_ns;
    if (head.last_ns > head.first_ns)
        now.cycles_per_second = (uint64_t)((double)(head.last_cycles - head.first_cycles) * 1e9 /
                                           (double)(head.last_ns - head.first_ns));
    return now;
}

int read_file(const std::string &path, const filter_t &filter, std::deque<shown_t> *found,
              size_t most)
{
    mapped_t map;
    if (!map.map(path))
        return fail_text(path + ": " + strerror(errno));
    zan_trace_file_st head;
    const std::string fault = file_fault(map, &head);
    if (!fault.empty())
        return fail_text(path + ": " + fault);
    const zan_trace_reply_st moment = moment_of(head);
    const auto *slots = (const zan_trace_slot_st *)(map.bytes + ZAN_TRACE_FILE_HEAD_SIZE);
    for (uint64_t i = 0; i < (uint64_t)head.num_rings * head.records_per_ring; i++) {
        zan_trace_record_st r;
        if (!zan_trace_take(&slots[i], &r))
            continue;
        const uint64_t when_ns = time_of(r, moment);
        if (passes(r, when_ns, filter))
            found->push_back({r, when_ns});
    }
    std::sort(found->begin(), found->end(), [](const shown_t &a, const shown_t &b) {
        return a.record.sequence < b.record.sequence;
    });
    if (found->size() > most)
        found->erase(found->begin(), found->end() - (ptrdiff_t)most);
    return EXIT_WELL;
}

void print_all(const session_t *session, const std::deque<shown_t> &found)
{
    for (const shown_t &shown : found)
        print(session, shown.record, shown.when_ns);
    fflush(session->out);
}

} // namespace

int run_trace(session_t *session, const trace_options_t &options)
{
    filter_t filter = {};
    std::string why;
    if (!options.table.empty() && !(filter.table = find_table(options.table, &why)))
        return fail_text(why);
    filter.trans = options.trans;
    filter.errors = options.errors;
    if (options.since) {
        timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        filter.from_ns = (uint64_t)(((double)now.tv_sec - *options.since) * 1e9);
    }
    if (!options.file.empty()) {
        std::deque<shown_t> found;
        const int status = read_file(options.file, filter, &found, options.last);
        print_all(session, found);
        return status;
    }
    uint64_t after = 0;
    for (;;) {
        std::deque<shown_t> found;
        if (read_ring(session, filter, &after, &found, options.last))
            return EXIT_FAILED;
        print_all(session, found);
        if (!options.follow)
            return EXIT_WELL;
        usleep(poll_us);
    }
}

/* What mentions the object tells which transactions wrote it; what those traced belongs to its life
 * too. */
int run_history(session_t *session, const std::string &text)
{
    std::string why;
    const order_t order = {ZAN_TABLE_GET, parse_object(text, &why), 0};
    if (!order.obj)
        return fail_text(why);
    zan_graph_reply_st reply = {};
    zan_graph_node_st *node = nullptr;
    if (zan_client_graph(session->client, order.obj.get(), 0, 0, &reply, &node))
        return fail_session(session);
    const std::unique_ptr<zan_graph_node_st, free_object_t> own(node);
    if (reply.num_nodes == 0) {
        report(session, order, {result_t::FAILED, (zan_rcode)reply.err_code, "", "", ""});
        return EXIT_REFUSED;
    }
    filter_t filter = {};
    filter.handle = node->handle;
    std::deque<shown_t> found;
    uint64_t after = 0;
    if (read_ring(session, filter, &after, &found, SIZE_MAX))
        return EXIT_FAILED;
    for (const shown_t &shown : found)
        if (shown.record.trans_id != 0)
            filter.transactions.insert(shown.record.trans_id);
    found.clear();
    after = 0;
    if (read_ring(session, filter, &after, &found, SIZE_MAX))
        return EXIT_FAILED;
    print_all(session, found);
    return EXIT_WELL;
}
