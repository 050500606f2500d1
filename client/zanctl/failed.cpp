/* failed and quarantine: what has not reached the hardware, what was taken out of service for it,
 * and what is to be done about either. */
#include "objects.h"

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
        fprintf(out, "%s: %s failed on NPU %s with %s; %u %s, next %s\n",
                name_of(row.table_id, row.key).c_str(),
                zan_table_operation_str((uint8_t)row.operation), npus_text(row.npu_mask).c_str(),
                code_text(row.rc).c_str(), row.attempts, row.attempts == 1 ? "retry" : "retries",
                next_text(row).c_str());
    fprintf(out,
            "%llu failed now; %llu retries since the start, %llu recovered, %llu taken out of "
            "service\n",
            (unsigned long long)figures.failed, (unsigned long long)figures.attempts,
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
            fprintf(out, "failed with %s after %u %s; %u taken out with it",
                    code_text(row.rc).c_str(), row.attempts,
                    row.attempts == 1 ? "retry" : "retries", row.followers);
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
        {"npus", row.npu_mask},
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
    request->table_id = request->key_table_id = def->id;
    if (rest.empty())
        return true;
    const object_ptr_t obj = parse_object(words, why);
    if (!obj)
        return false;
    if (obj->key_len == 0) {
        *why = "name the object by its key";
        return false;
    }
    memcpy(request->key, zan_obj_key(def, obj.get()), def->key_size);
    request->has_key = 1;
    return true;
}

int report_done(const session_t *session, const char *what, const zan_failed_reply_st &figures)
{
    if (session->json)
        fprintf(session->out, "%s\n", json_t({{what, figures.done}}).dump().c_str());
    else
        fprintf(session->out, "%s: %u %s\n", what, figures.done,
                figures.done == 1 ? "object" : "objects");
    return figures.done ? EXIT_WELL : EXIT_REFUSED;
}

template <class Row>
int run(session_t *session, const std::string &words, uint32_t action, const char *what,
        int (*ask)(zan_client_t *, const zan_failed_st *, zan_failed_reply_st *, Row **))
{
    zan_failed_st request = {};
    std::string why;
    if (!name_objects(words, &request, &why))
        return fail_text(why);
    request.action = action;
    zan_failed_reply_st figures = {};
    if (action != ZAN_FAILED_LIST) {
        Row *rows = nullptr;
        if (ask(session->client, &request, &figures, &rows))
            return fail_session(session);
        free(rows);
        return report_done(session, what, figures);
    }
    std::vector<Row> rows;
    if (request.has_key)
        return fail_text("zanctl graph shows one object; this lists all, or those of a table");
    if (read_list(session, request, ask, &figures, &rows))
        return fail_session(session);
    if (!session->json) {
        print(session->out, rows, figures);
        return EXIT_WELL;
    }
    json_t out = json_t::array();
    for (const Row &row : rows)
        out.push_back(as_json(row));
    fprintf(session->out, "%s\n", out.dump().c_str());
    return EXIT_WELL;
}

} // namespace

int run_failed(session_t *session, const std::string &words, const failed_options_t &options)
{
    if (options.retry)
        return run(session, words, ZAN_FAILED_RETRY, "tried again", zan_client_failed);
    if (options.forget)
        return run(session, words, ZAN_FAILED_FORGET, "forgotten", zan_client_failed);
    return run(session, words, ZAN_FAILED_LIST, "", zan_client_failed);
}

int run_quarantine(session_t *session, const std::string &words,
                   const quarantine_options_t &options)
{
    if (options.release)
        return run(session, words, ZAN_FAILED_RELEASE, "released", zan_client_quarantine);
    if (options.drop)
        return run(session, words, ZAN_FAILED_DROP, "dropped", zan_client_quarantine);
    return run(session, words, ZAN_FAILED_LIST, "", zan_client_quarantine);
}
