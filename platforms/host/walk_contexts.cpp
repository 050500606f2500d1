/* The walk contexts.
 *
 * A context is born with an update and ends with it, unless a message to the NPU threads still
 * holds it: then it ends when the message has come home. The contexts of child updates are nested:
 * they stand on their root's list and go with it, or at once when they have pushed nothing.
 *
 * Copies that a post_proc event took go with their context too. In a synchronous table
 * post-processing has run the hook behind the update and taken the mark off them; copies that still
 * bear it are those of an asynchronous table, and their hook runs when they go.
 */
#include "walk_contexts.h"
#include "host_assert.h"
#include "host_blocks.h"
#include "host_trace.h"
#include "table_properties.h"

#include <cstring>

namespace
{

void run_post_hook(host_walk_ctx_t *ctx)
{
    zan_rdesc_hook_ctx_t post = zan_rdesc_hook_ctx_of_walk(&ctx->head);
    zan_srv_table_props_get(post.old_obj->table_id)->post_update_rdesc(&post);
}

void free_copy(zan_table_base_st *copy)
{
    zan_dpd_clear_freed_by_post_proc_flag(copy);
    zan_srv_table_props_get(copy->table_id)->copy_dtor(copy);
}

void free_copies(host_walk_ctx_t *ctx)
{
    if (!ctx->head.old_obj)
        return;
    if (zan_dpd_is_set_freed_by_post_proc_flag(ctx->head.old_obj))
        run_post_hook(ctx);
    free_copy(ctx->head.new_obj);
    free_copy(ctx->head.old_obj);
    ctx->head.new_obj = ctx->head.old_obj = nullptr;
}

void free_events(host_walk_ctx_t *ctx)
{
    for (uint32_t i = 0; i < ctx->own.count; i++)
        host_block_free(ctx->own.events[i]);
    if (ctx->own.size)
        host_block_free(ctx->own.events);
}

void free_context(host_walk_ctx_t *ctx)
{
    free_events(ctx);
    host_block_free(ctx);
}

/* Once the walk is over nobody tells a context that its source has been deleted, and the response
 * is gone: what still has the context finds neither. */
void end(host_walk_ctx_t *ctx)
{
    if (!ctx->head.held_by_npu_threads) {
        free_context(ctx);
        return;
    }
    ctx->ended = true;
    ctx->head.response = nullptr;
    ctx->next_pushed = nullptr;
    host_walk_ctx_forget_source(ctx);
}

uint32_t new_bwalk_id(void)
{
    static uint32_t last;
    if (++last == 0)
        last = 1;
    return last;
}

} // namespace

kor_dpd_event_ctx_t *zan_walk_ctx_alloc_walk_ctx(kor_dpd_event_ctx_t *running)
{
    auto *ctx = (host_walk_ctx_t *)host_block_alloc(sizeof(host_walk_ctx_t));
    if (!ctx)
        return nullptr;
    memset((void *)ctx, 0, sizeof *ctx);
    ctx->own.owner = ctx;
    ctx->head.event_list = &ctx->own;
    if (running) {
        host_walk_ctx_t *above = host_walk_ctx(running);
        ctx->root = above->root ? above->root : above;
        ctx->next_nested = ctx->root->next_nested;
        ctx->root->next_nested = ctx;
        ctx->bwalk_id = ctx->root->bwalk_id;
        ctx->from_retry = above->from_retry;
        ctx->head.force_update = running->force_update;
        ctx->head.trans_id = running->trans_id;
    } else {
        ctx->bwalk_id = new_bwalk_id();
    }
    return &ctx->head;
}

void host_walk_ctx_init_visit(host_walk_ctx_t *ctx, host_walk_ctx_t *root)
{
    memset((void *)ctx, 0, sizeof *ctx);
    ctx->root = root;
    ctx->bwalk_id = root->bwalk_id;
    ctx->from_retry = root->from_retry;
    ctx->head.trans_id = root->head.trans_id;
    ctx->head.response = root->head.response;
}

