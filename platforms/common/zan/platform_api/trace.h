/* The trace ring and messages to the operator.
 *
 * A trace stores a message id and integers: no formatting, no lock, no clock call. A class handle
 * says where a trace belongs and whether it is on. Any thread.
 *
 * Message id: bits 31 to 0 the message number, 39 to 32 the number of arguments, 47 to 40 a mask of
 * the arguments that are strings.
 */
#ifndef ZAN_PLATFORM_TRACE_H
#define ZAN_PLATFORM_TRACE_H

#include "zan_trace.h"

/* A table's three enumerators, one per level, as its properties record keeps them. */
typedef struct zan_ringlog_enums_st {
    uint64_t level[3];
} zan_ringlog_enums_st;
ZAN_STATIC_ASSERT(sizeof(zan_ringlog_enums_st) == 24, "trace enumerations");

ZAN_EXTERN_C_BEGIN
/* One byte per class: whether its traces are on. Errors and events are on at start, but for the
 * walks'. An operator may switch a class at any time: read and written through the two below. */
ZAN_EXPORT extern uint8_t zan_trace_enabled[ZAN_NUM_TRACE_CLASSES];
static inline bool zan_trace_is_on(zan_trace_class_t c)
{
    return __atomic_load_n(&zan_trace_enabled[c], __ATOMIC_RELAXED) != 0;
}
static inline void zan_trace_switch(zan_trace_class_t c, bool on)
{
    __atomic_store_n(&zan_trace_enabled[c], (uint8_t)on, __ATOMIC_RELAXED);
}

ZAN_EXPORT void _ringlog_1(zan_trace_class_t c, uint64_t msg, uint64_t a);
ZAN_EXPORT void _ringlog_2(zan_trace_class_t c, uint64_t msg, uint64_t a, uint64_t b);
ZAN_EXPORT void _ringlog_3(zan_trace_class_t c, uint64_t msg, uint64_t a, uint64_t b, uint64_t d);
ZAN_EXPORT void _ringlog_4(zan_trace_class_t c, uint64_t msg, uint64_t a, uint64_t b, uint64_t d,
                           uint64_t e);
ZAN_EXPORT void _ringlog_5(zan_trace_class_t c, uint64_t msg, uint64_t a, uint64_t b, uint64_t d,
                           uint64_t e, uint64_t f);
ZAN_EXPORT void _ringlog_6(zan_trace_class_t c, uint64_t msg, uint64_t a, uint64_t b, uint64_t d,
                           uint64_t e, uint64_t f, uint64_t g);
ZAN_EXPORT void _ringlog_7(zan_trace_class_t c, uint64_t msg, uint64_t a, uint64_t b, uint64_t d,
                           uint64_t e, uint64_t f, uint64_t g, uint64_t h);
/* With strings: as many further arguments as the id says, each a uint64_t or a const char *. */
ZAN_EXPORT void _ringlogs(zan_trace_class_t c, uint64_t msg, ...);

/* The class for an enumeration record at a level; with retry the shared retry class of the level.
 */
ZAN_EXPORT zan_trace_class_t zan_ringlog_en_with_retry(const zan_ringlog_enums_st *enums,
                                                       uint32_t level, bool retry);

/* The oldest `max` records with a sequence above `after`, oldest first: ask again with the last
 * one's sequence for what follows. Returns how many were copied. Any thread; records being written
 * meanwhile are left out. */
ZAN_EXPORT uint32_t zan_trace_read(uint64_t after, zan_trace_record_st *out, uint32_t max);

/* A message to the operator: severity as syslog(3), 0 emergency to 7 debug. */
typedef struct plat_msg_rec_t plat_msg_rec_t;
ZAN_EXPORT const plat_msg_rec_t *plat_msg_rec_zan_warn_err_getfn(void);
ZAN_EXPORT const plat_msg_rec_t *plat_msg_rec_zan_auto_recovery_getfn(void);
ZAN_EXPORT void plat_errmsg(const plat_msg_rec_t *record, int severity, const char *text);
ZAN_EXTERN_C_END

#endif
