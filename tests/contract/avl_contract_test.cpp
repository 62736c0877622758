// Trees: order, uniqueness, and walks that take their own nodes away.
#include "platform/avl.h"
#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

namespace {

struct item {
    avl_node_t node;
    int key;
};

int compare_items(const void *key, const avl_node_t *node) {
    const int wanted = *static_cast<const int *>(key);
    const int present = reinterpret_cast<const item *>(node)->key;
    return wanted < present ? AVL_LESS : wanted == present ? AVL_EQUAL : AVL_GREATER;
}

int key_of(const avl_node_t *node) {
    return reinterpret_cast<const item *>(node)->key;
}

class AvlContract : public testing::Test {
  protected:
    int insert(item &it) { return avl_insert(&root, &it.key, &it.node, compare_items); }
    avl_node_t *search(int key) { return avl_search(&root, &key, compare_items); }
    std::vector<int> keys_in_order() {
        std::vector<int> keys;
        for (avl_node_t *n = avl_get_first(&root); n != nullptr; n = avl_get_next(n))
            keys.push_back(key_of(n));
        return keys;
    }

    avl_root_t root = {};
};

TEST_F(AvlContract, a_zero_filled_root_is_an_empty_tree) {
    const auto stop_at_once = [](void *, void *) { return 0; };

    EXPECT_EQ(avl_get_first(&root), nullptr);
    EXPECT_EQ(search(1), nullptr);
    EXPECT_EQ(avl_walk(&root, stop_at_once, nullptr), 1);
    EXPECT_EQ(root.count, 0u);
}

TEST_F(AvlContract, nodes_come_in_key_order_whatever_the_order_of_insertion) {
    std::array<item, 7> items = {};
    const int keys[] = {4, 1, 7, 3, 6, 2, 5};

    for (std::size_t i = 0; i < items.size(); i++) {
        items[i].key = keys[i];
        ASSERT_EQ(insert(items[i]), 0);
    }

    EXPECT_EQ(keys_in_order(), (std::vector<int>{1, 2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(root.count, 7u);
}

TEST_F(AvlContract, an_equal_key_is_refused_and_the_tree_stays) {
    item first = {{}, 5};
    item twin = {{}, 5};
    insert(first);

    const int result = insert(twin);

    EXPECT_EQ(result, -1);
    EXPECT_EQ(root.count, 1u);
    EXPECT_EQ(search(5), &first.node);
}

TEST_F(AvlContract, search_finds_equal_keys_only) {
    item low = {{}, 10};
    item high = {{}, 20};
    insert(low);
    insert(high);

    EXPECT_EQ(search(10), &low.node);
    EXPECT_EQ(search(20), &high.node);
    EXPECT_EQ(search(15), nullptr);
    EXPECT_EQ(search(5), nullptr);
    EXPECT_EQ(search(25), nullptr);
}

TEST_F(AvlContract, a_deleted_node_is_zeroed_and_can_be_inserted_again) {
    item it = {{}, 1};
    insert(it);

    avl_delete(&root, &it.node);

    EXPECT_EQ(it.node.parent, nullptr);
    EXPECT_EQ(it.node.left, nullptr);
    EXPECT_EQ(it.node.right, nullptr);
    EXPECT_EQ(it.node.balance, 0);
    EXPECT_EQ(root.count, 0u);
    EXPECT_EQ(avl_get_first(&root), nullptr);
    EXPECT_EQ(insert(it), 0);
    EXPECT_EQ(avl_get_first(&root), &it.node);
}

TEST_F(AvlContract, a_walk_stops_when_the_callback_says_so) {
    std::array<item, 3> items = {item{{}, 1}, item{{}, 2}, item{{}, 3}};
    for (item &it : items)
        insert(it);
    std::vector<int> seen;

    const int result = avl_walk(
        &root,
        [](void *node, void *arg) {
            const int key = static_cast<item *>(node)->key;
            static_cast<std::vector<int> *>(arg)->push_back(key);
            return key == 2 ? 0 : 7;
        },
        &seen);

    EXPECT_EQ(result, 0);
    EXPECT_EQ(seen, (std::vector<int>{1, 2}));
}

TEST_F(AvlContract, a_walk_survives_a_callback_that_deletes_and_frees_its_node) {
    struct walk_state {
        avl_root_t *root;
        std::vector<int> seen;
    } state = {&root, {}};
    for (int key = 0; key < 200; key++) {
        auto it = std::make_unique<item>(item{{}, key});
        ASSERT_EQ(insert(*it), 0);
        it.release();
    }

    const int result = avl_walk(
        &root,
        [](void *node, void *arg) {
            auto *walk = static_cast<walk_state *>(arg);
            const std::unique_ptr<item> it(static_cast<item *>(node));
            walk->seen.push_back(it->key);
            avl_delete(walk->root, &it->node);
            return 1;
        },
        &state);

    std::vector<int> expected(200);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(state.seen, expected);
    EXPECT_EQ(root.count, 0u);
}

TEST_F(AvlContract, random_insertions_and_deletions_agree_with_a_sorted_list) {
    std::mt19937 random(4711);
    std::vector<item> items(300);
    for (std::size_t i = 0; i < items.size(); i++)
        items[i].key = static_cast<int>(i);
    std::vector<bool> is_in(items.size(), false);

    for (int step = 0; step < 3000; step++) {
        const std::size_t i = random() % items.size();
        if (is_in[i])
            avl_delete(&root, &items[i].node);
        else
            ASSERT_EQ(insert(items[i]), 0);
        is_in[i] = !is_in[i];
    }

    std::vector<int> expected;
    for (std::size_t i = 0; i < items.size(); i++)
        if (is_in[i]) expected.push_back(static_cast<int>(i));
    EXPECT_EQ(keys_in_order(), expected);
    EXPECT_EQ(root.count, expected.size());
}

TEST_F(AvlContract, searches_in_two_trees_do_not_mislead_insertions_and_deletions) {
    struct tree {
        avl_root_t root = {};
        std::vector<item> items = std::vector<item>(60);
        std::vector<bool> is_in = std::vector<bool>(60, false);
    };
    std::mt19937 random(815);
    std::array<tree, 2> trees;
    for (tree &t : trees)
        for (std::size_t i = 0; i < t.items.size(); i++)
            t.items[i].key = static_cast<int>(i);

    for (int step = 0; step < 20'000; step++) {
        tree &t = trees[random() % trees.size()];
        const std::size_t wanted = random() % t.items.size();
        const int key = static_cast<int>(wanted);
        avl_node_t *expected = t.is_in[wanted] ? &t.items[wanted].node : nullptr;
        ASSERT_EQ(avl_search(&t.root, &key, compare_items), expected) << step;

        const std::size_t i = random() % 2 == 0 ? wanted : random() % t.items.size();
        if (t.is_in[i])
            avl_delete(&t.root, &t.items[i].node);
        else
            ASSERT_EQ(avl_insert(&t.root, &t.items[i].key, &t.items[i].node, compare_items), 0);
        t.is_in[i] = !t.is_in[i];
    }

    for (tree &t : trees) {
        std::size_t at = 0;
        for (avl_node_t *n = avl_get_first(&t.root); n != nullptr; n = avl_get_next(n)) {
            while (at < t.is_in.size() && !t.is_in[at])
                at++;
            EXPECT_EQ(key_of(n), static_cast<int>(at++));
        }
        EXPECT_EQ(std::count(t.is_in.begin() + static_cast<long>(at), t.is_in.end(), true), 0);
    }
}

} // namespace
