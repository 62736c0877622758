// What a service manager is told: by the real daemon, and by the part of it with a clock of the
// test's own.
#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>

#include "client.h"
#include "host/service_manager.h"
#include "notify_socket.h"

namespace {

using namespace operation_test;
using ds::host::Loop;

constexpr char ready[] = "READY=1\nSTATUS=0 sessions, 0 services, 0 registrations";

// ---- the real daemon ----

class Notified : public testing::Test {
  protected:
    Launch launch(std::vector<std::string> environment = {}) const {
        Launch launch = dsd({"--runtime-dir", dir.path()});
        launch.environment = std::move(environment);
        launch.environment.push_back("NOTIFY_SOCKET=" + manager.path());
        return launch;
    }
    const TemporaryDirectory dir;
    NotifySocket manager;
};

TEST_F(Notified, the_manager_is_told_of_start_reload_and_stop_in_order) {
    Started daemon(launch());
    EXPECT_EQ(manager.next(), ready);
    Client(dir.path() + "/ds.sock").publish("web", "", 80); // ready means that clients are served

    daemon.signal(SIGHUP);
    const std::string reloading = manager.next();
    EXPECT_TRUE(reloading.starts_with("RELOADING=1\nMONOTONIC_USEC=")) << reloading;
    const std::string reloaded = manager.next();
    EXPECT_TRUE(reloaded.starts_with("READY=1\nSTATUS=")) << reloaded;

    EXPECT_EQ(daemon.stop(), (Exit{0, 0}));
    EXPECT_EQ(manager.next(), "STOPPING=1\nSTATUS=sending what is queued, then stopping");
    EXPECT_EQ(manager.next_now(), std::nullopt);
}

TEST_F(Notified, the_watchdog_gets_signs_of_life_again_and_again) {
    constexpr int signs = 5;
    Started daemon(launch({"WATCHDOG_USEC=100000"}));

    for (int i = 0; i < signs; i++)
        manager.await("WATCHDOG=1");

    EXPECT_EQ(daemon.stop(), (Exit{0, 0}));
}

TEST_F(Notified, a_start_that_fails_never_claims_to_be_ready) {
    Launch refused = launch();
    refused.arguments.insert(refused.arguments.end(), {"--socket", "/dev/null"});

    EXPECT_EQ(run(refused).exit, (Exit{1, 0}));

    EXPECT_EQ(manager.next_now(), std::nullopt);
}

// ---- with a clock of its own ----

std::uint64_t fake_now_ns = 0;
std::uint64_t fake_clock() {
    return fake_now_ns;
}

class ServiceManagerTest : public testing::Test {
  protected:
    ServiceManagerTest() {
        fake_now_ns = 1'000'000'000'000'000; // far ahead of the real clock's deadlines
        setenv("NOTIFY_SOCKET", manager_socket.path().c_str(), 1);
    }
    ~ServiceManagerTest() override {
        for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
            unsetenv(name);
    }
    void advance(std::uint64_t ns) {
        fake_now_ns += ns;
        loop.turn(0);
    }
    std::string state = "idle";
    int asked = 0;
    std::function<std::string()> describe = [this] {
        asked++;
        return state;
    };
    NotifySocket manager_socket;
    Loop loop{fake_clock};
};

TEST_F(ServiceManagerTest, a_status_is_told_when_it_has_changed_and_ten_seconds_are_over) {
    constexpr std::uint64_t interval_ns = ds::host::ServiceManager::status_ns;
    ds::host::ServiceManager manager(loop, describe);
    manager.ready();
    EXPECT_EQ(manager_socket.next(), "READY=1\nSTATUS=idle");

    state = "busy";
    advance(interval_ns - 1);
    EXPECT_EQ(manager_socket.next_now(), std::nullopt);
    advance(1);
    EXPECT_EQ(manager_socket.next(), "STATUS=busy");
    advance(interval_ns);
    EXPECT_EQ(manager_socket.next_now(), std::nullopt);
}

TEST_F(ServiceManagerTest, the_watchdog_is_fed_twice_in_its_period) {
    setenv("WATCHDOG_USEC", "1000000", 1);
    const ds::host::ServiceManager manager(loop, describe);
    EXPECT_EQ(manager_socket.next(), "WATCHDOG=1");

    advance(499'999'999);
    EXPECT_EQ(manager_socket.next_now(), std::nullopt);
    advance(1);
    EXPECT_EQ(manager_socket.next(), "WATCHDOG=1");
    advance(500'000'000);
    EXPECT_EQ(manager_socket.next(), "WATCHDOG=1");
}

TEST_F(ServiceManagerTest, a_watchdog_for_another_process_is_not_fed) {
    setenv("WATCHDOG_USEC", "1000000", 1);
    setenv("WATCHDOG_PID", std::to_string(getppid()).c_str(), 1);
    const ds::host::ServiceManager manager(loop, describe);

    advance(1'000'000'000);

    EXPECT_EQ(manager_socket.next_now(), std::nullopt);
}

TEST_F(ServiceManagerTest, without_a_manager_nothing_wakes_the_loop) {
    unsetenv("NOTIFY_SOCKET");
    const ds::host::ServiceManager manager(loop, describe);

    advance(100 * ds::host::ServiceManager::status_ns);

    EXPECT_EQ(asked, 0);
}

} // namespace
