// The time of day jumps while the daemon runs.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>

#include <nlohmann/json.hpp>

#include "client.h"
#include "harness.h"

namespace {

using namespace system_test;
using std::chrono::hours;
using std::chrono::nanoseconds;

class Clock : public testing::Test {
  protected:
    Clock() {
        jump_to(hours(0));
        start();
    }
    void TearDown() override { daemon->stop(); }

    void start() {
        Daemon::Options options;
        options.runtime_dir = dir.path() + "/ds";
        options.environment = {std::string("LD_PRELOAD=") + CLOCK_SHIM, "DS_TEST_CLOCK=" + file()};
        daemon.emplace(options);
    }
    // From now on the daemon's time of day is that much ahead of the test's.
    void jump_to(hours ahead) {
        ahead_ = ahead;
        const std::int64_t seconds = std::chrono::seconds(ahead).count();
        std::fstream out(file(), std::ios::in | std::ios::out | std::ios::binary);
        if (!out) out.open(file(), std::ios::out | std::ios::binary);
        out.write(reinterpret_cast<const char *>(&seconds), sizeof seconds);
    }
    std::uint64_t daemon_now_ns() const {
        const auto now = std::chrono::system_clock::now().time_since_epoch() + ahead_;
        return static_cast<std::uint64_t>(nanoseconds(now).count());
    }
    std::uint64_t added_ns(Client &client, std::string_view name) {
        return client.ok(dump_request(v1::DUMP_KIND_SERVICES, name))
            .dump()
            .names(0)
            .services(0)
            .added_ns();
    }

    TemporaryDirectory dir;
    std::optional<Daemon> daemon;

  private:
    std::string file() const { return dir.path() + "/clock"; }
    hours ahead_{0};
};

std::string iso_text(std::chrono::system_clock::time_point at) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(at);
    std::tm utc = {};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    return text;
}

constexpr hours jumps[] = {hours(5), hours(-50), hours(24 * 365), hours(0)};

TEST_F(Clock, that_jumps_neither_ends_nor_delays_anything) {
    { // an open restart period, which must not end early
        Client former(*daemon);
        former.publish("web", "former", 80);
        daemon->kill();
    }
    start();
    Client publisher(*daemon), watcher(*daemon);
    RawSocket undecided(daemon->socket());
    watcher.watch("web");
    EXPECT_TRUE(watcher.snapshot().reconciling());

    std::uint32_t port = 1;
    for (const hours jump : jumps) {
        jump_to(jump);
        publisher.publish("web", "blue", port);
        const v1::Snapshot told = watcher.snapshot();
        EXPECT_EQ(digest(told), "blue:" + std::to_string(port++));
        EXPECT_TRUE(told.reconciling());
        EXPECT_LT(publisher.status().uptime_ms(), 60'000u);
    }

    undecided.send(hello_frame());
    EXPECT_EQ(undecided.receive()->reply().status(), v1::STATUS_OK);
    publisher.withdraw("web", "blue");
    publisher.publish("web", "former", 80);
    EXPECT_FALSE(
        watcher.await([](const v1::Snapshot &told) { return told.resynced(); }).reconciling());
}

// Dumps tell how long ago something was, by the clock of the moment of the dump.
TEST_F(Clock, that_jumps_leaves_the_ages_in_dumps_right) {
    constexpr std::uint64_t slack_ns = 1'000'000; // the two clocks are not read at once
    Client client(*daemon);
    const auto before = std::chrono::steady_clock::now();
    client.publish("web", "", 80);

    for (const hours jump : jumps) {
        jump_to(jump);
        const std::uint64_t added = added_ns(client, "web");
        const std::uint64_t now = daemon_now_ns();
        const auto most = nanoseconds(std::chrono::steady_clock::now() - before).count();

        EXPECT_LT(added, now + slack_ns);
        EXPECT_LT(now - added, static_cast<std::uint64_t>(most) + slack_ns);
    }
}

// Traces go by the clock of the daemon's start, so that they stay in order.
TEST_F(Clock, that_jumps_leaves_traces_in_order_and_at_the_time_of_the_start) {
    const std::string earliest = iso_text(std::chrono::system_clock::now() - hours(1));
    const std::string latest = iso_text(std::chrono::system_clock::now() + hours(1));
    Client client(*daemon);
    std::uint32_t port = 1;
    for (const hours jump : jumps) {
        jump_to(jump);
        client.publish("web", "", port++);
    }

    const Finished trace =
        run_dsctl(daemon->socket(), {"trace", "--all", "--channel", "pub", "-o", "jsonl"});

    EXPECT_EQ(trace.exit, (Exit{0, 0})) << trace.err;
    std::vector<std::string> times;
    std::istringstream lines(trace.out);
    for (std::string line; std::getline(lines, line);)
        times.push_back(nlohmann::json::parse(line).at("time"));
    ASSERT_GE(times.size(), std::size(jumps));
    EXPECT_TRUE(std::is_sorted(times.begin(), times.end())) << trace.out;
    EXPECT_GT(times.front(), earliest);
    EXPECT_LT(times.back(), latest);
}

} // namespace
