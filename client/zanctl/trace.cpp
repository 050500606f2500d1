/* trace and history: the trace ring, a line for each record. */
#include "objects.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <set>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr unsigned poll_us = 200'000;    /* while the ring is followed */
constexpr uint64_t slots_at_once = 8192; /* of a file */

/* What is shown. */
struct filter_t {
    const zan_table_def_t *table; /* null: any */
    std::optional<uint32_t> trans;
    bool errors;
    uint64_t from_ns; /* CLOCK_REALTIME */
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
    return (!f.table || is_of_table(r, f.table->id)) && (!f.trans || r.trans_id == *f.trans) &&
           (!f.errors || zan_trace_class_level(r.trace_class) == ZAN_TRACE_LEVEL_ERROR) &&
           when_ns >= f.from_ns;
}

/* So many seconds before a moment; without a number the begin of time. */
uint64_t moment_before(uint64_t ns, std::optional<double> seconds)
{
    return seconds ? (uint64_t)std::max(0.0, (double)ns - *seconds * 1e9) : 0;
}

uint64_t time_of(const zan_trace_record_st &r, const zan_trace_reply_st &now)
{
    constexpr double year = 366.0 * 24 * 3600; /* beyond it the cycles say nothing */
    const double ago = now.cycles_per_second == 0 ? 0
                                                  : (double)(int64_t)(now.now_cycles - r.cycles) /
                                                        (double)now.cycles_per_second;
    return now.now_ns - (uint64_t)(int64_t)(std::clamp(ago, -year, year) * 1e9);
}

/* The lines have the time of day alone: the day stands in front of its first line. */
void print(const session_t *session, const zan_trace_record_st &r, uint64_t when_ns,
           std::string *day)
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
        const std::string today = time_text(when_ns, "%Y-%m-%d %z");
        if (today != *day)
            fprintf(session->out, "%s\n", today.c_str());
        *day = today;
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

/* It is read and not mapped: where the disk is full, a page of a sparse file may be there to read
 * and not to map. */
struct ring_file_t {
    std::string path;
    int fd = -1;
    zan_trace_file_st head;
    explicit ring_file_t(std::string name) : path(std::move(name))
    {
    }
    ring_file_t(const ring_file_t &) = delete;
    ring_file_t &operator=(const ring_file_t &) = delete;
    ~ring_file_t()
    {
        if (fd >= 0)
            close(fd);
    }
    uint64_t slots() const
    {
        return (uint64_t)head.num_rings * head.records_per_ring;
    }
    /* Some slots from this one on. False when they cannot be read. */
    bool read_slots(uint64_t first, std::vector<zan_trace_slot_st> *out) const
    {
        const size_t bytes = out->size() * sizeof(zan_trace_slot_st);
        const uint64_t at = ZAN_TRACE_FILE_HEAD_SIZE + first * sizeof(zan_trace_slot_st);
        return pread(fd, out->data(), bytes, (off_t)at) == (ssize_t)bytes;
    }
    /* What is wrong with it, or "". */
    std::string open_fault()
    {
        struct stat facts = {};
        fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0 || fstat(fd, &facts) != 0)
            return strerror(errno);
        if (S_ISDIR(facts.st_mode))
            return "it is a directory: name the trace file in it";
        if (pread(fd, &head, sizeof head, 0) != (ssize_t)sizeof head ||
            head.magic != ZAN_TRACE_FILE_MAGIC || head.record_size != sizeof(zan_trace_slot_st))
            return "it is no trace file";
        if (head.fingerprint != zan_schema_fingerprint)
            return "its agent was built from other table definitions than this zanctl";
        const auto size = (uint64_t)facts.st_size;
        if (slots() > size || size < ZAN_TRACE_FILE_HEAD_SIZE + slots() * head.record_size)
            return "it is cut short";
        return "";
    }
};

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

/* An agent may write to it meanwhile: a record is whole when a second look finds its number again.
 */
int read_file(const trace_options_t &options, filter_t filter, std::deque<shown_t> *found)
{
    const std::string &path = options.file;
    ring_file_t file(path);
    const std::string fault = file.open_fault();
    if (!fault.empty())
        return fail_text(path + ": " + fault);
    const zan_trace_reply_st moment = moment_of(file.head);
    filter.from_ns = moment_before(moment.now_ns, options.since);
    std::vector<zan_trace_slot_st> slots, again;
    for (uint64_t done = 0; done < file.slots(); done += slots.size()) {
        slots.resize(std::min<uint64_t>(file.slots() - done, slots_at_once));
        again.resize(slots.size());
        if (!file.read_slots(done, &slots) || !file.read_slots(done, &again))
            return fail_text(path + ": it cannot be read to its end");
        for (size_t i = 0; i < slots.size(); i++) {
            zan_trace_record_st r;
            if (slots[i].sequence != again[i].sequence || !zan_trace_take(&slots[i], &r))
                continue;
            const uint64_t when_ns = time_of(r, moment);
            if (passes(r, when_ns, filter))
                found->push_back({r, when_ns});
        }
    }
    std::sort(found->begin(), found->end(), [](const shown_t &a, const shown_t &b) {
        return a.record.sequence < b.record.sequence;
    });
    if (found->size() > options.last)
        found->erase(found->begin(), found->end() - (ptrdiff_t)options.last);
    return EXIT_WELL;
}

