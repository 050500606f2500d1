/* The counters of the simulated NPUs. */
#include "npu_sim_counters.h"
#include "clock.h"
#include "zan_tables_private.h"

#include <cstring>
#include <mutex>
#include <string_view>
#include <unordered_map>

#include <dlfcn.h>

namespace
{

constexpr uint64_t packet_bytes = 512;
constexpr uint64_t one_in = 1000; /* packets of which one goes wrong */
constexpr uint64_t level_limit = 1'000'000;

struct meter_t {
    uint64_t since_us[ZAN_MAX_NPUS]; /* 0: the NPU does not hold it */
    uint64_t latched_us;             /* over all NPUs */
};

std::mutex &lock = *new std::mutex; /* never destroyed: an NPU thread may be inside at the end */
using meters_t = std::unordered_map<std::string, meter_t>;
meters_t (&meters)[ZAN_NUM_TABLES] = *(meters_t(*)[ZAN_NUM_TABLES]) new meters_t[ZAN_NUM_TABLES];

bool counts(const zan_table_def_t *def)
{
    return def->stats_table || def->num_adjacencies != 0;
}

/* The clock of the agent, which a test may hold still. */
uint64_t now_us()
{
    using get_t = int (*)(clockid_t, timespec *);
    static const get_t get = (get_t)dlsym(RTLD_DEFAULT, "zan_clock_gettime");
    timespec now;
    (get ? get : clock_gettime)(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * 1'000'000 + (uint64_t)now.tv_nsec / 1000 + 1;
}

uint64_t packets_of(const std::string &key, const meter_t &meter)
{
    const uint64_t rate = 1000 + std::hash<std::string>()(key) % 9000;
    return (uint64_t)((unsigned __int128)meter.latched_us * rate / 1'000'000);
}

bool has(std::string_view name, std::string_view word)
{
    return name.find(word) != std::string_view::npos;
}

/* Of a field by its name: a level if it has 32 bits, else packets, bytes, or what went wrong. */
uint64_t value_of(const zan_field_def_t &field, uint64_t packets)
{
    const std::string_view name = field.name;
    if (field.width == sizeof(uint32_t))
        return has(name, "limit") || has(name, "capacity") ? level_limit : packets % level_limit;
    for (const char *wrong : {"drop", "error", "exceed", "pause", "stall", "recover", "marked"})
        if (has(name, wrong))
            packets /= one_in;
    return has(name, "bytes") ? packets * packet_bytes : packets;
}

void write_field(const zan_field_def_t &field, uint64_t packets, zan_table_base_st *obj)
{
    const uint64_t value = value_of(field, packets);
    for (uint32_t i = 0; i < field.count; i++) /* little-endian, as the processor */
        memcpy((uint8_t *)zan_obj_at(obj, field.offset) + (size_t)i * field.width, &value,
               field.width);
    *zan_obj_attr_set(&field, obj, 0, 0) = 1;
}

} // namespace

void counters_begin(const zan_table_def_t *def, uint32_t npu, const std::string &key)
{
    if (!counts(def))
        return;
    const std::lock_guard guard(lock);
    uint64_t *since = &meters[def->id][key].since_us[npu];
    if (*since == 0)
        *since = now_us();
}

void counters_end(const zan_table_def_t *def, uint32_t npu, const std::string &key)
{
    if (!counts(def))
        return;
    const std::lock_guard guard(lock);
    const auto found = meters[def->id].find(key);
    if (found == meters[def->id].end())
        return;
    found->second.since_us[npu] = 0;
    for (const uint64_t since : found->second.since_us)
        if (since != 0)
            return;
    meters[def->id].erase(found);
}

void counters_reset()
{
    const std::lock_guard guard(lock);
    for (auto &table : meters)
        table.clear();
}

void counters_latch(const zan_table_def_t *def, const std::string &key)
{
    const std::lock_guard guard(lock);
    const auto found = meters[def->id].find(key);
    if (found == meters[def->id].end())
        return;
    const uint64_t now = now_us();
    found->second.latched_us = 0;
    for (const uint64_t since : found->second.since_us)
        found->second.latched_us += since ? now - since : 0;
}

bool counters_take(const zan_table_def_t *def, const std::string &key, zan_table_base_st *obj,
                   bool only_unset)
{
    const std::lock_guard guard(lock);
    const auto found = meters[def->id].find(key);
    if (found == meters[def->id].end())
        return false;
    const uint64_t packets = packets_of(key, found->second);
    for (uint32_t i = 0; i < def->num_attrs; i++) {
        const zan_field_def_t &field = def->attrs[i];
        if (field.statistic && !(only_unset && *zan_obj_attr_set(&field, obj, 0, 0)))
            write_field(field, packets, obj);
    }
    return true;
}

bool counters_take(const zan_table_def_t *def, const std::string &key, zan_adj_entry_st *entry)
{
    const std::lock_guard guard(lock);
    const auto found = meters[def->id].find(key);
    if (found == meters[def->id].end())
        return false;
    entry->packets = packets_of(key, found->second);
    entry->bytes = entry->packets * packet_bytes;
    return true;
}
