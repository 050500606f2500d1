/* Objects as text, and what became of an operation on one: shared by reads and writes. */
#ifndef ZANCTL_OBJECTS_H
#define ZANCTL_OBJECTS_H

#include "zanctl.h"

/* An operation on an object as someone wrote it. */
struct order_t {
    uint8_t operation;
    object_ptr_t obj;
    size_t line; /* in its file; 0: from the command line */
};

enum class result_t {
    DONE,
    FAILED,
    FORGIVEN, /* a code that does not stop a batch: a delete held back, a write kept */
    CUT,      /* not tried, since an object before it failed */
};

/* How it went: a code of the server, with the field at fault where one is known, or words of the
 * agent. */
struct outcome_t {
    result_t result;
    zan_rcode rc;
    std::string field, words, hint;
};

/* All of an object, or its key. */
std::string object_text(const zan_table_base_st *obj);
std::string object_json(const zan_table_base_st *obj);
/* Split off the first word. */
std::string take_word(std::string *text);
/* What stands behind "there is no ...": "; is it NAME? ", or ": " where none is near. */
std::string suggestion(const std::string &word, const std::vector<std::string> &names);
/* Null and a reason. */
const zan_table_def_t *find_table(const std::string &name, std::string *why);
/* The id of a table, or ZAN_WIRE_NO_INDEX, all tables, for no name. False and a reason. */
bool find_table_or_all(const std::string &name, uint32_t *table_id, std::string *why);
/* "TABLE FIELD=VALUE..."; null and a reason. */
object_ptr_t parse_object(std::string text, std::string *why);
/* The same of one that is named: by its key, or by its key or handle. */
object_ptr_t parse_keyed(const std::string &text, std::string *why);
object_ptr_t parse_named(const std::string &text, std::string *why);

/* "1 object", "2 objects". */
std::string plural(uint64_t count, const char *one, const char *many);

/* The NPUs of a mask as "0,2"; "-" for none. */
std::string npus_text(uint64_t mask);
json_t npus_json(uint64_t mask);

/* "CREATE_HW_FAILED"; "counter_60" of one that has no name, and counts nothing. */
std::string counter_name(uint32_t index);

/* A moment of CLOCK_REALTIME as local time, in the form of strftime(3). */
std::string time_text(uint64_t ns, const char *form);

/* Of a hardware database: "green", "yellow", "red". */
const char *resource_state_name(uint32_t state);

/* Whether the object of this key has been taken out of service. Not 0, and reported: it cannot be
 * told. */
int find_in_quarantine(session_t *session, const zan_table_base_st *obj, bool *found);

json_t outcome_json(const order_t &order, const outcome_t &outcome);
/* One line for what did not go well, or a JSON document for all; true when it went well. */
bool report(const session_t *session, const order_t &order, const outcome_t &outcome);
outcome_t agent_refusal(const zan_error_st *refusal);
/* Read and print; `well` is how it went when an answer came. */
int read_and_print(session_t *session, const order_t &order, bool *well);

#endif
