// Clients that do not read, and clients that send faster than they read.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "client.h"
#include "harness.h"
#include "proto/frame.h"

namespace {

using namespace system_test;

class SlowReader : public System {
  protected:
    static constexpr std::uint32_t ballast_count = 10;
    static constexpr std::size_t ballast_path_bytes = 2000;

    // A name whose snapshots are large, so that a socket holds only a few of them.
    static void publish_ballast(Client &client, const std::string &name) {
        for (std::uint32_t i = 0; i < ballast_count; i++)
            client.ok(
                path_request(name, "ballast" + std::to_string(i), long_path(ballast_path_bytes)));
    }

    static std::uint32_t port_of(const v1::Snapshot &snapshot, std::string_view instance) {
        const v1::Instance *found = find_instance(snapshot, instance);
        return found != nullptr ? found->endpoint().ipv4().port() : 0;
    }

    static void await_port(Client &watcher, std::uint32_t port) {
        watcher.await([port](const v1::Snapshot &told) { return port_of(told, "hot") == port; });
    }

    static RawSocket watcher_that_does_not_read(const Daemon &of,
                                                std::initializer_list<const char *> names) {
        RawSocket reader(of.socket());
        std::string bytes = hello_frame();
        std::uint32_t seq = 2;
        for (const char *name : names)
            bytes += frame_of(register_request(name, seq), seq), seq++;
        reader.send(bytes);
        return reader;
    }
};

struct Told {
    std::vector<std::uint64_t> versions;
    v1::Snapshot newest;
};

// Reads notifications until both names are as wanted; by handle.
std::vector<Told> read_until(RawSocket &reader,
                             const std::function<bool(const std::vector<Told> &)> &is_done) {
    std::vector<Told> told(3);
    while (!is_done(told)) {
        const std::optional<v1::Event> event = reader.receive();
        if (!event) throw std::runtime_error("the daemon ended a slow reader");
        if (!event->has_notification()) continue;
        Told &one = told.at(event->notification().handle());
        one.newest = event->notification().snapshot();
        one.versions.push_back(one.newest.version());
    }
    return told;
}

bool strictly_rises(const std::vector<std::uint64_t> &versions) {
    return std::adjacent_find(versions.begin(), versions.end(), std::greater_equal<>()) ==
           versions.end();
}

TEST_F(SlowReader, ends_with_the_newest_snapshots_and_delays_and_costs_nobody) {
    constexpr std::uint32_t steps_count = 100, changes_per_step = 100;
    Client publisher(daemon), other(daemon), witness(daemon);
    publish_ballast(publisher, "busy");
    publisher.publish("side", "hot", 1);
    RawSocket reader = watcher_that_does_not_read(daemon, {"busy", "side"});
    witness.watch("busy");
    const std::size_t memory_before = daemon.memory_bytes();
    std::size_t memory_most = 0;

    for (std::uint32_t step = 1; step <= steps_count; step++) {
        std::vector<v1::Request> changes;
        for (std::uint32_t i = 1; i <= changes_per_step; i++)
            changes.push_back(publish_request("busy", "hot", (step - 1) * changes_per_step + i));
        publisher.pipeline(std::move(changes));
        await_port(witness, step * changes_per_step);
        if (step % 10 == 0) publisher.publish("side", "hot", step);
        other.publish("other", "", step);
        memory_most = std::max(memory_most, daemon.memory_bytes());
    }

    EXPECT_LT(memory_most, memory_before + growth_bound(4u << 20));
    EXPECT_LT(other.status().queued_bytes(), 200'000u);
    EXPECT_GT(other.status().coalesced(), 5'000u);
    const std::vector<Told> told = read_until(reader, [](const std::vector<Told> &so_far) {
        return port_of(so_far[1].newest, "hot") == steps_count * changes_per_step &&
               port_of(so_far[2].newest, "hot") == steps_count;
    });
    for (const std::uint32_t handle : {1u, 2u}) {
        EXPECT_TRUE(strictly_rises(told[handle].versions)) << "handle " << handle;
        EXPECT_LT(told[handle].versions.size(), 100u) << "handle " << handle;
    }
    EXPECT_EQ(told[1].newest.instances_size(), static_cast<int>(ballast_count + 1));
    reader.send(frame_of(status_request(), 9));
    EXPECT_EQ(reader.receive()->reply().seq(), 9u);
}

TEST_F(SlowReader, is_told_in_the_end_that_everything_is_gone) {
    Client witness(daemon);
    RawSocket reader = watcher_that_does_not_read(daemon, {"busy", "side"});
    {
        Client publisher(daemon);
        publish_ballast(publisher, "busy");
        publisher.publish("side", "hot", 1);
        for (std::uint32_t port = 1; port <= 200; port++)
            publisher.publish("busy", "hot", port);
    }
    witness.await_sessions(2);

    const std::vector<Told> told = read_until(reader, [](const std::vector<Told> &so_far) {
        return so_far[1].versions.size() > 1 && so_far[1].newest.instances_size() == 0 &&
               so_far[2].versions.size() > 1 && so_far[2].newest.instances_size() == 0;
    });

    EXPECT_TRUE(strictly_rises(told[1].versions));
    EXPECT_TRUE(strictly_rises(told[2].versions));
}

TEST_F(SlowReader, that_departs_with_notifications_pending_leaves_nothing) {
    Client publisher(daemon);
    publish_ballast(publisher, "busy");
    const std::size_t descriptors = daemon.descriptor_count();
    for (int round = 0; round < 20; round++) {
        RawSocket reader = watcher_that_does_not_read(daemon, {"busy", "side"});
        for (std::uint32_t port = 1; port <= 30; port++)
            publisher.publish("busy", "hot", port);

        reader.close();
        publisher.publish("busy", "hot", 31);
    }

    publisher.await_sessions(1);
    EXPECT_EQ(daemon.descriptor_count(), descriptors);
    EXPECT_EQ(publisher.status().registrations(), 0u);
    EXPECT_EQ(publisher.status().queued_bytes(), 0u);
}

TEST_F(SlowReader, that_unregisters_with_a_notification_pending_is_not_told_afterwards) {
    Client publisher(daemon);
    publish_ballast(publisher, "busy");
    RawSocket reader = watcher_that_does_not_read(daemon, {"busy", "side"});
    for (std::uint32_t port = 1; port <= 100; port++)
        publisher.publish("busy", "hot", port);
    reader.send(frame_of(unregister_request("busy", 1), 8));
    while (publisher.status().registrations() > 1)
        publisher.publish("busy", "hot", 101);
    publisher.publish("busy", "hot", 102);
    publisher.publish("side", "hot", 1);

    bool is_unregistered = false;
    for (bool is_done = false; !is_done;) {
        const std::optional<v1::Event> event = reader.receive();
        ASSERT_TRUE(event);
        if (event->has_reply()) is_unregistered |= event->reply().seq() == 8;
        if (!event->has_notification()) continue;
        EXPECT_FALSE(is_unregistered && event->notification().handle() == 1);
        is_done = port_of(event->notification().snapshot(), "hot") == 1 &&
                  event->notification().handle() == 2;
    }
}

TEST_F(SlowReader, a_notification_that_a_socket_takes_only_in_parts_arrives_whole) {
    constexpr int large_count = 200; // 800 kB of paths
    Client publisher(daemon);
    for (int i = 0; i < large_count; i++)
        publisher.ok(path_request("large", std::to_string(i), long_path(4000)));
    RawSocket reader = watcher_that_does_not_read(daemon, {"large", "side"});
    for (std::uint32_t port = 1; port <= 20; port++) {
        publisher.publish("large", "hot", port);
        publisher.publish("side", "hot", port);
    }

    const std::vector<Told> told = read_until(reader, [](const std::vector<Told> &so_far) {
        return port_of(so_far[1].newest, "hot") == 20 && port_of(so_far[2].newest, "hot") == 20;
    });

    EXPECT_GT(told[1].versions.size(), 1u); // one was on its way when the changes came
    EXPECT_TRUE(strictly_rises(told[1].versions));
    EXPECT_EQ(told[1].newest.instances_size(), large_count + 1);
}

// ---- unread answers ----

// A client that sends one kind of request as long as the daemon reads them.
class Flood {
  public:
    Flood(const Daemon &daemon, v1::Request request) : socket(daemon.socket()), request_(request) {
        unsent_ = hello_frame();
    }

    // False when nothing was taken although the daemon had many turns for it: what it reads at once
    // can be thousands of requests, of which a turn handles a few.
    bool send_more(Client &witness) {
        constexpr int turns = 2000;
        for (int turn = 0; turn < turns; turn++) {
            if (unsent_.size() < 4096) append();
            const std::size_t sent = socket.send_some(unsent_);
            unsent_.erase(0, sent);
            sent_bytes_ += sent;
            if (sent > 0) return true;
            witness.status();
        }
        return false;
    }

    // Reads all answers while it sends what is left of the last frames.
    void read_all() {
        for (std::uint32_t seq = 1; seq <= last_seq_; seq++) {
            if (!unsent_.empty()) unsent_.erase(0, socket.send_some(unsent_));
            const std::optional<v1::Event> event = socket.receive();
            ASSERT_TRUE(event);
            ASSERT_EQ(event->reply().seq(), seq);
            ASSERT_EQ(event->reply().status(), v1::STATUS_OK) << event->reply().text();
        }
        EXPECT_TRUE(unsent_.empty());
    }

    std::size_t sent_bytes() const { return sent_bytes_; }
    std::uint32_t requests() const { return last_seq_; }
    RawSocket socket;

  private:
    void append() {
        for (int i = 0; i < 100; i++)
            unsent_ += frame_of(request_, ++last_seq_);
    }

    v1::Request request_;
    std::string unsent_;
    std::uint32_t last_seq_ = 1; // the greeting
    std::size_t sent_bytes_ = 0;
};

class UnreadAnswers : public SlowReader, public testing::WithParamInterface<bool> {};

TEST_P(UnreadAnswers, make_the_daemon_stop_reading_until_they_are_read) {
    Client witness(daemon);
    publish_ballast(witness, "busy"); // each list answer has 20 kB
    const std::size_t memory_before = daemon.memory_bytes();
    Flood flood(daemon, GetParam() ? list_request("") : status_request());
    constexpr std::size_t sent_bytes_most = 16u << 20;

    while (flood.sent_bytes() < sent_bytes_most && flood.send_more(witness))
        continue;

    EXPECT_LT(flood.sent_bytes(), sent_bytes_most);
    EXPECT_LT(daemon.memory_bytes(), memory_before + growth_bound(4u << 20));
    EXPECT_LT(witness.status().queued_bytes(), 1u << 20);
    EXPECT_GT(witness.status().queued_bytes(), 0u);
    for (std::uint32_t port = 1; port <= 100; port++)
        witness.publish("other", "", port);
    flood.read_all();
    EXPECT_GT(flood.requests(), 100u);
    EXPECT_EQ(witness.status().queued_bytes(), 0u);
}

INSTANTIATE_TEST_SUITE_P(, UnreadAnswers, testing::Bool(), [](const auto &test) {
    return std::string(test.param ? "large_ones" : "small_ones");
});

TEST_F(SlowReader, five_thousand_requests_in_one_go_are_answered_in_order) {
    constexpr std::uint32_t requests_count = 5000;
    Client client(daemon);
    std::vector<std::pair<std::uint32_t, v1::Status>> expected;
    for (std::uint32_t i = 0; i < requests_count; i++) {
        const std::string name = "n" + std::to_string(i / 5);
        v1::Request requests[] = {publish_request(name, "", 80), list_request(name),
                                  status_request(), withdraw_request(name, ""),
                                  withdraw_request(name, "")};
        const std::uint32_t seq = client.connection().send(requests[i % 5]);
        expected.emplace_back(seq, i % 5 == 4 ? v1::STATUS_NOT_FOUND : v1::STATUS_OK);
    }

    for (const auto &[seq, status] : expected) {
        const v1::Event event = client.event();
        ASSERT_EQ(event.reply().seq(), seq);
        ASSERT_EQ(event.reply().status(), status) << event.reply().text();
    }
    EXPECT_EQ(client.status().publishes(), requests_count / 5);
}

} // namespace
