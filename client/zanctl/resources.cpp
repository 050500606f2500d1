/* resources: how full the hardware databases are, and how much they take. */
#include "objects.h"

#include <cstdio>
#include <cstring>

namespace
{

/* What is read, with the client's memory. */
struct resources_t {
    zan_resources_reply_st head;
    std::unique_ptr<zan_resource_st, free_object_t> databases;
    std::unique_ptr<zan_resource_table_st, free_object_t> tables;
};

/* The tables that occupy a database on an NPU: "iproute 90, ip6route 8". */
std::string occupants(const resources_t &r, const zan_resource_st &database)
{
    std::string text;
    for (uint32_t i = 0; i < r.head.num_tables; i++) {
        const zan_resource_table_st &table = r.tables.get()[i];
        if (table.hwdb != database.hwdb || table.used[database.npu] == 0)
            continue;
        text += (text.empty() ? "" : ", ") + std::string(kor_table_name_get(table.table_id)) + " " +
                std::to_string(table.used[database.npu]);
    }
    return text;
}

/* Whether it is known what the NPU holds. */
bool can_tell(const zan_resource_st &r)
{
    return r.held != UINT64_MAX;
}

std::string percent(const zan_resource_st &r)
{
    return r.capacity ? std::to_string(r.used * 100 / r.capacity) + " %" : "";
}

/* Whether the row is of the database and the NPU that were asked for, if any was. */
bool is_asked_for(const zan_resource_st &d, const resources_options_t &options)
{
    return (options.database.empty() || options.database == zan_hwdb_name(d.hwdb)) &&
           (options.npu < 0 || d.npu == (uint32_t)options.npu);
}

/* For people: databases that are used or limited, or one that was asked for, or all. */
bool is_shown(const zan_resource_st &d, const resources_options_t &options)
{
    return is_asked_for(d, options) &&
           (options.all || !options.database.empty() || d.used || d.capacity || d.high_water);
}

void print(FILE *out, const resources_t &r, const resources_options_t &options)
{
    uint32_t shown = 0;
    for (uint32_t i = 0; i < r.head.num_databases; i++) {
        const zan_resource_st &d = r.databases.get()[i];
        if (!is_shown(d, options))
            continue;
        if (!shown++)
            fprintf(out, "%-14s %3s %12s %12s %12s %12s %6s %-7s %s\n", "database", "NPU",
                    "capacity", "used", "highest", "held", "full", "state", "by");
        const std::string by = occupants(r, d);
        fprintf(out, "%-14s %3u %12s %12llu %12llu %12s %6s %s", zan_hwdb_name(d.hwdb), d.npu,
                d.capacity ? std::to_string(d.capacity).c_str() : "no limit",
                (unsigned long long)d.used, (unsigned long long)d.high_water,
                can_tell(d) ? std::to_string(d.held).c_str() : "-", percent(d).c_str(),
                resource_state_name(d.state));
        if (!by.empty())
            fprintf(out, "%*s %s", 7 - (int)strlen(resource_state_name(d.state)), "", by.c_str());
        fprintf(out, "\n");
    }
    if (!shown)
        fprintf(out, "no database is used or limited; --all shows them\n");
}

json_t as_json(const resources_t &r, const resources_options_t &options)
{
    json_t out = json_t::array();
    for (uint32_t i = 0; i < r.head.num_databases; i++) {
        const zan_resource_st &d = r.databases.get()[i];
        if (!is_asked_for(d, options))
            continue;
        json_t tables = json_t::object();
        for (uint32_t t = 0; t < r.head.num_tables; t++) {
            const zan_resource_table_st &table = r.tables.get()[t];
            if (table.hwdb == d.hwdb && table.used[d.npu])
                tables[kor_table_name_get(table.table_id)] = table.used[d.npu];
        }
        out.push_back({{"database", zan_hwdb_name(d.hwdb)},
                       {"npu", d.npu},
                       {"capacity", d.capacity},
                       {"used", d.used},
                       {"high_water", d.high_water},
                       {"held", can_tell(d) ? json_t(d.held) : json_t()},
                       {"state", resource_state_name(d.state)},
                       {"crossings", d.crossings},
                       {"yellow", d.thresholds[0]},
                       {"yellow_clear", d.thresholds[1]},
                       {"red", d.thresholds[2]},
                       {"red_clear", d.thresholds[3]},
                       {"tables", tables}});
    }
    return out;
}

/* Thresholds as "80,75,95,90". */
bool parse_thresholds(const std::string &text, uint8_t *out)
{
    unsigned p[4];
    char rest;
    if (sscanf(text.c_str(), "%u,%u,%u,%u%c", &p[0], &p[1], &p[2], &p[3], &rest) != 4)
        return false;
    for (int i = 0; i < 4; i++) {
        if (p[i] > 100)
            return false;
        out[i] = (uint8_t)p[i];
    }
    return true;
}

} // namespace

int run_resources(session_t *session, const resources_options_t &options)
{
    zan_resources_st request = {};
    request.npu = options.npu < 0 ? ZAN_RESOURCES_ALL_NPUS : (uint32_t)options.npu;
    if (!options.database.empty()) {
        request.hwdb = zan_hwdb_find(options.database.c_str());
        if (request.hwdb == ZAN_HWDB_NONE)
            return fail_text("there is no database " + options.database +
                             ": resources --all lists them");
    } else if (options.capacity || !options.thresholds.empty()) {
        return fail_text("of which database? Say --db NAME; resources --all lists them");
    }
    if (options.capacity) {
        request.set |= ZAN_RESOURCES_SET_CAPACITY;
        request.capacity = *options.capacity;
    }
    if (!options.thresholds.empty()) {
        if (options.npu >= 0)
            return fail_text("--thresholds are those of all NPUs: leave --npu out");
        request.set |= ZAN_RESOURCES_SET_THRESHOLDS;
        if (!parse_thresholds(options.thresholds, request.thresholds))
            return fail_text("--thresholds takes four percentages: yellow, its clear, red, its "
                             "clear, as 80,75,95,90");
    }
    resources_t r;
    zan_resource_st *databases;
    zan_resource_table_st *tables;
    if (zan_client_resources(session->client, &request, &r.head, &databases, &tables))
        return fail_session(session);
    r.databases.reset(databases);
    r.tables.reset(tables);
    if (options.npu >= 0 && (uint32_t)options.npu >= r.head.num_npus)
        return fail_text("the node has no NPU " + std::to_string(options.npu) + ": it has " +
                         std::to_string(r.head.num_npus) + ", counted from 0");
    if (session->json)
        fprintf(session->out, "%s\n", as_json(r, options).dump().c_str());
    else
        print(session->out, r, options);
    return EXIT_WELL;
}
