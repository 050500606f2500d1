/* Hooks that write are called through here: the slots of the properties record lead to the watch,
 * the watch to the hook. So every form of a write is seen, waited for or not, on the NPU threads or
 * on the dispatcher's, also the undo of a create and a walk's update of a child.
 *
 * Of a code the low 12 bits matter here, a POSIX errno: ENOENT of a delete says that the NPU holds
 * no such object, which is what the delete was for. Where the flow waits for the code it is a
 * success, or an object that one NPU has let go and another has not could never be deleted; where
 * nobody waits it is left as it is, and the NPU's books with it.
 */
#include "write_watch.h"
#include "global_context.h"
#include "host_resources.h"
#include "repeated_delta.h"
#include "thread_control.h"

#include <atomic>
#include <cerrno>
#include <new>

namespace
{

struct hooks_t {
    decltype(srv_zan_table_props_t::create) create;
    decltype(srv_zan_table_props_t::update) update;
    decltype(srv_zan_table_props_t::delete_) remove;
    decltype(srv_zan_table_props_t::update_deprecated) update_members;
};
hooks_t hooks[ZAN_NUM_TABLES];

std::atomic<write_failure_t *> last; /* newest first */

static_assert(ZAN_NUM_HWDBS <= 32, "a bit for each");
std::atomic<uint32_t> room_wanted;
std::atomic<uint64_t> left[ZAN_NUM_HWDBS][ZAN_MAX_NPUS];

/* The NPUs that the call was for. */
kor_npu_mask_t npus_of(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    if (def->npu_threads || def->table_class == 0)
        return (kor_npu_mask_t)1 << kor_core_get_npu_id(obj);
    const kor_npu_mask_t all = zan_get_global_ctx()->npu_mask_all;
    const kor_npu_mask_t asked =
        *zan_obj_npu_mask_req_set(def, obj) ? *zan_obj_npu_mask_req(def, obj) & all : 0;
    return asked ? asked : all;
}

kept_object_t copy_of(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    const uint32_t private_size = kor_npd_get_table_size(def->id);
    kept_object_t copy((zan_table_base_st *)calloc(
        1, def->obj_size + private_size + zan_obj_dyn_size(def, zan_obj_num_elements(def, obj))));
    if (copy)
        zan_obj_copy_to(def, private_size, obj, true, copy.get());
    return copy;
}

/* Without memory the failure has its traces and counters, and no retry. */
void note(const zan_table_base_st *obj, uint32_t operation, zan_rcode rc)
{
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    auto *failure = new (std::nothrow) write_failure_t{.next = nullptr,
                                                       .name = name_of(obj),
                                                       .npus = npus_of(def, obj),
                                                       .operation = operation,
                                                       .trans_id = obj->base_trans_id,
                                                       .rc = rc,
                                                       .retry = zan_obj_base_get_retry_mode(obj),
                                                       .obj = nullptr};
    if (!failure)
        return;
    if (operation == ZAN_TABLE_DELETE)
        failure->obj = copy_of(def, obj);
    failure->next = last.load(std::memory_order_relaxed);
    while (!last.compare_exchange_weak(failure->next, failure, std::memory_order_release,
                                       std::memory_order_relaxed)) {
    }
}

zan_rcode create(zan_table_base_st *obj)
{
    const zan_rcode rc = hooks[obj->table_id].create(obj);
    if (ZAN_UNLIKELY(rc != EOK))
        note(obj, ZAN_TABLE_CREATE, rc);
    return rc;
}

zan_rcode update(zan_delta_lists_t *delta)
{
    const zan_table_base_st *obj = delta->new_obj;
    const zan_rcode rc = hooks[obj->table_id].update(delta);
    if (ZAN_UNLIKELY(rc != EOK))
        note(obj, ZAN_TABLE_UPDATE, rc);
    return rc;
}

void count_room(const zan_table_base_st *obj)
{
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    if (!(room_wanted.load(std::memory_order_relaxed) >> def->hwdb & 1))
        return;
    for (kor_npu_mask_t npus = npus_of(def, obj); npus; npus &= npus - 1)
        left[def->hwdb][__builtin_ctzll(npus) % ZAN_MAX_NPUS].fetch_add(1,
                                                                        std::memory_order_relaxed);
}

/* The code of a delete that found nothing, for the flow. On the dispatcher's thread the flow gives
 * back an entry for each NPU that answers with success: one that is in the books no more, unless
 * the delete repeats one that failed. */
zan_rcode is_gone(const zan_table_base_st *obj, zan_rcode rc)
{
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    if (def->write_mode)
        return rc;
    const bool in_flow = !def->npu_threads && obj->obj_handle != ZAN_POISON_NO_DB_OBJ;
    for (kor_npu_mask_t npus = in_flow ? npus_of(def, obj) : 0; npus; npus &= npus - 1)
        host_resources_correct((uint32_t)__builtin_ctzll(npus), def->id, true);
    return EOK;
}

/* The delete of old members is a part of an update: the object stays. */
zan_rcode remove(uint32_t is_resize, zan_table_base_st *obj)
{
    const zan_rcode rc = hooks[obj->table_id].remove(is_resize, obj);
    if (ZAN_UNLIKELY((rc & 0xfff) == ENOENT))
        return is_gone(obj, rc);
    if (ZAN_UNLIKELY(rc != EOK))
        note(obj, is_resize ? ZAN_TABLE_UPDATE : ZAN_TABLE_DELETE, rc);
    else if (ZAN_UNLIKELY(room_wanted.load(std::memory_order_relaxed)) && !is_resize)
        count_room(obj);
    return rc;
}

zan_rcode update_members(zan_repeated_delta_t *delta, uint32_t npu)
{
    const zan_table_base_st *obj = delta->new_obj ? delta->new_obj : delta->old_obj;
    const zan_rcode rc = hooks[obj->table_id].update_members(delta, npu);
    if (ZAN_UNLIKELY((rc & 0xfff) == ENOENT) && !delta->new_obj)
        return is_gone(obj, rc);
    if (ZAN_UNLIKELY(rc != EOK))
        note(obj,
             !delta->new_obj   ? ZAN_TABLE_DELETE
             : !delta->old_obj ? ZAN_TABLE_CREATE
                               : ZAN_TABLE_UPDATE,
             rc);
    else if (ZAN_UNLIKELY(room_wanted.load(std::memory_order_relaxed)) && !delta->new_obj)
        count_room(obj);
    return rc;
}

} // namespace

