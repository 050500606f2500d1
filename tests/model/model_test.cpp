/* Random operations against a small model of what the server promises.
 *
 * Five tables that lead to each other, few keys, so that operations meet. After each operation the
 * slot's code, the database, the graph, the client references and what is pending must be as the
 * model says; at the end the NPUs too, and when all is deleted nothing may be left. A sequence runs
 * in a process of its own, since a server starts once; one that fails is cut down to the shortest
 * that still does.
 */
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

#include "npu_sim_control.h"
#include "server_bench.h"

using namespace bench;

namespace
{

/* ---- Operations ---- */

enum : uint32_t {
    INTERFACE,
    ADJACENCY,
    NEXT_HOP,
    GROUP,
    ROUTE,
    NUM_KINDS
};

/* Each kind leads to the kind before it: how its text goes. */
const struct kind_t {
    const char *table, *key, *attribute;
    const char *reference; /* with room for the member, if it repeats */
    uint32_t max_members;
} kinds[NUM_KINDS] = {
    {"l3intf", "intf=%u", "ipv4_mtu", nullptr, 0},
    {"macllnh", "intf=%u adj_id=1", "object_identifier", "l3intf_obj.l3intf.intf=%u", 1},
    {"ipnh", "nh_id=%u", "trap", "next_obj.macllnh.intf=%u next_obj.macllnh.adj_id=1", 1},
    {"ipnhgroup", "nhg_id=%u", "num_primary_paths", "nexthop_next_obj[%u].ipnh.nh_id=%u", 3},
    {"iproute", "vrf_id=0 prefix=10.0.%u.0/24", "bgp_as", "next_obj.ipnhgroup.nhg_id=%u", 1},
};

struct op_t {
    zan_table_operation_et operation;
    uint32_t kind, key, value;
    std::vector<uint32_t> parents; /* keys of the kind before; none: not mentioned */
};

std::string format(const char *text, uint32_t a, uint32_t b = 0)
{
    char out[160];
    snprintf(out, sizeof out, text, a, b);
    return out;
}

std::string text_of(const op_t &op)
{
    const kind_t &kind = kinds[op.kind];
    std::string text = std::string(kind.table) + " " + format(kind.key, op.key);
    if (op.operation == ZAN_TABLE_DELETE)
        return text;
    text += std::string(" ") + kind.attribute + "=" + std::to_string(op.value);
    for (uint32_t i = 0; i < op.parents.size(); i++)
        text += " " + (kind.max_members > 1 ? format(kind.reference, i, op.parents[i])
                                            : format(kind.reference, op.parents[i]));
    return text;
}

std::string line_of(const op_t &op)
{
    return std::string(zan_table_operation_str(op.operation)) + " " + text_of(op);
}

std::vector<op_t> random_ops(uint64_t seed, uint32_t count)
{
    std::mt19937_64 random(seed);
    auto below = [&](uint32_t n) { return (uint32_t)(random() % n); };
    std::vector<op_t> ops;
    for (uint32_t i = 0; i < count; i++) {
        const uint32_t what = below(10);
        op_t op = {what < 4   ? ZAN_TABLE_CREATE
                   : what < 7 ? ZAN_TABLE_UPDATE
                              : ZAN_TABLE_DELETE,
                   below(NUM_KINDS),
                   below(3) + 1,
                   below(4) + 1,
                   {}};
        const uint32_t max = kinds[op.kind].max_members;
        const bool mentions = op.operation == ZAN_TABLE_CREATE || max > 1 || below(2);
        if (op.operation != ZAN_TABLE_DELETE && max && mentions)
            for (uint32_t m = below(max) + 1; m; m--)
                op.parents.push_back(below(3) + 1);
        ops.push_back(op);
    }
    return ops;
}

/* ---- The model ---- */

struct object_model_t {
    uint32_t value;
    std::vector<uint32_t> parents;
    uint32_t references; /* of clients, where the table counts them */
    bool pending;
};

struct model_t {
    std::map<uint32_t, object_model_t> objects[NUM_KINDS];

