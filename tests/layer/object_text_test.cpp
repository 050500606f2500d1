/* Text and JSON of values and objects: what people write comes back as they wrote it, and what
 * cannot be meant is refused with the field and what to do. */
#include <gtest/gtest.h>

#include <cstring>

#include "layer_tables.h"

struct text_case_t {
    const char *text;
    const char *expected; /* printed again, or "refused: ..." */
};

/* Any object prints to text that parses to the same object, for every type and shape. */
TEST(object_text, round_trip_of_random_objects)
{
    std::mt19937 random(4711);
    for (int round = 0; round < 500; round++) {
        object_ptr obj = random_sample(random, random() % 5);
        std::string text = print(&sample_def, obj.get());
        std::string why;
        object_ptr again = parse(&sample_def, text, &why);
        ASSERT_TRUE(again) << text << "\n" << why;
        ASSERT_EQ(why, "");
        ASSERT_EQ(print(&sample_def, again.get()), text);
        int32_t index = -2;
        ASSERT_FALSE(zan_obj_attrs_differ(&sample_def, obj.get(), again.get(), &index)) << text;
        ASSERT_FALSE(zan_obj_attrs_differ(&sample_def, again.get(), obj.get(), &index)) << text;
        ASSERT_EQ(zan_key_cmp(&sample_def, &sample(obj)->key, &sample(again)->key), 0);
        ASSERT_EQ(again->total_obj_size, obj->total_obj_size);
        ASSERT_EQ(again->table_id, SAMPLE_ID);
        char where[64];
        ASSERT_EQ(zan_obj_invalid_field(&sample_def, again.get(), where, sizeof where), nullptr);
    }
}

TEST(object_text, lines)
{
    const text_case_t cases[] = {
        {"vrf_id=7 ipv4_label=0x10 caps=mpls|ipv4", "vrf_id=7 ipv4_label=16 caps=ipv4|mpls"},
        {"  vrf_id=1\tkind=drop\n", "vrf_id=1 kind=drop"},
        {"handle=0x1000 caps=0", "handle=0x1000 caps=0"},
        {"vrf_id=1 handle=7 npu_mask_req=3", "vrf_id=1 npu_mask_req=0x3"},
        {"vrf_id=1 weight[1]=5 weight[0]=4", "vrf_id=1 weight[0]=4 weight[1]=5"},
        {"vrf_id=1 weight[0]=4 num_elements=3", "vrf_id=1 num_elements=3 weight[0]=4"},
        {"vrf_id=1 num_elements=1 weight[0]=4", "vrf_id=1 weight[0]=4"},
        {"vrf_id=1 level[2]=9", "vrf_id=1 level[0]=0 level[1]=0 level[2]=9"},
        {"vrf_id=1 rate[7]=9", "vrf_id=1 rate[7]=9"},
        {"vrf_id=1 vrf.vrf_id=2 vrf.handle=0x5", "vrf_id=1 vrf.vrf_id=2"},
        {"vrf_id=1 vrf.handle=0", "vrf_id=1 vrf.handle=0x0"},
        {"vrf_id=1 vrf.handle=0 vrf.vrf_id=2", "vrf_id=1 vrf.vrf_id=2 vrf.handle=0x0"},
        {"vrf_id=1 via[1].prefix=10.0.0.0/8 via[1].vrf_id=3",
         "vrf_id=1 via[1].vrf_id=3 via[1].prefix=10.0.0.0/8"},
        {"vrf_id=1 next_obj.route.vrf_id=3 next_obj.route.prefix=0.0.0.0/0",
         "vrf_id=1 next_obj.route.vrf_id=3 next_obj.route.prefix=0.0.0.0/0"},
        {"vrf_id=1 next_obj=none hop[0]=vrf hop[1].vrf.handle=0x9",
         "vrf_id=1 next_obj=none hop[0]=vrf hop[1].vrf.handle=0x9"},
        {"", ""},
    };
    for (const text_case_t &c : cases)
        EXPECT_EQ(print_parsed(&sample_def, c.text), c.expected) << c.text;
}

