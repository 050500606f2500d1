/* create, get, list and apply: objects as text, results object by object. */
#include "zanctl.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

namespace
{

constexpr uint32_t batch_objects = 1000;

/* An operation on an object as someone wrote it. */
struct order_t {
    uint8_t operation;
    object_ptr_t obj;
    size_t line; /* in its file; 0: from the command line */
};

/* How it went: a code of the server, with the field at fault where one is known, or words of the
 * agent. */
struct outcome_t {
    zan_rcode rc;
    std::string field, words, hint;
};

std::string printed(size_t (*print)(const zan_table_def_t *, const zan_table_base_st *, char *,
                                    size_t),
                    const zan_table_base_st *obj)
{
    const zan_table_def_t *def = zan_table_def_get(obj->table_id);
    std::string text(print(def, obj, nullptr, 0) + 1, '\0');
    text.resize(print(def, obj, text.data(), text.size()));
    return text;
}

/* Split off the first word. */
std::string take_word(std::string *text)
{
    const size_t begin = text->find_first_not_of(" \t\r");
    if (begin == std::string::npos) {
        text->clear();
        return "";
    }
    const size_t end = text->find_first_of(" \t\r", begin);
    const std::string word = text->substr(begin, end == std::string::npos ? end : end - begin);
    text->erase(0, end);
    return word;
}

const zan_table_def_t *find_table(const std::string &name, std::string *why)
{
    const zan_table_def_t *def = zan_table_def_find(name.c_str());
    if (!def)
        *why =
            name.empty() ? "which table?" : "there is no table " + name + ": zan_schema lists them";
    return def;
}

/* "TABLE FIELD=VALUE..."; null and a reason. */
object_ptr_t parse_object(std::string text, std::string *why)
{
    const zan_table_def_t *def = find_table(take_word(&text), why);
    if (!def)
        return nullptr;
    char reason[512] = "";
    object_ptr_t obj(zan_obj_parse(def, text.c_str(), reason, sizeof reason));
    if (!obj)
        *why = std::string(def->name) + ": " + reason;
    return obj;
}

void print_object(const session_t *session, const zan_table_base_st *obj)
{
    const std::string text = printed(session->json ? zan_obj_print_json : zan_obj_print, obj);
    if (session->json)
        printf("%s\n", text.c_str());
    else
        printf("%s %s\n", kor_table_name_get(obj->table_id), text.c_str());
}

void report_json(const order_t &order, const outcome_t &outcome)
{
    json_t out;
    out["operation"] = zan_table_operation_str(order.operation);
    out["table"] = kor_table_name_get(order.obj->table_id);
    out["key"] = key_text(order.obj.get());
    if (order.line)
        out["line"] = order.line;
    put_code(&out, outcome.rc);
    if (!outcome.field.empty())
        out["field"] = outcome.field;
    if (!outcome.words.empty())
        out["words"] = outcome.words;
    if (!outcome.hint.empty())
        out["hint"] = outcome.hint;
    printf("%s\n", out.dump().c_str());
}

/* One line for what was refused, and nothing for what went well. */
void report_text(const order_t &order, const outcome_t &outcome)
{
    if (outcome.rc == EOK && outcome.words.empty())
        return;
    const std::string line = order.line ? "line " + std::to_string(order.line) + ": " : "";
    const std::string words = (outcome.field.empty() ? "" : outcome.field + ": ") +
                              (outcome.words.empty() ? code_text(outcome.rc) : outcome.words) +
                              (outcome.hint.empty() ? "" : "; " + outcome.hint);
    fprintf(stderr, "%s%s %s %s refused: %s\n", line.c_str(),
            zan_table_operation_str(order.operation), kor_table_name_get(order.obj->table_id),
            key_text(order.obj.get()).c_str(), words.c_str());
}

bool report(const session_t *session, const order_t &order, const outcome_t &outcome)
{
    if (session->json)
        report_json(order, outcome);
    else
        report_text(order, outcome);
    return outcome.rc == EOK && outcome.words.empty();
}

outcome_t agent_refusal(const zan_error_st *refusal)
{
    return {ZAN_RC_BAD_ARGUMENT, refusal->field, refusal->text, ""};
}

/* ---- Reads ---- */

int read_and_print(session_t *session, const order_t &order, bool *well)
{
    zan_rcode rc;
    zan_table_base_st *found;
    if (zan_client_read(session->client, order.operation, order.obj.get(), &rc, &found)) {
        const zan_error_st *refusal = zan_client_refusal(session->client);
        if (!refusal)
            return fail_session(session);
        *well = report(session, order, agent_refusal(refusal));
        return EXIT_WELL;
    }
    const object_ptr_t owned(found);
    *well = rc == EOK;
    if (rc == EOK)
        print_object(session, found);
    else
        report(session, order, {rc, "", "", ""});
    return EXIT_WELL;
}

/* ---- What a refused object lacks ---- */

/* The parents that an object names by key: "TABLE KEY=VALUE..." by field. Their tokens are
 * FIELD.TABLE.KEY=VALUE. */
std::map<std::string, std::string> named_parents(const zan_table_base_st *obj)
{
    std::map<std::string, std::string> parents;
    std::istringstream tokens(printed(zan_obj_print, obj));
    for (std::string token; tokens >> token;) {
        const std::string name = token.substr(0, token.find('='));
        const size_t key = name.rfind('.');
        const size_t table = key == std::string::npos ? key : name.rfind('.', key - 1);
        if (table == std::string::npos)
            continue;
        std::string &text = parents[name.substr(0, key)];
        if (text.empty())
            text = name.substr(table + 1, key - table - 1);
        text += " " + token.substr(key + 1);
    }
    return parents;
}

/* The first parent that is not there, and what to do about it; nothing when all are. */
void find_missing_parent(session_t *session, const zan_table_base_st *obj, outcome_t *outcome)
{
    for (const auto &[field, text] : named_parents(obj)) {
        std::string why;
        const object_ptr_t lookup = parse_object(text, &why);
        zan_rcode rc = EOK;
        zan_table_base_st *found = nullptr;
        if (!lookup || zan_client_read(session->client, ZAN_TABLE_GET, lookup.get(), &rc, &found))
            continue;
        const object_ptr_t owned(found);
        if (rc != ZAN_RC_NOT_FOUND)
            continue;
        outcome->field = field;
        outcome->hint = "create " + text + " first";
        return;
    }
}

/* The union that is set and does not say which variant it holds, or "". */
std::string union_without_variant(const zan_table_base_st *obj)
{
    const zan_table_def_t *def = zan_table_def_get(obj->table_id);
    for (uint32_t i = 0; i < def->num_unions; i++) {
        const zan_union_def_t *u = &def->unions[i];
        const uint32_t members = u->nested_in  ? 0
                                 : u->repeated ? zan_obj_num_elements(def, obj)
                                               : 1;
        for (uint32_t member = 0; member < members; member++) {
            const zan_ref_value_st *value = zan_obj_union(u, obj, member);
            if (value->is_set && !value->selector)
                return u->repeated ? std::string(u->attr) + "[" + std::to_string(member) + "]"
                                   : u->attr;
        }
    }
    return "";
}

/* A slot has a code but no room for a field: the code says where to look. A code that is missing
 * here is about the object as a whole, or about what lies below the server. */
outcome_t server_answer(session_t *session, const order_t &order, zan_rcode answer)
{
    outcome_t outcome{answer, "", "", ""};
    switch (answer) {
    case ZAN_RC_NOT_FOUND:
        find_missing_parent(session, order.obj.get(), &outcome);
        break;
    case ZAN_RC_EXISTS:
    case ZAN_RC_KEY_MISMATCH:
        outcome.field = "key";
        break;
    case ZAN_RC_INVALID:
        outcome.field = union_without_variant(order.obj.get());
        break;
    case ZAN_RC_BIND_REFUSED:
    case ZAN_RC_PARENT_QUARANTINED: /* one of them; which one only the server knows */
        for (const auto &[field, text] : named_parents(order.obj.get()))
            outcome.field += (outcome.field.empty() ? "" : " or ") + field;
        break;
    }
    return outcome;
}

/* ---- Writes: batches, in which the agent may refuse one object and with it the rest ---- */

int run_range(session_t *session, zan_batch_t *batch, const std::vector<order_t> &orders,
              size_t begin, size_t end, size_t *num_refused)
{
    zan_batch_clear(batch);
    for (size_t i = begin; i < end; i++)
        if (zan_batch_append(batch, orders[i].obj.get(), orders[i].operation))
            return fail_text("an object does not fit into a batch");
    if (zan_client_run(session->client, batch))
        return zan_client_refusal(session->client) ? EXIT_REFUSED : fail_session(session);
    for (size_t i = begin; i < end; i++)
        *num_refused +=
            !report(session, orders[i],
                    server_answer(session, orders[i], zan_batch_rc(batch, (uint32_t)(i - begin))));
    return EXIT_WELL;
}

/* Run them all: an object that the agent refuses is reported, what stands before it is run without
 * it, and the rest follows. */
int run_writes(session_t *session, const std::vector<order_t> &orders, size_t *num_refused)
{
    const batch_ptr_t batch(zan_batch_new(ZAN_BATCH_CONTINUE_ON_ERROR, 0));
    if (!batch)
        return fail_text("no memory");
    size_t begin = 0, end = orders.size();
    while (begin < orders.size()) {
        const int status = run_range(session, batch.get(), orders, begin, end, num_refused);
        if (status == EXIT_FAILED)
            return status;
        if (status == EXIT_WELL) {
            begin = end;
            end = orders.size();
            continue;
        }
        const zan_error_st refusal = *zan_client_refusal(session->client);
        if (refusal.object_index >= end - begin)
            return fail_session(session);
        end = begin + refusal.object_index;
        if (end > begin)
            continue; /* these first: the order stays */
        *num_refused += !report(session, orders[begin], agent_refusal(&refusal));
        begin++;
        end = orders.size();
    }
    return EXIT_WELL;
}

bool find_operation(const std::string &word, uint8_t *operation)
{
    for (const uint8_t op : {ZAN_TABLE_CREATE, ZAN_TABLE_UPDATE, ZAN_TABLE_DELETE, ZAN_TABLE_GET,
                             ZAN_TABLE_REPLAY_START, ZAN_TABLE_REPLAY_END, ZAN_TABLE_EOD})
        if (word == zan_table_operation_str(op)) {
            *operation = op;
            return true;
        }
    return false;
}

/* A line of a file; no object in an empty one or a comment. */
bool parse_line(const std::string &line, order_t *order, std::string *why)
{
    std::string rest = line.substr(0, line.find('#'));
    const std::string word = take_word(&rest);
    if (word.empty())
        return true;
    if (!find_operation(word, &order->operation)) {
        *why = word + " is no operation: create, get, update or delete";
        return false;
    }
    order->obj = parse_object(rest, why);
    return order->obj != nullptr;
}

int apply_stream(session_t *session, std::istream *in, size_t *num_done, size_t *num_refused)
{
    std::vector<order_t> orders;
    std::string line, why;
    size_t number = 0;
    int status = EXIT_WELL;
    auto flush = [&] {
        status = run_writes(session, orders, num_refused);
        orders.clear();
    };
    while (status == EXIT_WELL && std::getline(*in, line)) {
        order_t order = {0, nullptr, ++number};
        if (!parse_line(line, &order, &why))
            return fail_text("line " + std::to_string(number) + ": " + why +
                             " (what stands before it was applied)");
        if (!order.obj)
            continue;
        ++*num_done;
        if (order.operation == ZAN_TABLE_GET) {
            flush();
            bool well = true;
            if (status == EXIT_WELL)
                status = read_and_print(session, order, &well);
            *num_refused += !well;
            continue;
        }
        orders.push_back(std::move(order));
        if (orders.size() == batch_objects)
            flush();
    }
    if (status == EXIT_WELL)
        flush();
    return status;
}

struct listing_t {
    const session_t *session;
    uint64_t left;
};

int list_object(const zan_table_base_st *obj, void *arg)
{
    auto *listing = (listing_t *)arg;
    print_object(listing->session, obj);
    return --listing->left == 0;
}

} // namespace

