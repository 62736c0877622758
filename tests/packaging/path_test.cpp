// Where the daemon puts its files, and who may read them.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "client.h"
#include "notify_socket.h"

namespace {

using namespace operation_test;
namespace fs = std::filesystem;

class Path : public testing::Test {
  protected:
    Launch in_the_folder(std::vector<std::string> arguments) const {
        Launch launch = dsd(std::move(arguments));
        launch.arguments.insert(launch.arguments.begin(), {"/usr/bin/env", "-C", dir.path()});
        return launch;
    }
    const TemporaryDirectory dir;
};

mode_t mode_of(const std::string &path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

TEST_F(Path, a_client_elsewhere_is_told_absolute_paths) {
    Started daemon(in_the_folder({"--runtime-dir", "run", "--trace-dir", "./logs/trace"}));
    Client client(dir.path() + "/run/ds.sock");
    client.publish("web", "", 80);

    const v1::StatusReply status = client.status();
    const Finished trace = run_dsctl(dir.path() + "/run/ds.sock", {"trace", "--all"});

    EXPECT_EQ(daemon.first_line(), "dsd: ready on " + dir.path() + "/run/ds.sock");
    EXPECT_EQ(status.socket(), dir.path() + "/run/ds.sock");
    EXPECT_EQ(status.trace_directory(), dir.path() + "/logs/trace");
    EXPECT_EQ(trace.exit, (Exit{0, 0})) << trace.err;
    EXPECT_NE(trace.out.find("web"), trace.out.npos) << trace.out;
    EXPECT_EQ(daemon.stop(), (Exit{0, 0}));
}

TEST_F(Path, relative_paths_in_the_file_are_made_absolute_too_and_survive_a_reload) {
    std::ofstream(dir.path() + "/ds.toml")
        << "[daemon]\nruntime_dir = \"run\"\nsocket = \"other.sock\"\ntrace_dir = \"logs\"\n";
    Started daemon(in_the_folder({"--config", "ds.toml"}));
    Client client(dir.path() + "/other.sock");

    daemon.signal(SIGHUP);

    EXPECT_EQ(daemon.next_line(), "dsd: reloaded ds.toml");
    EXPECT_EQ(client.status().trace_directory(), dir.path() + "/logs");
    EXPECT_EQ(daemon.stop(), (Exit{0, 0}));
    EXPECT_EQ(daemon.stderr_text(), "");
}

TEST_F(Path, a_service_managers_directories_are_the_defaults) {
    fs::create_directory(dir.path() + "/etc");
    std::ofstream(dir.path() + "/etc/ds.toml") << "[limits]\nsessions = 7\n";
    Launch launch = dsd({});
    launch.environment = {"RUNTIME_DIRECTORY=" + dir.path() + "/run:" + dir.path() + "/second",
                          "LOGS_DIRECTORY=" + dir.path() + "/logs",
                          "CONFIGURATION_DIRECTORY=" + dir.path() + "/etc"};
    Launch print = launch;
    print.arguments.emplace_back("--print-config");

    Started daemon(launch);
    const v1::StatusReply status = Client(dir.path() + "/run/ds.sock").status();
    const Finished printed = run(print);

    EXPECT_EQ(status.trace_directory(), dir.path() + "/logs");
    EXPECT_NE(printed.out.find("\nsessions = 7\n"), printed.out.npos) << printed.out;
    EXPECT_EQ(daemon.stop(), (Exit{0, 0}));
}

TEST_F(Path, traces_are_for_the_daemons_user_and_group_and_the_socket_for_everybody) {
    Started daemon(dsd({"--runtime-dir", dir.path() + "/run"}));

    EXPECT_EQ(mode_of(dir.path() + "/run"), 0755u);
    EXPECT_EQ(mode_of(dir.path() + "/run/ds.sock"), 0666u);
    EXPECT_EQ(mode_of(dir.path() + "/run/trace"), 0755u);
    std::size_t rings = 0;
    for (const auto &entry : fs::directory_iterator(dir.path() + "/run/trace"))
        rings += mode_of(entry.path()) == 0640u ? 1 : 0;
    EXPECT_GT(rings, 0u);
    EXPECT_EQ(daemon.stop(), (Exit{0, 0}));
}

} // namespace
