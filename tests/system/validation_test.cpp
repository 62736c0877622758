// Every refusal has its status and a sentence that names what is wrong, and changes nothing.
#include <gtest/gtest.h>

#include <functional>

#include "client.h"
#include "harness.h"
#include "proto/frame.h"

namespace {

using namespace system_test;

v1::Request changed(v1::Request request, const std::function<void(v1::Publish &)> &change) {
    change(*request.mutable_publish());
    return request;
}

const v1::Request good = publish_request("web", "blue", 80);

struct Refusal {
    const char *test_name;
    v1::Request request;
    v1::Status status;
    const char *mentioned; // in the sentence
};

v1::Request scoped_path(v1::Scope scope) {
    return changed(path_request("web", "", "/run/web"), [scope](auto &p) { p.set_scope(scope); });
}

const Refusal refusals[] = {
    {"a_publication_without_name", publish_request("", "blue", 80), v1::STATUS_INVALID, "name"},
    {"a_name_of_256_bytes", publish_request(std::string(256, 'n'), "", 80), v1::STATUS_INVALID,
     "255"},
    {"a_name_with_a_semicolon", publish_request("a;b", "", 80), v1::STATUS_INVALID, "name"},
    {"a_name_with_a_line_break", publish_request("a\nb", "", 80), v1::STATUS_INVALID, "name"},
    {"a_name_with_a_nul_byte", publish_request(std::string_view("a\0b", 3), "", 80),
     v1::STATUS_INVALID, "name"},
    {"a_name_with_a_control_character_of_two_bytes", publish_request("a\u0085b", "", 80),
     v1::STATUS_INVALID, "name"},
    {"an_instance_of_255_bytes", publish_request("web", std::string(255, 'i'), 80),
     v1::STATUS_INVALID, "254"},
    {"an_instance_with_a_semicolon", publish_request("web", "blue;", 80), v1::STATUS_INVALID,
     "instance"},
    {"an_instance_with_a_tab", publish_request("web", "\t", 80), v1::STATUS_INVALID, "instance"},
    {"a_publication_without_scope", publish_request("web", "", 80, v1::SCOPE_NONE),
     v1::STATUS_INVALID, "scope"},
    {"an_unknown_scope", publish_request("web", "", 80, static_cast<v1::Scope>(4)),
     v1::STATUS_INVALID, "scope"},
    {"a_publication_without_endpoint", changed(good, [](auto &p) { p.clear_endpoint(); }),
     v1::STATUS_INVALID, "endpoint"},
    {"port_0", publish_request("web", "", 0), v1::STATUS_INVALID, "port"},
    {"port_65536", publish_request("web", "", 65536), v1::STATUS_INVALID, "port"},
    {"an_empty_path", path_request("web", "", ""), v1::STATUS_INVALID, "path"},
    {"a_relative_path", path_request("web", "", "run/web"), v1::STATUS_INVALID, "path"},
    {"a_path_of_4001_bytes", path_request("web", "", long_path(4001)), v1::STATUS_INVALID, "4000"},
    {"a_path_with_a_line_break", path_request("web", "", "/run/\n"), v1::STATUS_INVALID, "path"},
    {"a_path_for_the_system", scoped_path(v1::SCOPE_SYSTEM), v1::STATUS_INVALID, "LOCAL"},
    {"a_path_for_the_rack", scoped_path(v1::SCOPE_RACK), v1::STATUS_INVALID, "LOCAL"},
    {"an_unknown_ha_role",
     changed(good, [](auto &p) { p.set_ha_role(static_cast<v1::HaRole>(3)); }), v1::STATUS_INVALID,
     "ha_role"},
    {"an_unknown_issu_role",
     changed(good, [](auto &p) { p.set_issu_role(static_cast<v1::IssuRole>(4)); }),
     v1::STATUS_INVALID, "issu_role"},
    {"withdrawing_what_is_not_published", withdraw_request("web", "green"), v1::STATUS_NOT_FOUND,
     "green"},
    {"withdrawing_another_scope", withdraw_request("kept", "", v1::SCOPE_SYSTEM),
     v1::STATUS_NOT_FOUND, "kept"},
    {"withdrawing_without_name", withdraw_request("", ""), v1::STATUS_INVALID, "name"},
    {"withdrawing_without_scope", withdraw_request("kept", "", v1::SCOPE_NONE), v1::STATUS_INVALID,
     "scope"},
    {"withdrawing_an_unknown_id", withdraw_id_request("web", 0xfffffff0), v1::STATUS_NOT_FOUND,
     "id"},
    {"registering_without_name", register_request(""), v1::STATUS_INVALID, "name"},
    {"registering_a_name_of_256_bytes", register_request(std::string(256, 'n')), v1::STATUS_INVALID,
     "255"},
    {"unregistering_an_unknown_handle", unregister_request("kept", 2), v1::STATUS_NOT_FOUND, "2"},
    {"unregistering_handle_0", unregister_request("kept", 0), v1::STATUS_NOT_FOUND, "0"},
    {"unregistering_under_another_name", unregister_request("web", 1), v1::STATUS_NOT_FOUND, "web"},
    {"listing_an_unknown_name", list_request("web"), v1::STATUS_NOT_FOUND, "web"},
    {"listing_a_name_with_a_semicolon", list_request("a;"), v1::STATUS_INVALID, "name"},
    {"listing_behind_a_name_of_256_bytes", list_request("", std::string(256, 'n')),
     v1::STATUS_INVALID, "after"},
};

void PrintTo(const Refusal &refusal, std::ostream *out) {
    *out << refusal.test_name;
}

void expect_sentence(const v1::Reply &reply, const std::string &mentioned) {
    const std::string &text = reply.text();
    EXPECT_NE(text.find(mentioned), text.npos) << text;
    EXPECT_NE(text.find(' '), text.npos) << text;
    EXPECT_TRUE(text.ends_with('.')) << text;
}

class Validation : public System, public testing::WithParamInterface<Refusal> {};

TEST_P(Validation, is_refused_with_a_sentence_and_changes_nothing) {
    const Refusal &refusal = GetParam();
    Client client(daemon);
    client.publish("kept", "", 80);
    ASSERT_EQ(client.watch("kept"), 1u);
    client.notification();

    const v1::Reply reply = client.call(refusal.request);

    EXPECT_EQ(reply.status(), refusal.status) << reply.text();
    expect_sentence(reply, refusal.mentioned);
    const v1::StatusReply status = client.status();
    EXPECT_EQ(status.services(), 1u);
    EXPECT_EQ(status.registrations(), 1u);
    EXPECT_TRUE(client.events_so_far().empty());
}

INSTANTIATE_TEST_SUITE_P(, Validation, testing::ValuesIn(refusals),
                         [](const auto &test) { return test.param.test_name; });

// ---- what breaks the conversation ----

struct Fault {
    const char *test_name;
    bool after_hello;
    v1::Request request;
    std::uint32_t seq;
};

v1::Request old_hello() {
    v1::Request request = hello_request();
    request.mutable_hello()->set_protocol(0);
    return request;
}

const Fault faults[] = {
    {"a_publication_before_hello", false, good, 5},
    {"a_status_query_before_hello", false, status_request(), 5},
    {"a_hello_of_version_0", false, old_hello(), 5},
    {"a_hello_without_seq", false, hello_request(), 0},
    {"a_second_hello", true, hello_request(), 5},
    {"a_request_without_seq", true, status_request(), 0},
    {"a_request_without_body", true, v1::Request(), 5},
};

void PrintTo(const Fault &fault, std::ostream *out) {
    *out << fault.test_name;
}

class ProtocolFault : public System, public testing::WithParamInterface<Fault> {};

TEST_P(ProtocolFault, ends_the_session_with_the_reason) {
    const Fault &fault = GetParam();
    Client witness(daemon);
    RawSocket client(daemon.socket());
    if (fault.after_hello) {
        client.send(hello_frame());
        ASSERT_EQ(client.receive()->reply().status(), v1::STATUS_OK);
    }

    client.send(frame_of(fault.request, fault.seq));

    const std::vector<v1::Event> events = client.receive_to_end();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].reply().status(), v1::STATUS_PROTOCOL);
    EXPECT_EQ(events[0].reply().seq(), fault.seq);
    expect_sentence(events[0].reply(), "");
    witness.await_sessions(1);
    EXPECT_EQ(witness.status().bad_frames(), 1u);
}

