/* The retry of failed writes.
 *
 * Every failed object has an entry, by its name. Attempts go out in rounds: a round is sent, and is
 * over when the NPUs have passed what was sent; who failed by then has failed again, the others
 * have recovered. Nobody waits for a round: the next call looks again.
 *
 * What is retried is the object as the database has it, on all its NPUs, since an update that was
 * refused may have left its new state on those that took it. What decides when:
 *   - a parent that has failed goes first; its children wait for it and cost no attempt
 *   - a code of ENOSPC says that a hardware database is full: the object stands in that database's
 *     line and is called as entries get free; now and then its first is tried without a call
 *   - all others after their interval
 * Only the last kind spends the budget.
 */
#include "retry.h"
#include "clock.h"
#include "dependency_graph.h"
#include "exec_rings.h"
#include "global_context.h"
#include "host_random.h"
#include "host_trace.h"
#include "internal_queues.h"
#include "retry_books.h"
#include "retry_room.h"
#include "retry_writes.h"
#include "system_facts.h"
#include "write_watch.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>
#include <set>
#include <utility>

namespace
{

using failures_t = std::map<object_name_t, failed_t>;
using entry_t = failed_entry_t;

constexpr uint32_t objects_per_run = 256;
constexpr uint64_t first_look_us = 1000, last_look_us = 64000; /* at a round under way */
constexpr zan_host_retry_config_st usual = {100, 30000, 10, 1};

zan_host_retry_config_st config = usual;
uint64_t random_state = usual.seed;

/* A map's elements stay where they are, so that the other structures lead to them. */
failures_t failures;
using by_time_t = std::set<std::pair<int64_t, entry_t *>>;
by_time_t schedule; /* all that wait for a time, by it */

std::vector<entry_t *> round_sent;
uint64_t round_end[ZAN_MAX_NPUS]; /* positions in the rings */
uint64_t look_us = first_look_us; /* until the round is looked at again */
uint64_t ran_before[ZAN_MAX_NPUS];
uint64_t attempts, recovered;
bool operator_told; /* in this run */

uint32_t errno_of(zan_rcode rc)
{
    return rc & 0xfff;
}

uint32_t hwdb_of(const entry_t *entry)
{
    return zan_table_defs[entry->first.table_id]->hwdb;
}

/* ---- Waiting ---- */

/* Take the entry out of whatever it waits in. */
void unwait(entry_t *entry)
{
    schedule.erase({entry->second.due_us, entry});
    host_room_leave(entry);
}

void wait_until(entry_t *entry, zan_host_failed_state_et state, int64_t due_us)
{
    unwait(entry);
    entry->second.state = state;
    entry->second.due_us = due_us;
    schedule.insert({due_us, entry});
}

int64_t longest_us()
{
    return (int64_t)config.longest_ms * 1000;
}

/* The interval doubles with each attempt that was spent, and varies by a quarter. */
int64_t interval_us(const failed_t &failed)
{
    int64_t us = (int64_t)config.first_ms * 1000;
    for (uint32_t i = 0; i < failed.spent && us < longest_us(); i++)
        us *= 2;
    us = std::max<int64_t>(std::min(us, longest_us()), 4);
    return us - us / 4 + (int64_t)(host_random_next(&random_state) % ((uint64_t)us / 2 + 1));
}

/* Behind a failure: how long, and for what. */
void wait_for_next(entry_t *entry)
{
    failed_t *failed = &entry->second;
    const bool stored = !failed->gone;
    unwait(entry);
    if (stored && errno_of(failed->rc) == ENOSPC && hwdb_of(entry) != ZAN_HWDB_NONE)
        host_room_wait(entry);
    else if (stored && config.budget != 0 && failed->spent >= config.budget)
        wait_until(entry, ZAN_HOST_FAILED_QUARANTINE, host_retry_now_us());
    else
        wait_until(entry, ZAN_HOST_FAILED_TIME, host_retry_now_us() + interval_us(*failed));
}

/* The object is no concern any more: who waited for it has its turn, and what was taken out for it
 * comes back unless it is in quarantine itself. */
void leave(entry_t *entry)
{
    unwait(entry);
    host_quarantine_release_followers(entry->second.followers);
    const std::vector<object_name_t> waiting = std::move(entry->second.waiting);
    failures.erase(entry->first);
    for (const object_name_t &name : waiting) {
        const auto child = failures.find(name);
        if (child != failures.end() && child->second.state == ZAN_HOST_FAILED_PARENT)
            host_retry_call_soon(&*child);
    }
}

/* ---- Failures ---- */

/* A refused create leaves nothing, neither in the database nor in the hardware. */
bool concerns(const write_failure_t &failure, bool stored)
{
    return stored || failure.operation == ZAN_TABLE_DELETE || failures.count(failure.name) != 0;
}

void take_failure(write_failure_t *failure)
{
    const zan_table_base_st *stored = find_stored(failure->name);
    if (!concerns(*failure, stored != nullptr))
        return;
    if (zan_trace_is_on(ZAN_CLASS_ZAN_RETRY_ERROR__)) {
        const host_trace_for_t transaction(failure->trans_id);
        _ringlog_5(ZAN_CLASS_ZAN_RETRY_ERROR__, HOST_TRACE_ID(WRITE_FAILED, 5),
                   failure->name.table_id, failure->operation, failure->npus, failure->rc,
                   failure->trans_id);
    }
    const auto [at, is_new] = failures.try_emplace(failure->name);
    failed_t *failed = &at->second;
    failed->operation = failure->operation;
    failed->rc = failure->rc;
    failed->npus |= failure->npus;
    failed->failed_again = true;
    failed->forgotten &= failure->retry;
    if (stored)
        host_books_note(*failure, failed);
    /* An asynchronous delete takes the object out, whatever becomes of it: it was made anew since.
     */
    const bool made_anew = stored && zan_table_defs[failure->name.table_id]->write_mode;
    if (failure->obj && (!stored || made_anew)) {
        failed->gone = std::move(failure->obj);
        failed->holders |= failure->npus;
    }
    const bool for_room = failed->state == ZAN_HOST_FAILED_ROOM && errno_of(failed->rc) != ENOSPC;
    if (is_new || for_room)
        wait_for_next(&*at);
}

void take_failures()
{
    write_failure_t *failure = host_take_write_failures();
    while (failure) {
        const std::unique_ptr<write_failure_t> own(failure);
        failure = failure->next;
        take_failure(own.get());
    }
}

/* ---- Attempts ---- */

/* A parent that has failed and will be tried; one that waits for its delete is not. */
entry_t *failed_parent(const zan_table_base_st *obj)
{
    for (uint32_t i = 0; i < obj->dpd.num_parents; i++) {
        const auto at = failures.find(name_of(kor_dpd_get_parent_safe(obj, i)));
        if (at != failures.end() && at->second.state != ZAN_HOST_FAILED_DELETE)
            return &*at;
    }
    return nullptr;
}

void sent(entry_t *entry)
{
    unwait(entry);
    entry->second.state = ZAN_HOST_FAILED_UNDER_WAY;
    entry->second.failed_again = false;
    entry->second.npus_before = std::exchange(entry->second.npus, 0);
    entry->second.attempts++;
    attempts++;
    round_sent.push_back(entry);
}

/* A request that was refused before it came to the hardware has failed by its own code. */
void refused(entry_t *entry, zan_rcode rc)
{
    if (rc == EOK)
        return;
    entry->second.failed_again = true;
    entry->second.rc = rc;
}

/* The NPUs that a write of the object is for. */
kor_npu_mask_t npus_of(const zan_table_base_st *obj)
{
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    const zan_global_ctx_st *ctx = zan_get_global_ctx();
    if (def->npu_threads)
        return ctx->per_object_npu_mask ? obj->npu_mask & ctx->npu_mask_all : ctx->npu_mask_all;
    const bool asks = def->table_class != 0 && *zan_obj_npu_mask_req_set(def, obj) &&
                      *zan_obj_npu_mask_req(def, obj) != 0;
    return asks ? *zan_obj_npu_mask_req(def, obj) & ctx->npu_mask_all : ctx->npu_mask_all;
}

/* NPUs that hold an object of the name although none of theirs is stored any more: those that the
 * stored one is not for are cleaned up, and the others have it from the create behind it. */
void settle_holders(entry_t *entry, const zan_table_base_st *obj)
{
    failed_t *failed = &entry->second;
    const kor_npu_mask_t own = npus_of(obj);
    const kor_npu_mask_t strays = (failed->holders | failed->npus) & ~own;
    if (strays != 0)
        refused(entry, host_retry_clean(obj, strays));
    const kor_npu_mask_t kept = failed->holders & own;
    host_books_made_anew(entry, kept);
    failed->gone = nullptr;
    failed->holders = 0;
}

void attempt_stored(entry_t *entry, zan_table_base_st *obj)
{
    failed_t *failed = &entry->second;
    if (obj->dpd.del_flag & ZAN_DEL_FLAG_DELAY_DELETE) {
        wait_until(entry, ZAN_HOST_FAILED_DELETE, host_retry_now_us() + longest_us());
        return;
    }
    if (entry_t *parent = failed_parent(obj)) {
        unwait(entry);
        failed->state = ZAN_HOST_FAILED_PARENT;
        parent->second.waiting.push_back(entry->first);
        return;
    }
    const kor_npu_mask_t failed_npus = failed->npus;
    sent(entry);
    failed->npus = failed_npus;
    settle_holders(entry, obj);
    failed->npus = 0;
    refused(entry, host_retry_request(obj, ZAN_TABLE_UPDATE));
}

void attempt_gone(entry_t *entry)
{
    failed_t *failed = &entry->second;
    if (!failed->gone) {
        leave(entry);
        return;
    }
    const kor_npu_mask_t holders = failed->holders;
    sent(entry);
    failed->holders = 0;
    const zan_rcode rc = host_retry_clean(failed->gone.get(), holders);
    if (rc != EOK)
        failed->holders = holders;
    refused(entry, rc);
}

/* The operator hears of one object in a run, whatever their number. */
void tell_taken_out(const entry_t &entry)
{
    if (std::exchange(operator_told, true))
        return;
    const zan_table_def_t *def = zan_table_defs[entry.first.table_id];
    char key[128], text[256];
    zan_key_print(def, entry.first.key, key, sizeof key);
    snprintf(text, sizeof text,
             "Taken out of service after %u %s: %s %s (0x%08x), and what depends on it; see "
             "zanctl quarantine",
             entry.second.attempts, entry.second.attempts == 1 ? "retry" : "retries", def->name,
             key, entry.second.rc);
    plat_errmsg(plat_msg_rec_zan_warn_err_getfn(), 3, text);
}

void take_out(entry_t *entry)
{
    failed_t *failed = &entry->second;
    const zan_rcode rc = host_quarantine_take_out(entry->first, failed);
    if (find_stored(entry->first)) {
        wait_until(entry, ZAN_HOST_FAILED_QUARANTINE,
                   rc == EOK ? failed->due_us : host_retry_now_us() + interval_us(*failed));
        return;
    }
    if (rc == EOK)
        tell_taken_out(*entry);
    leave(entry);
}

/* Another object stands under the name, or none: it has all its attempts before it. */
void begin_anew(entry_t *entry)
{
    failed_t *failed = &entry->second;
    failed->unstored = false;
    failed->spent = 0;
    failed->unaccounted = failed->not_deleted = 0;
    failed->state = ZAN_HOST_FAILED_TIME;
    host_quarantine_release_followers(std::exchange(failed->followers, {}));
}

void attempt(entry_t *entry)
{
    if (entry->second.unstored)
        begin_anew(entry);
    zan_table_base_st *obj = find_stored(entry->first);
    if (!obj)
        attempt_gone(entry);
    else if (entry->second.state == ZAN_HOST_FAILED_QUARANTINE)
        take_out(entry);
    else
        attempt_stored(entry, obj);
}

uint32_t attempt_due(uint32_t limit)
{
    uint32_t done = 0;
    const int64_t now = host_retry_now_us();
    for (; done < limit && !schedule.empty() && schedule.begin()->first <= now; done++)
        attempt(schedule.begin()->second);
    return done;
}

/* ---- Rounds ---- */

void settle(entry_t *entry)
{
    failed_t *failed = &entry->second;
    if (zan_trace_is_on(ZAN_CLASS_ZAN_RETRY_EVENT__)) {
        const zan_table_base_st *stored = find_stored(entry->first);
        const zan_table_base_st *obj = stored ? stored : failed->gone.get();
        const host_trace_for_t transaction(obj ? obj->base_trans_id : 0);
        _ringlog_4(ZAN_CLASS_ZAN_RETRY_EVENT__, HOST_TRACE_ID(RETRIED, 4), entry->first.table_id,
                   failed->attempts, failed->failed_again ? failed->rc : EOK,
                   obj ? obj->base_trans_id : 0);
    }
    host_books_attempted(entry);
    if (!failed->failed_again) {
        recovered++;
        host_room_found(entry);
    }
    if (!failed->failed_again || failed->forgotten) {
        leave(entry);
        return;
    }
    if (errno_of(failed->rc) != ENOSPC)
        failed->spent++;
    wait_for_next(entry);
}

/* Whether the round that was sent last is over. */
bool round_is_over()
{
    if (round_sent.empty())
        return true;
    if (!host_rings_reached(round_end))
        return false;
    take_failures();
    for (entry_t *entry : round_sent)
        settle(entry);
    round_sent.clear();
    return true;
}

void close_round()
{
    host_rings_publish();
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++)
        round_end[npu] = host_exec.rings[npu].pushed.load(std::memory_order_relaxed);
}

