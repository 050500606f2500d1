/* What replays come to: of each table's last one, how many of the marked objects the client has
 * sent again as they stood, changed, or deleted, and what its end did. Dispatcher thread with its
 * locks.
 */
#ifndef ZAN_REPLAYS_H
#define ZAN_REPLAYS_H

#include "message_check.h"
#include "object_names.h"

#include <cstddef>
#include <map>
#include <vector>

/* The last replay of a table. */
struct replay_t {
    bool running;
    std::vector<uint32_t> before; /* its counters when it began; empty: none has */
    uint64_t kept;                /* marked, and sent again: nothing to change */
    uint64_t changed;             /* marked, and changed or made anew by the client */
    uint64_t deleted;             /* marked, and deleted by the client */
    uint64_t left;                /* swept, and still stored: held back, or refused by hardware;
                                     not known, and 0, of an end that came with other writes */
    uint32_t dropped;             /* objects in quarantine that were not sent again */
};

struct replays_t {
    replay_t of[ZAN_NUM_TABLES];
    uint32_t running;                  /* how many */
    uint32_t accepted[ZAN_NUM_TABLES]; /* creates of what is stored that a replay let pass, ever */
};

/* One batch and the replays: made in front of the dispatcher's call, noted behind it. */
class replay_batch_t
{
public:
    /* `msg` must stay, and be proved well-formed. */
    replay_batch_t(replays_t *replays, const message_verdict_t &verdict, const uint8_t *msg,
                   size_t len);
    /* `slots` are those of the batch, each with `payload` bytes behind it. */
    void note(const uint8_t *slots, uint32_t payload);

private:
    struct marked_t {
        object_name_t name;
        size_t content;             /* a hash of what it says */
        bool plain_create, deletes; /* asked of it */
    };
    struct before_t {
        uint64_t stored;
        uint32_t swept;
    };
    void look_at(const zan_table_base_st *obj);
    void look_at_write(const zan_table_base_st *obj);
    void merge_marked();
    void forget(uint32_t table_id);
    void settle_marked();
    void begin(const zan_table_base_st *start);
    void end(uint32_t table_id);

    replays_t *replays_;
    const uint8_t *msg_;
    size_t len_;
    bool concerns_;            /* a replay is under way, begins or ends */
    bool replays_only_ = true; /* nothing else changes the number of objects */
    std::map<uint32_t, const zan_table_base_st *> starts_; /* in the batch so far, by table */
    std::vector<marked_t> marked_;
    std::vector<std::vector<uint32_t>> counters_; /* of the tables whose replay begins, in order */
    size_t begun_ = 0;
    std::vector<before_t> before_; /* each table, if a replay begins or ends */
};

#endif
