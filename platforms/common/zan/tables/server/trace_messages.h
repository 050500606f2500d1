/* How the server traces: a message of zan_trace.h, with its arguments, to a class. */
#ifndef ZAN_TRACE_MESSAGES_H
#define ZAN_TRACE_MESSAGES_H

#include "trace.h"
#include "zan_trace.h"

#ifdef __cplusplus
ZAN_STATIC_ASSERT((unsigned)ZAN_TMSG_COUNT <= ZAN_MSG_TABLE_STRIDE, "a table's block is full");

/* The id of a message with n arguments, of which those in string_mask are strings. */
constexpr uint64_t zan_msg_id(uint32_t number, uint32_t n, uint32_t string_mask = 0)
{
    return number | ((uint64_t)n << 32) | ((uint64_t)string_mask << 40);
}

constexpr uint32_t zan_table_msg(uint32_t table_id, zan_table_msg_et index)
{
    return ZAN_MSG_TABLE_BASE + table_id * ZAN_MSG_TABLE_STRIDE + index;
}

template <class T> constexpr uint64_t zan_trace_arg(T value)
{
    return (uint64_t)value;
}
template <class T> inline uint64_t zan_trace_arg(T *value)
{
    return (uint64_t)(uintptr_t)value;
}

template <class... A> inline void zan_trace_write(zan_trace_class_t c, uint32_t number, A... args)
{
    constexpr size_t n = sizeof...(A);
    static_assert(n >= 1 && n <= 7, "a trace takes one to seven integers");
    const uint64_t id = zan_msg_id(number, n);
    const uint64_t a[] = {zan_trace_arg(args)...};
    if constexpr (n == 1)
        _ringlog_1(c, id, a[0]);
    else if constexpr (n == 2)
        _ringlog_2(c, id, a[0], a[1]);
    else if constexpr (n == 3)
        _ringlog_3(c, id, a[0], a[1], a[2]);
    else if constexpr (n == 4)
        _ringlog_4(c, id, a[0], a[1], a[2], a[3]);
    else if constexpr (n == 5)
        _ringlog_5(c, id, a[0], a[1], a[2], a[3], a[4]);
    else if constexpr (n == 6)
        _ringlog_6(c, id, a[0], a[1], a[2], a[3], a[4], a[5]);
    else
        _ringlog_7(c, id, a[0], a[1], a[2], a[3], a[4], a[5], a[6]);
}

/* Trace to a shared class. */
#define ZAN_TRACE(trace_class, message, ...)                                                       \
    do {                                                                                           \
        const zan_trace_class_t zan_trace_c = (trace_class);                                       \
        if (zan_trace_is_on(zan_trace_c))                                                          \
            zan_trace_write(zan_trace_c, ZAN_MSG_##message, __VA_ARGS__);                          \
    } while (0)

/* Trace a table's message; the class is any, the number tells the table. */
#define ZAN_TRACE_TABLE(trace_class, table_id, message, ...)                                       \
    do {                                                                                           \
        const zan_trace_class_t zan_trace_c = (trace_class);                                       \
        if (zan_trace_is_on(zan_trace_c))                                                          \
            zan_trace_write(zan_trace_c, zan_table_msg((table_id), ZAN_TMSG_##message),            \
                            __VA_ARGS__);                                                          \
    } while (0)
#endif

#endif
