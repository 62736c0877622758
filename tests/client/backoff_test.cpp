#include "client/backoff.h"

#include <gtest/gtest.h>

#include <vector>

namespace ds::client {
namespace {

std::vector<std::uint32_t> draw(Backoff backoff, int count) {
    std::vector<std::uint32_t> waits;
    for (int i = 0; i < count; i++)
        waits.push_back(backoff.next_ms());
    return waits;
}

TEST(Backoff, the_same_seed_draws_the_same_waits_and_another_one_others) {
    EXPECT_EQ(draw(Backoff(50, 2000, 7), 20), draw(Backoff(50, 2000, 7), 20));
    EXPECT_NE(draw(Backoff(50, 2000, 7), 20), draw(Backoff(50, 2000, 8), 20));
}

TEST(Backoff, the_bound_doubles_up_to_the_largest_wait_and_the_draws_use_its_whole_width) {
    const std::uint32_t bounds[] = {50, 100, 200, 400, 800, 1600, 2000, 2000};
    std::vector<std::uint32_t> least(std::size(bounds), UINT32_MAX), most(std::size(bounds), 0);

    for (std::uint64_t seed = 1; seed <= 500; seed++) {
        const std::vector<std::uint32_t> waits = draw(Backoff(50, 2000, seed), std::size(bounds));
        for (std::size_t i = 0; i < waits.size(); i++) {
            least[i] = std::min(least[i], waits[i]);
            most[i] = std::max(most[i], waits[i]);
        }
    }

    for (std::size_t i = 0; i < std::size(bounds); i++) {
        EXPECT_LE(most[i], bounds[i]);
        EXPECT_GT(most[i], bounds[i] * 9 / 10);
        EXPECT_LT(least[i], bounds[i] / 10);
    }
}

TEST(Backoff, a_reset_begins_with_the_first_bound_again) {
    Backoff backoff(10, 100'000, 3);
    for (int i = 0; i < 14; i++)
        backoff.next_ms();

    backoff.reset();

    EXPECT_LE(backoff.next_ms(), 10u);
    EXPECT_LE(backoff.next_ms(), 20u);
}

TEST(Backoff, the_largest_numbers_do_not_overflow) {
    Backoff backoff(UINT32_MAX, UINT32_MAX, 1);
    std::uint32_t most = 0;

    for (int i = 0; i < 100; i++)
        most = std::max(most, backoff.next_ms());

    EXPECT_GT(most, UINT32_MAX / 2);
}

} // namespace
} // namespace ds::client
