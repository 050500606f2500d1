/* Simulated NPUs: a platform like any other, made of hooks.
 *
 * Each NPU keeps, by table and key, what its hardware would hold of an object: the bytes from the
 * key to the end of the fixed part, without pointers, and the dynamic part. An NPU is named by the
 * thread that calls; on the dispatcher thread by npu_id of the object in a table that is written
 * NPU by NPU, and by npu_mask_req where one call is for the whole object.
 *
 * The maps of one NPU are under one lock: its own thread writes, tools compare.
 */
#include "global_context.h"
#include "npu_sim_control.h"
#include "npu_sim_counters.h"
#include "npu_sim_hooks.h"
#include "zan_tables_private.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <mutex>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace
{

using image_t = std::string; /* bytes of an object as the hardware holds them */

struct npu_t {
    std::mutex lock;
    std::unordered_map<std::string, image_t> objects[ZAN_NUM_TABLES];
    /* Updates of an asynchronous write that changed the member count: for each the delete of the
     * old members follows, which is none of the object. */
    std::unordered_map<std::string, uint32_t> replaced[ZAN_NUM_TABLES];
    uint64_t capacity[ZAN_NUM_TABLES] = {};
    uint64_t held[ZAN_NUM_HWDBS] = {}; /* objects of all tables of a database */
    uint64_t db_capacity[ZAN_NUM_HWDBS] = {};
    uint64_t bytes = 0;
    npu_sim_counts_t counts = {};
    std::atomic<uint64_t> latency_us = 0;
};

/* Never destroyed: an NPU thread may be inside a hook while the process leaves. */
npu_t (&npus)[ZAN_MAX_NPUS] = *(npu_t(*)[ZAN_MAX_NPUS]) new npu_t[ZAN_MAX_NPUS];

struct failure_t {
    npu_sim_failure_t what;
    uint32_t seen; /* matching calls so far */
};

std::mutex &failures_lock = *new std::mutex;
std::vector<failure_t> &failures = *new std::vector<failure_t>;
std::atomic<bool> any_failure;

/* Failures by chance; under failures_lock. */
struct chance_t {
    uint32_t per_mille;
    zan_rcode rc;
    std::mt19937_64 random;
} &chance = *new chance_t{};

/* ---- The agent's side, bound at the first call: this library is loaded before it ---- */

uint32_t calling_npu(const zan_table_base_st *obj)
{
    using get_t = uint32_t (*)(const zan_table_base_st *);
    static const get_t get = (get_t)dlsym(RTLD_DEFAULT, "kor_core_get_npu_id");
    return (get ? get(obj) : obj->npu_id) % ZAN_MAX_NPUS;
}

kor_npu_mask_t node_npus()
{
    using get_t = zan_global_ctx_st *(*)(void);
    static const get_t get = (get_t)dlsym(RTLD_DEFAULT, "zan_get_global_ctx");
    const zan_global_ctx_st *ctx = get ? get() : nullptr;
    return ctx ? ctx->npu_mask_all : 1;
}

/* The NPUs that one call is for. An event on the dispatcher thread is for all of the object's. */
kor_npu_mask_t called_for(const zan_table_def_t *def, const zan_table_base_st *obj,
                          uint32_t operation)
{
    if (def->npu_threads || (def->table_class == 0 && operation != ZAN_TABLE_EVENT))
        return (kor_npu_mask_t)1 << calling_npu(obj);
    const kor_npu_mask_t mask = def->table_class != 0 && *zan_obj_npu_mask_req_set(def, obj)
                                    ? *zan_obj_npu_mask_req(def, obj)
                                    : 0;
    return mask ? mask & node_npus() : node_npus();
}

/* ---- Images ---- */

std::string key_of(const zan_table_def_t *def, const void *key)
{
    uint8_t bytes[ZAN_KEY_BYTES_MAX];
    zan_key_encode(def, key, bytes);
    return std::string((const char *)bytes, def->key_bytes);
}

std::string key_of(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    return key_of(def, (const void *)zan_obj_key(def, obj));
}

void blank(image_t *image, const zan_table_def_t *def, uint32_t offset, size_t size)
{
    memset(image->data() + (offset - def->key_offset), 0, size);
}

/* What hardware counts is not programmed, and differs all the time. */
void blank_statistics(image_t *image, const zan_table_def_t *def)
{
    for (uint32_t i = 0; def->stats_table && i < def->num_attrs; i++) {
        const zan_field_def_t &field = def->attrs[i];
        if (!field.statistic)
            continue;
        blank(image, def, field.offset, (size_t)field.width * field.count);
        blank(image, def, field.set_offset, 1);
    }
}

image_t image_of(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    image_t image((const char *)zan_obj_key(def, obj), def->obj_size - def->key_offset);
    if (def->obj_ref_cnt_offset)
        blank(&image, def, def->obj_ref_cnt_offset, ZAN_REF_CNT_BYTES);
    blank_statistics(&image, def);
    if (!def->num_elements_offset)
        return image;
    const uint32_t members = zan_obj_num_elements(def, obj);
    const void *dyn = nullptr;
    uint32_t first = UINT32_MAX;
    auto pointer = [&](uint32_t offset) {
        if (offset < first) {
            first = offset;
            dyn = *(void **)zan_obj_at(obj, offset);
        }
        blank(&image, def, offset, sizeof(void *));
    };
    for (uint32_t i = 0; i < def->num_attrs; i++)
        if (def->attrs[i].shape == ZAN_SHAPE_REPEATED)
            pointer(def->attrs[i].offset);
    for (uint32_t i = 0; i < def->num_refs; i++)
        if (def->refs[i].repeated)
            pointer(def->refs[i].offset);
    for (uint32_t i = 0; i < def->num_unions; i++)
        if (def->unions[i].repeated && !def->unions[i].nested_in)
            pointer(def->unions[i].offset);
    if (members && dyn)
        image.append((const char *)dyn, zan_obj_dyn_size(def, members));
    return image;
}

/* ---- Told to fail ---- */

bool is_write(uint32_t operation)
{
    return operation == ZAN_TABLE_CREATE || operation == ZAN_TABLE_UPDATE ||
           operation == ZAN_TABLE_DELETE;
}

bool matches(const npu_sim_failure_t &f, uint32_t table_id, uint32_t npu, uint32_t operation)
{
    if (f.operation == NPU_SIM_WRITE && !is_write(operation))
        return false;
    return (f.table_id == NPU_SIM_ANY || f.table_id == table_id) &&
           (f.npu == NPU_SIM_ANY || f.npu == npu) &&
           (f.operation >= NPU_SIM_WRITE || f.operation == operation);
}

zan_rcode told_to_fail(uint32_t table_id, uint32_t npu, uint32_t operation)
{
    if (!any_failure.load(std::memory_order_relaxed))
        return EOK;
    const std::lock_guard guard(failures_lock);
    zan_rcode rc = EOK;
    for (failure_t &f : failures) {
        if (!matches(f.what, table_id, npu, operation))
            continue;
        f.seen++;
        if (rc == EOK && f.seen >= f.what.nth &&
            (f.what.count == 0 || f.seen - f.what.nth < f.what.count))
            rc = f.what.rc;
    }
    if (rc == EOK && is_write(operation) && chance.per_mille != 0 &&
        chance.random() % 1000 < chance.per_mille)
        rc = chance.rc;
    return rc;
}

/* Of a read that is for all NPUs of the node. */
zan_rcode told_to_fail_on_any(uint32_t table_id, uint32_t operation)
{
    zan_rcode rc = EOK;
    for (kor_npu_mask_t left = node_npus(); rc == EOK && left; left &= left - 1)
        rc = told_to_fail(table_id, (uint32_t)__builtin_ctzll(left), operation);
    return rc;
}

void take_time(const npu_t &npu)
{
    const uint64_t us = npu.latency_us.load(std::memory_order_relaxed);
    if (us == 0)
        return;
    timespec left = {(time_t)(us / 1'000'000), (long)(us % 1'000'000 * 1000)};
    while (nanosleep(&left, &left) != 0) {
    }
}

/* Run `work` on each NPU that the call is for, as far as none fails. */
template <class Work>
zan_rcode on_each(const zan_table_base_st *obj, uint32_t operation,
                  uint64_t npu_sim_counts_t::*count, Work work)
{
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    for (kor_npu_mask_t left = called_for(def, obj, operation); left; left &= left - 1) {
        const uint32_t n = (uint32_t)__builtin_ctzll(left) % ZAN_MAX_NPUS;
        npu_t &npu = npus[n];
        take_time(npu);
        zan_rcode rc = told_to_fail(def->id, n, operation);
        const std::lock_guard guard(npu.lock);
        npu.counts.*count += 1;
        if (rc == EOK)
            rc = work(def, &npu);
        if (rc != EOK) {
            npu.counts.failures++;
            return rc;
        }
    }
    return EOK;
}

/* A repeat of a create is what a retry looks like: the hardware takes it. */
bool asks_for(const zan_table_def_t *def, const zan_table_base_st *obj, uint32_t npu)
{
    return !*zan_obj_npu_mask_req_set(def, obj) || *zan_obj_npu_mask_req(def, obj) == 0 ||
           (*zan_obj_npu_mask_req(def, obj) >> npu & 1);
}

bool is_full(const npu_t *npu, const zan_table_def_t *def)
{
    const uint64_t capacity = npu->capacity[def->id], db_capacity = npu->db_capacity[def->hwdb];
    return (capacity && npu->objects[def->id].size() >= capacity) ||
           (db_capacity && npu->held[def->hwdb] >= db_capacity);
}

void erase(const zan_table_def_t *def, npu_t *npu,
           std::unordered_map<std::string, image_t>::const_iterator found)
{
    npu->bytes -= found->second.size();
    npu->held[def->hwdb]--;
    counters_end(def, (uint32_t)(npu - npus), found->first);
    npu->objects[def->id].erase(found);
}

zan_rcode store(const zan_table_def_t *def, npu_t *npu, const zan_table_base_st *obj)
{
    auto &objects = npu->objects[def->id];
    std::string key = key_of(def, obj);
    const auto found = objects.find(key);
    if (found == objects.end() && is_full(npu, def))
        return NPU_SIM_RC_FULL;
    counters_begin(def, (uint32_t)(npu - npus), key);
    image_t image = image_of(def, obj);
    npu->bytes += image.size();
    if (found != objects.end()) {
        npu->bytes -= found->second.size();
        found->second = std::move(image);
    } else {
        objects.emplace(std::move(key), std::move(image));
        npu->held[def->hwdb]++;
    }
    return EOK;
}

void expect_old_members_to_go(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    for (kor_npu_mask_t left = called_for(def, obj, ZAN_TABLE_UPDATE); left; left &= left - 1) {
        npu_t &npu = npus[__builtin_ctzll(left) % ZAN_MAX_NPUS];
        const std::lock_guard guard(npu.lock);
        npu.replaced[def->id][key_of(def, obj)]++;
    }
}

/* Whether this delete, on an NPU thread, is that of old members. */
bool old_members_go(const zan_table_base_st *obj)
{
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    if (!def->write_mode)
        return false;
    npu_t &npu = npus[calling_npu(obj)];
    const std::lock_guard guard(npu.lock);
    const auto found = npu.replaced[def->id].find(key_of(def, obj));
    if (found == npu.replaced[def->id].end())
        return false;
    if (--found->second == 0)
        npu.replaced[def->id].erase(found);
    return true;
}

void take_away(const zan_table_def_t *def, npu_t *npu, const std::string &key)
{
    const auto found = npu->objects[def->id].find(key);
    if (found != npu->objects[def->id].end())
        erase(def, npu, found);
}

/* Where one call is for the whole object, an update may move it to other NPUs. */
void leave_dropped_npus(const zan_table_def_t *def, const zan_table_base_st *obj,
                        const zan_table_base_st *old_obj)
{
    if (def->npu_threads || def->table_class == 0)
        return;
    for (kor_npu_mask_t left =
             called_for(def, old_obj, ZAN_TABLE_UPDATE) & ~called_for(def, obj, ZAN_TABLE_UPDATE);
         left; left &= left - 1) {
        npu_t &npu = npus[__builtin_ctzll(left) % ZAN_MAX_NPUS];
        const std::lock_guard guard(npu.lock);
        take_away(def, &npu, key_of(def, obj));
    }
}

} // namespace

