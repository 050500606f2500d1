/* The shared-memory pool.
 *
 * A class is one table, kind and block size; it owns slabs, and lists those that have room. A
 * slab's record, outside the pool, holds what the slab is and a few bitmaps with a bit for each of
 * its slots. Slots follow each other without a gap and are as large as the block, rounded up to 8
 * bytes: objects come in some 300 sizes, and rounding to powers of two would cost a third of the
 * memory.
 *
 * Whether an address is a stored object is thus: its slab's record (one cache line: table, size),
 * the slot by a multiplication with the reciprocal of the size, and the slot's bit.
 *
 * A slab whose last block goes is given back at once. A block above 64 KiB has a run of slabs of
 * its own, whose first record stands for all.
 */
#include "shared_pool.h"
#include "host_assert.h"
#include "slab_runs.h"

#include <atomic>
#include <cstring>

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

constexpr uint32_t min_slot = 64; /* bytes; also what the bitmaps are sized for */
constexpr uint32_t max_slots = HOST_SLAB_SIZE / min_slot;
constexpr uint32_t words = max_slots / 64;

/* A slab is free (slot_size 0), a slab of a class, or the first of a run (run_length above 1). The
 * records of a run's other slabs stay free: no block begins there. */
struct slab_t {
    uint32_t slot_size;  /* bytes; of a run, all of it */
    uint32_t reciprocal; /* of slot_size / 8, scaled by 2^32, rounded up */
    uint32_t run_length; /* slabs */
    uint16_t table_id;
    uint16_t num_slots;
    uint16_t used;
    uint8_t kind;
    uint8_t has_room; /* stands in its class's list */
    uint32_t room_next, room_prev;
    struct pool_class_t *owner;
    uint64_t reserved[3];
    uint64_t mark[HOST_MARKS][words];
    uint64_t in_use[words];
};
static_assert(offsetof(slab_t, mark) == 64, "what decides a handle is one cache line and one word");

struct pool_class_t {
    pool_class_t *next; /* of the same table */
    uint32_t slot_size;
    uint8_t kind;
    uint32_t room;   /* first slab with a free slot, or HOST_NO_SLAB */
    bool has_filled; /* a slab, at some time */
};

uint8_t *base;
uint64_t pool_size;
slab_t *slabs;
uint32_t num_slabs, slabs_used;
pool_class_t *classes[ZAN_NUM_TABLES];
std::atomic<uint64_t> bytes_in_use;
pthread_mutex_t open_mutex = PTHREAD_MUTEX_INITIALIZER;

/* ---- Addresses ---- */

struct place_t {
    slab_t *slab; /* null: no slot begins at the address */
    uint32_t slot;
};

inline place_t find(uint64_t address)
{
    const uint64_t offset = address - (uint64_t)(uintptr_t)base;
    if (offset >= pool_size)
        return {nullptr, 0};
    slab_t *slab = &slabs[offset >> HOST_SLAB_SHIFT];
    if (slab->slot_size == 0)
        return {nullptr, 0};
    const uint32_t inside = (uint32_t)offset & (HOST_SLAB_SIZE - 1);
    const uint32_t slot = (uint32_t)(((uint64_t)(inside / 8) * slab->reciprocal) >> 32);
    if (slot >= slab->num_slots || slot * slab->slot_size != inside)
        return {nullptr, 0};
    return {slab, slot};
}

inline bool bit(const uint64_t *bitmap, uint32_t at)
{
    return bitmap[at / 64] >> (at % 64) & 1;
}

/* The statistics thread reads marks while the dispatcher writes others of the same word. */
inline bool mark_of(const slab_t *slab, host_mark_et mark, uint32_t slot)
{
    return __atomic_load_n(&slab->mark[mark][slot / 64], __ATOMIC_RELAXED) >> (slot % 64) & 1;
}

