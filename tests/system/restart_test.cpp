// The daemon dies under its clients and is started again in the same directory: for those who live
// nothing happens.
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "client.h"
#include "client/ds_client.h"
#include "crew.h"
#include "harness.h"

namespace {

using namespace system_test;

// Never over before everybody is back, and short enough to be waited for.
constexpr int long_window_ms = 300'000;
const int short_window_ms = is_sanitized() ? 10'000 : 4'000;

class Restart : public testing::Test {
  protected:
    void start(int window_ms = long_window_ms) {
        const std::string file = dir_.path() + "/ds.toml";
        std::ofstream(file) << "[restart]\nwindow_ms = " << window_ms << '\n';
        Daemon::Options options;
        options.runtime_dir = dir_.path();
        options.arguments = {"--config", file};
        daemon.emplace(options);
    }
    void kill_and_start(int window_ms = long_window_ms) {
        daemon->kill();
        start(window_ms);
    }
    std::string socket() const { return dir_.path() + "/ds.sock"; }

    void expect_everybody() {
        Client client(*daemon);
        expect_everybody(client, 0);
    }
    static void expect_everybody(Client &client, int own_registrations) {
        const v1::StatusReply status = client.status();
        EXPECT_EQ(status.services(), static_cast<std::uint32_t>(Crew::clients_count));
        EXPECT_EQ(status.registrations(),
                  static_cast<std::uint32_t>(Crew::clients_count * Crew::watches_per_client +
                                             own_registrations));
    }

  private:
    TemporaryDirectory dir_;

