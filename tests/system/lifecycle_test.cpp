// How the daemon starts, refuses to start, and stops.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <list>

#include "client.h"
#include "harness.h"

namespace {

using namespace system_test;
using Lifecycle = testing::Test;

// The daemon sends what is queued for a second; the rest is room for a busy machine.
constexpr std::chrono::seconds drain_max{10};

Finished run_dsd(std::vector<std::string> arguments) {
    Launch dsd;
    dsd.arguments = std::move(arguments);
    dsd.arguments.insert(dsd.arguments.begin(), dsd_program());
    return run(dsd);
}

void expect_refusal(const Finished &dsd, const std::string &mentioned) {
    EXPECT_EQ(dsd.exit, (Exit{1, 0}));
    EXPECT_EQ(dsd.out, "");
    EXPECT_TRUE(dsd.err.starts_with("dsd: ")) << dsd.err;
    EXPECT_TRUE(dsd.err.ends_with("\n")) << dsd.err;
    EXPECT_NE(dsd.err.find(mentioned), dsd.err.npos) << dsd.err;
}

// ---- stop ----

TEST_F(Lifecycle, a_stop_with_a_hundred_clients_and_one_that_does_not_read_ends_in_time) {
    constexpr int clients_count = 100;
    Daemon daemon;
    std::list<Client> clients;
    for (int i = 0; i < clients_count; i++) {
        clients.emplace_back(daemon).publish("web", std::to_string(i), 80);
        clients.back().watch("other");
    }
    RawSocket deaf(daemon.socket());
    std::string requests = hello_frame() + frame_of(register_request("web"), 2);
    for (std::uint32_t seq = 3; seq < 500; seq++)
        requests += frame_of(list_request(""), seq);
    deaf.send(requests);
    while (clients.front().status().queued_bytes() == 0)
        continue;
    const auto start = std::chrono::steady_clock::now();

    daemon.signal(SIGTERM);
    daemon.await_exit();

    EXPECT_LT(std::chrono::steady_clock::now() - start, drain_max);
    for (Client &client : clients)
        EXPECT_TRUE(client.is_ended());
    EXPECT_FALSE(std::filesystem::exists(daemon.socket()));
}

TEST_F(Lifecycle, a_stop_with_clients_that_read_does_not_wait) {
    Daemon daemon;
    Client client(daemon);
    client.publish("web", "", 80);
    client.watch("web");
    client.snapshot();

    daemon.stop();

    EXPECT_TRUE(client.is_ended());
}

TEST_F(Lifecycle, answers_that_were_due_are_sent_before_the_daemon_ends) {
    constexpr std::uint32_t last = 200;
    Daemon daemon;
    RawSocket client(daemon.socket());
    Client witness(daemon);
    witness.ok(path_request("web", "", long_path(4000)));
    std::string requests = hello_frame();
    for (std::uint32_t seq = 2; seq <= last; seq++)
        requests += frame_of(list_request(""), seq);
    client.send(requests);
    while (witness.status().queued_bytes() == 0)
        continue;

    daemon.signal(SIGTERM);
    const std::vector<v1::Event> events = client.receive_to_end(); // whole frames only
    daemon.await_exit();

    ASSERT_GT(events.size(), 1u);
    for (std::uint32_t i = 0; i < events.size(); i++)
        EXPECT_EQ(events[i].reply().seq(), i + 1);
}

TEST_F(Lifecycle, interrupting_stops_the_daemon_and_hanging_up_does_not) {
    Daemon daemon;
    Client client(daemon);

    daemon.signal(SIGHUP);
    client.publish("web", "", 80);
    EXPECT_EQ(client.status().services(), 1u);
    daemon.signal(SIGINT);

    daemon.await_exit();
}

// ---- start ----

TEST_F(Lifecycle, a_second_daemon_in_the_same_directory_names_the_first_and_ends_with_1) {
    Daemon daemon;
    Client client(daemon);

    const Finished second = run_dsd({"--runtime-dir", daemon.runtime_dir()});

    expect_refusal(second, "pid " + std::to_string(daemon.pid()));
    client.publish("web", "", 80);
    Client later(daemon);
    later.watch("web");
    EXPECT_EQ(digest(later.snapshot()), ":80");
}

TEST_F(Lifecycle, a_second_daemon_on_the_same_socket_ends_with_1) {
    Daemon daemon;
    const TemporaryDirectory other;

    const Finished second = run_dsd({"--runtime-dir", other.path(), "--socket", daemon.socket()});

    expect_refusal(second, daemon.socket());
    Client(daemon).publish("web", "", 80);
}

TEST_F(Lifecycle, the_socket_of_a_killed_daemon_is_replaced) {
    const TemporaryDirectory dir;
    {
        Daemon first({dir.path(), {}, 0});
        Client(first).publish("web", "", 80);
        first.kill();
    }
    ASSERT_TRUE(std::filesystem::is_socket(dir.path() + "/ds.sock"));

    Daemon second({dir.path(), {}, 0});

    EXPECT_EQ(Client(second).status().services(), 0u);
}

TEST_F(Lifecycle, a_daemon_starts_again_where_one_was_stopped) {
    const TemporaryDirectory dir;
    for (int i = 0; i < 3; i++) {
        Daemon daemon({dir.path(), {}, 0});
        Client(daemon).publish("web", "", 80);
    }
}

TEST_F(Lifecycle, a_file_in_the_socket_s_place_is_left_alone) {
    const TemporaryDirectory dir;
    const std::string path = dir.path() + "/ds.sock";
    std::ofstream(path) << "precious";

    const Finished dsd = run_dsd({"--runtime-dir", dir.path()});

    expect_refusal(dsd, path);
    EXPECT_EQ(std::filesystem::file_size(path), 8u);
}

TEST_F(Lifecycle, a_runtime_directory_that_cannot_be_written_is_refused) {
    const TemporaryDirectory dir;
    ASSERT_EQ(chmod(dir.path().c_str(), 0555), 0);
    // Modes do not bind root, but nobody makes a directory there.
    const std::string unwritable = getuid() == 0 ? "/proc/ds" : dir.path();

    const Finished dsd = run_dsd({"--runtime-dir", unwritable});

    expect_refusal(dsd, unwritable);
}

TEST_F(Lifecycle, a_runtime_directory_below_a_file_is_refused) {
    const TemporaryDirectory dir;
    const std::string file = dir.path() + "/file";
    std::ofstream(file) << "precious";

    expect_refusal(run_dsd({"--runtime-dir", file + "/ds"}), file + "/ds");
}

TEST_F(Lifecycle, a_socket_path_that_is_too_long_is_refused) {
    const TemporaryDirectory dir;

    expect_refusal(run_dsd({"--runtime-dir", dir.path(), "--socket", long_path(108)}), "107");
}

TEST_F(Lifecycle, a_bad_command_line_ends_with_2) {
    const std::vector<std::vector<std::string>> bad = {
        {"--no-such-option"}, {"surplus"}, {"--runtime-dir"}, {"--node-address", "no-address"}};
    for (const std::vector<std::string> &arguments : bad) {
        const Finished dsd = run_dsd(arguments);
        EXPECT_EQ(dsd.exit, (Exit{2, 0})) << arguments.front();
        EXPECT_EQ(dsd.out, "") << arguments.front();
        EXPECT_NE(dsd.err, "") << arguments.front();
    }
}

TEST_F(Lifecycle, help_and_version_end_with_0) {
    for (const char *option : {"--help", "--version"}) {
        const Finished dsd = run_dsd({option});
        EXPECT_EQ(dsd.exit, (Exit{0, 0})) << option;
        EXPECT_NE(dsd.out.find("dsd"), dsd.out.npos) << option;
        EXPECT_EQ(dsd.err, "") << option;
    }
}

} // namespace