TEST(object_text, refusals_name_the_field_and_the_way_out)
{
    const text_case_t cases[] = {
        {"vrf_id=1 label=3", "sample has no field 'label'; did you mean ipv4_label?"},
        {"vrf_id=1 vfr=3", "sample has no field 'vfr'; did you mean vrf?"},
        {"vrf_id=1 inner_obj.route.vrf_id=3",
         "sample has no field 'inner_obj'; did you mean next_obj?"},
        {"vrf_id", "'vrf_id' has no value: write <field>=<value>"},
        {"vrf_id=", "vrf_id: has no value: write one behind the '='"},
        {"vrf_id=1 vrf_id=1", "vrf_id: is given twice: write it once"},
        {"vrf_id=1 mtu=1 mtu=1", "mtu: is given twice: write it once"},
        {"vrf_id=1 weight[0]=1 weight[0]=1", "weight[0]: is given twice: write it once"},
        {"vrf_id=1 mtu[0]=1", "mtu[0]: has one value only: write it without the index"},
        {"vrf_id=1 mtu.x=1", "mtu.x: has a plain value: write mtu="},
        {"vrf_id=1 weight=1", "weight: has several values: write weight[0]"},
        {"vrf_id=1 weight[x]=1", "weight[x]: 'x' is no index: write 0 to 65535"},
        {"vrf_id=1 weight[65536]=1", "weight[65536]: '65536' is no index: write 0 to 65535"},
        {"vrf_id=1 weight[0=1", "weight[0: write an index as weight[0]"},
        {"vrf_id=1 rate[8]=1", "rate[8]: the index goes from 0 to 7"},
        {"vrf_id=1 level[3]=1", "level[3]: the index goes from 0 to 2"},
        {"vrf_id=1 num_elements=1 weight[1]=1",
         "num_elements: is less than the greatest index asks for: raise it, or leave it out"},
        {"vrf_id=1 num_elements=65537", "num_elements: '65537' is too great: at most 65536"},
        {"vrf_id=1 vrf=3", "vrf: is a reference: write vrf.<key field>=, or vrf.handle="},
        {"vrf_id=1 vrf.prefix=3",
         "vrf.prefix: the key of vrf has no field 'prefix'; it has vrf_id, handle"},
        {"vrf_id=1 via[1].vrf_id=3", "via[1]: the key is not whole: give prefix too"},
        {"vrf_id=1 next_obj.route.prefix=10.0.0.0/8",
         "next_obj: the key is not whole: give vrf_id too"},
        {"vrf_id=1 next_obj.rout.vrf_id=1",
         "next_obj.rout.vrf_id: next_obj has no variant 'rout'; did you mean route?"},
        {"vrf_id=1 next_obj.vrf=1", "next_obj.vrf: lacks the key field: write "
                                    "next_obj.vrf.<key field>=, or next_obj.vrf.handle="},
        {"vrf_id=1 hop[0].vrf.vrf_id=1 hop[0].route.handle=1",
         "hop[0].route.handle: hop has another variant already, vrf: choose one"},
        {"vrf_id=1 net=10.0.0.1/8", "net: 10.0.0.1/8 has host bits set; write 10.0.0.0/8"},
        {"vrf_id=1 hop[0].route.vrf_id=x",
         "hop[0].route.vrf_id: 'x' is no number: write a decimal or a 0x hexadecimal one"},
    };
    for (const text_case_t &c : cases)
        EXPECT_EQ(print_parsed(&sample_def, c.text), std::string("refused: ") + c.expected);
    EXPECT_EQ(print_parsed(&route_def, "vrf_id=1"),
              "refused: the key is not whole: give prefix too");
    EXPECT_EQ(print_parsed(&route_def, "vrf_id=1 num_elements=1").find("refused: route has no"),
              0u);
}

TEST(object_text, key_length_says_how_the_object_is_named)
{
    EXPECT_EQ(parse(&route_def, "vrf_id=1 prefix=0.0.0.0/0")->key_len, sizeof(route_key_t));
    object_ptr by_handle = parse(&route_def, "handle=0x10");
    EXPECT_EQ(by_handle->key_len, 0);
    EXPECT_EQ(by_handle->obj_handle, 0x10u);
}

static const zan_value_name_t test_names[] = {{"up", 0}, {"down", 3}};
static const zan_value_name_t test_bits[] = {{"fast", 1}, {"slow", 4}};

static zan_field_def_t value_field(zan_type_et type)
{
    static const uint16_t widths[ZAN_TYPE_COUNT] = {1, 2, 4, 8, 1, 4, 4, 4, 8, 4, 16, 6, 5, 17};
    zan_field_def_t field = {};
    field.name = "f";
    field.type = type;
    field.width = widths[type];
    field.names = type == ZAN_TYPE_ENUM ? test_names : test_bits;
    field.num_names = 2;
    return field;
}

