/* The resource layer: occupancy of each hardware database on each NPU.
 *
 * A table's objects take an entry each of the database that its definition names. NPU threads and
 * the dispatcher account at once for different NPUs, and a tool reads meanwhile: all figures are
 * atomic, none depends on another but the state, which one thread moves at a time.
 *
 * An entry that is given back more often than it was taken stays at none: the update of a few
 * tables releases without a delete. One in retry mode does not count as such, or a write that fails
 * for long would empty the books.
 */
#include "resource_layer.h"
#include "host_notifications.h"
#include "host_resources.h"
#include "host_services.h"
#include "trace.h"

#include <algorithm>
#include <atomic>
#include <cstdio>

namespace
{

/* `most` is what was used when an entry was given back, at most; now it may be more. */
struct database_t {
    std::atomic<uint64_t> capacity, used, most;
    std::atomic<uint32_t> state, crossings;
};

/* The handle of an NPU is the address of its record. */
struct npu_resource_t {
    database_t database[ZAN_NUM_HWDBS];
    std::atomic<uint64_t> used_by[ZAN_NUM_TABLES];
};

constexpr std::memory_order relaxed = std::memory_order_relaxed;

npu_resource_t npus[ZAN_MAX_NPUS];
void *handles[ZAN_MAX_NPUS];

/* All four figures of a database in one word, so that a reader never sees half of a change. */
constexpr zan_host_thresholds_st usual = {80, 75, 95, 90};
std::atomic<zan_host_thresholds_st> thresholds[ZAN_NUM_HWDBS];

/* ---- States ---- */

bool reaches(uint64_t used, uint64_t capacity, uint8_t percent)
{
    return used * 100 >= capacity * percent;
}

uint32_t state_of(uint32_t before, uint64_t used, uint64_t capacity,
                  const zan_host_thresholds_st &at)
{
    if (capacity == 0)
        return ZAN_RESOURCE_GREEN;
    if (reaches(used, capacity, before == ZAN_RESOURCE_RED ? at.red_clear : at.red))
        return ZAN_RESOURCE_RED;
    if (reaches(used, capacity, before == ZAN_RESOURCE_GREEN ? at.yellow : at.yellow_clear))
        return ZAN_RESOURCE_YELLOW;
    return ZAN_RESOURCE_GREEN;
}

/* Who moves the state tells of it; who comes too late looks again. */
void follow(npu_resource_t *npu, uint32_t hwdb, kor_send_oor_f send_oor)
{
    database_t *database = &npu->database[hwdb];
    for (;;) {
        uint32_t before = database->state.load();
        const uint32_t now = state_of(before, database->used.load(), database->capacity.load(),
                                      thresholds[hwdb].load());
        if (now == before)
            return;
        if (!database->state.compare_exchange_strong(before, now))
            continue;
        database->crossings++;
        send_oor(npu, hwdb, now);
    }
}

/* ---- Occupancy ---- */

/* The count as it was; one that is 0 stays. */
uint64_t lower(std::atomic<uint64_t> *count)
{
    uint64_t was = count->load(relaxed);
    while (was != 0 && !count->compare_exchange_weak(was, was - 1, relaxed)) {
    }
    return was;
}

void give_back(database_t *database)
{
    const uint64_t used = lower(&database->used);
    uint64_t most = database->most.load(relaxed);
    while (most < used && !database->most.compare_exchange_weak(most, used, relaxed)) {
    }
}

/* The release that an update of some tables comes with, when the update only repeats a write. */
bool is_repeat(uint32_t amount, const zan_table_base_st *obj)
{
    return amount == 0 && obj && obj->table_operation == ZAN_TABLE_UPDATE &&
           zan_obj_base_get_retry_mode(obj) &&
           zan_table_defs[obj->table_id]->oor_update == ZAN_OOR_UPDATE_RELEASE;
}

void account(void *npu_resource, uint32_t hwdb, uint32_t table_id, uint32_t amount,
             const zan_table_base_st *obj, kor_send_oor_f send_oor)
{
    if (is_repeat(amount, obj))
        return;
    auto *npu = (npu_resource_t *)npu_resource;
    database_t *database = &npu->database[hwdb];
    if (amount) {
        npu->used_by[table_id].fetch_add(1, relaxed);
        database->used.fetch_add(1, relaxed);
    } else if (lower(&npu->used_by[table_id])) {
        give_back(database);
    }
    if (database->capacity.load(relaxed) != 0)
        follow(npu, hwdb, send_oor);
}

void account_sub(void *npu_resource, uint32_t hwdb, uint32_t, uint32_t, uint32_t table_id,
                 uint32_t amount, const zan_table_base_st *obj, kor_send_oor_f send_oor)
{
    account(npu_resource, hwdb, table_id, amount, obj, send_oor);
}

void get_hwdb_mask(kor_hwdb_mask_t *out, const zan_hwdb_query_st *query, void *)
{
    out->entry[0].hwdb = zan_table_defs[query->table_id]->hwdb;
}

constexpr kor_arch_resources_cb_t callbacks = {account, account_sub, get_hwdb_mask};

bool is_database(uint32_t hwdb)
{
    return hwdb != ZAN_HWDB_NONE && hwdb < ZAN_NUM_HWDBS;
}

} // namespace

