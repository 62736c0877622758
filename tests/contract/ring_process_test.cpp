// Rings across processes: readers beside a writer at full speed, and writers that are killed.
#include "ring_test_support.h"
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using ring_test::checked_index;
using ring_test::write_checked;
using RingProcess = ring_test::RingTest;

constexpr unsigned patience_seconds = 120; // before a process that hangs is ended by its alarm

enum reader_verdict {
    all_intact,
    cannot_open,
    torn_record,
    wrong_order,
    wrong_count,
    read_nothing
};

// Reads until record `last` has come; every record must be intact and in its place.
reader_verdict follow(const std::string &path, std::int64_t last, int ready_fd) {
    std::string error;
    const auto ring = ds::ring::Reader::open(path, error);
    if (ring == nullptr || write(ready_fd, "r", 1) != 1) return cannot_open;
    std::uint64_t position = 0;
    std::uint64_t lost = 0;
    std::uint64_t count = 0;
    std::int64_t newest = -1;
    while (newest != last) {
        for (const auto &record : ring->read(position, lost)) {
            const std::int64_t index = checked_index(record);
            if (index < 0) return torn_record;
            if (index <= newest) return wrong_order;
            newest = index;
            count++;
        }
    }
    if (count + lost != static_cast<std::uint64_t>(last) + 1 || position != count + lost)
        return wrong_count;
    return count == 0 ? read_nothing : all_intact;
}

int exit_status_of(pid_t process) {
    int status = 0;
    if (waitpid(process, &status, 0) != process || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

TEST_F(RingProcess, two_processes_read_only_intact_records_while_a_million_are_written) {
    constexpr std::uint32_t records = 1'000'000;
    ASSERT_EQ(open("busy", 0x40000), 0);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t readers[2];
    for (pid_t &reader_process : readers) {
        reader_process = fork();
        if (reader_process == 0) {
            alarm(patience_seconds);
            _exit(follow(path("busy"), records - 1, ready[1]));
        }
        ASSERT_GT(reader_process, 0);
    }
    close(ready[1]);
    char byte = 0;
    for (std::size_t i = 0; i < std::size(readers); i++)
        ASSERT_EQ(read(ready[0], &byte, 1), 1);

    for (std::uint32_t i = 0; i < records; i++)
        write_checked(channel, i);

    for (const pid_t reader_process : readers)
        EXPECT_EQ(exit_status_of(reader_process), all_intact);
    close(ready[0]);
}

// Writes until it is killed.
[[noreturn]] void write_without_end(rtrace_handle_t channel) {
    alarm(patience_seconds);
    for (std::uint32_t i = 0;; i++)
        write_checked(channel, i & 0x7fffffff);
}

TEST_F(RingProcess, after_a_kill_at_any_moment_every_record_left_is_intact) {
    for (std::uint64_t round = 0; round < 20; round++) {
        ASSERT_EQ(open("killed", 0x10000), 0);
        const pid_t writer = fork();
        if (writer == 0) write_without_end(channel);
        ASSERT_GT(writer, 0);
        rtrace_close(channel);
        channel = nullptr;
        const auto live = reader("killed");
        ASSERT_NE(live, nullptr) << error;
        std::uint64_t position = 0;
        std::uint64_t lost = 0;
        while (position < 500 + 777 * round)
            live->read(position, lost);

        kill(writer, SIGKILL);
        int status = 0;
        waitpid(writer, &status, 0);

        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
        const auto dead = reader("killed");
        ASSERT_NE(dead, nullptr) << error;
        position = 0;
        lost = 0;
        const auto records = dead->read(position, lost);
        ASSERT_GT(records.size(), 100u);
        for (std::size_t i = 0; i < records.size(); i++)
            ASSERT_EQ(checked_index(records[i]), static_cast<std::int64_t>(lost + i));
        // The count of records is raised just before the last one becomes visible.
        ASSERT_LE(position, dead->header().records_written);
        ASSERT_LE(dead->header().records_written, position + 1);
    }
}

} // namespace
