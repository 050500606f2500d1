/* Names for people: return codes, operations, hardware databases, counters.
 *
 * The codes stand in one list, ZAN_RCODES in zan_rcodes.h: a new code gets its words and its
 * constant name there, and both functions below know it at once.
 */
#include "../zan_counters.h"
#include "../zan_rcodes.h"
#include "../zan_table_base.h"
#include "../zan_table_def.h"

#include <string.h>

const char *rcd_strerror(zan_rcode rc)
{
    switch (rc) {
    case EOK:
        return "success";
#define ZAN_RC_WORDS(name, value, words)                                                           \
    case value:                                                                                    \
        return words;
        ZAN_RCODES(ZAN_RC_WORDS)
#undef ZAN_RC_WORDS
    default:
        return "unknown code";
    }
}

const char *zan_rcode_name(zan_rcode rc)
{
    switch (rc) {
    case EOK:
        return "EOK";
#define ZAN_RC_NAME(name, value, words)                                                            \
    case value:                                                                                    \
        return #name;
        ZAN_RCODES(ZAN_RC_NAME)
#undef ZAN_RC_NAME
    default:
        return "";
    }
}

const char *zan_table_operation_str(uint8_t operation)
{
    switch (operation) {
    case ZAN_TABLE_RESERVE:
        return "reserve";
    case ZAN_TABLE_CREATE:
        return "create";
    case ZAN_TABLE_DELETE:
        return "delete";
    case ZAN_TABLE_EVENT:
        return "event";
    case ZAN_TABLE_UPDATE:
        return "update";
    case ZAN_TABLE_GET:
        return "get";
    case ZAN_TABLE_GET_FIRST:
        return "get_first";
    case ZAN_TABLE_GET_GT_EQ:
        return "get_gt_eq";
    case ZAN_TABLE_GET_NEXT:
        return "get_next";
    case ZAN_TABLE_REPLAY_START:
        return "replay_start";
    case ZAN_TABLE_REPLAY_END:
        return "replay_end";
    case ZAN_TABLE_EOD:
        return "eod";
    default:
        return "unknown";
    }
}

static const char *const hwdb_names[ZAN_NUM_HWDBS] = {"none",
#define ZAN_HWDB_NAME(enumerator, name) name,
                                                      ZAN_HWDBS(ZAN_HWDB_NAME)
#undef ZAN_HWDB_NAME
};

const char *zan_hwdb_name(uint32_t hwdb)
{
    return hwdb < ZAN_NUM_HWDBS ? hwdb_names[hwdb] : "unknown";
}

uint32_t zan_hwdb_find(const char *name)
{
    for (uint32_t hwdb = 1; hwdb < ZAN_NUM_HWDBS; hwdb++)
        if (strcmp(hwdb_names[hwdb], name) == 0)
            return hwdb;
    return ZAN_HWDB_NONE;
}

const char *zan_counter_words(uint32_t index)
{
    switch (index) {
#define ZAN_COUNTER_WORDS(number, enumerator, words)                                               \
    case number:                                                                                   \
        return words;
        ZAN_COUNTERS(ZAN_COUNTER_WORDS)
#undef ZAN_COUNTER_WORDS
    default:
        return nullptr;
    }
}

const char *zan_counter_name(uint32_t index)
{
    switch (index) {
#define ZAN_COUNTER_NAME(number, enumerator, words)                                                \
    case number:                                                                                   \
        return #enumerator;
        ZAN_COUNTERS(ZAN_COUNTER_NAME)
#undef ZAN_COUNTER_NAME
    default:
        return nullptr;
    }
}
