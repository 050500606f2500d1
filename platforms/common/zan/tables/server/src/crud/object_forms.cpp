/* The three forms of an object in the server: from the wire to the heap, from the heap to the
 * database, and back into a request.
 *
 * Heap forms come from the object memory (zan_heap_alloc) and go back to it on the dispatcher or
 * FRR thread. Database forms come from the table's pool; their dynamic part is shared memory of its
 * own.
 */
#include "table_server_api_common.h"

#include <cstring>

/* Byte of `reserved` that marks an object with a platform-private area. */
enum {
    NPD_EXISTS_BYTE = 0
};

/* What a stored object does not keep of a request's flags. */
constexpr uint32_t request_only_flags = ZAN_FLAG_RETRY_MODE | ZAN_FLAG_USE_ASYNC_BARRIER |
                                        ZAN_FLAG_NON_BLOCKING_UPDATE | ZAN_FLAG_DELETING |
                                        ZAN_FLAG_QUEUED_DELETE;

static void *dyn_part(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    const uint32_t offset = zan_table_state(def)->first_pointer_offset;
    return offset ? *(void **)zan_obj_at(obj, offset) : nullptr;
}

zan_table_base_st *zan_copy_ctor_from_serialized(const zan_table_base_st *wire)
{
    const srv_zan_table_props_t *props = zan_srv_table_props_get(wire->table_id);
    const uint32_t fixed = props->obj_size;
    const uint32_t priv = props->private_size;
    const uint32_t dyn = props->get_npi_dyn_attribs_sz(wire);
    const uint32_t sum = fixed + priv + dyn;
    auto *heap = (zan_table_base_st *)zan_heap_alloc(sum);
    ZAN_ASSERT(heap, "heap");
    memcpy(heap, wire, fixed);
    memset((uint8_t *)heap + fixed, 0, priv);
    if (dyn != 0) {
        const uint32_t at = wire->total_obj_size == sum ? fixed + priv : fixed;
        memcpy((uint8_t *)heap + fixed + priv, (const uint8_t *)wire + at, dyn);
    }
    if (priv != 0)
        props->set_npd_exists(heap, true);
    heap->total_obj_size = sum;
    heap->heap_form = 1;
    const bool replay = heap->table_operation == ZAN_TABLE_REPLAY_START ||
                        heap->table_operation == ZAN_TABLE_REPLAY_END;
    if (!replay && dyn != 0)
        props->fix_ptrs_from_base(heap);
    return heap;
}

zan_table_base_st *zan_server_copy_ctor(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    const uint32_t priv = zan_table_state(def)->props->private_size;
    const uint32_t size =
        def->obj_size + priv + zan_obj_dyn_size(def, zan_obj_num_elements(def, obj));
    auto *copy = (zan_table_base_st *)zan_heap_alloc(size);
    if (copy) {
        const zan_counters_hold_t hold(def);
        zan_obj_copy_to(def, priv, obj, true, copy);
        zan_dpd_clear_freed_by_post_proc_flag(copy); /* the mark is the original's alone */
    }
    return copy;
}

void zan_server_copy_dtor(const zan_table_def_t *def, zan_table_base_st *obj)
{
    if (!obj || zan_dpd_is_set_freed_by_post_proc_flag(obj))
        return;
    zan_table_state(def)->props->side_data_free(obj);
    zan_heap_free(obj);
}

zan_table_base_st *copy_ctor_for_create_to_update(zan_table_base_st *req,
                                                  const zan_table_base_st *db_obj)
{
    if (!db_obj)
        return nullptr;
    const bool converts =
        req->write_kind == ZAN_WRITE_KIND_REPLACE || req->write_kind == ZAN_WRITE_KIND_REPLACE_REF;
    if (!converts && !zan_obj_base_is_delay_delete(db_obj))
        return nullptr;
    return zan_srv_table_props_get(req->table_id)->copy_ctor(req);
}

zan_rcode zan_server_shmwin_alloc_dbobj_params(const zan_table_def_t *def,
                                               zan_table_base_st *db_obj,
                                               const zan_table_base_st *obj)
{
    if (!def->num_elements_offset)
        return EOK;
    const uint32_t count = zan_obj_num_elements(def, obj);
    void *dyn = nullptr;
    if (count != 0) {
        dyn = zan_shm_dyn_alloc(def->id, zan_obj_dyn_size(def, count));
        if (!dyn)
            return ZAN_RC_NO_MEMORY_DB;
    }
    *(uint32_t *)zan_obj_at(db_obj, def->num_elements_offset) = count;
    zan_obj_fix_ptrs(def, db_obj, dyn);
    return EOK;
}

