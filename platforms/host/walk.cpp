/* The walk: a queue by rank.
 *
 *   from the source, its events reach its children
 *   while an object waits, lowest rank first:
 *       what do its events mean to its table?      (once for each set of events, table and rank)
 *       the child's update, or its skip
 *       what goes on below it, and what it has pushed itself, reach its children
 *   post-processing, in reverse order of the visits
 *
 * An object waits once, however many parents have reached it, with the events of all of them; its
 * rank is above theirs, so that all of them have been visited before it. The cost is that of the
 * links passed over. Only a foreign bind at a yield can bring an object's turn about twice.
 *
 * Forcing belongs to a source: a source whose events have forced an update goes on forcing, and
 * does not make other sources force. So each source's context is asked for itself, and a visit is
 * forced when one of those that need it forces.
 */
#include "walk.h"
#include "clock.h"
#include "graph_area.h"
#include "host_blocks.h"
#include "host_statistics.h"
#include "host_trace.h"
#include "table_properties.h"
#include "walk_queue.h"

#include <cstring>

namespace
{

struct walk_t {
    walk_t *outer; /* that this one's turn has interrupted */
    host_walk_ctx_t *root;
    /* Stands for a source towards a table: the source's own context may be with NPU threads. */
    host_walk_ctx_t asking;
    host_walk_queue_t queue;
    host_event_sets_t sets;
    zan_table_response_st response; /* of contexts whose updates are over */
    zan_rcode rc;                   /* the first failure */
    uint32_t num_visits, num_deleted, num_revisits;
    bool stopped;
};

walk_t *innermost;

/* Whether a direct child table of the table is among those that the event is for. The server has
 * bitmaps of child tables; the definitions are what both are made from. */
bool wanted_below(const zan_table_def_t *def, const host_event_t *event)
{
    for (uint32_t i = 0; i < def->num_children; i++)
        if (event->head.child_bitmap[def->children[i] / 64] >> (def->children[i] % 64) & 1)
            return true;
    return false;
}

/* The events of a list that are left and go on below an object of the table. */
host_event_set_t *going_on(walk_t *walk, const zan_table_def_t *def, host_event_t *const *events,
                           uint32_t count)
{
    auto **kept = (host_event_t **)host_block_alloc(count * sizeof(host_event_t *));
    if (!kept) {
        walk->sets.no_memory = true;
        return nullptr;
    }
    uint32_t num_kept = 0;
    for (uint32_t i = 0; i < count; i++)
        if (!host_event_removed(events[i]) && wanted_below(def, events[i]))
            kept[num_kept++] = events[i];
    host_event_set_t *set = host_event_set(&walk->sets, kept, num_kept);
    host_block_free(kept);
    return set;
}

/* ---- Reaching the children ---- */

host_visit_t *visit_of(walk_t *walk, zan_table_base_st *obj)
{
    host_visit_t *visit = host_walk_queue_reach(&walk->queue, obj);
    if (!visit)
        walk->sets.no_memory = true;
    return visit;
}

void reach(walk_t *walk, zan_table_base_st *child, host_event_set_t *events)
{
    host_event_set_t *passing =
        host_event_set_for_mask(&walk->sets, events, zan_color_get_self_mask(child));
    if (!passing) {
        zan_dpd_get_bwalk_stats(child->table_id)->num_child_color_skips++;
        return;
    }
    host_visit_t *visit = visit_of(walk, child);
    if (!visit)
        return;
    const bool waits = visit->pending.first != nullptr;
    host_set_list_add(&walk->sets, &visit->pending, passing);
    if (waits || host_walk_queue_put(&walk->queue, visit))
        return;
    walk->sets.no_memory = true;
    visit->pending = {};
}

void reach_children(walk_t *walk, const zan_table_base_st *obj, host_event_set_t *events)
{
    if (!events)
        return;
    for (const host_link_t *link = host_first_child(obj); link; link = link->next) {
        __builtin_prefetch(link->next);
        reach(walk, link->ends.child, events);
    }
}

/* ---- What events mean to a table ---- */

/* Ask for the events of one source that are left. */
void ask_source(walk_t *walk, const zan_table_def_t *def, host_table_pass_t *pass,
                host_event_t **events, uint32_t count)
{
    uint32_t left = 0;
    for (uint32_t i = 0; i < count; i++)
        left += !host_event_removed(events[i]);
    if (left == 0)
        return;
    host_walk_ctx_t *source = events[0]->source;
    kor_dpd_event_ctx_t *asking = &walk->asking.head;
    zan_bwalk_event_list_t part = {events, count, 0, &walk->asking};
    asking->current_obj = source->head.current_obj;
    asking->event_list = &part;
    asking->num_events = left;
    asking->child_force_update = source->forces;
    asking->num_evt_force = source->num_forced;
    zan_srv_table_props_get(def->id)->bwalk_child_process_events(nullptr, asking, nullptr);
    source->forces = asking->child_force_update != 0;
    source->num_forced = asking->num_evt_force;
    if (!asking->child_update_needed)
        return;
    pass->needed = 1;
    pass->num_evt_update += asking->num_evt_update;
    if (source->forces) {
        pass->force = 1;
        pass->num_evt_force += source->num_forced;
    }
}

void ask_sources(walk_t *walk, const zan_table_def_t *def, host_event_set_t *set,
                 host_table_pass_t *pass)
{
    pass->needed = pass->force = 0;
    pass->num_evt_update = pass->num_evt_force = 0;
    for (uint32_t first = 0; first < set->count;) {
        uint32_t end = first + 1;
        while (end < set->count && set->events[end]->source == set->events[first]->source)
            end++;
        ask_source(walk, def, pass, &set->events[first], end - first);
        first = end;
    }
    pass->below = going_on(walk, def, set->events, set->count);
}

/* Whether an event is the one that a table's subscription tells of. */
bool is_event(const host_event_t *event, const zan_event_stat_t *stat)
{
    if (event->head.table_id != stat->source_table || event->head.event_id != stat->event_id)
        return false;
    const zan_event_record_t *own = zan_srv_table_props_get(stat->source_table)->event_table;
    return own && own[stat->event_id].child_bitmap == event->head.child_bitmap;
}

bool was_there(const host_event_t *event, const host_table_pass_t *pass)
{
    return event->removed == 0 || event->removed > pass->made_at;
}

/* The visits so far go to the counts of what the table receives. */
void tell_received(const host_event_set_t *set, host_table_pass_t *pass)
{
    const zan_table_def_t *def = zan_table_defs[pass->table_id];
    zan_event_stat_t *stats = zan_srv_table_props_get(def->id)->evt_stats;
    for (uint32_t s = 0; stats && pass->visits && s < def->num_subscriptions; s++)
        for (uint32_t i = 0; i < set->count; i++)
            if (was_there(set->events[i], pass) && is_event(set->events[i], &stats[s]))
                stats[s].count += pass->visits;
    pass->visits = 0;
}

/* Found, or worked out when the rank has not seen it yet; null without memory. */
host_table_pass_t *pass_of(walk_t *walk, host_event_set_t *set, const zan_table_def_t *def,
                           uint64_t rank)
{
    host_table_pass_t *pass = set->passes;
    while (pass && pass->table_id != def->id)
        pass = pass->next;
    if (pass && pass->rank == rank)
        return pass;
    if (!pass) {
        pass = (host_table_pass_t *)host_block_alloc(sizeof(host_table_pass_t));
        if (!pass) {
            walk->sets.no_memory = true;
            return nullptr;
        }
        *pass = {};
        pass->table_id = def->id;
        pass->next = set->passes;
        set->passes = pass;
    }
    tell_received(set, pass);
    pass->rank = rank;
    pass->made_at = host_events_removed();
    ask_sources(walk, def, set, pass);
    return pass;
}

/* ---- One visit ---- */

/* A table may choose to have the walk end at a failure; by default it goes on. */
void child_failed(walk_t *walk, const zan_table_def_t *def, zan_table_base_st *child,
                  host_walk_ctx_t *ctx, zan_rcode rc)
{
    zan_dpd_get_bwalk_stats(def->id)->num_child_failures++;
    if (walk->rc == EOK)
        walk->rc = rc;
    if (!def->write_mode)
        return;
    uint16_t action = ZAN_BWALK_GO_ON;
    walk->response.err_code = rc;
    ctx->head.response = &walk->response;
    ctx->head.current_obj = child;
    zan_srv_table_props_get(def->id)->async_bwalk_error_handling(&ctx->head, &action);
    walk->response.err_code = EOK;
    walk->stopped = action == ZAN_BWALK_STOP;
}

/* The context of a child's update has pushed something, or goes at once. What the update has left
 * in it that was on its frame is replaced. */
host_walk_ctx_t *keep_nested(walk_t *walk, const host_walk_ctx_t *before)
{
    host_walk_ctx_t *nested = walk->root->next_nested;
    if (nested == before)
        return nullptr;
    nested->head.response = &walk->response;
    if (nested->own.count != 0)
        return nested;
    host_walk_ctx_recycle(nested);
    return nullptr;
}

void count_visit(walk_t *walk, host_visit_t *visit, host_table_pass_t *pass)
{
    zan_bwalk_stats_st *stats = zan_dpd_get_bwalk_stats(visit->obj->table_id);
    stats->num_child_forced += pass->needed && pass->force;
    stats->num_revisits += visit->visited;
    walk->num_revisits += visit->visited;
    walk->num_visits++;
    pass->visits++;
    visit->visited = true;
}

zan_rcode update_or_skip(const zan_table_def_t *def, zan_table_base_st *child,
                         const host_table_pass_t *pass, host_walk_ctx_t *ctx)
{
    ctx->head.child_update_needed = pass->needed;
    ctx->head.child_force_update = pass->force;
    ctx->head.num_evt_update = pass->num_evt_update;
    ctx->head.num_evt_force = pass->num_evt_force;
    return zan_srv_table_props_get(def->id)->bwalk_child_callback(child, &ctx->head);
}

/* What the object has pushed itself goes on below it together with what has come to it. */
void go_below(walk_t *walk, host_visit_t *visit, host_event_set_t *passing, host_walk_ctx_t *nested)
{
    const zan_table_def_t *def = zan_table_defs[visit->obj->table_id];
    host_set_list_t below = {passing, nullptr};
    if (nested) {
        nested->next_pushed = visit->pushed;
        visit->pushed = nested;
        if (host_event_set_t *own = going_on(walk, def, nested->own.events, nested->own.count))
            host_set_list_add(&walk->sets, &below, own);
    }
    reach_children(walk, visit->obj, host_set_list_merge(&walk->sets, &below));
}

void visit_child(walk_t *walk, host_visit_t *visit, uint64_t rank)
{
    host_event_set_t *set = host_set_list_merge(&walk->sets, &visit->pending);
    const zan_table_def_t *def = zan_table_defs[visit->obj->table_id];
    host_table_pass_t *pass = set ? pass_of(walk, set, def, rank) : nullptr;
    if (!pass)
        return;
    count_visit(walk, visit, pass);
    const host_walk_ctx_t *before = walk->root->next_nested;
    const zan_rcode rc = update_or_skip(def, visit->obj, pass, &set->ctx);
    host_walk_ctx_t *nested = keep_nested(walk, before);

    host_event_set_t *passing = pass->below;
    if (!visit->obj) { /* an FRR thread's turn has deleted it, and perhaps made it anew */
        walk->num_deleted++;
        zan_table_base_st *anew = nested ? nested->head.current_obj : nullptr;
        if (rc != EOK && rc != ZAN_RC_NOT_FOUND)
            child_failed(walk, def, anew, &set->ctx, rc);
        visit = anew ? visit_of(walk, anew) : nullptr;
        if (!visit)
            return;
        passing = nullptr;
    } else if (rc != EOK) {
        child_failed(walk, def, visit->obj, &set->ctx, rc);
    }
    go_below(walk, visit, passing, nested);
}

/* ---- The whole walk ---- */

/* An object that has been deleted has nothing more to do. */
void post_process(host_walk_ctx_t *ctx)
{
    if (ctx->head.old_obj && ctx->head.current_obj)
        zan_srv_table_props_get(ctx->head.old_obj->table_id)->event_post_processing(&ctx->head);
}

/* The newest nested context is that of the last visit. */
void post_process_all(walk_t *walk)
{
    for (host_walk_ctx_t *ctx = walk->root->next_nested; ctx; ctx = ctx->next_nested)
        post_process(ctx);
    post_process(walk->root);
}

void start(walk_t *walk, kor_dpd_event_ctx_t *walk_ctx)
{
    walk->root = host_walk_ctx(walk_ctx);
    walk->sets.root = walk->root;
    host_walk_ctx_init_visit(&walk->asking, walk->root);
    walk->outer = innermost;
    innermost = walk;
    host_walk_queue_start(&walk->queue);
}

void finish(walk_t *walk)
{
    for (host_event_set_t *set = walk->sets.all; set; set = set->next)
        for (host_table_pass_t *pass = set->passes; pass; pass = pass->next)
            tell_received(set, pass);
    if (walk->sets.no_memory && walk->rc == EOK)
        walk->rc = ZAN_RC_NO_MEMORY;
    host_walk_queue_end(&walk->queue);
    host_event_sets_free(&walk->sets);
    innermost = walk->outer;
}

uint64_t now_ns(void)
{
    timespec t;
    zan_clock_gettime(CLOCK_MONOTONIC, &t);
    return (uint64_t)t.tv_sec * 1'000'000'000 + (uint64_t)t.tv_nsec;
}

} // namespace

