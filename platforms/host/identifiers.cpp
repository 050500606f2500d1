/* Identifier allocators: one per table and NPU, and one per table for objects that hold a single
 * identifier.
 *
 * An allocator maps the byte form of a key to a number: an open-addressing hash table of entries
 * {number, state, key}, whose size is the table's own, so that no entry is larger than its key
 * asks. Freed numbers are given out again, the last one first. The last NPU thread releases the
 * identifiers of an asynchronous delete, so each allocator has a spin lock; it is held for a probe,
 * never across a call.
 *
 * A create that ends before its hardware step keeps what it has reserved: the object that a client
 * sends again has the same number. When an allocator runs dry, the numbers of keys that are not
 * stored are taken back.
 *
 * That release comes later than the delete, and a create of the same key may come between: it holds
 * the number too. So an entry knows whether an object holds it, and how many deletes with the NPUs
 * have still to let it go; it is free when both are gone.
 */
#include "identifiers.h"
#include "host_identifier_hooks.h"
#include "host_services.h"
#include "zan_tables_private.h"

#include <cstdlib>
#include <cstring>

#include <sys/mman.h>

namespace
{

constexpr uint32_t default_capacity = 1u << 22;
constexpr uint32_t allocators_per_table = ZAN_MAX_NPUS + 1; /* index 0: the object as a whole */

/* The state of an entry: an object holds it, and the number of deletes under way. */
constexpr uint32_t entry_held = 1u << 31, entry_leaving = 1;
constexpr uint32_t number_word = 0, state_word = 1, key_word = 2;

struct allocator_t {
    uint32_t lock;
    uint32_t used;      /* entries */
    uint32_t slots;     /* a power of two, or 0 */
    uint32_t next;      /* the first number never given out */
    uint32_t num_free;  /* numbers given back */
    uint32_t fruitless; /* refusals to come before orphans are looked for again */
    uint64_t refused, reclaimed;
    uint32_t free_room;
    uint32_t *free_numbers;
    uint8_t *entries; /* slots * stride; a number of ZAN_IDENTIFIER_NONE marks an empty slot */
};

allocator_t allocators[ZAN_NUM_TABLES][allocators_per_table];
uint32_t capacities[ZAN_NUM_TABLES]; /* 0: default_capacity */

class spin_guard
{
public:
    explicit spin_guard(uint32_t *word) : word_(word)
    {
        while (__atomic_exchange_n(word_, 1, __ATOMIC_ACQUIRE))
            __builtin_ia32_pause();
    }
    ~spin_guard()
    {
        __atomic_store_n(word_, 0, __ATOMIC_RELEASE);
    }
    spin_guard(const spin_guard &) = delete;
    spin_guard &operator=(const spin_guard &) = delete;

private:
    uint32_t *word_;
};

struct holder_key_t {
    uint8_t bytes[ZAN_KEY_BYTES_MAX];
    uint32_t size;
    uint64_t hash;
};

uint64_t mix(uint64_t h, uint64_t word)
{
    const auto product = (unsigned __int128)(h ^ word) * 0x9e3779b97f4a7c15ull;
    return (uint64_t)product ^ (uint64_t)(product >> 64);
}

uint64_t hash_of(const uint8_t *bytes, uint32_t size)
{
    uint64_t h = 0x2545f4914f6cdd1dull;
    uint32_t at = 0;
    for (; at + 8 <= size; at += 8) {
        uint64_t word;
        memcpy(&word, bytes + at, 8);
        h = mix(h, word);
    }
    uint64_t rest = 0;
    memcpy(&rest, bytes + at, size - at);
    return mix(h, rest);
}

holder_key_t key_of(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    holder_key_t key;
    key.size = def->key_bytes;
    zan_key_encode(def, zan_obj_key(def, obj), key.bytes);
    key.hash = hash_of(key.bytes, key.size);
    return key;
}

uint32_t stride_of(uint32_t key_size)
{
    return key_word * 4 + ((key_size + 3) & ~3u);
}

uint32_t *entry_at(const allocator_t *a, uint32_t stride, uint32_t slot)
{
    return (uint32_t *)(a->entries + (size_t)slot * stride);
}

/* The slot of a key, or the empty slot where it would stand. */
uint32_t probe(const allocator_t *a, const holder_key_t &key)
{
    const uint32_t stride = stride_of(key.size);
    uint32_t slot = (uint32_t)key.hash & (a->slots - 1);
    for (;; slot = (slot + 1) & (a->slots - 1)) {
        const uint32_t *entry = entry_at(a, stride, slot);
        if (*entry == ZAN_IDENTIFIER_NONE || memcmp(entry + key_word, key.bytes, key.size) == 0)
            return slot;
    }
}

uint64_t hash_of_entry(const uint32_t *entry, uint32_t key_size)
{
    return hash_of((const uint8_t *)(entry + key_word), key_size);
}

/* A large table is hit at random: huge pages spare most of its address translation. */
uint8_t *new_entries(size_t bytes)
{
    constexpr size_t huge_page = (size_t)2 << 20;
    if (bytes < huge_page)
        return (uint8_t *)malloc(bytes);
    auto *entries = (uint8_t *)aligned_alloc(huge_page, (bytes + huge_page - 1) & ~(huge_page - 1));
    if (entries)
        madvise(entries, bytes, MADV_HUGEPAGE); /* advice: without it the table only is slower */
    return entries;
}

bool grow(allocator_t *a, uint32_t key_size)
{
    const uint32_t stride = stride_of(key_size);
    allocator_t bigger = *a;
    bigger.slots = a->slots ? a->slots * 2 : 64;
    bigger.entries = new_entries((size_t)bigger.slots * stride);
    if (!bigger.entries)
        return false;
    memset(bigger.entries, 0xff, (size_t)bigger.slots * stride);
    for (uint32_t slot = 0; slot < a->slots; slot++) {
        const uint32_t *entry = entry_at(a, stride, slot);
        if (*entry == ZAN_IDENTIFIER_NONE)
            continue;
        uint32_t to = (uint32_t)hash_of_entry(entry, key_size) & (bigger.slots - 1);
        while (*entry_at(&bigger, stride, to) != ZAN_IDENTIFIER_NONE)
            to = (to + 1) & (bigger.slots - 1);
        memcpy(entry_at(&bigger, stride, to), entry, stride);
    }
    free(a->entries);
    a->slots = bigger.slots;
    a->entries = bigger.entries;
    return true;
}

uint32_t take_number(allocator_t *a, uint32_t capacity)
{
    if (a->num_free)
        return a->free_numbers[--a->num_free];
    return a->next < capacity ? a->next++ : ZAN_IDENTIFIER_NONE;
}

bool give_number(allocator_t *a, uint32_t number)
{
    if (a->num_free == a->free_room) {
        const uint32_t room = a->free_room ? a->free_room * 2 : 64;
        auto *bigger = (uint32_t *)realloc(a->free_numbers, room * sizeof(uint32_t));
        if (!bigger)
            return false;
        a->free_numbers = bigger;
        a->free_room = room;
    }
    a->free_numbers[a->num_free++] = number;
    return true;
}

/* Take an entry out and close the gap: later entries of the run move up. */
void remove_slot(allocator_t *a, uint32_t key_size, uint32_t hole)
{
    const uint32_t stride = stride_of(key_size);
    const uint32_t mask = a->slots - 1;
    for (uint32_t at = (hole + 1) & mask;; at = (at + 1) & mask) {
        const uint32_t *entry = entry_at(a, stride, at);
        if (*entry == ZAN_IDENTIFIER_NONE)
            break;
        const uint32_t home = (uint32_t)hash_of_entry(entry, key_size) & mask;
        if (((at - home) & mask) >= ((at - hole) & mask)) {
            memcpy(entry_at(a, stride, hole), entry, stride);
            hole = at;
        }
    }
    *entry_at(a, stride, hole) = ZAN_IDENTIFIER_NONE;
    a->used--;
}

/* ---- Numbers of keys that are not stored ---- */

bool is_orphan(const zan_table_def_t *def, const uint32_t *entry)
{
    return *entry != ZAN_IDENTIFIER_NONE && entry[state_word] == entry_held &&
           !host_db_holds(def->id, (const uint8_t *)(entry + key_word));
}

/* Take the orphans' numbers back. A look over all entries, so that one that finds nothing is not
 * repeated before as many refusals as an eighth of them. */
bool reclaim(const zan_table_def_t *def, allocator_t *a)
{
    if (a->fruitless != 0) {
        a->fruitless--;
        return false;
    }
    const uint64_t before = a->reclaimed;
    for (uint32_t slot = 0; slot < a->slots;) {
        const uint32_t *entry = entry_at(a, stride_of(def->key_bytes), slot);
        if (is_orphan(def, entry) && give_number(a, *entry)) {
            remove_slot(a, def->key_bytes, slot); /* another may have moved up into it */
            a->reclaimed++;
        } else {
            slot++;
        }
    }
    if (a->reclaimed == before)
        a->fruitless = a->used / 8;
    return a->reclaimed != before;
}

/* In some slots: NPU threads that release must not wait for more. */
constexpr uint32_t scan_slots = 64;

uint32_t count_orphans(const zan_table_def_t *def, allocator_t *a, uint32_t first)
{
    const spin_guard guard(&a->lock);
    uint32_t count = 0;
    for (uint32_t slot = first; slot < first + scan_slots && slot < a->slots; slot++)
        count += is_orphan(def, entry_at(a, stride_of(def->key_bytes), slot));
    return count;
}

uint32_t capacity_of(const zan_table_def_t *def)
{
    return capacities[def->id] ? capacities[def->id] : default_capacity;
}

allocator_t *allocator_of(const zan_table_def_t *def, int32_t npu)
{
    return &allocators[def->id][(uint32_t)(npu + 1) % allocators_per_table];
}

} // namespace

