// Ring files: what is in them, how they come to be, and when they do not.
#include "platform/fts.h"
#include "ring_test_support.h"
#include <csignal>
#include <ctime>
#include <fstream>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using ds::ring::Argument;
using ring_test::checked_index;
using ring_test::write_checked;
using RingFile = ring_test::RingTest;

TEST_F(RingFile, the_header_says_who_writes_what_since_when) {
    ASSERT_EQ(open("pub", 0x10000), 0);

    const auto ring = reader("pub");

    ASSERT_NE(ring, nullptr) << error;
    EXPECT_EQ(ring->header().channel, "pub");
    EXPECT_EQ(ring->header().format_id, ring_test::format_id);
    EXPECT_EQ(ring->header().source_path, "./some/source");
    EXPECT_EQ(ring->header().point_count, 87u);
    EXPECT_EQ(ring->header().pid, static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(ring->header().buffer_bytes, 0x10000u);
    EXPECT_EQ(ring->header().records_written, 0u);
    struct stat status = {};
    ASSERT_EQ(stat(path("pub").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST_F(RingFile, the_file_appears_under_its_name_only) {
    ASSERT_EQ(open("pub", 0x1000), 0);

    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(directory))
        names.push_back(entry.path().filename());

    EXPECT_EQ(names, std::vector<std::string>{"pub.ring"});
}

TEST_F(RingFile, a_record_comes_back_with_stamp_thread_point_and_arguments) {
    ASSERT_EQ(open("pub", 0x1000), 0);
    const std::uint64_t before = fts_get_stamp_fast();
    rtrace_internal(channel, 42, 9, 1, "sdDs", "%s %d %ld %s", "text", -7, 0x1122334455667788L, "");
    const std::uint64_t after = fts_get_stamp_fast();

    std::uint64_t position = 0;
    std::uint64_t lost = 0;
    const auto records = reader("pub")->read(position, lost);

    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].point, 42u);
    EXPECT_GE(records[0].stamp_ns, before);
    EXPECT_LE(records[0].stamp_ns, after);
    EXPECT_EQ(records[0].thread, static_cast<std::uint64_t>(pthread_self()));
    EXPECT_FALSE(records[0].truncated);
    const std::vector<Argument> expected = {std::string("text"), std::int32_t{-7},
                                            std::int64_t{0x1122334455667788}, std::string()};
    EXPECT_EQ(records[0].arguments, expected);
    EXPECT_EQ(lost, 0u);
}

TEST_F(RingFile, stamps_convert_to_wall_clock_time) {
    ASSERT_EQ(open("pub", 0x1000), 0);
    const auto ring = reader("pub");
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);

    const std::uint64_t wall = ring->wall_of(fts_get_stamp_fast());

    const std::uint64_t expected = static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000u +
                                   static_cast<std::uint64_t>(now.tv_nsec);
    EXPECT_NEAR(static_cast<double>(wall), static_cast<double>(expected), 1e9);
    EXPECT_EQ(ring->wall_of(ring->header().stamp_ns - 5), ring->header().wall_ns - 5);
}

TEST_F(RingFile, reading_goes_on_where_it_stopped) {
    ASSERT_EQ(open("pub", 0x10000), 0);
    const auto ring = reader("pub");
    std::uint64_t position = 0;
    std::uint64_t lost = 0;

    EXPECT_TRUE(ring->read(position, lost).empty());
    write_checked(channel, 0);
    write_checked(channel, 1);
    EXPECT_EQ(ring->read(position, lost).size(), 2u);
    EXPECT_TRUE(ring->read(position, lost).empty());
    write_checked(channel, 2);
    const auto last = ring->read(position, lost);

    ASSERT_EQ(last.size(), 1u);
    EXPECT_EQ(checked_index(last[0]), 2);
    EXPECT_EQ(position, 3u);
    EXPECT_EQ(lost, 0u);
}

TEST_F(RingFile, a_full_ring_keeps_the_newest_records_and_counts_the_rest_as_lost) {
    ASSERT_EQ(open("pub", 0x1000), 0);
    for (std::uint32_t i = 0; i < 10'000; i++) {
        write_checked(channel, i);
        if (i % 1000 != 999) continue;
        std::uint64_t position = 0;
        std::uint64_t lost = 0;

        const auto records = reader("pub")->read(position, lost);

        ASSERT_GT(records.size(), 10u);
        ASSERT_EQ(lost + records.size(), i + 1);
        ASSERT_EQ(position, i + 1);
        for (std::size_t r = 0; r < records.size(); r++)
            ASSERT_EQ(checked_index(records[r]), static_cast<std::int64_t>(lost + r));
    }
}

