/* The radix tree against std::map: every key length, every kind of node, growing and shrinking. */
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <string>

#include "host_tables.h"
#include "radix_tree.h"

namespace
{

struct object_t {
    zan_table_base_st base;
    uint8_t key[64];
};

typedef std::map<std::string, object_t *> model_t;

/* Keys of a few shapes: dense ones fill large nodes, sparse ones make long prefixes, and the
 * alphabet decides which kinds of node appear. */
std::string random_key(std::mt19937 &random, uint32_t length, uint32_t alphabet)
{
    std::string key(length, '\0');
    for (char &c : key)
        c = (char)(random() % alphabet);
    if (random() % 2) /* much in common with others */
        for (uint32_t i = 0; i < length / 2; i++)
            key[i] = (char)(random() % 16 == 0);
    return key;
}

const uint8_t *bytes(const std::string &key)
{
    return (const uint8_t *)key.data();
}

zan_table_base_st *expected(const model_t &model, model_t::const_iterator at)
{
    return at == model.end() ? nullptr : &at->second->base;
}

void expect_equal(const host_radix_tree_t *tree, const model_t &model, const std::string &key)
{
    ASSERT_EQ(host_radix_find(tree, bytes(key)), expected(model, model.find(key)));
    ASSERT_EQ(host_radix_bound(tree, bytes(key), HOST_RADIX_NOT_BELOW),
              expected(model, model.lower_bound(key)));
    ASSERT_EQ(host_radix_bound(tree, bytes(key), HOST_RADIX_ABOVE),
              expected(model, model.upper_bound(key)));
    ASSERT_EQ(host_radix_first(tree), expected(model, model.begin()));
}

void insert(host_radix_tree_t *tree, model_t *model, const std::string &key)
{
    auto *obj = new object_t();
    memcpy(obj->key, key.data(), key.size());
    const bool is_new = model->emplace(key, obj).second;
    ASSERT_EQ(host_radix_insert(tree, bytes(key), &obj->base),
              is_new ? HOST_RADIX_OK : HOST_RADIX_EXISTS);
    if (!is_new)
        delete obj;
}

void remove(host_radix_tree_t *tree, model_t *model, model_t::iterator at)
{
    object_t other = {};
    ASSERT_FALSE(host_radix_delete(tree, bytes(at->first), &other.base)) << "another object";
    ASSERT_TRUE(host_radix_delete(tree, bytes(at->first), &at->second->base));
    ASSERT_FALSE(host_radix_delete(tree, bytes(at->first), &at->second->base)) << "twice";
    delete at->second;
    model->erase(at);
}

} // namespace

class radix_tree : public testing::TestWithParam<uint32_t>
{
};

TEST_P(radix_tree, behaves_as_an_ordered_map)
{
    const uint32_t length = GetParam();
    for (const uint32_t alphabet : {2u, 6u, 40u, 256u}) {
        SCOPED_TRACE("alphabet " + std::to_string(alphabet));
        std::mt19937 random(length * 1000 + alphabet);
        host_radix_tree_t tree = {bytes_def(length), 0, 0};
        model_t model;
        /* Grow, churn, shrink to nothing. */
        for (uint32_t turn = 0; turn < 3000; turn++) {
            const std::string key = random_key(random, length, alphabet);
            const uint32_t inserts_of_4 = turn < 1500 ? 3 : turn < 2200 ? 2 : 1;
            auto at = model.lower_bound(key);
            if (random() % 4 < inserts_of_4) {
                ASSERT_NO_FATAL_FAILURE(insert(&tree, &model, key));
            } else if (at != model.end()) {
                ASSERT_NO_FATAL_FAILURE(remove(&tree, &model, at));
            }
            ASSERT_NO_FATAL_FAILURE(
                expect_equal(&tree, model, random_key(random, length, alphabet)));
        }
        while (!model.empty()) {
            auto at = model.lower_bound(random_key(random, length, alphabet));
            if (at == model.end())
                at = model.begin();
            ASSERT_NO_FATAL_FAILURE(remove(&tree, &model, at));
            ASSERT_NO_FATAL_FAILURE(
                expect_equal(&tree, model, random_key(random, length, alphabet)));
        }
        EXPECT_EQ(tree.root, 0u);
        EXPECT_EQ(tree.node_bytes, 0u) << "an empty tree has no nodes";
    }
}

INSTANTIATE_TEST_SUITE_P(key_lengths, radix_tree,
                         testing::Values(1, 2, 3, 4, 9, 10, 17, 21, 33, 64));

TEST(radix_tree_kinds, one_node_grows_and_shrinks_through_all_kinds)
{
    host_radix_tree_t tree = {bytes_def(2), 0, 0};
    model_t model;
    std::map<uint64_t, int> sizes;
    for (uint32_t i = 0; i < 256; i++) {
        ASSERT_NO_FATAL_FAILURE(insert(&tree, &model, {(char)(i * 37), 'x'}));
        sizes[tree.node_bytes]++;
    }
    EXPECT_EQ(sizes.size(), 5u) << "a leaf alone, then one node of each kind";
    uint64_t largest = tree.node_bytes;
    for (uint32_t i = 255; i > 0; i--) {
        ASSERT_NO_FATAL_FAILURE(remove(&tree, &model, model.find({(char)(i * 37), 'x'})));
        ASSERT_LE(tree.node_bytes, largest);
        largest = tree.node_bytes;
        for (uint32_t b = 0; b < 256; b++)
            ASSERT_NO_FATAL_FAILURE(expect_equal(&tree, model, {(char)b, 'w'}));
    }
    EXPECT_EQ(tree.node_bytes, 0u);
    remove(&tree, &model, model.begin());
}

TEST(radix_tree_clear, gives_all_nodes_back_and_leaves_the_objects)
{
    std::mt19937 random(7);
    host_radix_tree_t tree = {bytes_def(9), 0, 0};
    model_t model;
    for (uint32_t i = 0; i < 5000; i++)
        ASSERT_NO_FATAL_FAILURE(insert(&tree, &model, random_key(random, 9, 256)));
    host_radix_clear(&tree);
    EXPECT_EQ(tree.node_bytes, 0u);
    EXPECT_EQ(host_radix_first(&tree), nullptr);
    for (auto &[key, obj] : model) {
        EXPECT_EQ(memcmp(obj->key, key.data(), key.size()), 0);
        delete obj;
    }
}
