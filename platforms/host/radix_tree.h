/* The index of a table: an adaptive radix tree over the order-preserving byte form of the key.
 *
 * A leaf is the object itself; its key is not stored a second time but encoded again from the
 * object when a leaf has to be compared. All keys of a tree have the same length, so that no key is
 * the beginning of another. Exact and ordered.
 *
 * One writer at a time, and no reader beside it.
 */
#ifndef ZAN_HOST_RADIX_TREE_H
#define ZAN_HOST_RADIX_TREE_H

#include "zan_tables_private.h"

typedef struct host_radix_tree_t {
    const zan_table_def_t *def; /* how a key is read from an object */
    uintptr_t root;             /* 0 in an empty tree */
    uint64_t node_bytes;        /* of the nodes in use */
} host_radix_tree_t;

typedef enum host_radix_result_et {
    HOST_RADIX_OK,
    HOST_RADIX_EXISTS,
    HOST_RADIX_NO_MEMORY, /* nothing has changed */
} host_radix_result_et;

/* Whether to find the key itself too. */
typedef enum host_radix_bound_et {
    HOST_RADIX_NOT_BELOW,
    HOST_RADIX_ABOVE,
} host_radix_bound_et;

host_radix_result_et host_radix_insert(host_radix_tree_t *tree, const uint8_t *key,
                                       zan_table_base_st *obj);
/* False when the object does not stand under the key; nothing has changed then. Never fails for
 * want of memory. */
bool host_radix_delete(host_radix_tree_t *tree, const uint8_t *key, const zan_table_base_st *obj);

zan_table_base_st *host_radix_find(const host_radix_tree_t *tree, const uint8_t *key);
zan_table_base_st *host_radix_first(const host_radix_tree_t *tree);
zan_table_base_st *host_radix_bound(const host_radix_tree_t *tree, const uint8_t *key,
                                    host_radix_bound_et bound);

/* Bring towards the cache what searches for these keys will read. */
#define HOST_RADIX_PREFETCH_MAX 16u
typedef struct host_radix_search_t {
    const host_radix_tree_t *tree;
    uint8_t key[ZAN_KEY_BYTES_MAX];
} host_radix_search_t;
void host_radix_prefetch(const host_radix_search_t *searches, uint32_t count);

/* Give all nodes back; the objects stay as they are. */
void host_radix_clear(host_radix_tree_t *tree);

#endif