inline uint8_t *slot_address(const slab_t *slab, uint32_t slot)
{
    return base + ((uint64_t)(slab - slabs) << HOST_SLAB_SHIFT) + (uint64_t)slot * slab->slot_size;
}

inline void poison(const void *at, size_t size)
{
#if HOST_ADDRESS_SANITIZER
    ASAN_POISON_MEMORY_REGION(at, size);
#else
    (void)at;
    (void)size;
#endif
}

inline void unpoison(const void *at, size_t size)
{
#if HOST_ADDRESS_SANITIZER
    ASAN_UNPOISON_MEMORY_REGION(at, size);
#else
    (void)at;
    (void)size;
#endif
}

inline void count_bytes(int64_t change)
{
    bytes_in_use.store(bytes_in_use.load(std::memory_order_relaxed) + (uint64_t)change,
                       std::memory_order_relaxed);
}

/* ---- Classes and their slabs ---- */

/* Objects come in exact sizes. Dynamic parts come in any size: 8 classes for each power of two. */
uint32_t class_size(host_block_kind_et kind, size_t size)
{
    size_t step = 8;
    if (kind == HOST_BLOCK_DYNAMIC)
        while (step * 16 < size)
            step *= 2;
    const size_t rounded = (size + step - 1) & ~(step - 1);
    return (uint32_t)(rounded < min_slot ? min_slot : rounded);
}

pool_class_t *find_class(uint32_t table_id, host_block_kind_et kind, uint32_t slot_size)
{
    for (pool_class_t *c = classes[table_id]; c; c = c->next)
        if (c->slot_size == slot_size && c->kind == kind)
            return c;
    auto *made = (pool_class_t *)calloc(1, sizeof(pool_class_t));
    if (!made)
        return nullptr;
    *made = {classes[table_id], slot_size, (uint8_t)kind, HOST_NO_SLAB, false};
    classes[table_id] = made;
    return made;
}

void room_add(pool_class_t *owner, slab_t *slab)
{
    const uint32_t index = (uint32_t)(slab - slabs);
    slab->room_prev = HOST_NO_SLAB;
    slab->room_next = owner->room;
    if (owner->room != HOST_NO_SLAB)
        slabs[owner->room].room_prev = index;
    owner->room = index;
    slab->has_room = 1;
}

void room_remove(pool_class_t *owner, slab_t *slab)
{
    if (slab->room_prev == HOST_NO_SLAB)
        owner->room = slab->room_next;
    else
        slabs[slab->room_prev].room_next = slab->room_next;
    if (slab->room_next != HOST_NO_SLAB)
        slabs[slab->room_next].room_prev = slab->room_prev;
    slab->has_room = 0;
}

slab_t *take_slabs(uint32_t table_id, host_block_kind_et kind, uint32_t run_length)
{
    const uint32_t first = host_slab_run_take(run_length);
    if (first == HOST_NO_SLAB)
        return nullptr;
    slab_t *slab = &slabs[first];
    memset(slab, 0, sizeof *slab);
    slab->run_length = run_length;
    slab->table_id = (uint16_t)table_id;
    slab->kind = kind;
    slabs_used += run_length;
    poison(slot_address(slab, 0), (size_t)run_length << HOST_SLAB_SHIFT);
    return slab;
}

void give_slabs(slab_t *slab)
{
    if (slab->has_room)
        room_remove(slab->owner, slab);
    const uint32_t run_length = slab->run_length;
    unpoison(slot_address(slab, 0), (size_t)run_length << HOST_SLAB_SHIFT);
    slab->slot_size = 0;
    slabs_used -= run_length;
    host_slab_run_give((uint32_t)(slab - slabs), run_length);
}

