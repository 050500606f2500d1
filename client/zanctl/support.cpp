/* support: one archive with what the commands show of the node, and the trace ring as it is. */
#include "objects.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <stdexcept>

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

struct member_t {
    std::string name;
    uint64_t bytes;
};

struct free_archive_t {
    void operator()(archive *a) const
    {
        archive_write_free(a);
    }
};
struct free_entry_t {
    void operator()(archive_entry *entry) const
    {
        archive_entry_free(entry);
    }
};

/* The name of the directory in an archive of that name, which tar is to unpack below where it is.
 */
std::string directory_of(const std::string &path)
{
    const size_t slash = path.rfind('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    for (const std::string ending : {".tar.gz", ".tgz"})
        if (name.size() >= ending.size() &&
            name.compare(name.size() - ending.size(), ending.size(), ending) == 0) {
            name.resize(name.size() - ending.size());
            break;
        }
    const bool names_something = name.find_first_not_of('.') != std::string::npos;
    return (names_something ? name : "zan-support") + "/";
}

/* The piece that a signal is to remove, or "". */
char piece[PATH_MAX];

extern "C" void remove_piece(int signal)
{
    unlink(piece);
    raise(signal); /* whose own action is back */
}

/* A new file beside that of `path`, for its owner only, which goes when a signal ends the program.
 * Its descriptor, or -1 with errno. */
int make_piece(std::string *path)
{
    if (path->size() >= sizeof piece) {
        errno = ENAMETOOLONG;
        return -1;
    }
    sigset_t ending, before;
    sigemptyset(&ending);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&ending, signal);
    sigprocmask(SIG_BLOCK, &ending, &before);
    const int fd = mkostemp(path->data(), O_CLOEXEC);
    const int error = errno;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action = {};
        if (fd < 0 || sigaction(signal, nullptr, &action) != 0 || action.sa_handler == SIG_IGN)
            continue;
        action.sa_handler = remove_piece;
        action.sa_mask = ending;
        action.sa_flags = (int)SA_RESETHAND;
        sigaction(signal, &action, nullptr);
    }
    if (fd >= 0)
        memcpy(piece, path->c_str(), path->size() + 1);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    return fd;
}

/* Give a file a name that nothing has. False with errno: EEXIST, or another. */
bool rename_to_new(const std::string &from, const std::string &to)
{
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS)
        return false;
    /* A file system that has no such rename has links. */
    return link(from.c_str(), to.c_str()) == 0 && unlink(from.c_str()) == 0;
}

[[noreturn]] void fail_file(const std::string &path, int error)
{
    throw std::runtime_error(
        path + ": " +
        (error == EEXIST ? "it is there, and is not overwritten: name another" : strerror(error)));
}

/* The archive on its way: all of it in one directory. It is written beside its place, under a name
 * that no other run has, and moved there when it is whole. */