TEST(value_text, values)
{
    const struct {
        zan_type_et type;
        const char *text;
        const char *expected; /* null: refused */
    } cases[] = {
        {ZAN_TYPE_U8, "255", "255"},
        {ZAN_TYPE_U8, "256", nullptr},
        {ZAN_TYPE_U16, "0xffff", "65535"},
        {ZAN_TYPE_U16, "-1", nullptr},
        {ZAN_TYPE_U16, "+1", nullptr},
        {ZAN_TYPE_U32, "4294967295", "4294967295"},
        {ZAN_TYPE_U32, "4294967296", nullptr},
        {ZAN_TYPE_U64, "18446744073709551615", "18446744073709551615"},
        {ZAN_TYPE_U64, "18446744073709551616", nullptr},
        {ZAN_TYPE_U64, "0x", nullptr},
        {ZAN_TYPE_U64, "12a", nullptr},
        {ZAN_TYPE_BOOL, "true", "true"},
        {ZAN_TYPE_BOOL, "yes", nullptr},
        {ZAN_TYPE_ENUM, "down", "down"},
        {ZAN_TYPE_ENUM, "3", nullptr},
        {ZAN_TYPE_BITS, "slow|fast", "fast|slow"},
        {ZAN_TYPE_BITS, "slow|", nullptr},
        {ZAN_TYPE_BITS, "0", "0"},
        {ZAN_TYPE_NPU_MASK, "255", "0xff"},
        {ZAN_TYPE_IPV4, "192.0.2.1", "192.0.2.1"},
        {ZAN_TYPE_IPV4, "192.0.2", nullptr},
        {ZAN_TYPE_IPV4, "192.0.2.256", nullptr},
        /* RFC 5952: sections 4.1, 4.2.2, 4.2.3 twice, 4.3, 5, and both ends */
        {ZAN_TYPE_IPV6, "2001:0db8:0:0:0:0:0:0001", "2001:db8::1"},
        {ZAN_TYPE_IPV6, "2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},
        {ZAN_TYPE_IPV6, "2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},
        {ZAN_TYPE_IPV6, "2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},
        {ZAN_TYPE_IPV6, "2001:DB8::ABCD", "2001:db8::abcd"},
        {ZAN_TYPE_IPV6, "::ffff:c000:201", "::ffff:192.0.2.1"},
        {ZAN_TYPE_IPV6, "0:0:0:0:0:0:0:0", "::"},
        {ZAN_TYPE_IPV6, "1:0:0:0:0:0:0:0", "1::"},
        {ZAN_TYPE_IPV6, "0:0:0:0:0:0:1:2", "::1:2"},
        {ZAN_TYPE_IPV6, "1::2::3", nullptr},
        {ZAN_TYPE_IPV6, "0000:0000:0000:0000:0000:0000:0000:0000:0000:0000:0000", nullptr},
        {ZAN_TYPE_MAC, "02:00:5E:10:00:01", "02:00:5e:10:00:01"},
        {ZAN_TYPE_MAC, "02:00:5e:10:00", nullptr},
        {ZAN_TYPE_MAC, "02:00:5e:10:00:0g", nullptr},
        {ZAN_TYPE_MAC, "02-00-5e-10-00-01", nullptr},
        {ZAN_TYPE_IPV4_PREFIX, "0.0.0.0/0", "0.0.0.0/0"},
        {ZAN_TYPE_IPV4_PREFIX, "10.1.2.3/32", "10.1.2.3/32"},
        {ZAN_TYPE_IPV4_PREFIX, "10.128.0.0/9", "10.128.0.0/9"},
        {ZAN_TYPE_IPV4_PREFIX, "10.192.0.0/9", nullptr},
        {ZAN_TYPE_IPV4_PREFIX, "10.0.0.0/33", nullptr},
        {ZAN_TYPE_IPV4_PREFIX, "10.0.0.0", nullptr},
        {ZAN_TYPE_IPV4_PREFIX, "10.0.0.0/", nullptr},
        {ZAN_TYPE_IPV6_PREFIX, "2001:db8::/32", "2001:db8::/32"},
        {ZAN_TYPE_IPV6_PREFIX, "::1/128", "::1/128"},
        {ZAN_TYPE_IPV6_PREFIX, "::1/127", nullptr},
        {ZAN_TYPE_IPV6_PREFIX, "::/129", nullptr},
    };
    for (const auto &c : cases) {
        zan_field_def_t field = value_field(c.type);
        uint8_t value[17] = {};
        char why[128] = "", text[64] = "";
        bool good = zan_value_parse(&field, c.text, value, why, sizeof why);
        EXPECT_EQ(good, c.expected != nullptr) << c.text << ": " << why;
        if (!good) {
            EXPECT_NE(std::string(why), "") << c.text;
            continue;
        }
        EXPECT_EQ(zan_value_print(&field, value, text, sizeof text), strlen(c.expected));
        EXPECT_STREQ(text, c.expected);
    }
}

TEST(value_text, reasons_list_the_names)
{
    uint32_t value;
    char why[128];
    zan_field_def_t kind = value_field(ZAN_TYPE_ENUM), bits = value_field(ZAN_TYPE_BITS);
    EXPECT_FALSE(zan_value_parse(&kind, "left", &value, why, sizeof why));
    EXPECT_STREQ(why, "'left' is no value of it: write one of up, down");
    EXPECT_FALSE(zan_value_parse(&bits, "fast|left", &value, why, sizeof why));
    EXPECT_STREQ(why, "'left' is no bit of it: join with '|' any of fast, slow; or write 0 for "
                      "none");
    char short_why[5];
    EXPECT_FALSE(zan_value_parse(&kind, "left", &value, short_why, sizeof short_why));
    EXPECT_STREQ(short_why, "'lef");
}

/* A dump hides nothing that is wrong with a stored value. */
TEST(value_text, printer_takes_any_bytes)
{
    char text[64];
    uint32_t number = 9;
    zan_field_def_t kind = value_field(ZAN_TYPE_ENUM), bits = value_field(ZAN_TYPE_BITS);
    zan_value_print(&kind, &number, text, sizeof text);
    EXPECT_STREQ(text, "9");
    zan_value_print(&bits, &number, text, sizeof text);
    EXPECT_STREQ(text, "fast|0x8");

    object_ptr obj = parse(&sample_def, "vrf_id=1");
    sample(obj)->next_obj.value.selector = 77;
    EXPECT_EQ(print(&sample_def, obj.get()), "vrf_id=1 next_obj=77");
}

TEST(object_text, output_is_cut_and_terminated)
{
    object_ptr obj = parse(&sample_def, "vrf_id=12 mtu=1500");
    char text[8];
    memset(text, 'x', sizeof text);
    EXPECT_EQ(zan_obj_print(&sample_def, obj.get(), text, 5), strlen("vrf_id=12 mtu=1500"));
    EXPECT_STREQ(text, "vrf_");
    EXPECT_EQ(text[5], 'x');
    EXPECT_EQ(zan_key_print(&sample_def, &sample(obj)->key, text, sizeof text), 9u);
    EXPECT_STREQ(text, "vrf_id=");
}

static std::string json(const zan_table_def_t *def, const object_ptr &obj)
{
    std::string text(zan_obj_print_json(def, obj.get(), nullptr, 0), '\0');
    zan_obj_print_json(def, obj.get(), text.data(), text.size() + 1);
    return text;
}

TEST(object_json, every_part)
{
    EXPECT_EQ(json(&route_def, parse(&route_def, "")),
              R"({"table":"route","attributes":{},"references":{},"unions":{}})");
    EXPECT_EQ(
        json(&sample_def,
             parse(&sample_def, "vrf_id=7 handle=0x10 npu_mask_req=3 mtu=1500 enabled=true "
                                "kind=drop npus=1 rate[1]=5 weight[1]=3 vrf.vrf_id=2 "
                                "vrf.handle=0x9 via[0].vrf_id=1 via[0].prefix=10.0.0.0/8 "
                                "next_obj=none hop[1].vrf.vrf_id=4")),
        R"({"table":"sample","handle":"0x10","key":{"vrf_id":7},"npu_mask_req":"0x3",)"
        R"("num_elements":2,"attributes":{"mtu":1500,"enabled":"true","kind":"drop","npus":"0x1",)"
        R"("rate":[null,5,null,null,null,null,null,null],"weight":[null,3]},)"
        R"("references":{"vrf":{"key":{"vrf_id":2},"handle":"0x9"},)"
        R"("via":[{"key":{"vrf_id":1,"prefix":"10.0.0.0/8"}},null]},)"
        R"("unions":{"next_obj":{"variant":null},"hop":[null,)"
        R"({"variant":"vrf","key":{"vrf_id":4}}]}})");
}

TEST(object_json, strings_are_escaped)
{
    zan_table_def_t def = vrf_def;
    def.name = "a\"b\\c\n\x01";
    EXPECT_EQ(json(&def, parse(&def, "")).find(R"({"table":"a\"b\\c\u000a\u0001",)"), 0u);
}
