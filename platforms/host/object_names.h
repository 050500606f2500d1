/* Objects by name: table and key, in the order of the database. A name outlives its object. */
#ifndef ZAN_HOST_OBJECT_NAMES_H
#define ZAN_HOST_OBJECT_NAMES_H

#include "table_database.h"
#include "zan_lookup.h"

#include <cstdlib>
#include <cstring>
#include <memory>

/* Plain bytes, so that an NPU thread makes one without memory of its own. */
struct object_name_t {
    uint16_t table_id;
    uint8_t bytes[ZAN_KEY_BYTES_MAX]; /* the order-preserving form of the key, zeros behind it */
    uint8_t key[ZAN_KEY_SIZE_MAX];    /* the key structure */

    bool operator<(const object_name_t &other) const
    {
        return table_id != other.table_id ? table_id < other.table_id
                                          : memcmp(bytes, other.bytes, sizeof bytes) < 0;
    }
};

inline bool same_name(const object_name_t &a, const object_name_t &b)
{
    return !(a < b) && !(b < a);
}

inline object_name_t name_of_key(const zan_table_def_t *def, const void *key)
{
    object_name_t name = {def->id, {}, {}};
    zan_key_encode(def, key, name.bytes);
    memcpy(name.key, key, def->key_size);
    return name;
}

inline object_name_t name_of(const zan_table_base_st *obj)
{
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    return name_of_key(def, zan_obj_key(def, obj));
}

/* The stored object of that name, or null. */
inline zan_table_base_st *find_stored(const object_name_t &name)
{
    const zan_table_def_t *def = zan_table_defs[name.table_id];
    zan_lookup_t lookup;
    zan_lookup_init(&lookup, def);
    zan_lookup_set_key(&lookup, def, name.key);
    return zan_db_get(&lookup.base);
}

/* A copy of an object in heap form, of plain memory. */
struct object_free_t {
    void operator()(zan_table_base_st *obj) const
    {
        free(obj);
    }
};
using kept_object_t = std::unique_ptr<zan_table_base_st, object_free_t>;

#endif
