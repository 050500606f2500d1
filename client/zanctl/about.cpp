/* about: versions, table definitions, and how the agent was started. */
#include "objects.h"

#include <sstream>

namespace
{

std::string fingerprint_text(uint64_t fingerprint)
{
    char text[32];
    snprintf(text, sizeof text, "%016llx", (unsigned long long)fingerprint);
    return text;
}

void print(FILE *out, const zan_about_st &about, const zan_hello_reply_st &node,
           const std::vector<std::string> &words)
{
    fprintf(out, "zanctl    version %s, protocol %u, %u tables with definitions %s\n", ZAN_VERSION,
            ZAN_WIRE_VERSION, ZAN_NUM_TABLES, fingerprint_text(zan_schema_fingerprint).c_str());
    fprintf(out, "agent     version %s, protocol %u, definitions %s\n", about.version, node.version,
            fingerprint_text(node.fingerprint).c_str());
    fprintf(out, "process   %u, since %s\n", about.pid,
            time_text(about.started_ns, "%Y-%m-%d %H:%M:%S %z").c_str());
    fprintf(out, "trace     %s\n", *about.trace_file ? about.trace_file : "in memory");
    fprintf(out, "started as\n ");
    for (const std::string &word : words)
        fprintf(out, " %s", word.c_str());
    fprintf(out, "\n");
}

json_t as_json(const zan_about_st &about, const zan_hello_reply_st &node,
               const std::vector<std::string> &words)
{
    return {{"zanctl",
             {{"version", ZAN_VERSION},
              {"protocol", ZAN_WIRE_VERSION},
              {"definitions", fingerprint_text(zan_schema_fingerprint)}}},
            {"agent",
             {{"version", about.version},
              {"protocol", node.version},
              {"definitions", fingerprint_text(node.fingerprint)},
              {"pid", about.pid},
              {"started_ns", about.started_ns},
              {"trace_file", about.trace_file},
              {"command_line", words}}}};
}

} // namespace

int run_about(session_t *session)
{
    zan_about_st about;
    char *command_line;
    if (zan_client_about(session->client, &about, &command_line))
        return fail_session(session);
    const std::unique_ptr<char, free_object_t> owned(command_line);
    std::istringstream lines(command_line);
    std::vector<std::string> words;
    for (std::string word; std::getline(lines, word);)
        words.push_back(word);
    const zan_hello_reply_st &node = *zan_client_node(session->client);
    if (session->json)
        fprintf(session->out, "%s\n", as_json(about, node, words).dump().c_str());
    else
        print(session->out, about, node, words);
    return EXIT_WELL;
}
