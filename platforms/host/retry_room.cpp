/* Waiting for room: objects whose write failed since a hardware database is full.
 *
 * Each database has a line. Room shows by deletes that an NPU took and by a greater capacity, not
 * by the occupancy that is accounted, which has rules of its own: as many are called as there is
 * room for on the NPUs that refused them. Room that does not show is found by a first try now and
 * then; each that found some calls two more.
 */
#include "retry_room.h"
#include "exec_rings.h"
#include "host_resources.h"
#include "write_watch.h"

#include <algorithm>
#include <set>
#include <utility>

namespace
{

constexpr uint32_t line_scan = 4096; /* entries of a line that are looked at for room, at most */

struct line_t {
    std::set<std::pair<int64_t, failed_entry_t *>> entries; /* by the time since when they wait */
    int64_t due_us;                                         /* of the next first try */
    int64_t try_us;                  /* and from then on to the one behind it */
    uint64_t capacity[ZAN_MAX_NPUS]; /* at the last look */
    uint64_t found;                  /* first tries, and those they called, that found room */
};
line_t lines[ZAN_NUM_HWDBS];

line_t *line_of(const failed_entry_t *entry)
{
    return &lines[zan_table_defs[entry->first.table_id]->hwdb];
}

/* Without limit counts as endless. */
uint64_t capacity_of(uint32_t hwdb, uint32_t npu)
{
    zan_host_resource_st r;
    zan_host_resource_get(npu, hwdb, &r);
    return r.capacity ? r.capacity : UINT64_MAX;
}

void open_line(uint32_t hwdb)
{
    line_t *line = &lines[hwdb];
    line->try_us = (int64_t)host_retry_config()->first_ms * 1000; /* room may have come meanwhile */
    line->due_us = host_retry_now_us() + line->try_us;
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++) {
        line->capacity[npu] = capacity_of(hwdb, npu);
        host_take_room(hwdb, npu);
    }
    host_watch_room(hwdb, true);
}

/* Entries of the database that each NPU has free since the last look; whether any has. */
bool take_room(uint32_t hwdb, line_t *line, uint64_t *room)
{
    bool any = false;
    for (uint32_t npu = 0; npu < host_exec.num_npus; npu++) {
        const uint64_t before = std::exchange(line->capacity[npu], capacity_of(hwdb, npu));
        room[npu] = host_take_room(hwdb, npu);
        if (line->capacity[npu] > before)
            room[npu] += line->capacity[npu] - before;
        any |= room[npu] != 0;
    }
    return any;
}

/* Whether all NPUs that refused the object have room for it now; it is taken then. */
bool fits(const failed_t &failed, uint64_t *room)
{
    for (kor_npu_mask_t left = failed.npus; left; left &= left - 1)
        if (room[__builtin_ctzll(left)] == 0)
            return false;
    for (kor_npu_mask_t left = failed.npus; left; left &= left - 1)
        room[__builtin_ctzll(left)]--;
    return true;
}

void call_those_that_fit(line_t *line, uint64_t *room)
{
    uint32_t seen = 0;
    for (auto at = line->entries.begin(); at != line->entries.end() && seen < line_scan; seen++) {
        failed_entry_t *entry = (at++)->second;
        if (!find_stored(entry->first) || fits(entry->second, room))
            host_retry_call_soon(entry);
    }
}

void call_blindly(line_t *line)
{
    const int64_t longest_us = (int64_t)host_retry_config()->longest_ms * 1000;
    uint64_t calls = 2 * std::exchange(line->found, 0);
    if (calls == 0 && host_retry_now_us() >= line->due_us) {
        calls = 1;
        line->try_us = std::min(line->try_us * 2, longest_us);
        line->due_us = host_retry_now_us() + line->try_us;
    }
    for (; calls != 0 && !line->entries.empty(); calls--) {
        failed_entry_t *entry = line->entries.begin()->second;
        host_retry_call_soon(entry);
        entry->second.blind = true;
    }
}

} // namespace

void host_room_wait(failed_entry_t *entry)
{
    line_t *line = line_of(entry);
    if (line->entries.empty())
        open_line(zan_table_defs[entry->first.table_id]->hwdb);
    entry->second.state = ZAN_HOST_FAILED_ROOM;
    entry->second.due_us = host_retry_now_us();
    line->entries.insert({entry->second.due_us, entry});
}

void host_room_leave(failed_entry_t *entry)
{
    line_of(entry)->entries.erase({entry->second.due_us, entry});
}

void host_room_found(const failed_entry_t *entry)
{
    line_of(entry)->found += entry->second.blind;
}

void host_room_call()
{
    for (uint32_t hwdb = 0; hwdb < ZAN_NUM_HWDBS; hwdb++) {
        line_t *line = &lines[hwdb];
        if (line->entries.empty())
            continue;
        uint64_t room[ZAN_MAX_NPUS] = {};
        if (take_room(hwdb, line, room))
            call_those_that_fit(line, room);
        call_blindly(line);
        if (line->entries.empty())
            host_watch_room(hwdb, false);
    }
}

int64_t host_room_due_us(void)
{
    int64_t due = INT64_MAX;
    for (const line_t &line : lines)
        if (!line.entries.empty())
            due = std::min(due, line.due_us);
    return due;
}

void host_room_stop(void)
{
    for (line_t &line : lines)
        line = {};
}