slab_t *make_class_slab(uint32_t table_id, pool_class_t *owner)
{
    slab_t *slab = take_slabs(table_id, (host_block_kind_et)owner->kind, 1);
    if (!slab)
        return nullptr;
    const uint32_t units = owner->slot_size / 8;
    slab->reciprocal = (uint32_t)((((uint64_t)1 << 32) + units - 1) / units);
    slab->num_slots = (uint16_t)(HOST_SLAB_SIZE / owner->slot_size);
    slab->slot_size = owner->slot_size;
    slab->owner = owner;
    /* A class that has filled a slab will fill this one too: its pages come in one call instead of
     * a fault for each. Advice: without it they come one by one. */
    if (owner->has_filled)
        madvise(slot_address(slab, 0), HOST_SLAB_SIZE, MADV_POPULATE_WRITE);
    room_add(owner, slab);
    return slab;
}

uint32_t take_slot(slab_t *slab)
{
    uint32_t word = 0;
    while (slab->in_use[word] == ~(uint64_t)0)
        word++;
    const uint32_t slot = word * 64 + (uint32_t)__builtin_ctzll(~slab->in_use[word]);
    slab->in_use[word] |= (uint64_t)1 << (slot % 64);
    if (++slab->used == slab->num_slots) {
        slab->owner->has_filled = true;
        room_remove(slab->owner, slab);
    }
    return slot;
}

void *alloc_run(uint32_t table_id, host_block_kind_et kind, size_t size)
{
    const size_t run_length = (size + HOST_SLAB_SIZE - 1) >> HOST_SLAB_SHIFT;
    if (run_length > num_slabs)
        return nullptr;
    slab_t *slab = take_slabs(table_id, kind, (uint32_t)run_length);
    if (!slab)
        return nullptr;
    slab->num_slots = 1; /* reciprocal 0: every address of the first slab gives slot 0 */
    slab->slot_size = (uint32_t)run_length << HOST_SLAB_SHIFT;
    slab->used = 1;
    slab->in_use[0] = 1;
    return slot_address(slab, 0);
}

/* Tables of records that are only touched where slabs are in use. */
void *map_sparse(size_t size)
{
    void *map = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return map == MAP_FAILED ? nullptr : map;
}

/* As much address space as the machine grants, from 64 GiB down. Thread and address sanitizers keep
 * shadow of what is mapped, so that they begin lower. */
bool map_pool(void)
{
    const int fd = memfd_create("zan_table_pool", MFD_CLOEXEC);
    if (fd < 0)
        return false;
    for (uint64_t size = (uint64_t)(HOST_SANITIZED ? 4 : 64) << 30; size >= (uint64_t)64 << 20;
         size /= 2) {
        if (ftruncate(fd, (off_t)size) != 0)
            continue;
        void *map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_NORESERVE, fd, 0);
        if (map == MAP_FAILED)
            continue;
        close(fd);
        base = (uint8_t *)map;
        pool_size = size;
        return true;
    }
    close(fd);
    return false;
}

bool open_all(void)
{
    if (!map_pool())
        return false;
    num_slabs = (uint32_t)(pool_size >> HOST_SLAB_SHIFT);
    slabs = (slab_t *)map_sparse((size_t)num_slabs * sizeof(slab_t));
    if (slabs && host_slab_runs_open(base, num_slabs))
        return true;
    if (slabs)
        munmap(slabs, (size_t)num_slabs * sizeof(slab_t));
    munmap(base, pool_size);
    slabs = nullptr;
    base = nullptr;
    pool_size = 0;
    return false;
}

} // namespace

bool host_pool_open(void)
{
    pthread_mutex_lock(&open_mutex);
    const bool open = base || open_all();
    pthread_mutex_unlock(&open_mutex);
    return open;
}

