/* The text of one value, as people write it, and back.
 *
 *   u8 to u64, intf   1500, 0x5dc            ipv4         192.0.2.1
 *   bool              true, false            ipv6         2001:db8::1 (RFC 5952)
 *   enum              the value's name       mac          02:00:5e:10:00:01
 *   bits              a|b, or 0 for none     ipv4_prefix  192.0.2.0/24
 *   npu_mask          0x3                    ipv6_prefix  2001:db8::/32
 *
 * The printer takes any bytes: a value that its type does not allow prints as a number or as it
 * stands, so that a dump never hides it. The parser accepts only what the type allows, and its
 * reasons say what to write instead.
 */
#include <arpa/inet.h>

#include <cstring>

#include "value_text.h"

template <typename num_t> static inline num_t load(const void *value)
{
    num_t x;
    memcpy(&x, value, sizeof x);
    return x;
}

template <typename num_t> static inline void store(void *value, uint64_t number)
{
    num_t x = (num_t)number;
    memcpy(value, &x, sizeof x);
}

bool type_is_number(uint8_t type)
{
    return type == ZAN_TYPE_U8 || type == ZAN_TYPE_U16 || type == ZAN_TYPE_U32 ||
           type == ZAN_TYPE_U64 || type == ZAN_TYPE_INTF;
}

/* ---- Prefixes ---- */

/* `len` is at most num_bytes * 8. */
static bool has_host_bits(const uint8_t *b, unsigned num_bytes, unsigned len)
{
    uint8_t host_mask = (uint8_t)(0xffu >> len % 8);
    for (unsigned i = len / 8; i < num_bytes; i++, host_mask = 0xff)
        if (b[i] & host_mask)
            return true;
    return false;
}

static void clear_host_bits(uint8_t *b, unsigned num_bytes, unsigned len)
{
    uint8_t host_mask = (uint8_t)(0xffu >> len % 8);
    for (unsigned i = len / 8; i < num_bytes; i++, host_mask = 0xff)
        b[i] = (uint8_t)(b[i] & ~host_mask);
}

/* A prefix is its address, num_bytes long, and behind it the length. */
static bool prefix_is_valid(const uint8_t *b, unsigned num_bytes)
{
    return b[num_bytes] <= num_bytes * 8 && !has_host_bits(b, num_bytes, b[num_bytes]);
}

/* ---- Validity ---- */

static const zan_value_name_t *name_of_value(const zan_field_def_t *field, uint32_t value)
{
    for (unsigned i = 0; i < field->num_names; i++)
        if (field->names[i].value == value)
            return &field->names[i];
    return nullptr;
}

static uint32_t named_bits(const zan_field_def_t *field)
{
    uint32_t bits = 0;
    for (unsigned i = 0; i < field->num_names; i++)
        bits |= field->names[i].value;
    return bits;
}

bool value_is_valid(const zan_field_def_t *field, const void *value)
{
    switch (field->type) {
    case ZAN_TYPE_BOOL:
        return load<uint8_t>(value) <= 1;
    case ZAN_TYPE_ENUM:
        return name_of_value(field, load<uint32_t>(value)) != nullptr;
    case ZAN_TYPE_BITS:
        return (load<uint32_t>(value) & ~named_bits(field)) == 0;
    case ZAN_TYPE_IPV4_PREFIX:
        return prefix_is_valid((const uint8_t *)value, 4);
    case ZAN_TYPE_IPV6_PREFIX:
        return prefix_is_valid((const uint8_t *)value, 16);
    default:
        return true;
    }
}

/* ---- Printing ---- */

static void print_ipv4(text_out_t *t, const uint8_t *b)
{
    for (unsigned i = 0; i < 4; i++) {
        if (i)
            text_char(t, '.');
        text_number(t, b[i], 10);
    }
}

/* RFC 5952: lower case, no leading zeros, the first longest run of two or more zero groups as "::",
 * and a mapped IPv4 address in dots. */