/* ---- Hooks ---- */

/* A create that fails leaves nothing behind, also where one call is for several NPUs. */
zan_rcode npu_sim_create(const zan_table_base_st *obj)
{
    std::vector<npu_t *> made;
    const zan_table_def_t *obj_def = zan_table_defs[obj->table_id];
    const std::string key = key_of(obj_def, obj);
    const zan_rcode rc = on_each(obj, ZAN_TABLE_CREATE, &npu_sim_counts_t::creates,
                                 [&](const zan_table_def_t *def, npu_t *npu) {
                                     const bool held = npu->objects[def->id].count(key) != 0;
                                     const zan_rcode stored = store(def, npu, obj);
                                     if (stored == EOK && !held && !def->npu_threads)
                                         made.push_back(npu);
                                     return stored;
                                 });
    for (npu_t *npu : made)
        if (rc != EOK) {
            const std::lock_guard guard(npu->lock);
            take_away(obj_def, npu, key);
        }
    return rc;
}

zan_rcode npu_sim_update(const zan_delta_lists_t *delta)
{
    const zan_table_base_st *obj = delta->new_obj;
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    if (delta->resize && def->write_mode)
        expect_old_members_to_go(def, obj);
    leave_dropped_npus(def, obj, delta->old_obj);
    return on_each(obj, ZAN_TABLE_UPDATE, &npu_sim_counts_t::updates,
                   [&](const zan_table_def_t *, npu_t *npu) -> zan_rcode {
                       if (def->object_mask_async && !asks_for(def, obj, (uint32_t)(npu - npus))) {
                           take_away(def, npu, key_of(def, obj));
                           return EOK;
                       }
                       return store(def, npu, obj);
                   });
}

