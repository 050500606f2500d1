/* Inline checks of database objects: what must hold of each one taken from the database. */
#ifndef ZAN_DB_H
#define ZAN_DB_H

#include "zan_assert.h"
#include "zan_table_base.h"

/* Whether the object waits for its children to go. */
static inline bool zan_obj_base_is_delay_delete(const zan_table_base_st *db_obj)
{
    return (db_obj->dpd.del_flag & ZAN_DEL_FLAG_DELAY_DELETE) != 0;
}

static inline void sanity_check_db_obj_base(const zan_table_base_st *db_obj_base, uint32_t table_id)
{
    ZAN_ASSERT(db_obj_base->total_obj_size != 0, "db_obj_base->total_obj_size != 0");
    ZAN_ASSERT(db_obj_base->key_len != 0 || db_obj_base->obj_handle,
               "db_obj_base->key_len != 0 || db_obj_base->obj_handle");
    ZAN_ASSERT(db_obj_base->table_id == table_id, "db_obj_base->table_id == table_id");
}

#endif
