/* replay and eod: a client that begins again tells what is still there, and that it is through. */
#include "objects.h"

#include "zan_counters.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>

namespace
{

using tables_t = std::vector<const zan_table_def_t *>;

/* The tables of these names, each once, or all that are in use: what one has may all lie in
 * quarantine. False and a reason. */
bool find_tables(session_t *session, const std::vector<std::string> &names, tables_t *tables,
                 std::string *why)
{
    for (const std::string &name : names) {
        const zan_table_def_t *def = find_table(name, why);
        if (!def)
            return false;
        if (std::find(tables->begin(), tables->end(), def) == tables->end())
            tables->push_back(def);
    }
    if (!names.empty())
        return true;
    zan_status_st status;
    zan_table_status_st *records = nullptr;
    if (zan_client_status(session->client, &status, &records)) {
        *why = zan_client_error(session->client);
        return false;
    }
    const std::unique_ptr<zan_table_status_st, free_object_t> own(records);
    for (uint32_t i = 0; i < status.num_tables; i++)
        tables->push_back(zan_table_def_get(records[i].table_id));
    return true;
}

/* One operation on each table as a whole, in one batch. The codes; empty when no answer came. */
std::vector<zan_rcode> run_on_tables(session_t *session, const tables_t &tables, uint8_t operation,
                                     uint32_t epoch)
{
    const batch_ptr_t batch(zan_batch_new(ZAN_BATCH_CONTINUE_ON_ERROR, 0));
    std::vector<zan_rcode> codes;
    for (const zan_table_def_t *def : tables) {
        const object_ptr_t marker(zan_obj_ctor(def, 0, 0));
        if (!batch || !marker)
            return codes;
        marker->client_epoch = epoch;
        if (zan_batch_append(batch.get(), marker.get(), operation))
            return codes;
    }
    if (tables.empty() || zan_client_run(session->client, batch.get()))
        return codes;
    for (uint32_t i = 0; i < tables.size(); i++)
        codes.push_back(zan_batch_rc(batch.get(), i));
    return codes;
}

/* What a replay came to, for one table. */
struct outcome_of_replay_t {
    const zan_table_def_t *def;
    uint64_t marked, made, swept;
    uint64_t gone; /* marked, and none of what is told: it went out of service, most likely */
    zan_table_record_st record;
};

outcome_of_replay_t read_outcome(const zan_table_record_st &r)
{
    const uint32_t *since = r.counters[3];
    outcome_of_replay_t o = {};
    o.def = zan_table_def_get(r.table_id);
    o.record = r;
    o.marked = since[ZAN_CTR_REPLAY_MARKED];
    o.swept = since[ZAN_CTR_REPLAY_SWEPT];
    const uint64_t told = r.replay_kept + r.replay_changed + r.replay_deleted + o.swept;
    o.gone = o.marked - std::min(o.marked, told);
    const uint64_t creates = since[ZAN_CTR_CREATE];
    o.made = creates - std::min<uint64_t>(creates, since[ZAN_CTR_CREATE_REPLACE_EQUAL] +
                                                       since[ZAN_CTR_CREATE_STRICT_EQUAL] +
                                                       since[ZAN_CTR_CREATE_STRICT_DIFFERS] +
                                                       since[ZAN_CTR_CREATE_DUPLICATE] +
                                                       since[ZAN_CTR_CREATE_CONVERTED]);
    return o;
}

void print(const session_t *session, const outcome_of_replay_t &o)
{
    const zan_table_record_st &r = o.record;
    if (session->json) {
        printf("%s\n", json_t({{"table", o.def->name},
                               {"marked", o.marked},
                               {"kept", r.replay_kept},
                               {"changed", r.replay_changed},
                               {"deleted_by_client", r.replay_deleted},
                               {"asked_for_new", o.made},
                               {"swept", o.swept},
                               {"still_there", r.replay_left},
                               {"gone_meanwhile", o.gone},
                               {"dropped_from_quarantine", r.replay_dropped}})
                           .dump()
                           .c_str());
        return;
    }
    printf("%-20s %llu kept, %llu changed, %llu asked for anew, %llu swept", o.def->name,
           (unsigned long long)r.replay_kept, (unsigned long long)r.replay_changed,
           (unsigned long long)o.made, (unsigned long long)o.swept);
    const struct {
        uint64_t count;
        const char *words;
    } rest[] = {{r.replay_deleted, "deleted by the client"},
                {o.gone, "gone otherwise meanwhile: see zanctl quarantine"},
                {r.replay_dropped, "dropped from quarantine"},
                {r.replay_left, "of the swept still there: see zanctl graph and failed"}};
    for (const auto &one : rest)
        if (one.count)
            printf(", %llu %s", (unsigned long long)one.count, one.words);
    putchar('\n');
}

int read_record(session_t *session, const zan_table_def_t *def, zan_table_record_st *record)
{
    return zan_client_table(session->client, def->id, record) ? fail_session(session) : EXIT_WELL;
}

void print_marked(const session_t *session, const zan_table_def_t *def,
                  const zan_table_record_st &record)
{
    const uint32_t marked = record.counters[3][ZAN_CTR_REPLAY_MARKED];
    if (session->json)
        printf("%s\n", json_t({{"table", def->name}, {"marked", marked}}).dump().c_str());
    else
        printf("%-20s %u marked\n", def->name, marked);
}

/* Tell of each table by its code: what its record says now, or that it was refused. */
template <typename print_t>
int report(session_t *session, const tables_t &tables, const std::vector<zan_rcode> &codes,
           print_t print_done)
{
    if (codes.empty())
        return fail_session(session);
    int status = EXIT_WELL;
    for (size_t i = 0; i < codes.size(); i++) {
        zan_table_record_st record;
        if (codes[i] != EOK) {
            fprintf(stderr, "zanctl: %s refused: %s\n", tables[i]->name,
                    code_text(codes[i]).c_str());
            status = EXIT_REFUSED;
        } else if (read_record(session, tables[i], &record)) {
            return EXIT_FAILED;
        } else {
            print_done(session, tables[i], record);
        }
    }
    return status;
}

int start_replay(session_t *session, const tables_t &tables, uint32_t epoch)
{
    return report(session, tables, run_on_tables(session, tables, ZAN_TABLE_REPLAY_START, epoch),
                  print_marked);
}

/* Of the tables whose replay is under way, in any order: what others still lead to waits for them.
 */
int end_replay(session_t *session, tables_t tables, bool all)
{
    for (auto at = tables.begin(); at != tables.end();) {
        zan_table_record_st record;
        if (read_record(session, *at, &record))
            return EXIT_FAILED;
        if (!record.replaying && !all)
            return fail_text(std::string((*at)->name) + ": no replay is under way: replay start " +
                             (*at)->name);
        at = record.replaying ? at + 1 : tables.erase(at);
    }
    if (tables.empty())
        return fail_text("no replay is under way: replay start TABLE...");
    return report(session, tables, run_on_tables(session, tables, ZAN_TABLE_REPLAY_END, 0),
                  [](const session_t *of, const zan_table_def_t *,
                     const zan_table_record_st &record) { print(of, read_outcome(record)); });
}

} // namespace

