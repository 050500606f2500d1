/* zanctl: the agent's command line. Each command takes the open session and gives the exit status:
 * 0 all went well, 1 something was refused or differs, 2 it could not be done at all. */
#ifndef ZANCTL_H
#define ZANCTL_H

#include "zan_client.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

using json_t = nlohmann::ordered_json;

enum exit_et {
    EXIT_WELL = 0,
    EXIT_REFUSED = 1,
    EXIT_FAILED = 2,
};

struct session_t {
    zan_client_t *client;
    bool json;
    FILE *out; /* where the commands that show what the agent knows write it */
};

struct free_object_t {
    void operator()(void *block) const
    {
        free(block);
    }
};
using object_ptr_t = std::unique_ptr<zan_table_base_st, free_object_t>;

struct free_batch_t {
    void operator()(zan_batch_t *batch) const
    {
        zan_batch_free(batch);
    }
};
using batch_ptr_t = std::unique_ptr<zan_batch_t, free_batch_t>;

/* How a file of operations is sent. */
struct apply_options_t {
    bool async = false;         /* in asynchronous batches, whose one slot reads 0 */
    bool stop_on_error = false; /* the first failure cuts the rest */
    bool replace = false;       /* a create of what is stored changes it to what is sent */
    bool one_kind = false;      /* a batch ends where operation or table changes */
    size_t batch_objects = 1000;
};

/* A create, update or delete. */
int run_write(session_t *session, uint8_t operation, const std::string &text);
int run_get(session_t *session, const std::string &text);
int run_list(session_t *session, const std::string &table, const std::string &from, uint64_t limit);
int run_apply(session_t *session, const std::string &file, const apply_options_t &options);
/* How far the graph around an object is shown. */
struct graph_options_t {
    uint32_t depth = 8, children = 10;
    bool dot = false;
};
int run_graph(session_t *session, const std::string &text, const graph_options_t &options);
/* Make a change of an object, and show the walk that it started. */
int run_walk(session_t *session, const std::string &name, const std::string &change);
/* What all walks did since the agent's start; of one table, or of all. */
int run_events(session_t *session, const std::string &table);
/* What `resources` sets before it shows. */
struct resources_options_t {
    std::string database, thresholds;
    std::optional<uint64_t> capacity;
    int npu = -1; /* all */
    bool all = false;
};
int run_resources(session_t *session, const resources_options_t &options);
/* What `failed` and `quarantine` do; neither: list. */
struct failed_options_t {
    bool retry = false, forget = false;
};
struct quarantine_options_t {
    bool release = false, drop = false;
};
/* `words` name one object, a table, or with none all. */
int run_failed(session_t *session, const std::string &words, const failed_options_t &options);
int run_quarantine(session_t *session, const std::string &words,
                   const quarantine_options_t &options);
int run_table(session_t *session, const std::string &table);
/* What `counters` does before it shows. */
struct counters_options_t {
    bool reset = false;
    std::optional<uint32_t> bank; /* that is to count */
};
/* Of one table each counter; with no table, those of all tables that are not 0. */
int run_counters(session_t *session, const std::string &table, const counters_options_t &options);
/* How long the operations of a table take, and its walks; without one those of all in short. */
int run_perf(session_t *session, const std::string &table);
/* Versions, table definitions, and how the agent was started. */
int run_about(session_t *session);
/* All that the commands show of the node in one archive, of that name or of one with the time. */
int run_support(session_t *session, const std::string &file);
/* How simulated NPUs are to behave. */
struct sim_options_t {
    bool well = false, hang = false;
    std::optional<uint32_t> fail, chance, latency;
    int npu = -1; /* all */
    std::string table, operation;
    zan_rcode code = 0x4fa0c005; /* EIO, as hardware would say */
};
int run_sim(session_t *session, const sim_options_t &options);
/* Begin ("start") or end a replay of these tables; with none of those that hold objects, or whose
 * replay has begun. The epoch is the client's, for the tables that many clients share. */
int run_replay(session_t *session, const std::string &what, const std::vector<std::string> &names,
               std::optional<uint32_t> epoch);
/* Tell each NPU that all of a table has been sent; with no name of all tables that hear it. */
int run_eod(session_t *session, const std::vector<std::string> &names);
/* The counters of one object, or with no text the walks that bring them in; `now`: after one more
 * pass. */
int run_stats(session_t *session, const std::string &text, bool now);
/* What of the trace ring is shown. */
struct trace_options_t {
    bool follow = false, errors = false;
    std::string table;
    std::string file; /* of an agent that may be gone; empty: ask the agent */
    std::optional<uint32_t> trans;
    std::optional<double> since; /* seconds ago */
    size_t last = 1000;          /* at most so many, the newest */
};
int run_trace(session_t *session, const trace_options_t &options);
/* Which classes are traced, and which are from now on. */
struct classes_options_t {
    bool on = false, off = false;
};
/* Each word is a class, a table, a level, or the front part of a shared class's name. */
int run_trace_classes(session_t *session, const std::vector<std::string> &words,
                      const classes_options_t &options);
/* What the ring knows of one object, and of the transactions that wrote it. */
int run_history(session_t *session, const std::string &text);
/* Print notifications, of these tables or of all and of the hardware databases, until so many have
 * come; 0: for ever. */
int run_watch(session_t *session, const std::vector<std::string> &tables, uint64_t limit);
int run_status(session_t *session);
int run_compare(session_t *session, const std::string &table);
/* The outcome of a comparison, for people. */
void print_comparison(const zan_compare_reply_st &reply, const zan_difference_st *differences);
int run_load(session_t *session, const std::vector<std::string> &files);
int run_change(session_t *session, const std::vector<std::string> &files);
int run_unload(session_t *session, const std::vector<std::string> &files);

/* The agent could not be asked: say so. */
int fail_session(const session_t *session);
int fail_text(const std::string &text);

/* "0x2f908002", the name and the words of a code; all or the number alone, or as fields of a JSON
 * object. */
std::string code_text(zan_rcode rc);
std::string code_number(zan_rcode rc);
void put_code(json_t *out, zan_rcode rc);
std::string key_text(const zan_table_base_st *obj);

#endif
