/* Objects as text: get and list, and the report of an operation. */
#include "objects.h"

#include "layer/nearest_name.h"
#include "zan_counters.h"

#include <cstdio>
#include <cstring>
#include <ctime>

namespace
{

std::string printed(size_t (*print)(const zan_table_def_t *, const zan_table_base_st *, char *,
                                    size_t),
                    const zan_table_base_st *obj)
{
    const zan_table_def_t *def = zan_table_def_get(obj->table_id);
    std::string text(print(def, obj, nullptr, 0) + 1, '\0');
    text.resize(print(def, obj, text.data(), text.size()));
    return text;
}

void print_object(const session_t *session, const zan_table_base_st *obj)
{
    if (session->json) {
        printf("%s\n", object_json(obj).c_str());
        return;
    }
    const bool pending = obj->dpd.del_flag & ZAN_DEL_FLAG_DELAY_DELETE;
    printf("%s %s%s\n", kor_table_name_get(obj->table_id), object_text(obj).c_str(),
           pending ? "  # delete-pending" : "");
}

const char *result_name(result_t result)
{
    switch (result) {
    case result_t::DONE:
        return "done";
    case result_t::FAILED:
        return "failed";
    case result_t::FORGIVEN:
        return "forgiven";
    default:
        return "cut";
    }
}

/* One line for what was refused, and nothing for what went well. */
void report_text(const order_t &order, const outcome_t &outcome)
{
    if (outcome.result == result_t::DONE)
        return;
    const std::string line = order.line ? "line " + std::to_string(order.line) + ": " : "";
    const std::string words = (outcome.field.empty() ? "" : outcome.field + ": ") +
                              (outcome.words.empty() ? code_text(outcome.rc) : outcome.words) +
                              (outcome.hint.empty() ? "" : "; " + outcome.hint);
    const char *verdict = outcome.result == result_t::CUT        ? "not tried"
                          : outcome.result == result_t::FORGIVEN ? "held back"
                                                                 : "refused";
    fprintf(stderr, "%s%s %s %s %s: %s\n", line.c_str(), zan_table_operation_str(order.operation),
            kor_table_name_get(order.obj->table_id), key_text(order.obj.get()).c_str(), verdict,
            words.c_str());
}

/* A code without a name is an errno in its low bits by custom, of the component that it says. */
std::string code_words(zan_rcode rc)
{
    constexpr uint32_t server_component = 0xf90;
    if (*zan_rcode_name(rc))
        return rcd_strerror(rc);
    return ((rc >> 16 & 0xfff) == server_component ? "of the server: " : "of the platform: ") +
           std::string(strerror((int)(rc & 0xfff)));
}

/* "l3intf: name the object by its key: intf=..." */
std::string ask_for_key(const zan_table_def_t *def)
{
    std::string text = std::string(def->name) + ": name the object by its key:";
    for (unsigned i = 0; i < def->num_keys; i++)
        text += std::string(" ") + def->keys[i].name + "=...";
    return text;
}

object_ptr_t named(object_ptr_t obj, bool is_named, std::string *why)
{
    if (!obj || is_named)
        return obj;
    *why = ask_for_key(zan_table_def_get(obj->table_id));
    return nullptr;
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

std::string object_text(const zan_table_base_st *obj)
{
    return printed(zan_obj_print, obj);
}

/* The pending delete is a fact of the object, though none of its fields. */
std::string object_json(const zan_table_base_st *obj)
{
    std::string text = printed(zan_obj_print_json, obj);
    if (obj->dpd.del_flag & ZAN_DEL_FLAG_DELAY_DELETE)
        text.insert(text.rfind('}'), ",\"delete_pending\":true");
    return text;
}

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

/* At most a third of the letters may be wrong. A name that stands in the word is not enough: of
 * tables and classes many begin with another's name. */
std::string suggestion(const std::string &word, const std::vector<std::string> &names)
{
    std::string best;
    size_t distance = word.size() / 3 + 1;
    for (const std::string &name : names) {
        if (word.size() > NEAREST_NAME_MAX || name.size() > NEAREST_NAME_MAX)
            continue;
        const size_t wrong = edit_distance(word, name);
        if (wrong >= distance)
            continue;
        best = name;
        distance = wrong;
    }
    return best.empty() ? ": " : "; is it " + best + "? ";
}

const zan_table_def_t *find_table(const std::string &name, std::string *why)
{
    const zan_table_def_t *def = zan_table_def_find(name.c_str());
    if (def)
        return def;
    std::vector<std::string> names;
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++)
        names.emplace_back(kor_table_name_get(id));
    *why = name.empty()
               ? "which table?"
               : "there is no table " + name + suggestion(name, names) + "zan_schema lists them";
    return nullptr;
}

bool find_table_or_all(const std::string &name, uint32_t *table_id, std::string *why)
{
    const zan_table_def_t *def = name.empty() ? nullptr : find_table(name, why);
    *table_id = def ? def->id : ZAN_WIRE_NO_INDEX;
    return def || name.empty();
}

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

object_ptr_t parse_keyed(const std::string &text, std::string *why)
{
    object_ptr_t obj = parse_object(text, why);
    const bool is_named = obj && obj->key_len;
    return named(std::move(obj), is_named, why);
}

object_ptr_t parse_named(const std::string &text, std::string *why)
{
    object_ptr_t obj = parse_object(text, why);
    const bool is_named = obj && (obj->key_len || obj->obj_handle);
    return named(std::move(obj), is_named, why);
}

json_t outcome_json(const order_t &order, const outcome_t &outcome)
{
    json_t out;
    out["operation"] = zan_table_operation_str(order.operation);
    out["table"] = kor_table_name_get(order.obj->table_id);
    out["key"] = key_text(order.obj.get());
    if (order.line)
        out["line"] = order.line;
    out["result"] = result_name(outcome.result);
    put_code(&out, outcome.rc);
    if (!outcome.field.empty())
        out["field"] = outcome.field;
    if (!outcome.words.empty())
        out["words"] = outcome.words;
    if (!outcome.hint.empty())
        out["hint"] = outcome.hint;
    return out;
}

bool report(const session_t *session, const order_t &order, const outcome_t &outcome)
{
    if (session->json)
        printf("%s\n", outcome_json(order, outcome).dump().c_str());
    else
        report_text(order, outcome);
    return outcome.result == result_t::DONE;
}

outcome_t agent_refusal(const zan_error_st *refusal)
{
    return {result_t::FAILED, ZAN_RC_BAD_ARGUMENT, refusal->field, refusal->text, ""};
}

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
        report(session, order, {result_t::FAILED, rc, "", "", ""});
    return EXIT_WELL;
}

