/* Batches for tests: built as a client would, and then spoilt as one should not. */
#ifndef WIRE_BATCHES_H
#define WIRE_BATCHES_H

#include "../../client/zan_wire.h"
#include "zan_tables_private.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

inline const zan_table_def_t *def_of(uint16_t id)
{
    return zan_table_def_get(id);
}

/* A batch under construction. */
struct wire_t {
    zan_batch_frame_st frame = {};
    std::vector<uint64_t> words; /* aligned storage of the objects */
    size_t len = 0;
    std::vector<size_t> at;

    uint8_t *bytes()
    {
        return (uint8_t *)words.data();
    }
    zan_table_base_st *obj(size_t i)
    {
        return (zan_table_base_st *)(bytes() + at[i]);
    }
    void add(const zan_table_base_st *heap, uint8_t operation, uint32_t flag = 0)
    {
        const zan_table_def_t *def = zan_table_def_get(heap->table_id);
        at.push_back(len);
        const size_t size = def->obj_size + zan_obj_dyn_size(def, zan_obj_num_elements(def, heap));
        words.resize((len + size) / 8);
        zan_obj_serialize(def, 0, heap, bytes() + len);
        len += size;
        obj(at.size() - 1)->table_operation = operation;
        obj(at.size() - 1)->flag |= flag;
        frame.hdr.msg_len = (uint32_t)len;
        frame.hdr.num_resp = (uint32_t)at.size();
    }
    void add(const char *table, const char *text, uint8_t operation, uint32_t flag = 0)
    {
        char why[256] = "";
        zan_table_base_st *heap = zan_obj_parse(zan_table_def_find(table), text, why, sizeof why);
        ASSERT_TRUE(heap) << table << " " << text << ": " << why;
        add(heap, operation, flag);
        free(heap);
    }
};

/* One to four objects of any tables; one batch in four is asynchronous. */
inline wire_t random_batch(std::mt19937_64 *rng)
{
    static const uint8_t operations[] = {
        ZAN_TABLE_CREATE,   ZAN_TABLE_CREATE,      ZAN_TABLE_UPDATE,    ZAN_TABLE_UPDATE,
        ZAN_TABLE_DELETE,   ZAN_TABLE_GET,         ZAN_TABLE_GET_FIRST, ZAN_TABLE_GET_GT_EQ,
        ZAN_TABLE_GET_NEXT, ZAN_TABLE_REPLAY_START};
    static const uint16_t getopts[] = {ZAN_GETOPT_STALE_ONLY, ZAN_GETOPT_FORMAT_TEXT,
                                       ZAN_GETOPT_STOP_QUEUES_A, ZAN_GETOPT_SHOW_BUFFER};
    wire_t wire;
    const unsigned count = 1 + (unsigned)((*rng)() % 4);
    const bool async = (*rng)() % 4 == 0;
    for (unsigned i = 0; i < count; i++) {
        const zan_table_def_t *def = def_of((uint16_t)((*rng)() % ZAN_NUM_TABLES));
        zan_table_base_st *heap = zan_obj_ctor(def, 0, (uint32_t)((*rng)() % 4));
        heap->key_len = def->key_size;
        heap->obj_handle = (*rng)() % 8 ? 0 : (*rng)();
        if ((*rng)() % 2)
            heap->flag |= (*rng)() % 2 ? ZAN_FLAG_RETRY_MODE : ZAN_FLAG_CARRY;
        wire.add(heap,
                 async ? (uint8_t)ZAN_TABLE_CREATE : operations[(*rng)() % std::size(operations)],
                 async ? ZAN_FLAG_IS_ASYNC_DISPATCH : 0);
        free(heap);
        zan_table_base_st *obj = wire.obj(i);
        if (obj->table_operation == ZAN_TABLE_CREATE)
            obj->write_kind = (uint8_t)((*rng)() % 4);
        else if (obj->table_operation >= ZAN_TABLE_GET &&
                 obj->table_operation <= ZAN_TABLE_GET_NEXT && (*rng)() % 2)
            obj->getopt_mask = getopts[(*rng)() % std::size(getopts)];
    }
    return wire;
}

/* A byte, a bit, an aligned word of the header with an interesting value, or a cut. */
inline void mutate(wire_t *wire, std::mt19937_64 *rng)
{
    static const uint64_t words[] = {0, 1, 7, 8, 192, 0x7fffffff, 0xffffffff, ~0ull};
    uint8_t *bytes = wire->bytes();
    const size_t at = (*rng)() % wire->len;
    switch ((*rng)() % 5) {
    case 0:
        bytes[at] = (uint8_t)(*rng)();
        break;
    case 1:
        bytes[at] ^= (uint8_t)(1u << ((*rng)() % 8));
        break;
    case 2: {
        const size_t obj = wire->at[(*rng)() % wire->at.size()];
        const size_t in_header = (*rng)() % 24 * 8; /* 192 bytes */
        const uint64_t word = words[(*rng)() % std::size(words)];
        memcpy(bytes + obj + in_header, &word, (*rng)() % 2 ? 4 : 8);
        break;
    }
    case 3: {
        const size_t less = 8 * (1 + (*rng)() % 8);
        if (less < wire->len)
            wire->len -= less;
        wire->frame.hdr.msg_len = (uint32_t)wire->len;
        break;
    }
    default:
        bytes[at] = (uint8_t)((*rng)() % 3); /* where an is-set byte or a Boolean may stand */
    }
}

#endif
