/* The command line: options and commands, the session, the exit status. */
#include "objects.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace
{

struct arguments_t {
    std::string socket = ZAN_DEFAULT_SOCKET;
    bool json = false;
    std::vector<std::string> words; /* an object's, or a key's */
    std::string table, file;
    std::vector<std::string> from, files, set;
    uint64_t limit = 0;
    std::optional<uint32_t> epoch;
    bool now = false;
    apply_options_t apply;
    graph_options_t graph;
    resources_options_t resources;
    failed_options_t failed;
    quarantine_options_t quarantine;
    sim_options_t sim;
    trace_options_t trace;
    counters_options_t counters;
    classes_options_t classes;
};

std::string join(const std::vector<std::string> &words)
{
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

/* CLI11 takes "-1" for a large number where none is below 0. */
CLI::Validator at_least(uint64_t least)
{
    return CLI::Validator(
        [least](const std::string &word) {
            const bool is_less = word[0] == '-' || strtod(word.c_str(), nullptr) < (double)least;
            return is_less ? "it must be " + std::to_string(least) + " or more" : "";
        },
        "");
}

void add_commands(CLI::App *app, arguments_t *a)
{
    app->add_option("--socket", a->socket, "the agent's socket")
        ->envname("ZAN_SOCKET")
        ->capture_default_str();
    app->add_flag("--json", a->json, "JSON for scripts: one document a line");
    app->set_version_flag("--version", "zanctl " ZAN_VERSION);
    app->require_subcommand(1);
    app->fallthrough();

    CLI::App *create = app->add_subcommand("create", "create an object: TABLE FIELD=VALUE...");
    create->add_option("object", a->words, "l3intf intf=100 ipv4_mtu=1500")->required();
    CLI::App *update = app->add_subcommand("update", "change an object: what is not named stays");
    update->add_option("object", a->words, "l3intf intf=100 ipv4_mtu=9000")->required();
    CLI::App *remove = app->add_subcommand(
        "delete", "delete an object: TABLE KEY=VALUE...; it waits for what still leads to it");
    remove->add_option("object", a->words, "iproute vrf_id=0 prefix=10.0.0.0/8")->required();
    CLI::App *get = app->add_subcommand("get", "read an object: TABLE KEY=VALUE...");
    get->add_option("object", a->words, "iproute vrf_id=0 prefix=10.0.0.0/8")->required();
    CLI::App *list = app->add_subcommand("list", "list a table in key order");
    list->add_option("table", a->table)->required();
    list->add_option("--from", a->from, "begin at this key: KEY=VALUE...");
    list->add_option("--limit", a->limit, "at most so many objects")->check(at_least(1));
    CLI::App *apply = app->add_subcommand(
        "apply",
        "run a file of operations, one a line; an update drops the plain references it leaves out");
    apply->add_option("file", a->file, "- is standard input")->required();
    apply->add_flag("--async", a->apply.async, "asynchronous batches: nobody waits for hardware");
    apply->add_flag("--stop-on-error", a->apply.stop_on_error, "the first failure cuts the rest");
    apply->add_flag("--replace", a->apply.replace,
                    "a create of what is stored changes it to what is sent");
    apply->add_flag("--one-kind", a->apply.one_kind,
                    "a batch ends where operation or table changes");
    apply->add_option("--batch", a->apply.batch_objects, "operations in a batch")
        ->check(CLI::Range(1, 100000))
        ->capture_default_str();
    CLI::App *graph = app->add_subcommand(
        "graph", "what an object leads to and what leads to it: TABLE KEY=VALUE...");
    graph->add_option("object", a->words, "ipnhgroup nhg_id=7")->required();
    graph->add_option("--depth", a->graph.depth, "levels in each direction")
        ->check(CLI::Range(0u, ZAN_GRAPH_DEPTH_MAX))
        ->capture_default_str();
    graph->add_option("--children", a->graph.children, "of one object to show")
        ->check(CLI::Range(0u, ZAN_GRAPH_CHILDREN_MAX))
        ->capture_default_str();
    graph->add_flag("--dot", a->graph.dot, "as input of Graphviz");
    CLI::App *walk = app->add_subcommand(
        "walk", "change an object as update does, and show what that changed below it: walk TABLE "
                "KEY=VALUE... --set FIELD=VALUE...");
    walk->add_option("object", a->words, "ipnhgroup nhg_id=7")->required();
    walk->add_option("--set", a->set, "what changes, and last: FIELD=VALUE...")->required();
    CLI::App *events = app->add_subcommand(
        "events", "events pushed and received, and what walks did, since the agent's start");
    events->add_option("table", a->table, "one table only, what is 0 too");
    CLI::App *resources = app->add_subcommand(
        "resources", "how full the hardware databases of each NPU are, and how much they take");
    resources->add_flag("--all", a->resources.all, "the unused ones too");
    resources->add_option("--db", a->resources.database,
                          "one database: to show, or to set something of");
    resources->add_option("--capacity", a->resources.capacity, "entries that it takes; 0: no limit")
        ->check(at_least(0));
    resources->add_option("--npu", a->resources.npu, "of this NPU only")->check(CLI::Range(0, 7));
    resources->add_option("--thresholds", a->resources.thresholds,
                          "percent at which it is yellow, no longer, red, no longer: 80,75,95,90");
    CLI::App *failed = app->add_subcommand(
        "failed", "objects whose write failed on an NPU: of all tables, of one, or one by its key");
    failed->add_option("object", a->words, "iproute, or iproute vrf_id=0 prefix=10.0.0.0/8");
    CLI::Option *retry = failed->add_flag("--retry", a->failed.retry, "try again now");
    failed->add_flag("--forget", a->failed.forget, "try no more: hardware stays as it is")
        ->excludes(retry);
    CLI::App *quarantine = app->add_subcommand(
        "quarantine", "objects taken out of service: of all tables, of one, or one by its key");
    quarantine->add_option("object", a->words, "ipnhgroup, or ipnhgroup nhg_id=7");
    CLI::Option *release = quarantine->add_flag("--release", a->quarantine.release,
                                                "put back, and what was taken out with it");
    quarantine
        ->add_flag("--drop", a->quarantine.drop, "delete for good, and what was taken out with it")
        ->excludes(release);
    CLI::App *table = app->add_subcommand("table", "all that is counted of one table");
    table->add_option("table", a->table)->required();
    CLI::App *counters = app->add_subcommand(
        "counters", "the counters of a table's operations; of all tables, those that are not 0");
    counters->add_option("table", a->table);
    counters->add_flag("--reset", a->counters.reset,
                       "those since the reset begin anew: of the table, or of all");
    counters
        ->add_option("--bank", a->counters.bank,
                     "this bank counts from now on, for all tables; it begins at 0")
        ->check(CLI::Range(0u, ZAN_WIRE_NUM_BANKS - 1));
    CLI::App *perf = app->add_subcommand(
        "perf", "how long operations, hooks and walks take, and which operations were slow");
    perf->add_option("table", a->table, "one table, with its histograms");
    app->add_subcommand("about", "versions, table definitions, and how the agent was started");
    CLI::App *support = app->add_subcommand(
        "support", "an archive with all that the commands show of the node, for somebody else");
    support->add_option("file", a->file, "its name; without it one with the time");
    CLI::App *watch = app->add_subcommand(
        "watch", "print notifications as they come: of some tables, or of all and of the hardware");
    watch->add_option("tables", a->words, "iproute ip6route");
    watch->add_option("--limit", a->limit, "end after so many")->check(at_least(1));
    CLI::App *replay = app->add_subcommand(
        "replay", "start: mark what is stored; end: delete what was not sent again since");
    replay->add_option("what", a->file, "start or end")
        ->required()
        ->check(CLI::IsMember({"start", "end"}));
    replay->add_option("tables", a->words, "iproute ip6route; without all that concern");
    replay->add_option("--epoch", a->epoch, "start: of the objects of this client's epoch only")
        ->check(CLI::Range(0u, UINT32_MAX));
    CLI::App *eod = app->add_subcommand("eod", "end of download: tell each NPU that all was sent");
    eod->add_option("tables", a->words, "ipacl; without all tables that hear it");
    CLI::App *stats = app->add_subcommand(
        "stats", "counters of an object: TABLE KEY=VALUE..., or the walks that bring them in");
    stats->add_option("object", a->words, "l3intftxstats intf=100");
    stats->add_flag("--now", a->now, "walk over all counters first");
    CLI::App *trace = app->add_subcommand("trace", "the trace ring, a line for each record");
    CLI::Option *follow =
        trace->add_flag("-f,--follow", a->trace.follow, "and what comes, until it is stopped");
    trace->add_option("--table", a->trace.table, "of one table only");
    trace->add_option("--trans", a->trace.trans, "of one transaction only");
    trace->add_option("--since", a->trace.since, "of the last so many seconds only")
        ->check(at_least(0));
    trace->add_option("--file", a->trace.file, "of this file, which an agent has left")
        ->excludes(follow);
    trace->add_flag("--errors", a->trace.errors, "errors only");
    trace->add_option("--last", a->trace.last, "so many at most, the newest")
        ->check(at_least(1))
        ->capture_default_str();
    const std::vector<CLI::Option *> of_records =
        trace->get_options([trace](const CLI::Option *o) { return o != trace->get_help_ptr(); });
    CLI::App *classes = trace->add_subcommand("classes", "which classes are traced");
    for (CLI::Option *option : of_records)
        classes->excludes(option);
    classes->add_option("words", a->words,
                        "classes; a table, a level (error, event, verbose) or queue, batch, "
                        "transaction_history... for all of it");
    CLI::Option *on = classes->add_flag("--on", a->classes.on, "trace these from now on");
    classes->add_flag("--off", a->classes.off, "and these no more")->excludes(on);
    CLI::App *history = app->add_subcommand(
        "history", "what the trace ring knows of an object: TABLE KEY=VALUE...");
    history->add_option("object", a->words, "iproute vrf_id=0 prefix=10.0.0.0/8")->required();
    CLI::App *sim = app->add_subcommand("sim", "how the simulated NPUs behave from now on");
    CLI::Option_group *how = sim->add_option_group("how");
    how->add_flag("--well", a->sim.well, "as they should");
    how->add_option("--fail", a->sim.fail, "so many writes fail; 0: all");
    how->add_option("--chance", a->sim.chance, "so many of a thousand writes fail")
        ->check(CLI::Range(0u, 1000u));
    how->add_option("--latency", a->sim.latency, "microseconds that each write takes");
    how->add_flag("--hang", a->sim.hang, "an NPU starts nothing any more");
    how->require_option(0, 1);
    sim->add_option("--npu", a->sim.npu, "this NPU only")->check(CLI::Range(0, 7));
    sim->add_option("--table", a->sim.table, "writes of this table only");
    sim->add_option("--operation", a->sim.operation, "create, update or delete only");
    sim->add_option("--code", a->sim.code, "the code that they fail with")
        ->default_str("0x4fa0c005");
    app->add_subcommand("status", "what the node holds and did");
    CLI::App *compare =
        app->add_subcommand("compare", "compare the database with what the NPUs hold");
    compare->add_option("table", a->table, "one table only");
    CLI::App *load = app->add_subcommand(
        "load", "load a routing table: prefixes one a line, plain or gzip; then check it");
    load->add_option("files", a->files)->required();
    CLI::App *change = app->add_subcommand(
        "change", "change objects that much of what was loaded leads to, and check each walk");
    change->add_option("files", a->files)->required();
    CLI::App *unload = app->add_subcommand(
        "unload", "move a part of what was loaded to other groups, then delete all of it");
    unload->add_option("files", a->files)->required();
}

int run_command(const CLI::App &app, const arguments_t &a, session_t *session)
{
    const CLI::App *subcommand = app.get_subcommands().front();
    const std::string command = subcommand->get_name();
    if (command == "create")
        return run_write(session, ZAN_TABLE_CREATE, join(a.words));
    if (command == "update")
        return run_write(session, ZAN_TABLE_UPDATE, join(a.words));
    if (command == "delete")
        return run_write(session, ZAN_TABLE_DELETE, join(a.words));
    if (command == "get")
        return run_get(session, join(a.words));
    if (command == "list")
        return run_list(session, a.table, join(a.from), a.limit);
    if (command == "apply")
        return run_apply(session, a.file, a.apply);
    if (command == "graph")
        return run_graph(session, join(a.words), a.graph);
    if (command == "walk")
        return run_walk(session, join(a.words), join(a.set));
    if (command == "events")
        return run_events(session, a.table);
    if (command == "resources")
        return run_resources(session, a.resources);
    if (command == "failed")
        return run_failed(session, join(a.words), a.failed);
    if (command == "quarantine")
        return run_quarantine(session, join(a.words), a.quarantine);
    if (command == "table")
        return run_table(session, a.table);
    if (command == "about")
        return run_about(session);
    if (command == "support")
        return run_support(session, a.file);
    if (command == "perf")
        return run_perf(session, a.table);
    if (command == "counters")
        return run_counters(session, a.table, a.counters);
    if (command == "trace" && !subcommand->get_subcommands().empty())
        return run_trace_classes(session, a.words, a.classes);
    if (command == "stats")
        return run_stats(session, join(a.words), a.now);
    if (command == "trace")
        return run_trace(session, a.trace);
    if (command == "history")
        return run_history(session, join(a.words));
    if (command == "replay")
        return run_replay(session, a.file, a.words, a.epoch);
    if (command == "eod")
        return run_eod(session, a.words);
    if (command == "watch")
        return run_watch(session, a.words, a.limit);
    if (command == "sim")
        return run_sim(session, a.sim);
    if (command == "status")
        return run_status(session);
    if (command == "compare")
        return run_compare(session, a.table);
    if (command == "change")
        return run_change(session, a.files);
    if (command == "unload")
        return run_unload(session, a.files);
    return run_load(session, a.files);
}

/* A word where a command should stand: what CLI11 says of it is about subcommands, and help for
 * people who asked for another's is no success. "" when that is not what is wrong. */
std::string unknown_command(const CLI::App &app)
{
    const std::vector<std::string> rest = app.remaining();
    if (!app.get_subcommands().empty() || rest.empty())
        return "";
    if (rest.front()[0] == '-')
        return "there is no option " + rest.front() + ": zanctl --help lists them";
    std::vector<std::string> names;
    for (const CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; }))
        names.push_back(command->get_name());
    return "there is no command " + rest.front() + suggestion(rest.front(), names) +
           "zanctl --help lists them";
}

