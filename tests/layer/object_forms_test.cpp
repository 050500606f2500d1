/* Forms of an object: what one form holds, the next one holds, whatever lies between its parts. */
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "layer_tables.h"

static const uint32_t private_bytes = 40;

/* The dispatcher's way from a message to the heap form: fixed part, dynamic part from behind the
 * gap or from where it would be, pointers. */
static object_ptr deserialize(const zan_table_def_t *def, const std::vector<uint64_t> &message,
                              uint32_t private_size)
{
    const uint8_t *wire = (const uint8_t *)message.data();
    zan_table_base_st head;
    memcpy((void *)&head, wire, sizeof head);
    uint32_t num_elements = 0;
    if (def->num_elements_offset)
        memcpy(&num_elements, wire + def->num_elements_offset, sizeof num_elements);
    uint32_t dyn_size = zan_obj_dyn_size(def, num_elements);
    uint32_t inner = def->obj_size + private_size;
    bool has_gap = head.total_obj_size == inner + dyn_size;

    zan_table_base_st *obj = (zan_table_base_st *)calloc(1, inner + dyn_size);
    memcpy((void *)obj, wire, def->obj_size);
    memcpy((uint8_t *)obj + inner, wire + (has_gap ? inner : def->obj_size), dyn_size);
    zan_obj_fix_ptrs(def, obj, (uint8_t *)obj + inner);
    obj->total_obj_size = inner + dyn_size;
    return object_ptr(obj);
}

TEST(object_forms, dynamic_part_holds_every_array_on_strides_of_8)
{
    EXPECT_EQ(zan_obj_dyn_size(&route_def, 5), 0u);
    EXPECT_EQ(zan_obj_dyn_size(&sample_def, 0), 0u);
    /* weight 3*4->16 and 3->8, hop_mac 3*6->24 and 3->8, via and hop 3*32 each */
    EXPECT_EQ(zan_obj_dyn_size(&sample_def, 3), 16u + 8 + 24 + 8 + 96 + 96);
    /* A count that nobody has checked yet must not come out as a size that fits. */
    EXPECT_GT(zan_obj_dyn_size(&sample_def, UINT32_MAX), UINT32_MAX - 8);

    object_ptr obj(zan_obj_ctor(&sample_def, private_bytes, 3));
    const uint8_t *dyn = (const uint8_t *)obj.get() + sizeof(sample_obj_t) + private_bytes;
    EXPECT_EQ((const uint8_t *)sample(obj)->weight, dyn);
    EXPECT_EQ((const uint8_t *)sample(obj)->hop_mac, dyn + 24);
    EXPECT_EQ((const uint8_t *)sample(obj)->via, dyn + 56);
    EXPECT_EQ((const uint8_t *)sample(obj)->hop, dyn + 152);
    EXPECT_EQ(obj->total_obj_size, sizeof(sample_obj_t) + private_bytes + 248);
    EXPECT_EQ(obj->heap_form, 1);

    zan_obj_fix_ptrs(&sample_def, obj.get(), nullptr);
    EXPECT_EQ(sample(obj)->weight, nullptr);
    EXPECT_EQ(sample(obj)->hop, nullptr);
    EXPECT_EQ(object_ptr(zan_obj_ctor(&sample_def, 0, ZAN_ELEMENTS_MAX + 1)), nullptr);
}

