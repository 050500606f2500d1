/* The routing table that is measured, and its routes as objects. */
#include "bench.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <zlib.h>

#include "ip6route.h"
#include "iproute.h"

namespace bench
{

static bool parse(char *line, prefix_t *prefix)
{
    char *slash = strchr(line, '/');
    if (!slash)
        return false;
    *slash = 0;
    prefix->is_v6 = strchr(line, ':') != nullptr;
    prefix->len = (uint8_t)atoi(slash + 1);
    return inet_pton(prefix->is_v6 ? AF_INET6 : AF_INET, line, prefix->bytes) == 1;
}

std::vector<prefix_t> read_prefixes(const std::string &path)
{
    std::vector<prefix_t> prefixes;
    gzFile file = gzopen(path.c_str(), "rb");
    if (!file) {
        fprintf(stderr, "zan_bench: cannot open %s: give a file with one CIDR prefix a line\n",
                path.c_str());
        return prefixes;
    }
    char line[128];
    prefix_t prefix = {};
    while (gzgets(file, line, sizeof line))
        if (parse(line, &prefix))
            prefixes.push_back(prefix);
    gzclose(file);
    return prefixes;
}

uint32_t route_size(const prefix_t &prefix)
{
    return prefix.is_v6 ? sizeof(zan_ip6route_obj_st) : sizeof(zan_iproute_obj_st);
}

void write_route(const prefix_t &prefix, uint32_t group, uint32_t trans_id, uint8_t *out)
{
    memset(out, 0, route_size(prefix));
    auto *base = (zan_table_base_st *)out;
    base->table_operation = ZAN_TABLE_CREATE;
    base->total_obj_size = route_size(prefix);
    base->base_trans_id = trans_id;
    base->flag = ZAN_FLAG_IS_ASYNC_DISPATCH;
    const zan_table_def_t *def =
        zan_table_def_get(prefix.is_v6 ? IP6ROUTE_TABLE_ID : IPROUTE_TABLE_ID);
    base->table_id = def->id;
    base->key_len = def->key_size;
    *zan_obj_trans_id(def, base) = trans_id;
    zan_ref_value_st *next;
    if (prefix.is_v6) {
        auto *route = (zan_ip6route_obj_st *)out;
        memcpy(route->key.prefix.b, prefix.bytes, 16);
        route->key.prefix.len = prefix.len;
    } else {
        auto *route = (zan_iproute_obj_st *)out;
        memcpy(route->key.prefix.b, prefix.bytes, 4);
        route->key.prefix.len = prefix.len;
    }
    next = zan_obj_union(&def->unions[0], base, 0); /* the first variant is the family's group */
    next->selector = 1;
    next->is_set = 1;
    next->refkey_set = 1;
    memcpy(zan_ref_key(next), &group, sizeof group);
}

} // namespace bench
