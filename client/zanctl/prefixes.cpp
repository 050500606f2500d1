/* Lines are read through zlib, which passes plain text through; the values are parsed as any prefix
 * of an object is. */
#include "prefixes.h"

#include "ip6route.h"
#include "iproute.h"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <zlib.h>

namespace
{

const zan_field_def_t *prefix_field(uint32_t table_id)
{
    const zan_table_def_t *def = zan_table_def_get(table_id);
    for (unsigned i = 0; i < def->num_keys; i++)
        if (strcmp(def->keys[i].name, "prefix") == 0)
            return &def->keys[i];
    return nullptr;
}

template <typename prefix_t>
bool add_prefix(const zan_field_def_t *field, const char *text, std::vector<prefix_t> *out,
                std::string *why)
{
    prefix_t value = {};
    char reason[256] = "";
    if (!zan_value_parse(field, text, &value, reason, sizeof reason)) {
        *why = reason;
        return false;
    }
    out->push_back(value);
    return true;
}

bool add_line(char *line, prefixes_t *out, std::string *why)
{
    static const zan_field_def_t *const ipv4 = prefix_field(IPROUTE_TABLE_ID);
    static const zan_field_def_t *const ipv6 = prefix_field(IP6ROUTE_TABLE_ID);
    line += strspn(line, " \t");
    line[strcspn(line, " \t\r\n#")] = 0;
    if (!*line)
        return true;
    if (strchr(line, ':'))
        return add_prefix(ipv6, line, &out->ipv6, why);
    return add_prefix(ipv4, line, &out->ipv4, why);
}

template <typename prefix_t> size_t drop_repeats_of(std::vector<prefix_t> *list)
{
    std::vector<uint32_t> order(list->size());
    std::iota(order.begin(), order.end(), 0u);
    auto compare = [list](uint32_t a, uint32_t b) {
        return memcmp(&(*list)[a], &(*list)[b], sizeof(prefix_t));
    };
    std::sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
        const int c = compare(a, b);
        return c ? c < 0 : a < b;
    });
    std::vector<bool> repeated(list->size());
    for (size_t i = 1; i < order.size(); i++)
        repeated[order[i]] = compare(order[i - 1], order[i]) == 0;
    size_t kept = 0;
    for (size_t i = 0; i < list->size(); i++)
        if (!repeated[i])
            (*list)[kept++] = (*list)[i];
    const size_t dropped = list->size() - kept;
    list->resize(kept);
    return dropped;
}

} // namespace

bool read_prefixes(const std::string &file, prefixes_t *out, std::string *why)
{
    gzFile in = gzopen(file.c_str(), "rb");
    if (!in) {
        *why = file + ": " + strerror(errno);
        return false;
    }
    gzbuffer(in, 1 << 18);
    char line[256];
    size_t number = 0;
    bool good = true;
    while (good && gzgets(in, line, sizeof line)) {
        number++;
        std::string reason;
        good = add_line(line, out, &reason);
        if (!good)
            *why = file + ", line " + std::to_string(number) + ": " + reason;
    }
    int error = Z_OK;
    const char *text = gzerror(in, &error);
    if (good && error != Z_OK && error != Z_STREAM_END) {
        *why = file + ": " + (error == Z_ERRNO ? strerror(errno) : text);
        good = false;
    }
    gzclose(in);
    return good;
}

void drop_repeats(prefixes_t *prefixes)
{
    prefixes->repeats = drop_repeats_of(&prefixes->ipv4) + drop_repeats_of(&prefixes->ipv6);
}
