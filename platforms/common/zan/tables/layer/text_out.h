/* Text into a buffer of the caller's: cut to the buffer, always terminated, and the length it wants
 * to have counted on, as snprintf does. While `escape` is set, what is written stands inside a JSON
 * string. One thread at a time; the buffer belongs to the caller. */
#ifndef ZAN_LAYER_TEXT_OUT_H
#define ZAN_LAYER_TEXT_OUT_H

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string_view>

struct text_out_t {
    char *out; /* null only with size 0 */
    size_t size;
    size_t len; /* wanted; above size when the text is cut */
    bool escape;
};

static inline void text_raw(text_out_t *t, char c)
{
    if (t->len < t->size)
        t->out[t->len] = c;
    t->len++;
}

static inline void text_char(text_out_t *t, char c)
{
    static const char digits[] = "0123456789abcdef";
    uint8_t byte = (uint8_t)c;
    if (!t->escape || (byte >= 0x20 && c != '"' && c != '\\')) {
        text_raw(t, c);
    } else if (byte >= 0x20) {
        text_raw(t, '\\');
        text_raw(t, c);
    } else {
        for (char e : {'\\', 'u', '0', '0', digits[byte >> 4], digits[byte & 15]})
            text_raw(t, e);
    }
}

static inline void text_put(text_out_t *t, std::string_view text)
{
    for (char c : text)
        text_char(t, c);
}

static inline void text_number(text_out_t *t, uint64_t value, int base)
{
    char digits[24];
    std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, value, base);
    text_put(t, std::string_view(digits, (size_t)(end.ptr - digits)));
}

static inline void text_hex(text_out_t *t, uint64_t value)
{
    text_put(t, "0x");
    text_number(t, value, 16);
}

/* Terminate; the length that the text wants to have. */
static inline size_t text_end(text_out_t *t)
{
    if (t->size)
        t->out[t->len < t->size ? t->len : t->size - 1] = '\0';
    return t->len;
}

#endif
