/* The command line: options and commands, the session, the exit status. */
#include "zanctl.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <unistd.h>

namespace
{

struct arguments_t {
    std::string socket = ZAN_DEFAULT_SOCKET;
    bool json = false;
    std::vector<std::string> words; /* an object's, or a key's */
    std::string table, file;
    std::vector<std::string> from, files;
    uint64_t limit = 0;
};

std::string join(const std::vector<std::string> &words)
{
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

void add_commands(CLI::App *app, arguments_t *a)
{
    app->add_option("--socket", a->socket, "the agent's socket")
        ->envname("ZAN_SOCKET")
        ->capture_default_str();
    app->add_flag("--json", a->json, "JSON for scripts: one document a line");
    app->require_subcommand(1);
    app->fallthrough();

    CLI::App *create = app->add_subcommand("create", "create an object: TABLE FIELD=VALUE...");
    create->add_option("object", a->words, "l3intf intf=100 ipv4_mtu=1500")->required();
    CLI::App *get = app->add_subcommand("get", "read an object: TABLE KEY=VALUE...");
    get->add_option("object", a->words, "iproute vrf_id=0 prefix=10.0.0.0/8")->required();
    CLI::App *list = app->add_subcommand("list", "list a table in key order");
    list->add_option("table", a->table)->required();
    list->add_option("--from", a->from, "begin at this key: KEY=VALUE...");
    list->add_option("--limit", a->limit, "at most so many objects");
    CLI::App *apply = app->add_subcommand("apply", "run a file of operations, one a line");
    apply->add_option("file", a->file, "- is standard input")->required();
    app->add_subcommand("status", "what the node holds and did");
    CLI::App *compare =
        app->add_subcommand("compare", "compare the database with what the NPUs hold");
    compare->add_option("table", a->table, "one table only");
    CLI::App *load = app->add_subcommand(
        "load", "load a routing table: prefixes one a line, plain or gzip; then check it");
    load->add_option("files", a->files)->required();
}

int run_command(const CLI::App &app, const arguments_t &a, session_t *session)
{
    const std::string command = app.get_subcommands().front()->get_name();
    if (command == "create")
        return run_create(session, join(a.words));
    if (command == "get")
        return run_get(session, join(a.words));
    if (command == "list")
        return run_list(session, a.table, join(a.from), a.limit);
    if (command == "apply")
        return run_apply(session, a.file);
    if (command == "status")
        return run_status(session);
    if (command == "compare")
        return run_compare(session, a.table);
    return run_load(session, a.files);
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
        return app.exit(e) ? EXIT_FAILED : EXIT_WELL;
    }
    char why[512];
    session_t session = {zan_client_connect(arguments.socket.c_str(), "zanctl", why, sizeof why),
                         arguments.json};
    if (!session.client)
        return fail_text(why);
    int status;
    try {
        status = run_command(app, arguments, &session);
    } catch (const std::exception &e) {
        status = fail_text(e.what());
    }
    zan_client_close(session.client);
    return status;
}
