/* The trace ring.
 *
 * Each thread writes to a ring of its own, claimed at its first trace and given back when the
 * thread ends, so that a trace needs neither lock nor atomic read-modify-write. Records are ordered
 * over all rings by the cycle counter. A reader copies a record and looks at its sequence before
 * and after: one that is being written meanwhile is left out. A thread that finds no ring free does
 * not trace, and that is counted.
 *
 * The rings may lie in a file that is mapped, shared: the kernel has what was written there also
 * when the process is gone.
 */
#include "clock.h"
#include "host_control.h"
#include "thread_control.h"
#include "trace.h"
#include "zan_table_def.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

uint8_t zan_trace_enabled[ZAN_NUM_TRACE_CLASSES];

namespace
{

constexpr uint32_t max_rings = 32;
constexpr uint32_t records_per_ring = 16384; /* a power of two */
constexpr uint32_t text_words = ZAN_TRACE_TEXT_WORDS;
constexpr size_t ring_bytes = records_per_ring * sizeof(zan_trace_slot_st);
using record_t = zan_trace_slot_st;

/* In a cache line of its own, which no other thread writes. */
struct alignas(64) ring_t {
    uint32_t taken;
    uint64_t next; /* records ever written: what others see of it is whole */
    record_t *records;
};

ring_t rings[max_rings];
uint64_t traces_lost;    /* of threads that found no ring */
zan_trace_file_st *file; /* the rings lie behind it; null: each in memory of its own */
int file_fd = -1;        /* locked: its process lives */
int file_fault;          /* why a ring found no room in it, an errno; 0: each did */

/* This thread's, or null: it has not traced yet, or has found none free. */
thread_local constinit ring_t *own_ring = nullptr;

struct claim_t {
    bool tried = false;
    ~claim_t()
    {
        if (ring_t *ring = std::exchange(own_ring, nullptr))
            __atomic_store_n(&ring->taken, 0, __ATOMIC_RELEASE);
    }
};
thread_local claim_t claim;

void put(uint64_t *at, uint64_t value)
{
    __atomic_store_n(at, value, __ATOMIC_RELAXED);
}

/* The place in the file is had beforehand: a full disk must not end the process in a trace. */
void *ring_memory(uint32_t ring)
{
    const size_t at = ZAN_TRACE_FILE_HEAD_SIZE + ring * ring_bytes;
    const int fault = file ? posix_fallocate(file_fd, (off_t)at, (off_t)ring_bytes) : 0;
    if (file && fault == 0)
        return (uint8_t *)file + at;
    if (fault != 0)
        __atomic_store_n(&file_fault, fault, __ATOMIC_RELAXED);
    return mmap(nullptr, ring_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
}

ring_t *claim_ring()
{
    claim.tried = true;
    for (ring_t &ring : rings) {
        uint32_t free_mark = 0;
        if (!__atomic_compare_exchange_n(&ring.taken, &free_mark, 1, false, __ATOMIC_ACQUIRE,
                                         __ATOMIC_RELAXED))
            continue;
        if (!ring.records) {
            void *memory = ring_memory((uint32_t)(&ring - rings));
            if (memory == MAP_FAILED) {
                __atomic_store_n(&ring.taken, 0, __ATOMIC_RELEASE);
                return nullptr;
            }
            __atomic_store_n(&ring.records, (record_t *)memory, __ATOMIC_RELEASE);
        }
        return &ring;
    }
    return nullptr;
}

/* The first trace of a thread, and each of one that has no ring: out of the way of all others. */
[[gnu::noinline, gnu::cold]] bool find_ring()
{
    if (!claim.tried)
        own_ring = claim_ring();
    if (!own_ring)
        __atomic_fetch_add(&traces_lost, 1, __ATOMIC_RELAXED);
    return own_ring != nullptr;
}

record_t *record_at(const ring_t *ring, uint64_t position)
{
    return &ring->records[position & (records_per_ring - 1)];
}

/* The record behind this one is fetched into the cache meanwhile: most often it has left it since
 * the ring came round last. */
[[gnu::always_inline]] inline record_t *open_record(zan_trace_class_t c, uint64_t msg)
{
    if (ZAN_UNLIKELY(!own_ring) && !find_ring())
        return nullptr;
    const ring_t *ring = own_ring;
    record_t *r = record_at(ring, ring->next);
    __builtin_prefetch(record_at(ring, ring->next + 1), 1);
    put(&r->sequence, 0);
    __atomic_thread_fence(__ATOMIC_RELEASE);
    put(&r->msg, msg);
    put(&r->class_and_trans, (uint64_t)c << 32 | zan_get_trans_id());
    return r;
}

void close_record(record_t *r)
{
    __atomic_store_n(&r->sequence, zan_clock_cycles(), __ATOMIC_RELEASE);
    __atomic_store_n(&own_ring->next, own_ring->next + 1, __ATOMIC_RELEASE);
}

template <class... A> void write(zan_trace_class_t c, uint64_t msg, A... args)
{
    record_t *r = open_record(c, msg);
    if (!r)
        return;
    uint32_t i = 0;
    (put(&r->arg[i++], args), ...);
    close_record(r);
}

/* Errors and events are on at start; what a class is for is told by its place. */
struct enable_at_start_t {
    enable_at_start_t()
    {
        for (uint32_t c = 0; c < ZAN_NUM_TRACE_CLASSES; c++)
            zan_trace_enabled[c] = c >= ZAN_SHARED_TRACE_CLASS_BASE || c % 3 != 2;
        zan_trace_enabled[ZAN_CLASS_ZAN_BATCH_CRUD_VERBOSE__] = 0;
        zan_trace_enabled[ZAN_CLASS_ZAN_RETRY_VERBOSE__] = 0;
        zan_trace_enabled[ZAN_CLASS_ZAN_BWALK_EVENT__] = 0;
        zan_trace_enabled[ZAN_CLASS_ZAN_BWALK_PUSH_EVENT__] = 0;
    }
} enable_at_start;

} // namespace

void _ringlog_1(zan_trace_class_t c, uint64_t msg, uint64_t a)
{
    write(c, msg, a);
}

void _ringlog_2(zan_trace_class_t c, uint64_t msg, uint64_t a, uint64_t b)
{
    write(c, msg, a, b);
}

void _ringlog_3(zan_trace_class_t c, uint64_t msg, uint64_t a, uint64_t b, uint64_t d)
{
    write(c, msg, a, b, d);
}

void _ringlog_4(zan_trace_class_t c, uint64_t msg, uint64_t a, uint64_t b, uint64_t d, uint64_t e)
{
    write(c, msg, a, b, d, e);
}

void _ringlog_5(zan_trace_class_t c, uint64_t msg, uint64_t a, uint64_t b, uint64_t d, uint64_t e,
                uint64_t f)
{
    write(c, msg, a, b, d, e, f);
}

void _ringlog_6(zan_trace_class_t c, uint64_t msg, uint64_t a, uint64_t b, uint64_t d, uint64_t e,
                uint64_t f, uint64_t g)
{
    write(c, msg, a, b, d, e, f, g);
}

void _ringlog_7(zan_trace_class_t c, uint64_t msg, uint64_t a, uint64_t b, uint64_t d, uint64_t e,
                uint64_t f, uint64_t g, uint64_t h)
{
    write(c, msg, a, b, d, e, f, g, h);
}

void _ringlogs(zan_trace_class_t c, uint64_t msg, ...)
{
    record_t *r = open_record(c, msg);
    if (!r)
        return;
    const uint32_t n = (uint32_t)(msg >> 32 & 0xff);
    const uint32_t strings = (uint32_t)(msg >> 40 & 0xff);
    char text[text_words * 8] = "";
    size_t used = 0;
    va_list args;
    va_start(args, msg);
    for (uint32_t i = 0; i < n && i < 7; i++) {
        const uint64_t value = va_arg(args, uint64_t);
        put(&r->arg[i], strings >> i & 1 ? 0 : value);
        if (!(strings >> i & 1) || used + 1 >= sizeof text)
            continue;
        const auto *string = (const char *)(uintptr_t)value;
        const size_t length = std::min(strlen(string), sizeof text - used - 1);
        memcpy(text + used, string, length);
        used += length;
        if (used + 1 < sizeof text)
            text[used++] = ' ';
    }
    va_end(args);
    uint64_t words[text_words];
    memcpy(words, text, sizeof words);
    for (uint32_t i = 0; i < text_words; i++)
        put(&r->text[i], words[i]);
    close_record(r);
}

zan_trace_class_t zan_ringlog_en_with_retry(const zan_ringlog_enums_st *enums, uint32_t level,
                                            bool retry)
{
    if (ZAN_UNLIKELY(retry))
        return ZAN_CLASS_ZAN_RETRY_ERROR__ + level - ZAN_TRACE_LEVEL_ERROR;
    return (zan_trace_class_t)enums->level[level - 1];
}

/* Open and lock a new file of that name; the old one goes aside, unless its process lives. It is
 * for its maker alone: keys and addresses stand in it. */
static int new_file(const char *path)
{
    const int old = open(path, O_RDWR | O_CLOEXEC);
    if (old >= 0) {
        const bool lives = flock(old, LOCK_EX | LOCK_NB) != 0;
        close(old);
        if (lives) {
            errno = EBUSY;
            return -1;
        }
        char aside[4096];
        snprintf(aside, sizeof aside, "%s.old", path);
        if (rename(path, aside) != 0)
            return -1;
    }
    const int fd = open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0)
        flock(fd, LOCK_EX | LOCK_NB);
    return fd;
}

