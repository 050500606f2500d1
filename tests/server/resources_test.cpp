/* Resource accounting: what each write says to the resource layer, and what the layer makes of it.
 * The count of the simulated NPUs is what occupancy is held against. */
#include <gtest/gtest.h>

#include "host_resources.h"
#include "npu_sim_control.h"
#include "object_maker.h"
#include "table_crud_ctx.h"

using namespace bench;

namespace
{

constexpr uint32_t npus = 2;

zan_host_resource_st lpm(uint32_t npu)
{
    zan_host_resource_st r;
    zan_host_resource_get(npu, ZAN_HWDB_LPM, &r);
    return r;
}

object_t route(uint32_t id, zan_table_operation_et operation = ZAN_TABLE_CREATE)
{
    return with_key(table("iproute"), id, operation);
}

/* How often a text stands in the messages to the operator since the last call. */
class operator_t
{
public:
    operator_t()
    {
        testing::internal::CaptureStderr();
    }
    ~operator_t()
    {
        testing::internal::GetCapturedStderr();
    }
    uint32_t told(const std::string &what)
    {
        settle();
        const std::string text = testing::internal::GetCapturedStderr();
        testing::internal::CaptureStderr();
        uint32_t n = 0;
        for (size_t at = text.find(what); at != text.npos; at = text.find(what, at + 1))
            n++;
        return n;
    }
};

/* Records of a table's class that hold this text. */
uint32_t traced(const zan_table_def_t *def, uint32_t level, const std::string &text)
{
    std::vector<zan_trace_record_st> records(65536);
    const uint32_t n = zan_trace_read(0, records.data(), (uint32_t)records.size());
    uint32_t found = 0;
    for (uint32_t i = 0; i < n; i++)
        found += records[i].trace_class == def->id * 3 + level - 1 && records[i].text == text + " ";
    return found;
}

} // namespace

/* With its NPUs named, an object of every table takes an entry of its database on each, and gives
 * it back. */
TEST(Resources, EveryTableOccupiesWhatTheNpusHold)
{
    const server_t server({.num_npus = npus});
    for (const zan_table_def_t *def : zan_table_defs) {
        if (def->create_reject)
            continue;
        object_t obj = with_key(def, 1);
        if (def->table_class != 0) {
            *zan_obj_npu_mask_req(def, obj.get()) = 3;
            *zan_obj_npu_mask_req_set(def, obj.get()) = 1;
        }
        zan_host_resource_st before, after;
        zan_host_resource_get(1, def->hwdb, &before);
        EXPECT_EQ(run(obj).rc, (zan_rcode)EOK) << def->name;
        settle();
        zan_host_resource_get(1, def->hwdb, &after);
        for (uint32_t npu = 0; npu < npus; npu++)
            EXPECT_EQ(zan_host_resource_used_by(npu, def->id), npu_sim_count(npu, def->id))
                << def->name << " on NPU " << npu;
        EXPECT_EQ(after.used, before.used + npu_sim_count(1, def->id)) << def->name;
        EXPECT_EQ(run(with_key(def, 1, ZAN_TABLE_DELETE)).rc, (zan_rcode)EOK) << def->name;
        settle();
        zan_host_resource_get(1, def->hwdb, &after);
        EXPECT_EQ(after.used, before.used) << def->name;
        EXPECT_EQ(zan_host_resource_used_by(1, def->id), 0u) << def->name;
    }
}

/* Each state is entered at one figure and left below another, and told once each way. */
TEST(Resources, ADatabaseTellsWhenItRunsFullAndWhenThereIsRoom)
{
    const server_t server({.num_npus = npus});
    ASSERT_TRUE(zan_host_resource_set_capacity(0, ZAN_HWDB_LPM, 100));
    const struct {
        uint32_t routes; /* stored after the step */
        uint32_t state;
        const char *told; /* once in this step; null: nothing is */
    } steps[] = {
        {79, ZAN_RESOURCE_GREEN, nullptr},
        {80, ZAN_RESOURCE_YELLOW, "lpm of NPU 0 is yellow: 80 of 100"},
        {76, ZAN_RESOURCE_YELLOW, nullptr},
        {94, ZAN_RESOURCE_YELLOW, nullptr},
        {98, ZAN_RESOURCE_RED, "lpm of NPU 0 is red: 95 of 100"},
        {90, ZAN_RESOURCE_RED, nullptr},
        {89, ZAN_RESOURCE_YELLOW, "lpm of NPU 0 is yellow: 89 of 100"},
        {10, ZAN_RESOURCE_GREEN, "lpm of NPU 0 is green: 74 of 100"},
    };
    operator_t all;
    uint32_t stored = 0, crossings = 0;
    for (const auto &step : steps) {
        while (stored < step.routes)
            EXPECT_EQ(run(route(++stored)).rc, (zan_rcode)EOK);
        while (stored > step.routes)
            EXPECT_EQ(run(route(stored--, ZAN_TABLE_DELETE)).rc, (zan_rcode)EOK);
        const std::string told = step.told ? step.told : "Hardware database";
        EXPECT_EQ(all.told(told), step.told ? 1u : 0u) << step.routes;
        crossings += step.told != nullptr;
        const zan_host_resource_st r = lpm(0);
        EXPECT_EQ(r.used, step.routes);
        EXPECT_EQ(r.state, step.state) << step.routes;
        EXPECT_EQ(r.crossings, crossings) << step.routes;
    }
    EXPECT_EQ(lpm(0).high_water, 98u);
    EXPECT_EQ(lpm(1).state, (uint32_t)ZAN_RESOURCE_GREEN) << "without a limit";
    EXPECT_EQ(lpm(1).used, 10u);

    /* The figures may change while it is in use, and the state follows. */
    const zan_host_thresholds_st low = {5, 4, 50, 40}, wrong = {50, 40, 30, 20};
    EXPECT_TRUE(zan_host_resource_set_thresholds(ZAN_HWDB_LPM, &low));
    EXPECT_EQ(lpm(0).state, (uint32_t)ZAN_RESOURCE_YELLOW);
    EXPECT_FALSE(zan_host_resource_set_thresholds(ZAN_HWDB_LPM, &wrong));
    EXPECT_TRUE(zan_host_resource_set_capacity(0, ZAN_HWDB_LPM, 12));
    EXPECT_EQ(lpm(0).state, (uint32_t)ZAN_RESOURCE_RED);
    EXPECT_FALSE(zan_host_resource_set_capacity(0, ZAN_HWDB_NONE, 12));
    EXPECT_FALSE(zan_host_resource_set_capacity(0, ZAN_HWDB_LPM, UINT64_MAX));
    EXPECT_TRUE(zan_host_resource_set_capacity(0, ZAN_HWDB_LPM, UINT64_MAX / 100));
    EXPECT_EQ(lpm(0).state, (uint32_t)ZAN_RESOURCE_GREEN);
}

