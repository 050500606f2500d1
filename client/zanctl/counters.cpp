/* counters: what the tables' operations came to, in sets that begin anew at a reset or with a bank.
 */
#include "objects.h"

#include "zan_counters.h"

#include <algorithm>

namespace
{

struct counters_t {
    zan_counters_reply_st head;
    std::vector<zan_counters_table_st> tables;
};

/* Of a table as columns: in total, since the reset, and in the banks that are worth one. */
struct column_t {
    std::string title;
    const uint32_t *counters;
};

bool holds_anything(const uint32_t *counters)
{
    return std::any_of(counters, counters + ZAN_WIRE_NUM_COUNTERS, [](uint32_t n) { return n; });
}

std::vector<column_t> columns_of(const zan_counters_table_st &t, uint32_t active_bank)
{
    std::vector<column_t> columns = {{"total", t.total}, {"since reset", t.since_reset}};
    for (uint32_t bank = 0; bank < ZAN_WIRE_NUM_BANKS; bank++)
        if (bank == active_bank || holds_anything(t.bank[bank]))
            columns.push_back({"bank " + std::to_string(bank), t.bank[bank]});
    return columns;
}

/* A counter without a name counts nothing, and is told if it did all the same. */
bool is_told(uint32_t index, const zan_counters_table_st &t, bool zeros)
{
    return t.total[index] || (zeros && zan_counter_name(index));
}

void print_table(FILE *out, const zan_counters_table_st &t, uint32_t active_bank, bool zeros)
{
    const std::vector<column_t> columns = columns_of(t, active_bank);
    fprintf(out, "%-30s", kor_table_name_get(t.table_id));
    for (const column_t &column : columns)
        fprintf(out, " %11s", column.title.c_str());
    fprintf(out, "\n");
    for (uint32_t i = 0; i < ZAN_WIRE_NUM_COUNTERS; i++) {
        if (!is_told(i, t, zeros))
            continue;
        fprintf(out, "  %-28s", counter_name(i).c_str());
        for (const column_t &column : columns)
            fprintf(out, " %11u", column.counters[i]);
        fprintf(out, "  %s\n", zan_counter_words(i) ? zan_counter_words(i) : "");
    }
}

void print(FILE *out, const counters_t &c, bool zeros)
{
    fprintf(out, "bank %u counts\n", c.head.active_bank);
    for (const zan_counters_table_st &t : c.tables)
        print_table(out, t, c.head.active_bank, zeros);
    if (c.tables.empty())
        fprintf(out, "no table has counted anything\n");
}

json_t table_json(const zan_counters_table_st &t, bool zeros)
{
    json_t counters = json_t::object();
    for (uint32_t i = 0; i < ZAN_WIRE_NUM_COUNTERS; i++) {
        if (!is_told(i, t, zeros))
            continue;
        json_t banks = json_t::array();
        for (uint32_t bank = 0; bank < ZAN_WIRE_NUM_BANKS; bank++)
            banks.push_back(t.bank[bank][i]);
        counters[counter_name(i)] = {
            {"total", t.total[i]}, {"since_reset", t.since_reset[i]}, {"banks", banks}};
    }
    return {{"table", kor_table_name_get(t.table_id)}, {"counters", counters}};
}

json_t as_json(const counters_t &c, bool zeros)
{
    json_t tables = json_t::array();
    for (const zan_counters_table_st &t : c.tables)
        tables.push_back(table_json(t, zeros));
    return {{"active_bank", c.head.active_bank}, {"tables", tables}};
}

bool ask(session_t *session, const zan_counters_st &request, counters_t *c)
{
    zan_counters_table_st *tables;
    if (zan_client_counters(session->client, &request, &c->head, &tables))
        return false;
    const std::unique_ptr<zan_counters_table_st, free_object_t> owned(tables);
    c->tables.assign(tables, tables + c->head.num_tables);
    return true;
}

} // namespace

int run_counters(session_t *session, const std::string &table, const counters_options_t &options)
{
    zan_counters_st request = {ZAN_COUNTERS_READ, 0, 0, 0};
    std::string why;
    if (!find_table_or_all(table, &request.table_id, &why))
        return fail_text(why);
    counters_t c;
    if (options.reset) {
        request.action = ZAN_COUNTERS_RESET;
        if (!ask(session, request, &c))
            return fail_session(session);
    }
    if (options.bank) {
        request.action = ZAN_COUNTERS_BANK;
        request.bank = *options.bank;
    }
    if ((options.bank || !options.reset) && !ask(session, request, &c))
        return fail_session(session);
    if (session->json)
        fprintf(session->out, "%s\n", as_json(c, !table.empty()).dump().c_str());
    else
        print(session->out, c, !table.empty());
    return EXIT_WELL;
}