void *host_pool_alloc(uint32_t table_id, host_block_kind_et kind, size_t size)
{
    if (table_id >= ZAN_NUM_TABLES || !base || size > UINT32_MAX / 2)
        return nullptr;
    void *block;
    uint32_t slot_size = class_size(kind, size);
    if (slot_size > HOST_SLAB_SIZE) {
        block = alloc_run(table_id, kind, size);
        slot_size = (slot_size + HOST_SLAB_SIZE - 1) & ~(HOST_SLAB_SIZE - 1);
    } else {
        pool_class_t *owner = find_class(table_id, kind, slot_size);
        if (!owner)
            return nullptr;
        slab_t *slab =
            owner->room != HOST_NO_SLAB ? &slabs[owner->room] : make_class_slab(table_id, owner);
        if (!slab)
            return nullptr;
        block = slot_address(slab, take_slot(slab));
    }
    if (!block)
        return nullptr;
    unpoison(block, slot_size);
    memset(block, 0, slot_size);
    count_bytes(slot_size);
    return block;
}

void host_pool_free(void *block)
{
    if (!block)
        return;
    const place_t at = find((uint64_t)(uintptr_t)block);
    HOST_ASSERT(at.slab && bit(at.slab->in_use, at.slot), "the freed block is in use");
    HOST_ASSERT(!mark_of(at.slab, HOST_MARK_STORED, at.slot), "the freed block is not stored");
    slab_t *slab = at.slab;
    count_bytes(-(int64_t)slab->slot_size);
    slab->in_use[at.slot / 64] &= ~((uint64_t)1 << (at.slot % 64));
    if (--slab->used == 0) {
        give_slabs(slab);
        return;
    }
    poison(block, slab->slot_size);
    if (!slab->has_room)
        room_add(slab->owner, slab);
}

void host_pool_free_table(uint32_t table_id)
{
    for (uint32_t i = 0; base && i < host_slab_runs_end(); i++) {
        slab_t *slab = &slabs[i];
        if (slab->slot_size == 0 || slab->table_id != table_id)
            continue;
        count_bytes(-(int64_t)slab->slot_size * slab->used);
        give_slabs(slab);
    }
    while (table_id < ZAN_NUM_TABLES && classes[table_id]) {
        pool_class_t *gone = classes[table_id];
        classes[table_id] = gone->next;
        free(gone);
    }
}

void host_pool_close(void)
{
    if (!base)
        return;
    for (uint32_t table_id = 0; table_id < ZAN_NUM_TABLES; table_id++)
        while (classes[table_id]) {
            pool_class_t *gone = classes[table_id];
            classes[table_id] = gone->next;
            free(gone);
        }
    host_slab_runs_close();
    munmap(slabs, (size_t)num_slabs * sizeof(slab_t));
    unpoison(base, pool_size);
    munmap(base, pool_size);
    base = nullptr;
    slabs = nullptr;
    pool_size = 0;
    num_slabs = slabs_used = 0;
    bytes_in_use.store(0, std::memory_order_relaxed);
}

bool host_pool_is_object(uint64_t address)
{
    const place_t at = find(address);
    return at.slab && at.slab->kind == HOST_BLOCK_OBJECT && bit(at.slab->in_use, at.slot);
}

int host_pool_stored_table(uint64_t address)
{
    const place_t at = find(address);
    return at.slab && mark_of(at.slab, HOST_MARK_STORED, at.slot) ? at.slab->table_id : -1;
}

bool host_pool_is_stored(uint32_t table_id, uint64_t address)
{
    const place_t at = find(address);
    return at.slab && at.slab->table_id == table_id && mark_of(at.slab, HOST_MARK_STORED, at.slot);
}

bool host_pool_set_mark(uint64_t address, host_mark_et mark, bool on)
{
    const place_t at = find(address);
    if (!at.slab || at.slab->kind != HOST_BLOCK_OBJECT)
        return false;
    uint64_t *word = &at.slab->mark[mark][at.slot / 64];
    const uint64_t mask = (uint64_t)1 << (at.slot % 64);
    const bool was = *word & mask;
    __atomic_store_n(word, on ? *word | mask : *word & ~mask, __ATOMIC_RELAXED);
    return was;
}

uint64_t host_pool_bytes_in_use(void)
{
    return bytes_in_use.load(std::memory_order_relaxed);
}

uint32_t host_pool_slabs_in_use(void)
{
    return slabs_used;
}