static void print_ipv6(text_out_t *t, const uint8_t *b)
{
    static const uint8_t mapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    if (memcmp(b, mapped, sizeof mapped) == 0) {
        text_put(t, "::ffff:");
        print_ipv4(t, b + sizeof mapped);
        return;
    }
    unsigned run_start = 8, run_len = 1;
    for (unsigned i = 0; i < 8; i++) {
        unsigned len = 0;
        while (i + len < 8 && !b[2 * (i + len)] && !b[2 * (i + len) + 1])
            len++;
        if (len > run_len) {
            run_start = i;
            run_len = len;
        }
    }
    for (unsigned i = 0; i < 8;) {
        if (i == run_start) {
            text_put(t, "::");
            i += run_len;
            continue;
        }
        if (i && i != run_start + run_len)
            text_char(t, ':');
        text_number(t, (unsigned)b[2 * i] << 8 | b[2 * i + 1], 16);
        i++;
    }
}

static void print_mac(text_out_t *t, const uint8_t *b)
{
    for (unsigned i = 0; i < 6; i++) {
        if (i)
            text_char(t, ':');
        if (b[i] < 16)
            text_char(t, '0');
        text_number(t, b[i], 16);
    }
}

static void print_enum(text_out_t *t, const zan_field_def_t *field, uint32_t value)
{
    const zan_value_name_t *name = name_of_value(field, value);
    if (name)
        text_put(t, name->name);
    else
        text_number(t, value, 10);
}

static void print_bits(text_out_t *t, const zan_field_def_t *field, uint32_t value)
{
    const char *separator = "";
    for (unsigned i = 0; i < field->num_names; i++) {
        if (!(value & field->names[i].value))
            continue;
        text_put(t, separator);
        text_put(t, field->names[i].name);
        separator = "|";
    }
    uint32_t unnamed = value & ~named_bits(field);
    if (unnamed) {
        text_put(t, separator);
        text_hex(t, unnamed);
    } else if (!value) {
        text_char(t, '0');
    }
}

void value_print(text_out_t *t, const zan_field_def_t *field, const void *value)
{
    const uint8_t *b = (const uint8_t *)value;
    switch (field->type) {
    case ZAN_TYPE_U8:
        text_number(t, *b, 10);
        break;
    case ZAN_TYPE_U16:
        text_number(t, load<uint16_t>(value), 10);
        break;
    case ZAN_TYPE_U32:
    case ZAN_TYPE_INTF:
        text_number(t, load<uint32_t>(value), 10);
        break;
    case ZAN_TYPE_U64:
        text_number(t, load<uint64_t>(value), 10);
        break;
    case ZAN_TYPE_BOOL:
        text_put(t, *b ? "true" : "false");
        break;
    case ZAN_TYPE_ENUM:
        print_enum(t, field, load<uint32_t>(value));
        break;
    case ZAN_TYPE_BITS:
        print_bits(t, field, load<uint32_t>(value));
        break;
    case ZAN_TYPE_NPU_MASK:
        text_hex(t, load<uint64_t>(value));
        break;
    case ZAN_TYPE_IPV4:
        print_ipv4(t, b);
        break;
    case ZAN_TYPE_IPV6:
        print_ipv6(t, b);
        break;
    case ZAN_TYPE_MAC:
        print_mac(t, b);
        break;
    case ZAN_TYPE_IPV4_PREFIX:
        print_ipv4(t, b);
        text_char(t, '/');
        text_number(t, b[4], 10);
        break;
    case ZAN_TYPE_IPV6_PREFIX:
        print_ipv6(t, b);
        text_char(t, '/');
        text_number(t, b[16], 10);
        break;
    default:
        text_char(t, '?');
        break;
    }
}

/* ---- Parsing ---- */

static bool refuse(text_out_t *why, std::string_view text, std::string_view reason)
{
    text_char(why, '\'');
    text_put(why, text);
    text_put(why, "' ");
    text_put(why, reason);
    return false;
}

