/* What back-walks did, by table and by event, and the change of one object that starts one. */
#ifndef ZANCTL_WALKS_H
#define ZANCTL_WALKS_H

#include "objects.h"

struct walks_t {
    std::vector<zan_walk_table_st> tables;
    std::vector<zan_walk_event_st> events; /* pushed and received */
};

/* Frees the block. */
walks_t take_walks(zan_walk_counts_st *counts);
bool is_source(const zan_walk_table_st &table);
/* All rows in one. */
zan_walk_table_st sum_of(const walks_t &walks);

/* Update an object, and see what its walk did. False when no answer came, or the agent refused. */
bool change_object(session_t *session, const order_t &order, outcome_t *outcome, walks_t *walks);

const char *event_name(const zan_walk_event_st &event);
inline bool was_pushed(const zan_walk_event_st &event)
{
    return event.receiver == ZAN_WIRE_NO_INDEX;
}
/* A line for each table that has objects visited as children; a total behind two or more. False
 * when there is none. */
bool print_children(FILE *out, const walks_t &walks);
json_t walks_json(const walks_t &walks);
double milliseconds(uint64_t ns);

#endif
