/* The failure sweep over create: the N-th platform call fails, for N = 1, 2, ... until the flow
 * succeeds, once transiently and once for good. The result is success or the code of the step, with
 * exactly the residue that the step leaves and nothing beside it. */
#include <gtest/gtest.h>

#include "fault_points.h"
#include "object_maker.h"

using namespace bench;
using namespace faults;

namespace
{

struct outcome_t {
    zan_rcode rc;
    bool stored;
    bool ids_held;   /* what was reserved stays */
    bool block_kept; /* the refused block stays with the table */
};

/* Hardware codes of the table's mode, for a create. */
outcome_t hardware(const zan_table_def_t *def, bool ids)
{
    if (def->hw_rc_mode == 2)
        return {EOK, true, ids, false};
    return {hook_rc, false, false, false};
}

/* What a failure at a point must come to. */
outcome_t expected(const zan_table_def_t *def, point_t point)
{
    const bool async = def->write_mode;
    const bool ids = def->identifiers;
    switch (point) {
    case RESOLVE_HOOK:
        return {hook_rc, false, false, false};
    case RESERVE_ID: /* a mode that keeps hardware codes back lets the flow go on with the code set
                      */
        if (def->hw_rc_mode == 2)
            return {hook_rc, true, true, false};
        return {hook_rc, false, true, false};
    case DYN_ALLOC:
        return {ZAN_RC_NO_MEMORY_DB, false, ids, false};
    case PRE_CREATE_RDESC:
        if (def->hw_rc_mode == 2)
            return {EOK, true, ids, false};
        return {hook_rc, false, ids, false};
    case SEND:
        return {(zan_rcode)send_rc, false, false, false};
    case CREATE_HOOK:
        if (async)
            return {EOK, true, ids, false};
        return hardware(def, ids);
    case BIND:
        return {ZAN_RC_BIND_REFUSED, false, ids, !async};
    case INSERT:
        return {ZAN_RC_TABLE_FULL, false, ids, !async};
    case POST_CREATE_RDESC:
        return {hook_rc, true, ids, false};
    default:
        return {EOK, true, ids, false};
    }
}

uint64_t identifiers_of_one(const zan_table_def_t *def, uint32_t npus)
{
    return !def->identifiers ? 0 : def->identifiers_per_npu ? npus : 1;
}

void bind_to_a_parent(const zan_table_def_t *def, zan_table_base_st *obj, uint64_t *parent)
{
    const std::vector<any_reference_t> all = references(def);
    if (all.empty())
        return;
    if (!*parent) {
        const object_t made = with_key(all[0].parent_def, 4711);
        *parent = run(made).handle;
        ASSERT_NE(*parent, 0u) << def->name;
    }
    set_handle(select_reference(def, all[0], obj), *parent);
}

uint32_t children_of(uint64_t parent)
{
    return parent ? ((const zan_table_base_st *)parent)->dpd.dpd_child_cnt : 0;
}

/* What a sweep goes over again and again. */
struct subject_t {
    explicit subject_t(const char *name) : def(table(name))
    {
        disarm();
        EXPECT_EQ(run(fresh()).rc, (zan_rcode)EOK); /* the table is up, and its index has a node */
    }
    object_t fresh()
    {
        object_t obj = with_key(def, ++seed, ZAN_TABLE_CREATE, def->num_elements_offset ? 2 : 0);
        fill_attributes(def, obj.get(), seed);
        bind_to_a_parent(def, obj.get(), &parent);
        return obj;
    }
    const zan_table_def_t *def;
    uint64_t parent = 0;
    uint32_t seed = 100;
};

constexpr uint32_t npus = 2;

void check(const subject_t &s, point_t point, bool persistent, const result_t &r,
           const residue_t &before, uint32_t children, const std::string &what)
{
    const residue_t after = residue();
    outcome_t want = expected(s.def, point);
    EXPECT_EQ(after.heap_blocks, before.heap_blocks) << what;
    if (persistent) {
        /* A later step fails too, and the hook behind the hardware step has the last word. */
        EXPECT_EQ(r.rc != EOK || want.stored, true) << what;
        if (after.stored == before.stored && s.def->write_mode) {
            EXPECT_EQ(after.pool_bytes, before.pool_bytes) << what;
        }
        return;
    }
    EXPECT_EQ(r.rc, want.rc) << what;
    EXPECT_EQ(after.stored - before.stored, (uint64_t)want.stored) << what;
    const bool bound = want.stored || (want.block_kept && point == INSERT);
    EXPECT_EQ(children_of(s.parent) - children, s.parent && bound ? 1u : 0u) << what;
    if (!want.stored && !want.block_kept) {
        EXPECT_EQ(after.pool_bytes, before.pool_bytes) << what;
    }
    if (point != RESERVE_ID) {
        EXPECT_EQ(after.identifiers - before.identifiers,
                  want.ids_held ? identifiers_of_one(s.def, npus) : 0)
            << what;
    }
}

/* Fail one call after the other until none is left; the points that were met, as a mask. */
uint32_t sweep(subject_t *s, bool persistent, side_t side)
{
    uint32_t met = 0;
    for (uint32_t n = 1;; n++) {
        EXPECT_LT(n, 100u) << "the flow never succeeds";
        const object_t obj = s->fresh();
        const residue_t before = residue();
        const uint32_t children = children_of(s->parent);
        arm(n, persistent, side);
        const result_t r = run(obj);
        settle();
        const point_t point = fired();
        disarm();
        check(*s, point, persistent, r, before, children,
              std::string(s->def->name) + ", call " + std::to_string(n) + ", point " +
                  std::to_string(point) + (persistent ? ", persistent" : ""));
        met |= 1u << point;
        if (point == NONE || n == 100)
            return met;
    }
}

class CreateSweep : public testing::TestWithParam<std::tuple<const char *, bool>>
{
};

} // namespace

static std::string name_of(const testing::TestParamInfo<std::tuple<const char *, bool>> &param)
{
    return std::string(std::get<0>(param.param)) +
           (std::get<1>(param.param) ? "_persistent" : "_transient");
}

TEST_P(CreateSweep, EndsInTheStatedCodeAndResidue)
{
    const server_t server({.num_npus = npus, .stepped = true});
    subject_t subject(std::get<0>(GetParam()));
    const bool persistent = std::get<1>(GetParam());
    const uint32_t met = sweep(&subject, persistent, ON_DISPATCHER);
    const zan_table_def_t *def = subject.def;
    EXPECT_TRUE(met & 1u << RESOLVE_HOOK && met & 1u << INSERT);
    EXPECT_EQ((met & 1u << SEND) != 0, def->npu_threads != 0);
    EXPECT_EQ((met & 1u << RESERVE_ID) != 0, def->identifiers != 0);
    EXPECT_EQ((met & 1u << CREATE_HOOK) != 0, def->npu_threads == 0);
    const uint32_t met_on_npus = sweep(&subject, persistent, ON_NPUS);
    EXPECT_EQ((met_on_npus & 1u << CREATE_HOOK) != 0, def->npu_threads != 0);
}

INSTANTIATE_TEST_SUITE_P(Tables, CreateSweep,
                         testing::Combine(testing::Values("ipnhgroup", "iproute", "mplsnh",
                                                          "sr6sid", "l2brmac", "iptnldecap", "ipnh",
                                                          "redirectvrf", "l2intf"),
                                          testing::Bool()),
                         name_of);
