/* trace classes: which are on, and switching them by names that cover more than one. */
#include "objects.h"

#include <algorithm>
#include <set>

namespace
{

const char *const levels[] = {"error", "event", "verbose"};

bool is_shared(zan_trace_class_t c)
{
    return c >= ZAN_SHARED_TRACE_CLASS_BASE;
}

std::string class_name(zan_trace_class_t c)
{
    char text[96];
    zan_trace_class_print(c, text, sizeof text);
    return text;
}

/* All that a class may be named by. */
std::vector<std::string> names_of(zan_trace_class_t c)
{
    const std::string name = class_name(c);
    std::vector<std::string> names = {name, levels[zan_trace_class_level(c) - 1]};
    if (!is_shared(c)) {
        names.push_back(kor_table_name_get(c / 3));
        return names;
    }
    for (size_t at = name.find('_'); at != std::string::npos; at = name.find('_', at + 1))
        names.push_back(name.substr(0, at));
    return names;
}

/* What is wrong with a word. */
std::string unknown_class(const std::string &word)
{
    std::vector<std::string> names;
    for (zan_trace_class_t c = 0; c < ZAN_NUM_TRACE_CLASSES; c++)
        for (const std::string &name : names_of(c))
            names.push_back(name);
    return "there is no trace class " + word + suggestion(word, names) +
           "zanctl trace classes lists them";
}

/* The classes that the words name; all without a word. False and a reason. */
bool select(const std::vector<std::string> &words, std::set<zan_trace_class_t> *chosen,
            std::string *why)
{
    std::set<std::string> unknown(words.begin(), words.end());
    for (zan_trace_class_t c = 0; c < ZAN_NUM_TRACE_CLASSES; c++) {
        if (words.empty())
            chosen->insert(c);
        for (const std::string &name : names_of(c))
            if (std::find(words.begin(), words.end(), name) != words.end()) {
                chosen->insert(c);
                unknown.erase(name);
            }
    }
    if (unknown.empty())
        return true;
    *why = unknown_class(*unknown.begin());
    return false;
}

bool is_on(const zan_trace_classes_reply_st &reply, zan_trace_class_t c)
{
    return reply.on[c / 64] >> c % 64 & 1;
}

void print(FILE *out, const std::set<zan_trace_class_t> &chosen,
           const zan_trace_classes_reply_st &reply)
{
    for (const zan_trace_class_t c : chosen)
        fprintf(out, "%-38s %s\n", class_name(c).c_str(), is_on(reply, c) ? "on" : "off");
}

/* The tables whose class of a level is as few of them have it. */
void print_level(FILE *out, uint32_t level, const zan_trace_classes_reply_st &reply)
{
    std::string on, off;
    uint32_t num_on = 0;
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        const bool is = is_on(reply, id * 3 + level);
        num_on += is;
        (is ? on : off) += std::string(" ") + kor_table_name_get(id);
    }
    fprintf(out, "%-38s on for %u of %u tables", levels[level], num_on, ZAN_NUM_TABLES);
    if (num_on && num_on <= ZAN_NUM_TABLES / 2)
        fprintf(out, ":%s", on.c_str());
    else if (num_on && num_on < ZAN_NUM_TABLES)
        fprintf(out, ", not for%s", off.c_str());
    fprintf(out, "\n");
}

/* The tables' in short, the shared ones each: of a level that the words say alone, or of all. */
void print_levels(FILE *out, const std::vector<std::string> &words,
                  const std::set<zan_trace_class_t> &chosen,
                  const zan_trace_classes_reply_st &reply)
{
    for (uint32_t level = 0; level < std::size(levels); level++)
        if (words.empty() || words.front() == levels[level])
            print_level(out, level, reply);
    print(out, {chosen.lower_bound(ZAN_SHARED_TRACE_CLASS_BASE), chosen.end()}, reply);
}

bool is_level(const std::string &word)
{
    return std::find(std::begin(levels), std::end(levels), word) != std::end(levels);
}

json_t as_json(const std::set<zan_trace_class_t> &chosen, const zan_trace_classes_reply_st &reply)
{
    json_t out = json_t::object();
    for (const zan_trace_class_t c : chosen)
        out[class_name(c)] = is_on(reply, c);
    return out;
}

} // namespace

int run_trace_classes(session_t *session, const std::vector<std::string> &words,
                      const classes_options_t &options)
{
    const bool switches = options.on || options.off;
    if (switches && words.empty())
        return fail_text("which classes? Say iproute_verbose, or verbose for all of that level");
    std::set<zan_trace_class_t> chosen;
    std::string why;
    if (!select(words, &chosen, &why))
        return fail_text(why);
    zan_trace_classes_st request = {};
    for (const zan_trace_class_t c : chosen)
        if (switches)
            (options.on ? request.on : request.off)[c / 64] |= (uint64_t)1 << c % 64;
    zan_trace_classes_reply_st reply;
    if (zan_client_trace_classes(session->client, &request, &reply))
        return fail_session(session);
    if (session->json)
        fprintf(session->out, "%s\n", as_json(chosen, reply).dump().c_str());
    else if (switches)
        fprintf(session->out, "%zu %s %s now\n", chosen.size(),
                chosen.size() == 1 ? "class is" : "classes are", options.on ? "on" : "off");
    else if (words.empty() || (words.size() == 1 && is_level(words.front())))
        print_levels(session->out, words, chosen, reply);
    else
        print(session->out, chosen, reply);
    return EXIT_WELL;
}
