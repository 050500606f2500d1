/* The failure sweep over a walk: the N-th platform call of an update with children and
 * post-processing fails, for N = 1, 2, ... until it succeeds. The walk ends, each child has been
 * visited once unless the update came to no walk, the code is 0 or that of what failed, and no
 * copy, record or context is left. */
#include <gtest/gtest.h>

#include "fault_points.h"
#include "object_maker.h"
#include "walk_counts.h"

using namespace bench;
using namespace faults;

namespace
{

constexpr uint32_t children = 3;

struct source_t {
    const char *table, *child;
};
constexpr source_t sources[] = {
    {"testca", "testaa"}, {"testdynhg", "testasyncnhg"}, {"testasyncnhg", "test_rt"}};

void make_children(const zan_table_def_t *def, const zan_table_def_t *child_def, uint64_t source)
{
    for (uint32_t id = 1; id <= children; id++)
        for (const any_reference_t &ref : references(child_def)) {
            if (ref.parent_def != def)
                continue;
            object_t child = with_key(child_def, id, ZAN_TABLE_CREATE, ref.repeated);
            set_handle(select_reference(child_def, ref, child.get()), source);
            ASSERT_EQ(run(child).rc, (zan_rcode)EOK);
            break;
        }
    EXPECT_EQ(((const zan_table_base_st *)source)->dpd.dpd_child_cnt, children);
}

/* Every trigger attribute of the table gets another value. */
object_t change(const zan_table_def_t *def, uint32_t value)
{
    object_t obj = with_key(def, 1, ZAN_TABLE_UPDATE);
    for (uint32_t i = 0; i < def->num_attrs; i++)
        if (def->attrs[i].trigger_mask) {
            fill_value(&def->attrs[i], zan_obj_attr(&def->attrs[i], obj.get(), 0), value);
            *zan_obj_attr_set(&def->attrs[i], obj.get(), 0, 0) = 1;
        }
    return obj;
}

uint64_t updates_of(const zan_table_def_t *def, uint32_t id)
{
    return stored(run(with_key(def, id, ZAN_TABLE_GET)).handle)->dpd.bwalk_update_count;
}

/* What stops an update in front of its walk; everything else leaves the walk to run. */
bool stops(point_t point)
{
    return point == RESOLVE_HOOK || point == PRE_UPDATE_RDESC || point == WALK;
}

zan_rcode code_of(point_t point)
{
    return point == WALK ? walk_rc : point == SEND ? (zan_rcode)send_rc : hook_rc;
}

class WalkSweep : public testing::TestWithParam<std::tuple<source_t, bool, side_t>>
{
};

} // namespace

TEST_P(WalkSweep, EndsAndLeavesNothing)
{
    const auto [source, persistent, side] = GetParam();
    const server_t server({.num_npus = 2, .stepped = true});
    disarm();
    const zan_table_def_t *def = table(source.table);
    const zan_table_def_t *child_def = table(source.child);
    const uint64_t handle = run(with_key(def, 1)).handle;
    ASSERT_NO_FATAL_FAILURE(make_children(def, child_def, handle));
    const residue_t before = residue();
    uint32_t n = 1;
    for (point_t failed = RESOLVE_HOOK; failed != NONE; n++) {
        ASSERT_LT(n, 200u) << "the sweep does not come to its end";
        SCOPED_TRACE(n);
        const uint64_t visited = walk_counts().updates;
        arm(n, persistent, side);
        const zan_rcode rc = run(change(def, n)).rc;
        settle();
        failed = fired();
        disarm();
        EXPECT_EQ(residue(), before) << to_string(residue()) << " behind point " << failed;
        const uint64_t updates = walk_counts().updates - visited;
        EXPECT_TRUE(updates == children || (updates == 0 && failed != NONE && rc != EOK))
            << updates << " updates behind point " << failed;
        EXPECT_TRUE(rc == EOK || persistent || rc == code_of(failed)) << std::hex << rc;
        for (uint32_t id = 1; id <= children; id++)
            EXPECT_EQ(updates_of(child_def, id), walk_counts().updates / children);
        if (failed == WALK) {
            EXPECT_EQ(rc, walk_rc);
            EXPECT_GE(zan_dpd_get_bwalk_stats(def->id)->num_failed_walks, 1u);
        }
        if (failed == NONE || failed == EVENT_HOOK) {
            EXPECT_EQ(rc, (zan_rcode)EOK);
        }
        if (updates == 0) {
            EXPECT_TRUE(persistent || stops(failed)) << failed;
        }
    }
    EXPECT_GT(n, 3u) << "nothing was swept";
    EXPECT_EQ(walk_counts().revisits, 0u);
}

static std::string name_of(const testing::TestParamInfo<WalkSweep::ParamType> &tested)
{
    const source_t &source = std::get<0>(tested.param);
    return std::string(source.table) + (std::get<1>(tested.param) ? "_persistent" : "_transient") +
           (std::get<2>(tested.param) == ON_NPUS ? "_npus" : "_dispatcher");
}

/* The first source is written by the dispatcher alone. */
INSTANTIATE_TEST_SUITE_P(Sources, WalkSweep,
                         testing::Combine(testing::ValuesIn(sources), testing::Bool(),
                                          testing::Values(ON_DISPATCHER)),
                         name_of);
INSTANTIATE_TEST_SUITE_P(SourcesOnNpus, WalkSweep,
                         testing::Combine(testing::ValuesIn(sources + 1, sources + 3),
                                          testing::Bool(), testing::Values(ON_NPUS)),
                         name_of);
