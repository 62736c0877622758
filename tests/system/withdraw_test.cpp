// Withdrawing by service id, also what somebody else published.
#include <gtest/gtest.h>

#include <unistd.h>

#include "client.h"
#include "harness.h"

namespace {

using namespace system_test;
using WithdrawById = System;

TEST_F(WithdrawById, a_publication_of_the_same_user_ends_and_its_publisher_is_told) {
    Client publisher(daemon), other(daemon), watcher(daemon);
    const std::uint32_t id = publisher.publish("web", "blue", 80, v1::SCOPE_RACK).service_id();
    publisher.publish("web", "red", 81);
    watcher.watch("web");
    watcher.snapshot();

    other.ok(withdraw_id_request("web", id));

    const v1::Event event = publisher.event();
    ASSERT_TRUE(event.has_withdrawn());
    EXPECT_EQ(event.withdrawn().service_id(), id);
    EXPECT_EQ(event.withdrawn().name(), "web");
    EXPECT_EQ(event.withdrawn().instance(), "blue");
    EXPECT_EQ(event.withdrawn().scope(), v1::SCOPE_RACK);
    EXPECT_EQ(event.withdrawn().by_pid(), static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(event.withdrawn().by_uid(), getuid());
    EXPECT_EQ(digest(watcher.snapshot()), "red:81");
    EXPECT_EQ(publisher.call(withdraw_request("web", "blue", v1::SCOPE_RACK)).status(),
              v1::STATUS_NOT_FOUND);
    EXPECT_EQ(other.call(withdraw_id_request("web", id)).status(), v1::STATUS_NOT_FOUND);
}

TEST_F(WithdrawById, the_publisher_itself_is_not_told_of_its_own_doing) {
    Client publisher(daemon), watcher(daemon);
    const std::uint32_t id = publisher.publish("web", "blue", 80).service_id();
    watcher.watch("web");
    watcher.snapshot();

    publisher.ok(withdraw_id_request("web", id));

    EXPECT_EQ(digest(watcher.snapshot()), "");
    EXPECT_TRUE(publisher.events_so_far().empty());
}

TEST_F(WithdrawById, the_publisher_may_publish_again_afterwards) {
    Client publisher(daemon), other(daemon), watcher(daemon);
    const v1::Reply first = publisher.publish("web", "blue", 80);
    watcher.watch("web");
    watcher.snapshot();
    other.ok(withdraw_id_request("web", first.service_id()));
    watcher.await_digest("");

    const v1::Reply second = publisher.publish("web", "blue", 81);

    EXPECT_EQ(second.generation(), 1u);
    EXPECT_NE(second.service_id(), first.service_id());
    EXPECT_EQ(digest(watcher.snapshot()), "blue:81");
}

// Publishes one service as another user and reports its id; then reports what happens to it.
void publish_as_other_user(const std::string &socket, ClientProcess::Report &report) {
    Client client(socket);
    report.line(std::to_string(client.publish("web", "theirs", 80).service_id()));
    const v1::Event event = client.event();
    report.line(event.has_withdrawn() ? "withdrawn by " + std::to_string(event.withdrawn().by_uid())
                                      : "something else");
    report.stay();
}

TEST_F(WithdrawById, another_user_is_denied_and_root_is_not) {
    if (getuid() != 0) GTEST_SKIP() << "only root can be two users";
    Client root(daemon);
    const std::uint32_t id = root.publish("web", "mine", 81).service_id();
    ClientProcess thief(
        [&](ClientProcess::Report &report) {
            Client client(daemon.socket());
            const v1::Reply reply = client.call(withdraw_id_request("web", id));
            report.line(std::to_string(reply.status()) + " " + reply.text());
        },
        true);
    const std::string answer = thief.next_line();
    EXPECT_TRUE(answer.starts_with(std::to_string(v1::STATUS_DENIED) + " ")) << answer;
    EXPECT_TRUE(answer.ends_with(".")) << answer;
    EXPECT_EQ(root.status().services(), 1u);
    ClientProcess publisher(
        [&](ClientProcess::Report &report) { publish_as_other_user(daemon.socket(), report); },
        true);

    root.ok(
        withdraw_id_request("web", static_cast<std::uint32_t>(std::stoul(publisher.next_line()))));

    EXPECT_EQ(publisher.next_line(), "withdrawn by 0");
    EXPECT_EQ(root.status().services(), 1u);
}

} // namespace
