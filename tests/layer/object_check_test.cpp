/* The two judgements on an object: does it ask for a change, and is everything in it allowed? */
#include <gtest/gtest.h>

#include "layer_tables.h"

TEST(object_compare, only_what_is_set_and_other_counts)
{
    const char *stored = "vrf_id=1 mtu=1500 level[0]=1 rate[2]=5 weight[0]=1 weight[1]=2 "
                         "vrf.vrf_id=3 vrf.handle=0x30 via[1].handle=0x40 "
                         "next_obj.vrf.vrf_id=4 hop[0].route.handle=0x50";
    const struct {
        const char *request;
        int32_t index; /* -2: no difference */
    } cases[] = {
        {"vrf_id=9 num_elements=2", -2},
        {"num_elements=2 mtu=1500 level[0]=1 rate[2]=5 weight[1]=2", -2},
        {"num_elements=2 mtu=1501", 1},
        {"num_elements=2 enabled=false", 4}, /* stored without it */
        {"num_elements=2 level[1]=1", 14},
        {"num_elements=2 rate[2]=6", 15},
        {"num_elements=2 rate[3]=5", 15},
        {"num_elements=2 weight[1]=3 mtu=1501", 1},
        {"num_elements=2 weight[1]=3", 16},
        {"weight[0]=1", -1}, /* one member, not two */
        {"num_elements=2 vrf.vrf_id=3", -2},
        {"num_elements=2 vrf.handle=0x30", -2},
        {"num_elements=2 vrf.vrf_id=4", 18},
        {"num_elements=2 vrf.handle=0x31", 18},
        {"num_elements=2 vrf.handle=0x30 vrf.vrf_id=4", 18},
        {"num_elements=2 vrf.handle=0 vrf.vrf_id=4", 18}, /* drops the parent */
        {"num_elements=2 via[0].handle=0", -2},           /* has none to drop */
        {"num_elements=2 via[0].handle=0 via[0].vrf_id=1 via[0].prefix=10.0.0.0/8", -2},
        {"num_elements=2 via[1].handle=0x41", 19},
        {"num_elements=2 next_obj.vrf.vrf_id=4", -2},
        {"num_elements=2 next_obj.vrf.vrf_id=5", 20},
        {"num_elements=2 next_obj.route.handle=1", 20},
        {"num_elements=2 next_obj=none", 20},
        {"num_elements=2 hop[0].route.handle=0x50", -2},
        {"num_elements=2 hop[1].route.handle=0x50", 22},
    };
    object_ptr db_obj = parse(&sample_def, stored);
    ASSERT_TRUE(db_obj);
    for (const auto &c : cases) {
        std::string why;
        object_ptr obj = parse(&sample_def, c.request, &why);
        ASSERT_TRUE(obj) << c.request << ": " << why;
        int32_t index = -3;
        EXPECT_EQ(zan_obj_attrs_differ(&sample_def, obj.get(), db_obj.get(), &index), c.index != -2)
            << c.request;
        if (c.index != -2) {
            EXPECT_EQ(index, c.index) << c.request;
        }
        EXPECT_EQ(zan_obj_attrs_differ(&sample_def, obj.get(), db_obj.get(), nullptr),
                  c.index != -2);
    }
}

static const char *full_text = "vrf_id=1 enabled=true kind=drop caps=ipv4 net=10.0.0.0/8 "
                               "net6=2001:db8::/32 level[0]=1 rate[3]=1 weight[1]=1 "
                               "vrf.vrf_id=1 via[1].vrf_id=1 via[1].prefix=10.0.0.0/8 "
                               "next_obj.route.vrf_id=1 next_obj.route.prefix=10.0.0.0/8 "
                               "hop[1].route.vrf_id=2 hop[1].route.prefix=10.0.0.0/8";

