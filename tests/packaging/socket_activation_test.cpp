// The daemon on a socket that a service manager made.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <csignal>
#include <filesystem>

#include "client.h"
#include "notify_socket.h"

namespace {

using namespace operation_test;

class Activation : public testing::Test {
  protected:
    Launch with(const std::vector<int> &passed, std::vector<std::string> more = {}) const {
        Launch launch = dsd({"--runtime-dir", dir.path() + "/run"});
        launch.arguments.insert(launch.arguments.end(), more.begin(), more.end());
        launch.passed = passed;
        return launch;
    }
    void expect_refusal(const std::vector<int> &passed, const std::string &text) const {
        const Finished refused = run(with(passed));
        EXPECT_EQ(refused.exit, (Exit{1, 0}));
        EXPECT_EQ(refused.out, "");
        EXPECT_EQ(refused.err, "dsd: " + text + "\n");
    }
    const TemporaryDirectory dir;
    const std::string path = dir.path() + "/passed.sock";
    const std::string wrong_kind =
        "what the service manager passed is not a UNIX stream socket that listens";
};

TEST_F(Activation, a_client_that_came_before_the_daemon_is_served) {
    const Descriptor listener = bound_socket(path, SOCK_STREAM, true);
    RawSocket early(path);
    early.send(hello_frame());

    Started daemon(with({listener.get()}));

    EXPECT_EQ(daemon.first_line(), "dsd: ready on " + path);
    const std::optional<v1::Event> event = early.receive();
    ASSERT_TRUE(event);
    EXPECT_EQ(event->reply().status(), v1::STATUS_OK);
    EXPECT_EQ(Client(path).status().socket(), path);
    EXPECT_FALSE(std::filesystem::exists(dir.path() + "/run/ds.sock"));
    EXPECT_EQ(daemon.stop(), (Exit{0, 0}));
}

TEST_F(Activation, the_socket_outlives_the_daemon_and_serves_the_next_one) {
    const Descriptor listener = bound_socket(path, SOCK_STREAM, true);
    EXPECT_EQ(Started(with({listener.get()})).stop(), (Exit{0, 0}));
    EXPECT_TRUE(std::filesystem::is_socket(path));
    RawSocket between(path);
    between.send(hello_frame());

    Started next(with({listener.get()}));

    const std::optional<v1::Event> event = between.receive();
    ASSERT_TRUE(event);
    EXPECT_EQ(event->reply().status(), v1::STATUS_OK);
    EXPECT_EQ(next.stop(), (Exit{0, 0}));
    EXPECT_TRUE(std::filesystem::is_socket(path));
}

TEST_F(Activation, another_path_than_the_configured_one_is_told_once) {
    const Descriptor listener = bound_socket(path, SOCK_STREAM, true);
    Started daemon(with({listener.get()}, {"--config", "/dev/null"}));

    daemon.signal(SIGHUP);

    EXPECT_EQ(daemon.next_line(), "dsd: reloaded /dev/null");
    EXPECT_EQ(daemon.stop(), (Exit{0, 0}));
    EXPECT_EQ(daemon.stderr_text(), "dsd: listening on " + path +
                                        " as the service manager wants it, not on " + dir.path() +
                                        "/run/ds.sock\n");
}

TEST_F(Activation, what_is_meant_for_another_process_is_left_alone) {
    const Descriptor listener = bound_socket(path, SOCK_STREAM, true);
    Launch launch = with({listener.get()});
    launch.arguments.insert(launch.arguments.begin(), {"/usr/bin/env", "LISTEN_PID=1"});

    Started daemon(launch);

    EXPECT_EQ(daemon.first_line(), "dsd: ready on " + dir.path() + "/run/ds.sock");
    EXPECT_EQ(daemon.stop(), (Exit{0, 0}));
}

// ---- what is refused ----

TEST_F(Activation, a_file_is_refused) {
    const Descriptor file(open("/dev/null", O_RDWR | O_CLOEXEC));

    expect_refusal({file.get()}, wrong_kind);
}

TEST_F(Activation, a_socket_that_does_not_listen_is_refused) {
    const Descriptor socket = bound_socket(path, SOCK_STREAM, false);

    expect_refusal({socket.get()}, wrong_kind);
}

TEST_F(Activation, a_datagram_socket_is_refused) {
    const Descriptor socket = bound_socket(path, SOCK_DGRAM, false);

    expect_refusal({socket.get()}, wrong_kind);
}

TEST_F(Activation, a_socket_of_packets_is_refused) {
    const Descriptor socket = bound_socket(path, SOCK_SEQPACKET, true);

    expect_refusal({socket.get()}, wrong_kind);
}

TEST_F(Activation, a_socket_of_the_network_is_refused) {
    const Descriptor network(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(network.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(network.get(), 1), 0);

    expect_refusal({network.get()}, wrong_kind);
}

TEST_F(Activation, a_socket_without_a_path_is_refused) {
    const Descriptor socket =
        bound_socket(std::string(1, '\0') + dir.path(), SOCK_STREAM, true); // in no folder

    expect_refusal({socket.get()}, "the socket that the service manager passed has no path");
}

TEST_F(Activation, two_sockets_are_refused) {
    const Descriptor first = bound_socket(path, SOCK_STREAM, true);
    const Descriptor second = bound_socket(path + "2", SOCK_STREAM, true);

    expect_refusal({first.get(), second.get()},
                   "the service manager passed 2 sockets; one is expected");
    EXPECT_TRUE(std::filesystem::is_socket(path));
}

} // namespace
