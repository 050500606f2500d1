/* failed and quarantine: what has not reached the hardware, what was taken out of service for it,
 * and what is to be done about either. */
#include "objects.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace
{

using row_t = zan_failed_row_st;
using quarantined_t = zan_quarantine_row_st;

std::string name_of(uint32_t table_id, const uint8_t *key)
{
    char text[256];
    zan_key_print(zan_table_def_get(table_id), key, text, sizeof text);
    return std::string(kor_table_name_get(table_id)) + " " + text;
}

/* What the next attempt waits for. */
std::string next_text(const row_t &row)
{
    char text[32];
    switch (row.waits_for) {
    case ZAN_FAILED_WAIT_TIME:
        snprintf(text, sizeof text, "in %.1f s", (double)row.next_ms / 1000);
        return text;
    case ZAN_FAILED_WAIT_ANSWER:
        return "under way";
    case ZAN_FAILED_WAIT_ROOM:
        return "when there is room";
    case ZAN_FAILED_WAIT_PARENT:
        return "after its parent";
    case ZAN_FAILED_WAIT_DELETE:
        return "none: it is being deleted";
    default:
        return "none: it is being taken out of service";
    }
}

void print(FILE *out, const std::vector<row_t> &rows, const zan_failed_reply_st &figures)
{
    for (const row_t &row : rows)
        fprintf(out, "%s: %s failed on NPU %s with %s; %s, next %s\n",
                name_of(row.table_id, row.key).c_str(),
                zan_table_operation_str((uint8_t)row.operation), npus_text(row.npu_mask).c_str(),
                code_text(row.rc).c_str(), plural(row.attempts, "retry", "retries").c_str(),
                next_text(row).c_str());
    fprintf(out, "%llu failed now; %s since the start, %llu recovered, %llu taken out of service\n",
            (unsigned long long)figures.failed,
            plural(figures.attempts, "retry", "retries").c_str(),
            (unsigned long long)figures.recovered, (unsigned long long)figures.taken_out);
}

bool is_root(const quarantined_t &row)
{
    return row.table_id == row.root_table_id && memcmp(row.key, row.root_key, sizeof row.key) == 0;
}

void print(FILE *out, const std::vector<quarantined_t> &rows, const zan_failed_reply_st &figures)
{
    for (const quarantined_t &row : rows) {
        fprintf(out, "%s: ", name_of(row.table_id, row.key).c_str());
        if (is_root(row))
            fprintf(out, "failed with %s after %s; %u taken out with it", code_text(row.rc).c_str(),
                    plural(row.attempts, "retry", "retries").c_str(), row.followers);
        else
            fprintf(out, "taken out for %s%s%s", name_of(row.root_table_id, row.root_key).c_str(),
                    row.rc ? "; could not be put back: " : "",
                    row.rc ? code_text(row.rc).c_str() : "");
        fprintf(out, "%s\n", row.releasing ? "; on its way back" : "");
    }
    fprintf(out, "%llu out of service now; %llu taken out since the start, %llu put back\n",
            (unsigned long long)figures.quarantined, (unsigned long long)figures.taken_out,
            (unsigned long long)figures.put_back);
}

json_t as_json(const row_t &row)
{
    static const char *const waits[] = {"time", "answer", "room", "parent", "delete", "quarantine"};
    json_t out = {
        {"object", name_of(row.table_id, row.key)},
        {"operation", zan_table_operation_str((uint8_t)row.operation)},
        {"stored", row.stored != 0},
        {"npus", npus_json(row.npu_mask)},
        {"attempts", row.attempts},
        {"waits_for", row.waits_for < std::size(waits) ? waits[row.waits_for] : "unknown"},
        {"next_ms", row.next_ms}};
    put_code(&out, row.rc);
    return out;
}

json_t as_json(const quarantined_t &row)
{
    json_t out = {{"object", name_of(row.table_id, row.key)},
                  {"for", name_of(row.root_table_id, row.root_key)},
                  {"attempts", row.attempts},
                  {"followers", row.followers},
                  {"releasing", row.releasing != 0}};
    put_code(&out, row.rc);
    return out;
}

template <class Row> json_t rows_json(const std::vector<Row> &rows)
{
    json_t out = json_t::array();
    for (const Row &row : rows)
        out.push_back(as_json(row));
    return out;
}

json_t as_json(const std::vector<row_t> &rows, const zan_failed_reply_st &figures)
{
    return {{"failed", figures.failed},
            {"retries", figures.attempts},
            {"recovered", figures.recovered},
            {"taken_out", figures.taken_out},
            {"objects", rows_json(rows)}};
}

json_t as_json(const std::vector<quarantined_t> &rows, const zan_failed_reply_st &figures)
{
    return {{"quarantined", figures.quarantined},
            {"taken_out", figures.taken_out},
            {"put_back", figures.put_back},
            {"objects", rows_json(rows)}};
}

/* All rows of a list, however many replies they take. */
template <class Row>
int read_list(session_t *session, zan_failed_st request,
              int (*ask)(zan_client_t *, const zan_failed_st *, zan_failed_reply_st *, Row **),
              zan_failed_reply_st *figures, std::vector<Row> *all)
{
    for (;;) {
        Row *rows = nullptr;
        if (ask(session->client, &request, figures, &rows))
            return -1;
        const std::unique_ptr<Row, free_object_t> own(rows);
        all->insert(all->end(), rows, rows + figures->num_rows);
        if (figures->num_rows < ZAN_FAILED_ROWS_MAX)
            return 0;
        memcpy(request.key, all->back().key, sizeof request.key);
        request.key_table_id = all->back().table_id;
        request.has_key = 1;
    }
}

void name_key(const zan_table_base_st *obj, zan_failed_st *request)
{
    const zan_table_def_t *def = zan_table_def_get(obj->table_id);
    request->table_id = request->key_table_id = def->id;
    memcpy(request->key, zan_obj_key(def, obj), def->key_size);
    request->has_key = 1;
}

/* Name what the words name: one object, a table, or all. False and a reason. */
bool name_objects(const std::string &words, zan_failed_st *request, std::string *why)
{
    request->table_id = ZAN_WIRE_NO_INDEX;
    if (words.empty())
        return true;
    std::string rest = words;
    const zan_table_def_t *def = find_table(take_word(&rest), why);
    if (!def)
        return false;
    request->table_id = def->id;
    if (rest.find_first_not_of(" \t\r") == std::string::npos)
        return true;
    const object_ptr_t obj = parse_keyed(words, why);
    if (!obj)
        return false;
    name_key(obj.get(), request);
    return true;
}

template <class Row>
using ask_f = int (*)(zan_client_t *, const zan_failed_st *, zan_failed_reply_st *, Row **);

/* What is done to objects: in words to do, in words done, and the latter's name in JSON. */
struct action_t {
    uint32_t number; /* zan_failed_action_et */
    const char *verb, *done, *name;
};

template <class Row>
int act(session_t *session, const zan_failed_st &request, const action_t &action, ask_f<Row> ask)
{
    zan_failed_reply_st figures = {};
    Row *rows = nullptr;
    if (ask(session->client, &request, &figures, &rows))
        return fail_session(session);
    free(rows);
    if (session->json)
        fprintf(session->out, "%s\n", json_t({{action.name, figures.done}}).dump().c_str());
    else if (figures.done)
        fprintf(session->out, "%s: %s\n", action.done,
                plural(figures.done, "object", "objects").c_str());
    else
        fprintf(stderr, "zanctl: nothing to %s\n", action.verb);
    return figures.done ? EXIT_WELL : EXIT_REFUSED;
}

/* The rows that are asked for. To the agent the object that a list names is the one behind which it
 * begins: a single one is looked for among those of its table. */
template <class Row>
int read_named(session_t *session, const zan_failed_st &request, ask_f<Row> ask,
               zan_failed_reply_st *figures, std::vector<Row> *rows)
{
    zan_failed_st all = request;
    all.has_key = 0;
    if (read_list(session, all, ask, figures, rows))
        return fail_session(session);
    if (!request.has_key)
        return EXIT_WELL;
    const zan_table_def_t *def = zan_table_def_get(request.key_table_id);
    const auto is_other = [&](const Row &row) {
        return zan_key_cmp(def, row.key, request.key) != 0;
    };
    rows->erase(std::remove_if(rows->begin(), rows->end(), is_other), rows->end());
    return EXIT_WELL;
}

template <class Row>
int list(session_t *session, const zan_failed_st &request, const char *none, ask_f<Row> ask)
{
    zan_failed_reply_st figures = {};
    std::vector<Row> rows;
    if (read_named(session, request, ask, &figures, &rows))
        return EXIT_FAILED;
    if (session->json) {
        fprintf(session->out, "%s\n", as_json(rows, figures).dump().c_str());
        return EXIT_WELL;
    }
    if (request.has_key && rows.empty())
        fprintf(session->out, "%s: %s\n", name_of(request.key_table_id, request.key).c_str(), none);
    print(session->out, rows, figures);
    return EXIT_WELL;
}

/* Do something to the objects that the words name, or without an action list them; `none` is said
 * of a single one that is not in the list. */
template <class Row>
int run(session_t *session, const std::string &words, const action_t *action, const char *none,
        ask_f<Row> ask)
{
    zan_failed_st request = {};
    std::string why;
    if (!name_objects(words, &request, &why))
        return fail_text(why);
    if (!action)
        return list(session, request, none, ask);
    request.action = action->number;
    return act(session, request, *action, ask);
}

} // namespace

