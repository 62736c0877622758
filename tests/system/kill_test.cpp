// Clients that are killed at every step of the conversation.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "client.h"
#include "harness.h"

namespace {

using namespace system_test;

// Large enough that a socket takes only a part of it.
constexpr std::uint32_t large_instances = 150;
constexpr std::size_t large_path_bytes = 4000;

struct Step {
    const char *test_name;
    // What the process does before it is killed, on a fresh connection.
    std::function<void(RawSocket &)> act;
};

void greet(RawSocket &socket) {
    socket.send(hello_frame());
    if (socket.receive()->reply().status() != v1::STATUS_OK) throw std::runtime_error("refused");
}

void send_half(RawSocket &socket, const std::string &frame) {
    socket.send(std::string_view(frame).substr(0, frame.size() / 2));
}

void publish_and_read(RawSocket &socket) {
    socket.send(frame_of(publish_request("shared", "victim", 1), 2));
    if (socket.receive()->reply().status() != v1::STATUS_OK) throw std::runtime_error("refused");
}

void watch_large(RawSocket &socket) {
    socket.send(frame_of(register_request("large"), 2));
    if (socket.receive()->reply().handle() != 1) throw std::runtime_error("refused");
}

// More large answers than fit a socket.
void send_until_full(RawSocket &socket) {
    const std::string frame = frame_of(list_request(""), 9);
    for (int i = 0; i < 2000; i++)
        if (socket.send_some(frame) != frame.size()) return;
}

const Step steps[] = {
    {"connected", [](RawSocket &) {}},
    {"half_a_hello", [](RawSocket &s) { send_half(s, hello_frame()); }},
    {"hello_with_unread_reply", [](RawSocket &s) { s.send(hello_frame()); }},
    {"hello", [](RawSocket &s) { greet(s); }},
    {"half_a_publish",
     [](RawSocket &s) {
         greet(s);
         send_half(s, frame_of(publish_request("shared", "victim", 1), 2));
     }},
    {"publish_with_unread_reply",
     [](RawSocket &s) { s.send(hello_frame() + frame_of(publish_request("shared", "v", 1), 2)); }},
    {"published",
     [](RawSocket &s) {
         greet(s);
         publish_and_read(s);
     }},
    {"half_a_withdraw",
     [](RawSocket &s) {
         greet(s);
         publish_and_read(s);
         send_half(s, frame_of(withdraw_request("shared", "victim"), 3));
     }},
    {"register_with_unread_reply",
     [](RawSocket &s) { s.send(hello_frame() + frame_of(register_request("shared"), 2)); }},
    {"registered_and_published",
     [](RawSocket &s) {
         greet(s);
         publish_and_read(s);
         s.send(frame_of(register_request("shared"), 3));
         if (s.receive()->reply().handle() != 1) throw std::runtime_error("refused");
     }},
    {"a_notification_not_begun",
     [](RawSocket &s) {
         greet(s);
         watch_large(s);
     }},
    {"in_the_middle_of_a_notification",
     [](RawSocket &s) {
         greet(s);
         watch_large(s);
         s.receive_bytes(1000);
     }},
    {"unread_replies",
     [](RawSocket &s) {
         greet(s);
         publish_and_read(s);
         send_until_full(s);
     }},
};

void PrintTo(const Step &step, std::ostream *out) {
    *out << step.test_name;
}

class Killed : public System, public testing::WithParamInterface<Step> {};

TEST_P(Killed, leaves_nothing_behind_and_harms_nobody) {
    Client keeper(daemon), watcher(daemon);
    keeper.publish("shared", "kept", 80);
    for (std::uint32_t i = 0; i < large_instances; i++)
        keeper.ok(path_request("large", std::to_string(i), long_path(large_path_bytes)));
    watcher.watch("shared");
    watcher.await_digest("kept:80");
    const std::size_t descriptors = daemon.descriptor_count();
    constexpr int victims_count = 5;

    for (int i = 0; i < victims_count; i++) {
        ClientProcess victim([&](ClientProcess::Report &report) {
            RawSocket socket(daemon.socket());
            GetParam().act(socket);
            report.line("done");
            report.stay();
        });
        ASSERT_EQ(victim.next_line(), "done");
        keeper.publish("large", "0", static_cast<std::uint32_t>(i + 1), v1::SCOPE_SYSTEM);
        victim.kill();
    }

    watcher.await_sessions(2);
    EXPECT_EQ(daemon.descriptor_count(), descriptors);
    const v1::StatusReply status = watcher.status();
    EXPECT_EQ(status.services(), large_instances + 2);
    EXPECT_EQ(status.registrations(), 1u);
    EXPECT_EQ(status.queued_bytes(), 0u);
    keeper.publish("shared", "kept", 81);
    watcher.await_digest("kept:81");
    EXPECT_TRUE(watcher.events_so_far().empty());
}

INSTANTIATE_TEST_SUITE_P(, Killed, testing::ValuesIn(steps),
                         [](const auto &test) { return test.param.test_name; });

using KilledPublisher = System;

TEST_F(KilledPublisher, takes_all_its_publications_along_and_every_watcher_is_told) {
    constexpr std::uint32_t names_count = 300;
    ClientProcess publisher([&](ClientProcess::Report &report) {
        Client client(daemon);
        for (std::uint32_t i = 0; i < names_count; i++)
            client.publish("n" + std::to_string(i), "", 80);
        report.line("published");
        report.stay();
    });
    ASSERT_EQ(publisher.next_line(), "published");
    Client watcher(daemon);
    for (std::uint32_t i = 0; i < names_count; i++) {
        watcher.watch("n" + std::to_string(i));
        ASSERT_EQ(digest(watcher.snapshot()), ":80");
    }

    publisher.kill();

    for (std::uint32_t i = 0; i < names_count; i++)
        EXPECT_EQ(digest(watcher.snapshot()), "");
    EXPECT_EQ(watcher.status().services(), 0u);
}

} // namespace
