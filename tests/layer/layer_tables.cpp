/* The definitions behind layer_tables.h, and random objects made from them. */
#include "layer_tables.h"

#include <cstring>
#include <vector>

/* The layouts have a base class, for which the standard leaves offsetof to the compiler; it knows.
 */
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

static const zan_value_name_t kinds[] = {{"local", 1}, {"remote", 2}, {"drop", 7}};
static const zan_value_name_t caps[] = {{"ipv4", 1}, {"ipv6", 2}, {"mpls", 0x10}};

static zan_field_def_t field(const char *name, zan_type_et type, uint16_t width, uint32_t offset)
{
    zan_field_def_t f = {};
    f.name = name;
    f.doc = "";
    f.type = type;
    f.width = width;
    f.count = 1;
    f.offset = offset;
    if (type == ZAN_TYPE_ENUM || type == ZAN_TYPE_BITS) {
        f.names = type == ZAN_TYPE_ENUM ? kinds : caps;
        f.num_names = 3;
    }
    return f;
}

static zan_field_def_t shaped(zan_field_def_t f, zan_shape_et shape, uint16_t count,
                              uint32_t set_offset)
{
    f.shape = shape;
    f.count = count;
    f.set_offset = set_offset;
    return f;
}

#define KEY(type_name, key_t, member)                                                              \
    field(#member, ZAN_TYPE_##type_name, sizeof(((key_t *)nullptr)->member),                       \
          offsetof(key_t, member))

#define SINGLE(type_name, obj_t, member)                                                           \
    shaped(field(#member, ZAN_TYPE_##type_name, sizeof(((obj_t *)nullptr)->member.value),          \
                 offsetof(obj_t, member.value)),                                                   \
           ZAN_SHAPE_SINGLE, 1, offsetof(obj_t, member.set))

static const std::vector<zan_field_def_t> vrf_keys = {KEY(U32, vrf_key_t, vrf_id)};
static const std::vector<zan_field_def_t> route_keys = {KEY(U32, route_key_t, vrf_id),
                                                        KEY(IPV4_PREFIX, route_key_t, prefix)};
static const std::vector<zan_field_def_t> keys_keys = {
    KEY(U8, keys_key_t, octet),        KEY(U16, keys_key_t, port),
    KEY(U32, keys_key_t, label),       KEY(U64, keys_key_t, cookie),
    KEY(BOOL, keys_key_t, enabled),    KEY(ENUM, keys_key_t, kind),
    KEY(BITS, keys_key_t, caps),       KEY(INTF, keys_key_t, intf),
    KEY(NPU_MASK, keys_key_t, npus),   KEY(IPV4, keys_key_t, source),
    KEY(IPV6, keys_key_t, source6),    KEY(MAC, keys_key_t, mac),
    KEY(IPV4_PREFIX, keys_key_t, net), KEY(IPV6_PREFIX, keys_key_t, net6)};

static const zan_field_def_t route_attrs[] = {
    shaped(field("metric", ZAN_TYPE_U16, 2, offsetof(route_obj_t, metric)), ZAN_SHAPE_SINGLE, 1,
           offsetof(route_obj_t, metric_set))};

static const std::vector<zan_field_def_t> sample_attrs = {
    SINGLE(U8, sample_obj_t, octet),
    SINGLE(U16, sample_obj_t, mtu),
    SINGLE(U32, sample_obj_t, ipv4_label),
    SINGLE(U64, sample_obj_t, cookie),
    SINGLE(BOOL, sample_obj_t, enabled),
    SINGLE(ENUM, sample_obj_t, kind),
    SINGLE(BITS, sample_obj_t, caps),
    SINGLE(INTF, sample_obj_t, intf),
    SINGLE(NPU_MASK, sample_obj_t, npus),
    SINGLE(IPV4, sample_obj_t, source),
    SINGLE(IPV6, sample_obj_t, source6),
    SINGLE(MAC, sample_obj_t, mac),
    SINGLE(IPV4_PREFIX, sample_obj_t, net),
    SINGLE(IPV6_PREFIX, sample_obj_t, net6),
    shaped(field("level", ZAN_TYPE_U16, 2, offsetof(sample_obj_t, level.value)), ZAN_SHAPE_ARRAY, 3,
           offsetof(sample_obj_t, level.set)),
    shaped(field("rate", ZAN_TYPE_U32, 4, offsetof(sample_obj_t, rate.value)), ZAN_SHAPE_PER_NPU,
           ZAN_MAX_NPUS, offsetof(sample_obj_t, rate.set)),
    shaped(field("weight", ZAN_TYPE_U32, 4, offsetof(sample_obj_t, weight)), ZAN_SHAPE_REPEATED, 0,
           0),
    shaped(field("hop_mac", ZAN_TYPE_MAC, 6, offsetof(sample_obj_t, hop_mac)), ZAN_SHAPE_REPEATED,
           0, 0)};