/* The number that a key holds in an allocator, or ZAN_IDENTIFIER_NONE. */
static uint32_t number_in(allocator_t *a, const holder_key_t &key)
{
    const spin_guard guard(&a->lock);
    return a->slots ? *entry_at(a, stride_of(key.size), probe(a, key)) : ZAN_IDENTIFIER_NONE;
}

/* One table reserves once for the object, and updates and releases it NPU by NPU: there the one
 * identifier is every NPU's. */
zan_rcode zan_host_reserve_id(int32_t npu, const zan_table_base_st *obj)
{
    const zan_table_def_t *def = zan_table_def_get(obj->table_id);
    const holder_key_t key = key_of(def, obj);
    if (npu >= 0 && number_in(allocator_of(def, -1), key) != ZAN_IDENTIFIER_NONE)
        return EOK;
    allocator_t *a = allocator_of(def, npu);
    const spin_guard guard(&a->lock);
    if (a->used * 4 >= a->slots * 3 && !grow(a, key.size))
        return ZAN_RC_NO_MEMORY;
    uint32_t *entry = entry_at(a, stride_of(key.size), probe(a, key));
    if (*entry != ZAN_IDENTIFIER_NONE) {
        entry[state_word] |= entry_held;
        return EOK;
    }
    uint32_t number = take_number(a, capacity_of(def));
    if (ZAN_UNLIKELY(number == ZAN_IDENTIFIER_NONE)) {
        if (!reclaim(def, a)) {
            a->refused++;
            return ZAN_HOST_RC_NO_IDENTIFIER;
        }
        number = take_number(a, capacity_of(def));
        entry = entry_at(a, stride_of(key.size), probe(a, key)); /* entries have moved */
    }
    entry[number_word] = number;
    entry[state_word] = entry_held;
    memcpy(entry + key_word, key.bytes, key.size);
    a->used++;
    return EOK;
}

