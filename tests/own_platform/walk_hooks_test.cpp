/* Walks as a platform sees them: events that hooks report, the order of post-processing, forcing by
 * source, tables that do not paint, and FRR turns in the middle of a walk. */
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "host_control.h"
#include "object_maker.h"
#include "thread_control.h"
#include "walk_counts.h"
#include "zan_tables_private.h"

using namespace bench;

namespace
{

std::vector<std::string> seen; /* hook calls, in order */
uint32_t failing_rt;
uint16_t rt_action = ZAN_BWALK_GO_ON;
std::function<void(zan_delta_lists_t *)> on_nh_update, on_ca_update;
std::function<void(const zan_table_base_st *)> on_if_resolve;
std::function<void(kor_dpd_event_ctx_t *)> on_async_event; /* an NPU thread's */
std::function<void(zan_delta_lists_t *)> on_async_update;  /* an NPU thread's */

uint32_t id_of(const zan_table_base_st *obj)
{
    return *(const uint32_t *)zan_obj_key(zan_table_defs[obj->table_id], obj);
}

zan_rcode note(const char *what, const zan_table_base_st *obj)
{
    seen.push_back(std::string(what) + " " + kor_table_name_get(obj->table_id) + " " +
                   std::to_string(id_of(obj)));
    return EOK;
}

/* One turn of an FRR thread, at the first yield behind the call of ask(). */
class frr_turn_t
{
public:
    explicit frr_turn_t(std::function<void()> turn)
        : thread_([this, turn] {
              zan_thread_set_role(ZAN_THREAD_FRR, -1);
              while (!asked_.load())
                  std::this_thread::yield();
              zan_frr_enter();
              turn();
              zan_frr_leave();
          })
    {
        zan_dispatcher_enter();
    }
    ~frr_turn_t()
    {
        asked_ = true;
        zan_dispatcher_leave();
        thread_.join();
    }
    void ask()
    {
        asked_ = true;
        while (zan_host_frr_waiting() == 0)
            std::this_thread::yield();
    }

private:
    std::atomic<bool> asked_{false};
    std::thread thread_;
};

} // namespace

extern "C" {
void zan_walk_events_test_nh_push_nh_e1(kor_dpd_event_ctx_t *walk_ctx);
void zan_walk_events_test_nh_push_nh_e3(kor_dpd_event_ctx_t *walk_ctx);
void zan_walk_events_testdynhg_push_dynhg_e3(kor_dpd_event_ctx_t *walk_ctx);
void zan_walk_events_testdynhg_push_dynhg_e4(kor_dpd_event_ctx_t *walk_ctx);
void zan_walk_events_testca_push_testca_evt_pp_push(kor_dpd_event_ctx_t *walk_ctx);

ZAN_EXPORT zan_rcode srv_test_if_resolve(zan_table_base_st *obj, zan_table_base_st *)
{
    if (on_if_resolve)
        on_if_resolve(obj);
    return EOK;
}

ZAN_EXPORT zan_rcode srv_test_nh_update(zan_delta_lists_t *delta)
{
    if (on_nh_update)
        on_nh_update(delta);
    return EOK;
}

ZAN_EXPORT zan_rcode srv_test_nhg_update(zan_delta_lists_t *delta)
{
    return note("update", delta->new_obj);
}

/* Each NPU's thread reports another bit. */
ZAN_EXPORT zan_rcode srv_testdynhg_update(zan_delta_lists_t *delta)
{
    if (zan_thread_npu() % 2 == 0)
        zan_walk_events_testdynhg_push_dynhg_e3(delta->walk_ctx);
    else
        zan_walk_events_testdynhg_push_dynhg_e4(delta->walk_ctx);
    return EOK;
}

ZAN_EXPORT zan_rcode srv_testda_update(zan_delta_lists_t *delta)
{
    return note("update", delta->new_obj);
}

ZAN_EXPORT zan_rcode srv_testca_update(zan_delta_lists_t *delta)
{
    if (on_ca_update)
        on_ca_update(delta);
    return note("update", delta->new_obj);
}

ZAN_EXPORT zan_rcode srv_testda_event(kor_dpd_event_ctx_t *, zan_table_base_st *obj)
{
    return note("event", obj);
}

ZAN_EXPORT zan_rcode srv_testca_event(kor_dpd_event_ctx_t *, zan_table_base_st *obj)
{
    return note("event", obj);
}

ZAN_EXPORT zan_rcode srv_testda_post_update_rdesc(zan_rdesc_hook_ctx_t *ctx)
{
    return note("done", ctx->old_obj);
}

ZAN_EXPORT zan_rcode srv_testca_post_update_rdesc(zan_rdesc_hook_ctx_t *ctx)
{
    return note("done", ctx->old_obj);
}

ZAN_EXPORT zan_rcode srv_testasyncnhg_update(zan_delta_lists_t *delta)
{
    if (on_async_update)
        on_async_update(delta);
    return EOK;
}

ZAN_EXPORT zan_rcode srv_testasyncnhg_event(kor_dpd_event_ctx_t *walk_ctx, zan_table_base_st *)
{
    if (on_async_event)
        on_async_event(walk_ctx);
    return EOK;
}

ZAN_EXPORT zan_rcode srv_testasyncnhg_post_update_rdesc(zan_rdesc_hook_ctx_t *ctx)
{
    return note("done", ctx->old_obj);
}

ZAN_EXPORT zan_rcode srv_test_rt_resolve(zan_table_base_st *obj, zan_table_base_st *)
{
    return id_of(obj) == failing_rt ? 0x4fa0beef : 0;
}

ZAN_EXPORT zan_rcode srv_test_rt_async_bwalk_error_handling(void *ctx, uint16_t *action)
{
    const auto *walk_ctx = (const kor_dpd_event_ctx_t *)ctx;
    EXPECT_EQ(id_of(walk_ctx->current_obj), failing_rt);
    EXPECT_EQ(walk_ctx->response->err_code, 0x4fa0beefu);
    *action = rt_action;
    return EOK;
}

ZAN_EXPORT uint8_t srv_test_nh_color_using_fwalk(const zan_table_base_st *)
{
    return 0;
}
}