/* What did not reach a full disk is no success, whatever the command says. */
int flush_output(int status)
{
    errno = 0;
    if (fflush(stdout) == 0 && !ferror(stdout))
        return status;
    return fail_text(std::string("not all could be written: ") +
                     (errno ? strerror(errno) : "an earlier write to standard output failed"));
}

} // namespace

int fail_text(const std::string &text)
{
    fprintf(stderr, "zanctl: %s\n", text.c_str());
    return EXIT_FAILED;
}

int fail_session(const session_t *session)
{
    return fail_text(zan_client_error(session->client));
}

int main(int argc, char **argv)
{
    CLI::App app{"Talk to a table agent: objects as text, one a line."};
    arguments_t arguments;
    add_commands(&app, &arguments);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        const std::string unknown = unknown_command(app);
        if (!unknown.empty())
            return fail_text(unknown);
        return flush_output(app.exit(e) ? EXIT_FAILED : EXIT_WELL);
    }
    char why[512];
    session_t session = {nullptr, arguments.json, stdout};
    if (arguments.trace.file.empty()) /* else the agent may be gone */
        session.client = zan_client_connect(arguments.socket.c_str(), "zanctl", why, sizeof why);
    if (!session.client && arguments.trace.file.empty())
        return fail_text(why);
    int status;
    try {
        status = run_command(app, arguments, &session);
    } catch (const std::exception &e) {
        status = fail_text(e.what());
    }
    zan_client_close(session.client);
    return flush_output(status);
}