void host_walk_ctx_recycle(host_walk_ctx_t *newest)
{
    HOST_ASSERT(newest->root && newest->root->next_nested == newest, "the newest of its root");
    newest->root->next_nested = newest->next_nested;
    end(newest);
}

void host_walk_ctx_forget_source(host_walk_ctx_t *ctx)
{
    for (; ctx; ctx = ctx->next_pushed) {
        ctx->head.current_obj = nullptr;
        for (uint32_t i = 0; i < ctx->own.count; i++)
            ctx->own.events[i]->head.source_obj = nullptr;
    }
}

void zan_walk_ctx_dtor(kor_dpd_event_ctx_t *walk_ctx)
{
    host_walk_ctx_t *ctx = host_walk_ctx(walk_ctx);
    HOST_ASSERT(!ctx->root, "a nested context ends with its root");
    while (host_walk_ctx_t *nested = ctx->next_nested) {
        ctx->next_nested = nested->next_nested;
        end(nested);
    }
    end(ctx);
}

void zan_walk_ctx_free_old_obj_from_dispatcher(kor_dpd_event_ctx_t *walk_ctx)
{
    for (host_walk_ctx_t *ctx = host_walk_ctx(walk_ctx); ctx; ctx = ctx->next_nested)
        if (!ctx->head.held_by_npu_threads)
            free_copies(ctx);
}

void host_walk_ctx_came_home(kor_dpd_event_ctx_t *walk_ctx)
{
    host_walk_ctx_t *ctx = host_walk_ctx(walk_ctx);
    if (--walk_ctx->held_by_npu_threads != 0 || !ctx->ended)
        return;
    free_copies(ctx);
    free_context(ctx);
}

/* ---- What the server asks and tells ---- */

void zan_walk_ctx_set_new_obj_heap(kor_dpd_event_ctx_t *walk_ctx, zan_table_base_st *obj)
{
    host_walk_ctx(walk_ctx)->request = obj;
}

void zan_walk_ctx_set_from_retry(kor_dpd_event_ctx_t *walk_ctx, bool retry)
{
    host_walk_ctx(walk_ctx)->from_retry = retry;
}

bool zan_walk_ctx_is_from_retry(const kor_dpd_event_ctx_t *walk_ctx)
{
    return host_walk_ctx(walk_ctx)->from_retry;
}

uint32_t zan_walk_ctx_get_bwalk_id(const kor_dpd_event_ctx_t *walk_ctx)
{
    return host_walk_ctx(walk_ctx)->bwalk_id;
}

zan_bwalk_type_et zan_walk_ctx_get_bwalk_type(const kor_dpd_event_ctx_t *walk_ctx)
{
    return host_walk_ctx(walk_ctx)->from_retry ? ZAN_BWALK_OF_RETRY : ZAN_BWALK_OF_UPDATE;
}

zan_table_base_st *zan_walk_ctx_get_current_obj(const kor_dpd_event_ctx_t *walk_ctx)
{
    return walk_ctx->current_obj;
}

uint32_t zan_walk_ctx_get_num_events(const kor_dpd_event_ctx_t *walk_ctx)
{
    return walk_ctx->num_events;
}

bool zan_walk_ctx_is_inside_bwalk(const kor_dpd_event_ctx_t *walk_ctx)
{
    return host_walk_ctx(walk_ctx)->root != nullptr;
}

bool zan_walk_ctx_is_force_update(const kor_dpd_event_ctx_t *walk_ctx)
{
    return walk_ctx->force_update != 0;
}

bool zan_walk_ctx_owns_old_obj(const kor_dpd_event_ctx_t *walk_ctx)
{
    return walk_ctx->old_obj != nullptr;
}

