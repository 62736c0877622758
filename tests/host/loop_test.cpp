#include "host/loop.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "host/timers.h"

namespace ds::host {
namespace {

std::uint64_t fake_now_ns = 0;
std::uint64_t fake_clock() {
    return fake_now_ns;
}

class LoopTest : public testing::Test {
  protected:
    LoopTest() { fake_now_ns = 1'000'000'000'000'000; } // far ahead of the real clock's deadlines
    void advance(std::uint64_t ns) {
        fake_now_ns += ns;
        loop.turn(0);
    }
    Loop loop{fake_clock};
    std::string fired;
    Alarm a{[this] { fired += 'a'; }};
    Alarm b{[this] { fired += 'b'; }};
    Alarm c{[this] { fired += 'c'; }};
};

TEST_F(LoopTest, alarms_fire_once_in_the_order_of_their_deadlines) {
    loop.arm(b, fake_now_ns + 20);
    loop.arm(c, fake_now_ns + 30);
    loop.arm(a, fake_now_ns + 10);

    advance(9);
    EXPECT_EQ(fired, "");
    advance(11);
    EXPECT_EQ(fired, "ab");
    advance(1000);
    EXPECT_EQ(fired, "abc");
    EXPECT_FALSE(a.is_armed());
}

TEST_F(LoopTest, arming_again_moves_the_deadline) {
    loop.arm(a, fake_now_ns + 10);
    loop.arm(a, fake_now_ns + 50);

    advance(20);
    EXPECT_EQ(fired, "");
    advance(30);
    EXPECT_EQ(fired, "a");
}

TEST_F(LoopTest, an_alarm_disarmed_by_an_earlier_one_of_the_same_turn_stays_silent) {
    Alarm killer{[this] { loop.disarm(a); }};
    loop.arm(killer, fake_now_ns + 1);
    loop.arm(a, fake_now_ns + 2);
    loop.arm(b, fake_now_ns + 3);

    advance(10);

    EXPECT_EQ(fired, "b");
}

TEST_F(LoopTest, an_alarm_armed_by_an_action_waits_for_the_next_turn) {
    int count = 0;
    std::unique_ptr<Alarm> again;
    again = std::make_unique<Alarm>([&] {
        count++;
        loop.arm(*again, fake_now_ns);
    });
    loop.arm(*again, fake_now_ns);

    advance(1);
    EXPECT_EQ(count, 1);
    advance(1);
    EXPECT_EQ(count, 2);
    loop.disarm(*again);
}

TEST_F(LoopTest, a_deadline_ends_the_wait_of_a_turn_without_limit) {
    Loop real;
    real.arm(b, real.now_ns());

    real.turn(-1);

    EXPECT_EQ(fired, "b");
}

struct Reader final : Handler {
    void on_ready(std::uint32_t events) override { seen.push_back(events); }
    std::vector<std::uint32_t> seen;
};

TEST_F(LoopTest, a_handler_is_called_for_the_events_it_asked_for) {
    std::array<int, 2> ends = {};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    const UniqueFd near(ends[0]), far(ends[1]);
    Reader reader;
    loop.watch(near.get(), EPOLLIN, reader);

    loop.turn(0);
    EXPECT_TRUE(reader.seen.empty());
    loop.change(near.get(), EPOLLOUT, reader);
    loop.turn(0);
    EXPECT_EQ(reader.seen, std::vector<std::uint32_t>{EPOLLOUT});
    loop.forget(near.get());
    loop.turn(0);
    EXPECT_EQ(reader.seen.size(), 1u);
}

TEST_F(LoopTest, hooks_run_at_the_end_of_every_turn_behind_the_alarms) {
    loop.at_end_of_turn([this] { fired += '1'; });
    loop.at_end_of_turn([this] { fired += '2'; });
    loop.arm(a, fake_now_ns);

    loop.turn(0);
    loop.turn(0);

    EXPECT_EQ(fired, "a1212");
}

TEST_F(LoopTest, signals_are_delivered_in_a_turn) {
    std::vector<int> signals;
    loop.watch_signals({SIGUSR1, SIGUSR2}, [&signals](int signal) { signals.push_back(signal); });
    raise(SIGUSR2);
    EXPECT_TRUE(signals.empty());

    loop.turn(0);

    EXPECT_EQ(signals, std::vector<int>{SIGUSR2});
}

std::vector<mgd_timer_t *> expired_timers;

TEST_F(LoopTest, the_platforms_timers_expire_in_its_turns) {
    expired_timers.clear();
    Timers timers(loop, [](mgd_timer_t *timer) { expired_timers.push_back(timer); });
    mgd_timer_t *thirty = mgd_timer_leaf_new(timers.parent(), 0, 0, 0);
    mgd_timer_t *stopped = mgd_timer_leaf_new(timers.parent(), 0, 0, 0);
    mgd_timer_leaf_start(thirty, {30, 0});
    mgd_timer_leaf_start(stopped, {10, 0});
    mgd_timer_leaf_stop(stopped);

    advance(29'999'999'999);
    EXPECT_TRUE(expired_timers.empty());
    EXPECT_NE(mgd_timer_leaf_running(thirty), 0);
    advance(1);
    EXPECT_EQ(expired_timers, std::vector<mgd_timer_t *>{thirty});
    EXPECT_EQ(mgd_timer_leaf_running(thirty), 0);

    mgd_timer_release(thirty);
    mgd_timer_release(stopped);
}

} // namespace
} // namespace ds::host
