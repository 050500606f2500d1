/* The failure sweep over update and delete: the N-th platform call fails, for N = 1, 2, ... until
 * the flow succeeds. The update moves the object to another parent and changes its member count,
 * where the table has such. The result is success or the code of the step, with exactly what the
 * step leaves behind. */
#include <cstring>
#include <gtest/gtest.h>

#include "fault_points.h"
#include "object_maker.h"

using namespace bench;
using namespace faults;

namespace
{

constexpr uint32_t npus = 2;

enum left_t {
    OLD,       /* the object as it was */
    CHANGED,   /* the new state, or for a delete nothing */
    MEMBERLESS /* the new count of members, none of them, and no parent */
};

struct outcome_t {
    zan_rcode rc;
    left_t left;
    bool ids_released; /* of an object that stays */
};

/* Modes 1 and 2 keep a hook's code from stopping an update or delete. */
bool goes_on(const zan_table_def_t *def)
{
    return def->hw_rc_mode != 0;
}

/* The hardware code: waited for unless the write is asynchronous; mode 2 drops it where the answers
 * of NPU threads are gathered. */
outcome_t hardware(const zan_table_def_t *def)
{
    if (def->write_mode || (def->hw_rc_mode == 2 && def->npu_threads))
        return {EOK, CHANGED, false};
    return {hook_rc, goes_on(def) ? CHANGED : OLD, !goes_on(def)};
}

outcome_t expected(const zan_table_def_t *def, point_t point, uint32_t sends)
{
    switch (point) {
    case RESOLVE_HOOK:
        return {hook_rc, OLD, false};
    case UPDATE_RESERVE_ID:
        return {hook_rc, goes_on(def) ? CHANGED : OLD, false};
    case PRE_UPDATE_RDESC:
        return {goes_on(def) ? (zan_rcode)EOK : hook_rc, goes_on(def) ? CHANGED : OLD, false};
    case SEND: /* the second of an update is the delete of the old members: the first one has taken
                  the copies, and with them what gives the identifiers back */
        return {(zan_rcode)send_rc, OLD, sends == 1};
    case UPDATE_HOOK:
    case DELETE_HOOK:
        return hardware(def);
    case DYN_ALLOC:
        return {ZAN_RC_NO_MEMORY_DB, MEMBERLESS, false};
    case BIND:
        return {ZAN_RC_BIND_REFUSED, CHANGED, false};
    case POST_UPDATE_RDESC:
    case PRE_DELETE_RDESC:
    case POST_DELETE_RDESC:
        return {hook_rc, CHANGED, false};
    case DB_DELETE: /* refused by the database alone: hardware and graph have let go */
        return {ZAN_RC_TABLE_FULL, OLD, true};
    default:
        return {EOK, CHANGED, false};
    }
}

struct subject_t {
    explicit subject_t(const char *name) : def(table(name))
    {
        disarm();
        const std::vector<any_reference_t> all = references(def);
        if (all.empty())
            return;
        ref = all[0];
        for (uint64_t &parent : parents)
            parent = run(with_key(ref.parent_def, ++seed)).handle;
    }
    /* One object with one parent, as a create, as its update, or as its delete. */
    object_t make(zan_table_operation_et operation, uint32_t key, uint32_t values, uint32_t members,
                  uint32_t parent)
    {
        object_t obj = with_key(def, key, operation, def->num_elements_offset ? members : 0);
        if (operation == ZAN_TABLE_DELETE)
            return obj;
        fill_attributes(def, obj.get(), values);
        if (parents[0])
            set_handle(select_reference(def, ref, obj.get()), parents[parent]);
        return obj;
    }
    uint32_t children(uint32_t parent) const
    {
        return parents[parent] ? ((const zan_table_base_st *)parents[parent])->dpd.dpd_child_cnt
                               : 0;
    }
    const zan_table_def_t *def;
    any_reference_t ref = {};
    uint64_t parents[2] = {0, 0};
    uint32_t seed = 100;
};

std::string text_of(const zan_table_def_t *def, uint64_t handle)
{
    static char text[262144];
    zan_obj_print(def, (const zan_table_base_st *)handle, text, sizeof text);
    return text;
}

struct sweep_t {
    subject_t *s;
    zan_table_operation_et operation;
    bool persistent;
    side_t side;
};

void check(const sweep_t &sweep, point_t point, uint32_t sends, const result_t &r, uint64_t handle,
           const std::string &old_text, const residue_t &before, const residue_t &after,
           const std::string &what)
{
    const subject_t &s = *sweep.s;
    EXPECT_EQ(after.heap_blocks, before.heap_blocks) << what;
    if (sweep.persistent) /* a later step fails too, and has the last word */
        return;
    const outcome_t want = expected(s.def, point, sends);
    const bool removed = sweep.operation == ZAN_TABLE_DELETE && want.left == CHANGED;
    EXPECT_EQ(r.rc, want.rc) << what;
    EXPECT_EQ(before.stored - after.stored, removed ? 1u : 0u) << what;
    const uint64_t ids = !s.def->identifiers ? 0 : s.def->identifiers_per_npu_on_update ? npus : 1;
    if (point != UPDATE_RESERVE_ID) {
        EXPECT_EQ(before.identifiers - after.identifiers, removed || want.ids_released ? ids : 0)
            << what;
    }
    if (want.left == OLD) {
        EXPECT_EQ(after.pool_bytes, before.pool_bytes) << what;
    }
    if (want.left == OLD && point != DB_DELETE) {
        EXPECT_EQ(text_of(s.def, handle), old_text) << what;
    }
    if (!s.parents[0])
        return;
    const bool bound_old = want.left == OLD && point != DB_DELETE;
    const bool bound_new =
        sweep.operation == ZAN_TABLE_UPDATE && want.left == CHANGED && point != BIND;
    EXPECT_EQ(s.children(0), bound_old ? 1u : 0u) << what;
    EXPECT_EQ(s.children(1), bound_new ? 1u : 0u) << what;
}

/* An object that a failed delete left behind goes without its hardware. */
void clean_up(subject_t *s, uint32_t key)
{
    run(s->make(ZAN_TABLE_DELETE, key, 0, 2, 0));
    settle();
}

/* An object that has lost its members is read, printed and repaired like any other. */
void use_without_members(subject_t *s, uint32_t key)
{
    object_t read = with_key(s->def, key, ZAN_TABLE_GET, 8);
    read->getopt_mask = ZAN_GETOPT_FORMAT_TEXT;
    EXPECT_EQ(run(read, 262144).rc, (zan_rcode)EOK) << s->def->name;
    const object_t repair = s->make(ZAN_TABLE_UPDATE, key, key + 1000, 3, 1);
    EXPECT_EQ(run(repair).rc, (zan_rcode)EOK) << s->def->name;
    EXPECT_EQ(s->children(1), 1u) << s->def->name;
}

uint32_t run_sweep(const sweep_t &sweep)
{
    subject_t *s = sweep.s;
    uint32_t met = 0, sends = 0;
    for (uint32_t n = 1;; n++) {
        EXPECT_LT(n, 100u) << "the flow never succeeds";
        const uint32_t key = ++s->seed;
        const uint64_t handle = run(s->make(ZAN_TABLE_CREATE, key, key, 2, 0)).handle;
        EXPECT_NE(handle, 0u) << s->def->name;
        const residue_t before = residue();
        const std::string old_text = text_of(s->def, handle);
        const object_t obj = s->make(sweep.operation, key, key + 1000, s->def->resizing ? 3 : 2, 1);
        arm(n, sweep.persistent, sweep.side);
        const result_t r = run(obj);
        settle();
        const point_t point = fired();
        disarm();
        sends += point == SEND;
        check(sweep, point, sends, r, handle, old_text, before, residue(),
              std::string(s->def->name) + ", call " + std::to_string(n) + ", point " +
                  std::to_string(point) + (sweep.persistent ? ", persistent" : ""));
        met |= 1u << point;
        if (point == DYN_ALLOC)
            use_without_members(s, key);
        clean_up(s, key);
        if (point == NONE || n == 100)
            return met;
    }
}

class ChangeSweep : public testing::TestWithParam<std::tuple<const char *, bool>>
{
};

std::string name_of(const testing::TestParamInfo<std::tuple<const char *, bool>> &param)
{
    return std::string(std::get<0>(param.param)) +
           (std::get<1>(param.param) ? "_persistent" : "_transient");
}

bool has(uint32_t met, point_t point)
{
    return met >> point & 1;
}

} // namespace