TEST(object_forms, copies_and_messages_keep_everything)
{
    std::mt19937 random(7);
    for (uint32_t n : {0u, 1u, 2u, 3u, 8u}) {
        for (uint32_t private_size : {0u, private_bytes}) {
            for (bool gap : {false, true}) {
                object_ptr obj = random_sample(random, n);
                std::string text = print(&sample_def, obj.get());
                obj->total_obj_size += gap ? private_size : 0;

                uint32_t dyn_size = zan_obj_dyn_size(&sample_def, n);
                uint32_t size = sample_def.obj_size + (gap ? private_size : 0) + dyn_size;
                std::vector<uint64_t> message(size / 8 + 1, 0x5a5a5a5a5a5a5a5a);
                ASSERT_EQ(zan_obj_serialize(&sample_def, private_size, obj.get(), message.data()),
                          size);
                EXPECT_EQ(message.back(), 0x5a5a5a5a5a5a5a5au) << "written past the message";
                const sample_obj_t *wire = (const sample_obj_t *)message.data();
                EXPECT_EQ(wire->weight, nullptr);
                EXPECT_EQ(wire->hop, nullptr);
                EXPECT_EQ(wire->base.total_obj_size, size);
                EXPECT_EQ(wire->base.heap_form, 0);

                object_ptr heap = deserialize(&sample_def, message, private_size);
                EXPECT_EQ(print(&sample_def, heap.get()), text);

                object_ptr copy((zan_table_base_st *)malloc(heap->total_obj_size));
                memset((void *)copy.get(), 0xee, heap->total_obj_size);
                uint8_t *private_part = (uint8_t *)heap.get() + sample_def.obj_size;
                memset(private_part, 0x77, private_size);
                zan_obj_copy_to(&sample_def, private_size, heap.get(), true, copy.get());
                EXPECT_EQ(print(&sample_def, copy.get()), text);
                EXPECT_EQ(copy->total_obj_size, heap->total_obj_size);
                EXPECT_EQ(copy->heap_form, 1);
                EXPECT_EQ(
                    memcmp((uint8_t *)copy.get() + sample_def.obj_size, private_part, private_size),
                    0);
                if (n) { /* its own arrays */
                    EXPECT_EQ((uint8_t *)sample(copy)->weight,
                              (uint8_t *)copy.get() + sample_def.obj_size + private_size);
                }
            }
        }
    }
}

/* A block may have been in use before: without a private part to copy there is none left over. */
TEST(object_forms, copy_without_private_part_clears_it)
{
    object_ptr obj = parse(&route_def, "vrf_id=1 prefix=10.0.0.0/8 metric=5");
    std::vector<uint64_t> block((route_def.obj_size + private_bytes) / 8, ~uint64_t{0});
    zan_table_base_st *copy = (zan_table_base_st *)block.data();
    zan_obj_copy_to(&route_def, private_bytes, obj.get(), false, copy);
    EXPECT_EQ(print(&route_def, copy), "vrf_id=1 prefix=10.0.0.0/8 metric=5");
    EXPECT_EQ(copy->total_obj_size, route_def.obj_size + private_bytes);
    for (size_t i = route_def.obj_size / 8; i < block.size(); i++)
        EXPECT_EQ(block[i], 0u);
}

TEST(object_forms, copy_of_attributes_leaves_the_rest)
{
    object_ptr from = parse(&sample_def, "vrf_id=1 mtu=1500 npu_mask_req=1 weight[1]=4 "
                                         "vrf.vrf_id=9 hop[0].vrf.vrf_id=5");
    object_ptr to = parse(&sample_def, "vrf_id=2 enabled=true weight[2]=9 via[0].handle=0x1");
    sample(to)->obj_ref_cnt = 3;
    to->flag = 0x55;
    uint32_t *weight = sample(to)->weight;
    zan_obj_copy_attrs(&sample_def, from.get(), to.get());
    EXPECT_EQ(print(&sample_def, to.get()),
              "vrf_id=2 mtu=1500 weight[1]=4 vrf.vrf_id=9 hop[0].vrf.vrf_id=5");
    EXPECT_EQ(sample(to)->num_elements, 2u);
    EXPECT_EQ(sample(to)->weight, weight);
    EXPECT_EQ(sample(to)->obj_ref_cnt, 3u);
    EXPECT_EQ(to->flag, 0x55u);

    object_ptr empty = parse(&sample_def, "vrf_id=3");
    zan_obj_copy_attrs(&sample_def, empty.get(), to.get());
    EXPECT_EQ(print(&sample_def, to.get()), "vrf_id=2");
    EXPECT_EQ(sample(to)->hop, nullptr);
}