TEST_F(RingFile, records_of_every_length_survive_the_wrap) {
    ASSERT_EQ(open("pub", 0x1000), 0);
    const auto ring = reader("pub");
    std::uint64_t position = 0;
    std::uint64_t lost = 0;
    for (std::size_t length = 0; length < 1024; length++) {
        const std::string text(length, 'w');

        rtrace_internal(channel, 1, 5, 1, "sd", "%s %d", text.c_str(), static_cast<int>(length));
        const auto records = ring->read(position, lost);

        ASSERT_EQ(records.size(), 1u);
        ASSERT_EQ(std::get<std::string>(records[0].arguments[0]), text);
        ASSERT_EQ(std::get<std::int32_t>(records[0].arguments[1]), static_cast<int>(length));
        ASSERT_FALSE(records[0].truncated);
    }
    EXPECT_EQ(lost, 0u);
}

TEST_F(RingFile, long_strings_are_shortened_and_the_record_says_so) {
    ASSERT_EQ(open("pub", 0x10000), 0);
    const std::string text(2000, 'l');
    rtrace_internal(channel, 1, 5, 1, "sd", "%s %d", text.c_str(), 8);

    std::uint64_t position = 0;
    std::uint64_t lost = 0;
    const auto records = reader("pub")->read(position, lost);

    ASSERT_EQ(records.size(), 1u);
    EXPECT_TRUE(records[0].truncated);
    EXPECT_EQ(std::get<std::string>(records[0].arguments[0]), text.substr(0, 1023));
    EXPECT_EQ(std::get<std::int32_t>(records[0].arguments[1]), 8);
}

TEST_F(RingFile, a_null_string_and_unknown_or_too_many_letters_do_no_harm) {
    ASSERT_EQ(open("pub", 0x10000), 0);
    rtrace_internal(channel, 1, 4, 1, "s", "%s", static_cast<const char *>(nullptr));
    rtrace_internal(channel, 2, 4, 0, "dxd", "%d %d", 1, 2);
    rtrace_internal(channel, 3, 4, 0, "ddddddddddddddddd", "", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11,
                    12, 13, 14, 15, 16, 17);
    rtrace_internal(channel, 4, 4, 0, nullptr, nullptr);

    std::uint64_t position = 0;
    std::uint64_t lost = 0;
    const auto records = reader("pub")->read(position, lost);

    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(std::get<std::string>(records[0].arguments[0]), "(null)");
    EXPECT_EQ(records[1].arguments.size(), 1u);
    EXPECT_TRUE(records[1].truncated);
    EXPECT_EQ(records[2].arguments.size(), 16u);
    EXPECT_TRUE(records[2].truncated);
    EXPECT_TRUE(records[3].arguments.empty());
}

TEST_F(RingFile, a_record_larger_than_the_ring_is_dropped_and_counted) {
    ASSERT_EQ(open("pub", 0x1000), 0);
    write_checked(channel, 0);
    const std::string text(1023, 'x');

    rtrace_internal(channel, 1, 4, 1, "ssss", "%s%s%s%s", text.c_str(), text.c_str(), text.c_str(),
                    text.c_str());

    const auto ring = reader("pub");
    std::uint64_t position = 0;
    std::uint64_t lost = 0;
    const auto records = ring->read(position, lost);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(checked_index(records[0]), 0);
    EXPECT_EQ(ring->header().records_written, 1u);
    EXPECT_EQ(ring->header().records_dropped, 1u);
}

TEST_F(RingFile, a_record_as_large_as_the_ring_takes_all_of_it_from_anywhere) {
    ASSERT_EQ(open("pub", 0x1000), 0);
    for (std::uint32_t i = 0; i < 20; i++)
        write_checked(channel, i);
    const std::string text(1010, 'x');
    const std::string rest(4096 - 40 - 3 * 1016 - 8, 'y'); // 8: the length in front, rounded up

    rtrace_internal(channel, 7, 4, 1, "ssss", "%s%s%s%s", text.c_str(), text.c_str(), text.c_str(),
                    rest.c_str());

    std::uint64_t position = 0;
    std::uint64_t lost = 0;
    const auto records = reader("pub")->read(position, lost);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(std::get<std::string>(records[0].arguments[3]), rest);
    EXPECT_EQ(lost, 20u);
}

