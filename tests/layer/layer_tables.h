/* Small tables, defined by hand, for the tests of the table layer.
 *
 *   vrf     key only: the smallest parent
 *   route   a key of a number and a prefix, one attribute, no repeated part
 *   sample  attributes of every type and shape, references and unions, single and repeated
 *   keys    a key with a field of every type
 *
 * The layouts are C++ structures, so that a test can reach every byte by name and the offsets in
 * the definitions come from the compiler.
 */
#ifndef LAYER_TABLES_H
#define LAYER_TABLES_H

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>

#include "../../platforms/common/zan/tables/zan_tables_private.h"

enum {
    VRF_ID,
    ROUTE_ID,
    SAMPLE_ID,
    KEYS_ID,
    NUM_TEST_TABLES
};

struct vrf_key_t {
    uint32_t vrf_id;
};

struct route_key_t {
    uint32_t vrf_id;
    zan_ipv4_prefix_t prefix;
};

/* What each object has in front of its attributes. */
template <typename key_t> struct front_t {
    zan_table_base_st base;
    uint32_t trans_id;
    uint64_t npu_mask_req;
    uint8_t npu_mask_req_set;
    key_t key;
};

struct vrf_obj_t : front_t<vrf_key_t> {
};

struct route_obj_t : front_t<route_key_t> {
    uint16_t metric;
    uint8_t metric_set;
};

struct vrf_ref_t {
    zan_ref_value_st value;
    vrf_key_t key;
    uint32_t padding;
};

struct route_ref_t {
    zan_ref_value_st value;
    route_key_t key;
    uint32_t padding;
};

template <typename value_t> struct attr_t {
    value_t value;
    uint8_t set;
};

struct sample_obj_t : front_t<vrf_key_t> {
    uint32_t obj_ref_cnt;
    uint8_t obj_ref_cnt_set;
    uint32_t num_elements;
    attr_t<uint8_t> octet;
    attr_t<uint16_t> mtu;
    attr_t<uint32_t> ipv4_label;
    attr_t<uint64_t> cookie;
    attr_t<zan_bool_t> enabled;
    attr_t<uint32_t> kind;
    attr_t<uint32_t> caps;
    attr_t<kor_intf_t> intf;
    attr_t<kor_npu_mask_t> npus;
    attr_t<zan_ipv4_t> source;
    attr_t<zan_ipv6_t> source6;
    attr_t<zan_mac_t> mac;
    attr_t<zan_ipv4_prefix_t> net;
    attr_t<zan_ipv6_prefix_t> net6;
    struct {
        uint16_t value[3];
        uint8_t set;
    } level;
    struct {
        uint32_t value[ZAN_MAX_NPUS];
        uint8_t set[ZAN_MAX_NPUS];
    } rate;
    uint32_t *weight;
    zan_mac_t *hop_mac;
    vrf_ref_t vrf;
    route_ref_t *via;
    route_ref_t next_obj;
    route_ref_t *hop;
};

struct keys_key_t {
    uint8_t octet;
    uint16_t port;
    uint32_t label;
    uint64_t cookie;
    zan_bool_t enabled;
    uint32_t kind;
    uint32_t caps;
    kor_intf_t intf;
    kor_npu_mask_t npus;
    zan_ipv4_t source;
    zan_ipv6_t source6;
    zan_mac_t mac;
    zan_ipv4_prefix_t net;
    zan_ipv6_prefix_t net6;
};

struct keys_obj_t : front_t<keys_key_t> {
};

extern const zan_table_def_t vrf_def, route_def, sample_def, keys_def;

struct free_object {
    void operator()(zan_table_base_st *obj) const
    {
        free(obj);
    }
};
typedef std::unique_ptr<zan_table_base_st, free_object> object_ptr;

static inline sample_obj_t *sample(const object_ptr &obj)
{
    return (sample_obj_t *)obj.get();
}

/* Parse, and print; a refusal becomes "refused: <reason>". */
object_ptr parse(const zan_table_def_t *def, const std::string &text, std::string *why = nullptr);
std::string print(const zan_table_def_t *def, const zan_table_base_st *obj);
std::string print_parsed(const zan_table_def_t *def, const std::string &text);

/* A value that the type allows, and a sample object with some of everything set to such values. */
void random_value(const zan_field_def_t *field, void *value, std::mt19937 &random);
object_ptr random_sample(std::mt19937 &random, uint32_t num_elements);

#endif
