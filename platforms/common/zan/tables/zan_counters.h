/* The counters of a table's operations: their indices in its block of the global context, and what
 * each counts, for people. An index that is not named here counts nothing.
 */
#ifndef ZAN_COUNTERS_H
#define ZAN_COUNTERS_H

#include "zan_types.h"

/* X(index, enumerator, words) */
#define ZAN_COUNTERS(X)                                                                            \
    X(1, CREATE, "creates")                                                                        \
    X(2, UPDATE, "updates, of walks too")                                                          \
    X(3, DELETE, "deletes")                                                                        \
    X(5, BIND_FAILED, "binds to a parent refused")                                                 \
    X(7, REFS_CHANGED_A, "updates that changed a reference")                                       \
    X(8, RESOLVE_REF_FAILED, "references not resolved")                                            \
    X(9, RESOLVE_MISMATCH, "references whose key and handle lead to different parents")            \
    X(10, RESOLVE_DROPPED, "references that an update dropped")                                    \
    X(12, BCAST_NO_NPU, "broadcasts with no NPU in the mask")                                      \
    X(13, BCAST_SEND_FAILED, "broadcasts that the queue refused")                                  \
    X(14, WAIT_TIMEOUT, "waits for the NPUs that timed out")                                       \
    X(15, WAIT_EXHAUSTED, "waits for the NPUs given up")                                           \
    X(16, BCAST_NPU_ERROR, "broadcasts that failed on an NPU")                                     \
    X(19, REPLAY_MARKED, "objects marked at a replay's start")                                     \
    X(20, REPLAY_SWEPT, "objects deleted at a replay's end")                                       \
    X(21, CREATE_DYN_ALLOC_FAILED, "creates without memory for the members")                       \
    X(22, INSERT_FAILED_A, "inserts that the database refused")                                    \
    X(23, INSERT_FAILED_B, "inserts that the database refused (second count)")                     \
    X(24, CREATE_RESERVE_FAILED, "identifiers that a create did not get, by NPU")                  \
    X(25, UPDATE_BCAST_FAILED, "updates that failed on the NPU threads")                           \
    X(26, CREATE_DIRECT_FAILED, "creates that failed on one NPU")                                  \
    X(27, CREATE_NOT_FOR_NODE, "creates for no NPU of this node")                                  \
    X(29, UPDATE_RESOLVE_HOOK_FAILED_A, "updates that the platform's resolve refused")             \
    X(30, UPDATE_RESOLVE_HOOK_FAILED_B,                                                            \
      "updates that the platform's resolve refused (second "                                       \
      "count)")                                                                                    \
    X(31, CREATE_STRICT_EQUAL, "strict creates of what is stored alike")                           \
    X(32, CREATE_STRICT_DIFFERS, "strict creates of what is stored otherwise")                     \
    X(33, CREATE_REPLACE_EQUAL, "replacing creates of what is stored alike")                       \
    X(34, CREATE_CONVERTED, "creates that became an update")                                       \
    X(35, CREATE_DUPLICATE, "creates of what is stored")                                           \
    X(37, CREATE_HW_FAILED, "creates that hardware refused")                                       \
    X(38, CREATE_STORE_FAILED, "creates refused behind their write")                               \
    X(39, CREATE_ROLLED_BACK, "creates rolled back behind an asynchronous write")                  \
    X(41, READ_NOT_FOUND, "reads that found nothing")                                              \
    X(42, DELETE_NO_NPU, "deletes for no NPU")                                                     \
    X(43, DELETE_HW_FAILED, "deletes that hardware refused")                                       \
    X(44, DELETE_BCAST_FAILED, "deletes that failed on the NPU threads")                           \
    X(45, DELETE_INDEPENDENT_FAILED, "deletes whose side resources did not go")                    \
    X(47, DELETE_REF_CNT, "deletes that left client references")                                   \
    X(48, DB_DELETE_FAILED, "deletes that the database refused")                                   \
    X(49, REFS_CHANGED_B, "updates that changed a reference (second count)")                       \
    X(51, UPDATE_HW_FAILED, "updates that hardware refused")                                       \
    X(53, UPDATE_RESOLVE_FAILED, "updates whose references were not resolved")                     \
    X(54, UPDATE_TO_CREATE, "updates that became a create")                                        \
    X(58, UNDO_FAILED, "undone creates that stayed on an NPU")                                     \
    X(60, TABLE_FULL, "creates in a full table")

typedef enum zan_counter_et {
#define ZAN_COUNTER_ENUM(index, enumerator, words) ZAN_CTR_##enumerator = (index),
    ZAN_COUNTERS(ZAN_COUNTER_ENUM)
#undef ZAN_COUNTER_ENUM
} zan_counter_et;

ZAN_EXTERN_C_BEGIN
/* What a counter counts, and its enumerator as "CREATE_HW_FAILED"; null for an index that counts
 * nothing. Any thread. */
ZAN_EXPORT const char *zan_counter_words(uint32_t index);
ZAN_EXPORT const char *zan_counter_name(uint32_t index);
ZAN_EXTERN_C_END

#endif
