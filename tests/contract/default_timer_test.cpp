// Default platform: timers on a loop whose clock stands still until a test moves it.
#include "platform_default/platform_default.h"
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <vector>

namespace {

constexpr std::uint64_t second_ns = 1'000'000'000;

struct fake_loop {
    std::uint64_t now = 1000;
    std::map<mgd_timer_t *, std::uint64_t> deadlines;
    int disarms = 0;
    std::vector<std::uint64_t> expired_contexts;
    std::function<void(mgd_timer_t *)> during_expiry = [](mgd_timer_t *) {};

    void advance(std::uint64_t ns) {
        now += ns;
        const auto due = deadlines;
        for (const auto &[timer, deadline] : due)
            if (deadline <= now && deadlines.erase(timer) != 0) mgd_timer_expire(timer);
    }
};

fake_loop *self(void *loop) {
    return static_cast<fake_loop *>(loop);
}

mgd_timer_loop_t table_of(fake_loop *loop) {
    return {loop, [](void *l) { return self(l)->now; },
            [](void *l, mgd_timer_t *timer, std::uint64_t deadline) {
                self(l)->deadlines[timer] = deadline;
            },
            [](void *l, mgd_timer_t *timer) {
                self(l)->disarms++;
                self(l)->deadlines.erase(timer);
            },
            [](void *l, mgd_timer_t *timer, std::uint64_t context) {
                self(l)->expired_contexts.push_back(context);
                self(l)->during_expiry(timer);
            }};
}

class DefaultTimer : public testing::Test {
  protected:
    void SetUp() override {
        const mgd_timer_loop_t table = table_of(&loop);
        parent = mgd_timer_parent_new(&table);
        leaf = mgd_timer_leaf_new(parent, 77, 0, 0);
        ASSERT_NE(leaf, nullptr);
    }
    void TearDown() override {
        mgd_timer_release(leaf);
        mgd_timer_release(parent);
    }

    fake_loop loop;
    mgd_timer_t *parent = nullptr;
    mgd_timer_t *leaf = nullptr;
};

TEST_F(DefaultTimer, starting_arms_the_loop_with_seconds_and_fraction_from_now) {
    mgd_timer_leaf_start(leaf, {30, 0});
    EXPECT_EQ(loop.deadlines.at(leaf), 1000 + 30 * second_ns);

    mgd_timer_leaf_start(leaf, {1, 0x80000000});
    EXPECT_EQ(loop.deadlines.at(leaf), 1000 + second_ns + second_ns / 2);

    mgd_timer_leaf_start(leaf, {0xffffffff, 0});
    EXPECT_EQ(loop.deadlines.at(leaf), 1000 + 0xffffffffu * second_ns);
}

TEST_F(DefaultTimer, an_expiry_reports_the_context_once_and_ends_the_run) {
    mgd_timer_leaf_start(leaf, {30, 0});

    loop.advance(29 * second_ns);
    EXPECT_TRUE(loop.expired_contexts.empty());
    EXPECT_NE(mgd_timer_leaf_running(leaf), 0);
    loop.advance(second_ns);
    loop.advance(60 * second_ns);

    EXPECT_EQ(loop.expired_contexts, std::vector<std::uint64_t>{77});
    EXPECT_EQ(mgd_timer_leaf_running(leaf), 0);
}

TEST_F(DefaultTimer, a_stopped_timer_is_disarmed_and_a_late_expiry_ignored) {
    mgd_timer_leaf_start(leaf, {30, 0});

    mgd_timer_leaf_stop(leaf);
    mgd_timer_leaf_stop(leaf);
    mgd_timer_expire(leaf);

    EXPECT_EQ(loop.disarms, 1);
    EXPECT_TRUE(loop.deadlines.empty());
    EXPECT_TRUE(loop.expired_contexts.empty());
}

TEST_F(DefaultTimer, a_timer_still_runs_while_its_expiry_is_handled) {
    int running = -1;
    loop.during_expiry = [&](mgd_timer_t *timer) { running = mgd_timer_leaf_running(timer); };
    mgd_timer_leaf_start(leaf, {1, 0});

    loop.advance(second_ns);

    EXPECT_NE(running, 0);
    EXPECT_EQ(mgd_timer_leaf_running(leaf), 0);
}

TEST_F(DefaultTimer, a_handler_may_stop_the_timer_or_start_it_anew) {
    int after_stop = -1;
    loop.during_expiry = [&](mgd_timer_t *timer) {
        mgd_timer_leaf_stop(timer);
        after_stop = mgd_timer_leaf_running(timer);
        mgd_timer_leaf_start(timer, {5, 0});
    };
    mgd_timer_leaf_start(leaf, {1, 0});

    loop.advance(second_ns);

    EXPECT_EQ(after_stop, 0);
    EXPECT_EQ(loop.disarms, 0);
    EXPECT_NE(mgd_timer_leaf_running(leaf), 0);
    EXPECT_EQ(loop.deadlines.at(leaf), 1000 + 6 * second_ns);
}

TEST_F(DefaultTimer, a_handler_may_release_the_timer) {
    loop.during_expiry = [&](mgd_timer_t *timer) {
        mgd_timer_leaf_start(timer, {5, 0});
        mgd_timer_release(timer);
        EXPECT_EQ(mgd_timer_leaf_running(timer), 0);
        leaf = nullptr;
    };
    mgd_timer_leaf_start(leaf, {1, 0});

    loop.advance(second_ns);

    EXPECT_EQ(leaf, nullptr);
    EXPECT_TRUE(loop.deadlines.empty());
    EXPECT_EQ(loop.expired_contexts.size(), 1u);
}

TEST_F(DefaultTimer, releasing_a_running_timer_disarms_it) {
    mgd_timer_leaf_start(leaf, {1, 0});

    mgd_timer_release(leaf);
    leaf = nullptr;

    EXPECT_TRUE(loop.deadlines.empty());
}

TEST_F(DefaultTimer, leaves_need_a_parent_and_parents_a_whole_table) {
    mgd_timer_loop_t table = table_of(&loop);
    table.disarm = nullptr;

    EXPECT_EQ(mgd_timer_leaf_new(nullptr, 0, 0, 0), nullptr);
    EXPECT_EQ(mgd_timer_leaf_new(leaf, 0, 0, 0), nullptr);
    EXPECT_EQ(mgd_timer_parent_new(nullptr), nullptr);
    EXPECT_EQ(mgd_timer_parent_new(&table), nullptr);
}

TEST_F(DefaultTimer, nulls_and_parents_are_no_timers_to_run) {
    mgd_timer_leaf_start(nullptr, {1, 0});
    mgd_timer_leaf_start(parent, {1, 0});
    mgd_timer_leaf_stop(nullptr);
    mgd_timer_leaf_stop(parent);
    mgd_timer_expire(nullptr);
    mgd_timer_expire(parent);
    mgd_timer_release(nullptr);

    EXPECT_EQ(mgd_timer_leaf_running(nullptr), 0);
    EXPECT_EQ(mgd_timer_leaf_running(parent), 0);
    EXPECT_TRUE(loop.deadlines.empty());
}

} // namespace