std::string code_text(zan_rcode rc)
{
    char text[160];
    snprintf(text, sizeof text, "0x%08x %s: %s", rc, zan_rcode_name(rc), rcd_strerror(rc));
    return text;
}

void put_code(json_t *out, zan_rcode rc)
{
    char code[16];
    snprintf(code, sizeof code, "0x%08x", rc);
    (*out)["code"] = code;
    (*out)["name"] = zan_rcode_name(rc);
    (*out)["words"] = rc ? rcd_strerror(rc) : "";
}

std::string key_text(const zan_table_base_st *obj)
{
    char text[512];
    if (!obj->key_len) {
        snprintf(text, sizeof text, "handle=0x%llx", (unsigned long long)obj->obj_handle);
        return text;
    }
    const zan_table_def_t *def = zan_table_def_get(obj->table_id);
    zan_key_print(def, zan_obj_key(def, obj), text, sizeof text);
    return text;
}

int run_create(session_t *session, const std::string &text)
{
    std::string why;
    std::vector<order_t> orders(1);
    orders[0] = {ZAN_TABLE_CREATE, parse_object(text, &why), 0};
    if (!orders[0].obj)
        return fail_text(why);
    size_t num_refused = 0;
    const int status = run_writes(session, orders, &num_refused);
    return status ? status : num_refused ? EXIT_REFUSED : EXIT_WELL;
}

