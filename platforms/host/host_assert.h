/* What every source of the host platform needs: the assertion, and whether this is a sanitizer
 * build.
 *
 * A broken invariant ends the process and says what to look at; a refusal is a return code.
 */
#ifndef ZAN_HOST_ASSERT_H
#define ZAN_HOST_ASSERT_H

#include <cstdio>
#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__)
#define HOST_ADDRESS_SANITIZER 1
#include <sanitizer/asan_interface.h>
#else
#define HOST_ADDRESS_SANITIZER 0
#endif

#if defined(ZAN_SANITIZE) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HOST_SANITIZED 1
#else
#define HOST_SANITIZED 0
#endif

#define HOST_ASSERT(condition, text)                                                               \
    do {                                                                                           \
        if (__builtin_expect(!(condition), 0))                                                     \
            host_assert_failed(text, __FILE__, __LINE__);                                          \
    } while (0)

[[noreturn]] inline void host_assert_failed(const char *text, const char *file, int line)
{
    fprintf(stderr, "%s:%d: assertion failed: %s\n", file, line, text);
    abort();
}

#endif