static const zan_ref_def_t sample_refs[] = {
    {"vrf", VRF_ID, sizeof(vrf_key_t), offsetof(sample_obj_t, vrf), sizeof(vrf_ref_t), 0, 0,
     nullptr},
    {"via", ROUTE_ID, sizeof(route_key_t), offsetof(sample_obj_t, via), sizeof(route_ref_t), 1, 0,
     nullptr}};

static const zan_variant_def_t next_variants[] = {
    {"vrf", VRF_ID, 1, sizeof(vrf_key_t), 0, nullptr},
    {"route", ROUTE_ID, 2, sizeof(route_key_t), 0, nullptr}};
static const zan_variant_def_t inner_variants[] = {
    {"route", ROUTE_ID, 1, sizeof(route_key_t), 0, nullptr}};

static const zan_union_def_t sample_unions[] = {
    {"next_obj", next_variants, 2, sizeof(route_ref_t), offsetof(sample_obj_t, next_obj), 0, 0, 0},
    {"inner_obj", inner_variants, 1, sizeof(route_ref_t), offsetof(sample_obj_t, next_obj), 0, 1,
     2},
    {"hop", next_variants, 2, sizeof(route_ref_t), offsetof(sample_obj_t, hop), 1, 0, 0},
    {"inner_hop", inner_variants, 1, sizeof(route_ref_t), offsetof(sample_obj_t, hop), 1, 3, 2}};

template <typename obj_t>
static zan_table_def_t table(const char *name, uint16_t id,
                             const std::vector<zan_field_def_t> &keys)
{
    zan_table_def_t def = {};
    def.name = name;
    def.id = id;
    def.obj_size = sizeof(obj_t);
    def.trans_id_offset = offsetof(obj_t, trans_id);
    def.npu_mask_req_offset = offsetof(obj_t, npu_mask_req);
    def.npu_mask_req_set_offset = offsetof(obj_t, npu_mask_req_set);
    def.key_offset = offsetof(obj_t, key);
    def.key_size = sizeof(((obj_t *)nullptr)->key);
    for (const zan_field_def_t &f : keys)
        def.key_bytes = (uint16_t)(def.key_bytes + f.width);
    def.num_keys = (uint16_t)keys.size();
    def.keys = keys.data();
    return def;
}

static zan_table_def_t make_route()
{
    zan_table_def_t def = table<route_obj_t>("route", ROUTE_ID, route_keys);
    def.num_attrs = 1;
    def.attrs = route_attrs;
    return def;
}

static zan_table_def_t make_sample()
{
    zan_table_def_t def = table<sample_obj_t>("sample", SAMPLE_ID, vrf_keys);
    def.obj_ref_cnt_offset = offsetof(sample_obj_t, obj_ref_cnt);
    def.num_elements_offset = offsetof(sample_obj_t, num_elements);
    def.num_attrs = (uint16_t)sample_attrs.size();
    def.attrs = sample_attrs.data();
    def.num_refs = 2;
    def.refs = sample_refs;
    def.num_unions = 4;
    def.unions = sample_unions;
    return def;
}

const zan_table_def_t vrf_def = table<vrf_obj_t>("vrf", VRF_ID, vrf_keys);
const zan_table_def_t route_def = make_route();
const zan_table_def_t sample_def = make_sample();
const zan_table_def_t keys_def = table<keys_obj_t>("keys", KEYS_ID, keys_keys);

const zan_table_def_t *zan_table_def_get(uint32_t table_id)
{
    const zan_table_def_t *defs[] = {&vrf_def, &route_def, &sample_def, &keys_def};
    return table_id < NUM_TEST_TABLES ? defs[table_id] : nullptr;
}

object_ptr parse(const zan_table_def_t *def, const std::string &text, std::string *why)
{
    char reason[512];
    object_ptr obj(zan_obj_parse(def, text.c_str(), reason, sizeof reason));
    if (why)
        *why = reason;
    return obj;
}

