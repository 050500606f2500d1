/* Nodes of the radix tree: their memory, and what differs between the four kinds.
 *
 * Nodes come from chunks of private memory, with a list of free ones for each kind, so that a table
 * that grows and shrinks does not go to the system. In sanitizer builds each node is a block of its
 * own, so that a stale node is seen.
 */
#include "radix_nodes.h"
#include "host_assert.h"

#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace
{

constexpr size_t chunk_bytes = 256 * 1024;

struct chunk_t {
    chunk_t *next;
};

union free_node_t {
    free_node_t *next;
};

chunk_t *chunks;
free_node_t *free_nodes[RADIX_KINDS];

const size_t sizes[RADIX_KINDS] = {sizeof(radix_node4_t), sizeof(radix_node16_t),
                                   sizeof(radix_node48_t), sizeof(radix_node256_t)};
const uint16_t room[RADIX_KINDS] = {4, 16, 48, 256};

bool refill(radix_kind_et kind)
{
    auto *chunk = (chunk_t *)malloc(chunk_bytes);
    if (!chunk)
        return false;
    chunk->next = chunks;
    chunks = chunk;
    const size_t size = sizes[kind];
    auto *end = (uint8_t *)chunk + chunk_bytes;
    for (uint8_t *at = (uint8_t *)(chunk + 1); at + size <= end; at += size) {
        auto *node = (free_node_t *)at;
        node->next = free_nodes[kind];
        free_nodes[kind] = node;
    }
    return true;
}

/* The position of the byte in sorted keys, or -1. */
inline int find4(const radix_node4_t *node, uint8_t byte)
{
    for (int i = 0; i < node->head.count; i++)
        if (node->keys[i] == byte)
            return i;
    return -1;
}

inline int find16(const radix_node16_t *node, uint8_t byte)
{
#ifdef __SSE2__
    const __m128i equal =
        _mm_cmpeq_epi8(_mm_set1_epi8((char)byte), _mm_loadu_si128((const __m128i *)node->keys));
    const unsigned bits = (unsigned)_mm_movemask_epi8(equal) & ((1u << node->head.count) - 1);
    return bits ? __builtin_ctz(bits) : -1;
#else
    for (int i = 0; i < node->head.count; i++)
        if (node->keys[i] == byte)
            return i;
    return -1;
#endif
}

void sorted_add(uint8_t *keys, uintptr_t *children, uint32_t count, uint8_t byte, uintptr_t child)
{
    uint32_t at = 0;
    while (at < count && keys[at] < byte)
        at++;
    memmove(keys + at + 1, keys + at, count - at);
    memmove(children + at + 1, children + at, (count - at) * sizeof *children);
    keys[at] = byte;
    children[at] = child;
}

void sorted_remove(uint8_t *keys, uintptr_t *children, uint32_t count, uint8_t byte)
{
    uint32_t at = 0;
    while (keys[at] != byte)
        at++;
    memmove(keys + at, keys + at + 1, count - at - 1);
    memmove(children + at, children + at + 1, (count - at - 1) * sizeof *children);
}

uintptr_t sorted_above(const uint8_t *keys, const uintptr_t *children, uint32_t count, int byte)
{
    for (uint32_t i = 0; i < count; i++)
        if (keys[i] > byte)
            return children[i];
    return 0;
}

/* `byte` may be -1. */
uintptr_t above(const radix_node_t *node, int byte)
{
    switch (node->kind) {
    case RADIX_NODE4: {
        auto *n = (const radix_node4_t *)node;
        return sorted_above(n->keys, n->children, node->count, byte);
    }
    case RADIX_NODE16: {
        auto *n = (const radix_node16_t *)node;
        return sorted_above(n->keys, n->children, node->count, byte);
    }
    case RADIX_NODE48: {
        auto *n = (const radix_node48_t *)node;
        for (int b = byte + 1; b < 256; b++)
            if (n->at[b])
                return n->children[n->at[b] - 1];
        return 0;
    }
    default: {
        auto *n = (const radix_node256_t *)node;
        for (int b = byte + 1; b < 256; b++)
            if (n->children[b])
                return n->children[b];
        return 0;
    }
    }
}

/* All children of a node in order of their bytes, into arrays of 256. */
uint32_t list_children(const radix_node_t *node, uint8_t *bytes, uintptr_t *children)
{
    uint32_t count = 0;
    switch (node->kind) {
    case RADIX_NODE4:
        memcpy(bytes, ((const radix_node4_t *)node)->keys, node->count);
        memcpy(children, ((const radix_node4_t *)node)->children, node->count * sizeof *children);
        return node->count;
    case RADIX_NODE16:
        memcpy(bytes, ((const radix_node16_t *)node)->keys, node->count);
        memcpy(children, ((const radix_node16_t *)node)->children, node->count * sizeof *children);
        return node->count;
    default:
        for (int b = 0; b < 256; b++) {
            const uintptr_t *child = radix_node_find((radix_node_t *)node, (uint8_t)b);
            if (!child)
                continue;
            bytes[count] = (uint8_t)b;
            children[count++] = *child;
        }
        return count;
    }
}

} // namespace