TEST(WalkHooks, APlatformReportsAChangeThatNoAttributeShows)
{
    const server_t server({});
    create("test_if id=1 a=1");
    create("test_nh id=1 next_obj.test_if.id=1");
    const uint64_t below = create("test_nhg id=1 backup_obj.test_nh.id=1").handle;
    on_nh_update = [](zan_delta_lists_t *delta) {
        zan_walk_events_test_nh_push_nh_e1(delta->walk_ctx);
    };
    EXPECT_EQ(update("test_nh id=1 b=7").rc, (zan_rcode)EOK);
    EXPECT_EQ(stored(below)->dpd.bwalk_update_count, 1);
    /* Inside a walk the child's report is taken on by the walk that runs. */
    EXPECT_EQ(update("test_if id=1 a=2 change_0=1").rc, (zan_rcode)EOK);
    EXPECT_EQ(stored(below)->dpd.bwalk_update_count, 2);
    EXPECT_EQ(walk_counts().walks, 2u);
    /* An update that ends as unchanged asks no hook. */
    EXPECT_EQ(update("test_nh id=1 b=7").rc, (zan_rcode)EOK);
    EXPECT_EQ(stored(below)->dpd.bwalk_update_count, 2);
    on_nh_update = nullptr;
}

TEST(WalkHooks, NpuThreadsReportAtOnce)
{
    const server_t server({.num_npus = 8});
    create("testdynhg id=1");
    const uint64_t below =
        create("test_rt vrf_id=1 prefix=10.0.0.0/8 next_obj.testdynhg.id=1").handle;
    for (uint32_t value = 1; value <= 20; value++)
        EXPECT_EQ(update("testdynhg id=1 a=" + std::to_string(value)).rc, (zan_rcode)EOK);
    EXPECT_EQ(stored(below)->dpd.bwalk_update_count, 20);
    const zan_bwalk_stats_st *source = zan_dpd_get_bwalk_stats(table("testdynhg")->id);
    EXPECT_EQ(source->num_evt_pushed, 20u) << "the one that a table wants";
    EXPECT_EQ(source->num_evt_pruned, 20u) << "the one that none wants";
}

