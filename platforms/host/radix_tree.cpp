/* The adaptive radix tree.
 *
 * A node stands for all keys that begin alike; its prefix is what they share behind the byte that
 * led to it (path compression), and a key without company stands as a leaf right where it parts
 * from its neighbours (lazy expansion). So the depth is that of the branchings, not of the key.
 *
 * A search for one key skips what is not stored of a prefix and proves the key at the leaf. An
 * insert or an ordered search needs the prefix itself, and takes the unstored rest from any leaf
 * below.
 *
 * A full node moves to the next larger kind; one that has shrunk well below the next smaller kind's
 * room moves back. A node with one child left gives way to the child.
 */
#include "radix_tree.h"
#include "host_assert.h"
#include "radix_nodes.h"
#include "zan_tables_private.h"

#include <cstring>

namespace
{

/* Fewer children than this, and the node moves to the next smaller kind: some way below its room,
 * so that a delete and an insert in turn do not move it each time. */
const uint16_t shrink_below[RADIX_KINDS] = {0, 4, 13, 37};

inline bool is_leaf(uintptr_t child)
{
    return child & RADIX_LEAF;
}

inline zan_table_base_st *leaf_object(uintptr_t child)
{
    return (zan_table_base_st *)(child - RADIX_LEAF);
}

inline radix_node_t *as_node(uintptr_t child)
{
    return (radix_node_t *)child;
}

inline void object_key(const zan_table_def_t *def, const zan_table_base_st *obj, uint8_t *key)
{
    zan_key_encode(def, zan_obj_key(def, obj), key);
}

uintptr_t first_leaf(uintptr_t child)
{
    while (!is_leaf(child))
        child = radix_node_first(as_node(child));
    return child;
}

radix_node_t *new_node(host_radix_tree_t *tree, radix_kind_et kind)
{
    radix_node_t *node = radix_node_alloc(kind);
    if (node)
        tree->node_bytes += radix_node_size(kind);
    return node;
}

void drop_node(host_radix_tree_t *tree, radix_node_t *node)
{
    tree->node_bytes -= radix_node_size((radix_kind_et)node->kind);
    radix_node_free(node);
}

inline void set_prefix(radix_node_t *node, const uint8_t *bytes, uint32_t length)
{
    node->prefix_len = (uint8_t)length;
    memcpy(node->prefix, bytes, length < RADIX_PREFIX_STORED ? length : RADIX_PREFIX_STORED);
}

/* The whole prefix of a node at this depth: its own bytes, or a leaf's key encoded into `buffer`.
 */
const uint8_t *whole_prefix(const host_radix_tree_t *tree, const radix_node_t *node, uint32_t depth,
                            uint8_t *buffer)
{
    if (node->prefix_len <= RADIX_PREFIX_STORED)
        return node->prefix;
    object_key(tree->def, leaf_object(first_leaf((uintptr_t)node)), buffer);
    return buffer + depth;
}

inline uint32_t common_length(const uint8_t *a, const uint8_t *b, uint32_t length)
{
    uint32_t i = 0;
    while (i < length && a[i] == b[i])
        i++;
    return i;
}

/* Two leaves where there was one. */
host_radix_result_et split_leaf(host_radix_tree_t *tree, uintptr_t *place, const uint8_t *key,
                                uint32_t depth, uintptr_t leaf)
{
    uint8_t other[ZAN_KEY_BYTES_MAX];
    object_key(tree->def, leaf_object(*place), other);
    const uint32_t left = tree->def->key_bytes - depth;
    const uint32_t common = common_length(other + depth, key + depth, left);
    if (common == left)
        return HOST_RADIX_EXISTS;
    radix_node_t *node = new_node(tree, RADIX_NODE4);
    if (!node)
        return HOST_RADIX_NO_MEMORY;
    set_prefix(node, key + depth, common);
    radix_node_add(node, other[depth + common], *place);
    radix_node_add(node, key[depth + common], leaf);
    *place = (uintptr_t)node;
    return HOST_RADIX_OK;
}

/* The key leaves the node's prefix after `common` bytes: a new node there has both below it. */
host_radix_result_et split_prefix(host_radix_tree_t *tree, uintptr_t *place, const uint8_t *prefix,
                                  uint32_t common, const uint8_t *rest_of_key, uintptr_t leaf)
{
    radix_node_t *old = as_node(*place);
    radix_node_t *node = new_node(tree, RADIX_NODE4);
    if (!node)
        return HOST_RADIX_NO_MEMORY;
    set_prefix(node, prefix, common);
    radix_node_add(node, prefix[common], *place);
    radix_node_add(node, rest_of_key[common], leaf);
    uint8_t rest[ZAN_KEY_BYTES_MAX];
    const uint32_t rest_len = old->prefix_len - common - 1u;
    memcpy(rest, prefix + common + 1, rest_len); /* prefix may be the node's own bytes */
    set_prefix(old, rest, rest_len);
    *place = (uintptr_t)node;
    return HOST_RADIX_OK;
}

host_radix_result_et add_child(host_radix_tree_t *tree, uintptr_t *place, uint8_t byte,
                               uintptr_t leaf)
{
    radix_node_t *node = as_node(*place);
    if (radix_node_is_full(node)) {
        radix_node_t *larger = new_node(tree, (radix_kind_et)(node->kind + 1));
        if (!larger)
            return HOST_RADIX_NO_MEMORY;
        radix_node_move(node, larger);
        *place = (uintptr_t)larger;
        drop_node(tree, node);
        node = larger;
    }
    radix_node_add(node, byte, leaf);
    return HOST_RADIX_OK;
}

/* The node's last child takes its place, with the node's prefix and byte before its own. */
void give_way(host_radix_tree_t *tree, uintptr_t *place)
{
    radix_node_t *node = as_node(*place);
    uint8_t byte;
    const uintptr_t child = radix_node_only(node, &byte);
    if (!is_leaf(child)) {
        radix_node_t *below = as_node(child);
        uint8_t joined[2 * RADIX_PREFIX_STORED + 1];
        uint32_t stored =
            node->prefix_len < RADIX_PREFIX_STORED ? node->prefix_len : RADIX_PREFIX_STORED;
        memcpy(joined, node->prefix, stored);
        joined[stored++] = byte;
        memcpy(joined + stored, below->prefix, RADIX_PREFIX_STORED);
        below->prefix_len = (uint8_t)(below->prefix_len + node->prefix_len + 1);
        memcpy(below->prefix, joined, RADIX_PREFIX_STORED);
    }
    *place = child;
    drop_node(tree, node);
}

void shrink(host_radix_tree_t *tree, uintptr_t *place)
{
    radix_node_t *node = as_node(*place);
    if (node->count >= shrink_below[node->kind])
        return;
    radix_node_t *smaller = new_node(tree, (radix_kind_et)(node->kind - 1));
    if (!smaller)
        return; /* a roomy node is right too */
    radix_node_move(node, smaller);
    *place = (uintptr_t)smaller;
    drop_node(tree, node);
}

void clear_below(host_radix_tree_t *tree, uintptr_t root)
{
    /* A node's first child is taken out until none is left: no stack, no recursion. */
    uintptr_t path[ZAN_KEY_BYTES_MAX + 1];
    uint32_t depth = 0;
    path[0] = root;
    for (;;) {
        radix_node_t *node = as_node(path[depth]);
        if (node->count == 0) {
            drop_node(tree, node);
            if (depth-- == 0)
                return;
            continue;
        }
        uint8_t byte;
        const uintptr_t child = radix_node_only(node, &byte);
        radix_node_remove(node, byte);
        if (!is_leaf(child))
            path[++depth] = child;
    }
}

} // namespace