bool number_parse(std::string_view text, uint64_t max, uint64_t *value, text_out_t *why)
{
    const char *begin = text.data(), *end = begin + text.size();
    int base = 10;
    if (text.size() > 2 && begin[0] == '0' && (begin[1] == 'x' || begin[1] == 'X')) {
        base = 16;
        begin += 2;
    }
    uint64_t number = 0;
    std::from_chars_result result = std::from_chars(begin, end, number, base);
    if (result.ec == std::errc::invalid_argument || result.ptr != end)
        return refuse(why, text, "is no number: write a decimal or a 0x hexadecimal one");
    if (result.ec != std::errc() || number > max) {
        refuse(why, text, "is too great: at most ");
        text_number(why, max, 10);
        return false;
    }
    *value = number;
    return true;
}

static void list_names(text_out_t *why, const zan_field_def_t *field)
{
    for (unsigned i = 0; i < field->num_names; i++) {
        text_put(why, i ? ", " : "");
        text_put(why, field->names[i].name);
    }
}

static const zan_value_name_t *value_of_name(const zan_field_def_t *field, std::string_view name)
{
    for (unsigned i = 0; i < field->num_names; i++)
        if (name == field->names[i].name)
            return &field->names[i];
    return nullptr;
}

static bool parse_enum(const zan_field_def_t *field, std::string_view text, void *value,
                       text_out_t *why)
{
    const zan_value_name_t *name = value_of_name(field, text);
    if (!name) {
        refuse(why, text, "is no value of it: write one of ");
        list_names(why, field);
        return false;
    }
    store<uint32_t>(value, name->value);
    return true;
}

static bool parse_bits(const zan_field_def_t *field, std::string_view text, void *value,
                       text_out_t *why)
{
    uint32_t bits = 0;
    if (text != "0") {
        const char *at = text.data(), *end = at + text.size();
        for (bool more = true; more;) {
            const char *bar = at;
            while (bar != end && *bar != '|')
                bar++;
            std::string_view word(at, (size_t)(bar - at));
            const zan_value_name_t *name = value_of_name(field, word);
            if (!name) {
                refuse(why, word, "is no bit of it: join with '|' any of ");
                list_names(why, field);
                text_put(why, "; or write 0 for none");
                return false;
            }
            bits |= name->value;
            more = bar != end;
            at = more ? bar + 1 : end;
        }
    }
    store<uint32_t>(value, bits);
    return true;
}

/* An address of `family`, AF_INET or AF_INET6, in network byte order. */
static bool parse_address(std::string_view text, int family, uint8_t *b)
{
    char terminated[INET6_ADDRSTRLEN];
    if (text.size() >= sizeof terminated)
        return false;
    memcpy(terminated, text.data(), text.size());
    terminated[text.size()] = '\0';
    return inet_pton(family, terminated, b) == 1;
}

static bool parse_prefix(const zan_field_def_t *field, std::string_view text, void *value,
                         text_out_t *why)
{
    bool ipv4 = field->type == ZAN_TYPE_IPV4_PREFIX;
    const unsigned num_bytes = ipv4 ? 4 : 16;
    uint8_t b[17] = {};

    size_t slash = text.find('/');
    size_t address_len = slash == text.npos ? text.size() : slash;
    if (!parse_address(std::string_view(text.data(), address_len), ipv4 ? AF_INET : AF_INET6, b))
        return refuse(why, text,
                      ipv4 ? "is no IPv4 prefix: write it as 192.0.2.0/24"
                           : "is no IPv6 prefix: write it as 2001:db8::/32");
    if (slash == text.npos)
        return refuse(why, text,
                      ipv4 ? "lacks its length: append /32 for one address"
                           : "lacks its length: append /128 for one address");
    uint64_t len;
    std::string_view len_text(text.data() + slash + 1, text.size() - slash - 1);
    text_out_t unused = {};
    if (!number_parse(len_text, num_bytes * 8, &len, &unused))
        return refuse(why, text,
                      ipv4 ? "has no valid length: write /0 to /32"
                           : "has no valid length: write /0 to /128");
    b[num_bytes] = (uint8_t)len;
    if (has_host_bits(b, num_bytes, (unsigned)len)) {
        clear_host_bits(b, num_bytes, (unsigned)len);
        text_put(why, text);
        text_put(why, " has host bits set; write ");
        value_print(why, field, b);
        return false;
    }
    memcpy(value, b, num_bytes + 1);
    return true;
}

