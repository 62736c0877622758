// Frames that come in pieces, in heaps, or as nonsense.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "client.h"
#include "harness.h"
#include "proto/frame.h"

namespace {

using namespace system_test;

class Frames : public System {
  protected:
    // Ends with a reply that gives a reason, after `answers` good ones.
    static void expect_broken_off(RawSocket &client, std::size_t answers, std::uint32_t seq) {
        const std::vector<v1::Event> events = client.receive_to_end();
        ASSERT_EQ(events.size(), answers + 1);
        for (std::size_t i = 0; i < answers; i++)
            EXPECT_EQ(events[i].reply().status(), v1::STATUS_OK) << events[i].reply().text();
        EXPECT_EQ(events.back().reply().status(), v1::STATUS_PROTOCOL);
        EXPECT_EQ(events.back().reply().seq(), seq);
        EXPECT_TRUE(events.back().reply().text().ends_with('.')) << events.back().reply().text();
    }
};

TEST_F(Frames, one_byte_at_a_time_is_understood) {
    Client watcher(daemon);
    watcher.watch("web");
    watcher.snapshot();
    RawSocket client(daemon.socket());
    const std::string bytes = hello_frame() + frame_of(publish_request("web", "slow", 80), 2) +
                              frame_of(list_request("web"), 3);

    for (const char byte : bytes) {
        client.send({&byte, 1});
        watcher.status(); // the daemon has had its turn with that byte
    }

    for (std::uint32_t seq = 1; seq <= 3; seq++) {
        const std::optional<v1::Event> event = client.receive();
        ASSERT_TRUE(event);
        EXPECT_EQ(event->reply().seq(), seq);
        EXPECT_EQ(event->reply().status(), v1::STATUS_OK);
    }
    EXPECT_EQ(digest(watcher.snapshot()), "slow:80");
}

TEST_F(Frames, half_a_frame_waits_for_its_rest_and_holds_up_nobody) {
    Client witness(daemon);
    RawSocket client(daemon.socket());
    client.send(hello_frame());
    client.receive();
    const std::string frame = frame_of(path_request("web", "half", long_path(4000)), 2);

    client.send(std::string_view(frame).substr(0, 2000));
    for (std::uint32_t i = 1; i <= 50; i++)
        witness.publish("other", "", i);
    EXPECT_FALSE(client.has_event());
    EXPECT_EQ(witness.status().services(), 1u);
    client.send(std::string_view(frame).substr(2000));

    EXPECT_EQ(client.receive()->reply().seq(), 2u);
    EXPECT_EQ(witness.status().services(), 2u);
}

TEST_F(Frames, many_frames_in_one_write_are_answered_in_order) {
    constexpr std::uint32_t last = 2000;
    RawSocket client(daemon.socket());
    std::string bytes = hello_frame();
    for (std::uint32_t seq = 2; seq <= last; seq++)
        bytes += frame_of(status_request(), seq);

    client.send(bytes);

    for (std::uint32_t seq = 1; seq <= last; seq++)
        ASSERT_EQ(client.receive()->reply().seq(), seq);
}

TEST_F(Frames, a_frame_of_the_largest_length_is_taken) {
    RawSocket client(daemon.socket());
    v1::Request request = status_request();
    request.set_seq(2);
    std::string message = request.SerializeAsString();
    constexpr std::size_t field_header_bytes = 4; // tag of an unknown field, length of three bytes
    const std::size_t bytes = ds::proto::frame_bytes_max - message.size() - field_header_bytes;
    message += "\x7a"; // field 15, bytes
    for (int shift = 0; shift < 21; shift += 7)
        message += static_cast<char>((bytes >> shift & 0x7f) | (shift < 14 ? 0x80u : 0u));
    message.append(bytes, 'x');
    ASSERT_EQ(message.size(), ds::proto::frame_bytes_max);
    std::string frame;
    ds::proto::append_header(frame, message.size());

    client.send(hello_frame() + frame + message);

    EXPECT_EQ(client.receive()->reply().seq(), 1u);
    const v1::Reply reply = client.receive()->reply();
    EXPECT_EQ(reply.seq(), 2u);
    EXPECT_EQ(reply.status(), v1::STATUS_OK) << reply.text();
}

TEST_F(Frames, an_empty_frame_ends_the_session_with_a_reason) {
    RawSocket stranger(daemon.socket()), client(daemon.socket());

    stranger.send(std::string(4, '\0'));
    client.send(hello_frame() + std::string(4, '\0'));

    expect_broken_off(stranger, 0, 0);
    expect_broken_off(client, 1, 0);
}

TEST_F(Frames, a_length_above_the_largest_ends_the_session_with_a_reason) {
    for (const std::size_t length : {ds::proto::frame_bytes_max + 1, std::size_t{0xffffffff}}) {
        RawSocket client(daemon.socket());
        std::string header;
        ds::proto::append_header(header, length);

        client.send(hello_frame() + header);

        expect_broken_off(client, 1, 0);
    }
}

TEST_F(Frames, nonsense_behind_a_valid_frame_is_refused_after_its_answer) {
    Client watcher(daemon);
    watcher.watch("web");
    watcher.snapshot();
    RawSocket client(daemon.socket());

    client.send(hello_frame() + frame_of(publish_request("web", "", 80), 2) +
                std::string(100, '\xff'));

    expect_broken_off(client, 2, 0);
    watcher.await_digest("");
}

TEST_F(Frames, text_that_is_not_utf8_is_refused) {
    RawSocket client(daemon.socket());
    client.send(hello_frame());
    client.receive();
    std::string frame = frame_of(publish_request("wXb", "", 80), 2);
    std::replace(frame.begin(), frame.end(), 'X', '\xff');

    client.send(frame);

    const v1::Reply reply = client.receive()->reply();
    EXPECT_NE(reply.status(), v1::STATUS_OK);
    EXPECT_TRUE(reply.text().ends_with('.')) << reply.text();
}

TEST_F(Frames, requests_behind_a_broken_frame_are_not_carried_out) {
    Client witness(daemon);
    RawSocket client(daemon.socket());

    client.send(hello_frame() + std::string(4, '\0') + frame_of(publish_request("web", "", 80), 2));

    expect_broken_off(client, 1, 0);
    witness.await_sessions(1);
    EXPECT_EQ(witness.status().publishes(), 0u);
}

TEST_F(Frames, a_client_that_ends_its_sending_still_gets_its_answers) {
    RawSocket client(daemon.socket());
    client.send(hello_frame() + frame_of(status_request(), 2));

    client.end_sending();

    const std::vector<v1::Event> events = client.receive_to_end();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1].reply().seq(), 2u);
}