host_radix_result_et host_radix_insert(host_radix_tree_t *tree, const uint8_t *key,
                                       zan_table_base_st *obj)
{
    const uintptr_t leaf = (uintptr_t)obj | RADIX_LEAF;
    if (!tree->root) {
        tree->root = leaf;
        return HOST_RADIX_OK;
    }
    uintptr_t *place = &tree->root;
    uint32_t depth = 0;
    for (;;) {
        if (is_leaf(*place))
            return split_leaf(tree, place, key, depth, leaf);
        radix_node_t *node = as_node(*place);
        if (node->prefix_len) {
            uint8_t buffer[ZAN_KEY_BYTES_MAX];
            const uint8_t *prefix = whole_prefix(tree, node, depth, buffer);
            const uint32_t common = common_length(prefix, key + depth, node->prefix_len);
            if (common < node->prefix_len)
                return split_prefix(tree, place, prefix, common, key + depth, leaf);
            depth += node->prefix_len;
        }
        uintptr_t *child = radix_node_find(node, key[depth]);
        if (!child)
            return add_child(tree, place, key[depth], leaf);
        place = child;
        depth++;
    }
}

zan_table_base_st *host_radix_find(const host_radix_tree_t *tree, const uint8_t *key)
{
    const uint32_t key_bytes = tree->def->key_bytes;
    uintptr_t child = tree->root;
    uint32_t depth = 0;
    while (child && !is_leaf(child)) {
        radix_node_t *node = as_node(child);
        depth += node->prefix_len;
        const uintptr_t *place = radix_node_find(node, key[depth]);
        if (!place)
            return nullptr;
        child = *place;
        depth++;
    }
    if (!child)
        return nullptr;
    uint8_t found[ZAN_KEY_BYTES_MAX];
    object_key(tree->def, leaf_object(child), found);
    return memcmp(found, key, key_bytes) == 0 ? leaf_object(child) : nullptr;
}