/* The first next hop forces what is below it, the second and the interface only ask. */
TEST(WalkHooks, OneSourceDoesNotForceForAnother)
{
    const server_t server({});
    create("test_if id=1 a=1");
    create("test_nh id=1 next_obj.test_if.id=1");
    create("test_nh id=2 next_obj.test_if.id=1");
    create("test_nhg id=1 backup_obj.test_nh.id=1");
    create("test_nhg id=2 backup_obj.test_nh.id=2");
    create("test_nhg id=3 backup_obj.test_nh.id=2 num_elements=1 test_nh[0].id=1");
    seen.clear();
    on_nh_update = [](zan_delta_lists_t *delta) {
        if (id_of(delta->new_obj) == 1)
            zan_walk_events_test_nh_push_nh_e1(delta->walk_ctx);
        else
            zan_walk_events_test_nh_push_nh_e3(delta->walk_ctx);
    };
    EXPECT_EQ(update("test_if id=1 a=2 change_3=1").rc, (zan_rcode)EOK);
    on_nh_update = nullptr;
    EXPECT_EQ(seen, (std::vector<std::string>{"update test_nhg 1", "update test_nhg 3"}));
    const zan_bwalk_stats_st *nhg = zan_dpd_get_bwalk_stats(table("test_nhg")->id);
    EXPECT_EQ(nhg->num_child_updates, 3u);
    EXPECT_EQ(nhg->num_child_forced, 2u);
    EXPECT_EQ(named("test_nhg id=2")->dpd.bwalk_update_count, 1);
}

TEST(WalkHooks, PostProcessingGoesBackwardsAndEndsWithTheSource)
{
    const server_t server({});
    create("testda id=1");
    create("testca id=1 next_obj.testda.id=1");
    create("testca id=2 next_obj.testda.id=1");
    const residue_t before = residue();
    seen.clear();
    on_ca_update = [](zan_delta_lists_t *delta) {
        zan_walk_events_testca_push_testca_evt_pp_push(delta->walk_ctx);
    };
    EXPECT_EQ(update("testda id=1 change_0=1").rc, (zan_rcode)EOK);
    on_ca_update = nullptr;
    EXPECT_EQ(seen,
              (std::vector<std::string>{"update testda 1", "update testca 1", "update testca 2",
                                        "event testca 2", "done testca 2", "event testca 1",
                                        "done testca 1", "event testda 1", "done testda 1"}));
    seen.clear();
    EXPECT_EQ(update("testda id=1 a=5").rc, (zan_rcode)EOK);
    EXPECT_EQ(seen, (std::vector<std::string>{"update testda 1", "done testda 1"}))
        << "without the event the update ends by itself";
    EXPECT_EQ(residue(), before) << to_string(residue());
}

/* The copies of an asynchronous write are with the NPU threads; their hook comes when they go. */
TEST(WalkHooks, AsynchronousCopiesAreFinishedOnceWhenTheyComeHome)
{
    const server_t server({.num_npus = 2});
    create("testasyncnhg id=1");
    create("test_rt vrf_id=1 prefix=10.0.0.0/8 next_obj.testasyncnhg.id=1");
    const residue_t before = residue();
    seen.clear();
    zan_host_exec_q_hold(3);
    EXPECT_EQ(update("testasyncnhg id=1 change_0=1").rc, (zan_rcode)EOK);
    EXPECT_EQ(seen.size(), 0u);
    zan_host_exec_q_hold(0);
    EXPECT_EQ(residue(), before) << to_string(residue());
    EXPECT_EQ(seen, (std::vector<std::string>{"done testasyncnhg 1"}));
}