/* Hardware that is programmed by members would take the lists; this one keeps whole objects. */
zan_rcode npu_sim_update_members(const zan_repeated_delta_t *delta)
{
    if (!delta->new_obj)
        return npu_sim_delete(delta->old_obj);
    if (!delta->old_obj)
        return npu_sim_create(delta->new_obj);
    zan_delta_lists_t whole = {};
    whole.new_obj = delta->new_obj;
    whole.old_obj = delta->old_obj;
    return npu_sim_update(&whole);
}

/* The same member is one whose match field is set and equal. */
int32_t npu_sim_compare_members(const void *old_element, const void *new_element)
{
    const auto *a = (const uint8_t *)old_element, *b = (const uint8_t *)new_element;
    const zan_table_base_st *owner;
    memcpy(&owner, b, sizeof owner);
    const zan_table_def_t *def = zan_table_defs[owner->table_id];
    const uint32_t values = def->elements[0].offset;
    if (memcmp(a + values, b + values, def->element_record_bytes - values) == 0)
        return ZAN_ELEMENT_EQUAL;
    for (uint32_t i = 0; i < def->num_elements; i++) {
        const zan_element_def_t *e = &def->elements[i];
        if (strcmp(e->name, def->element_match_field) == 0 && a[e->set_offset] &&
            b[e->set_offset] && memcmp(a + e->offset, b + e->offset, e->width) == 0)
            return ZAN_ELEMENT_MODIFIED;
    }
    return ZAN_ELEMENT_OTHER;
}

