/* What the parts of zan_bench share. */
#ifndef ZAN_BENCH_H
#define ZAN_BENCH_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "zan_tables_private.h"

namespace bench
{

/* A prefix of either family: an iproute's or an ip6route's. */
struct prefix_t {
    bool is_v6;
    uint8_t bytes[16];
    uint8_t len;
};

/* One CIDR prefix a line, plain or gzip. Empty, with a message on standard error, when it cannot be
 * read. */
std::vector<prefix_t> read_prefixes(const std::string &path);

/* The route of a prefix, leading to a group, in serialized form. */
void write_route(const prefix_t &prefix, uint32_t group, uint32_t trans_id, uint8_t *out);
uint32_t route_size(const prefix_t &prefix);

/* The floor: what storing the same objects costs with good general-purpose parts and nothing else.
 * An object is calloc'ed and copied, put into a hash table and a B-tree under its key, and linked
 * to its parent. */
class floor_t
{
public:
    floor_t();
    ~floor_t();
    floor_t(const floor_t &) = delete;
    floor_t &operator=(const floor_t &) = delete;
    void create(const uint8_t *wire);
    /* Look the key up and copy the object to `out`; false when it is not there. */
    bool read(const uint8_t *wire, uint8_t *out);
    /* Overwrite the object and link it to its new parent; take it out. */
    bool update(const uint8_t *wire);
    bool remove(const uint8_t *wire);
    size_t size() const;

private:
    struct state_t;
    state_t *state_;
};

/* ---- The server, on the calling thread as its dispatcher ---- */

/* Say why the measurement is worth nothing, and end. */
[[noreturn]] void fail(const char *what);
/* One NPU; the locks of the dispatcher are held from here on. */
void start_server(bool stepped, uint64_t seed);
/* Until the NPU has finished all that it was sent. */
void settle();
/* An operation on the object that `text` describes; run it, which must succeed, and free it. */
zan_table_base_st *make_request(const zan_table_def_t *def, const char *text,
                                zan_table_operation_et operation);
void run_request(zan_table_base_st *obj);

/* What a walk costs, by number of children up to the greatest: prints its results. */
void run_walks(size_t greatest);

/* Routes to create batch by batch, each of which says how many seconds it took. */
struct batches_t {
    size_t count;
    std::function<double(size_t batch)> create;
    std::function<void()> remove_all;
};

/* What a trace costs, by so many calls; prints its results. */
void run_traces(size_t calls, const batches_t &batches);
/* Nothing but so many calls, with all classes on or off: for counting their instructions. */
void count_traces(size_t calls, bool on);

class stopwatch_t
{
public:
    void start()
    {
        start_ = std::chrono::steady_clock::now();
    }
    void stop()
    {
        total_ += std::chrono::steady_clock::now() - start_;
    }
    double seconds() const
    {
        return std::chrono::duration<double>(total_).count();
    }

private:
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::duration total_{};
};

} // namespace bench

#endif
