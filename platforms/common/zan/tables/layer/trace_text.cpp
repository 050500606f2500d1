/* Traces out of the ring, and as text: the class, and the message with its arguments in place. */
#include "../zan_table_def.h"
#include "../zan_trace.h"

#include "text_out.h"

#include <ctype.h>
#include <string.h>

namespace
{

/* "ZAN_RETRY_EVENT__" as "retry_event". */
void print_shared(const char *name, text_out_t *out)
{
    const char *end = name + strlen(name);
    while (end > name && end[-1] == '_')
        end--;
    for (name += 4; name < end; name++)
        text_char(out, (char)tolower((unsigned char)*name));
}

/* The strings of a record stand one behind the other, each with a blank behind it. One may hold
 * blanks itself, so that the last takes what is left. */
const char *take_string(const char *text, bool is_last, text_out_t *out)
{
    const char *end = is_last ? text + strlen(text) : strchr(text, ' ');
    if (!end)
        end = text + strlen(text);
    const char *stop = end;
    while (is_last && stop > text && stop[-1] == ' ')
        stop--;
    for (; text < stop; text++) /* a file may hold anything */
        text_char(out, *text >= ' ' && *text < 127 ? *text : '.');
    return *end ? end + 1 : end;
}

uint32_t count_strings(const char *format)
{
    uint32_t count = 0;
    for (; *format; format++)
        count += format[0] == '%' && format[1] == 's';
    return count;
}

void print_code(zan_rcode rc, text_out_t *out)
{
    text_hex(out, rc);
    const char *name = rc == EOK ? "" : zan_rcode_name(rc);
    text_put(out, *name ? " " : "");
    text_put(out, name);
}

void print_table(uint64_t id, text_out_t *out)
{
    const zan_table_def_t *def = id < ZAN_NUM_TABLES ? zan_table_def_get((uint32_t)id) : nullptr;
    if (def)
        text_put(out, def->name);
    else
        text_number(out, id, 10);
}

/* False: no conversion of an argument that is a number. */
bool print_argument(char how, uint64_t value, text_out_t *out)
{
    switch (how) {
    case 'x':
        text_hex(out, value);
        return true;
    case 'd':
        text_put(out, (int64_t)value < 0 ? "-" : "");
        text_number(out, (int64_t)value < 0 ? 0 - value : value, 10);
        return true;
    case 'u':
        text_number(out, value, 10);
        return true;
    case 'T':
        print_table(value, out);
        return true;
    case 'O':
        text_put(out, zan_table_operation_str((uint8_t)value));
        return true;
    case 'R':
        print_code((zan_rcode)value, out);
        return true;
    default:
        return false;
    }
}

} // namespace

/* The sequence is looked at before and after. */
bool zan_trace_take(const zan_trace_slot_st *slot, zan_trace_record_st *out)
{
    const uint64_t before = __atomic_load_n(&slot->sequence, __ATOMIC_ACQUIRE);
    if (before == 0)
        return false;
    out->sequence = out->cycles = before;
    out->msg = __atomic_load_n(&slot->msg, __ATOMIC_RELAXED);
    const uint64_t both = __atomic_load_n(&slot->class_and_trans, __ATOMIC_RELAXED);
    out->trace_class = (zan_trace_class_t)(both >> 32);
    out->trans_id = (uint32_t)both;
    for (uint32_t i = 0; i < 7; i++)
        out->arg[i] = __atomic_load_n(&slot->arg[i], __ATOMIC_RELAXED);
    uint64_t text[ZAN_TRACE_TEXT_WORDS] = {};
    const bool has_text = (out->msg >> 40 & 0xff) != 0;
    for (uint32_t i = 0; has_text && i < ZAN_TRACE_TEXT_WORDS; i++)
        text[i] = __atomic_load_n(&slot->text[i], __ATOMIC_RELAXED);
    memcpy(out->text, text, sizeof text);
    out->text[sizeof text - 1] = 0;
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    return __atomic_load_n(&slot->sequence, __ATOMIC_RELAXED) == before;
}