zan_rcode kor_dpd_event_bwalk(kor_dpd_event_ctx_t *walk_ctx, uint32_t)
{
    const uint64_t begin = now_ns();
    const zan_table_def_t *def = zan_table_defs[walk_ctx->current_obj->table_id];
    walk_t walk = {};
    start(&walk, walk_ctx);
    reach_children(&walk, walk_ctx->current_obj,
                   going_on(&walk, def, walk.root->own.events, walk.root->own.count));
    uint64_t rank;
    while (host_visit_t *next = walk.stopped ? nullptr : host_walk_queue_next(&walk.queue, &rank))
        visit_child(&walk, next, rank);
    post_process_all(&walk);
    finish(&walk);
    zan_bwalk_stats_st *stats = zan_dpd_get_bwalk_stats(def->id);
    stats->num_walks++;
    const uint64_t taken_ns = now_ns() - begin;
    stats->walk_ns += taken_ns;
    host_count_walk(def->id, taken_ns);
    if (zan_trace_is_on(ZAN_CLASS_ZAN_BWALK_EVENT__))
        _ringlog_7(ZAN_CLASS_ZAN_BWALK_EVENT__, HOST_TRACE_ID(BWALK_DONE, 7), walk.root->bwalk_id,
                   def->id, walk.num_visits, walk.root->num_child_updates, walk.num_deleted,
                   walk.num_revisits, walk.rc);
    return walk.rc;
}

/* The source of a walk may go too, once its children have. */
void host_walks_forget(zan_table_base_st *obj)
{
    if (ZAN_LIKELY(!innermost))
        return;
    for (walk_t *walk = innermost; walk; walk = walk->outer)
        if (walk->root->head.current_obj == obj)
            host_walk_ctx_forget_source(walk->root);
    host_visits_forget(obj);
}

void host_walks_release(void)
{
    host_visits_release();
}