size_t radix_node_size(radix_kind_et kind)
{
    return sizes[kind];
}

radix_node_t *radix_node_alloc(radix_kind_et kind)
{
    void *memory;
    if (HOST_SANITIZED) {
        memory = malloc(sizes[kind]);
        if (!memory)
            return nullptr;
    } else {
        if (!free_nodes[kind] && !refill(kind))
            return nullptr;
        memory = free_nodes[kind];
        free_nodes[kind] = free_nodes[kind]->next;
    }
    memset(memory, 0, sizes[kind]);
    auto *node = (radix_node_t *)memory;
    node->kind = kind;
    return node;
}

void radix_node_free(radix_node_t *node)
{
    if (HOST_SANITIZED) {
        free(node);
        return;
    }
    const uint8_t kind = node->kind;
    auto *freed = (free_node_t *)(void *)node;
    freed->next = free_nodes[kind];
    free_nodes[kind] = freed;
}

void radix_nodes_release(void)
{
    while (chunks) {
        chunk_t *gone = chunks;
        chunks = gone->next;
        free(gone);
    }
    memset(free_nodes, 0, sizeof free_nodes);
}

uintptr_t *radix_node_find(radix_node_t *node, uint8_t byte)
{
    switch (node->kind) {
    case RADIX_NODE4: {
        auto *n = (radix_node4_t *)node;
        const int at = find4(n, byte);
        return at < 0 ? nullptr : &n->children[at];
    }
    case RADIX_NODE16: {
        auto *n = (radix_node16_t *)node;
        const int at = find16(n, byte);
        return at < 0 ? nullptr : &n->children[at];
    }
    case RADIX_NODE48: {
        auto *n = (radix_node48_t *)node;
        return n->at[byte] ? &n->children[n->at[byte] - 1] : nullptr;
    }
    default: {
        auto *n = (radix_node256_t *)node;
        return n->children[byte] ? &n->children[byte] : nullptr;
    }
    }
}

uintptr_t radix_node_first(const radix_node_t *node)
{
    return above(node, -1);
}

uintptr_t radix_node_above(const radix_node_t *node, uint8_t byte)
{
    return above(node, byte);
}

bool radix_node_is_full(const radix_node_t *node)
{
    return node->count == room[node->kind];
}

void radix_node_add(radix_node_t *node, uint8_t byte, uintptr_t child)
{
    switch (node->kind) {
    case RADIX_NODE4: {
        auto *n = (radix_node4_t *)node;
        sorted_add(n->keys, n->children, node->count, byte, child);
        break;
    }
    case RADIX_NODE16: {
        auto *n = (radix_node16_t *)node;
        sorted_add(n->keys, n->children, node->count, byte, child);
        break;
    }
    case RADIX_NODE48: {
        auto *n = (radix_node48_t *)node;
        uint8_t at = 0;
        while (n->children[at])
            at++;
        n->children[at] = child;
        n->at[byte] = (uint8_t)(at + 1);
        break;
    }
    default:
        ((radix_node256_t *)node)->children[byte] = child;
        break;
    }
    node->count++;
}

void radix_node_remove(radix_node_t *node, uint8_t byte)
{
    switch (node->kind) {
    case RADIX_NODE4: {
        auto *n = (radix_node4_t *)node;
        sorted_remove(n->keys, n->children, node->count, byte);
        break;
    }
    case RADIX_NODE16: {
        auto *n = (radix_node16_t *)node;
        sorted_remove(n->keys, n->children, node->count, byte);
        break;
    }
    case RADIX_NODE48: {
        auto *n = (radix_node48_t *)node;
        n->children[n->at[byte] - 1] = 0;
        n->at[byte] = 0;
        break;
    }
    default:
        ((radix_node256_t *)node)->children[byte] = 0;
        break;
    }
    node->count--;
}

void radix_node_move(const radix_node_t *from, radix_node_t *to)
{
    uint8_t bytes[256];
    uintptr_t children[256];
    const uint32_t count = list_children(from, bytes, children);
    to->prefix_len = from->prefix_len;
    memcpy(to->prefix, from->prefix, sizeof to->prefix);
    for (uint32_t i = 0; i < count; i++)
        radix_node_add(to, bytes[i], children[i]);
}

uintptr_t radix_node_only(const radix_node_t *node, uint8_t *byte)
{
    uint8_t bytes[256];
    uintptr_t children[256];
    list_children(node, bytes, children);
    *byte = bytes[0];
    return children[0];
}
