// The stream of all channels: order, what is lost, restarts, files that cannot be read.
#include "cli/trace_rings.h"

#include <cstring>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "platform/rtrace.h"
#include "platform_default/platform_default.h"

namespace ds::cli {
namespace {

constexpr std::uint32_t elem_deleted =
    static_cast<std::uint32_t>(ds_log::id::DS_DELETED_SERVICE_ELEM_2);
constexpr std::uint32_t ring_bytes = 0x1000;
constexpr std::size_t at_head = 448;
constexpr std::size_t at_data = 4096;
constexpr std::size_t at_stamp = 16; // of a record

class TraceRingsTest : public testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/trace_rings_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        directory = pattern;
        rtrace_set_directory(pattern);
        start_daemon();
    }
    void TearDown() override {
        stop_daemon();
        rtrace_set_directory(nullptr);
        std::filesystem::remove_all(directory);
    }

    static rtrace_handle_t open_channel(const char *name, const char *format_id) {
        rtrace_handle_t channel = nullptr;
        rtrace_open_internal(&channel, name, ring_bytes, ds_log::point_count, "source", format_id,
                             0);
        return channel;
    }
    void start_daemon() {
        pub = open_channel("pub", ds_log::format_id.data());
        reg = open_channel("reg", ds_log::format_id.data());
    }
    void stop_daemon() {
        rtrace_close(pub);
        rtrace_close(reg);
        pub = reg = nullptr;
    }
    static void write(rtrace_handle_t channel, const std::string &name) {
        rtrace_internal(channel, elem_deleted, 4, 1, "s", "", name.c_str());
    }
    std::string path(const std::string &file) const { return directory + '/' + file; }

    // Everything that the stream says, a word each.
    TraceRings make_rings(const std::string &suffix = ".ring") {
        TraceRings::Sink sink;
        sink.line = [this](const TraceLine &line) {
            said += std::get<std::string>(line.record.arguments.at(0)) + ' ';
        };
        sink.lost = [this](const std::string &channel, std::uint64_t count) {
            said += "lost:" + channel + ' ';
            lost += count;
        };
        sink.restarted = [this](std::uint32_t, std::uint32_t) { said += "restarted "; };
        sink.refused = [this](const std::string &sentence) {
            said += "refused ";
            reasons += sentence + '\n';
        };
        return TraceRings(directory, suffix, sink);
    }
    std::string take_said() { return std::exchange(said, {}); }

    std::string directory;
    rtrace_handle_t pub = nullptr;
    rtrace_handle_t reg = nullptr;
    std::string said;
    std::string reasons;
    std::uint64_t lost = 0;
};

TEST_F(TraceRingsTest, channels_are_merged_in_the_order_of_writing) {
    std::string expected;
    for (int i = 0; i < 40; i++) {
        write(i % 3 == 0 ? reg : pub, std::to_string(i));
        expected += std::to_string(i) + ' ';
    }
    TraceRings rings = make_rings();

    ASSERT_EQ(rings.open(), exit_ok);
    rings.read_all();

    EXPECT_EQ(said, expected);
}

TEST_F(TraceRingsTest, following_gives_every_record_once_and_in_order) {
    TraceRings rings = make_rings();
    ASSERT_EQ(rings.open(), exit_ok);
    write(pub, "a");
    rings.read_all();
    EXPECT_EQ(take_said(), "a ");

    write(pub, "b");
    write(reg, "c");
    write(pub, "d");
    rings.read_new();
    rings.read_new();

    EXPECT_EQ(take_said(), "b c d ");
}