class bundle_t
{
public:
    explicit bundle_t(std::string path)
        : path_(std::move(path)), part_(path_ + ".XXXXXX"), directory_(directory_of(path_))
    {
        struct stat facts;
        if (lstat(path_.c_str(), &facts) == 0)
            fail_file(path_, EEXIST);
        check(archive_write_add_filter_gzip(archive_.get()));
        check(archive_write_set_format_pax_restricted(archive_.get()));
        fd_ = make_piece(&part_);
        if (fd_ < 0)
            fail_file(path_, errno);
        if (archive_write_open_fd(archive_.get(), fd_) < ARCHIVE_WARN) {
            close(fd_);
            unlink(part_.c_str());
            check(ARCHIVE_FATAL);
        }
    }
    bundle_t(const bundle_t &) = delete;
    bundle_t &operator=(const bundle_t &) = delete;
    ~bundle_t()
    {
        archive_.reset();
        close(fd_);
        if (!complete_)
            unlink(part_.c_str());
    }
    void begin(const std::string &name, uint64_t bytes)
    {
        const std::unique_ptr<archive_entry, free_entry_t> entry(archive_entry_new());
        archive_entry_set_pathname(entry.get(), (directory_ + name).c_str());
        archive_entry_set_size(entry.get(), (int64_t)bytes);
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_perm(entry.get(), 0600);
        archive_entry_set_mtime(entry.get(), time(nullptr), 0);
        check(archive_write_header(archive_.get(), entry.get()));
        members_.push_back({name, bytes});
    }
    void write(const void *bytes, size_t len)
    {
        if (archive_write_data(archive_.get(), bytes, len) < 0)
            check(ARCHIVE_FATAL);
    }
    void finish()
    {
        check(archive_write_close(archive_.get()));
        if (fsync(fd_) != 0)
            fail_file(path_, errno);
        if (!rename_to_new(part_, path_))
            fail_file(path_, errno);
        complete_ = true;
    }
    const std::vector<member_t> &members() const
    {
        return members_;
    }

private:
    void check(int status)
    {
        if (status >= ARCHIVE_WARN)
            return;
        const char *why = archive_error_string(archive_.get());
        throw std::runtime_error(path_ + ": " + (why ? why : "it cannot be written"));
    }
    std::string path_, part_, directory_;
    int fd_;
    bool complete_ = false;
    std::unique_ptr<archive, free_archive_t> archive_{archive_write_new()};
    std::vector<member_t> members_;
};