/* A ring that is in use already moves. */
bool zan_host_trace_open(const char *path)
{
    constexpr size_t bytes = ZAN_TRACE_FILE_HEAD_SIZE + max_rings * ring_bytes;
    const int fd = new_file(path);
    if (fd < 0)
        return false;
    errno = posix_fallocate(fd, 0, ZAN_TRACE_FILE_HEAD_SIZE);
    void *memory = errno == 0 && ftruncate(fd, (off_t)bytes) == 0
                       ? mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)
                       : MAP_FAILED;
    if (memory == MAP_FAILED) {
        close(fd);
        return false;
    }
    file_fd = fd;
    file = (zan_trace_file_st *)memory;
    *file = {ZAN_TRACE_FILE_MAGIC,
             zan_schema_fingerprint,
             max_rings,
             records_per_ring,
             sizeof(record_t),
             (uint32_t)getpid(),
             0,
             0,
             0,
             0};
    zan_host_trace_tick();
    file->first_cycles = file->last_cycles;
    file->first_ns = file->last_ns;
    for (ring_t &ring : rings) {
        record_t *before = ring.records;
        void *moved = before ? ring_memory((uint32_t)(&ring - rings)) : MAP_FAILED;
        if (moved == MAP_FAILED)
            continue;
        ring.records = (record_t *)moved;
        memcpy(moved, before, ring_bytes);
        munmap(before, ring_bytes);
    }
    return true;
}

