/* Lookups announced ahead.
 *
 * A search is a chain of loads, each of which waits for memory in a large tree. Several searches
 * side by side wait together: each round takes every cursor one step further and asks for the line
 * that its next step will read. A cursor has come in over a child pointer; it first needs the
 * node's head, then the place of its byte, and at a leaf all lines of the object.
 */
#include "radix_nodes.h"
#include "radix_tree.h"

#include <cstddef>

namespace
{

struct cursor_t {
    uintptr_t at;     /* 0: done */
    uintptr_t *place; /* of the next child, once the head is known */
    uint32_t depth;
};

inline void prefetch(const void *line)
{
    __builtin_prefetch(line);
}

void prefetch_object(const zan_table_def_t *def, uintptr_t leaf)
{
    constexpr uint32_t line = 64, most = 8 * line;
    const auto *bytes = (const uint8_t *)(leaf - RADIX_LEAF);
    for (uint32_t at = 0; at < def->obj_size && at < most; at += line)
        prefetch(bytes + at);
}

/* The head is there: where the byte's child will be. Small nodes hold it in the lines that came
 * with the head, or next to them. */
uintptr_t *place_of(radix_node_t *node, uint8_t byte)
{
    if (node->kind == RADIX_NODE256)
        return &((radix_node256_t *)node)->children[byte];
    return radix_node_find(node, byte);
}

/* One step; false when the cursor has nothing left to announce. */
bool step(const host_radix_tree_t *tree, const uint8_t *key, cursor_t *c)
{
    if (c->place) {
        c->at = *c->place;
        c->place = nullptr;
        c->depth++;
        if (c->at & RADIX_LEAF) {
            prefetch_object(tree->def, c->at);
            return false;
        }
        prefetch((const void *)c->at);
        return c->at != 0;
    }
    auto *node = (radix_node_t *)c->at;
    c->depth += node->prefix_len;
    if (c->depth >= tree->def->key_bytes)
        return false;
    c->place = place_of(node, key[c->depth]);
    prefetch(c->place);
    return c->place != nullptr;
}

} // namespace

void host_radix_prefetch(const host_radix_search_t *searches, uint32_t count)
{
    cursor_t cursors[HOST_RADIX_PREFETCH_MAX];
    uint32_t active = 0;
    for (uint32_t i = 0; i < count; i++) {
        const uintptr_t root = searches[i].tree->root;
        cursors[i] = {root & RADIX_LEAF ? 0 : root, nullptr, 0};
        active |= (uint32_t)(cursors[i].at != 0) << i;
    }
    while (active)
        for (uint32_t left = active; left; left &= left - 1) {
            const uint32_t i = (uint32_t)__builtin_ctz(left);
            if (!step(searches[i].tree, searches[i].key, &cursors[i]))
                active &= ~(1u << i);
        }
}