void print_all(const session_t *session, const std::deque<shown_t> &found, std::string *day)
{
    for (const shown_t &shown : found)
        print(session, shown.record, shown.when_ns, day);
    fflush(session->out);
}

/* ---- The life of one object ---- */

struct life_t {
    uint32_t table_id;
    std::string key;
    uint64_t handle; /* 0: it is not stored */
};

/* Whether its string is that; it may be cut. */
bool is_text(const zan_trace_record_st &r, const std::string &wanted)
{
    std::string text = r.text;
    text.erase(text.find_last_not_of(' ') + 1);
    return text == wanted ||
           (text.size() + 2 >= sizeof r.text && wanted.compare(0, text.size(), text) == 0);
}

/* What is refused names the object by its key. */
bool names_key(const zan_trace_record_st &r, const life_t &life)
{
    const auto number = (uint32_t)r.msg;
    if (zan_trace_message_table(number) != life.table_id)
        return false;
    switch ((number - ZAN_MSG_TABLE_BASE) % ZAN_MSG_TABLE_STRIDE) {
    case ZAN_TMSG_KEY_NOT_FOUND:
    case ZAN_TMSG_KEY_PRINT:
    case ZAN_TMSG_KEY_PRINT_OLD:
        return is_text(r, life.key);
    default:
        return false;
    }
}

bool is_creation(const zan_trace_record_st &r, const life_t &life)
{
    return (uint32_t)r.msg == ZAN_MSG_HISTORY_CREATE && r.arg[0] == life.table_id &&
           r.arg[1] == life.handle;
}

/* What goes well names the object by its handle, which is an address: others may have had it before
 * the last creation there. What the transactions traced that are found so belongs to the life too.
 */
std::deque<shown_t> life_in(const std::deque<shown_t> &ring, const life_t &life,
                            bool *from_creation)
{
    const auto last = std::find_if(ring.rbegin(), ring.rend(), [&life](const shown_t &shown) {
        return is_creation(shown.record, life);
    });
    *from_creation = last != ring.rend();
    const uint64_t since = *from_creation ? last->record.sequence : 0;
    const auto is_of_life = [&](const zan_trace_record_st &r) {
        return names_key(r, life) ||
               (life.handle && r.sequence >= since && mentions(r, life.handle));
    };
    std::set<uint32_t> transactions;
    for (const shown_t &shown : ring)
        if (shown.record.trans_id != 0 && is_of_life(shown.record))
            transactions.insert(shown.record.trans_id);
    std::deque<shown_t> found;
    for (const shown_t &shown : ring)
        if (is_of_life(shown.record) || transactions.count(shown.record.trans_id))
            found.push_back(shown);
    return found;
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
    std::string day;
    if (!options.file.empty()) {
        std::deque<shown_t> found;
        const int status = read_file(options, filter, &found);
        print_all(session, found, &day);
        return status;
    }
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    filter.from_ns =
        moment_before((uint64_t)now.tv_sec * 1'000'000'000 + (uint64_t)now.tv_nsec, options.since);
    uint64_t after = 0;
    for (;;) {
        std::deque<shown_t> found;
        if (read_ring(session, filter, &after, &found, options.last))
            return EXIT_FAILED;
        print_all(session, found, &day);
        if (!options.follow)
            return EXIT_WELL;
        usleep(poll_us);
    }
}

int run_history(session_t *session, const std::string &text)
{
    std::string why;
    const object_ptr_t obj = parse_named(text, &why);
    if (!obj)
        return fail_text(why);
    zan_graph_reply_st reply = {};
    zan_graph_node_st *node = nullptr;
    if (zan_client_graph(session->client, obj.get(), 0, 0, &reply, &node))
        return fail_session(session);
    const std::unique_ptr<zan_graph_node_st, free_object_t> own(node);
    const bool is_stored = reply.num_nodes != 0;
    const life_t life = {obj->table_id, is_stored ? node->key : key_text(obj.get()),
                         is_stored ? node->handle : 0};
    const std::string name = std::string(kor_table_name_get(life.table_id)) + " " + life.key;
    bool is_quarantined = false, from_creation;
    if (!is_stored && find_in_quarantine(session, obj.get(), &is_quarantined))
        return EXIT_FAILED;
    std::deque<shown_t> ring;
    uint64_t after = 0;
    if (read_ring(session, {}, &after, &ring, SIZE_MAX))
        return EXIT_FAILED;

    const std::deque<shown_t> found = life_in(ring, life, &from_creation);
    std::string day;
    print_all(session, found, &day);
    if (is_quarantined)
        fprintf(stderr, "zanctl: it is in quarantine: zanctl quarantine %s says why\n",
                name.c_str());
    if (!is_stored)
        fprintf(
            stderr,
            "zanctl: %s is not stored: the ring names what was refused by its key, and all else "
            "by an address that it has no more\n",
            name.c_str());
    else if (!from_creation && !found.empty())
        fprintf(stderr, "zanctl: the ring no longer holds its creation: some of this may be of "
                        "another that had its address before\n");
    if (found.empty())
        fprintf(stderr, "zanctl: the ring holds nothing of it any more\n");
    return found.empty() ? EXIT_REFUSED : EXIT_WELL;
}