void host_watch_writes(srv_zan_table_props_t *props)
{
    hooks_t *own = &hooks[props->def->id];
    *own = {props->create, props->update, props->delete_, props->update_deprecated};
    if (props->hook[ZAN_HOOK_create])
        props->create = create;
    if (props->hook[ZAN_HOOK_update])
        props->update = update;
    if (props->hook[ZAN_HOOK_delete])
        props->delete_ = remove;
    if (props->hook[ZAN_HOOK_update_deprecated])
        props->update_deprecated = update_members;
}

write_failure_t *host_take_write_failures(void)
{
    if (ZAN_LIKELY(!last.load(std::memory_order_relaxed)))
        return nullptr;
    write_failure_t *newest_first = last.exchange(nullptr, std::memory_order_acquire);
    write_failure_t *in_order = nullptr;
    while (newest_first) {
        write_failure_t *next = newest_first->next;
        newest_first->next = in_order;
        in_order = newest_first;
        newest_first = next;
    }
    return in_order;
}

void host_watch_room(uint32_t hwdb, bool on)
{
    if (on)
        room_wanted.fetch_or(1u << hwdb, std::memory_order_relaxed);
    else
        room_wanted.fetch_and(~(1u << hwdb), std::memory_order_relaxed);
}

uint64_t host_take_room(uint32_t hwdb, uint32_t npu)
{
    return left[hwdb][npu].exchange(0, std::memory_order_relaxed);
}
