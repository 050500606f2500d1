/* The lists of a table whose members are updated by what was added, deleted and modified.
 *
 * The platform's hook update_deprecated gets the record; the element records stand in the table's
 * header (srv_<table>_element_t), and the accessors of the table take the record:
 * srv_<table>_get_add_count, srv_<table>_get_add_array_by_idx and kin. All of it belongs to the
 * server and ends with the call, on whose thread it was made.
 */
#ifndef ZAN_PLATFORM_REPEATED_DELTA_H
#define ZAN_PLATFORM_REPEATED_DELTA_H

#include "zan_table_base.h"

typedef struct zan_repeated_delta_t {
    zan_table_base_st *old_obj; /* null on a create */
    uint8_t *old_elems;         /* element records of the old object, one behind the other */
    uint32_t old_count;
    zan_table_base_st *new_obj; /* null on a delete */
    uint8_t *new_elems;
    uint32_t new_count;
    uint32_t *add_array; /* indices into new_elems */
    uint32_t add_count;
    uint32_t *del_array; /* indices into old_elems */
    uint32_t del_count;
    uint32_t *mod_array; /* indices into new_elems */
    uint32_t mod_count;
    uint32_t *mod_new_to_old_array; /* for each of mod_array the index in old_elems */
    uint32_t mod_new_to_old_count;
} zan_repeated_delta_t;

/* The results of compare_dynamic_struct_deprecated. */
#define ZAN_ELEMENT_EQUAL    0
#define ZAN_ELEMENT_MODIFIED 1  /* the same member with other contents */
#define ZAN_ELEMENT_OTHER    -1 /* not the same member */

#endif
