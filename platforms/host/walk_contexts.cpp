/* Bitmaps of tables, and the walk contexts.
 *
 * A context is born with an update and ends with it, unless a message to the NPU threads still
 * holds it: then it ends when the message has come home. The contexts of child updates are nested:
 * they stand on their root's list and go with it.
 */
#include "walk_contexts.h"
#include "host_assert.h"
#include "host_blocks.h"
#include "table_properties.h"

#include <cstdlib>
#include <cstring>

namespace
{

struct walk_ctx_t {
    kor_dpd_event_ctx_t head;
    walk_ctx_t *root;        /* null: this is one */
    walk_ctx_t *next_nested; /* of a root: its contexts; of a nested one: the next of its root */
    const zan_table_base_st *request;
    zan_rcode root_error;
    bool from_retry;
    bool owns_copies; /* old_obj and new_obj are the walk's */
    bool ended;       /* by the update; the NPU threads still hold it */
};

walk_ctx_t *as_ctx(kor_dpd_event_ctx_t *walk_ctx)
{
    return (walk_ctx_t *)walk_ctx;
}

const walk_ctx_t *as_ctx(const kor_dpd_event_ctx_t *walk_ctx)
{
    return (const walk_ctx_t *)walk_ctx;
}

void free_copy(zan_table_base_st *copy)
{
    if (!copy)
        return;
    zan_dpd_clear_freed_by_post_proc_flag(copy);
    zan_srv_table_props_get(copy->table_id)->copy_dtor(copy);
}

void free_copies(walk_ctx_t *ctx)
{
    if (!ctx->owns_copies)
        return;
    ctx->owns_copies = false;
    free_copy(ctx->head.new_obj);
    free_copy(ctx->head.old_obj);
    ctx->head.new_obj = ctx->head.old_obj = nullptr;
}

void end(walk_ctx_t *ctx)
{
    if (ctx->head.held_by_npu_threads)
        ctx->ended = true;
    else
        host_block_free(ctx);
}

} // namespace

uint64_t *kor_bm_allocate(uint32_t bits)
{
    return (uint64_t *)calloc((bits + 63) / 64, sizeof(uint64_t));
}

void kor_bm_set(uint64_t *bitmap, uint32_t bit)
{
    bitmap[bit / 64] |= (uint64_t)1 << bit % 64;
}

bool get_prune_marker(const uint64_t *child_tables, const uint64_t *event_tables)
{
    for (uint32_t word = 0; word < ZAN_TABLE_BITMAP_BITS / 64; word++)
        if (child_tables[word] & event_tables[word])
            return true;
    return false;
}

/* ---- Colours: no walk reads them yet, so none are painted ---- */

void zan_colored_event_fwalk_on_create(zan_table_base_st *)
{
}

void zan_colored_event_fwalk_on_update(zan_table_base_st *)
{
}

void zan_colored_event_validate_child_colors(zan_table_base_st *)
{
}

/* ---- Walk contexts ---- */

kor_dpd_event_ctx_t *zan_walk_ctx_alloc_walk_ctx(kor_dpd_event_ctx_t *running)
{
    auto *ctx = (walk_ctx_t *)host_block_alloc(sizeof(walk_ctx_t));
    if (!ctx)
        return nullptr;
    memset(ctx, 0, sizeof *ctx);
    if (running) {
        walk_ctx_t *above = as_ctx(running);
        ctx->root = above->root ? above->root : above;
        ctx->next_nested = ctx->root->next_nested;
        ctx->root->next_nested = ctx;
        ctx->from_retry = above->from_retry;
        ctx->head.force_update = running->force_update;
        ctx->head.trans_id = running->trans_id;
    }
    return &ctx->head;
}

void zan_walk_ctx_dtor(kor_dpd_event_ctx_t *walk_ctx)
{
    walk_ctx_t *ctx = as_ctx(walk_ctx);
    HOST_ASSERT(!ctx->root, "a nested context ends with its root");
    while (walk_ctx_t *nested = ctx->next_nested) {
        ctx->next_nested = nested->next_nested;
        end(nested);
    }
    end(ctx);
}

void zan_walk_ctx_free_old_obj_from_dispatcher(kor_dpd_event_ctx_t *walk_ctx)
{
    walk_ctx_t *root = as_ctx(walk_ctx);
    for (walk_ctx_t *ctx = root; ctx; ctx = ctx->next_nested)
        if (!ctx->head.held_by_npu_threads)
            free_copies(ctx);
}

void host_walk_ctx_came_home(kor_dpd_event_ctx_t *walk_ctx)
{
    walk_ctx_t *ctx = as_ctx(walk_ctx);
    if (--walk_ctx->held_by_npu_threads != 0 || !ctx->ended)
        return;
    free_copies(ctx);
    host_block_free(ctx);
}

void zan_walk_ctx_set_new_obj_heap(kor_dpd_event_ctx_t *walk_ctx, zan_table_base_st *obj)
{
    as_ctx(walk_ctx)->request = obj;
}

void zan_walk_ctx_set_from_retry(kor_dpd_event_ctx_t *walk_ctx, bool retry)
{
    as_ctx(walk_ctx)->from_retry = retry;
}

bool zan_walk_ctx_is_from_retry(const kor_dpd_event_ctx_t *walk_ctx)
{
    return as_ctx(walk_ctx)->from_retry;
}

bool zan_walk_ctx_is_inside_bwalk(const kor_dpd_event_ctx_t *walk_ctx)
{
    return as_ctx(walk_ctx)->root != nullptr;
}

bool zan_walk_ctx_is_force_update(const kor_dpd_event_ctx_t *walk_ctx)
{
    return walk_ctx->force_update != 0;
}

bool zan_walk_ctx_owns_old_obj(const kor_dpd_event_ctx_t *walk_ctx)
{
    return as_ctx(walk_ctx)->owns_copies;
}

void zan_walk_ctx_stamp_root_error(kor_dpd_event_ctx_t *walk_ctx, zan_rcode rc)
{
    as_ctx(walk_ctx)->root_error = rc;
}

void zan_walk_ctx_push_attr_upd_mask(kor_dpd_event_ctx_t *walk_ctx, uint32_t, uint64_t mask)
{
    walk_ctx->attrib_upd_mask |= mask;
}

void zan_walk_ctx_set_trans_id(kor_dpd_event_ctx_t *walk_ctx, uint32_t trans_id)
{
    walk_ctx->trans_id = trans_id;
}

uint32_t zan_walk_ctx_get_trans_id(const kor_dpd_event_ctx_t *walk_ctx)
{
    return walk_ctx->trans_id;
}

/* Walks that start at a table are counted from its first use on. */
static bool originates[ZAN_NUM_TABLES];

void table_bwalk_originator_stats_alloc(uint32_t table_id)
{
    originates[table_id] = true;
}
