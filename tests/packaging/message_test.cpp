// What the daemon says on stderr, to the journal and elsewhere.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <fstream>
#include <sstream>

#include "client.h"
#include "host/message.h"
#include "notify_socket.h"

namespace {

using namespace operation_test;
using Message = testing::Test;

// Starts the program behind it with stderr described as the journal's.
constexpr char as_journal[] =
    "exec env JOURNAL_STREAM=$(stat -L -c %d:%i /proc/self/fd/2) \"$0\" \"$@\"";

Launch under_the_journal(std::vector<std::string> arguments) {
    Launch launch = dsd(std::move(arguments));
    launch.arguments.insert(launch.arguments.begin(), {"/bin/sh", "-c", as_journal});
    return launch;
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

TEST_F(Message, the_journal_is_told_how_severe_a_message_is) {
    const Finished refused = run(under_the_journal({"--runtime-dir", "/dev/null/ds"}));

    EXPECT_EQ(refused.exit, (Exit{1, 0}));
    EXPECT_EQ(refused.err, "<3>dsd: cannot make the directory /dev/null/ds: Not a directory\n");
}

TEST_F(Message, the_journal_is_told_of_every_error_of_a_configuration) {
    const TemporaryDirectory dir;
    const std::string file = dir.path() + "/ds.toml";
    std::ofstream(file) << "[limits]\nsessions = -1\nother = 1\n";

    const Finished refused = run(under_the_journal({"--config", file}));

    EXPECT_EQ(refused.exit, (Exit{2, 0}));
    const std::vector<std::string> lines = lines_of(refused.err);
    EXPECT_EQ(lines.size(), 2u) << refused.err;
    for (const std::string &line : lines)
        EXPECT_TRUE(line.starts_with("<3>" + file + ":")) << line;
}

TEST_F(Message, the_trace_on_the_console_is_for_debugging_in_the_journal) {
    const TemporaryDirectory dir;
    Started daemon(under_the_journal({"--console", "--runtime-dir", dir.path()}));

    Client(dir.path() + "/ds.sock").publish("web", "", 80);
    daemon.stop();

    const std::vector<std::string> lines = lines_of(daemon.stderr_text());
    EXPECT_GT(lines.size(), 1u);
    for (const std::string &line : lines)
        EXPECT_TRUE(line.starts_with("<7>")) << line;
}

TEST_F(Message, every_line_of_the_console_leaves_with_one_write) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    const Descriptor reader(ends[0]);
    Descriptor writer(ends[1]);
    const TemporaryDirectory dir;
    Launch launch = dsd({"--console", "--runtime-dir", dir.path()});
    launch.err = writer.get();
    Started daemon(launch);

    Client(dir.path() + "/ds.sock").publish("web", "", 80);
    daemon.stop();

    std::array<char, 4096> bytes;
    ssize_t got = recv(reader.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    EXPECT_GT(got, 0);
    for (; got > 0; got = recv(reader.get(), bytes.data(), bytes.size(), MSG_DONTWAIT)) {
        const std::string text(bytes.data(), static_cast<std::size_t>(got));
        EXPECT_EQ(text.find('\n'), text.size() - 1) << text;
        EXPECT_TRUE(isdigit(static_cast<unsigned char>(text.front()))) << text;
    }
}

TEST_F(Message, only_the_file_that_is_described_is_the_journal) {
    const Pipe one, other;
    struct stat status = {};
    ASSERT_EQ(fstat(one.writer.get(), &status), 0);
    const std::string stream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);

    EXPECT_TRUE(ds::host::is_journal(one.writer.get(), stream.c_str()));
    EXPECT_FALSE(ds::host::is_journal(other.writer.get(), stream.c_str()));
    EXPECT_FALSE(ds::host::is_journal(one.writer.get(), nullptr));
    EXPECT_FALSE(ds::host::is_journal(one.writer.get(), ""));
    EXPECT_FALSE(ds::host::is_journal(-1, stream.c_str()));
}

} // namespace
