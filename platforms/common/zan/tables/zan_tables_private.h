/* The table layer: what can be done with an object knowing its definition alone.
 *
 * All functions are pure with regard to the process: no globals, no locks, any thread, as long as
 * no other thread writes the same object. They work on every form of an object (zan_table_base.h),
 * and on keys as plain structures. Memory is plain malloc and free unless said otherwise.
 */
#ifndef ZAN_TABLES_PRIVATE_H
#define ZAN_TABLES_PRIVATE_H

#include "zan_table_def.h"

#define ZAN_PAD8(n)       (((n) + 7u) & ~(size_t)7)
/* The longest byte form of a key, over all tables; the generator checks it. */
#define ZAN_KEY_BYTES_MAX 64u
/* The largest key structure, over all tables; the generator checks it. */
#define ZAN_KEY_SIZE_MAX  80u
/* Members that one object may have. */
#define ZAN_ELEMENTS_MAX  65536u

ZAN_EXTERN_C_BEGIN

/* ---- Fields of the fixed part that every table has ---- */

static inline void *zan_obj_at(const zan_table_base_st *obj, uint32_t offset)
{
    return (uint8_t *)obj + offset;
}

static inline uint32_t *zan_obj_trans_id(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    return (uint32_t *)zan_obj_at(obj, def->trans_id_offset);
}

static inline kor_npu_mask_t *zan_obj_npu_mask_req(const zan_table_def_t *def,
                                                   const zan_table_base_st *obj)
{
    return (kor_npu_mask_t *)zan_obj_at(obj, def->npu_mask_req_offset);
}

static inline uint8_t *zan_obj_npu_mask_req_set(const zan_table_def_t *def,
                                                const zan_table_base_st *obj)
{
    return (uint8_t *)zan_obj_at(obj, def->npu_mask_req_set_offset);
}

static inline void *zan_obj_key(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    return zan_obj_at(obj, def->key_offset);
}

/* Members of the object; 0 in a table without a repeated part. */
static inline uint32_t zan_obj_num_elements(const zan_table_def_t *def,
                                            const zan_table_base_st *obj)
{
    return def->num_elements_offset ? *(uint32_t *)zan_obj_at(obj, def->num_elements_offset) : 0;
}

ZAN_EXTERN_C_BEGIN
/* Start of the dynamic part, all arrays of the members; null without members, and in a stored
 * object whose members found no memory at a resize. */
ZAN_EXPORT uint8_t *zan_obj_members(const zan_table_def_t *def, const zan_table_base_st *obj);
ZAN_EXTERN_C_END

/* Members that are there to be read. */
static inline uint32_t zan_obj_num_held(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    const uint32_t members = zan_obj_num_elements(def, obj);
    return members && zan_obj_members(def, obj) ? members : 0;
}

/* ---- References and attributes by index; `member` is 0 for what is not repeated ---- */

static inline zan_ref_value_st *zan_obj_ref_at(const zan_table_base_st *obj, uint32_t offset,
                                               uint32_t stride, bool repeated, uint32_t member)
{
    if (!repeated)
        return (zan_ref_value_st *)zan_obj_at(obj, offset);
    return (zan_ref_value_st *)(*(uint8_t **)zan_obj_at(obj, offset) + (size_t)member * stride);
}

static inline zan_ref_value_st *zan_obj_ref(const zan_ref_def_t *ref, const zan_table_base_st *obj,
                                            uint32_t member)
{
    return zan_obj_ref_at(obj, ref->offset, ref->stride, ref->repeated != 0, member);
}

static inline zan_ref_value_st *zan_obj_union(const zan_union_def_t *u,
                                              const zan_table_base_st *obj, uint32_t member)
{
    return zan_obj_ref_at(obj, u->offset, u->stride, u->repeated != 0, member);
}

static inline void *zan_ref_key(const zan_ref_value_st *ref)
{
    return (uint8_t *)ref + ZAN_REF_KEY_OFFSET;
}

/* Address of a value. `member` selects the member, the NPU or the array index. */
static inline void *zan_obj_attr(const zan_field_def_t *attr, const zan_table_base_st *obj,
                                 uint32_t member)
{
    uint8_t *base = (uint8_t *)zan_obj_at(obj, attr->offset);
    if (attr->shape == ZAN_SHAPE_REPEATED)
        base = *(uint8_t **)base;
    return base + (size_t)member * attr->width;
}