// ---- seeded nonsense ----

class Nonsense : public Frames {
  protected:
    static constexpr int rounds = 300;

    void SetUp() override {
        witness_.publish("witness", "", 80);
        witness_.watch("witness");
        witness_.snapshot();
    }

    // Sends the bytes and waits for the session's end, which has to come whatever they mean.
    void send_and_check(const std::string &bytes) {
        RawSocket client(daemon.socket());
        client.send(bytes);
        client.end_sending();
        client.receive_to_end(); // throws at anything that is no event
        witness_.publish("witness", "", ++port_);
        ASSERT_EQ(digest(witness_.snapshot()), ":" + std::to_string(port_));
    }

    void check_end() {
        witness_.await_sessions(1);
        const v1::StatusReply status = witness_.status();
        EXPECT_EQ(status.services(), 1u);
        EXPECT_EQ(status.registrations(), 1u);
        EXPECT_EQ(status.queued_bytes(), 0u);
    }

    std::string random_bytes(std::size_t bytes_max) {
        std::string bytes(1 + random_() % bytes_max, '\0');
        for (char &byte : bytes)
            byte = static_cast<char>(random_());
        return bytes;
    }

    static std::string valid_session() {
        return hello_frame() + frame_of(publish_request("victim", "blue", 80), 2) +
               frame_of(path_request("victim", "red", "/run/x"), 3) +
               frame_of(register_request("victim", 77), 4) + frame_of(list_request("victim"), 5) +
               frame_of(unregister_request("victim", 1), 6) +
               frame_of(withdraw_request("victim", "blue"), 7) + frame_of(status_request(), 8);
    }

    std::mt19937 random_{20240229};

  private:
    Client witness_{daemon};
    std::uint32_t port_ = 1;
};

TEST_F(Nonsense, random_bytes_end_only_their_own_session) {
    for (int i = 0; i < rounds; i++)
        ASSERT_NO_FATAL_FAILURE(send_and_check(random_bytes(300))) << "round " << i;

    check_end();
}

TEST_F(Nonsense, random_messages_in_valid_frames_end_only_their_own_session) {
    for (int i = 0; i < rounds; i++) {
        std::string bytes = i % 2 == 0 ? hello_frame() : "";
        const std::string message = random_bytes(100);
        ds::proto::append_header(bytes, message.size());
        ASSERT_NO_FATAL_FAILURE(send_and_check(bytes + message)) << "round " << i;
    }

    check_end();
}

TEST_F(Nonsense, flipped_bits_in_a_valid_session_end_only_their_own_session) {
    const std::string valid = valid_session();
    for (int i = 0; i < rounds; i++) {
        std::string bytes = valid;
        for (std::uint32_t flips = 1 + random_() % 3; flips > 0; flips--)
            bytes[random_() % bytes.size()] ^= static_cast<char>(1u << random_() % 8);
        ASSERT_NO_FATAL_FAILURE(send_and_check(bytes)) << "round " << i;
    }

    check_end();
}

TEST_F(Nonsense, a_session_cut_anywhere_ends_only_itself) {
    const std::string valid = valid_session();

    for (std::size_t bytes = 0; bytes <= valid.size(); bytes++)
        ASSERT_NO_FATAL_FAILURE(send_and_check(valid.substr(0, bytes))) << bytes << " bytes";

    check_end();
}

} // namespace
