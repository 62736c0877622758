// Timers, time stamps, copies and traces: what holds on every platform.
#include "contract_platform.h"
#include "platform/fts.h"
#include "platform/mem.h"
#include "platform/rtrace.h"
#include <cstring>
#include <gtest/gtest.h>

namespace {

TEST(TimerContract, a_new_timer_does_not_run) {
    mgd_timer_t *timer = mgd_timer_leaf_new(contract::timer_parent(), 7, 0, 0);
    ASSERT_NE(timer, nullptr);

    EXPECT_EQ(mgd_timer_leaf_running(timer), 0);
    contract::release_timer(timer);
}

TEST(TimerContract, a_timer_runs_from_start_to_stop_and_can_start_again) {
    mgd_timer_t *timer = mgd_timer_leaf_new(contract::timer_parent(), 7, 0, 0);
    ASSERT_NE(timer, nullptr);

    mgd_timer_leaf_start(timer, {30, 0});
    EXPECT_NE(mgd_timer_leaf_running(timer), 0);
    mgd_timer_leaf_start(timer, {40, 0});
    EXPECT_NE(mgd_timer_leaf_running(timer), 0);
    mgd_timer_leaf_stop(timer);
    EXPECT_EQ(mgd_timer_leaf_running(timer), 0);
    mgd_timer_leaf_stop(timer);
    EXPECT_EQ(mgd_timer_leaf_running(timer), 0);
    mgd_timer_leaf_start(timer, {30, 0});
    EXPECT_NE(mgd_timer_leaf_running(timer), 0);
    contract::release_timer(timer);
}

TEST(StampContract, stamps_never_go_back) {
    std::uint64_t last = fts_get_stamp_fast();

    for (int i = 0; i < 1000; i++) {
        const std::uint64_t now = fts_get_stamp_fast();
        ASSERT_GE(now, last);
        last = now;
    }
    EXPECT_GT(last, 0u);
}

TEST(MemContract, a_copy_has_the_bytes_and_memory_of_its_own) {
    const char original[] = "with\0inside";

    void *copy = memdup(original, sizeof original);

    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, original);
    EXPECT_EQ(std::memcmp(copy, original, sizeof original), 0);
    contract::release_copy(copy);
}

TEST(TraceContract, a_channel_opens_and_takes_records_of_every_signature) {
    rtrace_handle_t handle = nullptr;
    const char *format_id = "0123456789abcdef0123456789abcdef";

    const int result =
        rtrace_open_internal(&handle, "contract", 0x10000, 87, "./source", format_id, 0);

    ASSERT_EQ(result, 0);
    ASSERT_NE(handle, nullptr);
    rtrace_internal(handle, 1, 4, 1, "s", "%s", "text");
    rtrace_internal(handle, 2, 9, 1, "ssdDsdd", "%s %s %d %ld %s %d %d", "a", "b", 1, 2L, "c", 3,
                    4);
    rtrace_internal(handle, 3, 6, 0, "D", "%p", static_cast<const void *>(&handle));
    rtrace_internal(handle, 4, 4, 0, "", "nothing");
    contract::close_channel(handle);
}

} // namespace