/* Of an update that nobody waits for and that had something to tell its children. */
void zan_walk_ctx_stamp_root_error(kor_dpd_event_ctx_t *walk_ctx, zan_rcode rc)
{
    if (rc == EOK || walk_ctx->num_events == 0)
        return;
    if (zan_trace_is_on(ZAN_CLASS_ZAN_BWALK_ERROR__))
        _ringlog_4(ZAN_CLASS_ZAN_BWALK_ERROR__, HOST_TRACE_ID(BWALK_ROOT_FAILED, 4),
                   host_walk_ctx(walk_ctx)->bwalk_id, walk_ctx->trans_id,
                   (uint64_t)(uintptr_t)host_walk_ctx(walk_ctx)->request, rc);
}

void zan_walk_ctx_push_attr_upd_mask(kor_dpd_event_ctx_t *walk_ctx, uint32_t, uint64_t mask)
{
    __atomic_fetch_or(&walk_ctx->attrib_upd_mask, mask, __ATOMIC_RELAXED);
}

void zan_walk_ctx_set_attrib_upd_mask(kor_dpd_event_ctx_t *walk_ctx, uint64_t mask)
{
    __atomic_store_n(&walk_ctx->attrib_upd_mask, mask, __ATOMIC_RELAXED);
}

void zan_walk_ctx_increment_num_bwalk_child_updates(kor_dpd_event_ctx_t *walk_ctx)
{
    host_walk_ctx_t *ctx = host_walk_ctx(walk_ctx);
    (ctx->root ? ctx->root : ctx)->num_child_updates++;
}

void zan_walk_ctx_set_trans_id(kor_dpd_event_ctx_t *walk_ctx, uint32_t trans_id)
{
    walk_ctx->trans_id = trans_id;
}

uint32_t zan_walk_ctx_get_trans_id(const kor_dpd_event_ctx_t *walk_ctx)
{
    return walk_ctx->trans_id;
}

/* ---- Events ---- */

static uint64_t events_pushed;
static uint32_t removals;

uint32_t host_events_removed(void)
{
    return removals;
}

zan_bwalk_event_data *zan_bwalk_event_data_alloc(void)
{
    auto *event = (host_event_t *)host_block_alloc(sizeof(host_event_t));
    if (event)
        memset((void *)event, 0, sizeof *event);
    return event ? &event->head : nullptr;
}

static bool list_has_space(zan_bwalk_event_list_t *list)
{
    if (list->count < list->size)
        return true;
    const uint32_t size = list->size ? list->size * 2 : 4;
    auto **events = (host_event_t **)host_block_alloc(size * sizeof(host_event_t *));
    if (!events)
        return false;
    if (list->size) {
        memcpy(events, list->events, list->count * sizeof(host_event_t *));
        host_block_free(list->events);
    }
    list->events = events;
    list->size = size;
    return true;
}

bool dpd_event_push(zan_bwalk_event_list_t *list, zan_bwalk_event_data *data)
{
    auto *event = (host_event_t *)data;
    if (!list_has_space(list)) {
        host_block_free(event);
        return false;
    }
    event->source = list->owner;
    event->number = ++events_pushed;
    list->events[list->count++] = event;
    list->owner->head.num_events++;
    return true;
}

/* The first event at or behind a place that no filter has removed. */
static zan_bwalk_event_data *event_from(const zan_bwalk_event_list_t *list, uint32_t at)
{
    while (at < list->count && host_event_removed(list->events[at]))
        at++;
    return at < list->count ? &list->events[at]->head : nullptr;
}

zan_bwalk_event_data *dpd_get_first_event(const zan_bwalk_event_list_t *list)
{
    return event_from(list, 0);
}

/* A source pushes a handful of events. */
zan_bwalk_event_data *dpd_get_next_event(const zan_bwalk_event_list_t *list,
                                         const zan_bwalk_event_data *event)
{
    uint32_t at = 0;
    while (at < list->count && &list->events[at]->head != event)
        at++;
    return event_from(list, at + 1);
}

void dpd_event_remove(zan_bwalk_event_list_t *list, zan_bwalk_event_data *data)
{
    auto *event = (host_event_t *)data;
    if (host_event_removed(event))
        return;
    __atomic_store_n(&event->removed, ++removals, __ATOMIC_RELAXED);
    list->owner->head.num_events--;
}