int run_replay(session_t *session, const std::string &what, const std::vector<std::string> &names,
               std::optional<uint32_t> epoch)
{
    tables_t tables;
    std::string why;
    if (!find_tables(session, names, &tables, &why))
        return fail_text(why);
    if (what == "start" && tables.empty())
        return fail_text("no table is in use");
    if (what == "start")
        return start_replay(session, tables, epoch ? *epoch : ZAN_EPOCH_ANY);
    if (epoch)
        return fail_text("--epoch goes with replay start: the end sweeps what that has marked");
    return end_replay(session, tables, names.empty());
}

int run_eod(session_t *session, const std::vector<std::string> &names)
{
    tables_t tables;
    std::string why;
    for (uint32_t id = 0; names.empty() && id < ZAN_NUM_TABLES; id++)
        if (zan_table_defs[id]->eod_entry)
            tables.push_back(zan_table_defs[id]);
    if (!names.empty() && !find_tables(session, names, &tables, &why))
        return fail_text(why);
    const std::vector<zan_rcode> codes = run_on_tables(session, tables, ZAN_TABLE_EOD, 0);
    if (codes.empty())
        return fail_session(session);
    int status = EXIT_WELL;
    for (uint32_t i = 0; i < tables.size(); i++) {
        if (session->json) {
            json_t out = {{"table", tables[i]->name}};
            put_code(&out, codes[i]);
            printf("%s\n", out.dump().c_str());
        } else {
            printf("%-20s %s\n", tables[i]->name,
                   codes[i] ? code_text(codes[i]).c_str() : "told to all NPUs");
        }
        if (codes[i])
            status = EXIT_REFUSED;
    }
    return status;
}
