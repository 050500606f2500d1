/* The objects are written as text, as a person would, and parsed as such. Addresses are from the
 * ranges that are set aside for documentation. */
#include "topology.h"

#include <cstdarg>
#include <cstdio>
#include <stdexcept>

namespace
{

constexpr uint32_t num_interfaces = 16;
constexpr uint32_t num_next_hops = num_interfaces * topology_neighbours;

__attribute__((format(printf, 1, 2))) std::string text(const char *format, ...)
{
    char out[256];
    va_list args;
    va_start(args, format);
    vsnprintf(out, sizeof out, format, args);
    va_end(args);
    return out;
}

std::string interface_text(uint32_t i, kor_npu_mask_t npu_mask)
{
    std::string out = text("intf=%u ipv4_mtu=1500 ipv6_mtu=1500 l3a_ipv4_mtu=1500 "
                           "l3a_ipv6_mtu=1500 l3a_intf_id=%u l3a_vrf=0 admin_up=true "
                           "mac_addr=02:00:00:00:00:%02x ipv4_addr=192.0.2.%u",
                           i, i, i, i);
    if (npu_mask)
        out += text(" npu_mask_req=0x%llx", (unsigned long long)npu_mask);
    return out;
}

std::string link_layer_text(uint32_t i)
{
    const uint32_t intf = (i - 1) / topology_neighbours + 1,
                   adj = (i - 1) % topology_neighbours + 1;
    return text("intf=%u adj_id=%u l3a_mac_addr=02:00:00:00:01:%02x "
                "src_mac_addr=02:00:00:00:00:%02x encap_id=%u object_identifier=%u "
                "l3intf_obj.l3intf.intf=%u",
                intf, adj, i, intf, 1000 + i, 2000 + i, intf);
}

std::string next_hop_text(uint32_t i, bool ipv6)
{
    const uint32_t intf = (i - 1) / topology_neighbours + 1,
                   adj = (i - 1) % topology_neighbours + 1;
    const std::string addr = ipv6 ? text("addr6=2001:db8::%x", i) : text("addr=198.51.100.%u", i);
    return text("nh_id=%u %s intf=%u l3intf_obj.l3intf.intf=%u next_obj.macllnh.intf=%u "
                "next_obj.macllnh.adj_id=%u",
                i, addr.c_str(), intf, intf, intf, adj);
}

/* Two to four members on different interfaces. */
std::string group_text(uint32_t i, bool ipv6)
{
    const uint32_t members = 2 + i % 3;
    std::string out = text("nhg_id=%u num_primary_paths=%u is_pbts=false", i, members);
    for (uint32_t m = 0; m < members; m++) {
        const uint32_t nh = (i + m * (topology_neighbours + 1)) % num_next_hops + 1;
        out += ipv6 ? text(" next_obj[%u].ip6nh.nh_id=%u", m, nh)
                    : text(" nexthop_next_obj[%u].ipnh.nh_id=%u", m, nh);
        out += text(" weight[%u]=%u", m, m + 1);
    }
    return out;
}

topology_stage_t make_stage(const char *words, const char *table)
{
    return {words, zan_table_def_find(table), {}};
}

void add(topology_stage_t *stage, const std::string &line)
{
    char why[256] = "";
    object_ptr_t obj(zan_obj_parse(stage->def, line.c_str(), why, sizeof why));
    if (!obj)
        throw std::runtime_error(std::string(stage->def->name) + " " + line + ": " + why);
    stage->objects.push_back(std::move(obj));
}

} // namespace

std::vector<topology_stage_t> make_topology(kor_npu_mask_t npu_mask)
{
    std::vector<topology_stage_t> stages;
    stages.push_back(make_stage("interfaces", "l3intf"));
    for (uint32_t i = 1; i <= num_interfaces; i++)
        add(&stages.back(), interface_text(i, npu_mask));
    stages.push_back(make_stage("link-layer next hops", "macllnh"));
    for (uint32_t i = 1; i <= num_next_hops; i++)
        add(&stages.back(), link_layer_text(i));
    for (const bool ipv6 : {false, true}) {
        stages.push_back(
            make_stage(ipv6 ? "IPv6 next hops" : "IPv4 next hops", ipv6 ? "ip6nh" : "ipnh"));
        for (uint32_t i = 1; i <= num_next_hops; i++)
            add(&stages.back(), next_hop_text(i, ipv6));
    }
    for (const bool ipv6 : {false, true}) {
        stages.push_back(make_stage(ipv6 ? "IPv6 next-hop groups" : "IPv4 next-hop groups",
                                    ipv6 ? "ip6nhgroup" : "ipnhgroup"));
        for (uint32_t i = 1; i <= topology_groups; i++)
            add(&stages.back(), group_text(i, ipv6));
    }
    return stages;
}