  protected:
    std::optional<Daemon> daemon;
};

// ---- a hundred clients ----

class RestartBy : public Restart, public testing::WithParamInterface<int> {};

TEST_P(RestartBy, is_not_seen_by_a_hundred_clients) {
    start();
    Crew crew(socket());
    EXPECT_GT(crew.settle(), 0u);

    daemon->signal(GetParam());
    if (GetParam() == SIGTERM)
        daemon->await_exit();
    else
        daemon->kill();
    start();

    EXPECT_EQ(crew.settle(), 0u);
    expect_everybody();
}

INSTANTIATE_TEST_SUITE_P(, RestartBy, testing::Values(SIGKILL, SIGTERM), [](const auto &test) {
    return std::string(test.param == SIGTERM ? "termination" : "kill");
});

TEST_F(Restart, three_kills_in_a_row_are_not_seen_by_a_hundred_clients) {
    start();
    Crew crew(socket());
    crew.settle();

    kill_and_start();
    kill_and_start();
    kill_and_start(short_window_ms);

    EXPECT_EQ(crew.settle(), 0u);
    expect_everybody();
}

TEST_F(Restart, a_kill_during_the_restart_period_is_not_seen_by_a_hundred_clients) {
    constexpr int slow = 0;
    start();
    Crew crew(socket());
    crew.settle();
    crew.process(slow).stop();
    kill_and_start();
    crew.await_back(slow);

    kill_and_start(short_window_ms);
    crew.process(slow).resume();

    EXPECT_EQ(crew.settle(), 0u);
    expect_everybody();
}

TEST_F(Restart, clients_that_sleep_through_it_are_missed_by_nobody_and_miss_nobody) {
    constexpr int slow = 0;
    start();
    Crew crew(socket());
    crew.settle();
    crew.process(slow).stop();

    kill_and_start();
    crew.await_back(slow);
    crew.process(slow).resume();

    EXPECT_EQ(crew.settle(), 0u);
    expect_everybody();
}

TEST_F(Restart, who_dies_along_with_the_daemon_is_gone_for_everybody_at_the_end_of_the_window) {
    constexpr int mortal = 3;
    constexpr std::size_t watches_left =
        Crew::watches_per_client * Crew::clients_per_process * (Crew::processes_count - 1);
    start();
    Crew crew(socket(), mortal);
    crew.settle();

    daemon->kill();
    crew.kill(mortal);
    start(short_window_ms);

    EXPECT_EQ(crew.settle(), watches_left); // each is told that once, and nothing else
    EXPECT_EQ(Client(*daemon).status().services(),
              static_cast<std::uint32_t>(Crew::clients_count - Crew::clients_per_process));
}

TEST_F(Restart, endpoints_that_changed_meanwhile_are_told_as_changes) {
    constexpr int mover = 2;
    start();
    Crew crew(socket());
    crew.settle();

    daemon->kill();
    crew.move(mover);
    start();

    EXPECT_GT(crew.settle(mover), 0u);
    expect_everybody();
}

// ---- under load ----

// Publishes, changes and withdraws without a pause, until killed; with each step the daemon may
// die.
[[noreturn]] void make_noise(const std::string &socket, ClientProcess::Report &report) {
    const auto check = [](int error) {
        if (error != DS_CLIENT_OK) throw std::runtime_error(ds_client_strerror(error));
    };
    ds_client_options_t options{};
    options.size = sizeof options;
    options.socket = socket.c_str();
    options.backoff_first_ms = 2;
    options.backoff_max_ms = 40;
    ds_client_handle_t *handle = nullptr;
    check(ds_client_create(&options, &handle));
    ds_client_service_t service{};
    service.size = sizeof service;
    service.name = "noise";
    service.instance = "steady";
    service.scope = DS_CLIENT_SCOPE_LOCAL;
    service.ipv4_address = 0x0a000001;
    service.ipv4_port = 1;
    ds_publication_t *steady = nullptr, *brief = nullptr;
    check(ds_client_publish(handle, &service, nullptr, nullptr, &steady));
    for (std::uint32_t step = 0;; step++) {
        service.instance = "steady";
        service.ipv4_port = 1 + step % 60'000;
        check(ds_client_publication_update(steady, &service));
        const std::string instance = "brief" + std::to_string(step);
        service.instance = instance.c_str();
        ds_client_publication_destroy(std::exchange(brief, nullptr));
        check(ds_client_publish(handle, &service, nullptr, nullptr, &brief));
        check(ds_client_wait(handle, -1));
        if (step == 1'000) report.line("loud");
    }
}

TEST_F(Restart, kills_amid_a_flood_of_changes_are_not_seen_by_a_hundred_clients) {
    start();
    Crew crew(socket());
    crew.settle();
    ClientProcess noise([&](ClientProcess::Report &report) { make_noise(socket(), report); });
    ASSERT_EQ(noise.next_line(), "loud");

    for (int kill = 0; kill < 5; kill++)
        kill_and_start(short_window_ms);

    EXPECT_EQ(crew.settle(), 0u);
    Client watcher(*daemon);
    watcher.watch("noise");
    watcher.await([](const v1::Snapshot &told) {
        return !told.reconciling() && find_instance(told, "steady") != nullptr;
    });
    noise.kill();
    watcher.await_digest("");
    watcher.await_sessions(Crew::clients_count + 1);
    expect_everybody(watcher, 1);
}

// ---- without the client library ----

TEST_F(Restart, is_told_as_reconciling_until_everything_is_back) {
    start();
    {
        Client publisher(*daemon);
        publisher.publish("web", "blue", 80);
        publisher.publish("mail", "", 25);
        daemon->kill();
    }
    start();
    Client publisher(*daemon), watcher(*daemon);
    watcher.watch("web");
    const v1::Snapshot first = watcher.snapshot();

    publisher.publish("web", "blue", 80);
    const v1::Snapshot second = watcher.snapshot();
    publisher.publish("mail", "", 25);
    const v1::Snapshot last = watcher.snapshot();

    EXPECT_TRUE(first.reconciling());
    EXPECT_EQ(digest(first), "");
    EXPECT_TRUE(second.reconciling());
    EXPECT_EQ(digest(second), "blue:80");
    EXPECT_FALSE(last.reconciling());
    EXPECT_TRUE(last.resynced());
    EXPECT_EQ(digest(last), "blue:80");
}

TEST_F(Restart, is_told_as_resynced_at_the_end_of_the_window_when_nobody_comes_back) {
    start();
    {
        Client publisher(*daemon);
        publisher.publish("web", "blue", 80);
        daemon->kill();
    }
    start(100);
    Client watcher(*daemon);
    watcher.watch("web");
    watcher.watch("nobody");
    v1::Snapshot last[2] = {watcher.snapshot(), watcher.snapshot()};
    const bool is_open = last[0].reconciling();

    if (is_open)
        for (v1::Snapshot &snapshot : last)
            snapshot = watcher.snapshot();

    for (const v1::Snapshot &snapshot : last) {
        EXPECT_FALSE(snapshot.reconciling());
        EXPECT_EQ(snapshot.resynced(), is_open);
        EXPECT_EQ(digest(snapshot), "");
    }
}

TEST_F(Restart, what_is_published_in_a_period_that_a_kill_ends_is_waited_for_as_well) {
    start();
    {
        Client publisher(*daemon);
        publisher.publish("web", "before", 80);
        daemon->kill();
    }
    start();
    {
        Client publisher(*daemon);
        publisher.publish("web", "meanwhile", 81);
        daemon->kill();
    }

    start();
    Client first(*daemon), second(*daemon), watcher(*daemon);
    first.publish("web", "before", 80);
    watcher.watch("web");
    const v1::Snapshot with_one = watcher.snapshot();
    second.publish("web", "meanwhile", 81);
    const v1::Snapshot with_both = watcher.snapshot();

    EXPECT_TRUE(with_one.reconciling());
    EXPECT_EQ(digest(with_one), "before:80");
    EXPECT_EQ(digest(with_both), "before:80 meanwhile:81");
}

} // namespace
