#include "bench.h"

#include <array>
#include <cstdlib>
#include <cstring>

#include <absl/container/btree_map.h>
#include <absl/container/flat_hash_map.h>

namespace bench
{

namespace
{

constexpr uint32_t max_key_bytes = 24;
using key_t = std::array<uint8_t, max_key_bytes>; /* order-preserving, zero-padded */

struct node_t {
    node_t *next, *prev; /* on the parent's list */
    uint32_t size, parent;
    uint8_t bytes[];
};

key_t key_of(const zan_table_def_t *def, const uint8_t *wire)
{
    key_t key = {};
    zan_key_encode(def, zan_obj_key(def, (const zan_table_base_st *)wire), key.data());
    return key;
}

} // namespace

struct floor_t::state_t {
    absl::flat_hash_map<key_t, node_t *> exact[2]; /* IPv4, IPv6 */
    absl::btree_map<key_t, node_t *> ordered[2];
    node_t *children[1024] = {};
    void link(node_t *node, const zan_table_def_t *def, const uint8_t *wire)
    {
        const auto *base = (const zan_table_base_st *)wire;
        memcpy(node->bytes, wire, node->size);
        uint32_t group;
        memcpy(&group, zan_ref_key(zan_obj_union(&def->unions[0], base, 0)), sizeof group);
        node->parent = group % 1024;
        node_t **list = &children[node->parent];
        node->prev = nullptr;
        node->next = *list;
        if (*list)
            (*list)->prev = node;
        *list = node;
    }
    void unlink(node_t *node)
    {
        (node->prev ? node->prev->next : children[node->parent]) = node->next;
        if (node->next)
            node->next->prev = node->prev;
    }
    static uint32_t family(const zan_table_def_t *def)
    {
        return def->key_bytes > 16;
    }
};

floor_t::floor_t() : state_(new state_t)
{
}

floor_t::~floor_t()
{
    for (auto &family : state_->exact)
        for (auto &entry : family)
            free(entry.second);
    delete state_;
}

void floor_t::create(const uint8_t *wire)
{
    const auto *base = (const zan_table_base_st *)wire;
    const zan_table_def_t *def = zan_table_defs[base->table_id];
    auto *node = (node_t *)calloc(1, sizeof(node_t) + base->total_obj_size);
    node->size = base->total_obj_size;
    const key_t key = key_of(def, wire);
    state_->exact[state_t::family(def)].emplace(key, node);
    state_->ordered[state_t::family(def)].emplace(key, node);
    state_->link(node, def, wire);
}

bool floor_t::update(const uint8_t *wire)
{
    const zan_table_def_t *def = zan_table_defs[((const zan_table_base_st *)wire)->table_id];
    const auto &exact = state_->exact[state_t::family(def)];
    const auto found = exact.find(key_of(def, wire));
    if (found == exact.end())
        return false;
    state_->unlink(found->second);
    state_->link(found->second, def, wire);
    return true;
}

bool floor_t::remove(const uint8_t *wire)
{
    const zan_table_def_t *def = zan_table_defs[((const zan_table_base_st *)wire)->table_id];
    auto &exact = state_->exact[state_t::family(def)];
    const auto found = exact.find(key_of(def, wire));
    if (found == exact.end())
        return false;
    node_t *node = found->second;
    state_->unlink(node);
    state_->ordered[state_t::family(def)].erase(found->first);
    exact.erase(found);
    free(node);
    return true;
}

bool floor_t::read(const uint8_t *wire, uint8_t *out)
{
    const zan_table_def_t *def = zan_table_defs[((const zan_table_base_st *)wire)->table_id];
    const auto &exact = state_->exact[state_t::family(def)];
    const auto found = exact.find(key_of(def, wire));
    if (found == exact.end())
        return false;
    memcpy(out, found->second->bytes, found->second->size);
    return true;
}

size_t floor_t::size() const
{
    return state_->exact[0].size() + state_->exact[1].size();
}

} // namespace bench
