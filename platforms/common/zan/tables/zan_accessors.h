/* The accessors of a table, made from its definition.
 *
 * Each macro below writes the functions of one field: with _DECL the prototypes (they stand in
 * <table>.h), without it the bodies (in <table>.cpp of the table layer). All of them:
 *
 *   - take any form of an object, whose pointers must be valid;
 *   - may be called on any thread, as long as no other thread writes the same object;
 *   - read and write the object alone, allocate nothing and fail never.
 *
 * An index is below the bound that its field has: the member count (repeated), ZAN_MAX_NPUS (for
 * each NPU), the length of the array. A set function also sets the is-set byte. A key of a
 * reference is passed by value, and reading one that is not set gives whatever was there last.
 *
 * t is the table, a the attribute or union, s the stem of a reference, v that of a variant, T the
 * type of a value, K the key type of a parent.
 */
#ifndef ZAN_ACCESSORS_H
#define ZAN_ACCESSORS_H

#include <assert.h>
#include <string.h>

#include "zan_tables_private.h"

#define ZAN_ACC(T)      ZAN_EXPORT T
#define ZAN_OBJ(t, obj) ((zan_##t##_obj_st *)(obj))

/* A stored reference to the parent whose key type is K. */
#define ZAN_REF_TYPE(t, s, K)                                                                      \
    typedef struct kor_##t##_ref_##s##_t {                                                         \
        zan_ref_value_st ref;                                                                      \
        K key;                                                                                     \
    } kor_##t##_ref_##s##_t