std::string print(const zan_table_def_t *def, const zan_table_base_st *obj)
{
    std::string text(zan_obj_print(def, obj, nullptr, 0), '\0');
    zan_obj_print(def, obj, text.data(), text.size() + 1);
    return text;
}

std::string print_parsed(const zan_table_def_t *def, const std::string &text)
{
    std::string why;
    object_ptr obj = parse(def, text, &why);
    return obj ? print(def, obj.get()) : "refused: " + why;
}

static void random_prefix(uint8_t *b, unsigned num_bytes, std::mt19937 &random)
{
    unsigned len = random() % (num_bytes * 8 + 1);
    for (unsigned bit = len; bit < num_bytes * 8; bit++)
        b[bit / 8] = (uint8_t)(b[bit / 8] & ~(0x80u >> bit % 8));
    b[num_bytes] = (uint8_t)len;
}

void random_value(const zan_field_def_t *f, void *value, std::mt19937 &random)
{
    uint8_t *b = (uint8_t *)value;
    /* Many zero and 0xff bytes: they are where carries, runs of zeros and signs go wrong. */
    for (unsigned i = 0; i < f->width; i++)
        b[i] = random() % 3 == 0 ? 0 : random() % 4 == 0 ? 0xff : (uint8_t)random();
    uint32_t number = 0;
    switch (f->type) {
    case ZAN_TYPE_BOOL:
        b[0] &= 1;
        break;
    case ZAN_TYPE_ENUM:
        number = f->names[random() % f->num_names].value;
        memcpy(b, &number, sizeof number);
        break;
    case ZAN_TYPE_BITS:
        for (unsigned i = 0; i < f->num_names; i++)
            number |= random() % 2 ? f->names[i].value : 0;
        memcpy(b, &number, sizeof number);
        break;
    case ZAN_TYPE_IPV4_PREFIX:
        random_prefix(b, 4, random);
        break;
    case ZAN_TYPE_IPV6_PREFIX:
        random_prefix(b, 16, random);
        break;
    default:
        break;
    }
}

static void random_parent(zan_ref_value_st *ref, uint32_t parent_id, std::mt19937 &random)
{
    const zan_table_def_t *parent = zan_table_def_get(parent_id);
    if (random() % 2) {
        ref->refhdl_set = 1;
        ref->refhdl = random() % 4 ? random() : 0;
        return;
    }
    ref->refkey_set = 1;
    for (unsigned i = 0; i < parent->num_keys; i++)
        random_value(&parent->keys[i], (uint8_t *)zan_ref_key(ref) + parent->keys[i].offset,
                     random);
}

object_ptr random_sample(std::mt19937 &random, uint32_t num_elements)
{
    const zan_table_def_t *def = &sample_def;
    object_ptr obj(zan_obj_ctor(def, 0, num_elements));
    obj->key_len = def->key_size;
    sample(obj)->key.vrf_id = random();
    sample(obj)->npu_mask_req_set = random() % 2;
    sample(obj)->npu_mask_req = sample(obj)->npu_mask_req_set ? random() : 0;
    for (unsigned i = 0; i < def->num_attrs; i++) {
        const zan_field_def_t *attr = &def->attrs[i];
        uint32_t count = attr->shape == ZAN_SHAPE_REPEATED ? num_elements : attr->count;
        for (uint32_t at = 0; at < count; at++) {
            if (random() % 3 == 0)
                continue;
            *zan_obj_attr_set(attr, obj.get(), at, num_elements) = 1;
            random_value(attr, zan_obj_attr(attr, obj.get(), at), random);
        }
    }
    for (unsigned i = 0; i < def->num_refs; i++)
        for (uint32_t at = 0; at < (def->refs[i].repeated ? num_elements : 1); at++)
            if (random() % 2)
                random_parent(zan_obj_ref(&def->refs[i], obj.get(), at), def->refs[i].parent_id,
                              random);
    for (unsigned i = 0; i < def->num_unions; i++) {
        const zan_union_def_t *u = &def->unions[i];
        for (uint32_t at = 0; !u->nested_in && at < (u->repeated ? num_elements : 1); at++) {
            zan_ref_value_st *value = zan_obj_union(u, obj.get(), at);
            value->is_set = random() % 3 != 0;
            value->selector = value->is_set ? random() % 3 : 0;
            if (value->selector && random() % 4)
                random_parent(value, u->variants[value->selector - 1].parent_id, random);
        }
    }
    return obj;
}
