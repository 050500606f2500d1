/* Keys: their order, and the byte form that the database indexes.
 *
 * The byte form makes memcmp give the order of the values: numbers big-endian, addresses as they
 * stand, a prefix as its address and then its length, so that a prefix comes before all that it
 * covers. A key is found, inserted or deleted once for each object of a batch and once more for
 * each reference, so both functions are one loop over the fields with the widths known at compile
 * time.
 */
#include <bit>
#include <cstring>

#include "../zan_tables_private.h"

template <typename num_t> static inline num_t load(const uint8_t *from)
{
    num_t x;
    memcpy(&x, from, sizeof x);
    return x;
}

/* From host to network byte order. */
template <typename num_t> static inline num_t network_order(num_t x)
{
    if constexpr (std::endian::native == std::endian::big)
        return x;
    else if constexpr (sizeof x == 2)
        return __builtin_bswap16(x);
    else if constexpr (sizeof x == 4)
        return __builtin_bswap32(x);
    else
        return __builtin_bswap64(x);
}

template <typename num_t> static inline int cmp_number(const uint8_t *a, const uint8_t *b)
{
    num_t x = load<num_t>(a), y = load<num_t>(b);
    return x < y ? -1 : x > y;
}

template <typename num_t> static inline uint8_t *put_number(const uint8_t *from, uint8_t *out)
{
    num_t x = network_order(load<num_t>(from));
    memcpy(out, &x, sizeof x);
    return out + sizeof x;
}

template <typename value_t> static inline uint8_t *put_bytes(const uint8_t *from, uint8_t *out)
{
    memcpy(out, from, sizeof(value_t));
    return out + sizeof(value_t);
}

int zan_key_cmp(const zan_table_def_t *def, const void *a, const void *b)
{
    const zan_field_def_t *end = def->keys + def->num_keys;
    for (const zan_field_def_t *field = def->keys; field != end; field++) {
        const uint8_t *x = (const uint8_t *)a + field->offset;
        const uint8_t *y = (const uint8_t *)b + field->offset;
        int order;
        switch (field->type) {
        case ZAN_TYPE_U16:
            order = cmp_number<uint16_t>(x, y);
            break;
        case ZAN_TYPE_U32:
        case ZAN_TYPE_ENUM:
        case ZAN_TYPE_BITS:
        case ZAN_TYPE_INTF:
            order = cmp_number<uint32_t>(x, y);
            break;
        case ZAN_TYPE_U64:
        case ZAN_TYPE_NPU_MASK:
            order = cmp_number<uint64_t>(x, y);
            break;
        default: /* bytes that sort as they stand */
            order = memcmp(x, y, field->width);
            break;
        }
        if (order)
            return order;
    }
    return 0;
}

void zan_key_encode(const zan_table_def_t *def, const void *key, uint8_t *out)
{
    const zan_field_def_t *end = def->keys + def->num_keys;
    for (const zan_field_def_t *field = def->keys; field != end; field++) {
        const uint8_t *from = (const uint8_t *)key + field->offset;
        switch (field->type) {
        case ZAN_TYPE_U8:
        case ZAN_TYPE_BOOL:
            *out++ = *from;
            break;
        case ZAN_TYPE_U16:
            out = put_number<uint16_t>(from, out);
            break;
        case ZAN_TYPE_U32:
        case ZAN_TYPE_ENUM:
        case ZAN_TYPE_BITS:
        case ZAN_TYPE_INTF:
            out = put_number<uint32_t>(from, out);
            break;
        case ZAN_TYPE_U64:
        case ZAN_TYPE_NPU_MASK:
            out = put_number<uint64_t>(from, out);
            break;
        case ZAN_TYPE_IPV4:
            out = put_bytes<zan_ipv4_t>(from, out);
            break;
        case ZAN_TYPE_IPV6:
            out = put_bytes<zan_ipv6_t>(from, out);
            break;
        case ZAN_TYPE_MAC:
            out = put_bytes<zan_mac_t>(from, out);
            break;
        case ZAN_TYPE_IPV4_PREFIX:
            out = put_bytes<zan_ipv4_prefix_t>(from, out);
            break;
        case ZAN_TYPE_IPV6_PREFIX:
            out = put_bytes<zan_ipv6_prefix_t>(from, out);
            break;
        default:
            __builtin_unreachable(); /* the generator emits the types above only */
        }
    }
}