void host_identifiers_prefetch(const zan_table_def_t *def, const uint8_t *key)
{
    const uint64_t hash = hash_of(key, def->key_bytes);
    for (const allocator_t &a : allocators[def->id])
        if (a.slots)
            __builtin_prefetch(
                entry_at(&a, stride_of(def->key_bytes), (uint32_t)hash & (a.slots - 1)), 1);
}

void host_identifiers_leave(const zan_table_base_st *obj)
{
    const zan_table_def_t *def = zan_table_def_get(obj->table_id);
    if (!def->identifiers)
        return;
    const holder_key_t key = key_of(def, obj);
    for (allocator_t &a : allocators[def->id]) {
        if (!a.slots) /* it grows on this thread only */
            continue;
        const spin_guard guard(&a.lock);
        uint32_t *entry = entry_at(&a, stride_of(key.size), probe(&a, key));
        if (*entry != ZAN_IDENTIFIER_NONE)
            entry[state_word] = (entry[state_word] & ~entry_held) + entry_leaving;
    }
}

/* Give back what the key holds in an allocator; false when it holds nothing there. */
static bool release_from(allocator_t *a, const holder_key_t &key, zan_rcode *rc)
{
    const spin_guard guard(&a->lock);
    if (!a->slots)
        return false;
    const uint32_t slot = probe(a, key);
    uint32_t *entry = entry_at(a, stride_of(key.size), slot);
    const uint32_t number = *entry;
    if (number == ZAN_IDENTIFIER_NONE)
        return false;
    if (entry[state_word] & ~entry_held)
        entry[state_word] -= entry_leaving;
    else
        entry[state_word] = 0;
    if (entry[state_word] != 0)
        return true;
    if (give_number(a, number))
        remove_slot(a, key.size, slot);
    else
        *rc = ZAN_RC_NO_MEMORY;
    return true;
}