std::string default_name()
{
    return time_text((uint64_t)time(nullptr) * 1'000'000'000, "zan-support-%Y%m%d-%H%M%S.tar.gz");
}

using faults_t = std::vector<std::string>;
using command_f = std::function<int(session_t *)>;

/* What a command prints for people, and how it ended. */
std::string output_of(const session_t &session, const command_f &command, int *status)
{
    char *text = nullptr;
    size_t size = 0;
    session_t inner = {session.client, false, open_memstream(&text, &size)};
    if (!inner.out)
        throw std::bad_alloc();
    *status = command(&inner);
    if (*status == EXIT_FAILED)
        fprintf(inner.out, "zanctl: %s\n", zan_client_error(session.client));
    fclose(inner.out);
    const std::unique_ptr<char, free_object_t> owned(text);
    return {text, size};
}

/* Tables that have counted anything. */
std::vector<std::string> used_tables(const session_t &session)
{
    const zan_counters_st request = {ZAN_COUNTERS_READ, ZAN_WIRE_NO_INDEX, 0, 0};
    zan_counters_reply_st head;
    zan_counters_table_st *tables;
    if (zan_client_counters(session.client, &request, &head, &tables))
        throw std::runtime_error(zan_client_error(session.client));
    const std::unique_ptr<zan_counters_table_st, free_object_t> owned(tables);
    std::vector<std::string> names;
    for (uint32_t i = 0; i < head.num_tables; i++)
        names.push_back(kor_table_name_get(tables[i].table_id));
    return names;
}

/* A command for each table, one behind the other. */
command_f for_each(const std::vector<std::string> &tables,
                   int (*command)(session_t *, const std::string &))
{
    return [&tables, command](session_t *session) {
        int worst = EXIT_WELL;
        if (tables.empty())
            fprintf(session->out, "no table is in use\n");
        for (const std::string &table : tables) {
            worst = std::max(worst, command(session, table));
            fprintf(session->out, "\n");
        }
        return worst;
    };
}

/* Gives what is missing of them, a line for each. */
faults_t add_texts(bundle_t *bundle, const session_t &session)
{
    faults_t faults;
    const std::vector<std::string> used = used_tables(session);
    trace_options_t whole_ring;
    whole_ring.last = SIZE_MAX;
    const struct {
        const char *name;
        command_f command;
    } texts[] = {
        {"about.txt", run_about},
        {"status.txt", run_status},
        {"counters.txt", [](session_t *s) { return run_counters(s, "", {}); }},
        {"tables.txt", for_each(used, run_table)},
        {"perf.txt", [](session_t *s) { return run_perf(s, ""); }},
        {"perf_tables.txt", for_each(used, run_perf)},
        {"resources.txt", [](session_t *s) { return run_resources(s, {}); }},
        {"failed.txt", [](session_t *s) { return run_failed(s, "", {}); }},
        {"quarantine.txt", [](session_t *s) { return run_quarantine(s, "", {}); }},
        {"events.txt", [](session_t *s) { return run_events(s, ""); }},
        {"stats.txt", [](session_t *s) { return run_stats(s, "", false); }},
        {"trace_classes.txt", [](session_t *s) { return run_trace_classes(s, {}, {}); }},
        {"trace.txt", [&](session_t *s) { return run_trace(s, whole_ring); }},
    };
    for (const auto &t : texts) {
        int status;
        const std::string text = output_of(session, t.command, &status);
        bundle->begin(t.name, text.size());
        bundle->write(text.data(), text.size());
        if (status != EXIT_WELL)
            faults.push_back(std::string(t.name) +
                             " is incomplete: " + zan_client_error(session.client));
    }
    return faults;
}

/* The ring's file, for zanctl trace --file; the agent writes to it meanwhile. What is missing of it
 * may be in trace.txt. */
faults_t add_ring(bundle_t *bundle, const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat facts;
    if (fd < 0 || fstat(fd, &facts) != 0) {
        const int error = errno;
        if (fd >= 0)
            close(fd);
        return {"trace.ring is missing: " + path + ": " + strerror(error)};
    }
    std::vector<uint8_t> part(1 << 20);
    bundle->begin("trace.ring", (uint64_t)facts.st_size);
    off_t done = 0;
    ssize_t n = 0;
    for (; done < facts.st_size && (n = read(fd, part.data(), part.size())) > 0; done += n)
        bundle->write(part.data(), (size_t)n);
    close(fd);
    if (done < facts.st_size)
        return {"trace.ring is incomplete: " + path + ": " +
                (n < 0 ? strerror(errno) : "it has become shorter")};
    return {};
}

void report(const session_t &session, const std::string &path, const bundle_t &bundle,
            bool ring_in_memory, const faults_t &faults)
{
    for (const std::string &fault : faults)
        fprintf(stderr, "zanctl: %s\n", fault.c_str());
    if (session.json) {
        json_t members = json_t::array();
        for (const member_t &member : bundle.members())
            members.push_back({{"name", member.name}, {"bytes", member.bytes}});
        const json_t out = {{"archive", path},
                            {"members", members},
                            {"ring_in_memory", ring_in_memory},
                            {"faults", faults}};
        fprintf(session.out, "%s\n", out.dump().c_str());
        return;
    }
    fprintf(session.out, "%s\n", path.c_str());
    for (const member_t &member : bundle.members())
        fprintf(session.out, "%12llu  %s\n", (unsigned long long)member.bytes, member.name.c_str());
    if (ring_in_memory)
        fprintf(session.out, "the agent keeps its trace ring in memory: trace.txt shows it\n");
}

} // namespace

int run_support(session_t *session, const std::string &file)
{
    if (file == "-")
        return fail_text("an archive goes to a file: name it, or leave the name out");
    zan_about_st about;
    char *command_line;
    if (zan_client_about(session->client, &about, &command_line))
        return fail_session(session);
    free(command_line);
    const bool ring_in_memory = !*about.trace_file;

    const std::string path = file.empty() ? default_name() : file;
    bundle_t bundle(path);
    faults_t faults = add_texts(&bundle, *session);
    if (!ring_in_memory)
        for (const std::string &fault : add_ring(&bundle, about.trace_file))
            faults.push_back(fault);
    bundle.finish();
    report(*session, path, bundle, ring_in_memory, faults);
    return faults.empty() ? EXIT_WELL : EXIT_REFUSED;
}
