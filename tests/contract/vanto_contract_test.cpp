// Hash tables, with a hash function as coarse as the one that will be used.
#include "platform/vanto.h"
#include <array>
#include <cstring>
#include <gtest/gtest.h>

namespace {

constexpr std::size_t key_bytes = 6;
using key = std::array<std::uint8_t, key_bytes>;

int keys_equal(const void *a, const void *b) {
    return std::memcmp(a, b, key_bytes) == 0;
}

std::uint64_t coarse_hash(const void *k) {
    return *static_cast<const std::uint8_t *>(k) & 127;
}

std::uint64_t same_hash(const void *) {
    return 3;
}

class VantoContract : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(vanto_protected_hashtable_init(&table, 128), 0);
        vanto_hashtable_set_key_equals(&table, keys_equal);
        vanto_hashtable_set_key_hash(&table, coarse_hash);
    }
    void TearDown() override { vanto_protected_hashtable_release(&table); }

    vanto_protected_hashtable_t table = {};
};

TEST_F(VantoContract, what_was_put_is_found_under_an_equal_key_at_another_address) {
    key stored = {1, 2, 3, 4, 5, 6};
    int value = 0;

    ASSERT_EQ(vanto_protected_hashtable_put(&table, stored.data(), &value), 0);

    const key asked = stored;
    EXPECT_EQ(vanto_protected_hashtable_get(&table, asked.data()), &value);
}

TEST_F(VantoContract, an_unknown_key_has_no_value) {
    key stored = {1, 2, 3, 4, 5, 6};
    int value = 0;
    vanto_protected_hashtable_put(&table, stored.data(), &value);

    const key same_bucket = {1, 0, 0, 0, 0, 0};
    const key other_bucket = {2, 2, 3, 4, 5, 6};
    EXPECT_EQ(vanto_protected_hashtable_get(&table, same_bucket.data()), nullptr);
    EXPECT_EQ(vanto_protected_hashtable_get(&table, other_bucket.data()), nullptr);
}

TEST_F(VantoContract, keys_that_share_a_bucket_are_kept_apart) {
    vanto_hashtable_set_key_hash(&table, same_hash);
    std::array<key, 100> keys = {};
    std::array<int, 100> values = {};
    for (std::size_t i = 0; i < keys.size(); i++) {
        keys[i][5] = static_cast<std::uint8_t>(i);
        ASSERT_EQ(vanto_protected_hashtable_put(&table, keys[i].data(), &values[i]), 0);
    }

    for (std::size_t i = 0; i < keys.size(); i++)
        EXPECT_EQ(vanto_protected_hashtable_get(&table, keys[i].data()), &values[i]) << i;
}

TEST_F(VantoContract, more_entries_than_buckets_are_all_found) {
    std::array<key, 1000> keys = {};
    std::array<int, 1000> values = {};
    for (std::size_t i = 0; i < keys.size(); i++) {
        keys[i][0] = static_cast<std::uint8_t>(i);
        keys[i][1] = static_cast<std::uint8_t>(i >> 8);
        ASSERT_EQ(vanto_protected_hashtable_put(&table, keys[i].data(), &values[i]), 0);
    }

    for (std::size_t i = 0; i < keys.size(); i++)
        ASSERT_EQ(vanto_protected_hashtable_get(&table, keys[i].data()), &values[i]) << i;
}

TEST_F(VantoContract, a_released_table_can_be_initialised_again_and_is_empty) {
    key stored = {9};
    int value = 0;
    vanto_protected_hashtable_put(&table, stored.data(), &value);

    vanto_protected_hashtable_release(&table);
    table = {};
    SetUp();

    EXPECT_EQ(vanto_protected_hashtable_get(&table, stored.data()), nullptr);
}

} // namespace