int run_get(session_t *session, const std::string &text)
{
    std::string why;
    const order_t order = {ZAN_TABLE_GET, parse_object(text, &why), 0};
    if (!order.obj)
        return fail_text(why);
    bool well;
    const int status = read_and_print(session, order, &well);
    return status ? status : well ? EXIT_WELL : EXIT_REFUSED;
}

int run_list(session_t *session, const std::string &table, const std::string &from, uint64_t limit)
{
    std::string why;
    const zan_table_def_t *def = find_table(table, &why);
    object_ptr_t first;
    if (def && !from.empty())
        first = parse_object(table + " " + from, &why);
    if (!def || (!from.empty() && !first))
        return fail_text(why);
    listing_t listing = {session, limit ? limit : UINT64_MAX};
    zan_rcode rc;
    if (zan_client_walk(session->client, def, first.get(), list_object, &listing, &rc))
        return fail_session(session);
    if (rc == EOK)
        return EXIT_WELL;
    fprintf(stderr, "zanctl: %s: the listing ended early: %s\n", def->name, code_text(rc).c_str());
    return EXIT_REFUSED;
}

int run_apply(session_t *session, const std::string &file)
{
    std::ifstream stream;
    if (file != "-") {
        stream.open(file);
        if (!stream)
            return fail_text(file + ": " + strerror(errno));
    }
    size_t num_done = 0, num_refused = 0;
    const int status =
        apply_stream(session, file == "-" ? &std::cin : &stream, &num_done, &num_refused);
    if (status != EXIT_WELL)
        return status;
    if (!session->json)
        printf("%zu operations, %zu refused\n", num_done, num_refused);
    return num_refused ? EXIT_REFUSED : EXIT_WELL;
}
