// What watchers are told, and when.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <memory>

#include "client.h"
#include "harness.h"

namespace {

using namespace system_test;
using PublishAndWatch = System;

TEST_F(PublishAndWatch, an_empty_snapshot_comes_at_once_when_nothing_is_published) {
    Client watcher(daemon);

    watcher.watch("web");

    const v1::Snapshot first = watcher.snapshot();
    EXPECT_EQ(first.name(), "web");
    EXPECT_EQ(first.instances_size(), 0);
    EXPECT_FALSE(first.reconciling());
}

TEST_F(PublishAndWatch, what_was_published_before_registering_is_told_at_once) {
    Client publisher(daemon), watcher(daemon);
    const v1::Reply published = publisher.publish("web", "blue", 80);

    watcher.watch("web");

    const v1::Snapshot first = watcher.snapshot();
    ASSERT_EQ(digest(first), "blue:80");
    EXPECT_EQ(first.instances(0).service_id(), published.service_id());
    EXPECT_EQ(first.instances(0).pid(), static_cast<std::uint32_t>(getpid()));
    EXPECT_TRUE(first.instances(0).local());
    EXPECT_EQ(first.instances(0).node(), watcher.connection().hello().node());
    EXPECT_TRUE(watcher.events_so_far().empty());
}

TEST_F(PublishAndWatch, what_is_published_after_registering_is_told) {
    Client publisher(daemon), watcher(daemon);
    watcher.watch("web");
    const v1::Snapshot empty = watcher.snapshot();

    publisher.publish("web", "blue", 80);

    const v1::Snapshot next = watcher.snapshot();
    EXPECT_EQ(digest(next), "blue:80");
    EXPECT_GT(next.version(), empty.version());
}

TEST_F(PublishAndWatch, a_change_raises_the_generation_and_keeps_the_service_id) {
    Client publisher(daemon), watcher(daemon);
    const v1::Reply first = publisher.publish("web", "blue", 80);
    watcher.watch("web");
    watcher.snapshot();

    const v1::Reply second = publisher.publish("web", "blue", 81);

    EXPECT_EQ(first.generation(), 1u);
    EXPECT_EQ(second.generation(), 2u);
    EXPECT_EQ(second.service_id(), first.service_id());
    const v1::Snapshot told = watcher.snapshot();
    ASSERT_EQ(digest(told), "blue:81");
    EXPECT_EQ(told.instances(0).generation(), 2u);
}

TEST_F(PublishAndWatch, a_withdrawal_is_told_as_a_snapshot_without_the_instance) {
    Client publisher(daemon), watcher(daemon);
    publisher.publish("web", "blue", 80);
    publisher.publish("web", "red", 81);
    watcher.watch("web");
    watcher.snapshot();

    publisher.withdraw("web", "blue");
    EXPECT_EQ(digest(watcher.snapshot()), "red:81");
    publisher.withdraw("web", "red");

    EXPECT_EQ(digest(watcher.snapshot()), "");
}

TEST_F(PublishAndWatch, a_departure_is_told_like_a_withdrawal) {
    Client watcher(daemon);
    {
        Client publisher(daemon);
        publisher.publish("web", "blue", 80);
        watcher.watch("web");
        ASSERT_EQ(digest(watcher.snapshot()), "blue:80");
    }

    EXPECT_EQ(digest(watcher.snapshot()), "");
}

TEST_F(PublishAndWatch, instances_of_several_publishers_are_told_together) {
    Client first(daemon), second(daemon), watcher(daemon);
    first.publish("web", "a", 80);
    second.publish("web", "b", 81);
    second.publish("web", "c", 82);
    second.publish("mail", "d", 83);

    watcher.watch("web");

    EXPECT_EQ(digest(watcher.snapshot()), "a:80 b:81 c:82");
}

TEST_F(PublishAndWatch, two_publishers_of_the_same_instance_are_two_publications) {
    Client first(daemon), second(daemon), watcher(daemon);
    first.publish("web", "blue", 80);
    second.publish("web", "blue", 81);
    watcher.watch("web");
    ASSERT_EQ(digest(watcher.snapshot()), "blue:80 blue:81");

    first.withdraw("web", "blue");

    EXPECT_EQ(digest(watcher.snapshot()), "blue:81");
}

TEST_F(PublishAndWatch, every_watcher_is_told_the_same) {
    constexpr int watchers_count = 20;
    std::vector<std::unique_ptr<Client>> watchers;
    for (int i = 0; i < watchers_count; i++) {
        watchers.push_back(std::make_unique<Client>(daemon));
        watchers.back()->watch("web", static_cast<std::uint64_t>(i));
        watchers.back()->snapshot();
    }
    Client publisher(daemon);

    publisher.publish("web", "blue", 80);

    const std::string expected = watchers.front()->snapshot().SerializeAsString();
    for (int i = 1; i < watchers_count; i++) {
        const v1::Notification told = watchers[static_cast<std::size_t>(i)]->notification();
        EXPECT_EQ(told.snapshot().SerializeAsString(), expected);
        EXPECT_EQ(told.cookie(), static_cast<std::uint64_t>(i));
    }
}

TEST_F(PublishAndWatch, registrations_of_one_name_have_their_own_handles_and_cookies) {
    Client publisher(daemon), watcher(daemon);
    const std::uint64_t cookies[] = {7, 0, UINT64_MAX};
    for (std::uint32_t i = 0; i < 3; i++)
        ASSERT_EQ(watcher.watch("web", cookies[i]), i + 1);
    for (int i = 0; i < 3; i++)
        watcher.notification();

    publisher.publish("web", "blue", 80);

    std::vector<std::uint64_t> told(3);
    for (int i = 0; i < 3; i++) {
        const v1::Notification next = watcher.notification();
        ASSERT_GE(next.handle(), 1u);
        ASSERT_LE(next.handle(), 3u);
        told[next.handle() - 1] = next.cookie();
        EXPECT_EQ(digest(next.snapshot()), "blue:80");
    }
    EXPECT_TRUE(std::equal(told.begin(), told.end(), cookies));
}

TEST_F(PublishAndWatch, a_registration_that_ended_is_not_told_and_its_neighbours_are) {
    Client publisher(daemon), watcher(daemon);
    for (std::uint32_t handle = 1; handle <= 3; handle++) {
        ASSERT_EQ(watcher.watch("web"), handle);
        watcher.notification();
    }

    watcher.unwatch("web", 2);
    publisher.publish("web", "blue", 80);

    std::vector<std::uint32_t> told;
    for (const v1::Event &event : watcher.events_so_far())
        told.push_back(event.notification().handle());
    std::sort(told.begin(), told.end());
    EXPECT_EQ(told, (std::vector<std::uint32_t>{1, 3}));
}

TEST_F(PublishAndWatch, a_client_that_watches_itself_is_told_what_it_does) {
    Client client(daemon);
    client.watch("web");
    EXPECT_EQ(digest(client.snapshot()), "");

    client.publish("web", "blue", 80);
    EXPECT_EQ(digest(client.snapshot()), "blue:80");
    client.withdraw("web", "blue");

    EXPECT_EQ(digest(client.snapshot()), "");
}

TEST_F(PublishAndWatch, the_reply_comes_before_the_first_notification_of_its_handle) {
    constexpr std::uint32_t names_count = 50;
    RawSocket client(daemon.socket());
    std::string bytes = hello_frame();
    for (std::uint32_t i = 0; i < names_count; i++) {
        const std::string name = "n" + std::to_string(i);
        bytes += frame_of(publish_request(name, "", 80), 100 + i);
        bytes += frame_of(register_request(name), 200 + i);
        bytes += frame_of(publish_request(name, "", 81), 300 + i);
    }

    client.send(bytes);

    std::vector<bool> answered(names_count + 1, false);
    std::uint32_t told_last_state = 0;
    while (told_last_state < names_count) {
        const std::optional<v1::Event> event = client.receive();
        ASSERT_TRUE(event);
        if (event->has_reply()) {
            ASSERT_EQ(event->reply().status(), v1::STATUS_OK) << event->reply().text();
            if (event->reply().handle() != 0) answered.at(event->reply().handle()) = true;
            continue;
        }
        ASSERT_TRUE(answered.at(event->notification().handle()));
        told_last_state += digest(event->notification().snapshot()) == ":81" ? 1 : 0;
    }
}

TEST_F(PublishAndWatch, versions_rise_through_changes_and_an_empty_time) {
    Client publisher(daemon), watcher(daemon);
    watcher.watch("web");
    watcher.snapshot();

    for (std::uint32_t round = 1; round <= 100; round++) {
        publisher.publish("web", "blue", round);
        watcher.await_digest("blue:" + std::to_string(round));
        if (round % 10 != 0) continue;
        publisher.withdraw("web", "blue");
        watcher.await_digest(""); // await checks that versions rise
    }

    EXPECT_TRUE(watcher.events_so_far().empty());
}

TEST_F(PublishAndWatch, node1_and_node10_are_told_apart) {
    Client publisher(daemon), watcher(daemon);
    watcher.watch("cluster");
    watcher.snapshot();

    for (const auto &[instance, port] : {std::pair{"node10", 10u}, {"node1", 1u}, {"node", 9u}})
        EXPECT_EQ(publisher.publish("cluster", instance, port).generation(), 1u);

    watcher.await_digest("node10:10 node1:1 node:9");
}

// A name that begins like another one must not be taken for it, whichever was published first.
TEST_F(PublishAndWatch, withdrawing_node1_leaves_node10_and_the_other_way_round) {
    Client publisher(daemon), watcher(daemon);
    for (const char *name : {"longer first", "shorter first"}) {
        const bool longer_first = name == std::string("longer first");
        publisher.publish(name, longer_first ? "node10" : "node1", longer_first ? 10 : 1);
        publisher.publish(name, longer_first ? "node1" : "node10", longer_first ? 1 : 10);
        watcher.watch(name);
        ASSERT_EQ(digest(watcher.snapshot()), "node10:10 node1:1");

        publisher.withdraw(name, "node1");
        EXPECT_EQ(digest(watcher.snapshot()), "node10:10");
        publisher.publish(name, "node1", 2);
        EXPECT_EQ(digest(watcher.snapshot()), "node10:10 node1:2");
        publisher.withdraw(name, "node10");

        EXPECT_EQ(digest(watcher.snapshot()), "node1:2");
    }
}

TEST_F(PublishAndWatch, a_publication_without_instance_stands_beside_one_with_an_instance) {
    Client publisher(daemon), watcher(daemon);
    publisher.publish("web", "blue", 80);
    publisher.publish("web", "", 81);
    watcher.watch("web");
    ASSERT_EQ(digest(watcher.snapshot()), ":81 blue:80");

    publisher.publish("web", "", 82);
    EXPECT_EQ(digest(watcher.snapshot()), ":82 blue:80");
    publisher.withdraw("web", "");

    EXPECT_EQ(digest(watcher.snapshot()), "blue:80");
}

TEST_F(PublishAndWatch, the_same_instance_in_two_scopes_is_two_publications) {
    Client publisher(daemon), watcher(daemon);
    publisher.publish("web", "blue", 80, v1::SCOPE_LOCAL);
    publisher.publish("web", "blue", 81, v1::SCOPE_SYSTEM);
    publisher.publish("web", "blue", 82, v1::SCOPE_RACK);
    watcher.watch("web");
    ASSERT_EQ(digest(watcher.snapshot()), "blue:80 blue:81 blue:82");

    publisher.withdraw("web", "blue", v1::SCOPE_SYSTEM);

    EXPECT_EQ(digest(watcher.snapshot()), "blue:80 blue:82");
}

TEST_F(PublishAndWatch, every_field_of_a_publication_arrives_unchanged) {
    Client publisher(daemon), watcher(daemon);
    v1::Request request = publish_request("web", "blue", 65535, v1::SCOPE_SYSTEM);
    v1::Publish &publish = *request.mutable_publish();
    publish.mutable_endpoint()->mutable_ipv4()->set_address(0xfffefdfc);
    publish.set_ha_role(v1::HA_ROLE_STANDBY);
    publish.set_issu_role(v1::ISSU_ROLE_TERTIARY);
    publish.set_issu_id(UINT32_MAX);
    publisher.ok(request);

    watcher.watch("web");

    const v1::Snapshot told = watcher.snapshot();
    ASSERT_EQ(told.instances_size(), 1);
    const v1::Instance &instance = told.instances(0);
    EXPECT_EQ(instance.endpoint().ipv4().address(), 0xfffefdfcu);
    EXPECT_EQ(instance.endpoint().ipv4().port(), 65535u);
    EXPECT_EQ(instance.scope(), v1::SCOPE_SYSTEM);
    EXPECT_EQ(instance.ha_role(), v1::HA_ROLE_STANDBY);
    EXPECT_EQ(instance.issu_role(), v1::ISSU_ROLE_TERTIARY);
    EXPECT_EQ(instance.issu_id(), UINT32_MAX);
}

TEST_F(PublishAndWatch, an_endpoint_may_change_its_kind) {
    Client publisher(daemon), watcher(daemon);
    publisher.publish("db", "main", 5432);
    watcher.watch("db");
    watcher.snapshot();

    publisher.ok(path_request("db", "main", "/run/db.sock"));

    EXPECT_EQ(digest(watcher.snapshot()), "main:/run/db.sock");
}

} // namespace