bool host_radix_delete(host_radix_tree_t *tree, const uint8_t *key, const zan_table_base_st *obj)
{
    uintptr_t *place = &tree->root, *parent_place = nullptr;
    uint32_t depth = 0, byte_at = 0;
    while (*place && !is_leaf(*place)) {
        radix_node_t *node = as_node(*place);
        depth += node->prefix_len;
        uintptr_t *child = radix_node_find(node, key[depth]);
        if (!child)
            return false;
        parent_place = place;
        byte_at = depth++;
        place = child;
    }
    if (!*place || leaf_object(*place) != obj)
        return false;
    if (!parent_place) {
        tree->root = 0;
        return true;
    }
    radix_node_t *parent = as_node(*parent_place);
    radix_node_remove(parent, key[byte_at]);
    if (parent->count == 1)
        give_way(tree, parent_place);
    else
        shrink(tree, parent_place);
    return true;
}

zan_table_base_st *host_radix_first(const host_radix_tree_t *tree)
{
    return tree->root ? leaf_object(first_leaf(tree->root)) : nullptr;
}

zan_table_base_st *host_radix_bound(const host_radix_tree_t *tree, const uint8_t *key,
                                    host_radix_bound_et bound)
{
    if (!tree->root)
        return nullptr;
    /* The way down, so that the search can turn right at the last node that has a greater child. */
    struct {
        const radix_node_t *node;
        uint8_t byte;
    } way[ZAN_KEY_BYTES_MAX];
    uint32_t turns = 0, depth = 0;
    uint8_t buffer[ZAN_KEY_BYTES_MAX];
    uintptr_t child = tree->root;
    while (!is_leaf(child)) {
        radix_node_t *node = as_node(child);
        if (node->prefix_len) {
            const uint8_t *prefix = whole_prefix(tree, node, depth, buffer);
            const int order = memcmp(prefix, key + depth, node->prefix_len);
            if (order > 0)
                return leaf_object(first_leaf(child));
            if (order < 0)
                break;
            depth += node->prefix_len;
        }
        way[turns].node = node;
        way[turns++].byte = key[depth];
        const uintptr_t *place = radix_node_find(node, key[depth]);
        if (!place)
            break;
        child = *place;
        depth++;
    }
    if (is_leaf(child)) {
        object_key(tree->def, leaf_object(child), buffer);
        const int order = memcmp(buffer, key, tree->def->key_bytes);
        if (order > 0 || (order == 0 && bound == HOST_RADIX_NOT_BELOW))
            return leaf_object(child);
    }
    while (turns--) {
        child = radix_node_above(way[turns].node, way[turns].byte);
        if (child)
            return leaf_object(first_leaf(child));
    }
    return nullptr;
}

void host_radix_clear(host_radix_tree_t *tree)
{
    if (tree->root && !is_leaf(tree->root))
        clear_below(tree, tree->root);
    tree->root = 0;
    HOST_ASSERT(tree->node_bytes == 0, "all nodes of the tree are back");
}
