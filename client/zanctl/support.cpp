/* support: one archive with what the commands show of the node, and the trace ring as it is. */
#include "zanctl.h"

#include <cerrno>
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

/* The archive on its way: a file that was not there before, all of it in one directory. */
class bundle_t
{
public:
    explicit bundle_t(std::string path) : path_(std::move(path))
    {
        const size_t slash = path_.rfind('/');
        const std::string file = slash == std::string::npos ? path_ : path_.substr(slash + 1);
        directory_ = file.substr(0, file.find('.')) + "/";
        check(archive_write_add_filter_gzip(archive_.get()));
        check(archive_write_set_format_pax_restricted(archive_.get()));
        fd_ = open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd_ < 0)
            throw std::runtime_error(path_ + ": " + strerror(errno));
        check(archive_write_open_fd(archive_.get(), fd_));
    }
    bundle_t(const bundle_t &) = delete;
    bundle_t &operator=(const bundle_t &) = delete;
    ~bundle_t()
    {
        archive_.reset();
        close(fd_);
        if (!complete_)
            unlink(path_.c_str());
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
            throw std::runtime_error(path_ + ": " + strerror(errno));
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
    std::string path_, directory_;
    int fd_;
    bool complete_ = false;
    std::unique_ptr<archive, free_archive_t> archive_{archive_write_new()};
    std::vector<member_t> members_;
};

std::string default_name()
{
    const time_t now = time(nullptr);
    tm local = {};
    localtime_r(&now, &local);
    char text[64];
    strftime(text, sizeof text, "zan-support-%Y%m%d-%H%M%S.tar.gz", &local);
    return text;
}

using command_f = std::function<int(session_t *)>;

/* What a command prints for people. */
std::string output_of(const session_t &session, const command_f &command)
{
    char *text = nullptr;
    size_t size = 0;
    session_t inner = {session.client, false, open_memstream(&text, &size)};
    if (!inner.out)
        throw std::bad_alloc();
    const int status = command(&inner);
    if (status == EXIT_FAILED)
        fprintf(inner.out, "zanctl: %s\n", zan_client_error(session.client));
    fclose(inner.out);
    const std::unique_ptr<char, free_object_t> owned(text);
    return {text, size};
}

/* Tables that hold something or were asked to. */
std::vector<std::string> used_tables(const session_t &session)
{
    zan_status_st status;
    zan_table_status_st *tables;
    if (zan_client_status(session.client, &status, &tables))
        throw std::runtime_error(zan_client_error(session.client));
    const std::unique_ptr<zan_table_status_st, free_object_t> owned(tables);
    std::vector<std::string> names;
    for (uint32_t i = 0; i < status.num_tables; i++)
        names.push_back(kor_table_name_get(tables[i].table_id));
    return names;
}

/* A command for each table, one behind the other. */
command_f for_each(const std::vector<std::string> &tables,
                   int (*command)(session_t *, const std::string &))
{
    return [&tables, command](session_t *session) {
        int worst = EXIT_WELL;
        for (const std::string &table : tables) {
            worst = std::max(worst, command(session, table));
            fprintf(session->out, "\n");
        }
        return worst;
    };
}

void add_texts(bundle_t *bundle, const session_t &session)
{
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
        const std::string text = output_of(session, t.command);
        bundle->begin(t.name, text.size());
        bundle->write(text.data(), text.size());
    }
}

/* The ring's file, for zanctl trace --file; the agent writes to it meanwhile. Left out where it
 * cannot be read: trace.txt has its records, too. */
void add_ring(bundle_t *bundle, const session_t &session)
{
    zan_about_st about;
    char *command_line;
    if (zan_client_about(session.client, &about, &command_line))
        return;
    free(command_line);
    const int fd = *about.trace_file ? open(about.trace_file, O_RDONLY | O_CLOEXEC) : -1;
    struct stat facts;
    if (fd < 0)
        return;
    if (fstat(fd, &facts) == 0) {
        std::vector<uint8_t> part(1 << 20);
        bundle->begin("trace.ring", (uint64_t)facts.st_size);
        for (ssize_t n; (n = read(fd, part.data(), part.size())) > 0;)
            bundle->write(part.data(), (size_t)n);
    }
    close(fd);
}

void report(const session_t &session, const std::string &path, const bundle_t &bundle)
{
    json_t members = json_t::array();
    if (!session.json)
        fprintf(session.out, "%s\n", path.c_str());
    for (const member_t &member : bundle.members()) {
        members.push_back({{"name", member.name}, {"bytes", member.bytes}});
        if (!session.json)
            fprintf(session.out, "%12llu  %s\n", (unsigned long long)member.bytes,
                    member.name.c_str());
    }
    if (session.json)
        fprintf(session.out, "%s\n",
                json_t({{"archive", path}, {"members", members}}).dump().c_str());
}

} // namespace

int run_support(session_t *session, const std::string &file)
{
    const std::string path = file.empty() ? default_name() : file;
    bundle_t bundle(path);
    add_texts(&bundle, *session);
    add_ring(&bundle, *session);
    bundle.finish();
    report(*session, path, bundle);
    return EXIT_WELL;
}
