// Default platform: replacement, refusals, and the lock of a hash table.
#include "platform/vanto.h"
#include <array>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace {

int ints_equal(const void *a, const void *b) {
    return *static_cast<const int *>(a) == *static_cast<const int *>(b);
}

std::uint64_t hash_int(const void *key) {
    return static_cast<std::uint64_t>(*static_cast<const int *>(key)) & 127;
}

class DefaultVanto : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(vanto_protected_hashtable_init(&table, 16), 0);
        vanto_hashtable_set_key_equals(&table, ints_equal);
        vanto_hashtable_set_key_hash(&table, hash_int);
    }
    void TearDown() override { vanto_protected_hashtable_release(&table); }

    vanto_protected_hashtable_t table = {};
};

TEST_F(DefaultVanto, putting_an_equal_key_replaces_value_and_key) {
    int first_key = 5, second_key = 5, first = 1, second = 2;
    vanto_protected_hashtable_put(&table, &first_key, &first);

    const int result = vanto_protected_hashtable_put(&table, &second_key, &second);

    first_key = 999; // the table no longer looks at it
    const int asked = 5;
    EXPECT_EQ(result, 0);
    EXPECT_EQ(table.entry_count, 1u);
    EXPECT_EQ(vanto_protected_hashtable_get(&table, &asked), &second);
}

TEST_F(DefaultVanto, a_table_that_is_not_ready_stores_and_finds_nothing) {
    vanto_protected_hashtable_t empty = {};
    vanto_protected_hashtable_t without_callbacks = {};
    ASSERT_EQ(vanto_protected_hashtable_init(&without_callbacks, 4), 0);
    int key = 1;

    EXPECT_NE(vanto_protected_hashtable_put(&empty, &key, &key), 0);
    EXPECT_EQ(vanto_protected_hashtable_get(&empty, &key), nullptr);
    EXPECT_NE(vanto_protected_hashtable_put(&without_callbacks, &key, &key), 0);
    EXPECT_EQ(vanto_protected_hashtable_get(&without_callbacks, &key), nullptr);
    EXPECT_NE(vanto_protected_hashtable_put(nullptr, &key, &key), 0);
    EXPECT_NE(vanto_protected_hashtable_put(&table, nullptr, &key), 0);
    EXPECT_EQ(vanto_protected_hashtable_get(&table, nullptr), nullptr);
    vanto_protected_hashtable_release(&without_callbacks);
    vanto_protected_hashtable_release(&empty);
    vanto_protected_hashtable_release(nullptr);
}

TEST_F(DefaultVanto, impossible_bucket_counts_are_refused) {
    vanto_protected_hashtable_t other = {};

    EXPECT_NE(vanto_protected_hashtable_init(&other, 0), 0);
    EXPECT_NE(vanto_protected_hashtable_init(&other, 0xffffffff), 0);
    EXPECT_NE(vanto_protected_hashtable_init(nullptr, 1), 0);
    EXPECT_EQ(other.buckets, nullptr);
}

TEST_F(DefaultVanto, a_release_leaves_the_table_zero_filled) {
    int key = 1;
    vanto_protected_hashtable_put(&table, &key, &key);

    vanto_protected_hashtable_release(&table);

    EXPECT_EQ(table.buckets, nullptr);
    EXPECT_EQ(table.lock, nullptr);
    EXPECT_EQ(table.entry_count, 0u);
}

TEST_F(DefaultVanto, threads_that_put_and_get_at_once_lose_nothing) {
    constexpr int per_thread = 2000;
    std::vector<int> keys(4 * per_thread);
    for (std::size_t i = 0; i < keys.size(); i++)
        keys[i] = static_cast<int>(i);
    const auto work = [&](std::size_t from) {
        for (std::size_t i = from; i < from + per_thread; i++) {
            vanto_protected_hashtable_put(&table, &keys[i], &keys[i]);
            vanto_protected_hashtable_get(&table, &keys[i / 2]);
        }
    };
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < 4; t++)
        threads.emplace_back(work, t * per_thread);
    for (std::thread &thread : threads)
        thread.join();

    EXPECT_EQ(table.entry_count, keys.size());
    for (int &key : keys)
        ASSERT_EQ(vanto_protected_hashtable_get(&table, &key), &key);
}

} // namespace