std::string code_number(zan_rcode rc)
{
    char text[16];
    snprintf(text, sizeof text, "0x%08x", rc);
    return text;
}

std::string code_text(zan_rcode rc)
{
    const std::string name = zan_rcode_name(rc);
    return code_number(rc) + " " + (name.empty() ? "" : name + ": ") + code_words(rc);
}

std::string plural(uint64_t count, const char *one, const char *many)
{
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string npus_text(uint64_t mask)
{
    std::string text;
    for (uint32_t npu = 0; npu < ZAN_MAX_NPUS; npu++)
        if (mask >> npu & 1)
            text += (text.empty() ? "" : ",") + std::to_string(npu);
    return text.empty() ? "-" : text;
}

json_t npus_json(uint64_t mask)
{
    json_t out = json_t::array();
    for (uint32_t npu = 0; npu < ZAN_MAX_NPUS; npu++)
        if (mask >> npu & 1)
            out.push_back(npu);
    return out;
}

std::string counter_name(uint32_t index)
{
    return zan_counter_name(index) ? zan_counter_name(index) : "counter_" + std::to_string(index);
}

std::string time_text(uint64_t ns, const char *form)
{
    const auto seconds = (time_t)(ns / 1'000'000'000);
    tm local = {};
    localtime_r(&seconds, &local);
    char text[96];
    strftime(text, sizeof text, form, &local);
    return text;
}

const char *resource_state_name(uint32_t state)
{
    static const char *const names[] = {"green", "yellow", "red"};
    return state < std::size(names) ? names[state] : "unknown";
}

void put_code(json_t *out, zan_rcode rc)
{
    (*out)["code"] = code_number(rc);
    (*out)["name"] = zan_rcode_name(rc);
    (*out)["words"] = rc ? code_words(rc) : "";
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

int run_get(session_t *session, const std::string &text)
{
    std::string why;
    const order_t order = {ZAN_TABLE_GET, parse_named(text, &why), 0};
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
        first = parse_keyed(table + " " + from, &why);
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