INSTANTIATE_TEST_SUITE_P(, ProtocolFault, testing::ValuesIn(faults),
                         [](const auto &test) { return test.param.test_name; });

// ---- the edges of what is allowed ----

using Limits = System;

TEST_F(Limits, a_display_name_of_256_bytes_is_refused_and_a_shorter_one_may_follow) {
    RawSocket client(daemon.socket());

    client.send(frame_of(hello_request(std::string(256, 'd')), 1));

    const v1::Reply refused = client.receive()->reply();
    EXPECT_EQ(refused.status(), v1::STATUS_INVALID);
    expect_sentence(refused, "display_name");
    client.send(frame_of(hello_request(std::string(255, 'd')), 2));
    EXPECT_EQ(client.receive()->reply().status(), v1::STATUS_OK);
}

TEST_F(Limits, a_newer_protocol_is_answered_with_the_version_both_speak) {
    RawSocket client(daemon.socket());
    v1::Request hello = hello_request();
    hello.mutable_hello()->set_protocol(UINT32_MAX);

    client.send(frame_of(hello, 1));

    const v1::HelloReply reply = client.receive()->reply().hello();
    EXPECT_EQ(reply.protocol(), ds::proto::protocol_version);
    EXPECT_EQ(reply.frame_bytes_max(), ds::proto::frame_bytes_max);
    EXPECT_EQ(reply.node().size(), 6u);
    EXPECT_FALSE(reply.daemon_version().empty());
}

