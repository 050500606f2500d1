/* Sets of events: made once for each content, found by a hash of it. */
#include "event_sets.h"
#include "host_blocks.h"

#include <algorithm>
#include <cstring>

/* A list may go with its visit, so all nodes that were ever made are on one list too. */
struct host_set_node_t {
    host_set_node_t *next, *next_made;
    host_event_set_t *set;
};

namespace
{

uint64_t hash_of(host_event_t *const *events, uint32_t count)
{
    uint64_t hash = 0xcbf29ce484222325u;
    for (uint32_t i = 0; i < count; i++)
        hash = (hash ^ events[i]->number) * 0x100000001b3u;
    return hash ^ hash >> 29;
}

bool holds(const host_event_set_t *set, host_event_t *const *events, uint32_t count)
{
    return set->count == count && memcmp(set->events, events, count * sizeof *events) == 0;
}

/* Lists of one or two on the average; without memory for more they grow longer. */
void make_room(host_event_sets_t *sets)
{
    if (sets->num_sets < sets->num_buckets)
        return;
    const uint32_t num = sets->num_buckets ? sets->num_buckets * 4 : 64;
    auto **by_hash = (host_event_set_t **)host_block_alloc(num * sizeof(host_event_set_t *));
    if (!by_hash)
        return;
    memset(by_hash, 0, num * sizeof *by_hash);
    for (host_event_set_t *set = sets->all; set; set = set->next) {
        set->next_same_hash = by_hash[set->hash & (num - 1)];
        by_hash[set->hash & (num - 1)] = set;
    }
    host_block_free(sets->by_hash);
    sets->by_hash = by_hash;
    sets->num_buckets = num;
}

host_event_set_t **bucket_of(host_event_sets_t *sets, uint64_t hash)
{
    return &sets->by_hash[hash & (sets->num_buckets - 1)];
}

host_event_set_t *make(host_event_sets_t *sets, host_event_t *const *events, uint32_t count,
                       uint64_t hash)
{
    make_room(sets);
    auto *set = (host_event_set_t *)host_block_alloc(sizeof(host_event_set_t) +
                                                     count * sizeof(host_event_t *));
    if (!set || sets->num_buckets == 0) {
        host_block_free(set);
        sets->no_memory = true;
        return nullptr;
    }
    memset((void *)set, 0, sizeof *set);
    host_walk_ctx_init_visit(&set->ctx, sets->root);
    set->hash = hash;
    set->count = count;
    memcpy(set->events, events, count * sizeof *events);
    set->ctx.own = {set->events, count, 0, &set->ctx};
    set->ctx.head.event_list = &set->ctx.own;
    set->ctx.head.num_events = count;
    for (uint32_t i = 0; i < count; i++)
        set->colors |= events[i]->head.color;
    set->next_same_hash = *bucket_of(sets, hash);
    *bucket_of(sets, hash) = set;
    set->next = sets->all;
    sets->all = set;
    sets->num_sets++;
    return set;
}

/* A list of events under construction, on the frame when it is short. */
struct building_t {
    host_event_t *few[32];
    host_event_t **events;
    uint32_t count;

    bool start(uint32_t most)
    {
        count = 0;
        events = most <= sizeof few / sizeof few[0]
                     ? few
                     : (host_event_t **)host_block_alloc(most * sizeof(host_event_t *));
        return events;
    }
    void add(const host_event_set_t *set)
    {
        memcpy(events + count, set->events, set->count * sizeof *events);
        count += set->count;
    }
    host_event_set_t *finish(host_event_sets_t *sets)
    {
        host_event_set_t *set = host_event_set(sets, events, count);
        if (events != few)
            host_block_free(events);
        return set;
    }
};

host_set_node_t *take_node(host_event_sets_t *sets)
{
    host_set_node_t *node = sets->free_nodes;
    if (node) {
        sets->free_nodes = node->next;
        return node;
    }
    node = (host_set_node_t *)host_block_alloc(sizeof(host_set_node_t));
    if (!node)
        return nullptr;
    node->next_made = sets->all_nodes;
    sets->all_nodes = node;
    return node;
}

/* Of all sets of a list. */
host_event_set_t *merge(host_event_sets_t *sets, const host_set_list_t *list)
{
    uint32_t most = list->first->count;
    for (const host_set_node_t *node = list->more; node; node = node->next)
        most += node->set->count;
    building_t all;
    if (!all.start(most)) {
        sets->no_memory = true;
        return nullptr;
    }
    all.add(list->first);
    for (const host_set_node_t *node = list->more; node; node = node->next)
        all.add(node->set);
    const auto before = [](const host_event_t *a, const host_event_t *b) {
        return a->number < b->number;
    };
    std::sort(all.events, all.events + all.count, before);
    all.count = (uint32_t)(std::unique(all.events, all.events + all.count) - all.events);
    return all.finish(sets);
}

} // namespace

host_event_set_t *host_event_set(host_event_sets_t *sets, host_event_t *const *events,
                                 uint32_t count)
{
    if (count == 0)
        return nullptr;
    const uint64_t hash = hash_of(events, count);
    for (host_event_set_t *set = sets->num_buckets ? *bucket_of(sets, hash) : nullptr; set;
         set = set->next_same_hash)
        if (set->hash == hash && holds(set, events, count))
            return set;
    return make(sets, events, count, hash);
}

void host_set_list_add(host_event_sets_t *sets, host_set_list_t *list, host_event_set_t *set)
{
    if (!list->first || list->first == set) {
        list->first = set;
        return;
    }
    if (list->more && list->more->set == set)
        return;
    host_set_node_t *node = take_node(sets);
    if (!node) {
        sets->no_memory = true;
        return;
    }
    node->next = list->more;
    node->set = set;
    list->more = node;
}

host_event_set_t *host_set_list_merge(host_event_sets_t *sets, host_set_list_t *list)
{
    const host_set_list_t all = *list;
    *list = {};
    if (!all.more)
        return all.first;
    const bool two = !all.more->next;
    if (!two || all.first != sets->last_a || all.more->set != sets->last_b) {
        sets->last_union = merge(sets, &all);
        sets->last_a = two ? all.first : nullptr;
        sets->last_b = all.more->set;
    }
    host_set_node_t *last = all.more;
    while (last->next)
        last = last->next;
    last->next = sets->free_nodes;
    sets->free_nodes = all.more;
    return sets->last_union;
}

host_event_set_t *host_event_set_for_mask(host_event_sets_t *sets, host_event_set_t *set,
                                          uint8_t mask)
{
    mask &= set->colors;
    if (mask == set->colors)
        return set;
    if (set->of_mask_known >> mask & 1)
        return set->of_mask[mask];
    building_t passing;
    if (!passing.start(set->count)) {
        sets->no_memory = true;
        return nullptr;
    }
    for (uint32_t i = 0; i < set->count; i++)
        if (set->events[i]->head.color == 0 || (set->events[i]->head.color & mask))
            passing.events[passing.count++] = set->events[i];
    set->of_mask[mask] = passing.finish(sets);
    set->of_mask_known |= (uint8_t)(1u << mask);
    return set->of_mask[mask];
}

void host_event_sets_free(host_event_sets_t *sets)
{
    while (host_event_set_t *set = sets->all) {
        sets->all = set->next;
        while (host_table_pass_t *pass = set->passes) {
            set->passes = pass->next;
            host_block_free(pass);
        }
        host_block_free(set);
    }
    while (host_set_node_t *node = sets->all_nodes) {
        sets->all_nodes = node->next_made;
        host_block_free(node);
    }
    host_block_free(sets->by_hash);
}
