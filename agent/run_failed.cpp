/* Failed writes and objects out of service: lists, and what an operator does about them. The work
 * itself is done between requests, by the host's retry. */
#include "requests.h"

#include "host_control.h"
#include "host_retry.h"

#include <cstring>
#include <new>

static_assert(ZAN_FAILED_KEY_MAX == ZAN_KEY_SIZE_MAX, "a key fits");
static_assert((int)ZAN_FAILED_WAIT_QUARANTINE == (int)ZAN_HOST_FAILED_QUARANTINE,
              "states have one number here and there");

namespace
{

/* What a request names: one object by its key, a table, or all. */
struct named_t {
    uint32_t table_id;
    const void *key;
};

named_t named(const zan_failed_st &asked)
{
    if (asked.has_key)
        return {asked.key_table_id, asked.key};
    return {asked.table_id == ZAN_WIRE_NO_INDEX ? ZAN_NUM_TABLES : asked.table_id, nullptr};
}

zan_failed_row_st wire_row(const zan_host_failed_st &row)
{
    zan_failed_row_st out = {};
    out.table_id = row.table_id;
    out.operation = (uint16_t)row.operation;
    out.waits_for = (uint8_t)row.state;
    out.stored = row.stored;
    out.rc = row.rc;
    out.attempts = row.attempts;
    out.npu_mask = row.npu_mask;
    out.next_ms = row.next_us / 1000;
    memcpy(out.key, row.key, sizeof out.key);
    return out;
}

zan_quarantine_row_st wire_row(const zan_host_quarantined_st &row)
{
    zan_quarantine_row_st out = {};
    out.table_id = row.table_id;
    out.root_table_id = row.root_table_id;
    out.rc = row.rc;
    out.attempts = row.attempts;
    out.followers = row.followers;
    out.releasing = row.releasing;
    memcpy(out.key, row.key, sizeof out.key);
    memcpy(out.root_key, row.root_key, sizeof out.root_key);
    return out;
}

/* The rows behind the one that is named, of a table or of all. */
template <class Row> auto list(const zan_failed_st &asked, bool (*next)(Row *))
{
    std::vector<decltype(wire_row(Row{}))> rows;
    const bool one_table = asked.table_id != ZAN_WIRE_NO_INDEX;
    Row row = {};
    if (one_table)
        row.table_id = (uint16_t)asked.table_id;
    if (asked.has_key) {
        row.table_id = (uint16_t)asked.key_table_id;
        row.listed = 1;
        memcpy(row.key, asked.key, sizeof row.key);
    }
    while (rows.size() < ZAN_FAILED_ROWS_MAX && next(&row) &&
           (!one_table || row.table_id == asked.table_id))
        rows.push_back(wire_row(row));
    return rows;
}

template <class Row> answer_t answer(uint16_t type, uint32_t done, const std::vector<Row> &rows)
{
    zan_host_retry_counts_st counts;
    zan_host_retry_counts(&counts);
    const zan_failed_reply_st reply = {counts.failed,
                                       counts.quarantined,
                                       counts.attempts,
                                       counts.recovered,
                                       counts.taken_out,
                                       counts.put_back,
                                       done,
                                       (uint32_t)rows.size()};
    std::vector<uint8_t> frame(sizeof(zan_frame_hdr_st) + sizeof reply + rows.size() * sizeof(Row));
    memcpy(frame.data() + sizeof(zan_frame_hdr_st), &reply, sizeof reply);
    if (!rows.empty())
        memcpy(frame.data() + sizeof(zan_frame_hdr_st) + sizeof reply, rows.data(),
               rows.size() * sizeof(Row));
    return {type, std::move(frame)};
}

/* Null, or the field that says something impossible. */
const char *wrong_field(const request_t &request, uint32_t first_action, uint32_t last_action,
                        zan_failed_st *asked)
{
    if (request.payload.size() != sizeof *asked)
        return "length";
    memcpy(asked, request.payload.data(), sizeof *asked);
    if (asked->action != ZAN_FAILED_LIST &&
        (asked->action < first_action || asked->action > last_action))
        return "action";
    if (asked->table_id >= ZAN_NUM_TABLES && asked->table_id != ZAN_WIRE_NO_INDEX)
        return "table_id";
    if (asked->has_key && asked->key_table_id >= ZAN_NUM_TABLES)
        return "key_table_id";
    return nullptr;
}

} // namespace

answer_t run_failed(node_t *node, const request_t &request)
{
    zan_failed_st asked;
    if (const char *field = wrong_field(request, ZAN_FAILED_RETRY, ZAN_FAILED_FORGET, &asked))
        return refuse_request(node, field, "no such request about failed writes");
    const dispatcher_hold_t hold;
    std::vector<zan_failed_row_st> rows;
    uint32_t done = 0;
    const named_t name = named(asked);
    if (asked.action == ZAN_FAILED_RETRY)
        done = zan_host_failed_retry(name.table_id, name.key);
    else if (asked.action == ZAN_FAILED_FORGET)
        done = zan_host_failed_forget(name.table_id, name.key);
    else
        rows = list(asked, zan_host_failed_next);
    return answer(ZAN_FRAME_FAILED_REPLY, done, rows);
}

answer_t run_quarantine(node_t *node, const request_t &request)
{
    zan_failed_st asked;
    if (const char *field = wrong_field(request, ZAN_FAILED_RELEASE, ZAN_FAILED_DROP, &asked))
        return refuse_request(node, field, "no such request about objects in quarantine");
    const dispatcher_hold_t hold;
    std::vector<zan_quarantine_row_st> rows;
    uint32_t done = 0;
    const named_t name = named(asked);
    if (asked.action == ZAN_FAILED_RELEASE)
        done = zan_host_quarantine_release(name.table_id, name.key);
    else if (asked.action == ZAN_FAILED_DROP)
        done = zan_host_quarantine_drop(name.table_id, name.key);
    else
        rows = list(asked, zan_host_quarantined_next);
    return answer(ZAN_FRAME_QUARANTINE_REPLY, done, rows);
}

void set_retries(uint32_t budget)
{
    zan_host_retry_config_st config;
    zan_host_retry_get_config(&config);
    config.budget = budget;
    zan_host_retry_configure(&config);
}

int64_t retry_failed_writes(node_t *node)
{
    uint64_t us;
    try {
        const dispatcher_hold_t hold;
        us = zan_host_retry_run();
    } catch (const std::bad_alloc &) {
        us = 1'000'000; /* there may be memory again then */
    }
    if (us == UINT64_MAX)
        return INT64_MAX;
    /* Retries trace theirs while nobody asks for anything. */
    node->trace_errors += zan_host_trace_new_errors();
    return (int64_t)((us + 999) / 1000);
}
