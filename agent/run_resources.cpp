/* The hardware databases: how full they are on each NPU, and what they take.
 *
 * A capacity is told to the host's resource layer, which says when it runs out, and to the
 * platform, if it has simulated NPUs that are to be full then.
 */
#include "requests.h"

#include "host_resources.h"

#include <algorithm>
#include <charconv>
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

/* The books are what was accounted; this is what is there. */
uint64_t objects_held(const npu_control_t &npus, uint32_t npu, uint32_t hwdb)
{
    if (!npus.count)
        return UINT64_MAX;
    uint64_t held = 0;
    for (uint32_t id = 0; id < ZAN_NUM_TABLES; id++)
        if (zan_table_defs[id]->hwdb == hwdb)
            held += npus.count(npu, id);
    return held;
}

zan_resource_st read_database(const npu_control_t &npus, uint32_t npu, uint32_t hwdb)
{
    zan_host_resource_st r;
    zan_host_resource_get(npu, hwdb, &r);
    zan_host_thresholds_st at;
    zan_host_resource_get_thresholds(hwdb, &at);
    return {hwdb,    npu,          r.capacity,
            r.used,  r.high_water, objects_held(npus, npu, hwdb),
            r.state, r.crossings,  {at.yellow, at.yellow_clear, at.red, at.red_clear},
            {}};
}

template <class row_t> void append(std::vector<uint8_t> *frame, const std::vector<row_t> &rows)
{
    const auto *bytes = (const uint8_t *)rows.data();
    frame->insert(frame->end(), bytes, bytes + rows.size() * sizeof(row_t));
}

answer_t answer(const node_t &node)
{
    const uint32_t num_npus = node.facts.num_npus;
    std::vector<zan_resource_st> databases;
    for (uint32_t hwdb = 1; hwdb < ZAN_NUM_HWDBS; hwdb++)
        for (uint32_t npu = 0; npu < num_npus; npu++)
            databases.push_back(read_database(node.npus, npu, hwdb));
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

bool complain(const zan_agent_resource_t &said, const std::string &text)
{
    fprintf(stderr, "zan_agent: --%s %s: %s\n", said.option, said.words, text.c_str());
    return false;
}

std::string all_databases()
{
    std::string names = zan_hwdb_name(1);
    for (uint32_t hwdb = 2; hwdb < ZAN_NUM_HWDBS; hwdb++)
        names += std::string(", ") + zan_hwdb_name(hwdb);
    return names;
}

/* The numbers of "80,75,95,90"; none when there is anything else. */
std::vector<uint64_t> read_numbers(const std::string &text)
{
    std::vector<uint64_t> numbers;
    const char *at = text.c_str(), *end = at + text.size();
    for (;; at++) {
        uint64_t number;
        const auto [next, error] = std::from_chars(at, end, number);
        if (error != std::errc() || (next != end && *next != ','))
            return {};
        numbers.push_back(number);
        if (next == end)
            return numbers;
        at = next;
    }
}

bool set_from_words(const npu_control_t &npus, const zan_agent_resource_t &said)
{
    const std::string words = said.words;
    const std::string name = words.substr(0, words.find('='));
    const uint32_t hwdb = zan_hwdb_find(name.c_str());
    const std::vector<uint64_t> numbers =
        read_numbers(words.substr(std::min(words.size(), name.size() + 1)));
    const bool is_capacity = strcmp(said.option, "capacity") == 0;
    if (hwdb == ZAN_HWDB_NONE)
        return complain(said, "there is no database " + name + "; there are " + all_databases());
    if (is_capacity)
        return (numbers.size() == 1 && set_capacity(npus, ZAN_MAX_NPUS, hwdb, numbers[0])) ||
               complain(said, "give DATABASE=ENTRIES");
    uint8_t at[4] = {};
    bool well = numbers.size() == 4;
    for (size_t i = 0; well && i < 4; i++) {
        at[i] = (uint8_t)numbers[i];
        well = numbers[i] <= 100;
    }
    return (well && set_thresholds(hwdb, at)) ||
           complain(said, "give DATABASE=YELLOW,CLEAR,RED,CLEAR in percent, each CLEAR below the "
                          "figure in front of it and RED's above YELLOW");
}

} // namespace

bool set_resources(const npu_control_t &npus, const zan_agent_resource_t *resources)
{
    for (; resources && resources->words; resources++)
        if (!set_from_words(npus, *resources))
            return false;
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
    if ((asked.set & ZAN_RESOURCES_SET_CAPACITY) && asked.npu >= node->facts.num_npus &&
        asked.npu != ZAN_RESOURCES_ALL_NPUS)
        return refuse_request(node, "npu", "the node has no such NPU");
    const dispatcher_hold_t hold;
    if ((asked.set & ZAN_RESOURCES_SET_THRESHOLDS) && !set_thresholds(asked.hwdb, asked.thresholds))
        return refuse_request(node, "thresholds",
                              "no such database, or not yellow_clear <= yellow < red_clear <= red "
                              "<= 100");
    if ((asked.set & ZAN_RESOURCES_SET_CAPACITY) &&
        !set_capacity(node->npus, asked.npu, asked.hwdb, asked.capacity))
        return refuse_request(node, "capacity",
                              "no such database, or more entries than can be counted");
    return answer(*node);
}