TEST(object_validate, every_kind_of_invalid_field)
{
    const struct {
        const char *where; /* empty: still good */
        void (*spoil)(sample_obj_t *obj);
    } cases[] = {
        {"", [](sample_obj_t *) {}},
        {"enabled", [](sample_obj_t *obj) { obj->enabled.value = 2; }},
        {"",
         [](sample_obj_t *obj) {
             obj->enabled = {2, 0};
         }}, /* not set: means nothing */
        {"enabled", [](sample_obj_t *obj) { obj->enabled.set = 2; }},
        {"kind", [](sample_obj_t *obj) { obj->kind.value = 3; }},
        {"caps", [](sample_obj_t *obj) { obj->caps.value |= 4; }},
        {"net", [](sample_obj_t *obj) { obj->net.value.len = 33; }},
        {"net", [](sample_obj_t *obj) { obj->net.value.len = 255; }},
        {"net", [](sample_obj_t *obj) { obj->net.value.len = 6; }},
        {"net6", [](sample_obj_t *obj) { obj->net6.value.b[15] = 1; }},
        {"net6", [](sample_obj_t *obj) { obj->net6.value.len = 129; }},
        {"level[0]", [](sample_obj_t *obj) { obj->level.set = 2; }},
        {"rate[3]", [](sample_obj_t *obj) { obj->rate.set[3] = 9; }},
        {"weight[0]", [](sample_obj_t *obj) { ((uint8_t *)obj->weight)[8] = 2; }},
        {"npu_mask_req", [](sample_obj_t *obj) { obj->npu_mask_req_set = 2; }},
        {"vrf", [](sample_obj_t *obj) { obj->vrf.value.refkey_set = 2; }},
        {"vrf", [](sample_obj_t *obj) { obj->vrf.value.selector = 1; }},
        {"vrf.handle", [](sample_obj_t *obj) { obj->vrf.value.refhdl_set = 255; }},
        {"via[1].prefix", [](sample_obj_t *obj) { obj->via[1].key.prefix.len = 3; }},
        {"", [](sample_obj_t *obj) { obj->via[0].key.prefix.len = 99; }}, /* key not set */
        {"next_obj", [](sample_obj_t *obj) { obj->next_obj.value.selector = 3; }},
        {"next_obj", [](sample_obj_t *obj) { obj->next_obj.value.selector = UINT32_MAX; }},
        {"next_obj", [](sample_obj_t *obj) { obj->next_obj.value.is_set = 2; }},
        {"next_obj", [](sample_obj_t *obj) { obj->next_obj.value.selector = 0; }},
        {"", [](sample_obj_t *obj) { obj->next_obj.value = {0, 0, 1, 0, 0, 0}; }},
        {"next_obj.route.prefix", [](sample_obj_t *obj) { obj->next_obj.key.prefix.len = 4; }},
        {"hop[1].route.prefix", [](sample_obj_t *obj) { obj->hop[1].key.prefix.b[3] = 1; }},
        {"hop[1].route.handle", [](sample_obj_t *obj) { obj->hop[1].value.refhdl_set = 3; }},
    };
    for (const auto &c : cases) {
        object_ptr obj = parse(&sample_def, full_text);
        c.spoil(sample(obj));
        char where[64] = "unwritten";
        const char *field = zan_obj_invalid_field(&sample_def, obj.get(), where, sizeof where);
        EXPECT_STREQ(where, c.where);
        EXPECT_EQ(field == nullptr, c.where[0] == '\0') << c.where;
    }
}

TEST(object_validate, key_is_judged_only_when_it_names_the_object)
{
    object_ptr obj = parse(&route_def, "vrf_id=1 prefix=10.0.0.0/8");
    ((route_obj_t *)obj.get())->key.prefix.len = 40;
    char where[16];
    EXPECT_STREQ(zan_obj_invalid_field(&route_def, obj.get(), where, sizeof where), "prefix");
    EXPECT_STREQ(where, "prefix");
    obj->key_len = 0;
    EXPECT_EQ(zan_obj_invalid_field(&route_def, obj.get(), where, sizeof where), nullptr);
    EXPECT_STREQ(where, "");
}

/* Whatever bytes a client sends, judging and printing them stays inside the object. */
TEST(object_validate, hostile_bytes)
{
    std::mt19937 random(31337);
    for (int round = 0; round < 2000; round++) {
        uint32_t n = random() % 4;
        object_ptr obj(zan_obj_ctor(&sample_def, 0, n));
        uint32_t total = obj->total_obj_size;
        for (uint32_t i = sizeof(zan_table_base_st); i < total; i++)
            if (random() % 2)
                ((uint8_t *)obj.get())[i] = (uint8_t)(random() % 4 ? random() % 3 : random());
        sample(obj)->num_elements = n;
        zan_obj_fix_ptrs(&sample_def, obj.get(), (uint8_t *)obj.get() + sample_def.obj_size);
        obj->key_len = 4;
        char where[20], text[300];
        zan_obj_invalid_field(&sample_def, obj.get(), where, sizeof where);
        EXPECT_LT(std::char_traits<char>::length(where), sizeof where);
        zan_obj_print(&sample_def, obj.get(), text, sizeof text);
        zan_obj_print_json(&sample_def, obj.get(), text, sizeof text);
    }
}

TEST(names, codes_and_operations)
{
    EXPECT_STREQ(rcd_strerror(0), "success");
    EXPECT_STREQ(zan_rcode_name(0x4f908011), "ZAN_RC_EXISTS");
    EXPECT_STREQ(rcd_strerror((zan_rcode)ZAN_RC_NO_MEMORY), "out of memory");
    EXPECT_STREQ(rcd_strerror(12), "unknown code");
    EXPECT_STREQ(zan_rcode_name(12), "");
    EXPECT_STREQ(zan_table_operation_str(ZAN_TABLE_GET_GT_EQ), "get_gt_eq");
    EXPECT_STREQ(zan_table_operation_str(ZAN_TABLE_OPERATION_COUNT), "unknown");
}