/* One call may be for several NPUs: the object is unknown when none of them holds it. */
zan_rcode npu_sim_delete(const zan_table_base_st *obj)
{
    bool found = old_members_go(obj);
    const bool old_members = found;
    const zan_rcode rc = on_each(obj, ZAN_TABLE_DELETE, &npu_sim_counts_t::deletes,
                                 [&](const zan_table_def_t *def, npu_t *npu) -> zan_rcode {
                                     const auto held = npu->objects[def->id].find(key_of(def, obj));
                                     if (old_members || held == npu->objects[def->id].end())
                                         return EOK;
                                     erase(def, npu, held);
                                     found = true;
                                     return EOK;
                                 });
    return rc != EOK ? rc : found ? (zan_rcode)EOK : NPU_SIM_RC_UNKNOWN;
}

zan_rcode npu_sim_event(const zan_table_base_st *obj)
{
    return on_each(obj, ZAN_TABLE_EVENT, &npu_sim_counts_t::events,
                   [](const zan_table_def_t *, npu_t *) -> zan_rcode { return EOK; });
}

zan_rcode npu_sim_eod(const zan_table_base_st *obj)
{
    const zan_rcode rc = told_to_fail(obj->table_id, obj->npu_id, ZAN_TABLE_EOD);
    npu_t &npu = npus[obj->npu_id % ZAN_MAX_NPUS];
    const std::lock_guard guard(npu.lock);
    npu.counts.eods++;
    npu.counts.failures += rc != EOK;
    return rc;
}