/* What hardware refuses is not occupied, whether the object stays or not; deletes bring room. */
TEST(Resources, AFullDatabaseRefusesAndIsNotOverfull)
{
    const server_t server({.num_npus = npus});
    for (uint32_t npu = 0; npu < npus; npu++) {
        npu_sim_set_db_capacity(npu, ZAN_HWDB_LPM, 50);
        npu_sim_set_db_capacity(npu, ZAN_HWDB_EXACT_MATCH, 3);
    }
    zan_host_resource_set_capacity(ZAN_MAX_NPUS, ZAN_HWDB_LPM, 50);
    for (uint32_t id = 1; id <= 60; id++)
        EXPECT_EQ(run(route(id)).rc, (zan_rcode)EOK) << "nobody waits for the hardware";
    settle();
    for (uint32_t npu = 0; npu < npus; npu++) {
        EXPECT_EQ(npu_sim_db_count(npu, ZAN_HWDB_LPM), 50u);
        EXPECT_EQ(lpm(npu).used, 50u);
    }
    EXPECT_EQ(zan_db_count(table("iproute")->id), 60u);
    for (uint32_t id = 1; id <= 5; id++)
        EXPECT_EQ(run(with_key(table("testca"), id)).rc, id <= 3 ? (zan_rcode)EOK : NPU_SIM_RC_FULL)
            << id;
    EXPECT_EQ(zan_host_resource_used_by(0, table("testca")->id), 3u);
    EXPECT_EQ(run(with_key(table("testca"), 1, ZAN_TABLE_DELETE)).rc, (zan_rcode)EOK);
    EXPECT_EQ(run(with_key(table("testca"), 4)).rc, (zan_rcode)EOK);
}

/* The update of a route gives an entry back on each NPU, though the hardware refuses it, and though
 * the route stays; the repeat of a write does not. */
TEST(Resources, AnUpdateOfARouteReleases)
{
    const server_t server({.num_npus = npus});
    for (uint32_t id = 1; id <= 4; id++)
        run(route(id));
    const npu_sim_failure_t refused = {
        table("iproute")->id, NPU_SIM_ANY, ZAN_TABLE_UPDATE, 1, 0, 0x4fa01234};
    npu_sim_fail(&refused);
    object_t change = route(1, ZAN_TABLE_UPDATE);
    fill_attributes(table("iproute"), change.get(), 1);
    EXPECT_EQ(run(change).rc, (zan_rcode)EOK);
    change->flag |= ZAN_FLAG_RETRY_MODE;
    EXPECT_EQ(run(change).rc, (zan_rcode)EOK);
    settle();
    for (uint32_t npu = 0; npu < npus; npu++) {
        EXPECT_EQ(lpm(npu).used, 3u);
        EXPECT_EQ(npu_sim_db_count(npu, ZAN_HWDB_LPM), 4u);
    }
}

TEST(Resources, WhatIsMissingIsTracedAndNothingMore)
{
    const server_t server({.num_npus = npus});
    const zan_table_def_t *def = table("iproute");
    run(route(1));
    settle();
    zan_global_ctx_st *ctx = zan_get_global_ctx();
    void **const handles = ctx->hw_resource_list;
    void *const first = handles[0], *const second = handles[1];
    const auto create = [](uint32_t id) {
        EXPECT_EQ(run(route(id)).rc, (zan_rcode)EOK);
        settle();
    };
    handles[1] = nullptr;
    create(2);
    handles[1] = second;
    EXPECT_EQ(lpm(0).used, 2u);
    EXPECT_EQ(lpm(1).used, 1u);
    handles[0] = nullptr;
    create(3);
    handles[0] = first;
    EXPECT_EQ(traced(def, ZAN_TRACE_LEVEL_ERROR,
                     "server_api_iproute_oor_accounting,NULL arch_resources,npu0"),
              npus);
    ctx->hw_resource_list = nullptr;
    create(4);
    ctx->hw_resource_list = handles;
    EXPECT_EQ(traced(def, ZAN_TRACE_LEVEL_ERROR,
                     "server_api_iproute_oor_accounting,NULL hw_resource_list"),
              npus);
    EXPECT_EQ(lpm(0).used, 2u);
    EXPECT_EQ(lpm(1).used, 1u);
}