const kor_arch_resources_cb_t *kor_arch_resources_cb_get(void)
{
    return &callbacks;
}

void kor_send_oor(void *npu_resource, uint32_t hwdb, uint32_t state)
{
    const auto *npu = (const npu_resource_t *)npu_resource;
    const database_t *database = &npu->database[hwdb];
    char text[160];
    snprintf(
        text, sizeof text, "Hardware database %s of NPU %d is %s: %llu of %llu entries are used",
        zan_hwdb_name(hwdb), (int)(npu - npus), zan_host_resource_state_name(state),
        (unsigned long long)database->used.load(), (unsigned long long)database->capacity.load());
    plat_errmsg(plat_msg_rec_zan_warn_err_getfn(), state == ZAN_RESOURCE_RED ? 3 : 5, text);
    const zan_host_notif_resource_st resource = {
        (uint32_t)(npu - npus), hwdb, state, 0, database->used.load(), database->capacity.load()};
    host_notify_resource(&resource);
}

void **host_resources_start(void)
{
    for (npu_resource_t &npu : npus) {
        for (database_t &database : npu.database) {
            database.capacity = database.used = database.most = 0;
            database.state = ZAN_RESOURCE_GREEN;
            database.crossings = 0;
        }
        for (std::atomic<uint64_t> &used : npu.used_by)
            used = 0;
        handles[&npu - npus] = &npu;
    }
    for (std::atomic<zan_host_thresholds_st> &at : thresholds)
        at = usual;
    return handles;
}

void host_resources_correct(uint32_t npu, uint32_t table_id, bool taken)
{
    const uint32_t hwdb = zan_table_defs[table_id]->hwdb;
    if (hwdb != ZAN_HWDB_NONE)
        account(&npus[npu], hwdb, table_id, taken, nullptr, kor_send_oor);
}

void zan_host_resource_get(uint32_t npu, uint32_t hwdb, zan_host_resource_st *out)
{
    *out = {};
    if (npu >= ZAN_MAX_NPUS || !is_database(hwdb))
        return;
    const database_t *database = &npus[npu].database[hwdb];
    out->capacity = database->capacity.load();
    out->used = database->used.load();
    out->high_water = std::max(database->most.load(), out->used);
    out->state = database->state.load();
    out->crossings = database->crossings.load();
}

uint64_t zan_host_resource_used_by(uint32_t npu, uint32_t table_id)
{
    return npu < ZAN_MAX_NPUS && table_id < ZAN_NUM_TABLES ? npus[npu].used_by[table_id].load() : 0;
}

bool zan_host_resource_set_capacity(uint32_t npu, uint32_t hwdb, uint64_t capacity)
{
    if (npu > ZAN_MAX_NPUS || !is_database(hwdb) || capacity > UINT64_MAX / 100)
        return false;
    for (uint32_t n = 0; n < ZAN_MAX_NPUS; n++)
        if (n == npu || npu == ZAN_MAX_NPUS) {
            npus[n].database[hwdb].capacity = capacity;
            follow(&npus[n], hwdb, kor_send_oor);
        }
    return true;
}

bool zan_host_resource_set_thresholds(uint32_t hwdb, const zan_host_thresholds_st *at)
{
    const bool rises = at->yellow_clear <= at->yellow && at->yellow < at->red_clear &&
                       at->red_clear <= at->red && at->red <= 100;
    if (!is_database(hwdb) || !rises)
        return false;
    thresholds[hwdb] = *at;
    for (npu_resource_t &npu : npus)
        follow(&npu, hwdb, kor_send_oor);
    return true;
}

void zan_host_resource_get_thresholds(uint32_t hwdb, zan_host_thresholds_st *out)
{
    *out = is_database(hwdb) ? thresholds[hwdb].load() : zan_host_thresholds_st{};
}

const char *zan_host_resource_state_name(uint32_t state)
{
    static const char *const names[] = {"green", "yellow", "red"};
    return state <= ZAN_RESOURCE_RED ? names[state] : "unknown";
}