TEST_F(RingFile, an_earlier_file_is_kept_as_old) {
    ASSERT_EQ(open("pub", 0x1000), 0);
    write_checked(channel, 11);
    rtrace_close(channel);

    ASSERT_EQ(open("pub", 0x1000), 0);

    std::uint64_t position = 0;
    std::uint64_t lost = 0;
    EXPECT_TRUE(reader("pub")->read(position, lost).empty());
    const auto old = ds::ring::Reader::open(path("pub") + ".old", error);
    ASSERT_NE(old, nullptr) << error;
    const auto records = old->read(position, lost);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(checked_index(records[0]), 11);
}

TEST_F(RingFile, the_ring_of_a_closed_channel_stays_readable) {
    ASSERT_EQ(open("pub", 0x1000), 0);
    write_checked(channel, 3);
    rtrace_close(channel);
    channel = nullptr;

    std::uint64_t position = 0;
    std::uint64_t lost = 0;
    const auto records = reader("pub")->read(position, lost);

    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(checked_index(records[0]), 3);
}

TEST_F(RingFile, without_a_directory_no_file_is_made) {
    rtrace_set_directory(nullptr);

    ASSERT_EQ(open("pub", 0x1000), 0);
    for (std::uint32_t i = 0; i < 1000; i++)
        write_checked(channel, i);

    EXPECT_TRUE(std::filesystem::is_empty(directory));
}

TEST_F(RingFile, a_null_handle_is_ignored) {
    rtrace_internal(nullptr, 1, 4, 1, "s", "%s", "nobody");
    rtrace_close(nullptr);

    EXPECT_TRUE(std::filesystem::is_empty(directory));
}

TEST_F(RingFile, a_missing_directory_fails_the_open_with_a_null_handle) {
    rtrace_set_directory((directory + "/missing").c_str());
    channel = &directory;

    const int result = open("pub", 0x1000);

    EXPECT_NE(result, 0);
    EXPECT_EQ(channel, nullptr);
}

TEST_F(RingFile, a_disk_without_room_fails_the_open_and_leaves_no_file) {
    rlimit before = {};
    getrlimit(RLIMIT_FSIZE, &before);
    const auto earlier_handler = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit small = {8192, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);

    const int result = open("pub", 0x100000);

    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, earlier_handler);
    EXPECT_NE(result, 0);
    EXPECT_EQ(channel, nullptr);
    EXPECT_TRUE(std::filesystem::is_empty(directory));
}

TEST_F(RingFile, an_earlier_file_that_cannot_be_kept_fails_the_open_and_stays) {
    std::ofstream(path("pub")) << "precious";
    std::filesystem::create_directories(path("pub") + ".old/full");

    const int result = open("pub", 0x1000);

    EXPECT_NE(result, 0);
    EXPECT_EQ(std::filesystem::file_size(path("pub")), 8u);
    EXPECT_FALSE(std::filesystem::exists(path("pub") + ".new"));
}

TEST_F(RingFile, a_link_planted_under_the_working_name_is_not_followed) {
    const std::string victim = directory + "/victim";
    std::ofstream(victim) << "untouched";
    std::filesystem::create_symlink(victim, path("pub") + ".new");

    ASSERT_EQ(open("pub", 0x1000), 0);

    EXPECT_EQ(std::filesystem::file_size(victim), 9u);
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(path("pub"))));
}

TEST_F(RingFile, names_and_sizes_that_make_no_ring_are_refused) {
    const std::string long_name(64, 'n');
    const std::string long_path(5000, 'p');

    EXPECT_NE(open("", 0x1000), 0);
    EXPECT_NE(open("../pub", 0x1000), 0);
    EXPECT_NE(open("..", 0x1000), 0);
    EXPECT_NE(open(nullptr, 0x1000), 0);
    EXPECT_NE(open(long_name.c_str(), 0x1000), 0);
    EXPECT_NE(open("pub", 0), 0);
    EXPECT_NE(open("pub", 0xffffffff), 0);
    EXPECT_NE(rtrace_open_internal(nullptr, "pub", 0x1000, 87, "", "", 0), 0);
    EXPECT_EQ(rtrace_set_directory(long_path.c_str()), -1);
    EXPECT_TRUE(std::filesystem::is_empty(directory));
}

} // namespace