/* A read asks whether the NPU answers. Of counters that no walk has taken into the database it
 * gives what they are now, over all NPUs, when the first is asked. */
zan_rcode npu_sim_get(zan_table_base_st *obj)
{
    const zan_rcode rc = told_to_fail(obj->table_id, obj->npu_id, ZAN_TABLE_GET);
    {
        npu_t &npu = npus[obj->npu_id % ZAN_MAX_NPUS];
        const std::lock_guard guard(npu.lock);
        npu.counts.gets++;
        npu.counts.failures += rc != EOK;
    }
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    if (rc == EOK && def->stats_table && obj->npu_id == 0) {
        const std::string key = key_of(def, obj);
        counters_latch(def, key);
        counters_take(def, key, obj, true);
    }
    return rc;
}

/* ---- Counters, on the secondary server thread; a failing read is one of ZAN_TABLE_GET ---- */

zan_rcode npu_sim_latch(zan_table_base_st *obj)
{
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    const zan_rcode rc = told_to_fail_on_any(def->id, ZAN_TABLE_GET);
    if (rc == EOK)
        counters_latch(def, key_of(def, obj));
    return rc;
}

zan_rcode npu_sim_take(zan_table_base_st *obj)
{
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    return counters_take(def, key_of(def, obj), obj, false) ? (zan_rcode)EOK : NPU_SIM_RC_UNKNOWN;
}

zan_rcode npu_sim_adj_latch(zan_adj_entry_st *entry)
{
    const zan_table_def_t *def = zan_table_defs[entry->parent_id];
    const zan_rcode rc = told_to_fail_on_any(def->id, ZAN_TABLE_GET);
    if (rc == EOK)
        counters_latch(def, key_of(def, entry->key));
    return rc;
}

zan_rcode npu_sim_adj_take(zan_adj_entry_st *entry)
{
    const zan_table_def_t *def = zan_table_defs[entry->parent_id];
    return counters_take(def, key_of(def, entry->key), entry) ? (zan_rcode)EOK : NPU_SIM_RC_UNKNOWN;
}

/* ---- Control ---- */

uint64_t npu_sim_count(uint32_t npu, uint32_t table_id)
{
    npu_t &n = npus[npu % ZAN_MAX_NPUS];
    const std::lock_guard guard(n.lock);
    return n.objects[table_id].size();
}

uint64_t npu_sim_bytes(uint32_t npu)
{
    npu_t &n = npus[npu % ZAN_MAX_NPUS];
    const std::lock_guard guard(n.lock);
    return n.bytes;
}

void npu_sim_counts(uint32_t npu, npu_sim_counts_t *out)
{
    npu_t &n = npus[npu % ZAN_MAX_NPUS];
    const std::lock_guard guard(n.lock);
    *out = n.counts;
}

