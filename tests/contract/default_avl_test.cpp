// Default platform: trees stay balanced, null arguments are harmless.
#include "platform/avl.h"
#include <algorithm>
#include <gtest/gtest.h>
#include <vector>

namespace {

struct item {
    avl_node_t node;
    int key;
};

int comparisons;

int counting_compare(const void *key, const avl_node_t *node) {
    comparisons++;
    const int wanted = *static_cast<const int *>(key);
    const int present = reinterpret_cast<const item *>(node)->key;
    return wanted < present ? AVL_LESS : wanted == present ? AVL_EQUAL : AVL_GREATER;
}

TEST(DefaultAvl, ascending_insertion_of_100000_keys_keeps_searches_short) {
    std::vector<item> items(100'000);
    avl_root_t root = {};
    for (std::size_t i = 0; i < items.size(); i++) {
        items[i].key = static_cast<int>(i);
        ASSERT_EQ(avl_insert(&root, &items[i].key, &items[i].node, counting_compare), 0);
    }

    int most = 0;
    for (item &it : items) {
        comparisons = 0;
        ASSERT_EQ(avl_search(&root, &it.key, counting_compare), &it.node);
        most = std::max(most, comparisons);
    }

    EXPECT_LE(most, 24); // 1.44 times the binary logarithm
}

TEST(DefaultAvl, an_emptied_root_is_zero_filled_and_may_move) {
    item it = {{}, 1};
    avl_root_t root = {};
    avl_insert(&root, &it.key, &it.node, counting_compare);

    avl_delete(&root, &it.node);

    avl_root_t moved = root;
    EXPECT_EQ(moved.header.left, nullptr);
    EXPECT_EQ(avl_insert(&moved, &it.key, &it.node, counting_compare), 0);
    EXPECT_EQ(avl_get_first(&moved), &it.node);
    EXPECT_EQ(avl_get_next(&it.node), nullptr);
}

TEST(DefaultAvl, null_arguments_are_refused_or_ignored) {
    avl_root_t root = {};
    item it = {{}, 1};

    EXPECT_EQ(avl_insert(nullptr, &it.key, &it.node, counting_compare), -1);
    EXPECT_EQ(avl_insert(&root, nullptr, &it.node, counting_compare), -1);
    EXPECT_EQ(avl_insert(&root, &it.key, nullptr, counting_compare), -1);
    EXPECT_EQ(avl_insert(&root, &it.key, &it.node, nullptr), -1);
    EXPECT_EQ(avl_search(nullptr, &it.key, counting_compare), nullptr);
    EXPECT_EQ(avl_get_first(nullptr), nullptr);
    EXPECT_EQ(avl_get_next(nullptr), nullptr);
    EXPECT_EQ(avl_get_next(&it.node), nullptr);
    EXPECT_EQ(avl_walk(nullptr, nullptr, nullptr), 0);
    avl_delete(nullptr, &it.node);
    avl_delete(&root, nullptr);
    avl_delete(&root, &it.node);
    EXPECT_EQ(root.count, 0u);
}

} // namespace
