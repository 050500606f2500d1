/* Keys: the byte form sorts as the values do, and as the comparison does. */
#include <gtest/gtest.h>

#include <cstring>

#include "layer_tables.h"

static int sign(int n)
{
    return n < 0 ? -1 : n > 0;
}

static std::string encode(const zan_table_def_t *def, const void *key)
{
    std::string bytes(def->key_bytes + 1u, '\x5a');
    zan_key_encode(def, key, (uint8_t *)bytes.data());
    EXPECT_EQ(bytes.back(), '\x5a') << "written past key_bytes";
    bytes.pop_back();
    return bytes;
}

/* Keys that differ in one field, each field in turn: the fields before it must not decide. */
TEST(object_keys, byte_form_has_the_order_of_the_comparison)
{
    std::mt19937 random(99);
    for (int round = 0; round < 5000; round++) {
        keys_key_t a = {}, b = {};
        for (unsigned i = 0; i < keys_def.num_keys; i++)
            random_value(&keys_def.keys[i], (uint8_t *)&a + keys_def.keys[i].offset, random);
        memcpy(&b, &a, sizeof b);
        const zan_field_def_t *field = &keys_def.keys[(unsigned)round % keys_def.num_keys];
        random_value(field, (uint8_t *)&b + field->offset, random);

        int by_value = zan_key_cmp(&keys_def, &a, &b);
        std::string x = encode(&keys_def, &a), y = encode(&keys_def, &b);
        ASSERT_EQ(sign(by_value), sign(memcmp(x.data(), y.data(), x.size()))) << field->name;
        ASSERT_EQ(sign(by_value), -sign(zan_key_cmp(&keys_def, &b, &a))) << field->name;
        ASSERT_EQ(by_value == 0, memcmp((uint8_t *)&a + field->offset,
                                        (uint8_t *)&b + field->offset, field->width) == 0);
    }
}

/* Lists in ascending order, as a person would sort them. */
TEST(object_keys, numbers_and_prefixes_sort_as_people_expect)
{
    const char *ascending[] = {
        "vrf_id=0 prefix=0.0.0.0/0",          "vrf_id=0 prefix=9.0.0.0/8",
        "vrf_id=0 prefix=10.0.0.0/8",         "vrf_id=0 prefix=10.0.0.0/24",
        "vrf_id=0 prefix=10.0.1.0/24",        "vrf_id=0 prefix=200.0.0.0/8",
        "vrf_id=1 prefix=0.0.0.0/0",          "vrf_id=255 prefix=0.0.0.0/0",
        "vrf_id=256 prefix=0.0.0.0/0",        "vrf_id=0x7fffffff prefix=0.0.0.0/0",
        "vrf_id=0x80000000 prefix=0.0.0.0/0",
    };
    std::string last;
    route_key_t last_key = {};
    for (const char *text : ascending) {
        object_ptr obj = parse(&route_def, text);
        route_key_t key = ((route_obj_t *)obj.get())->key;
        std::string bytes = encode(&route_def, &key);
        if (!last.empty()) {
            EXPECT_LT(last, bytes) << text;
            EXPECT_LT(zan_key_cmp(&route_def, &last_key, &key), 0) << text;
        }
        last = bytes;
        last_key = key;
    }
    EXPECT_EQ(last, std::string("\x80\0\0\0\0\0\0\0\0", 9));
}

/* Bytes between the fields of a key structure are no part of the key. */
TEST(object_keys, padding_does_not_count)
{
    route_key_t a, b;
    memset((void *)&a, 0, sizeof a);
    memset((void *)&b, 0xff, sizeof b);
    b.vrf_id = 0;
    b.prefix = {};
    EXPECT_EQ(zan_key_cmp(&route_def, &a, &b), 0);
    EXPECT_EQ(encode(&route_def, &a), encode(&route_def, &b));
}
