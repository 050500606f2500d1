/* Colours against a model: after every random create, move and delete each object carries what the
 * definitions ask for, worked out anew over the whole graph. */
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>

#include "dependency_graph.h"
#include "graph_area.h"
#include "object_maker.h"
#include "trace_messages.h"
#include "walk_counts.h"

using namespace bench;

namespace
{

struct object_state_t {
    const zan_table_def_t *def;
    uint32_t id;
};

struct model_t {
    std::map<uint64_t, object_state_t> objects; /* by handle */
    std::mt19937 random;
    uint32_t next_id; /* objects of a table refer to those of it that are older */
};

std::vector<uint64_t> parents_of(uint64_t handle)
{
    std::vector<uint64_t> parents;
    for (uint32_t i = 0; const zan_table_base_st *p = kor_dpd_get_parent_safe(stored(handle), i);
         i++)
        parents.push_back((uint64_t)p);
    return parents;
}

/* Everything above an object, itself included. */
std::set<uint64_t> above(uint64_t handle)
{
    std::set<uint64_t> found = {handle};
    std::vector<uint64_t> todo = {handle};
    while (!todo.empty()) {
        const uint64_t next = todo.back();
        todo.pop_back();
        for (const uint64_t parent : parents_of(next))
            if (found.insert(parent).second)
                todo.push_back(parent);
    }
    return found;
}

/* Each subscription to a colour paints what lies between the object and each source above it. */
std::map<uint64_t, uint8_t> due(const model_t &model)
{
    std::map<uint64_t, uint8_t> masks;
    std::map<uint64_t, std::set<uint64_t>> all_above;
    for (const auto &[handle, object] : model.objects)
        all_above[handle] = above(handle);
    for (const auto &[handle, object] : model.objects)
        for (uint32_t i = 0; i < object.def->num_subscriptions; i++) {
            const zan_subscription_def_t *s = &object.def->subscriptions[i];
            const uint8_t color = zan_table_defs[s->source_table]->events[s->event_id - 1].color;
            for (const uint64_t on_way : all_above[handle])
                for (const uint64_t source : all_above[on_way])
                    if (color && stored(source)->table_id == s->source_table)
                        masks[on_way] |= color;
        }
    return masks;
}

void check(const model_t &model)
{
    std::map<uint64_t, uint8_t> masks = due(model);
    for (const auto &[handle, object] : model.objects)
        ASSERT_EQ(zan_color_get_self_mask(stored(handle)), masks[handle])
            << object.def->name << " " << object.id;
}

/* An object of a table with references, each with even odds, to objects that are there. */
object_t random_object(model_t *model, const zan_table_def_t *def, uint32_t id,
                       zan_table_operation_et operation)
{
    object_t obj = with_key(def, id, operation, def->num_elements_offset ? 1 : 0);
    for (const any_reference_t &ref : references(def)) {
        std::vector<uint64_t> candidates;
        for (const auto &[handle, object] : model->objects)
            if (object.def == ref.parent_def && object.id < id)
                candidates.push_back(handle);
        if (candidates.empty() || model->random() % 2)
            continue;
        zan_ref_value_st *value = select_reference(def, ref, obj.get());
        memset(zan_ref_key(value), 0, zan_table_defs[stored(candidates[0])->table_id]->key_size);
        set_handle(value, candidates[model->random() % candidates.size()]);
    }
    return obj;
}

void step(model_t *model, const std::vector<const zan_table_def_t *> &tables)
{
    const uint32_t what = model->random() % 10;
    if (what < 4 || model->objects.size() < 5) {
        const zan_table_def_t *def = tables[model->random() % tables.size()];
        const uint32_t id = model->next_id++;
        const result_t r = run(random_object(model, def, id, ZAN_TABLE_CREATE));
        ASSERT_EQ(r.rc, (zan_rcode)EOK) << def->name;
        model->objects[r.handle] = {def, id};
        return;
    }
    auto chosen = model->objects.begin();
    std::advance(chosen, model->random() % model->objects.size());
    const object_state_t object = chosen->second;
    if (what < 8) {
        const result_t r = run(random_object(model, object.def, object.id, ZAN_TABLE_UPDATE));
        ASSERT_EQ(r.rc, (zan_rcode)EOK) << object.def->name;
        return;
    }
    if (stored(chosen->first)->dpd.dpd_child_cnt != 0)
        return;
    ASSERT_EQ(run(with_key(object.def, object.id, ZAN_TABLE_DELETE)).rc, (zan_rcode)EOK);
    model->objects.erase(chosen);
}

std::vector<const zan_table_def_t *> tables_of(std::initializer_list<const char *> names)
{
    std::vector<const zan_table_def_t *> defs;
    for (const char *name : names)
        defs.push_back(table(name));
    return defs;
}

class Colors : public testing::TestWithParam<uint32_t>
{
};

} // namespace

TEST_P(Colors, AreThoseOfThePathsToTheirSources)
{
    const server_t server({});
    const struct {
        std::vector<const zan_table_def_t *> tables;
        uint8_t colors; /* that its tables subscribe to */
    } worlds[] = {
        {tables_of({"testethport", "test_if", "test_if", "test_nh", "test_nhg", "test_rt",
                    "testdynhg", "testasyncnhg", "testay", "testifstats"}),
         7},
        {tables_of(
             {"testax", "testef", "testdf", "testcf", "testbf", "testaf", "testay", "test_if"}),
         2},
        {tables_of({"aggport", "aggmember", "tmport", "l2port", "ethport", "l3intf", "l3if",
                    "macllnh", "ipnh", "lagport"}),
         1},
    };
    uint32_t next_id = 1;
    for (const auto &world : worlds) {
        uint8_t seen = 0;
        model_t model = {};
        model.next_id = next_id;
        model.random.seed(GetParam());
        for (uint32_t i = 0; i < 300 && !HasFatalFailure(); i++) {
            step(&model, world.tables);
            check(model);
            for (const auto &[handle, object] : model.objects)
                seen |= zan_color_get_self_mask(stored(handle));
        }
        if (HasFatalFailure())
            return;
        next_id = model.next_id;
        EXPECT_EQ(seen, world.colors);
    }
    EXPECT_EQ(walk_counts().revisits, 0u);
}

INSTANTIATE_TEST_SUITE_P(Seeds, Colors, testing::Range(1u, 7u));

TEST(Color, ThatIsNotDueIsABug)
{
    const server_t server({});
    const uint64_t handle = create("test_if id=1").handle;
    create("testay id=1 test_if.id=1");
    ASSERT_EQ(zan_color_get_self_mask(stored(handle)), 2);
    const auto bugs = [] {
        std::vector<zan_trace_record_st> records(4096);
        const uint32_t n = zan_trace_read(0, records.data(), (uint32_t)records.size());
        uint32_t found = 0;
        for (uint32_t i = 0; i < n; i++)
            found += records[i].trace_class == ZAN_CLASS_ZAN_FILE_A_BUGTRK_ERROR__;
        return found;
    };
    run(object("test_if id=1 a=1", ZAN_TABLE_UPDATE));
    EXPECT_EQ(bugs(), 0u);
    host_area(stored(handle))->color_mask = 1;
    run(object("test_if id=1 a=2", ZAN_TABLE_UPDATE));
    EXPECT_EQ(bugs(), 1u);
}