TEST_P(ChangeSweep, EndsInTheStatedCodeAndResidue)
{
    const server_t server({.num_npus = npus, .stepped = true});
    subject_t s(std::get<0>(GetParam()));
    const bool persistent = std::get<1>(GetParam());
    const uint32_t update = run_sweep({&s, ZAN_TABLE_UPDATE, persistent, ON_DISPATCHER});
    EXPECT_TRUE(has(update, RESOLVE_HOOK) && has(update, PRE_UPDATE_RDESC));
    EXPECT_EQ(has(update, SEND), s.def->npu_threads != 0);
    EXPECT_EQ(has(update, UPDATE_RESERVE_ID), s.def->identifiers != 0);
    EXPECT_EQ(has(update, UPDATE_HOOK), s.def->npu_threads == 0);
    EXPECT_EQ(has(update, DYN_ALLOC), s.def->resizing != 0);
    EXPECT_EQ(has(update, BIND), s.parents[0] != 0);
    EXPECT_EQ(has(update, POST_UPDATE_RDESC), s.def->write_mode == 0);
    const uint32_t removal = run_sweep({&s, ZAN_TABLE_DELETE, persistent, ON_DISPATCHER});
    EXPECT_TRUE(has(removal, PRE_DELETE_RDESC) && has(removal, DB_DELETE));
    EXPECT_EQ(has(removal, SEND), s.def->npu_threads != 0);
    EXPECT_EQ(has(removal, POST_DELETE_RDESC), s.def->write_mode == 0);
    const uint32_t on_npus = run_sweep({&s, ZAN_TABLE_UPDATE, persistent, ON_NPUS}) |
                             run_sweep({&s, ZAN_TABLE_DELETE, persistent, ON_NPUS});
    EXPECT_EQ(has(on_npus, UPDATE_HOOK) && has(on_npus, DELETE_HOOK), s.def->npu_threads != 0);
}

INSTANTIATE_TEST_SUITE_P(Tables, ChangeSweep,
                         testing::Combine(testing::Values("ipnhgroup", "iproute", "mplsnh",
                                                          "sr6sid", "l2brmac", "iptnldecap", "ipnh",
                                                          "redirectvrf", "l2intf"),
                                          testing::Bool()),
                         name_of);
