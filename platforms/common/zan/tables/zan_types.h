/* Value types of keys and attributes, and the return codes.
 *
 * Every value that crosses the client boundary is one of the types below. Addresses are kept in
 * network byte order, as byte arrays, so that their bytes sort as their values do; all other
 * numbers are in host byte order. The header is C as well as C++: hooks may be written in either.
 */
#ifndef ZAN_TYPES_H
#define ZAN_TYPES_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define ZAN_EXTERN_C_BEGIN extern "C" {
#define ZAN_EXTERN_C_END   }
#define ZAN_STATIC_ASSERT  static_assert
#else
#define ZAN_EXTERN_C_BEGIN
#define ZAN_EXTERN_C_END
#define ZAN_STATIC_ASSERT _Static_assert
#endif

#define ZAN_EXPORT      __attribute__((visibility("default")))
#define ZAN_HIDDEN      __attribute__((visibility("hidden")))
#define ZAN_WEAK        __attribute__((weak))
#define ZAN_LIKELY(x)   __builtin_expect(!!(x), 1)
#define ZAN_UNLIKELY(x) __builtin_expect(!!(x), 0)

#define ZAN_NUM_TABLES        361
#define ZAN_MAX_NPUS          8
/* Width of every bitmap of table ids: the next multiple of 64 above the number of tables. */
#define ZAN_TABLE_BITMAP_BITS 384

typedef uint32_t zan_rcode;      /* 0 is success; see zan_rcodes.h */
typedef uint64_t kor_npu_mask_t; /* bit n stands for NPU n */
typedef uint8_t zan_bool_t;      /* 0 or 1 */
typedef uint32_t kor_intf_t;     /* interface handle, as the interface manager gives it out */

typedef struct zan_ipv4_t {
    uint8_t b[4];
} zan_ipv4_t;

typedef struct zan_ipv6_t {
    uint8_t b[16];
} zan_ipv6_t;

typedef struct zan_mac_t {
    uint8_t b[6];
} zan_mac_t;

/* A prefix has no host bits set; the text form and the agent refuse one that has. */
typedef struct zan_ipv4_prefix_t {
    uint8_t b[4];
    uint8_t len; /* 0 to 32 */
} zan_ipv4_prefix_t;

typedef struct zan_ipv6_prefix_t {
    uint8_t b[16];
    uint8_t len; /* 0 to 128 */
} zan_ipv6_prefix_t;

typedef enum zan_type_et {
    ZAN_TYPE_U8,
    ZAN_TYPE_U16,
    ZAN_TYPE_U32,
    ZAN_TYPE_U64,
    ZAN_TYPE_BOOL,        /* one byte, 0 or 1; text true and false */
    ZAN_TYPE_ENUM,        /* uint32_t; text is the name of the value */
    ZAN_TYPE_BITS,        /* uint32_t; text is the names of the set bits, joined by '|' */
    ZAN_TYPE_INTF,        /* kor_intf_t */
    ZAN_TYPE_NPU_MASK,    /* kor_npu_mask_t; text is a hexadecimal mask */
    ZAN_TYPE_IPV4,        /* zan_ipv4_t; 192.0.2.1 */
    ZAN_TYPE_IPV6,        /* zan_ipv6_t; RFC 5952 text */
    ZAN_TYPE_MAC,         /* zan_mac_t; 02:00:5e:10:00:01 */
    ZAN_TYPE_IPV4_PREFIX, /* zan_ipv4_prefix_t; 192.0.2.0/24 */
    ZAN_TYPE_IPV6_PREFIX, /* zan_ipv6_prefix_t; 2001:db8::/32 */
    ZAN_TYPE_COUNT
} zan_type_et;

#endif