    uint32_t children(uint32_t kind, uint32_t key) const
    {
        uint32_t count = 0;
        if (kind + 1 < NUM_KINDS)
            for (const auto &[child, object] : objects[kind + 1])
                count += (uint32_t)std::count(object.parents.begin(), object.parents.end(), key);
        return count;
    }
    /* What waits for its delete and has no child left goes, and with it what it held. */
    void let_go()
    {
        for (uint32_t kind = NUM_KINDS; kind-- > 0;)
            for (auto it = objects[kind].begin(); it != objects[kind].end();)
                it = it->second.pending && children(kind, it->first) == 0 ? objects[kind].erase(it)
                                                                          : std::next(it);
    }
    bool counts_references(uint32_t kind) const
    {
        return table(kinds[kind].table)->obj_ref_cnt_offset != 0;
    }
    zan_rcode create(const op_t &op)
    {
        auto found = objects[op.kind].find(op.key);
        if (found == objects[op.kind].end()) {
            objects[op.kind][op.key] = {op.value, op.parents, 1, false};
            return EOK;
        }
        object_model_t &object = found->second;
        object.references++;
        if (!object.pending)
            return ZAN_RC_EXISTS;
        object.pending = false; /* it lives on, as the create has it */
        object.value = op.value;
        object.parents = op.parents;
        return EOK;
    }
    zan_rcode update(const op_t &op)
    {
        auto found = objects[op.kind].find(op.key);
        if (found == objects[op.kind].end())
            return ZAN_RC_NOT_FOUND;
        if (found->second.pending)
            return ZAN_RC_DELAY_DELETE;
        found->second.value = op.value;
        if (!op.parents.empty())
            found->second.parents = op.parents;
        return EOK;
    }
    zan_rcode remove(const op_t &op)
    {
        auto found = objects[op.kind].find(op.key);
        if (found == objects[op.kind].end())
            return ZAN_RC_NOT_FOUND;
        object_model_t &object = found->second;
        if (counts_references(op.kind)) {
            object.references -= object.references != 0;
            if (object.references)
                return EOK;
        }
        if (children(op.kind, op.key)) {
            object.pending = true;
            return ZAN_RC_DELAY_DELETE;
        }
        objects[op.kind].erase(found);
        return EOK;
    }
    zan_rcode apply(const op_t &op)
    {
        if (op.operation != ZAN_TABLE_DELETE)
            for (const uint32_t parent : op.parents)
                if (!objects[op.kind - 1].count(parent))
                    return ZAN_RC_NOT_FOUND;
        const zan_rcode rc = op.operation == ZAN_TABLE_CREATE   ? create(op)
                             : op.operation == ZAN_TABLE_UPDATE ? update(op)
                                                                : remove(op);
        let_go();
        return rc;
    }
};

/* ---- What the server has, against the model ---- */

const zan_table_base_st *stored(uint32_t kind, uint32_t key)
{
    const op_t name = {ZAN_TABLE_DELETE, kind, key, 0, {}};
    const object_t lookup = object(text_of(name), ZAN_TABLE_GET);
    return zan_db_get(lookup.get());
}

uint64_t attribute_of(const zan_table_def_t *def, const char *name, const zan_table_base_st *obj)
{
    uint64_t value = 0;
    for (uint32_t i = 0; i < def->num_attrs; i++)
        if (strcmp(def->attrs[i].name, name) == 0)
            memcpy(&value, zan_obj_attr(&def->attrs[i], obj, 0), def->attrs[i].width);
    return value;
}

std::string differs(const model_t &model, uint32_t kind, uint32_t key, const object_model_t &want)
{
    const zan_table_def_t *def = table(kinds[kind].table);
    const std::string name = std::string(def->name) + " " + std::to_string(key) + ": ";
    const zan_table_base_st *have = stored(kind, key);
    if (!have)
        return name + "is not stored";
    if (attribute_of(def, kinds[kind].attribute, have) != want.value)
        return name + "has another value";
    if (have->dpd.dpd_child_cnt != model.children(kind, key))
        return name + "has another number of children";
    if (have->dpd.num_parents < want.parents.size())
        return name + "leads to fewer parents";
    if (!(have->dpd.del_flag & ZAN_DEL_FLAG_DELAY_DELETE) != !want.pending)
        return name + "is not as pending as it should be";
    if (def->obj_ref_cnt_offset &&
        *(const uint32_t *)zan_obj_at(have, def->obj_ref_cnt_offset) != want.references)
        return name + "has another number of references";
    return "";
}

std::string differs(const model_t &model)
{
    for (uint32_t kind = 0; kind < NUM_KINDS; kind++) {
        const zan_table_def_t *def = table(kinds[kind].table);
        if (zan_db_count(def->id) != model.objects[kind].size())
            return std::string(def->name) + ": stores another number of objects";
        for (const auto &[key, object] : model.objects[kind])
            if (const std::string why = differs(model, kind, key, object); !why.empty())
                return why;
    }
    return "";
}

/* ---- Running a sequence ---- */

struct variant_t {
    uint32_t npus;
    bool stepped;
};

/* "" or what went wrong, and at which operation. */
std::string run_here(const std::vector<op_t> &ops, const variant_t &variant, uint64_t seed)
{
    const server_t server({.num_npus = variant.npus, .stepped = variant.stepped, .seed = seed});
    model_t model;
    for (size_t i = 0; i < ops.size(); i++) {
        const zan_rcode want = model.apply(ops[i]);
        const zan_rcode have = run(object(text_of(ops[i]), ops[i].operation)).rc;
        const std::string at = "operation " + std::to_string(i) + ", " + line_of(ops[i]) + ": ";
        if (have != want)
            return at + "code " + std::to_string(have) + ", not " + std::to_string(want);
        if (const std::string why = differs(model); !why.empty())
            return at + why;
    }
    settle();
    if (const std::string why = hardware_differs(variant.npus); !why.empty())
        return "at the end: " + why;
    for (uint32_t kind = 0; kind < NUM_KINDS; kind++)
        for (uint32_t key = 1; key <= 3; key++)
            while (
                run(object(text_of({ZAN_TABLE_DELETE, kind, key, 0, {}}), ZAN_TABLE_DELETE)).rc ==
                EOK) {
            }
    if (residue() != residue_t())
        return "left behind: " + to_string(residue());
    return "";
}

/* The same in a process of its own, which may also die of it. */
std::string run_apart(const std::vector<op_t> &ops, const variant_t &variant, uint64_t seed)
{
    int ends[2];
    if (pipe(ends) != 0)
        return "no pipe";
    const pid_t child = fork();
    if (child == 0) {
        const std::string why = run_here(ops, variant, seed);
        const bool told = write(ends[1], why.data(), why.size()) == (ssize_t)why.size();
        _exit(told ? 0 : 1);
    }
    close(ends[1]);
    std::string why;
    char buffer[512];
    for (ssize_t n; (n = read(ends[0], buffer, sizeof buffer)) > 0;)
        why.append(buffer, (size_t)n);
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return status == 0 ? why : "the process ended with status " + std::to_string(status);
}

/* Leave out what the failure does not need: halves first, then smaller pieces. */
std::vector<op_t> shrink(std::vector<op_t> ops, const variant_t &variant, uint64_t seed)
{
    for (size_t piece = ops.size() / 2; piece; piece /= 2)
        for (size_t at = 0; at + piece <= ops.size();) {
            std::vector<op_t> fewer = ops;
            fewer.erase(fewer.begin() + (long)at, fewer.begin() + (long)(at + piece));
            if (run_apart(fewer, variant, seed).empty())
                at += piece;
            else
                ops = fewer;
        }
    return ops;
}

class Model : public testing::TestWithParam<uint64_t>
{
};

} // namespace

TEST_P(Model, HoldsAfterEachOfManyOperations)
{
    const uint64_t seed = GetParam();
    const variant_t variant = {(uint32_t)seed % 3 + 1, seed % 2 == 0};
    const std::vector<op_t> ops = random_ops(seed, 400);
    const std::string why = run_apart(ops, variant, seed);
    if (why.empty())
        return;
    std::string lines;
    const std::vector<op_t> fewest = shrink(ops, variant, seed);
    for (const op_t &op : fewest)
        lines += line_of(op) + "\n";
    ADD_FAILURE() << "seed " << seed << ": " << why << "\nthe shortest sequence found:\n"
                  << lines << run_apart(fewest, variant, seed);
}

INSTANTIATE_TEST_SUITE_P(Seeds, Model, testing::Range<uint64_t>(1, 21));
