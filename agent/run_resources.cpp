/* The hardware databases: how full they are on each NPU, and what they take.
 *
 * A capacity is told to the host's resource layer, which says when it runs out, and to the
 * platform, if it has simulated NPUs that are to be full then.
 */
#include "requests.h"

#include "host_resources.h"

#include <cstdio>
#include <cstring>

namespace
{

bool set_capacity(const npu_control_t &npus, uint32_t npu, uint32_t hwdb, uint64_t capacity)
{
    if (!zan_host_resource_set_capacity(npu, hwdb, capacity))
        return false;
    for (uint32_t n = 0; npus.set_db_capacity && n < ZAN_MAX_NPUS; n++)
        if (n == npu || npu == ZAN_MAX_NPUS)
            npus.set_db_capacity(n, hwdb, capacity);
    return true;
}

bool set_thresholds(uint32_t hwdb, const uint8_t *percent)
{
    const zan_host_thresholds_st at = {percent[0], percent[1], percent[2], percent[3]};
    return zan_host_resource_set_thresholds(hwdb, &at);
}

zan_resource_st read_database(uint32_t npu, uint32_t hwdb)
{
    zan_host_resource_st r;
    zan_host_resource_get(npu, hwdb, &r);
    zan_host_thresholds_st at;
    zan_host_resource_get_thresholds(hwdb, &at);
    return {hwdb,
            npu,
            r.capacity,
            r.used,
            r.high_water,
            r.state,
            r.crossings,
            {at.yellow, at.yellow_clear, at.red, at.red_clear},
            {}};
}

template <class row_t> void append(std::vector<uint8_t> *frame, const std::vector<row_t> &rows)
{
    const auto *bytes = (const uint8_t *)rows.data();
    frame->insert(frame->end(), bytes, bytes + rows.size() * sizeof(row_t));
}

answer_t answer(uint32_t num_npus)
{
    std::vector<zan_resource_st> databases;
    for (uint32_t hwdb = 1; hwdb < ZAN_NUM_HWDBS; hwdb++)
        for (uint32_t npu = 0; npu < num_npus; npu++)
            databases.push_back(read_database(npu, hwdb));
    std::vector<zan_resource_table_st> tables;
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++) {
        zan_resource_table_st row = {id, zan_table_defs[id]->hwdb, {}};
        uint64_t any = 0;
        for (uint32_t npu = 0; npu < num_npus; npu++)
            any |= row.used[npu] = zan_host_resource_used_by(npu, id);
        if (any)
            tables.push_back(row);
    }
    const zan_resources_reply_st reply = {num_npus, (uint32_t)databases.size(),
                                          (uint32_t)tables.size(), 0};
    std::vector<uint8_t> frame(sizeof(zan_frame_hdr_st) + sizeof reply);
    memcpy(frame.data() + sizeof(zan_frame_hdr_st), &reply, sizeof reply);
    append(&frame, databases);
    append(&frame, tables);
    return {ZAN_FRAME_RESOURCES_REPLY, std::move(frame)};
}

/* "lpm=100000" or "lpm=80,75,95,90". */
bool set_from_words(const npu_control_t &npus, const char *words)
{
    char name[32];
    unsigned percent[4];
    unsigned long long capacity;
    char rest;
    if (sscanf(words, "%31[^=]=%u,%u,%u,%u%c", name, &percent[0], &percent[1], &percent[2],
               &percent[3], &rest) == 5) {
        const uint8_t at[4] = {(uint8_t)percent[0], (uint8_t)percent[1], (uint8_t)percent[2],
                               (uint8_t)percent[3]};
        const bool small =
            percent[0] <= 100 && percent[1] <= 100 && percent[2] <= 100 && percent[3] <= 100;
        return small && set_thresholds(zan_hwdb_find(name), at);
    }
    return sscanf(words, "%31[^=]=%llu%c", name, &capacity, &rest) == 2 &&
           set_capacity(npus, ZAN_MAX_NPUS, zan_hwdb_find(name), capacity);
}

} // namespace

bool set_resources(const npu_control_t &npus, const char *const *words)
{
    for (; words && *words; words++)
        if (!set_from_words(npus, *words)) {
            fprintf(stderr,
                    "zan_agent: %s: give DATABASE=ENTRIES, or DATABASE=YELLOW,CLEAR,RED,CLEAR in "
                    "percent, each CLEAR below the figure in front of it and RED's above YELLOW\n",
                    *words);
            return false;
        }
    return true;
}

answer_t run_resources(node_t *node, const request_t &request)
{
    zan_resources_st asked;
    if (request.payload.size() != sizeof asked)
        return refuse_request(node, "length", "the request's payload has another size");
    memcpy(&asked, request.payload.data(), sizeof asked);
    if (asked.set & ~(uint32_t)(ZAN_RESOURCES_SET_CAPACITY | ZAN_RESOURCES_SET_THRESHOLDS))
        return refuse_request(node, "set", "there is no such thing to set");
    const dispatcher_hold_t hold;
    if ((asked.set & ZAN_RESOURCES_SET_THRESHOLDS) && !set_thresholds(asked.hwdb, asked.thresholds))
        return refuse_request(node, "thresholds",
                              "no such database, or not yellow_clear <= yellow < red_clear <= red "
                              "<= 100");
    if ((asked.set & ZAN_RESOURCES_SET_CAPACITY) &&
        !set_capacity(node->npus, asked.npu, asked.hwdb, asked.capacity))
        return refuse_request(node, "capacity",
                              "no such database or NPU, or more entries than can be counted");
    return answer(node->facts.num_npus);
}
