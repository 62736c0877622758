// Pools: zero-filled records, also the second time.
#include "platform/chunk.h"
#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <vector>

namespace {

bool is_zero(const void *memory, std::size_t bytes) {
    const auto *at = static_cast<const unsigned char *>(memory);
    return std::all_of(at, at + bytes, [](unsigned char b) { return b == 0; });
}

class ChunkContract : public testing::TestWithParam<std::size_t> {
  protected:
    void SetUp() override {
        const std::uint32_t max = chunk_compute_max(4096, 785, GetParam(), 0);
        ASSERT_GE(max, 1u);
        pool = chunk_create("contract pool", GetParam(), max, 785, 0, 0);
        ASSERT_NE(pool, nullptr);
    }
    void TearDown() override { chunk_destroy(pool); }

    chunk_pool_t *pool = nullptr;
};

TEST_P(ChunkContract, records_are_zero_filled_and_do_not_overlap) {
    std::vector<void *> records;
    for (int i = 0; i < 500; i++)
        records.push_back(chunk_malloc(pool));

    for (void *record : records) {
        ASSERT_NE(record, nullptr);
        ASSERT_TRUE(is_zero(record, GetParam()));
        std::memset(record, 0xa5, GetParam());
    }
    EXPECT_EQ(std::set<void *>(records.begin(), records.end()).size(), records.size());
    for (void *record : records)
        chunk_free(pool, record);
}

TEST_P(ChunkContract, a_recycled_record_is_zero_filled_again) {
    for (int round = 0; round < 50; round++) {
        void *record = chunk_malloc(pool);
        ASSERT_NE(record, nullptr);

        ASSERT_TRUE(is_zero(record, GetParam()));
        std::memset(record, 0xff, GetParam());
        chunk_free(pool, record);
    }
}

TEST_P(ChunkContract, records_are_aligned_for_pointers) {
    void *first = chunk_malloc(pool);
    void *second = chunk_malloc(pool);

    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(first) % alignof(void *), 0u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(second) % alignof(void *), 0u);
    chunk_free(pool, first);
    chunk_free(pool, second);
}

TEST_P(ChunkContract, a_pool_can_be_destroyed_with_records_still_out) {
    chunk_pool_t *other = chunk_create("left behind", GetParam(), 1, 785, 0, 0);
    ASSERT_NE(other, nullptr);

    void *record = chunk_malloc(other);

    EXPECT_NE(record, nullptr);
    chunk_destroy(other); // the leak checker watches that the record goes with it
}

INSTANTIATE_TEST_SUITE_P(RecordSizes, ChunkContract, testing::Values(1, 8, 24, 120, 432, 4000));

} // namespace
