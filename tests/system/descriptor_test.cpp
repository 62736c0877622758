// A daemon that has no descriptors left.
#include <gtest/gtest.h>

#include <csignal>
#include <list>

#include "client.h"
#include "harness.h"

namespace {

using namespace system_test;

constexpr rlim_t descriptors_max = 40;
constexpr std::size_t clients_count = 80;

class Exhaustion : public testing::Test {
  protected:
    Exhaustion() : daemon({"", {}, descriptors_max}), settled(daemon), publisher(daemon) {
        if (is_sanitized()) use_every_request_once();
    }
    void TearDown() override { daemon.stop(); }

    // The sanitizer's first check of an object's type needs a pipe, and takes the lack of
    // descriptors for a bad object. Later checks of the same type remember the first.
    void use_every_request_once() {
        publisher.publish("first", "", 1);
        publisher.unwatch("first", publisher.watch("first"));
        publisher.snapshot();
        publisher.withdraw("first", "");
        daemon.signal(SIGHUP); // is handled like the stop, and changes nothing
        publisher.status();
    }

    // Greets on every connection of a crowd that is larger than the daemon can take.
    void crowd_in() {
        for (std::size_t i = 0; i < clients_count; i++)
            crowd.emplace_back(daemon.socket()).send(hello_frame());
        // Each answer is a turn of the daemon, in which it takes some of the crowd.
        while (daemon.descriptor_count() < descriptors_max)
            publisher.publish("turns", "", 1);
        publisher.publish("turns", "", 2);
    }

    std::size_t answered_count() {
        std::size_t count = 0;
        for (RawSocket &client : crowd)
            count += client.has_event() ? 1 : 0;
        return count;
    }

    Daemon daemon;
    Client settled;
    Client publisher;
    std::list<RawSocket> crowd;
};

TEST_F(Exhaustion, those_who_are_connected_go_on) {
    settled.watch("web");
    settled.snapshot();
    crowd_in();

    for (std::uint32_t port = 1; port <= 100; port++) {
        publisher.publish("web", "", port);
        settled.await_digest(":" + std::to_string(port));
    }

    EXPECT_LT(answered_count(), descriptors_max);
    EXPECT_LE(daemon.descriptor_count(), descriptors_max);
}

TEST_F(Exhaustion, those_who_wait_are_served_as_soon_as_others_leave) {
    crowd_in();
    ASSERT_LT(answered_count(), clients_count);

    std::size_t served = 0;
    while (!crowd.empty()) { // in the order of their connecting
        const std::optional<v1::Event> event = crowd.front().receive();
        ASSERT_TRUE(event);
        EXPECT_EQ(event->reply().status(), v1::STATUS_OK);
        crowd.pop_front();
        served++;
    }

    EXPECT_EQ(served, clients_count);
    publisher.await_sessions(2);
    EXPECT_EQ(Client(daemon).status().sessions(), 3u);
}

TEST_F(Exhaustion, is_told_to_the_operator) {
    crowd_in();
    while (!crowd.empty()) {
        crowd.front().receive();
        crowd.pop_front();
    }

    const std::string told = daemon.stderr_text();

    EXPECT_NE(told.find("Too many open files"), told.npos) << told;
}

} // namespace
