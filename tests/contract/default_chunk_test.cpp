// Default platform: pools have limits, give memory back to themselves, and show misuse.
#include "platform_default/platform_default.h"
#include <gtest/gtest.h>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define POISON_IS_TESTED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define POISON_IS_TESTED 1
#endif
#endif

namespace {

struct record {
    unsigned char bytes[100];
};

class DefaultChunk : public testing::Test {
  protected:
    void SetUp() override { pool = chunk_create("limits", sizeof(record), 10, 785, 0, 0); }
    void TearDown() override { chunk_destroy(pool); }
    chunk_usage_t usage() const {
        chunk_usage_t now;
        chunk_get_usage(pool, &now);
        return now;
    }

    chunk_pool_t *pool = nullptr;
};

TEST_F(DefaultChunk, a_page_holds_as_many_records_as_fit_and_at_least_one) {
    EXPECT_EQ(chunk_compute_max(4096, 785, 112, 0), 36u);
    EXPECT_EQ(chunk_compute_max(4096, 785, 4096, 0), 1u);
    EXPECT_EQ(chunk_compute_max(4096, 785, 100'000, 0), 1u);
    EXPECT_EQ(chunk_compute_max(4096, 785, 0, 0), 1u);
    EXPECT_EQ(chunk_compute_max(0, 0, 8, 0), 1u);
}

TEST_F(DefaultChunk, blocks_keep_their_size_however_many_there_are) {
    std::vector<void *> records;
    for (int i = 0; i < 95; i++)
        records.push_back(chunk_malloc(pool));

    EXPECT_EQ(usage().records_in_use, 95u);
    EXPECT_EQ(usage().records_reserved, 100u);
    EXPECT_GE(usage().bytes_reserved, 100u * sizeof(record));
    EXPECT_LE(usage().bytes_reserved, 100u * (sizeof(record) + 64));
}

TEST_F(DefaultChunk, freed_records_are_used_before_new_memory_is_taken) {
    for (int round = 0; round < 1000; round++) {
        void *records[10];
        for (void *&r : records)
            r = chunk_malloc(pool);
        for (void *r : records)
            chunk_free(pool, r);
    }

    EXPECT_EQ(usage().records_in_use, 0u);
    EXPECT_EQ(usage().records_reserved, 10u);
}

TEST_F(DefaultChunk, a_pool_at_its_limit_is_exhausted_until_a_record_comes_back) {
    chunk_set_limit(pool, 2);
    void *first = chunk_malloc(pool);
    void *second = chunk_malloc(pool);

    EXPECT_NE(first, nullptr);
    EXPECT_NE(second, nullptr);
    EXPECT_EQ(chunk_malloc(pool), nullptr);
    chunk_free(pool, first);
    EXPECT_NE(chunk_malloc(pool), nullptr);
    EXPECT_EQ(chunk_malloc(pool), nullptr);
    chunk_set_limit(pool, 0);
    EXPECT_NE(chunk_malloc(pool), nullptr);
}

TEST_F(DefaultChunk, impossible_pools_are_not_made) {
    EXPECT_EQ(chunk_create(nullptr, 8, 1, 785, 0, 0), nullptr);
    EXPECT_EQ(chunk_create("none", 0, 1, 785, 0, 0), nullptr);
    EXPECT_EQ(chunk_create("none", 8, 0, 785, 0, 0), nullptr);
    EXPECT_EQ(chunk_create("huge", static_cast<std::size_t>(-1), 1, 785, 0, 0), nullptr);
}

TEST_F(DefaultChunk, a_block_that_cannot_be_allocated_leaves_the_pool_as_it_was) {
    chunk_pool_t *wide = chunk_create("wide", std::size_t{1} << 24, 0xffffffff, 785, 0, 0);
    ASSERT_NE(wide, nullptr);

#if !defined(POISON_IS_TESTED)
    EXPECT_EQ(chunk_malloc(wide), nullptr);
#endif

    chunk_usage_t now;
    chunk_get_usage(wide, &now);
    EXPECT_EQ(now.records_in_use, 0u);
    EXPECT_EQ(now.records_reserved, 0u);
    chunk_destroy(wide);
}

TEST_F(DefaultChunk, null_arguments_are_harmless) {
    chunk_usage_t now = {1, 1, 1};

    EXPECT_EQ(chunk_malloc(nullptr), nullptr);
    chunk_free(nullptr, pool);
    chunk_free(pool, nullptr);
    chunk_destroy(nullptr);
    chunk_set_limit(nullptr, 1);
    chunk_get_usage(pool, nullptr);
    chunk_get_usage(nullptr, &now);

    EXPECT_EQ(now.records_in_use + now.records_reserved + now.bytes_reserved, 0u);
}

#if defined(POISON_IS_TESTED)
using DefaultChunkDeathTest = DefaultChunk;

TEST_F(DefaultChunkDeathTest, every_byte_of_a_freed_record_is_poisoned) {
    auto *r = static_cast<volatile record *>(chunk_malloc(pool));
    chunk_free(pool, const_cast<record *>(r));

    EXPECT_DEATH(r->bytes[0] = 1, "use-after-poison");
    EXPECT_DEATH(r->bytes[99] = 1, "use-after-poison");
}

TEST_F(DefaultChunkDeathTest, a_record_given_back_twice_is_reported) {
    void *r = chunk_malloc(pool);
    chunk_free(pool, r);

    EXPECT_DEATH(chunk_free(pool, r), "use-after-poison");
}

TEST_F(DefaultChunkDeathTest, a_write_behind_a_record_is_reported) {
    auto *r = static_cast<volatile unsigned char *>(chunk_malloc(pool));
    chunk_malloc(pool);

    EXPECT_DEATH(r[sizeof(record)] = 1, "use-after-poison");
}

TEST_F(DefaultChunkDeathTest, a_record_that_was_handed_out_again_may_be_used) {
    void *r = chunk_malloc(pool);
    chunk_free(pool, r);

    auto *again = static_cast<record *>(chunk_malloc(pool));

    again->bytes[0] = 1;
    again->bytes[99] = 1;
    EXPECT_EQ(again->bytes[0] + again->bytes[99], 2);
}
#endif

} // namespace