void zan_host_trace_tick(void)
{
    timespec now;
    zan_clock_gettime(CLOCK_REALTIME, &now);
    if (!file)
        return;
    file->last_cycles = zan_clock_cycles();
    file->last_ns = (uint64_t)now.tv_sec * 1000000000 + (uint64_t)now.tv_nsec;
}

/* The oldest records stand in a heap whose top is the newest of them, which gives way first. */
uint32_t zan_trace_read(uint64_t after, zan_trace_record_st *out, uint32_t max)
{
    const auto older = [](const zan_trace_record_st &a, const zan_trace_record_st &b) {
        return a.sequence < b.sequence;
    };
    uint32_t n = 0;
    zan_trace_record_st r;
    for (const ring_t &ring : rings) {
        const record_t *records = __atomic_load_n(&ring.records, __ATOMIC_ACQUIRE);
        for (uint32_t i = 0; records && max && i < records_per_ring; i++) {
            if (!zan_trace_take(&records[i], &r) || r.sequence <= after)
                continue;
            if (n == max) {
                if (r.sequence >= out[0].sequence)
                    continue;
                std::pop_heap(out, out + n--, older);
            }
            out[n++] = r;
            std::push_heap(out, out + n, older);
        }
    }
    std::sort_heap(out, out + n, older);
    return n;
}

/* A record that its thread has gone round to is another by now. */
static uint64_t count_new_errors(const ring_t *ring, const record_t *records, uint64_t *seen)
{
    const uint64_t end = __atomic_load_n(&ring->next, __ATOMIC_ACQUIRE);
    uint64_t at = std::max(*seen, end - std::min<uint64_t>(end, records_per_ring));
    uint64_t errors = 0;
    zan_trace_record_st r;
    for (; at < end; at++) {
        if (!zan_trace_take(&records[at & (records_per_ring - 1)], &r))
            continue;
        const bool is_there =
            __atomic_load_n(&ring->next, __ATOMIC_ACQUIRE) - at < records_per_ring;
        errors += is_there && zan_trace_class_level(r.trace_class) == ZAN_TRACE_LEVEL_ERROR;
    }
    *seen = end;
    return errors;
}

int zan_host_trace_file_fault(void)
{
    return __atomic_load_n(&file_fault, __ATOMIC_RELAXED);
}

uint64_t zan_host_traces_lost(void)
{
    return __atomic_load_n(&traces_lost, __ATOMIC_RELAXED);
}

uint64_t zan_host_trace_new_errors(void)
{
    static uint64_t seen[max_rings];
    uint64_t errors = 0;
    for (uint32_t i = 0; i < max_rings; i++)
        if (const record_t *records = __atomic_load_n(&rings[i].records, __ATOMIC_ACQUIRE))
            errors += count_new_errors(&rings[i], records, &seen[i]);
    return errors;
}
