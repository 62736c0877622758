// Clients that stand still, clients that are as slow as can be, and clients that want everything.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "client.h"
#include "harness.h"

namespace {

using namespace system_test;

class FaultyClient : public System {
  protected:
    // Fewer where every step takes several times as long.
    static std::uint32_t scaled(std::uint32_t count) { return is_sanitized() ? count / 10 : count; }

    // Changes the port of "busy", many times, one up each time; returns the last.
    std::uint32_t change(Client &publisher, std::uint32_t batches_count) {
        constexpr std::uint32_t batch_count = 500, ports_count = 60'000;
        std::uint32_t port = 0;
        for (std::uint32_t batch = 0; batch < batches_count; batch++) {
            std::vector<v1::Request> requests;
            for (std::uint32_t i = 0; i < batch_count; i++)
                requests.push_back(publish_request("busy", "", 1 + port++ % ports_count));
            publisher.pipeline(std::move(requests));
            memory_most = std::max(memory_most, daemon.memory_bytes());
        }
        return 1 + (port - 1) % ports_count;
    }

    std::size_t memory_most = 0;
};

// ---- standing still ----

// Watches "busy", publishes "still", and has asked more than it has read when it reports.
void stand_still(const std::string &socket, ClientProcess::Report &report) {
    constexpr std::uint32_t asked_count = 2'000;
    Client watcher(socket);
    watcher.watch("busy");
    watcher.snapshot();
    RawSocket publisher(socket);
    std::string frames = hello_frame();
    for (std::uint32_t seq = 2; seq <= asked_count; seq++)
        frames += frame_of(publish_request("still", "", seq), seq);
    publisher.send(frames);
    report.line("ready");

    const std::string wanted = report.next_command();
    for (std::uint32_t seq = 1; seq <= asked_count; seq++) {
        const std::optional<v1::Event> event = publisher.receive();
        if (!event || event->reply().seq() != seq || event->reply().status() != v1::STATUS_OK)
            throw std::runtime_error("answer " + std::to_string(seq) + " is missing");
    }
    const v1::Snapshot last = watcher.await_digest(wanted);
    report.line(digest(last));
    report.stay();
}

TEST_F(FaultyClient, that_is_stopped_under_load_goes_on_with_the_newest_state_and_costs_little) {
    Client publisher(daemon), witness(daemon);
    witness.watch("still");
    ClientProcess still(
        [&](ClientProcess::Report &report) { stand_still(daemon.socket(), report); });
    ASSERT_EQ(still.next_line(), "ready");
    still.stop();
    change(publisher, 4);
    const std::size_t memory_before = daemon.memory_bytes();

    const std::uint32_t last = change(publisher, scaled(200)); // 100,000 changes
    EXPECT_LT(memory_most, memory_before + growth_bound(1u << 20));
    EXPECT_GT(publisher.status().coalesced(), scaled(50'000));
    witness.await_digest(":2000");
    still.resume();
    still.tell(':' + std::to_string(last));

    EXPECT_EQ(still.next_line(), ':' + std::to_string(last));
    EXPECT_EQ(publisher.status().queued_bytes(), 0u);
    still.kill();
    witness.await_digest("");
}

// ---- one byte at a time ----

TEST_F(FaultyClient, that_sends_byte_by_byte_is_answered_in_the_end_and_delays_nobody) {
    const std::uint32_t round_trips_per_byte = scaled(1'000);
    RawSocket slow(daemon.socket());
    Client publisher(daemon), watcher(daemon);
    watcher.watch("web");
    watcher.snapshot();
    const std::string bytes = hello_frame() + frame_of(publish_request("web", "slow", 80), 2);

    std::uint32_t port = 0;
    for (const char byte : bytes) {
        slow.send({&byte, 1});
        for (std::uint32_t i = 0; i < round_trips_per_byte / 2; i++) {
            publisher.publish("web", "fast", 1 + port++ % 60'000);
            watcher.status();
        }
        EXPECT_LE(publisher.status().sessions(), 3u);
    }

    EXPECT_EQ(slow.receive()->reply().seq(), 1u);
    const std::optional<v1::Event> answer = slow.receive();
    EXPECT_EQ(answer->reply().seq(), 2u);
    EXPECT_EQ(answer->reply().status(), v1::STATUS_OK);
    watcher.await([](const v1::Snapshot &told) { return find_instance(told, "slow") != nullptr; });
}

// ---- everything at once ----

class WatcherStorm : public FaultyClient {
  protected:
    static constexpr std::uint32_t watches_count = 1'000;

    static std::string name(std::uint32_t i) { return "name" + std::to_string(i); }

    // The next snapshot of each handle from 1 on, in whatever order they come.
    static void expect_all(Client &watcher, const std::string &expected,
                           std::uint32_t first_handle = 1) {
        std::set<std::uint32_t> told;
        for (std::uint32_t i = first_handle; i <= watches_count; i++) {
            const v1::Notification next = watcher.notification();
            ASSERT_EQ(digest(next.snapshot()), expected);
            EXPECT_EQ(next.cookie(), next.handle() + 7);
            told.insert(next.handle());
        }
        EXPECT_EQ(told.size(), watches_count + 1 - first_handle);
        EXPECT_EQ(*told.begin(), first_handle);
        EXPECT_EQ(*told.rbegin(), watches_count);
    }

    void expect_departure(Client &witness) {
        witness.await_sessions(1);
        EXPECT_EQ(witness.status().registrations(), 0u);
        EXPECT_EQ(witness.status().names(), 1u);
    }
};

TEST_F(WatcherStorm, of_one_session_for_one_name_is_told_of_each_change_by_each_handle) {
    Client publisher(daemon);
    {
        Client watcher(daemon);
        for (std::uint32_t i = 1; i <= watches_count; i++) {
            watcher.watch("web", i + 7);
            ASSERT_EQ(digest(watcher.snapshot()), "");
        }
        for (std::uint32_t port = 1; port <= 10; port++) {
            publisher.publish("web", "", port);
            expect_all(watcher, ':' + std::to_string(port));
        }
        for (std::uint32_t handle = 1; handle <= watches_count / 2; handle++)
            watcher.unwatch("web", handle);
        publisher.publish("web", "", 11);
        expect_all(watcher, ":11", watches_count / 2 + 1);
        EXPECT_EQ(publisher.status().registrations(), watches_count / 2);
    }

    expect_departure(publisher);
}

TEST_F(WatcherStorm, of_one_session_for_a_thousand_names_is_told_of_each_of_them) {
    Client publisher(daemon);
    publisher.publish("web", "", 80);
    {
        Client watcher(daemon);
        for (std::uint32_t i = 1; i <= watches_count; i++) {
            watcher.watch(name(i), i + 7);
            ASSERT_EQ(digest(watcher.snapshot()), "");
        }
        std::vector<v1::Request> publishes, withdrawals;
        for (std::uint32_t i = 1; i <= watches_count; i++) {
            publishes.push_back(publish_request(name(i), "", 80));
            withdrawals.push_back(withdraw_request(name(i), ""));
        }
        publisher.pipeline(publishes);
        expect_all(watcher, ":80");
        publisher.pipeline(withdrawals);
        expect_all(watcher, "");
        EXPECT_EQ(publisher.status().names(), watches_count + 1);
    }

    expect_departure(publisher);
}

} // namespace
