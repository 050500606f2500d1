/* One value: its text, its parser, and whether its type allows it. For the files of this directory;
 * the rest of the system uses zan_value_print and zan_value_parse. */
#ifndef ZAN_LAYER_VALUE_TEXT_H
#define ZAN_LAYER_VALUE_TEXT_H

#include "../zan_tables_private.h"
#include "text_out.h"

void value_print(text_out_t *t, const zan_field_def_t *field, const void *value);

/* False with the reason in `why`, without the field's name; the value is then untouched. */
bool value_parse(const zan_field_def_t *field, std::string_view text, void *value, text_out_t *why);

/* A decimal or 0x hexadecimal number up to `max`. */
bool number_parse(std::string_view text, uint64_t max, uint64_t *value, text_out_t *why);

/* Whether the type allows the value: it has a name, it is 0 or 1, it has no host bits. */
bool value_is_valid(const zan_field_def_t *field, const void *value);

/* Whether people write the type as a number. */
bool type_is_number(uint8_t type);

#endif
