/* Assertions: a broken invariant ends the process, naming the text. */
#ifndef ZAN_ASSERT_H
#define ZAN_ASSERT_H

#include "zan_types.h"

ZAN_EXTERN_C_BEGIN
/* Tell the operator and abort. Any thread; does not return. */
__attribute__((noreturn)) void zan_assert_failed(const char *text, const char *function,
                                                 const char *file, int line);
ZAN_EXTERN_C_END

#define ZAN_ASSERT(condition, text)                                                                \
    do {                                                                                           \
        if (ZAN_UNLIKELY(!(condition)))                                                            \
            zan_assert_failed((text), __func__, __FILE__, __LINE__);                               \
    } while (0)

#endif