/* The name of the field in which byte `at` of an image lies. */
static const char *field_at(const zan_table_def_t *def, size_t at)
{
    const size_t offset = at + def->key_offset;
    const char *name = "key";
    uint32_t best = def->key_offset;
    auto candidate = [&](uint32_t field_offset, const char *field_name) {
        if (field_offset <= offset && field_offset >= best) {
            best = field_offset;
            name = field_name;
        }
    };
    if (offset >= def->obj_size)
        return "a member";
    for (uint32_t i = 0; i < def->num_attrs; i++)
        candidate(def->attrs[i].offset, def->attrs[i].name);
    for (uint32_t i = 0; i < def->num_refs; i++)
        candidate(def->refs[i].offset, def->refs[i].stem);
    for (uint32_t i = 0; i < def->num_unions; i++)
        candidate(def->unions[i].offset, def->unions[i].attr);
    return name;
}

int npu_sim_compare(uint32_t npu, const zan_table_base_st *obj, char *why, size_t why_size)
{
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    const std::string key = key_of(def, obj);
    const image_t image = image_of(def, obj);
    npu_t &n = npus[npu % ZAN_MAX_NPUS];
    const std::lock_guard guard(n.lock);
    const auto found = n.objects[def->id].find(key);
    if (found == n.objects[def->id].end()) {
        snprintf(why, why_size, "NPU %u does not hold it", npu);
        return 1;
    }
    if (found->second == image)
        return 0;
    if (found->second.size() != image.size()) {
        snprintf(why, why_size, "NPU %u holds another number of members", npu);
        return 2;
    }
    size_t at = 0;
    while (found->second[at] == image[at])
        at++;
    snprintf(why, why_size, "NPU %u holds another %s", npu, field_at(def, at));
    return 2;
}

void npu_sim_fail(const npu_sim_failure_t *failure)
{
    const std::lock_guard guard(failures_lock);
    failures.push_back({*failure, 0});
    any_failure = true;
}

void npu_sim_fail_at_random(uint32_t per_mille, uint64_t seed, zan_rcode rc)
{
    const std::lock_guard guard(failures_lock);
    chance = {per_mille, rc, std::mt19937_64(seed)};
    any_failure = per_mille != 0 || !failures.empty();
}

void npu_sim_fail_no_more(void)
{
    const std::lock_guard guard(failures_lock);
    failures.clear();
    chance = {};
    any_failure = false;
}

void npu_sim_set_capacity(uint32_t npu, uint32_t table_id, uint64_t capacity)
{
    npu_t &n = npus[npu % ZAN_MAX_NPUS];
    const std::lock_guard guard(n.lock);
    n.capacity[table_id] = capacity;
}

void npu_sim_set_db_capacity(uint32_t npu, uint32_t hwdb, uint64_t capacity)
{
    if (hwdb >= ZAN_NUM_HWDBS)
        return;
    npu_t &n = npus[npu % ZAN_MAX_NPUS];
    const std::lock_guard guard(n.lock);
    n.db_capacity[hwdb] = capacity;
}

uint64_t npu_sim_db_count(uint32_t npu, uint32_t hwdb)
{
    npu_t &n = npus[npu % ZAN_MAX_NPUS];
    const std::lock_guard guard(n.lock);
    return hwdb < ZAN_NUM_HWDBS ? n.held[hwdb] : 0;
}

void npu_sim_set_latency(uint32_t npu, uint64_t microseconds)
{
    npus[npu % ZAN_MAX_NPUS].latency_us = microseconds;
}

void npu_sim_reset(void)
{
    npu_sim_fail_no_more();
    counters_reset();
    for (npu_t &npu : npus) {
        const std::lock_guard npu_guard(npu.lock);
        for (auto &objects : npu.objects)
            objects.clear();
        for (auto &replaced : npu.replaced)
            replaced.clear();
        memset(npu.capacity, 0, sizeof npu.capacity);
        memset(npu.held, 0, sizeof npu.held);
        memset(npu.db_capacity, 0, sizeof npu.db_capacity);
        npu.bytes = 0;
        npu.counts = {};
        npu.latency_us = 0;
    }
}
