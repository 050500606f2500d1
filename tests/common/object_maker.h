/* Objects made from a table's definition alone: valid values of every type, from a seed. */
#ifndef ZAN_OBJECT_MAKER_H
#define ZAN_OBJECT_MAKER_H

#include "server_bench.h"

namespace bench
{

/* A valid value of a field; another seed gives another value where the type has more than one. */
void fill_value(const zan_field_def_t *field, void *value, uint32_t seed);

/* An object with its key filled from the seed and no attribute set. */
object_t with_key(const zan_table_def_t *def, uint32_t seed,
                  zan_table_operation_et operation = ZAN_TABLE_CREATE, uint32_t members = 0);

/* Every attribute set, each to a value of its own. */
void fill_attributes(const zan_table_def_t *def, zan_table_base_st *obj, uint32_t seed);

/* Name a parent by key or by handle. */
void set_key(zan_ref_value_st *ref, const zan_table_def_t *parent_def,
             const zan_table_base_st *parent);
void set_handle(zan_ref_value_st *ref, uint64_t handle);

/* All references of a table, plain ones and variants of unions alike. */
struct any_reference_t {
    std::string name; /* "stem" or "attr.stem" */
    const zan_table_def_t *parent_def;
    bool repeated;
    uint16_t selector; /* 0: plain */
    const zan_inherit_def_t *inherits;
    uint32_t num_inherits;
    uint32_t index; /* in refs or unions */
};
std::vector<any_reference_t> references(const zan_table_def_t *def);
/* The stored value of that reference in an object, of its first member when it repeats; a variant
 * is selected first. */
zan_ref_value_st *select_reference(const zan_table_def_t *def, const any_reference_t &ref,
                                   zan_table_base_st *obj);

} // namespace bench

#endif