TEST_F(Limits, the_longest_texts_arrive_unchanged) {
    const std::string name(255, 'n'), instance(254, 'i'), path = long_path(4000);
    Client publisher(daemon), watcher(daemon);
    publisher.ok(path_request(name, instance, path));

    watcher.watch(name);

    const v1::Snapshot told = watcher.snapshot();
    EXPECT_EQ(told.name(), name);
    EXPECT_EQ(digest(told), instance + ":" + path);
    publisher.withdraw(name, instance);
    EXPECT_EQ(digest(watcher.snapshot()), "");
}

TEST_F(Limits, names_in_every_script_are_kept_apart_byte_by_byte) {
    const std::vector<std::string> names = {"straße", "strasse", "服务", "служба",
                                            "😀",      " ",       "é",    "e\u0301"};
    Client publisher(daemon), watcher(daemon);

    for (std::uint32_t i = 0; i < names.size(); i++)
        publisher.publish(names[i], names[i], i + 1);

    for (std::uint32_t i = 0; i < names.size(); i++) {
        watcher.watch(names[i]);
        EXPECT_EQ(digest(watcher.snapshot()), names[i] + ":" + std::to_string(i + 1));
    }
    EXPECT_EQ(watcher.status().names(), names.size());
}

TEST_F(Limits, a_name_takes_as_many_instances_as_one_notification_can_tell) {
    constexpr std::size_t path_bytes = 4000;
    Client publisher(daemon), watcher(daemon);
    std::uint32_t count = 0;
    v1::Reply reply;
    while (count < ds::proto::frame_bytes_max / path_bytes) {
        reply = publisher.call(path_request("big", std::to_string(count), long_path(path_bytes)));
        if (reply.status() != v1::STATUS_OK) break;
        count++;
    }

    EXPECT_EQ(reply.status(), v1::STATUS_LIMIT);
    expect_sentence(reply, "big");
    EXPECT_GT(count, 200u);
    watcher.watch("big");
    EXPECT_EQ(watcher.snapshot().instances_size(), static_cast<int>(count));
    publisher.publish("other", "", 80);
    publisher.ok(path_request("big", "0", "/short"));
    EXPECT_EQ(watcher.snapshot().instances_size(), static_cast<int>(count));
}

} // namespace
