/* The return codes that the server produces or tests.
 *
 * A non-zero code has three fields: severity in bits 31 to 28 (0x2 a negative answer, 0x4 refused
 * or failed, 0xC the server lacks a resource or was called wrongly), component in bits 27 to 16
 * (0xF90 for this server) and the code proper in bits 15 to 0. Hooks return the same type and may
 * use components of their own, which pass through unchanged.
 *
 * X(name, value, words): the words are what an operator reads.
 */
#ifndef ZAN_RCODES_H
#define ZAN_RCODES_H

#include "zan_types.h"

#define ZAN_RCODES(X)                                                                              \
    X(ZAN_RC_NOT_FOUND, 0x2f908002, "not found")                                                   \
    X(ZAN_RC_STILL_REFERENCED, 0x4f90800d, "still referenced: delete its children first")          \
    X(ZAN_RC_EXISTS, 0x4f908011, "already exists")                                                 \
    X(ZAN_RC_INVALID, 0x4f908016, "invalid request")                                               \
    X(ZAN_RC_TABLE_FULL, 0x4f90801c, "table full")                                                 \
    X(ZAN_RC_KEY_MISMATCH, 0x4f90801d, "the handle leads to an object with another key")           \
    X(ZAN_RC_PARENT_QUARANTINED, 0x4f908040, "the parent is in quarantine")                        \
    X(ZAN_RC_NO_RESULT_YET, 0x4f9082e1, "no result yet")                                           \
    X(ZAN_RC_BATCH_CUT, 0x4f909275, "not tried: an earlier object of the batch failed")            \
    X(ZAN_RC_QUEUE_CONTROL_REFUSED, 0x4f90981c, "this thread may not control the NPU queues")      \
    X(ZAN_RC_BIND_REFUSED, 0x4f909e01, "binding to the parent refused")                            \
    X(ZAN_RC_CREATE_ON_DELETE, 0x4f909e0d, "the object waits for its delete and takes no create")  \
    X(ZAN_RC_DELAY_DELETE, 0x4f909e1a, "the delete waits for the object's children")               \
    X(ZAN_RC_INVALID_READ, 0x4f90d016, "the read asks for what this slot cannot hold")             \
    X(ZAN_RC_KEEP_REFUSED, 0x4f90d036, "the hardware refused; the object is kept")                 \
    X(ZAN_RC_NO_MEMORY_DB, 0xcf90800c, "out of memory for a database object")                      \
    X(ZAN_RC_SHOW_BUFFER_SMALL, 0xcf909a1c, "the show buffer is too small, the text is cut")       \
    X(ZAN_RC_KEEP_LACKING, 0xcf90ce36, "the hardware lacks a resource; the object is kept")        \
    X(ZAN_RC_NO_MEMORY, 0xcf90d00c, "out of memory")                                               \
    X(ZAN_RC_BAD_ARGUMENT, 0xcf90d00e, "bad argument")

#ifdef __cplusplus
#define ZAN_RC_CONSTANT(name, value, words) inline constexpr zan_rcode name = (value);
ZAN_RCODES(ZAN_RC_CONSTANT)
#else
enum {
#define ZAN_RC_CONSTANT(name, value, words) name = (int)(value),
    ZAN_RCODES(ZAN_RC_CONSTANT)
};
#endif
#undef ZAN_RC_CONSTANT

#define EOK           0
#define RCD_IS_OK(rc) ((rc) == 0)

ZAN_EXTERN_C_BEGIN
/* Words and constant name of a code; never null, static storage, any thread. An unknown code has
 * the words "unknown code" and the name "". */
ZAN_EXPORT const char *rcd_strerror(zan_rcode rc);
ZAN_EXPORT const char *zan_rcode_name(zan_rcode rc);
ZAN_EXTERN_C_END

#endif