/* An NPU that does not get on: whatever waits for it would stand still with it. */
bool an_npu_stands()
{
    bool stands = false;
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++) {
        const host_ring_t &ring = host_exec.rings[npu];
        const uint64_t ran = ring.ran.load(std::memory_order_relaxed);
        stands |= ran != ring.pushed.load(std::memory_order_relaxed) && ran == ran_before[npu];
        ran_before[npu] = ran;
    }
    return stands;
}

/* ---- What an operator sees and names ---- */

uint64_t until_next()
{
    if (!round_sent.empty())
        return look_us;
    int64_t due = host_room_due_us();
    if (!schedule.empty())
        due = std::min(due, schedule.begin()->first);
    if (due == INT64_MAX)
        return UINT64_MAX;
    const int64_t now = host_retry_now_us();
    return due > now ? (uint64_t)(due - now) : 0;
}

void fill(zan_host_failed_st *row, const object_name_t &name, const failed_t &failed)
{
    *row = {};
    row->table_id = name.table_id;
    row->listed = 1;
    row->stored = find_stored(name) != nullptr;
    row->state = failed.state;
    row->operation = failed.operation;
    row->npu_mask = failed.npus ? failed.npus : failed.npus_before;
    row->rc = failed.rc;
    row->attempts = failed.attempts;
    const int64_t now = host_retry_now_us();
    if (failed.state == ZAN_HOST_FAILED_TIME && failed.due_us > now)
        row->next_us = (uint64_t)(failed.due_us - now);
    memcpy(row->key, name.key, sizeof row->key);
}