static int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

static bool parse_mac(std::string_view text, void *value, text_out_t *why)
{
    uint8_t b[6];
    bool good = text.size() == 17;
    for (unsigned i = 0; good && i < 6; i++) {
        int high = hex_digit(text[3 * i]), low = hex_digit(text[3 * i + 1]);
        good = high >= 0 && low >= 0 && (i == 5 || text[3 * i + 2] == ':');
        b[i] = (uint8_t)(high << 4 | low);
    }
    if (!good)
        return refuse(why, text, "is no MAC address: write it as 02:00:5e:10:00:01");
    memcpy(value, b, sizeof b);
    return true;
}

template <typename num_t>
static bool parse_number(std::string_view text, void *value, text_out_t *why)
{
    uint64_t number;
    if (!number_parse(text, (num_t)~num_t{0}, &number, why))
        return false;
    store<num_t>(value, number);
    return true;
}

bool value_parse(const zan_field_def_t *field, std::string_view text, void *value, text_out_t *why)
{
    uint8_t address[16];
    switch (field->type) {
    case ZAN_TYPE_U8:
        return parse_number<uint8_t>(text, value, why);
    case ZAN_TYPE_U16:
        return parse_number<uint16_t>(text, value, why);
    case ZAN_TYPE_U32:
    case ZAN_TYPE_INTF:
        return parse_number<uint32_t>(text, value, why);
    case ZAN_TYPE_U64:
    case ZAN_TYPE_NPU_MASK:
        return parse_number<uint64_t>(text, value, why);
    case ZAN_TYPE_BOOL:
        if (text != "true" && text != "false")
            return refuse(why, text, "is no Boolean: write true or false");
        store<uint8_t>(value, text == "true");
        return true;
    case ZAN_TYPE_ENUM:
        return parse_enum(field, text, value, why);
    case ZAN_TYPE_BITS:
        return parse_bits(field, text, value, why);
    case ZAN_TYPE_IPV4:
        if (!parse_address(text, AF_INET, address))
            return refuse(why, text, "is no IPv4 address: write it as 192.0.2.1");
        memcpy(value, address, sizeof(zan_ipv4_t));
        return true;
    case ZAN_TYPE_IPV6:
        if (!parse_address(text, AF_INET6, address))
            return refuse(why, text, "is no IPv6 address: write it as 2001:db8::1");
        memcpy(value, address, sizeof(zan_ipv6_t));
        return true;
    case ZAN_TYPE_MAC:
        return parse_mac(text, value, why);
    case ZAN_TYPE_IPV4_PREFIX:
    case ZAN_TYPE_IPV6_PREFIX:
        return parse_prefix(field, text, value, why);
    default:
        return refuse(why, text, "cannot be read: its type is unknown");
    }
}

size_t zan_value_print(const zan_field_def_t *field, const void *value, char *out, size_t size)
{
    text_out_t t = {out, size, 0, false};
    value_print(&t, field, value);
    return text_end(&t);
}

bool zan_value_parse(const zan_field_def_t *field, const char *text, void *value, char *why,
                     size_t why_size)
{
    text_out_t reason = {why, why_size, 0, false};
    bool good = value_parse(field, text, value, &reason);
    text_end(&reason);
    return good;
}
