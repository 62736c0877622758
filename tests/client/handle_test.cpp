// Connecting, losing the connection, and what the descriptor promises.
#include <fcntl.h>

#include "client_fixture.h"

namespace client_test {
namespace {

TEST_F(ClientTest, it_connects_greets_and_knows_whom_it_speaks_to) {
    options_.display_name = "camera";
    make();
    pump();
    peer_.accept();

    const v1::Request hello = peer_.read_request();
    v1::Event event = reply_to(hello);
    event.mutable_reply()->mutable_hello()->set_protocol(1);
    event.mutable_reply()->mutable_hello()->set_session(4711);
    event.mutable_reply()->mutable_hello()->set_daemon_version("1.2");
    peer_.send(event);
    pump();

    EXPECT_EQ(hello.hello().display_name(), "camera");
    EXPECT_EQ(hello.hello().protocol(), 1u);
    ds_client_info_t info{};
    info.size = sizeof info;
    ASSERT_EQ(ds_client_get_info(handle_, &info), DS_CLIENT_OK);
    EXPECT_EQ(info.state, DS_CLIENT_CONNECTED);
    EXPECT_EQ(info.session, 4711u);
    EXPECT_EQ(info.connect_count, 1u);
    EXPECT_STREQ(info.daemon_version, "1.2");
    EXPECT_STREQ(info.reason, "");
}

TEST_F(ClientTest, making_a_handle_speaks_to_nobody) {
    make();

    EXPECT_TRUE(is_readable());
    EXPECT_EQ(told_, Lines{});
}

TEST_F(ClientTest, a_dispatch_with_nothing_to_do_does_nothing) {
    connect();

    EXPECT_FALSE(is_readable());
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(ds_client_dispatch(handle_), DS_CLIENT_OK);

    EXPECT_FALSE(is_readable());
    EXPECT_FALSE(peer_.has_request());
    EXPECT_EQ(told_, Lines{});
}

TEST_F(ClientTest, nobody_listening_is_told_and_tried_again) {
    peer_.stop_listening();
    make();
    const auto failures = [&] {
        return std::count_if(told_.begin(), told_.end(), [](const std::string &line) {
            return line.starts_with("disconnected -7");
        });
    };
    await([&] { return failures() == 3; });

    peer_.listen();
    await([&] { return told_.back() == "connecting"; });
    peer_.accept();
    peer_.greet();
    await([&] { return told_.back() == "connected"; });
}

TEST_F(ClientTest, the_waits_between_attempts_follow_from_the_seed) {
    peer_.stop_listening();
    options_.backoff_first_ms = 1'000'000'000;
    options_.backoff_max_ms = 1'000'000'000;
    make();

    pump();

    EXPECT_EQ(told_.size(), 1u); // and the next attempt is days away
    EXPECT_FALSE(is_readable());
}

TEST_F(ClientTest, a_full_queue_of_the_listener_is_waited_for_within_the_time_of_an_answer) {
    options_.flags = DS_CLIENT_NO_RECONNECT;
    peer_.fill_queue();
    make();
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(ds_client_wait(handle_, 10'000), DS_CLIENT_OK);
    EXPECT_EQ(told_, Lines{});

    peer_.empty_queue();
    await([&] { return !told_.empty(); });
    peer_.accept();
    peer_.greet();
    pump();

    EXPECT_EQ(taken(), (Lines{"connecting", "connected"}));
}

TEST_F(ClientTest, a_queue_that_stays_full_ends_the_attempt) {
    options_.answer_ms = 25;
    peer_.fill_queue();
    make();

    await([&] { return !told_.empty(); });

    EXPECT_TRUE(told_.front().starts_with("disconnected -5")) << told_.front();
}

TEST_F(ClientTest, without_reconnect_one_loss_is_the_end) {
    options_.flags = DS_CLIENT_NO_RECONNECT;
    connect();

    peer_.hang_up();
    pump();

    EXPECT_EQ(taken(), Lines{"disconnected -8 the daemon ended the connection"});
    EXPECT_FALSE(is_readable());
    EXPECT_EQ(ds_client_dispatch(handle_), DS_CLIENT_OK);
    EXPECT_EQ(ds_client_wait(handle_, -1), DS_CLIENT_ERROR_DISCONNECTED);
}

TEST_F(ClientTest, a_greeting_that_is_not_answered_in_time_is_given_up) {
    options_.answer_ms = 1;
    make();
    pump();
    peer_.accept();

    await([&] { return told_.back().starts_with("disconnected -5"); });

    EXPECT_TRUE(peer_.read_request().has_hello());
    EXPECT_TRUE(peer_.is_ended());
}

TEST_F(ClientTest, a_refused_greeting_tells_the_reason_of_the_daemon) {
    make();
    pump();
    peer_.accept();

    peer_.refuse(v1::STATUS_DENIED, "not for you");
    await([&] { return told_.back().starts_with("disconnected"); });

    EXPECT_EQ(told_.back(), "disconnected -10 not for you");
}

TEST_F(ClientTest, a_connection_refused_before_the_greeting_tells_status_and_reason) {
    make();
    pump();
    peer_.accept();
    v1::Event event;
    event.mutable_reply()->set_status(v1::STATUS_LIMIT);
    event.mutable_reply()->set_text("full");

    peer_.send(event);
    await([&] { return told_.back().starts_with("disconnected"); });

    ds_client_info_t info{};
    info.size = sizeof info;
    ASSERT_EQ(ds_client_get_info(handle_, &info), DS_CLIENT_OK);
    EXPECT_EQ(told_.back(), "disconnected -10 full");
    EXPECT_EQ(info.status, std::uint32_t{DS_CLIENT_STATUS_LIMIT});
}

TEST_F(ClientTest, a_version_that_it_does_not_speak_is_a_protocol_error) {
    make();
    pump();
    peer_.accept();
    v1::Event event = reply_to(peer_.read_request());
    event.mutable_reply()->mutable_hello()->set_protocol(2);

    peer_.send(event);
    await([&] { return told_.back().starts_with("disconnected"); });

    EXPECT_TRUE(told_.back().starts_with("disconnected -9")) << told_.back();
}

// ---- what a broken peer sends ----

class BrokenPeer : public ClientTest {
  protected:
    void expect_loss(const std::string &bytes) {
        connect();
        peer_.send_bytes(bytes);
        await([&] { return !told_.empty(); });
        EXPECT_TRUE(told_.front().starts_with("disconnected -9")) << told_.front();
        EXPECT_TRUE(peer_.is_ended());
        told_.clear();
        reconnect();
    }
};

TEST_F(BrokenPeer, garbage_costs_it_the_connection) {
    expect_loss(std::string("\x05\x00\x00\x00\xff\xff\xff\xff\xff", 9));
}

TEST_F(BrokenPeer, a_frame_that_is_too_long_costs_it_the_connection_at_its_header) {
    expect_loss(std::string("\x01\x00\x10\x00", 4)); // one byte more than 1 MiB
}

TEST_F(BrokenPeer, an_answer_to_what_was_not_asked_costs_it_the_connection) {
    v1::Event event;
    event.mutable_reply()->set_seq(99);
    expect_loss(ScriptedPeer::frame_of(event));
}

TEST_F(BrokenPeer, a_protocol_reply_tells_its_reason) {
    connect();
    v1::Event event;
    event.mutable_reply()->set_status(v1::STATUS_PROTOCOL);
    event.mutable_reply()->set_text("what was that?");

    peer_.send(event);
    await([&] { return !told_.empty(); });

    EXPECT_EQ(told_.front(), "disconnected -9 what was that?");
}

TEST_F(BrokenPeer, a_notification_before_the_greeting_costs_it_the_connection) {
    make();
    pump();
    peer_.accept();
    v1::Event event;
    event.mutable_notification()->set_cookie(1);

    peer_.send(event);
    await([&] { return told_.back().starts_with("disconnected"); });

    EXPECT_TRUE(told_.back().starts_with("disconnected -9")) << told_.back();
}

TEST_F(ClientTest, events_that_nobody_asked_for_or_knows_are_ignored) {
    connect();
    v1::Event notification;
    notification.mutable_notification()->set_cookie(12345);
    v1::Event withdrawn;
    withdrawn.mutable_withdrawn()->set_service_id(1);
    withdrawn.mutable_withdrawn()->set_name("x");

    peer_.send(notification);
    peer_.send(withdrawn);
    peer_.send_bytes(std::string("\x03\x00\x00\x00\xfa\x01\x00", 7)); // an event of a later version
    pump();

    EXPECT_EQ(told_, Lines{});
}

TEST_F(ClientTest, a_frame_that_comes_byte_by_byte_is_told_once_with_its_last_byte) {
    connect();
    watch_told("web", "a:1");
    taken();
    const std::string frame = ScriptedPeer::frame_of(notify(registration_, snapshot_of("web", "")));

    for (const char byte : frame) {
        EXPECT_EQ(told_, Lines{});
        peer_.send_bytes({&byte, 1});
        pump();
    }

    EXPECT_EQ(told_, Lines{"web: "});
}

TEST_F(ClientTest, a_snapshot_as_large_as_a_frame_can_be_arrives) {
    connect();
    watch_told("web", "");
    taken();
    v1::Snapshot snapshot = snapshot_of("web", "a:1");
    snapshot.mutable_instances(0)->mutable_endpoint()->set_path(std::string(1'048'400, 'x'));
    v1::Event event = notify(registration_, snapshot);
    ASSERT_GT(event.ByteSizeLong(), 1'048'400u);
    const std::string frame = ScriptedPeer::frame_of(event);

    for (std::size_t at = 0; at < frame.size(); at += 65'536) {
        peer_.send_bytes(std::string_view(frame).substr(at, 65'536));
        pump();
    }

    ASSERT_EQ(told_.size(), 1u);
    EXPECT_GT(told_[0].size(), 1'048'400u);
}

// ---- callbacks ----

TEST_F(ClientTest, a_callback_may_destroy_the_handle) {
    connect();
    watch("web");
    publish("web", "a", 1);
    pump();
    const v1::Request registration = peer_.accept_register();
    peer_.accept_publish(5);
    on_told_ = [&](const std::string &line) {
        if (line == "web: a:1") ds_client_destroy(std::exchange(handle_, nullptr));
    };
    ds_client_handle_t *const handle = handle_;

    peer_.send(notify(registration, snapshot_of("web", "a:1")));
    peer_.send(notify(registration, snapshot_of("web", "")));
    EXPECT_EQ(ds_client_dispatch(handle), DS_CLIENT_OK);

    EXPECT_EQ(handle_, nullptr);
    EXPECT_EQ(taken(), (Lines{"live 5/1", "web: a:1"}));
    EXPECT_TRUE(peer_.is_ended());
}

TEST_F(ClientTest, the_state_callback_may_destroy_the_handle) {
    connect();
    on_told_ = [&](const std::string &) { ds_client_destroy(std::exchange(handle_, nullptr)); };
    ds_client_handle_t *const handle = handle_;

    peer_.hang_up();

    EXPECT_EQ(ds_client_wait(handle, 10'000), DS_CLIENT_ERROR_DISCONNECTED);
    EXPECT_EQ(handle_, nullptr);
}

TEST_F(ClientTest, a_callback_must_not_dispatch_or_wait) {
    Lines results;
    on_told_ = [&](const std::string &) {
        results.push_back(std::to_string(ds_client_dispatch(handle_)));
        results.push_back(std::to_string(ds_client_wait(handle_, 0)));
        results.push_back(std::to_string(ds_client_sync(handle_, 0)));
        results.push_back(std::to_string(ds_client_wait_connected(handle_, 0)));
    };

    connect();

    EXPECT_EQ(results, (Lines(8, "-4")));
}

// ---- arguments ----

TEST_F(ClientTest, options_out_of_range_are_refused) {
    const std::string long_path(108, 'x'), long_name(256, 'n');
    const std::function<void(ds_client_options_t &)> spoils[] = {
        [](auto &it) { it.size = 0; },
        [](auto &it) { it.size = 4; },
        [&](auto &it) { it.socket = long_path.c_str(); },
        [](auto &it) { it.socket = ""; },
        [&](auto &it) { it.display_name = long_name.c_str(); },
        [](auto &it) { it.display_name = "\xff"; },
        [](auto &it) { it.backoff_first_ms = 9, it.backoff_max_ms = 8; },
        [](auto &it) { it.flags = 0x80; }};

    for (const auto &spoil : spoils) {
        ds_client_options_t options = options_;
        spoil(options);
        EXPECT_EQ(ds_client_create(&options, &handle_), DS_CLIENT_ERROR_ARGUMENT);
        EXPECT_EQ(handle_, nullptr);
    }
    EXPECT_EQ(ds_client_create(nullptr, &handle_), DS_CLIENT_ERROR_ARGUMENT);
    EXPECT_EQ(ds_client_create(&options_, nullptr), DS_CLIENT_ERROR_ARGUMENT);
}

TEST_F(ClientTest, a_longer_structure_is_fine_as_long_as_its_unknown_fields_are_zero) {
    struct {
        ds_client_options_t known;
        std::uint64_t unknown;
    } options{options_, 0};
    options.known.size = sizeof options;

    EXPECT_EQ(ds_client_create(&options.known, &handle_), DS_CLIENT_OK);
    ds_client_destroy(std::exchange(handle_, nullptr));

    options.unknown = 1;
    EXPECT_EQ(ds_client_create(&options.known, &handle_), DS_CLIENT_ERROR_ARGUMENT);
}

TEST_F(ClientTest, a_shorter_structure_is_filled_as_far_as_it_goes) {
    make();
    ds_client_info_t info{};
    info.size = offsetof(ds_client_info_t, reason);
    info.connect_count = 77;

    EXPECT_EQ(ds_client_get_info(handle_, &info), DS_CLIENT_OK);

    EXPECT_EQ(info.size, offsetof(ds_client_info_t, reason));
    EXPECT_EQ(info.connect_count, 77u);
}

TEST_F(ClientTest, every_error_has_its_sentence) {
    Lines sentences;
    for (int error = 0; error >= -13; error--)
        sentences.emplace_back(ds_client_strerror(error));

    std::sort(sentences.begin(), sentences.end());

    EXPECT_EQ(std::unique(sentences.begin(), sentences.end()), sentences.end());
    EXPECT_STREQ(ds_client_strerror(1), "unknown error");
    EXPECT_EQ(ds_client_abi(), DS_CLIENT_ABI);
}

TEST_F(ClientTest, its_descriptors_are_closed_by_exec_and_with_the_handle) {
    make();
    const int fd = ds_client_fd(handle_);
    EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);

    ds_client_destroy(std::exchange(handle_, nullptr));

    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
}

} // namespace
} // namespace client_test