const char *zan_trace_message_text(uint32_t number)
{
#define ZAN_MSG_TEXT(name, text)                 text,
#define ZAN_HOST_MSG_TEXT(name, arguments, text) text,
    static const char *const host[] = {ZAN_HOST_MESSAGES(ZAN_HOST_MSG_TEXT)};
    static const char *const common[] = {ZAN_COMMON_MESSAGES(ZAN_MSG_TEXT)};
    static const char *const table[] = {ZAN_TABLE_MESSAGES(ZAN_MSG_TEXT)};
#undef ZAN_HOST_MSG_TEXT
#undef ZAN_MSG_TEXT
    if (number - ZAN_MSG_HOST_BASE < sizeof host / sizeof host[0])
        return host[number - ZAN_MSG_HOST_BASE];
    if (number - ZAN_MSG_COMMON_BASE < sizeof common / sizeof common[0])
        return common[number - ZAN_MSG_COMMON_BASE];
    if (zan_trace_message_table(number) == UINT32_MAX)
        return nullptr;
    const uint32_t index = (number - ZAN_MSG_TABLE_BASE) % ZAN_MSG_TABLE_STRIDE;
    return index < ZAN_TMSG_COUNT ? table[index] : nullptr;
}

uint32_t zan_trace_message_table(uint32_t number)
{
    const uint32_t table_id = (number - ZAN_MSG_TABLE_BASE) / ZAN_MSG_TABLE_STRIDE;
    return number >= ZAN_MSG_TABLE_BASE && table_id < ZAN_NUM_TABLES ? table_id : UINT32_MAX;
}

/* A % stands in front of an argument, and nowhere else. */
bool zan_trace_names_table(const zan_trace_record_st *record, uint32_t table_id)
{
    const char *at = zan_trace_message_text((uint32_t)record->msg);
    for (uint32_t arg = 0; at && arg < 7 && (at = strchr(at, '%')); arg++)
        if (*++at == 'T' && record->arg[arg] == table_id)
            return true;
    return false;
}

uint32_t zan_trace_class_level(zan_trace_class_t c)
{
    if (c < ZAN_SHARED_TRACE_CLASS_BASE)
        return c % 3 + 1;
    static const char *const names[] = {
#define ZAN_CLASS_NAME(name) #name,
        ZAN_SHARED_TRACE_CLASSES(ZAN_CLASS_NAME)};
#undef ZAN_CLASS_NAME
    const char *name = c < ZAN_NUM_TRACE_CLASSES ? names[c - ZAN_SHARED_TRACE_CLASS_BASE] : "";
    return strstr(name, "_ERROR__") ? 1 : strstr(name, "_VERBOSE__") ? 3 : 2;
}

size_t zan_trace_class_print(zan_trace_class_t c, char *out, size_t size)
{
    static const char *const levels[] = {"_error", "_event", "_verbose"};
    text_out_t text = {out, size, 0, false};
    if (c < ZAN_SHARED_TRACE_CLASS_BASE) {
        const zan_table_def_t *def = zan_table_def_get(c / 3);
        text_put(&text, def ? def->name : "unknown");
        text_put(&text, levels[c % 3]);
        return text_end(&text);
    }
    switch (c) {
#define ZAN_CLASS_CASE(name)                                                                       \
    case ZAN_CLASS_##name:                                                                         \
        print_shared(#name, &text);                                                                \
        break;
        ZAN_SHARED_TRACE_CLASSES(ZAN_CLASS_CASE)
#undef ZAN_CLASS_CASE
    default:
        text_put(&text, "unknown");
    }
    return text_end(&text);
}

zan_trace_class_t zan_trace_class_find(const char *name)
{
    char text[96];
    zan_trace_class_t c = 0;
    for (; c < ZAN_NUM_TRACE_CLASSES; c++) {
        zan_trace_class_print(c, text, sizeof text);
        if (strcmp(text, name) == 0)
            break;
    }
    return c;
}

size_t zan_trace_print(const zan_trace_record_st *record, char *out, size_t size)
{
    text_out_t text = {out, size, 0, false};
    const char *format = zan_trace_message_text((uint32_t)record->msg);
    const uint32_t num_args = (uint32_t)(record->msg >> 32 & 0xff);
    if (!format) {
        text_put(&text, "message ");
        text_hex(&text, (uint32_t)record->msg);
        for (uint32_t i = 0; i < num_args && i < 7; i++) {
            text_char(&text, ' ');
            text_hex(&text, record->arg[i]);
        }
        return text_end(&text);
    }
    const char *strings = record->text;
    uint32_t arg = 0, strings_left = count_strings(format);
    for (; *format; format++) {
        const char how = format[0] == '%' ? format[1] : 0;
        if (how == 's') {
            strings = take_string(strings, --strings_left == 0, &text);
        } else if (!print_argument(how, arg < 7 ? record->arg[arg] : 0, &text)) {
            text_char(&text, *format);
            continue;
        }
        arg++;
        format++;
    }
    return text_end(&text);
}