/* Address of the is-set byte of that value; `num_elements` is the object's member count. */
static inline uint8_t *zan_obj_attr_set(const zan_field_def_t *attr, const zan_table_base_st *obj,
                                        uint32_t member, uint32_t num_elements)
{
    if (attr->shape == ZAN_SHAPE_REPEATED)
        return *(uint8_t **)zan_obj_at(obj, attr->offset) +
               ZAN_PAD8((size_t)num_elements * attr->width) + member;
    return (uint8_t *)zan_obj_at(obj, attr->set_offset) +
           (attr->shape == ZAN_SHAPE_PER_NPU ? member : 0);
}

/* The count of client references of a table that has one, with its is-set byte behind it. One that
 * is not set stands for none, whatever it reads: the clients that held them have begun anew. */
#define ZAN_REF_CNT_BYTES 5u
static inline uint32_t *zan_obj_ref_cnt(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    return (uint32_t *)zan_obj_at(obj, def->obj_ref_cnt_offset);
}

static inline uint8_t *zan_obj_ref_cnt_set(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    return (uint8_t *)zan_obj_at(obj, def->obj_ref_cnt_offset + (uint32_t)sizeof(uint32_t));
}

/* Whether a replay concerns an object: in tables that clients share, one of the marker's client. A
 * null marker concerns all. */
static inline bool zan_obj_is_replayed(const zan_table_def_t *def, const zan_table_base_st *obj,
                                       const zan_table_base_st *marker)
{
    return !def->replay_client_filter || !marker || marker->client_epoch == obj->client_epoch;
}

/* A replay has started: the object goes at its end, unless the client sends it again, and its
 * references have to be counted anew. */
static inline void zan_obj_mark_stale(const zan_table_def_t *def, zan_table_base_st *obj)
{
    obj->flag |= ZAN_FLAG_STALE;
    if (def->obj_ref_cnt_offset)
        *zan_obj_ref_cnt_set(def, obj) = 0;
}

/* ---- Sizes and forms ---- */

/* Bytes of the dynamic part for a member count; a multiple of 8, 0 for no members. */
ZAN_EXPORT uint32_t zan_obj_dyn_size(const zan_table_def_t *def, uint32_t num_elements);

/* Point the pointers of the fixed part into `dyn`, which holds zan_obj_dyn_size bytes; null and no
 * members clear them. */
ZAN_EXPORT void zan_obj_fix_ptrs(const zan_table_def_t *def, zan_table_base_st *obj, void *dyn);

/* An empty heap form with its header filled (table_id, sizes, heap_form) and the pointers fixed up,
 * or null without memory. The caller frees it with free. */
ZAN_EXPORT zan_table_base_st *zan_obj_ctor(const zan_table_def_t *def, uint32_t private_size,
                                           uint32_t num_elements);

/* Copy any form (pointers valid) into a heap form that has room for fixed + private + dynamic bytes
 * at `to`, already allocated; every byte of the fixed and private part is taken over, the private
 * part only when `from_has_private`. Fixes the pointers, sets total_obj_size and heap_form. */
ZAN_EXPORT void zan_obj_copy_to(const zan_table_def_t *def, uint32_t private_size,
                                const zan_table_base_st *from, bool from_has_private,
                                zan_table_base_st *to);

/* Write an object (pointers valid) to `buffer` in serialized form: fixed part with its pointers
 * zeroed, dynamic part behind it, behind a gap of `private_size` zero bytes when total_obj_size of
 * the object says so (fixed + private + dynamic). Returns the bytes written. */
ZAN_EXPORT uint32_t zan_obj_serialize(const zan_table_def_t *def, uint32_t private_size,
                                      const zan_table_base_st *obj, void *buffer);

/* ---- Keys ---- */

/* Order of two keys, field by field: below, equal or above 0 as memcmp. Equal to the order of the
 * byte forms. */
ZAN_EXPORT int zan_key_cmp(const zan_table_def_t *def, const void *a, const void *b);

/* The order-preserving byte form: def->key_bytes bytes at `out`, numbers big-endian, addresses as
 * they stand, a prefix as its address and then its length. */
