/* create, update, delete and apply: operations in batches, and what became of each. */
#include "writes.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

namespace
{

/* What became of a run of operations. */
struct tally_t {
    size_t done = 0, failed = 0, forgiven = 0, cut = 0;
    size_t all() const
    {
        return done + failed + forgiven + cut;
    }
};

void count(tally_t *tally, result_t result)
{
    switch (result) {
    case result_t::DONE:
        tally->done++;
        break;
    case result_t::FAILED:
        tally->failed++;
        break;
    case result_t::FORGIVEN:
        tally->forgiven++;
        break;
    case result_t::CUT:
        tally->cut++;
        break;
    }
}

void settle(const session_t *session, const order_t &order, const outcome_t &outcome,
            tally_t *tally)
{
    report(session, order, outcome);
    count(tally, outcome.result);
}

/* ---- What a refused object lacks ---- */

/* The parents that an object names by key: "TABLE KEY=VALUE..." by field. Their tokens are
 * FIELD.TABLE.KEY=VALUE. */
std::map<std::string, std::string> named_parents(const zan_table_base_st *obj)
{
    std::map<std::string, std::string> parents;
    std::istringstream tokens(object_text(obj));
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

result_t result_of(const zan_table_response_st *slot)
{
    if (slot->err_code == EOK)
        return result_t::DONE;
    if (slot->batch_cut)
        return result_t::CUT;
    return slot->batch_continue ? result_t::FORGIVEN : result_t::FAILED;
}

bool is_stored(session_t *session, const order_t &order)
{
    zan_rcode rc = EOK;
    zan_table_base_st *found = nullptr;
    if (zan_client_read(session->client, ZAN_TABLE_GET, order.obj.get(), &rc, &found))
        return false;
    const object_ptr_t owned(found);
    return rc != ZAN_RC_NOT_FOUND;
}

/* An asynchronous batch has one slot, which says nothing of its objects: ask for each. */
outcome_t asked_afterwards(session_t *session, const order_t &order)
{
    zan_rcode rc = EOK;
    zan_table_base_st *found = nullptr;
    if (zan_client_read(session->client, ZAN_TABLE_GET, order.obj.get(), &rc, &found))
        return {result_t::FAILED, ZAN_RC_NO_RESULT_YET, "", zan_client_error(session->client), ""};
    const object_ptr_t owned(found);
    if (order.operation == ZAN_TABLE_DELETE) {
        if (rc == ZAN_RC_NOT_FOUND)
            return {result_t::DONE, EOK, "", "", ""};
        if (rc == ZAN_RC_DELAY_DELETE)
            return {result_t::FORGIVEN, rc, "", "", ""};
        return {result_t::FAILED, rc, "", "it is still stored", ""};
    }
    if (rc != EOK)
        return {result_t::FAILED, rc, "", "", "nothing is stored under its key"};
    if (zan_obj_attrs_differ(zan_table_def_get(found->table_id), order.obj.get(), found, nullptr))
        return {result_t::FAILED, EOK, "", "what is stored is not what was sent", ""};
    return {result_t::DONE, EOK, "", "", ""};
}

/* ---- Batches, in which the agent may refuse one object and with it the rest ---- */

int run_range(session_t *session, zan_batch_t *batch, const apply_options_t &options,
              const std::vector<order_t> &orders, size_t begin, size_t end, tally_t *tally)
{
    zan_batch_clear(batch);
    for (size_t i = begin; i < end; i++)
        if (zan_batch_append(batch, orders[i].obj.get(), orders[i].operation))
            return fail_text("an object does not fit into a batch");
    if (zan_client_run(session->client, batch))
        return zan_client_refusal(session->client) ? EXIT_REFUSED : fail_session(session);
    for (size_t i = begin; i < end; i++) {
        const zan_table_response_st *slot = zan_batch_slot(batch, (uint32_t)(i - begin));
        settle(session, orders[i],
               options.async ? asked_afterwards(session, orders[i])
                             : server_answer(session, orders[i], slot),
               tally);
    }
    return EXIT_WELL;
}

/* Run them all: an object that the agent refuses is reported, what stands before it is run without
 * it, and the rest follows. */
int run_batch(session_t *session, const apply_options_t &options,
              const std::vector<order_t> &orders, tally_t *tally)
{
    const uint32_t flags = (options.async ? ZAN_BATCH_ASYNC : 0) |
                           (options.stop_on_error ? 0 : ZAN_BATCH_CONTINUE_ON_ERROR);
    const batch_ptr_t batch(zan_batch_new(flags, 0));
    if (!batch)
        return fail_text("no memory");
    size_t begin = 0, end = orders.size();
    while (begin < orders.size()) {
        const int status = run_range(session, batch.get(), options, orders, begin, end, tally);
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
        settle(session, orders[begin], agent_refusal(&refusal), tally);
        begin++;
        end = orders.size();
    }
    return EXIT_WELL;
}

/* ---- A file of operations ---- */

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

/* What an operation goes to: an object with its key where it is to be made, a named one, or a
 * table.
 */
object_ptr_t parse_for(uint8_t operation, const std::string &text, std::string *why)
{
    switch (operation) {
    case ZAN_TABLE_CREATE:
        return parse_keyed(text, why);
    case ZAN_TABLE_UPDATE:
    case ZAN_TABLE_DELETE:
    case ZAN_TABLE_GET:
        return parse_named(text, why);
    default:
        return parse_object(text, why);
    }
}

/* A line of a file; no object in an empty one or a comment. */
bool parse_line(const std::string &line, order_t *order, std::string *why)
{
    std::string rest = line.substr(0, line.find('#'));
    const std::string word = take_word(&rest);
    if (word.empty())
        return true;
    if (!find_operation(word, &order->operation)) {
        *why = word + " is no operation: create, update, delete or get";
        return false;
    }
    order->obj = parse_for(order->operation, rest, why);
    return order->obj != nullptr;
}

struct applying_t {
    session_t *session;
    const apply_options_t &options;
    std::vector<order_t> batch;
    tally_t tally;
    bool stopped; /* by a failure, with stop_on_error */
};

int flush(applying_t *a)
{
    const int status = run_batch(a->session, a->options, a->batch, &a->tally);
    a->batch.clear();
    a->stopped = a->options.stop_on_error && a->tally.failed != 0;
    return status;
}

bool ends_batch(const applying_t *a, const order_t &next)
{
    if (a->batch.empty())
        return false;
    if (a->batch.size() >= a->options.batch_objects)
        return true;
    const order_t &last = a->batch.back();
    return a->options.one_kind &&
           (last.operation != next.operation || last.obj->table_id != next.obj->table_id);
}

/* A read has an answer to print, so that it goes alone. */
int run_read(applying_t *a, const order_t &order)
{
    bool well = true;
    const int status = read_and_print(a->session, order, &well);
    if (status == EXIT_WELL)
        count(&a->tally, well ? result_t::DONE : result_t::FAILED);
    return status;
}

int take_order(applying_t *a, order_t order)
{
    int status = EXIT_WELL;
    const bool is_read = order.operation == ZAN_TABLE_GET;
    if (ends_batch(a, order) || (is_read && !a->batch.empty()))
        status = flush(a);
    if (status != EXIT_WELL || a->stopped)
        return status;
    if (is_read)
        return run_read(a, order);
    if (a->options.replace && order.operation == ZAN_TABLE_CREATE)
        order.obj->write_kind = ZAN_WRITE_KIND_REPLACE;
    a->batch.push_back(std::move(order));
    return EXIT_WELL;
}

/* Of a line that may be anything: a compressed file, too. */
std::string printable(std::string text)
{
    for (char &c : text)
        if (!isprint((unsigned char)c))
            c = '.';
    return text;
}

int apply_stream(applying_t *a, std::istream *in, const std::string &name)
{
    std::string line, why;
    size_t number = 0;
    int status = EXIT_WELL;
    while (status == EXIT_WELL && !a->stopped && std::getline(*in, line)) {
        order_t order = {0, nullptr, ++number};
        if (!parse_line(line, &order, &why)) {
            status = flush(a);
            return status != EXIT_WELL
                       ? status
                       : fail_text("line " + std::to_string(number) + ": " + printable(why) +
                                   " (what stands before it was applied)");
        }
        if (order.obj)
            status = take_order(a, std::move(order));
    }
    const std::string fault = in->bad() ? strerror(errno) : "";
    if (status == EXIT_WELL && !a->stopped)
        status = flush(a);
    if (status == EXIT_WELL && !fault.empty())
        return fail_text(name + ": " + fault + " (what was read of it was applied)");
    return status;
}

void print_tally(const applying_t *a)
{
    const tally_t &t = a->tally;
    printf("%s: %zu done, %zu failed, %zu forgiven, %zu cut%s\n",
           plural(t.all(), "operation", "operations").c_str(), t.done, t.failed, t.forgiven, t.cut,
           a->stopped ? "; stopped at the first failure" : "");
    if (a->options.async)
        printf("sent asynchronously: nobody waited, and each object was asked for afterwards\n");
}

/* Whether the text says itself how many members there are. */
bool states_members(const std::string &text)
{
    return (" " + text).find(" num_elements=") != std::string::npos;
}

void keep_plain_references(const zan_table_def_t *def, zan_table_base_st *obj,
                           const zan_table_base_st *found)
{
    const uint32_t members = zan_obj_num_elements(def, obj);
    for (uint32_t i = 0; i < def->num_refs; i++) {
        const zan_ref_def_t *ref = &def->refs[i];
        if (ref->repeated && members != zan_obj_num_elements(def, found))
            continue;
        for (uint32_t m = 0; m < (ref->repeated ? members : 1); m++) {
            zan_ref_value_st *value = zan_obj_ref(ref, obj, m);
            if (!value->refkey_set && !value->refhdl_set)
                memcpy(value, zan_obj_ref(ref, found, m), ref->stride);
        }
    }
}

} // namespace

/* A slot has a code but no room for a field: the code says where to look. A code that is missing
 * here is about the object as a whole, or about what lies below the server. */
outcome_t server_answer(session_t *session, const order_t &order, const zan_table_response_st *slot)
{
    const auto rc = (zan_rcode)slot->err_code;
    outcome_t outcome{result_of(slot), rc, "", "", ""};
    switch (rc) {
    case ZAN_RC_NOT_FOUND:
        if (order.operation != ZAN_TABLE_CREATE && !is_stored(session, order))
            outcome.field = "key";
        else
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

/* To the server a plain reference that an update leaves out is dropped, and a list of fewer members
 * takes the place of the whole stored one. Who changes one field by hand means nothing of the kind.
 */
object_ptr_t parse_update(session_t *session, const std::string &text, std::string *why)
{
    object_ptr_t obj = parse_named(text, why);
    if (!obj)
        return nullptr;
    const zan_table_def_t *def = zan_table_def_get(obj->table_id);
    zan_rcode rc = EOK;
    zan_table_base_st *found = nullptr;
    if ((def->num_refs == 0 && !def->num_elements_offset) ||
        zan_client_read(session->client, ZAN_TABLE_GET, obj.get(), &rc, &found) || rc != EOK)
        return obj; /* the update itself will say what is wrong */
    const object_ptr_t owned(found);
    const uint32_t members = zan_obj_num_elements(def, found);
    if (zan_obj_num_elements(def, obj.get()) < members && !states_members(text))
        obj = parse_object(text + " num_elements=" + std::to_string(members), why);
    if (obj)
        keep_plain_references(def, obj.get(), found);
    return obj;
}

int run_write(session_t *session, uint8_t operation, const std::string &text)
{
    std::string why;
    std::vector<order_t> orders(1);
    orders[0] = {operation,
                 operation == ZAN_TABLE_UPDATE ? parse_update(session, text, &why)
                                               : parse_for(operation, text, &why),
                 0};
    if (!orders[0].obj)
        return fail_text(why);
    tally_t tally;
    const int status = run_batch(session, {}, orders, &tally);
    return status ? status : tally.failed ? EXIT_REFUSED : EXIT_WELL;
}

int run_apply(session_t *session, const std::string &file, const apply_options_t &options)
{
    std::ifstream stream;
    if (file != "-") {
        stream.open(file);
        if (!stream)
            return fail_text(file + ": " + strerror(errno));
    }
    applying_t a = {session, options, {}, {}, false};
    const int status = file == "-" ? apply_stream(&a, &std::cin, "standard input")
                                   : apply_stream(&a, &stream, file);
    if (status != EXIT_WELL)
        return status;
    if (!session->json)
        print_tally(&a);
    return a.tally.failed || a.tally.cut ? EXIT_REFUSED : EXIT_WELL;
}