TEST_F(TraceRingsTest, a_record_that_is_newer_than_the_reading_waits_for_the_next_one) {
    TraceRings rings = make_rings();
    ASSERT_EQ(rings.open(), exit_ok);
    write(pub, "from_the_future");
    const std::uint64_t far = UINT64_MAX / 4;
    std::fstream file(path("pub.ring"), std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(at_data + at_stamp);
    file.write(reinterpret_cast<const char *>(&far), sizeof far);
    file.close();
    write(reg, "now");

    rings.read_new();
    EXPECT_EQ(take_said(), "now ");
    rings.read_new();
    EXPECT_EQ(take_said(), "from_the_future ");
}

TEST_F(TraceRingsTest, what_is_overwritten_between_two_readings_is_counted) {
    TraceRings rings = make_rings();
    ASSERT_EQ(rings.open(), exit_ok);
    rings.read_all();
    constexpr std::uint64_t written = 500;
    for (std::uint64_t i = 0; i < written; i++)
        write(pub, "x");

    rings.read_new();
    rings.flush();

    const std::string all = take_said();
    EXPECT_TRUE(all.starts_with("lost:pub x x ")) << all;
    const auto shown = static_cast<std::uint64_t>(std::count(all.begin(), all.end(), 'x'));
    EXPECT_GT(shown, 10u);
    EXPECT_EQ(shown + lost, written);
}

TEST_F(TraceRingsTest, what_was_overwritten_before_the_first_reading_is_not_lost) {
    for (int i = 0; i < 500; i++)
        write(pub, "x");
    TraceRings rings = make_rings();

    ASSERT_EQ(rings.open(), exit_ok);
    rings.read_all();

    EXPECT_EQ(lost, 0u);
    EXPECT_TRUE(said.starts_with("x x ")) << said;
}

TEST_F(TraceRingsTest, a_new_run_is_announced_once_between_the_records_of_both) {
    TraceRings rings = make_rings();
    ASSERT_EQ(rings.open(), exit_ok);
    rings.read_all();
    write(reg, "old1");
    write(pub, "old2");
    stop_daemon();
    start_daemon();
    write(pub, "new1");
    write(reg, "new2");

    rings.read_new();
    rings.read_new();
    rings.read_new();

    EXPECT_EQ(take_said(), "old1 old2 restarted new1 new2 ");
}

TEST_F(TraceRingsTest, the_end_of_a_run_is_read_after_its_files_were_put_aside) {
    TraceRings rings = make_rings();
    ASSERT_EQ(rings.open(), exit_ok);
    rings.read_all();
    for (int run = 0; run < 3; run++) {
        write(pub, "end");
        stop_daemon();
        start_daemon();
        rings.read_new();
    }

    EXPECT_EQ(take_said(), "end restarted end restarted end restarted ");
}

TEST_F(TraceRingsTest, a_channel_that_appears_later_is_followed_too) {
    TraceRings rings = make_rings();
    ASSERT_EQ(rings.open(), exit_ok);
    rings.read_all();
    rtrace_handle_t late = open_channel("late", ds_log::format_id.data());
    write(late, "a");

    rings.read_new();
    rings.read_new();

    rtrace_close(late);
    EXPECT_EQ(take_said(), "a ");
}

TEST_F(TraceRingsTest, a_directory_that_goes_and_comes_back_is_waited_for) {
    TraceRings rings = make_rings();
    ASSERT_EQ(rings.open(), exit_ok);
    rings.read_all();
    stop_daemon();
    std::filesystem::remove_all(directory);
    rings.read_new();
    EXPECT_EQ(take_said(), "");

    std::filesystem::create_directory(directory);
    start_daemon();
    write(pub, "back");
    rings.read_new();
    rings.read_new();

    EXPECT_EQ(take_said(), "restarted back ");
}

TEST_F(TraceRingsTest, the_run_before_is_read_from_the_files_put_aside) {
    write(pub, "before");
    stop_daemon();
    start_daemon();
    write(pub, "after");
    TraceRings rings = make_rings(".ring.old");

    ASSERT_EQ(rings.open(), exit_ok);
    rings.read_all();

    EXPECT_EQ(said, "before ");
}

TEST_F(TraceRingsTest, files_that_cannot_be_read_are_named_and_the_others_are_read) {
    rtrace_close(open_channel("alien", "00112233445566778899aabbccddeeff"));
    std::ofstream(path("foreign.ring")) << std::string(9000, 'x');
    std::filesystem::copy(path("reg.ring"), path("short.ring"));
    std::filesystem::resize_file(path("short.ring"), 5000);
    std::ofstream(path("no_ring.txt")) << "x";
    write(pub, "good");
    TraceRings rings = make_rings();

    ASSERT_EQ(rings.open(), exit_ok);
    rings.read_all();

    EXPECT_EQ(said, "refused refused refused good ");
    for (const char *part : {"alien.ring has the log points of table 00112233",
                             "foreign.ring is not a trace ring file", "short.ring is damaged"})
        EXPECT_NE(reasons.find(part), reasons.npos) << reasons;
}

TEST_F(TraceRingsTest, a_file_that_is_cut_short_is_named_once_and_the_others_go_on) {
    TraceRings rings = make_rings();
    write(pub, "a");
    // A copy: a daemon whose own file is cut short would not live on.
    std::filesystem::copy(path("reg.ring"), path("gone.ring"));
    ASSERT_EQ(rings.open(), exit_ok);
    rings.read_all();
    EXPECT_EQ(take_said(), "a ");

    std::filesystem::resize_file(path("gone.ring"), 0);
    for (int i = 0; i < 3; i++) {
        write(pub, "b");
        rings.read_new();
    }
    rings.flush();

    EXPECT_EQ(take_said(), "refused b b b ");
    EXPECT_NE(reasons.find("gone.ring was cut short"), reasons.npos) << reasons;
}

TEST_F(TraceRingsTest, a_record_that_was_only_begun_is_left_out) {
    write(pub, "whole");
    stop_daemon();
    std::fstream file(path("pub.ring"), std::ios::binary | std::ios::in | std::ios::out);
    std::uint64_t head = 0;
    file.seekg(at_head);
    file.read(reinterpret_cast<char *>(&head), sizeof head);
    file.seekp(static_cast<std::streamoff>(at_data + head));
    file << std::string(30, '\x30');
    file.close();
    TraceRings rings = make_rings();

    ASSERT_EQ(rings.open(), exit_ok);
    rings.read_all();

    EXPECT_EQ(said, "whole ");
}

TEST_F(TraceRingsTest, a_directory_without_files_is_not_found) {
    TraceRings rings = make_rings(".ring.old");
    testing::internal::CaptureStderr();
    EXPECT_EQ(rings.open(), exit_not_found);
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
}

} // namespace
} // namespace ds::cli