/* What the NPU threads have of a walk, they have until they are through with it. */
TEST(WalkHooks, NpuThreadsReadTheirContextAndCopiesWhileTheWalkGoesOn)
{
    const server_t server({.num_npus = 2});
    create("testasyncnhg id=1");
    const uint32_t children = 200; /* enough for the update to be with the NPUs before the event */
    for (uint32_t i = 1; i <= children; i++)
        create("test_rt vrf_id=" + std::to_string(i) +
               " prefix=10.0.0.0/8 next_obj.testasyncnhg.id=1");
    settle();
    std::atomic<uint32_t> events{0}, listed{0}, retries{0};
    on_async_update = [&](zan_delta_lists_t *delta) {
        for (uint32_t i = 0; i < 10'000; i++)
            retries += zan_obj_base_get_retry_mode(delta->old_obj);
    };
    on_async_event = [&](kor_dpd_event_ctx_t *walk_ctx) {
        events += zan_walk_ctx_get_num_events(walk_ctx);
        for (const zan_bwalk_event_data *e = dpd_get_first_event(walk_ctx->event_list); e;
             e = dpd_get_next_event(walk_ctx->event_list, e))
            listed++;
    };
    EXPECT_EQ(update("testasyncnhg id=1 change_0=1").rc, (zan_rcode)EOK);
    settle();
    zan_host_exec_q_hold(3);
    EXPECT_EQ(update("testasyncnhg id=1 change_0=2").rc, (zan_rcode)EOK);
    zan_host_exec_q_hold(0);
    settle();
    on_async_update = nullptr;
    on_async_event = nullptr;
    EXPECT_EQ(events, 4u) << "one event, two NPUs, two updates";
    EXPECT_EQ(listed, 4u);
    EXPECT_EQ(retries, 0u);
}

/* An asynchronous table may have the walk end at the failure of a child. */
TEST(WalkHooks, ATableDecidesWhetherAWalkGoesOnBehindAFailure)
{
    const server_t server({});
    create("test_if id=1");
    create("test_nh id=1 next_obj.test_if.id=1");
    std::vector<uint64_t> routes;
    for (uint32_t id = 1; id <= 4; id++)
        routes.push_back(create("test_rt vrf_id=" + std::to_string(id) +
                                " prefix=10.0.0.0/8 next_obj.test_nh.id=1")
                             .handle);
    failing_rt = 2;
    EXPECT_EQ(update("test_if id=1 change_1=1").rc, 0x4fa0beefu);
    EXPECT_EQ(stored(routes[3])->dpd.bwalk_update_count, 1);
    rt_action = ZAN_BWALK_STOP;
    EXPECT_EQ(update("test_if id=1 change_1=2").rc, 0x4fa0beefu);
    EXPECT_EQ(stored(routes[0])->dpd.bwalk_update_count, 2);
    EXPECT_EQ(stored(routes[2])->dpd.bwalk_update_count, 1);
    EXPECT_EQ(stored(routes[3])->dpd.bwalk_update_count, 1);
    rt_action = ZAN_BWALK_GO_ON;
    failing_rt = 0;
}

/* A table whose objects do not paint: they have no colour of their own, and pass on what is needed
 * below them. */
TEST(WalkHooks, AnObjectThatDoesNotPaintCarriesWhatIsNeededBelow)
{
    const server_t server({});
    const uint64_t nif = create("test_if id=1").handle;
    const uint64_t other = create("test_if id=2").handle;
    const uint64_t nh = create("test_nh id=1 test_if.id=1").handle;
    EXPECT_FALSE(stored(nh)->flag & ZAN_FLAG_FWALK_COLORED);
    EXPECT_EQ(zan_color_get_self_mask(stored(nh)), 0);
    EXPECT_EQ(zan_color_get_self_mask(stored(nif)), 0);
    const uint64_t nhg = create("test_nhg id=1 backup_obj.test_nh.id=1").handle;
    EXPECT_TRUE(stored(nhg)->flag & ZAN_FLAG_FWALK_COLORED);
    for (const uint64_t handle : {nhg, nh, nif})
        EXPECT_EQ(zan_color_get_self_mask(stored(handle)), 3) << "green and red";
    EXPECT_EQ(update("test_nh id=1 test_if.id=2").rc, (zan_rcode)EOK);
    EXPECT_EQ(zan_color_get_self_mask(stored(nif)), 0);
    for (const uint64_t handle : {nhg, nh, other})
        EXPECT_EQ(zan_color_get_self_mask(stored(handle)), 3);
}

namespace
{

void make_children(uint32_t count)
{
    create("test_if id=1");
    create("test_if id=2");
    for (uint32_t id = 1; id <= count; id++)
        create("test_nh id=" + std::to_string(id) + " test_if.id=1" +
               (id == 5 ? " next_obj.test_if.id=2" : ""));
}

uint32_t updates_of(uint32_t id)
{
    return named("test_nh id=" + std::to_string(id))->dpd.bwalk_update_count;
}

/* Ask for the turn in the middle of the second child's update, so that it comes at the yield of the
 * third. */
void ask_in_second_child(frr_turn_t *frr)
{
    on_nh_update = [frr](zan_delta_lists_t *delta) {
        if (id_of(delta->new_obj) == 2 && zan_core_is_dispatch_thread())
            frr->ask();
    };
}

} // namespace

TEST(WalkHooks, AWalkSurvivesWhatAnFrrTurnDoesInTheMiddle)
{
    const server_t server({});
    make_children(10);
    const residue_t before = residue();
    {
        frr_turn_t frr([] {
            EXPECT_EQ(destroy("test_nh id=3").rc, (zan_rcode)EOK) << "whose update it is";
            EXPECT_EQ(destroy("test_nh id=4").rc, (zan_rcode)EOK) << "waiting";
            EXPECT_EQ(update("test_nh id=6 test_if.id=2").rc, (zan_rcode)EOK) << "waiting, moves";
            EXPECT_EQ(update("test_if id=2 change_1=1").rc, (zan_rcode)EOK) << "a walk of its own";
            create("test_nh id=11 test_if.id=1");
        });
        ask_in_second_child(&frr);
        EXPECT_EQ(update("test_if id=1 change_1=1").rc, (zan_rcode)EOK);
        on_nh_update = nullptr;
    }
    EXPECT_EQ(updates_of(5), 2u) << "below both";
    EXPECT_EQ(updates_of(6), 2u);
    for (const uint32_t id : {1, 2, 7, 8, 9, 10})
        EXPECT_EQ(updates_of(id), 1u) << id;
    EXPECT_EQ(updates_of(11), 0u);
    const walk_counts_t counts = walk_counts();
    EXPECT_EQ(counts.walks, 2u);
    EXPECT_EQ(counts.failed, 0u);
    EXPECT_EQ(counts.revisits, 0u);
    EXPECT_EQ(destroy("test_nh id=11").rc, (zan_rcode)EOK);
    create("test_nh id=3 test_if.id=1");
    create("test_nh id=4 test_if.id=1");
    EXPECT_EQ(residue(), before) << to_string(residue());
}

/* The group waits with what both next hops have pushed. */
TEST(WalkHooks, AWalkPassesOverWhatSeveralHaveReached)
{
    const server_t server({});
    make_children(4);
    create("test_nhg id=1 num_elements=2 test_nh[0].id=1 test_nh[1].id=2");
    {
        frr_turn_t frr([] { EXPECT_EQ(destroy("test_nhg id=1").rc, (zan_rcode)EOK); });
        on_nh_update = [&frr](zan_delta_lists_t *delta) {
            zan_walk_events_test_nh_push_nh_e1(delta->walk_ctx);
            if (id_of(delta->new_obj) == 2)
                frr.ask();
        };
        EXPECT_EQ(update("test_if id=1 change_1=1").rc, (zan_rcode)EOK);
        on_nh_update = nullptr;
    }
    EXPECT_EQ(zan_dpd_get_bwalk_stats(table("test_nhg")->id)->num_child_updates, 0u);
    EXPECT_EQ(updates_of(4), 1u);
}

/* The update runs on the new object, and what it pushes goes on below that. */
TEST(WalkHooks, AWalkTakesUpAChildThatIsMadeAnew)
{
    const server_t server({});
    make_children(4);
    {
        frr_turn_t frr([] {
            EXPECT_EQ(destroy("test_nh id=3").rc, (zan_rcode)EOK);
            create("test_nh id=3 test_if.id=1");
            create("test_nhg id=3 backup_obj.test_nh.id=3");
        });
        on_nh_update = [&frr](zan_delta_lists_t *delta) {
            if (id_of(delta->new_obj) == 2)
                frr.ask();
            if (id_of(delta->new_obj) == 3)
                zan_walk_events_test_nh_push_nh_e1(delta->walk_ctx);
        };
        EXPECT_EQ(update("test_if id=1 change_1=1").rc, (zan_rcode)EOK);
        on_nh_update = nullptr;
    }
    EXPECT_EQ(named("test_nhg id=3")->dpd.bwalk_update_count, 1);
    EXPECT_EQ(walk_counts().failed, 0u);
}

TEST(WalkHooks, AWalkSurvivesTheDeleteOfAllItsObjects)
{
    const server_t server({});
    make_children(6);
    {
        frr_turn_t frr([] {
            for (uint32_t id = 6; id >= 1; id--)
                EXPECT_EQ(destroy("test_nh id=" + std::to_string(id)).rc, (zan_rcode)EOK);
            EXPECT_EQ(destroy("test_if id=1").rc, (zan_rcode)EOK);
        });
        ask_in_second_child(&frr);
        EXPECT_EQ(update("test_if id=1 change_1=1").rc, (zan_rcode)EOK);
        on_nh_update = nullptr;
    }
    EXPECT_EQ(zan_db_count(table("test_nh")->id), 0u);
    EXPECT_EQ(zan_db_count(table("test_if")->id), 1u);
}

/* The second interface has been visited, the sixth waits: both move below others that wait. */
TEST(WalkHooks, AForeignBindMayCauseARevisit)
{
    const server_t server({});
    create("test_if id=1");
    for (uint32_t id = 2; id <= 7; id++)
        create("test_if id=" + std::to_string(id) + " main_if.test_if.id=1");
    const auto updates = [](uint32_t id) {
        return named("test_if id=" + std::to_string(id))->dpd.bwalk_update_count;
    };
    {
        frr_turn_t frr([] {
            EXPECT_EQ(update("test_if id=2 main_if.test_if.id=5").rc, (zan_rcode)EOK);
            EXPECT_EQ(update("test_if id=6 main_if.test_if.id=7").rc, (zan_rcode)EOK);
        });
        on_if_resolve = [&frr](const zan_table_base_st *obj) {
            if (id_of(obj) == 3 && zan_core_is_dispatch_thread())
                frr.ask();
        };
        EXPECT_EQ(update("test_if id=1 change_3=1").rc, (zan_rcode)EOK);
        on_if_resolve = nullptr;
    }
    EXPECT_EQ(updates(2), 2);
    for (const uint32_t id : {3, 4, 5, 6, 7})
        EXPECT_EQ(updates(id), 1) << id;
    EXPECT_EQ(walk_counts().revisits, 1u);
}

namespace
{

uint64_t gone;
uint32_t with_source_gone, without_source;

void look_at_sources(uint8_t *, zan_event_filter_t *filter)
{
    if (filter->event->table_id != table("test_nh")->id)
        return;
    with_source_gone += filter->event->source_obj && (uint64_t)filter->event->source_obj == gone;
    without_source += !filter->event->source_obj;
}

} // namespace

/* An object pushes on its visit and on its revisit, and is deleted: both events lose their source.
 */
TEST(WalkHooks, EventsOutliveTheirSource)
{
    const server_t server({});
    create("test_if id=1");
    const uint64_t twice = create("test_nh id=1 test_if.id=1").handle;
    create("test_nh id=2 test_if.id=1");
    create("test_nh id=9");
    for (const char *id : {"2", "3", "4"})
        create(std::string("test_if id=") + id + " main_if.test_if.id=1");
    create("test_nhg id=1 backup_obj.test_nh.id=1");
    create("test_rt vrf_id=1 prefix=10.0.0.0/8 next_obj.test_nhg.id=1");
    zan_srv_table_props_get(table("test_rt")->id)->event_filter = look_at_sources;
    {
        frr_turn_t second([twice] {
            EXPECT_EQ(update("test_nhg id=1 backup_obj.test_nh.id=9").rc, (zan_rcode)EOK);
            EXPECT_EQ(destroy("test_nh id=1").rc, (zan_rcode)EOK);
            gone = twice;
        });
        frr_turn_t first([] { EXPECT_EQ(update("test_nh id=1 test_if.id=4").rc, (zan_rcode)EOK); });
        uint32_t writes = 0;
        on_nh_update = [&](zan_delta_lists_t *delta) {
            if (!zan_core_is_dispatch_thread())
                return;
            if (id_of(delta->new_obj) == 2)
                first.ask();
            if (id_of(delta->new_obj) != 1)
                return;
            zan_walk_events_test_nh_push_nh_e1(delta->walk_ctx);
            if (++writes == 2)
                second.ask();
        };
        EXPECT_EQ(update("test_if id=1 change_1=1 change_3=1").rc, (zan_rcode)EOK);
        on_nh_update = nullptr;
    }
    EXPECT_EQ(walk_counts().revisits, 1u);
    EXPECT_EQ(with_source_gone, 0u);
    EXPECT_EQ(without_source, 2u);
}