void zan_server_shmwin_free_dbobj_params(const zan_table_def_t *def, zan_table_base_st *db_obj)
{
    void *dyn = dyn_part(def, db_obj);
    if (!dyn)
        return;
    zan_shm_free(dyn);
    *(uint32_t *)zan_obj_at(db_obj, def->num_elements_offset) = 0;
    zan_obj_fix_ptrs(def, db_obj, nullptr);
}

void zan_server_set_npd_exists(zan_table_base_st *obj, bool exists)
{
    obj->reserved[NPD_EXISTS_BYTE] = exists;
}

void zan_fill_pre_alloc_dbobj_basic_info(const zan_table_base_st *obj_base,
                                         zan_table_base_st *dbobj_base)
{
    ZAN_ASSERT(obj_base && dbobj_base, "obj_base && dbobj_base");
    dbobj_base->table_id = obj_base->table_id;
    dbobj_base->base_trans_id = obj_base->base_trans_id;
}

void kor_write_dbobj_base(const zan_table_base_st *src, zan_table_base_st *db_obj)
{
    db_obj->client_time = src->client_time;
    db_obj->client_epoch = src->client_epoch;
    db_obj->npu_mask = src->npu_mask;
    db_obj->flag = src->flag & ~request_only_flags;
    db_obj->rc_stamp = src->rc_stamp;
    db_obj->key_len = src->key_len;
    db_obj->table_id = src->table_id;
    db_obj->npu_id = src->npu_id;
    db_obj->write_kind = src->write_kind;
    db_obj->hw_state = src->hw_state;
}

void kor_write_dbobj(const zan_table_def_t *def, const zan_table_base_st *src,
                     zan_table_base_st *db_obj)
{
    memcpy(zan_obj_key(def, db_obj), zan_obj_key(def, src), def->key_size);
    zan_obj_copy_attrs(def, src, db_obj);
    kor_ref_copy(def, src, db_obj);
    /* An asynchronous table has no step of its own for the object's mask, and its accounting reads
     * it from the stored object. */
    if (def->object_mask_async) {
        *zan_obj_npu_mask_req(def, db_obj) = *zan_obj_npu_mask_req(def, src);
        *zan_obj_npu_mask_req_set(def, db_obj) = *zan_obj_npu_mask_req_set(def, src);
    }
}

/* A request is one block, whose dynamic part can take as many members as it came with: a stored
 * object with more is refused, and the client asks again with more room. */
zan_rcode kor_dbobj_get(const zan_table_def_t *def, const zan_table_base_st *db_obj,
                        zan_table_base_st *obj)
{
    const uint32_t count = zan_obj_num_elements(def, db_obj);
    if (count > zan_obj_num_elements(def, obj))
        return ZAN_RC_INVALID_READ;
    if (def->num_elements_offset) {
        void *dyn = dyn_part(def, obj);
        *(uint32_t *)zan_obj_at(obj, def->num_elements_offset) = count;
        zan_obj_fix_ptrs(def, obj, count ? dyn : nullptr);
    }
    memcpy(zan_obj_key(def, obj), zan_obj_key(def, db_obj), def->key_size);
    obj->key_len = db_obj->key_len;
    obj->obj_handle = db_obj->obj_handle;
    obj->obj_id = db_obj->obj_id;
    obj->npu_mask = db_obj->npu_mask;
    obj->flag = (obj->flag & ~(uint32_t)ZAN_FLAG_STALE) | (db_obj->flag & ZAN_FLAG_STALE);
    obj->dpd.del_flag = db_obj->dpd.del_flag & ZAN_DEL_FLAG_DELAY_DELETE;
    {
        const zan_counters_hold_t hold(def);
        zan_obj_copy_attrs(def, db_obj, obj);
    }
    kor_ref_copy(def, db_obj, obj);
    return EOK;
}

uint32_t kor_get_obj_size(const zan_table_def_t *def, uint32_t num_elements)
{
    return def->obj_size + zan_obj_dyn_size(def, num_elements);
}