int run_failed(session_t *session, const std::string &words, const failed_options_t &options)
{
    static const action_t retry = {ZAN_FAILED_RETRY, "retry", "tried again", "retried"},
                          forget = {ZAN_FAILED_FORGET, "forget", "forgotten", "forgotten"};
    const action_t *action = options.retry ? &retry : options.forget ? &forget : nullptr;
    return run(session, words, action, "no write of it has failed", zan_client_failed);
}

int run_quarantine(session_t *session, const std::string &words,
                   const quarantine_options_t &options)
{
    static const action_t release = {ZAN_FAILED_RELEASE, "release", "released", "released"},
                          drop = {ZAN_FAILED_DROP, "drop", "dropped", "dropped"};
    const action_t *action = options.release ? &release : options.drop ? &drop : nullptr;
    return run(session, words, action, "it is not in quarantine", zan_client_quarantine);
}

int find_in_quarantine(session_t *session, const zan_table_base_st *obj, bool *found)
{
    zan_failed_st request = {};
    zan_failed_reply_st figures = {};
    std::vector<quarantined_t> rows;
    if (obj->key_len)
        name_key(obj, &request);
    if (obj->key_len && read_named(session, request, zan_client_quarantine, &figures, &rows))
        return EXIT_FAILED;
    *found = !rows.empty();
    return EXIT_WELL;
}
