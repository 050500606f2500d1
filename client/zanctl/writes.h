/* A write of one object, as a person means it, and the answer to it. */
#ifndef ZANCTL_WRITES_H
#define ZANCTL_WRITES_H

#include "objects.h"

/* An update of which only what the text names changes: the stored object's members and plain
 * references are named again. Null and a reason. */
object_ptr_t parse_update(session_t *session, const std::string &text, std::string *why);
/* How the operation went by its slot, with the field at fault where one is known. */
outcome_t server_answer(session_t *session, const order_t &order,
                        const zan_table_response_st *slot);

#endif