ZAN_EXPORT void zan_key_encode(const zan_table_def_t *def, const void *key, uint8_t *out);

/* ---- Attributes of two objects of one table ---- */

/* Copy attributes, references and unions with their is-set bytes, member count and dynamic part
 * included; `to` must have room for from's members. Not the key, not the header, not obj_ref_cnt.
 */
ZAN_EXPORT void zan_obj_copy_attrs(const zan_table_def_t *def, const zan_table_base_st *from,
                                   zan_table_base_st *to);

/* Whether `obj` asks for another value than `db_obj` holds: an attribute, reference or union that
 * is set in `obj` differs, or the member counts do. What is not set in `obj` is no difference.
 * `*index`, if given, gets the number of the first difference: attributes first, then references,
 * then unions, counted from 0; member counts are -1. */
ZAN_EXPORT bool zan_obj_attrs_differ(const zan_table_def_t *def, const zan_table_base_st *obj,
                                     const zan_table_base_st *db_obj, int32_t *index);

/* ---- Validity of what a client sent ---- */

/* The first field of an object whose value its type does not allow (an enumeration value or bit
 * without a name, a Boolean above 1, a prefix length out of range or with host bits set, an is-set
 * byte above 1, a selector without a variant), or null. The key is looked at when key_len is not 0.
 * `where` gets the field's path, as "next_obj[2].ipnh.vrf_id"; null is returned with it empty. */
ZAN_EXPORT const char *zan_obj_invalid_field(const zan_table_def_t *def,
                                             const zan_table_base_st *obj, char *where,
                                             size_t where_size);

/* ---- Text: one object as people write it ----
 *
 *   l3intf intf=100 ipv4_mtu=1500
 *   iproute vrf_id=0 prefix=10.0.0.0/8 next_obj.ipnhgroup.nhg_id=7
 *   ipnhgroup nhg_id=7 nexthop_next_obj[0].ipnh.nh_id=1 weight[0]=3 weight[1]=1
 *
 * A key field by its name; an attribute by its name, `name[i]` for a member, NPU or array index; a
 * reference as `stem.<field of the parent's key>` or `stem.handle`; a union as
 * `attr.<stem>.<field of the parent's key>` or `attr.<stem>.handle`, `attr=none` for a set union
 * without a variant. Tokens stand apart by blanks. `npu_mask_req=0x3` asks for some NPUs only,
 * `handle=` names the object by its handle. Numbers are decimal or 0x hexadecimal.
 */

/* Text of one value; cut to the buffer, always terminated. Returns the length it wants to have. */
ZAN_EXPORT size_t zan_value_print(const zan_field_def_t *field, const void *value, char *out,
                                  size_t size);
/* Parse one value; false and a reason in `why` when the text is no such value. */
ZAN_EXPORT bool zan_value_parse(const zan_field_def_t *field, const char *text, void *value,
                                char *why, size_t why_size);

/* A key as "vrf_id=0 prefix=10.0.0.0/8". Returns the length it wants to have. */
ZAN_EXPORT size_t zan_key_print(const zan_table_def_t *def, const void *key, char *out,
                                size_t size);

/* All that is set in an object, key first, without the table's name; cut to the buffer, always
 * terminated. Returns the length it wants to have. */
ZAN_EXPORT size_t zan_obj_print(const zan_table_def_t *def, const zan_table_base_st *obj, char *out,
                                size_t size);
/* The same as a JSON object: {"table":"iproute","key":{...},"attributes":{...},...}. Numbers are
 * JSON numbers, everything else a string; repeated values are arrays with null for what is unset.
 */
ZAN_EXPORT size_t zan_obj_print_json(const zan_table_def_t *def, const zan_table_base_st *obj,
                                     char *out, size_t size);

/* Parse "<field>=<value> ..." (without operation and table) into a new heap form of `private_size`
 * 0, which the caller frees with free. The member count is one more than the greatest index used,
 * or what `num_elements=` says. Null with a reason that names the field in `why`. key_len is the
 * table's key size when all key fields are given, 0 when none is and a handle is; a part of a key
 * is refused. */
ZAN_EXPORT zan_table_base_st *zan_obj_parse(const zan_table_def_t *def, const char *text, char *why,
                                            size_t why_size);

ZAN_EXTERN_C_END

#endif
