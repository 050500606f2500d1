/* The routes of one family: made one at a time from the prefixes, sent, and looked for again. */
#ifndef ZANCTL_ROUTES_H
#define ZANCTL_ROUTES_H

#include "prefixes.h"
#include "zanctl.h"

#include <functional>
#include <map>

/* How many of what, by code. */
using refusals_t = std::map<zan_rcode, uint64_t>;

struct routes_t {
    const char *words; /* for people */
    const zan_table_def_t *def;
    uint32_t count;
    object_ptr_t obj;                            /* the route that `make` made last */
    std::function<void(uint32_t, uint32_t)> put; /* the route of an index, to a group */
    std::vector<uint32_t> in_key_order;
    uint32_t moved_every; /* every so many routes leads to the group behind its own; 0: none */
    void make(uint32_t i) const;
    /* How many lead to a group, none being moved. */
    uint32_t count_in_group(uint32_t group) const;
};

/* `prefixes` must outlive them. */
routes_t make_ipv4_routes(const prefixes_t &prefixes);
routes_t make_ipv6_routes(const prefixes_t &prefixes);

/* Told how far a stage is. */
using progress_f = std::function<void(uint64_t)>;

/* Create, update or delete every so many of them in asynchronous batches. False when the session
 * failed. */
bool send_routes(session_t *session, routes_t *routes, uint8_t operation, uint32_t every,
                 const progress_f &progress);

/* What the table holds, against what was sent. */
struct route_check_t {
    bool was_empty; /* before the load: then there must be no stranger */
    uint64_t sample_read, sample_wrong;
    uint64_t walked;    /* found in their place, in key order */
    uint64_t strangers; /* objects between them that were not sent */
    uint64_t misordered;
    std::vector<uint32_t> missing;
    std::vector<uint32_t> different; /* there, but not as sent */
    std::vector<std::string> wrong;  /* the first few, in words */
};

/* Read a sample by key and compare it field by field with what was sent. */
bool check_sample(session_t *session, routes_t *routes, route_check_t *check);
/* Walk the table: the object behind each key must be the next one that was sent. */
bool check_order(session_t *session, routes_t *routes, route_check_t *check,
                 const progress_f &progress);
/* An asynchronous batch gives no codes: create those again that did not go in, synchronously, for
 * theirs. */
bool ask_again(session_t *session, routes_t *routes, const std::vector<uint32_t> &which,
               refusals_t *refused);

#endif
