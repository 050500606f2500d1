/* Is a batch well-formed?
 *
 * Inside the server a malformed batch is a broken invariant that ends the process. So every batch
 * is proved well-formed here, before the server sees it. This is a pure function of the bytes and
 * of a few facts of the node: no I/O, no server, no allocation, any thread.
 *
 * What a handle leads to cannot be proved ahead, since an earlier object of the batch may change
 * it: handles pass as they are, and each use decides.
 */
#ifndef ZAN_MESSAGE_CHECK_H
#define ZAN_MESSAGE_CHECK_H

#include "../client/zan_wire.h"
#include "zan_tables_private.h"

/* Facts of the node that the verdict depends on. */
struct message_facts_t {
    uint32_t num_npus;
    /* Bytes of the platform's private area by table, ZAN_NUM_TABLES of them; null for none. */
    const uint32_t *private_size;
    timespec now;       /* takes the place of a client_time that cannot be */
    uint32_t reply_max; /* bytes that slots and objects may take in the reply */
    /* The last transaction that was given to an object without one; null: none is given. */
    uint32_t *last_trans;
};

/* Transactions that the agent gives have this bit, so that they are no client's own. */
#define ZAN_AGENT_TRANS 0x80000000u

/* The verdict. Of a refused batch: which object (ZAN_WIRE_NO_INDEX: the batch itself), which field
 * and why. */
struct message_verdict_t {
    bool ok;
    bool is_async;
    bool answers_in_place; /* the objects hold an answer after the run */
    bool replays;          /* a replay of some table begins or ends */
    uint32_t num_objects;  /* of an accepted batch */
    uint32_t object_index;
    char field[96];
    char reason[256];
};

/* Decide on a batch of `len` bytes at `msg`, 8-byte aligned and writable. In an accepted batch
 * every field that only the server may write is cleared; a refused one may be cleared in part.
 * Afterwards and only when ok, the server may have it with `frame.hdr`, and with num_resp slots of
 * payload_alloc_sz bytes. */
message_verdict_t message_check(const message_facts_t &facts, const zan_batch_frame_st &frame,
                                uint8_t *msg, size_t len);

#endif
