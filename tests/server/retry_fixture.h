/* Writes that fail, in virtual time, at simulated NPUs: what the tests of retry and quarantine
 * share.
 */
#ifndef RETRY_FIXTURE_H
#define RETRY_FIXTURE_H

#include <gtest/gtest.h>

#include "host_control.h"
#include "host_retry.h"
#include "npu_sim_control.h"
#include "server_bench.h"

namespace bench
{

constexpr zan_rcode broken = 0x4fa0c005u;
constexpr uint32_t npus = 3;

/* One route's way to hardware, without the route. */
class Retry : public testing::Test
{
protected:
    Retry() : server({.num_npus = npus})
    {
        zan_host_clock_set_virtual(true);
        create("l3intf intf=1 ipv4_mtu=1500");
        create("macllnh intf=1 adj_id=1 l3intf_obj.l3intf.intf=1");
        create("ipnh nh_id=1 next_obj.macllnh.intf=1 next_obj.macllnh.adj_id=1");
        create("ipnhgroup nhg_id=1 nexthop_next_obj[0].ipnh.nh_id=1");
        settle();
    }
    ~Retry() override
    {
        zan_host_clock_set_virtual(false);
    }
    static void give_up_after(uint32_t attempts)
    {
        const zan_host_retry_config_st config = {10, 40, attempts, 1};
        zan_host_retry_configure(&config);
    }
    const server_t server;
};

inline void fail(std::string_view table_name, uint32_t npu, uint32_t operation, uint32_t count = 0,
                 zan_rcode rc = broken)
{
    const npu_sim_failure_t f = {table(table_name)->id, npu, operation, 1, count, rc};
    npu_sim_fail(&f);
}

inline std::string route(uint32_t i)
{
    return "iproute vrf_id=0 prefix=10." + std::to_string(i / 256) + "." + std::to_string(i % 256) +
           ".0/24 next_obj.ipnhgroup.nhg_id=1";
}

/* Run what is due, until nothing is due before so many virtual milliseconds have passed. */
inline void pass(uint64_t ms)
{
    uint64_t left = ms * 1000;
    for (;;) {
        settle();
        const uint64_t next = zan_host_retry_run();
        if (next > left) {
            zan_host_clock_advance(left);
            settle();
            return;
        }
        zan_host_clock_advance(next);
        left -= next;
    }
}

inline bool failed(std::string_view text, zan_host_failed_st *row)
{
    const object_t obj = object(text);
    const zan_table_def_t *def = zan_table_defs[obj->table_id];
    return zan_host_failed_get(def->id, zan_obj_key(def, obj.get()), row);
}

inline zan_host_retry_counts_st counts()
{
    zan_host_retry_counts_st c;
    zan_host_retry_counts(&c);
    return c;
}

inline std::vector<std::string> quarantined()
{
    std::vector<std::string> names;
    for (zan_host_quarantined_st row = {}; zan_host_quarantined_next(&row);) {
        char key[128];
        zan_key_print(zan_table_defs[row.table_id], row.key, key, sizeof key);
        names.push_back(std::string(zan_table_defs[row.table_id]->name) + " " + key);
    }
    return names;
}

} // namespace bench

#endif
