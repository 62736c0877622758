#include "host/server.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "directory_fixture.h"

namespace ds::host {
namespace {

v1::Request status_request() {
    v1::Request request;
    request.mutable_status();
    return request;
}

v1::Request withdraw_request(std::string name, std::string instance, std::uint32_t id = 0) {
    v1::Request request;
    request.mutable_withdraw()->set_name(std::move(name));
    request.mutable_withdraw()->set_instance(std::move(instance));
    request.mutable_withdraw()->set_scope(v1::SCOPE_SYSTEM);
    request.mutable_withdraw()->set_service_id(id);
    return request;
}

TEST(Server, an_instance_that_begins_like_another_is_another) {
    Client client;
    client.hello();
    const v1::Reply ten = client.call(publish_request("server.prefix", "node10"));

    const v1::Reply one = client.call(publish_request("server.prefix", "node1"));
    const v1::Reply none = client.call(publish_request("server.prefix"));
    const v1::Reply gone = client.call(withdraw_request("server.prefix", "node"));

    EXPECT_EQ(one.generation(), 1u);
    EXPECT_EQ(none.generation(), 1u);
    EXPECT_NE(one.service_id(), ten.service_id());
    EXPECT_EQ(gone.status(), v1::STATUS_NOT_FOUND);
}

TEST(Server, the_answer_to_a_registration_stands_before_its_first_notification) {
    Client publisher, watcher;
    publisher.hello();
    watcher.hello();
    publisher.call(publish_request("server.order"));

    watcher.send(register_request("server.order", 5));
    const v1::Event first = watcher.receive();
    const v1::Event second = watcher.receive();

    ASSERT_TRUE(first.has_reply());
    ASSERT_TRUE(second.has_notification());
    EXPECT_EQ(second.notification().handle(), first.reply().handle());
    EXPECT_EQ(second.notification().cookie(), 5u);
    EXPECT_EQ(second.notification().snapshot().instances_size(), 1);
}

TEST(Server, changes_of_one_turn_are_told_once_with_the_last_state) {
    Client publisher, watcher;
    publisher.hello();
    watcher.hello();
    watcher.call(register_request("server.coalesce"));
    watcher.receive();
    const std::uint64_t coalesced = shared_server().counters().coalesced;

    for (int i = 0; i < 10; i++)
        publisher.send(publish_request("server.coalesce"));
    const v1::Event event = watcher.receive();

    EXPECT_EQ(event.notification().snapshot().instances(0).generation(), 10u);
    EXPECT_EQ(shared_server().counters().coalesced, coalesced + 9);
}

TEST(Server, a_departure_is_told_and_leaves_nothing_behind) {
    Client watcher;
    watcher.hello();
    watcher.call(register_request("server.departure"));
    watcher.receive();
    {
        Client publisher;
        publisher.hello();
        publisher.call(publish_request("server.departure"));
        publisher.call(register_request("server.departure.watched"));
        EXPECT_EQ(watcher.receive().notification().snapshot().instances_size(), 1);
    }

    const v1::Event event = watcher.receive();

    EXPECT_EQ(event.notification().snapshot().instances_size(), 0);
    EXPECT_EQ(shared_server().directory().find("server.departure.watched"), nullptr);
}

TEST(Server, a_client_that_has_much_departs_bit_by_bit_and_leaves_nothing) {
    constexpr int count = 100;
    Client watcher;
    watcher.hello();
    watcher.call(register_request("server.much.99"));
    watcher.receive();
    Account *account = nullptr;
    {
        Client publisher;
        publisher.hello();
        shared_server().sessions().for_each([&](Session &one) { account = &one.account(); });
        for (int i = 0; i < count; i++) {
            publisher.call(publish_request("server.much." + std::to_string(i)));
            publisher.call(register_request("server.watched." + std::to_string(i)));
        }
        EXPECT_EQ(watcher.receive().notification().snapshot().instances_size(), 1);
        EXPECT_EQ(account->used[Resource::publications], 100u);
        EXPECT_EQ(account->used[Resource::registrations], 101u);
    }

    const v1::Event event = watcher.receive();

    EXPECT_EQ(event.notification().snapshot().instances_size(), 0);
    EXPECT_EQ(shared_server().directory().totals().services, 0u);
    EXPECT_EQ(shared_server().directory().totals().registrations, 1u);
    EXPECT_EQ(account->used[Resource::publications], 0u);
    EXPECT_EQ(account->used[Resource::registrations], 1u);
    EXPECT_EQ(account->used[Resource::sessions], 1u);
}

TEST(Server, unregistering_removes_a_name_that_nobody_uses) {
    Client client;
    client.hello();
    const v1::Reply reply = client.call(register_request("server.unregister"));
    v1::Request unregister;
    unregister.mutable_unregister()->set_name("server.unregister");
    unregister.mutable_unregister()->set_handle(reply.handle());
    ASSERT_NE(shared_server().directory().find("server.unregister"), nullptr);

    const v1::Reply first = client.call(unregister);
    const v1::Reply second = client.call(unregister);

    EXPECT_EQ(first.status(), v1::STATUS_OK);
    EXPECT_EQ(second.status(), v1::STATUS_NOT_FOUND);
    EXPECT_EQ(shared_server().directory().find("server.unregister"), nullptr);
}

TEST(Server, a_withdrawal_by_id_is_told_to_the_publisher) {
    Client publisher, other;
    publisher.hello();
    other.hello();
    const v1::Reply published = publisher.call(publish_request("server.by_id", "x"));

    const v1::Reply reply =
        other.call(withdraw_request("server.by_id", "", published.service_id()));
    const v1::Event event = publisher.receive();

    EXPECT_EQ(reply.status(), v1::STATUS_OK);
    ASSERT_TRUE(event.has_withdrawn());
    EXPECT_EQ(event.withdrawn().service_id(), published.service_id());
    EXPECT_EQ(event.withdrawn().name(), "server.by_id");
    EXPECT_EQ(event.withdrawn().instance(), "x");
    EXPECT_EQ(event.withdrawn().by_pid(), static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(shared_server().directory().find("server.by_id"), nullptr);
}

TEST(Server, a_broken_protocol_ends_that_session_with_an_answer) {
    struct Case {
        const char *symptom;
        std::string bytes;
    };
    std::string longer, empty_body;
    proto::append_header(longer, proto::frame_bytes_max + 1);
    v1::Request without_body;
    without_body.set_seq(9);
    proto::append_frame(empty_body, without_body);
    const Case cases[] = {{"too long", longer},
                          {"no body", empty_body},
                          {"garbage", std::string("\x02\x00\x00\x00\xff\xff", 6)},
                          {"no message", std::string(4, '\0')}};
    Client bystander;
    bystander.hello();
    for (const Case &one : cases) {
        Client client;
        client.hello();

        client.send_bytes(one.bytes);

        EXPECT_EQ(client.receive_reply().status(), v1::STATUS_PROTOCOL) << one.symptom;
        EXPECT_TRUE(client.is_disconnected()) << one.symptom;
    }
    EXPECT_EQ(bystander.call(status_request()).status(), v1::STATUS_OK);
}

TEST(Server, requests_before_hello_and_a_second_hello_end_the_session) {
    Client early, twice;
    twice.hello();

    const v1::Reply too_early = early.call(publish_request("server.early"));

    EXPECT_EQ(too_early.status(), v1::STATUS_PROTOCOL);
    EXPECT_TRUE(early.is_disconnected());
    EXPECT_THROW(twice.hello(), std::runtime_error);
    EXPECT_TRUE(twice.is_disconnected());
}

TEST(Server, a_client_that_does_not_read_is_not_read_from_until_it_does) {
    Client publisher, hog(1);
    publisher.hello();
    hog.hello();
    v1::Request request = publish_request("server.hog");
    request.mutable_publish()->set_scope(v1::SCOPE_LOCAL);
    request.mutable_publish()->mutable_endpoint()->set_path("/" + std::string(3999, 'p'));
    for (int i = 0; i < 60; i++) {
        request.mutable_publish()->set_instance(std::to_string(i));
        publisher.call(request);
    }
    v1::Request list;
    list.mutable_list()->set_name("server.hog");
    constexpr std::uint32_t requests = 50; // of 240 KiB each

    const std::uint32_t last = [&] {
        std::uint32_t seq = 0;
        for (std::uint32_t i = 0; i < requests; i++)
            seq = hog.send(list);
        return seq;
    }();
    for (int i = 0; i < 100; i++)
        shared_loop().turn(0);
    const std::size_t queued = shared_server().queued_bytes();
    v1::Reply reply;
    for (std::uint32_t i = 0; i < requests; i++)
        reply = hog.receive_reply();

    EXPECT_GT(queued, Session::answers_bytes_max);
    EXPECT_LT(queued, 2 * Session::answers_bytes_max + 4096);
    EXPECT_EQ(reply.seq(), last);
    EXPECT_EQ(reply.list().names(0).instances_size(), 60);
}

TEST(Server, a_slow_watcher_ends_with_the_latest_state_and_holds_little) {
    Client publisher, slow(1);
    publisher.hello();
    slow.hello();
    slow.call(register_request("server.slow"));
    constexpr std::uint32_t changes = 3000;

    for (std::uint32_t i = 0; i < changes; i++)
        publisher.call(publish_request("server.slow"));
    const std::size_t queued = shared_server().queued_bytes();
    std::uint32_t generation = 0, notifications = 0;
    while (generation < changes) {
        const v1::Event event = slow.receive();
        notifications++;
        if (event.notification().snapshot().instances_size() > 0)
            generation = event.notification().snapshot().instances(0).generation();
    }

    EXPECT_LT(queued, 4096u);
    EXPECT_LT(notifications, changes);
    EXPECT_EQ(generation, changes);
}

TEST(Server, a_half_closed_connection_still_gets_its_answers) {
    Client client;
    client.hello();
    const std::uint32_t seq = client.send(status_request());
    shutdown(client.fd(), SHUT_WR);

    const v1::Reply reply = client.receive_reply();

    EXPECT_EQ(reply.seq(), seq);
    EXPECT_TRUE(client.is_disconnected());
}

TEST(Server, an_ended_session_that_does_not_take_its_last_bytes_is_let_go) {
    Client publisher, hog(1);
    publisher.hello();
    hog.hello();
    v1::Request request = publish_request("server.unread");
    request.mutable_publish()->set_scope(v1::SCOPE_LOCAL);
    request.mutable_publish()->mutable_endpoint()->set_path("/" + std::string(3999, 'p'));
    publisher.call(request);
    v1::Request list;
    list.mutable_list()->set_name("server.unread");
    for (int i = 0; i < 20; i++)
        hog.send(list);
    shutdown(hog.fd(), SHUT_WR);
    for (int i = 0; i < 200; i++) // a session reads for a share of a turn only
        shared_loop().turn(0);
    const std::uint32_t while_draining = shared_server().sessions().count();

    advance_time(4'000'000'000);
    shared_loop().turn(0);
    const std::uint32_t in_time = shared_server().sessions().count();
    advance_time(2'000'000'000);
    shared_loop().turn(0);

    EXPECT_EQ(while_draining, 2u);
    EXPECT_EQ(in_time, 2u);
    EXPECT_EQ(shared_server().sessions().count(), 1u);
}

TEST(Server, the_status_tells_what_is_there) {
    Client client, watcher;
    client.hello();
    watcher.hello();
    client.call(publish_request("server.status", "a"));
    client.call(publish_request("server.status", "b"));
    watcher.call(register_request("server.status"));

    const v1::StatusReply status = client.call(status_request()).status_info();

    EXPECT_EQ(status.pid(), static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(status.sessions(), 2u);
    EXPECT_EQ(status.names(), 1u);
    EXPECT_EQ(status.services(), 2u);
    EXPECT_EQ(status.registrations(), 1u);
    EXPECT_EQ(status.relay(), "none");
    EXPECT_EQ(status.node(), std::string("\x02\x10\x20\x30\x40\x50", 6));
    EXPECT_GT(status.resident_bytes(), 0u);
}

TEST(SessionTable, an_id_does_not_come_back_with_its_slot) {
    const std::uint64_t gone = Client().hello();

    Client next;
    const std::uint64_t id = next.hello();

    EXPECT_EQ(static_cast<std::uint32_t>(id), static_cast<std::uint32_t>(gone));
    EXPECT_NE(id, gone);
    EXPECT_EQ(shared_server().sessions().find(gone), nullptr);
    EXPECT_NE(shared_server().sessions().find(id), nullptr);
}

} // namespace
} // namespace ds::host
