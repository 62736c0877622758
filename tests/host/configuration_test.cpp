#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <vector>

#include "host/config.h"
#include "host/node_address.h"
#include "host/runtime_directory.h"

namespace ds::host {
namespace {

std::optional<int> parse(std::initializer_list<const char *> arguments, Config &config) {
    std::vector<const char *> argv = {"dsd"};
    argv.insert(argv.end(), arguments);
    return parse_command_line(static_cast<int>(argv.size()), argv.data(), config);
}

TEST(Config, paths_follow_the_runtime_directory_unless_given) {
    Config config;
    Config given;

    ASSERT_EQ(parse({"--runtime-dir", "/r"}, config), std::nullopt);
    ASSERT_EQ(parse({"--runtime-dir", "/r", "--socket", "/s", "--trace-dir", "/t", "--console",
                     "--node-address", "02:AA:bb:cc:dd:ee"},
                    given),
              std::nullopt);

    EXPECT_EQ(config.socket, "/r/ds.sock");
    EXPECT_EQ(config.trace_dir, "/r/trace");
    EXPECT_FALSE(config.console);
    EXPECT_NE(config.node, NodeAddress{});
    EXPECT_EQ(given.socket, "/s");
    EXPECT_EQ(given.trace_dir, "/t");
    EXPECT_TRUE(given.console);
    EXPECT_EQ(given.node, (NodeAddress{0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee}));
}

TEST(Config, a_wrong_command_line_exits_with_the_usage_code) {
    Config config;

    EXPECT_EQ(parse({"--no-such-option"}, config), exit_usage);
    EXPECT_EQ(parse({"--node-address", "02:aa"}, config), exit_usage);
    EXPECT_EQ(parse({"extra"}, config), exit_usage);
    EXPECT_EQ(parse({"--version"}, config), exit_ok);
    EXPECT_EQ(parse({"--help"}, config), exit_ok);
}

TEST(NodeAddress, only_six_bytes_in_hexadecimal_are_taken) {
    EXPECT_EQ(parse_node_address("00:11:22:aB:Cd:ff"),
              (NodeAddress{0x00, 0x11, 0x22, 0xab, 0xcd, 0xff}));
    for (const char *text :
         {"", "00:11:22:33:44", "00:11:22:33:44:5", "00:11:22:33:44:55:66", "00-11-22-33-44-55",
          "0g:11:22:33:44:55", "00:00:00:00:00:00", "001122334455"})
        EXPECT_EQ(parse_node_address(text), std::nullopt) << text;
    EXPECT_EQ(node_address_text({0x02, 0, 0, 0, 0, 0xa1}), "02:00:00:00:00:a1");
}

class RuntimeDirectoryTest : public testing::Test {
  protected:
    RuntimeDirectoryTest() {
        std::string pattern = std::filesystem::temp_directory_path() / "dsd-test-XXXXXX";
        root = mkdtemp(pattern.data());
    }
    ~RuntimeDirectoryTest() override { std::filesystem::remove_all(root); }

    std::string message_of(const std::function<void()> &action) {
        try {
            action();
        } catch (const StartError &error) {
            return error.what();
        }
        return "";
    }
    std::string root;
};

TEST_F(RuntimeDirectoryTest, a_second_daemon_is_refused_with_the_pid_of_the_first) {
    const std::string path = root + "/deep/run";
    {
        const RuntimeDirectory first(path);

        EXPECT_EQ(message_of([&] { const RuntimeDirectory second(path); }),
                  "another daemon (pid " + std::to_string(getpid()) + ") runs in " + path);
    }
    EXPECT_EQ(message_of([&] { const RuntimeDirectory next(path); }), "");
}

TEST_F(RuntimeDirectoryTest, a_stale_socket_is_replaced_and_a_living_one_is_not) {
    const std::string path = root + "/ds.sock";
    UniqueFd first = listen_at(path);
    struct stat status = {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);

    EXPECT_EQ(status.st_mode & 0777u, 0666u);
    EXPECT_EQ(message_of([&] { listen_at(path); }), "another process listens on " + path);
    first.reset();
    EXPECT_EQ(message_of([&] { listen_at(path); }), "");
}

TEST_F(RuntimeDirectoryTest, what_is_no_socket_is_left_alone) {
    const std::string path = root + "/file";
    std::ofstream(path) << "precious";

    EXPECT_NE(message_of([&] { listen_at(path); }).find("is not a socket"), std::string::npos);
    EXPECT_EQ(std::filesystem::file_size(path), 8u);
}

TEST_F(RuntimeDirectoryTest, a_socket_path_that_does_not_fit_is_refused_with_the_limit) {
    const std::string text = message_of([&] { listen_at(root + std::string(200, 'x')); });

    EXPECT_NE(text.find("1 to 107 are allowed"), std::string::npos) << text;
}

} // namespace
} // namespace ds::host