zan_rcode zan_host_release_id(int32_t npu, const zan_table_base_st *obj)
{
    const zan_table_def_t *def = zan_table_def_get(obj->table_id);
    const holder_key_t key = key_of(def, obj);
    zan_rcode rc = EOK;
    if (!release_from(allocator_of(def, npu), key, &rc) && npu >= 0)
        release_from(allocator_of(def, -1), key, &rc);
    return rc;
}

zan_rcode zan_host_update_release_id(int32_t npu, const zan_table_base_st *new_obj,
                                     const zan_table_base_st *old_obj)
{
    const zan_table_def_t *def = zan_table_def_get(new_obj->table_id);
    if (!old_obj) /* the old members of an object that stays */
        return EOK;
    if (zan_key_cmp(def, zan_obj_key(def, new_obj), zan_obj_key(def, old_obj)) == 0)
        return EOK;
    return zan_host_release_id(npu, old_obj);
}

uint32_t zan_host_identifier_of(const zan_table_base_st *obj, int32_t npu)
{
    const zan_table_def_t *def = zan_table_def_get(obj->table_id);
    return number_in(allocator_of(def, npu), key_of(def, obj));
}

uint64_t zan_host_identifiers_held(uint32_t table_id)
{
    uint64_t held = 0;
    for (allocator_t &a : allocators[table_id]) {
        const spin_guard guard(&a.lock);
        held += a.used;
    }
    return held;
}

void zan_host_identifiers_get(uint32_t table_id, zan_host_identifiers_st *out)
{
    *out = {};
    const zan_table_def_t *def = zan_table_defs[table_id];
    if (!def->identifiers)
        return;
    for (allocator_t &a : allocators[table_id]) {
        uint32_t slots;
        {
            const spin_guard guard(&a.lock);
            slots = a.slots;
            if (slots)
                out->capacity += capacity_of(def);
            out->held += a.used;
            out->refused += a.refused;
            out->reclaimed += a.reclaimed;
        }
        for (uint32_t slot = 0; slot < slots; slot += scan_slots)
            out->orphaned += count_orphans(def, &a, slot);
    }
}

void zan_host_identifiers_set_capacity(uint32_t table_id, uint32_t capacity)
{
    capacities[table_id] = capacity;
}

void zan_host_identifiers_reset(void)
{
    for (auto &table : allocators)
        for (allocator_t &a : table) {
            free(a.entries);
            free(a.free_numbers);
            a = {};
        }
    memset(capacities, 0, sizeof capacities);
}