/* The compiler's layout of an object is the one that its definition states. */
#define ZAN_ASSERT_LAYOUT(obj, at_trans_id, at_req, at_req_set, at_key, size)                      \
    ZAN_ASSERT_OFFSET(obj, trans_id, at_trans_id);                                                 \
    ZAN_ASSERT_OFFSET(obj, npu_mask_req, at_req);                                                  \
    ZAN_ASSERT_OFFSET(obj, npu_mask_req_set, at_req_set);                                          \
    ZAN_ASSERT_OFFSET(obj, key, at_key);                                                           \
    ZAN_STATIC_ASSERT(sizeof(obj) == (size), #obj)

/* ---- What every table has ---- */

/* get_key: null when the object has none. key_cmp: order of two keys, as memcmp. ctor: an empty
 * heap form with room for `count` members, null without memory; the caller frees it with free.
 * serialize: the bytes written. get_npd_handle: the platform's private area, which lies behind the
 * fixed part in the heap and database forms. get_npi_handle: the database object. */
#define ZAN_TABLE_ACCESSORS_DECL(t)                                                                \
    ZAN_ACC(const kor_##t##_key_t *) kor_srv_##t##_get_key(const zan_table_base_st *obj);          \
    ZAN_ACC(void) kor_srv_##t##_set_key(zan_table_base_st *obj, const kor_##t##_key_t *key);       \
    ZAN_ACC(uint8_t) kor_##t##_key_is_set(const zan_table_base_st *obj);                           \
    ZAN_ACC(int) kor_##t##_key_cmp(const void *a, const void *b);                                  \
    ZAN_ACC(uint32_t) zan_srv_##t##_get_trans_id(const zan_table_base_st *obj);                    \
    ZAN_ACC(void) zan_srv_##t##_set_trans_id(zan_table_base_st *obj, uint32_t trans_id);           \
    ZAN_ACC(kor_npu_mask_t) kor_srv_##t##_get_npu_bmap(const zan_table_base_st *obj);              \
    ZAN_ACC(uint8_t) kor_srv_##t##_is_set_npu_bmap(const zan_table_base_st *obj);                  \
    ZAN_ACC(zan_table_base_st *) kor_srv_##t##_ctor(uint32_t count);                               \
    ZAN_ACC(uint32_t) kor_##t##_serialize(const zan_table_base_st *obj, void *buffer);             \
    ZAN_ACC(uint32_t) kor_##t##_get_obj_size(uint32_t count);                                      \
    ZAN_ACC(uint32_t) kor_##t##_get_num_repeat_count(const zan_table_base_st *obj);                \
    ZAN_ACC(void *) zan_srv_##t##_get_npd_handle(const zan_table_base_st *obj);                    \
    ZAN_ACC(uint64_t) zan_srv_##t##_get_npi_handle(const zan_table_base_st *obj);

#define ZAN_TABLE_ACCESSORS(t)                                                                     \
    const kor_##t##_key_t *kor_srv_##t##_get_key(const zan_table_base_st *obj)                     \
    {                                                                                              \
        return obj->key_len ? &ZAN_OBJ(t, obj)->key : NULL;                                        \
    }                                                                                              \
    void kor_srv_##t##_set_key(zan_table_base_st *obj, const kor_##t##_key_t *key)                 \
    {                                                                                              \
        ZAN_OBJ(t, obj)->key = *key;                                                               \
        obj->key_len = sizeof(*key);                                                               \
    }                                                                                              \
    uint8_t kor_##t##_key_is_set(const zan_table_base_st *obj)                                     \
    {                                                                                              \
        return obj->key_len != 0;                                                                  \
    }                                                                                              \
    int kor_##t##_key_cmp(const void *a, const void *b)                                            \
    {                                                                                              \
        return zan_key_cmp(&zan_def_##t, a, b);                                                    \
    }                                                                                              \
    uint32_t zan_srv_##t##_get_trans_id(const zan_table_base_st *obj)                              \
    {                                                                                              \
        return ZAN_OBJ(t, obj)->trans_id;                                                          \
    }                                                                                              \
    void zan_srv_##t##_set_trans_id(zan_table_base_st *obj, uint32_t trans_id)                     \
    {                                                                                              \
        ZAN_OBJ(t, obj)->trans_id = trans_id;                                                      \
    }                                                                                              \
    zan_table_base_st *kor_srv_##t##_ctor(uint32_t count)                                          \
    {                                                                                              \
        return zan_obj_ctor(&zan_def_##t, 0, count);                                               \
    }                                                                                              \
    uint32_t kor_##t##_serialize(const zan_table_base_st *obj, void *buffer)                       \
    {                                                                                              \
        return zan_obj_serialize(&zan_def_##t, zan_obj_gap(&zan_def_##t, obj), obj, buffer);       \
    }                                                                                              \
    uint32_t kor_##t##_get_obj_size(uint32_t count)                                                \
    {                                                                                              \
        return (uint32_t)sizeof(zan_##t##_obj_st) + zan_obj_dyn_size(&zan_def_##t, count);         \
    }                                                                                              \
    uint32_t kor_##t##_get_num_repeat_count(const zan_table_base_st *obj)                          \
    {                                                                                              \
        return zan_obj_num_elements(&zan_def_##t, obj);                                            \
    }                                                                                              \
    void *zan_srv_##t##_get_npd_handle(const zan_table_base_st *obj)                               \
    {                                                                                              \
        return ZAN_OBJ(t, obj) + 1;                                                                \
    }                                                                                              \
    uint64_t zan_srv_##t##_get_npi_handle(const zan_table_base_st *obj)                            \
    {                                                                                              \
        return obj->obj_handle;                                                                    \
    }

/* npu_bmap of a table that has none: 0 and not set. */
#define ZAN_NO_NPU_BMAP(t)                                                                         \
    kor_npu_mask_t kor_srv_##t##_get_npu_bmap(const zan_table_base_st *)                           \
    {                                                                                              \
        return 0;                                                                                  \
    }                                                                                              \
    uint8_t kor_srv_##t##_is_set_npu_bmap(const zan_table_base_st *)                               \
    {                                                                                              \
        return 0;                                                                                  \
    }

/* Bytes between the fixed part and the dynamic attributes of a form whose total_obj_size is right.
 */
static inline uint32_t zan_obj_gap(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    const uint32_t size = def->obj_size + zan_obj_dyn_size(def, zan_obj_num_elements(def, obj));
    return obj->total_obj_size > size ? obj->total_obj_size - size : 0;
}

/* ---- Attributes ---- */

#define ZAN_ATTR_SINGLE_DECL(t, a, T)                                                              \
    ZAN_ACC(T) kor_srv_##t##_get_##a(const zan_table_base_st *obj);                                \
    ZAN_ACC(T) srv_##t##_get_##a(const zan_table_base_st *obj);                                    \
    ZAN_ACC(void) kor_srv_##t##_set_##a(zan_table_base_st *obj, T value);                          \
    ZAN_ACC(uint8_t) kor_srv_##t##_is_set_##a(const zan_table_base_st *obj);

#define ZAN_ATTR_SINGLE(t, a, T)                                                                   \
    T kor_srv_##t##_get_##a(const zan_table_base_st *obj)                                          \
    {                                                                                              \
        return ZAN_OBJ(t, obj)->a;                                                                 \
    }                                                                                              \
    T srv_##t##_get_##a(const zan_table_base_st *obj)                                              \
    {                                                                                              \
        return ZAN_OBJ(t, obj)->a;                                                                 \
    }                                                                                              \
    void kor_srv_##t##_set_##a(zan_table_base_st *obj, T value)                                    \
    {                                                                                              \
        ZAN_OBJ(t, obj)->a = value;                                                                \
        ZAN_OBJ(t, obj)->a##_set = 1;                                                              \
    }                                                                                              \
    uint8_t kor_srv_##t##_is_set_##a(const zan_table_base_st *obj)                                 \
    {                                                                                              \
        return ZAN_OBJ(t, obj)->a##_set;                                                           \
    }

/* A field of the key under an attribute's name; set when the object has a key. */
#define ZAN_ATTR_KEY_DECL(t, a, T) ZAN_ATTR_SINGLE_DECL(t, a, T)

#define ZAN_ATTR_KEY(t, a, T)                                                                      \
    T kor_srv_##t##_get_##a(const zan_table_base_st *obj)                                          \
    {                                                                                              \
        return ZAN_OBJ(t, obj)->key.a;                                                             \
    }                                                                                              \
    T srv_##t##_get_##a(const zan_table_base_st *obj)                                              \
    {                                                                                              \
        return ZAN_OBJ(t, obj)->key.a;                                                             \
    }                                                                                              \
    void kor_srv_##t##_set_##a(zan_table_base_st *obj, T value)                                    \
    {                                                                                              \
        ZAN_OBJ(t, obj)->key.a = value;                                                            \
        obj->key_len = sizeof(ZAN_OBJ(t, obj)->key);                                               \
    }                                                                                              \
    uint8_t kor_srv_##t##_is_set_##a(const zan_table_base_st *obj)                                 \
    {                                                                                              \
        return obj->key_len != 0;                                                                  \
    }

/* An array of N values has one is-set byte for all. */
#define ZAN_ATTR_ARRAY_DECL(t, a, T)                                                               \
    ZAN_ACC(T) kor_srv_##t##_get_##a(const zan_table_base_st *obj, uint32_t index);                \
    ZAN_ACC(T) srv_##t##_get_##a(const zan_table_base_st *obj, uint32_t index);                    \
    ZAN_ACC(void) kor_srv_##t##_set_##a(zan_table_base_st *obj, uint32_t index, T value);          \
    ZAN_ACC(uint8_t) kor_srv_##t##_is_set_##a(const zan_table_base_st *obj);

#define ZAN_ATTR_ARRAY(t, a, T, N)                                                                 \
    ZAN_ATTR_INDEXED(t, a, T, ZAN_OBJ(t, obj)->a, N)                                               \
    void kor_srv_##t##_set_##a(zan_table_base_st *obj, uint32_t index, T value)                    \
    {                                                                                              \
        assert(index < (N));                                                                       \
        ZAN_OBJ(t, obj)->a[index] = value;                                                         \
        ZAN_OBJ(t, obj)->a##_set = 1;                                                              \
    }                                                                                              \
    uint8_t kor_srv_##t##_is_set_##a(const zan_table_base_st *obj)                                 \
    {                                                                                              \
        return ZAN_OBJ(t, obj)->a##_set;                                                           \
    }

/* Values with an is-set byte each: one for each NPU, or one for each member. */
#define ZAN_ATTR_PER_NPU_DECL(t, a, T)                                                             \
    ZAN_ACC(T) kor_srv_##t##_get_##a(const zan_table_base_st *obj, uint32_t index);                \
    ZAN_ACC(T) srv_##t##_get_##a(const zan_table_base_st *obj, uint32_t index);                    \
    ZAN_ACC(void) kor_srv_##t##_set_##a(zan_table_base_st *obj, uint32_t index, T value);          \
    ZAN_ACC(uint8_t) kor_srv_##t##_is_set_##a(const zan_table_base_st *obj, uint32_t index);

#define ZAN_ATTR_REPEATED_DECL(t, a, T) ZAN_ATTR_PER_NPU_DECL(t, a, T)

#define ZAN_ATTR_PER_NPU(t, a, T)                                                                  \
    ZAN_ATTR_INDEXED(t, a, T, ZAN_OBJ(t, obj)->a, ZAN_MAX_NPUS)                                    \
    ZAN_ATTR_SET_EACH(t, a, T, ZAN_OBJ(t, obj)->a, ZAN_OBJ(t, obj)->a##_set, ZAN_MAX_NPUS)

#define ZAN_ATTR_REPEATED(t, a, T)                                                                 \
    ZAN_ATTR_INDEXED(t, a, T, ZAN_OBJ(t, obj)->a, ZAN_OBJ(t, obj)->num_elements)                   \
    ZAN_ATTR_SET_EACH(t, a, T, ZAN_OBJ(t, obj)->a,                                                 \
                      ((uint8_t *)ZAN_OBJ(t, obj)->a +                                             \
                       ZAN_PAD8((size_t)ZAN_OBJ(t, obj)->num_elements * sizeof(T))),               \
                      ZAN_OBJ(t, obj)->num_elements)

#define ZAN_ATTR_INDEXED(t, a, T, values, bound)                                                   \
    T kor_srv_##t##_get_##a(const zan_table_base_st *obj, uint32_t index)                          \
    {                                                                                              \
        assert(index < (bound));                                                                   \
        return (values)[index];                                                                    \
    }                                                                                              \
    T srv_##t##_get_##a(const zan_table_base_st *obj, uint32_t index)                              \
    {                                                                                              \
        assert(index < (bound));                                                                   \
        return (values)[index];                                                                    \
    }

#define ZAN_ATTR_SET_EACH(t, a, T, values, set_bytes, bound)                                       \
    void kor_srv_##t##_set_##a(zan_table_base_st *obj, uint32_t index, T value)                    \
    {                                                                                              \
        assert(index < (bound));                                                                   \
        (values)[index] = value;                                                                   \
        (set_bytes)[index] = 1;                                                                    \
    }                                                                                              \
    uint8_t kor_srv_##t##_is_set_##a(const zan_table_base_st *obj, uint32_t index)                 \
    {                                                                                              \
        assert(index < (bound));                                                                   \
        return (set_bytes)[index];                                                                 \
    }

/* ---- References ----
 *
 * The functions of a repeated reference take the member index behind the object. The macros get it
 * as two words: ZAN_ONE (no index), or ZAN_EACH.
 */
#define ZAN_ONE_PARAM
#define ZAN_ONE_AT(field)  (field)
#define ZAN_EACH_PARAM     , uint32_t index
#define ZAN_EACH_AT(field) ((field)[index])

#define ZAN_REF_DECL(t, s, K, N)                                                                   \
    ZAN_ACC(uint64_t) kor_srv_##t##_get_##s##_refhdl(const zan_table_base_st *obj N##_PARAM);      \
    ZAN_ACC(void) kor_srv_##t##_set_##s##_refhdl(zan_table_base_st *obj N##_PARAM, uint64_t hdl);  \
    ZAN_ACC(uint8_t) kor_srv_##t##_is_set_##s##_refhdl(const zan_table_base_st *obj N##_PARAM);    \
    ZAN_ACC(K) kor_srv_##t##_get_##s##_refkey(const zan_table_base_st *obj N##_PARAM);             \
    ZAN_ACC(void) kor_srv_##t##_set_##s##_refkey(zan_table_base_st *obj N##_PARAM, K key);         \
    ZAN_ACC(uint8_t) kor_srv_##t##_is_set_##s##_refkey(const zan_table_base_st *obj N##_PARAM);

#define ZAN_REF(t, s, K, N)                                                                        \
    uint64_t kor_srv_##t##_get_##s##_refhdl(const zan_table_base_st *obj N##_PARAM)                \
    {                                                                                              \
        return N##_AT(ZAN_OBJ(t, obj)->ref_##s).ref.refhdl;                                        \
    }                                                                                              \
    void kor_srv_##t##_set_##s##_refhdl(zan_table_base_st *obj N##_PARAM, uint64_t hdl)            \
    {                                                                                              \
        N##_AT(ZAN_OBJ(t, obj)->ref_##s).ref.refhdl = hdl;                                         \
        N##_AT(ZAN_OBJ(t, obj)->ref_##s).ref.refhdl_set = 1;                                       \
    }                                                                                              \
    uint8_t kor_srv_##t##_is_set_##s##_refhdl(const zan_table_base_st *obj N##_PARAM)              \
    {                                                                                              \
        return N##_AT(ZAN_OBJ(t, obj)->ref_##s).ref.refhdl_set;                                    \
    }                                                                                              \
    K kor_srv_##t##_get_##s##_refkey(const zan_table_base_st *obj N##_PARAM)                       \
    {                                                                                              \
        return N##_AT(ZAN_OBJ(t, obj)->ref_##s).key;                                               \
    }                                                                                              \
    void kor_srv_##t##_set_##s##_refkey(zan_table_base_st *obj N##_PARAM, K key)                   \
    {                                                                                              \
        N##_AT(ZAN_OBJ(t, obj)->ref_##s).key = key;                                                \
        N##_AT(ZAN_OBJ(t, obj)->ref_##s).ref.refkey_set = 1;                                       \
    }                                                                                              \
    uint8_t kor_srv_##t##_is_set_##s##_refkey(const zan_table_base_st *obj N##_PARAM)              \
    {                                                                                              \
        return N##_AT(ZAN_OBJ(t, obj)->ref_##s).ref.refkey_set;                                    \
    }

/* ---- Unions ----
 *
 * A union as a whole: its value with selector, key and handle. clear makes it absent.
 */
#define ZAN_UNION_DECL(t, a, N)                                                                    \
    ZAN_ACC(uint8_t) kor_srv_##t##_is_set_##a(const zan_table_base_st *obj N##_PARAM);             \
    ZAN_ACC(kor_##t##_##a##_t) kor_srv_##t##_get_##a(const zan_table_base_st *obj N##_PARAM);      \
    ZAN_ACC(void)                                                                                  \
    kor_srv_##t##_set_##a(zan_table_base_st *obj N##_PARAM, kor_##t##_##a##_t value);              \
    ZAN_ACC(void) zan_srv_##t##_clear_##a(zan_table_base_st *obj N##_PARAM);

#define ZAN_UNION(t, a, N)                                                                         \
    uint8_t kor_srv_##t##_is_set_##a(const zan_table_base_st *obj N##_PARAM)                       \
    {                                                                                              \
        return N##_AT(ZAN_OBJ(t, obj)->a).ref.is_set;                                              \
    }                                                                                              \
    kor_##t##_##a##_t kor_srv_##t##_get_##a(const zan_table_base_st *obj N##_PARAM)                \
    {                                                                                              \
        return N##_AT(ZAN_OBJ(t, obj)->a);                                                         \
    }                                                                                              \
    void kor_srv_##t##_set_##a(zan_table_base_st *obj N##_PARAM, kor_##t##_##a##_t value)          \
    {                                                                                              \
        N##_AT(ZAN_OBJ(t, obj)->a) = value;                                                        \
        N##_AT(ZAN_OBJ(t, obj)->a).ref.is_set = 1;                                                 \
    }                                                                                              \
    void zan_srv_##t##_clear_##a(zan_table_base_st *obj N##_PARAM)                                 \
    {                                                                                              \
        memset(&N##_AT(ZAN_OBJ(t, obj)->a), 0, sizeof(kor_##t##_##a##_t));                         \
    }

/* A union that is the variant `v` of the union `outer`: seen as its own value with selector 1, set
 * when the outer one stands on that variant. Setting or clearing it does so to the outer one. Its
 * one variant has its accessors from the outer union, under the same names. */
#define ZAN_UNION_NESTED(t, a, outer, v, own, sel)                                                 \
    uint8_t kor_srv_##t##_is_set_##a(const zan_table_base_st *obj)                                 \
    {                                                                                              \
        return zan_variant_is(&ZAN_OBJ(t, obj)->outer.ref, sel);                                   \
    }                                                                                              \
    kor_##t##_##a##_t kor_srv_##t##_get_##a(const zan_table_base_st *obj)                          \
    {                                                                                              \
        kor_##t##_##a##_t value;                                                                   \
        memset(&value, 0, sizeof(value));                                                          \
        if (zan_variant_is(&ZAN_OBJ(t, obj)->outer.ref, sel)) {                                    \
            value.ref = ZAN_OBJ(t, obj)->outer.ref;                                                \
            value.ref.selector = 1;                                                                \
            value.key.own = ZAN_OBJ(t, obj)->outer.key.v;                                          \
        }                                                                                          \
        return value;                                                                              \
    }                                                                                              \
    void kor_srv_##t##_set_##a(zan_table_base_st *obj, kor_##t##_##a##_t value)                    \
    {                                                                                              \
        memset(&ZAN_OBJ(t, obj)->outer, 0, sizeof(ZAN_OBJ(t, obj)->outer));                        \
        ZAN_OBJ(t, obj)->outer.ref = value.ref;                                                    \
        ZAN_OBJ(t, obj)->outer.ref.selector = value.ref.selector == 1 ? (sel) : 0;                 \
        ZAN_OBJ(t, obj)->outer.ref.is_set = 1;                                                     \
        ZAN_OBJ(t, obj)->outer.key.v = value.key.own;                                              \
    }                                                                                              \
    void zan_srv_##t##_clear_##a(zan_table_base_st *obj)                                           \
    {                                                                                              \
        if (zan_variant_is(&ZAN_OBJ(t, obj)->outer.ref, sel))                                      \
            memset(&ZAN_OBJ(t, obj)->outer, 0, sizeof(ZAN_OBJ(t, obj)->outer));                    \
    }

/* One variant: nothing is set while the union stands on another. Setting the key or the handle
 * moves the union to the variant, and what the other one held is gone. */
#define ZAN_VARIANT_DECL(t, a, v, K, N)                                                            \
    ZAN_ACC(uint8_t)                                                                               \
    zan_srv_##t##_is_set_##a##_##v##_refhdl(const zan_table_base_st *obj N##_PARAM);               \
    ZAN_ACC(uint64_t)                                                                              \
    zan_srv_##t##_get_##a##_##v##_refhdl(const zan_table_base_st *obj N##_PARAM);                  \
    ZAN_ACC(void)                                                                                  \
    zan_srv_##t##_set_##a##_##v##_refhdl(zan_table_base_st *obj N##_PARAM, uint64_t hdl);          \
    ZAN_ACC(uint8_t)                                                                               \
    zan_srv_##t##_is_set_##a##_##v##_refkey(const zan_table_base_st *obj N##_PARAM);               \
    ZAN_ACC(K) zan_srv_##t##_get_##a##_##v##_refkey(const zan_table_base_st *obj N##_PARAM);       \
    ZAN_ACC(void) zan_srv_##t##_set_##a##_##v##_refkey(zan_table_base_st *obj N##_PARAM, K key);

#define ZAN_VARIANT(t, a, v, K, N, sel)                                                            \
    uint8_t zan_srv_##t##_is_set_##a##_##v##_refhdl(const zan_table_base_st *obj N##_PARAM)        \
    {                                                                                              \
        const zan_ref_value_st *ref = &N##_AT(ZAN_OBJ(t, obj)->a).ref;                             \
        return zan_variant_is(ref, sel) && ref->refhdl_set;                                        \
    }                                                                                              \
    uint64_t zan_srv_##t##_get_##a##_##v##_refhdl(const zan_table_base_st *obj N##_PARAM)          \
    {                                                                                              \
        const zan_ref_value_st *ref = &N##_AT(ZAN_OBJ(t, obj)->a).ref;                             \
        return zan_variant_is(ref, sel) ? ref->refhdl : 0;                                         \
    }                                                                                              \
    void zan_srv_##t##_set_##a##_##v##_refhdl(zan_table_base_st *obj N##_PARAM, uint64_t hdl)      \
    {                                                                                              \
        zan_ref_value_st *ref = &N##_AT(ZAN_OBJ(t, obj)->a).ref;                                   \
        zan_variant_choose(ref, sizeof(kor_##t##_##a##_t), sel);                                   \
        ref->refhdl = hdl;                                                                         \
        ref->refhdl_set = 1;                                                                       \
    }                                                                                              \
    uint8_t zan_srv_##t##_is_set_##a##_##v##_refkey(const zan_table_base_st *obj N##_PARAM)        \
    {                                                                                              \
        const zan_ref_value_st *ref = &N##_AT(ZAN_OBJ(t, obj)->a).ref;                             \
        return zan_variant_is(ref, sel) && ref->refkey_set;                                        \
    }                                                                                              \
    K zan_srv_##t##_get_##a##_##v##_refkey(const zan_table_base_st *obj N##_PARAM)                 \
    {                                                                                              \
        return N##_AT(ZAN_OBJ(t, obj)->a).key.v;                                                   \
    }                                                                                              \
    void zan_srv_##t##_set_##a##_##v##_refkey(zan_table_base_st *obj N##_PARAM, K key)             \
    {                                                                                              \
        zan_ref_value_st *ref = &N##_AT(ZAN_OBJ(t, obj)->a).ref;                                   \
        zan_variant_choose(ref, sizeof(kor_##t##_##a##_t), sel);                                   \
        N##_AT(ZAN_OBJ(t, obj)->a).key.v = key;                                                    \
        ref->refkey_set = 1;                                                                       \
    }

static inline uint8_t zan_variant_is(const zan_ref_value_st *ref, uint32_t selector)
{
    return ref->is_set && ref->selector == selector;
}

static inline void zan_variant_choose(zan_ref_value_st *ref, size_t stride, uint32_t selector)
{
    if (!zan_variant_is(ref, selector))
        memset((void *)ref, 0, stride);
    ref->selector = selector;
    ref->is_set = 1;
}

#endif
