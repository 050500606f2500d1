/* The nodes of the radix tree, by the number of children that they have room for. */
#ifndef ZAN_HOST_RADIX_NODES_H
#define ZAN_HOST_RADIX_NODES_H

#include "zan_types.h"

typedef enum radix_kind_et {
    RADIX_NODE4,
    RADIX_NODE16,
    RADIX_NODE48,
    RADIX_NODE256,
    RADIX_KINDS
} radix_kind_et;

#define RADIX_PREFIX_STORED 8u

/* What all nodes begin with. The prefix is what all keys below have in common behind the byte that
 * led here; of a longer one the first 8 bytes are stored, and the rest is read from any leaf. */
typedef struct radix_node_t {
    uint8_t kind;
    uint8_t prefix_len; /* may be above RADIX_PREFIX_STORED */
    uint16_t count;     /* children */
    uint8_t prefix[RADIX_PREFIX_STORED];
} radix_node_t;

/* A child is 0, a node, or an object with RADIX_LEAF added. */
#define RADIX_LEAF ((uintptr_t)1)

/* keys[] of the two small nodes are sorted; children[i] belongs to keys[i]. */
typedef struct radix_node4_t {
    radix_node_t head;
    uint8_t keys[4];
    uintptr_t children[4];
} radix_node4_t;

typedef struct radix_node16_t {
    radix_node_t head;
    uint8_t keys[16];
    uintptr_t children[16];
} radix_node16_t;

/* at[byte] is the position in children plus 1; 0 for none. */
typedef struct radix_node48_t {
    radix_node_t head;
    uint8_t at[256];
    uintptr_t children[48];
} radix_node48_t;

typedef struct radix_node256_t {
    radix_node_t head;
    uintptr_t children[256];
} radix_node256_t;

/* A node with its kind set and all else zero; null without memory. */
radix_node_t *radix_node_alloc(radix_kind_et kind);
void radix_node_free(radix_node_t *node);
size_t radix_node_size(radix_kind_et kind);
/* Return the memory of all nodes; none may be in use. */
void radix_nodes_release(void);

/* The place of the child under a byte, or null. */
uintptr_t *radix_node_find(radix_node_t *node, uint8_t byte);
/* The first child, and the first whose byte is above `byte`; 0 for none. */
uintptr_t radix_node_first(const radix_node_t *node);
uintptr_t radix_node_above(const radix_node_t *node, uint8_t byte);
bool radix_node_is_full(const radix_node_t *node);
/* Into a node that is not full and has no such byte. */
void radix_node_add(radix_node_t *node, uint8_t byte, uintptr_t child);
void radix_node_remove(radix_node_t *node, uint8_t byte);
/* The same prefix and children in the next larger or smaller kind, which has room for them; `to` is
 * new. */
void radix_node_move(const radix_node_t *from, radix_node_t *to);
/* The one child of a node, and its byte. */
uintptr_t radix_node_only(const radix_node_t *node, uint8_t *byte);

#endif