std::vector<entry_t *> named(uint32_t table_id, const void *key)
{
    std::vector<entry_t *> entries;
    if (key) {
        const zan_table_def_t *def = zan_table_def_get(table_id);
        const auto at = def ? failures.find(name_of_key(def, key)) : failures.end();
        if (at != failures.end())
            entries.push_back(&*at);
        return entries;
    }
    for (entry_t &entry : failures)
        if (table_id == entry.first.table_id || table_id == ZAN_NUM_TABLES)
            entries.push_back(&entry);
    return entries;
}

} // namespace

int64_t host_retry_now_us(void)
{
    timespec now;
    zan_clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

const zan_host_retry_config_st *host_retry_config(void)
{
    return &config;
}

void host_retry_call_soon(failed_entry_t *entry)
{
    entry->second.blind = false;
    if (entry->second.state != ZAN_HOST_FAILED_UNDER_WAY)
        wait_until(entry, ZAN_HOST_FAILED_TIME, host_retry_now_us());
}

void zan_host_retry_configure(const zan_host_retry_config_st *wanted)
{
    config = *wanted;
    random_state = wanted->seed;
}

void zan_host_retry_get_config(zan_host_retry_config_st *out)
{
    *out = config;
}

uint64_t zan_host_retry_run(void)
{
    zan_dsp_q_process_post_npu();
    take_failures();
    operator_told = false;
    if (kor_get_node_role(nullptr, nullptr, nullptr) != ZAN_NODE_ROLE_ACTIVE)
        return (uint64_t)longest_us(); /* nothing is written, so nothing can recover */
    if (!round_is_over() || an_npu_stands()) {
        look_us = std::min(2 * look_us, last_look_us);
        return failures.empty() && !host_quarantine_has_released() ? UINT64_MAX : look_us;
    }
    look_us = first_look_us;
    host_room_call();
    const uint32_t back = host_quarantine_put_back(objects_per_run);
    attempt_due(objects_per_run - back);
    close_round();
    return back != 0 ? 0 : until_next();
}

void host_retry_unstored(const zan_table_base_st *db_obj)
{
    if (ZAN_LIKELY(failures.empty()))
        return;
    const auto at = failures.find(name_of(db_obj));
    if (at != failures.end())
        at->second.unstored = true;
}

void zan_host_retry_counts(zan_host_retry_counts_st *out)
{
    *out = {};
    out->failed = failures.size();
    out->attempts = attempts;
    out->recovered = recovered;
    host_quarantine_counts(out);
}

bool zan_host_failed_next(zan_host_failed_st *row)
{
    const auto at = row->listed
                        ? failures.upper_bound(name_of_key(zan_table_defs[row->table_id], row->key))
                        : failures.lower_bound({row->table_id, {}, {}});
    if (at == failures.end())
        return false;
    fill(row, at->first, at->second);
    return true;
}

bool zan_host_failed_get(uint32_t table_id, const void *key, zan_host_failed_st *row)
{
    const std::vector<entry_t *> one = named(table_id, key);
    if (one.empty())
        return false;
    fill(row, one[0]->first, one[0]->second);
    return true;
}

uint32_t zan_host_failed_retry(uint32_t table_id, const void *key)
{
    const std::vector<entry_t *> entries = named(table_id, key);
    for (entry_t *entry : entries) {
        entry->second.spent = 0;
        entry->second.forgotten = false;
        host_retry_call_soon(entry);
    }
    return (uint32_t)entries.size();
}

/* What is under way stays until the NPUs have answered: an answer that comes when nobody knows of
 * the attempt would be a failure of its own. A client's write that fails meanwhile is one. */
uint32_t zan_host_failed_forget(uint32_t table_id, const void *key)
{
    const std::vector<entry_t *> entries = named(table_id, key);
    for (entry_t *entry : entries) {
        if (entry->second.state == ZAN_HOST_FAILED_UNDER_WAY)
            entry->second.forgotten = true;
        else
            leave(entry);
    }
    return (uint32_t)entries.size();
}

void host_retry_stop(void)
{
    for (write_failure_t *failure = host_take_write_failures(); failure;) {
        const std::unique_ptr<write_failure_t> own(failure);
        failure = failure->next;
    }
    failures.clear();
    schedule.clear();
    round_sent.clear();
    host_room_stop();
    config = usual;
    random_state = usual.seed;
    look_us = first_look_us;
    attempts = recovered = 0;
    host_out_of_service_stop();
}
