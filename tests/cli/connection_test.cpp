// The client connection against a daemon that does exactly what each test says.
#include "client/connection.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "proto/frame.h"

namespace ds::client {
namespace {

using namespace std::chrono_literals;

// The daemon's end of one connection.
class Peer {
  public:
    explicit Peer(int fd) : fd_(fd) {}
    ~Peer() { ::close(fd_); }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    v1::Request read_request() {
        for (;;) {
            std::string_view message;
            std::size_t consumed = 0;
            if (proto::cut_frame(in_, message, consumed) == proto::Cut::complete) {
                v1::Request request;
                EXPECT_TRUE(
                    request.ParseFromArray(message.data(), static_cast<int>(message.size())));
                in_.erase(0, consumed);
                return request;
            }
            char bytes[65536];
            const ssize_t got = ::read(fd_, bytes, sizeof bytes);
            if (got <= 0) return {};
            in_.append(bytes, static_cast<std::size_t>(got));
        }
    }
    void wait_for_end() {
        while (read_request().seq() != 0)
            continue;
    }
    void write(const std::string &bytes) {
        std::size_t at = 0;
        while (at < bytes.size()) {
            const ssize_t sent = ::send(fd_, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
            ASSERT_GT(sent, 0);
            at += static_cast<std::size_t>(sent);
        }
    }
    void greet() {
        v1::Event event;
        event.mutable_reply()->set_seq(read_request().seq());
        event.mutable_reply()->mutable_hello()->set_session(42);
        write(frame(event));
    }
    static std::string frame(const v1::Event &event) {
        std::string bytes;
        proto::append_frame(bytes, event);
        return bytes;
    }

  private:
    int fd_;
    std::string in_;
};

v1::Event make_reply(std::uint32_t seq, v1::Status status = v1::STATUS_OK, const char *text = "") {
    v1::Event event;
    event.mutable_reply()->set_seq(seq);
    event.mutable_reply()->set_status(status);
    event.mutable_reply()->set_text(text);
    return event;
}

v1::Event make_notification(std::uint64_t cookie, std::size_t padding = 0) {
    v1::Event event;
    event.mutable_notification()->set_cookie(cookie);
    event.mutable_notification()->mutable_snapshot()->set_name(std::string(padding, 'x'));
    return event;
}

v1::Request make_status_query() {
    v1::Request request;
    request.mutable_status();
    return request;
}

class ConnectionTest : public testing::Test {
  protected:
    ConnectionTest() {
        char pattern[] = "/tmp/ds_connection_XXXXXX";
        folder_ = ::mkdtemp(pattern);
        path_ = folder_ + "/s";
        listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(::listen(listener_, 4), 0);
    }
    ~ConnectionTest() override {
        connection_.close(); // ends a peer that still reads
        if (thread_.joinable()) thread_.join();
        ::close(listener_);
        ::unlink(path_.c_str());
        ::rmdir(folder_.c_str());
    }

    void serve(std::function<void(Peer &)> behaviour) {
        thread_ = std::thread([this, behaviour = std::move(behaviour)] {
            Peer peer(::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC));
            behaviour(peer);
        });
    }
    void connect_to(std::function<void(Peer &)> behaviour) {
        serve([behaviour = std::move(behaviour)](Peer &peer) {
            peer.greet();
            behaviour(peer);
        });
        const Outcome outcome = connection_.connect(path_, "test", deadline_in(10s));
        ASSERT_TRUE(outcome.ok()) << outcome.text;
    }

    std::string folder_, path_;
    int listener_ = -1;
    Connection connection_;
    std::thread thread_;
};

TEST_F(ConnectionTest, nobody_at_the_path_is_unreachable) {
    const Outcome outcome = connection_.connect(folder_ + "/other", "", deadline_in(10s));

    EXPECT_EQ(outcome.failure, Failure::unreachable);
    EXPECT_FALSE(connection_.is_open());
}

TEST_F(ConnectionTest, a_path_longer_than_an_address_is_unreachable) {
    const Outcome outcome = connection_.connect("/" + std::string(200, 'x'), "", deadline_in(10s));

    EXPECT_EQ(outcome.failure, Failure::unreachable);
}

TEST_F(ConnectionTest, the_greeting_is_kept) {
    connect_to([](Peer &peer) { peer.wait_for_end(); });

    EXPECT_EQ(connection_.hello().session(), 42u);
    EXPECT_TRUE(connection_.is_open());
}

TEST_F(ConnectionTest, a_daemon_that_does_not_greet_is_a_timeout) {
    serve([](Peer &peer) { peer.wait_for_end(); });

    const Outcome outcome = connection_.connect(path_, "", deadline_in(20ms));

    EXPECT_EQ(outcome.failure, Failure::timeout);
    EXPECT_FALSE(connection_.is_open());
}

TEST_F(ConnectionTest, a_full_queue_of_the_listener_is_a_timeout) {
    std::vector<int> waiting;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    for (;;) {
        waiting.push_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        if (::connect(waiting.back(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
            break;
    }

    const Outcome outcome = connection_.connect(path_, "", deadline_in(20ms));

    EXPECT_EQ(outcome.failure, Failure::timeout);
    for (const int fd : waiting)
        ::close(fd);
}

TEST_F(ConnectionTest, a_refused_call_carries_status_and_text) {
    connect_to([](Peer &peer) {
        peer.write(
            Peer::frame(make_reply(peer.read_request().seq(), v1::STATUS_DENIED, "not you")));
    });
    v1::Request request = make_status_query();
    v1::Reply reply;

    const Outcome outcome = connection_.call(request, reply, deadline_in(10s));

    EXPECT_EQ(outcome.failure, Failure::refused);
    EXPECT_EQ(outcome.status, v1::STATUS_DENIED);
    EXPECT_EQ(outcome.text, "not you");
    EXPECT_EQ(reply.status(), v1::STATUS_DENIED);
}

TEST_F(ConnectionTest, events_before_a_reply_are_kept_in_order) {
    connect_to([](Peer &peer) {
        const std::uint32_t seq = peer.read_request().seq();
        peer.write(Peer::frame(make_notification(1)) + Peer::frame(make_notification(2)) +
                   Peer::frame(make_reply(seq)) + Peer::frame(make_notification(3)));
        peer.wait_for_end();
    });
    v1::Request request = make_status_query();
    v1::Reply reply;

    ASSERT_TRUE(connection_.call(request, reply, deadline_in(10s)).ok());

    for (const std::uint64_t cookie : {1u, 2u, 3u}) {
        v1::Event event;
        ASSERT_TRUE(connection_.receive(event, deadline_in(10s)).ok());
        EXPECT_EQ(event.notification().cookie(), cookie);
    }
}

TEST_F(ConnectionTest, pipelined_requests_leave_in_one_write_and_keep_their_numbers) {
    connect_to([](Peer &peer) {
        for (int i = 0; i < 100; i++)
            peer.write(Peer::frame(make_reply(peer.read_request().seq())));
        peer.wait_for_end();
    });
    std::vector<std::uint32_t> sent;
    for (int i = 0; i < 100; i++) {
        v1::Request request = make_status_query();
        sent.push_back(connection_.send(request));
    }
    EXPECT_GT(connection_.unsent_bytes(), 0u);

    std::vector<std::uint32_t> answered;
    v1::Event event;
    while (answered.size() < sent.size() && connection_.receive(event, deadline_in(10s)).ok()) {
        answered.push_back(event.reply().seq());
    }

    EXPECT_EQ(answered, sent);
    EXPECT_EQ(connection_.unsent_bytes(), 0u);
}

TEST_F(ConnectionTest, a_reply_that_comes_after_its_deadline_is_an_event_later) {
    connect_to([](Peer &peer) {
        const std::uint32_t late = peer.read_request().seq();
        const std::uint32_t next = peer.read_request().seq();
        peer.write(Peer::frame(make_reply(late)) + Peer::frame(make_reply(next)));
        peer.wait_for_end();
    });
    v1::Request first = make_status_query(), second = make_status_query();
    v1::Reply reply;
    v1::Event event;

    EXPECT_EQ(connection_.call(first, reply, no_wait).failure, Failure::timeout);
    EXPECT_TRUE(connection_.call(second, reply, deadline_in(10s)).ok());
    EXPECT_TRUE(connection_.receive(event, deadline_in(10s)).ok());

    EXPECT_EQ(reply.seq(), second.seq());
    EXPECT_EQ(event.reply().seq(), first.seq());
}

TEST_F(ConnectionTest, a_past_deadline_takes_what_is_there_and_does_not_wait) {
    connect_to([](Peer &peer) { peer.wait_for_end(); });
    v1::Event event;

    const Outcome outcome = connection_.receive(event, no_wait);

    EXPECT_EQ(outcome.failure, Failure::timeout);
    EXPECT_TRUE(connection_.is_open());
}

TEST_F(ConnectionTest, events_in_pieces_and_of_the_largest_size_arrive_whole) {
    constexpr std::size_t largest = proto::frame_bytes_max - 64;
    connect_to([](Peer &peer) {
        const std::string bytes = Peer::frame(make_notification(1, largest)) +
                                  Peer::frame(make_notification(2)) +
                                  Peer::frame(make_notification(3, largest));
        for (std::size_t at = 0; at < bytes.size(); at += 99'991)
            peer.write(bytes.substr(at, 99'991));
        peer.wait_for_end();
    });

    for (const std::uint64_t cookie : {1u, 2u, 3u}) {
        v1::Event event;
        ASSERT_TRUE(connection_.receive(event, deadline_in(10s)).ok());
        EXPECT_EQ(event.notification().cookie(), cookie);
        EXPECT_EQ(event.notification().snapshot().name().size(), cookie == 2 ? 0 : largest);
    }
}

TEST_F(ConnectionTest, a_daemon_that_writes_much_before_it_reads_does_not_block_a_flush) {
    constexpr std::size_t event_count = 20, padding = 500'000;
    connect_to([](Peer &peer) {
        for (std::size_t i = 0; i < event_count; i++)
            peer.write(Peer::frame(make_notification(i, padding)));
        peer.wait_for_end();
    });
    for (int i = 0; i < 40; i++) {
        v1::Request request;
        request.mutable_list()->set_name(std::string(padding, 'y'));
        ASSERT_NE(connection_.send(request), 0u);
    }

    const Outcome outcome = connection_.flush(deadline_in(20s));

    EXPECT_TRUE(outcome.ok()) << outcome.text;
    EXPECT_EQ(connection_.unsent_bytes(), 0u);
    v1::Event event;
    for (std::size_t i = 0; i < event_count; i++) {
        ASSERT_TRUE(connection_.receive(event, deadline_in(10s)).ok());
        EXPECT_EQ(event.notification().cookie(), i);
    }
}

TEST_F(ConnectionTest, what_the_daemon_said_last_is_read_before_its_end_is_told) {
    connect_to([](Peer &peer) {
        peer.write(Peer::frame(make_reply(0, v1::STATUS_UNAVAILABLE, "stopping")));
    });
    thread_.join(); // the peer has closed its end
    v1::Request request = make_status_query();
    connection_.send(request);
    v1::Event event;

    const Outcome first = connection_.receive(event, deadline_in(10s));
    const Outcome second = connection_.receive(event, deadline_in(10s));

    EXPECT_TRUE(first.ok()) << first.text;
    EXPECT_EQ(event.reply().text(), "stopping");
    EXPECT_EQ(second.failure, Failure::closed);
}

TEST_F(ConnectionTest, a_frame_that_is_too_long_is_a_protocol_failure) {
    connect_to([](Peer &peer) { peer.write(std::string("\xff\xff\xff\xff", 4)); });
    v1::Event event;

    EXPECT_EQ(connection_.receive(event, deadline_in(10s)).failure, Failure::protocol);
}

TEST_F(ConnectionTest, a_frame_that_is_no_event_is_a_protocol_failure_and_leaves_the_event) {
    connect_to([](Peer &peer) { peer.write(std::string("\x02\x00\x00\x00\xff\xff", 6)); });
    v1::Event event = make_notification(9);

    const Outcome outcome = connection_.receive(event, deadline_in(10s));

    EXPECT_EQ(outcome.failure, Failure::protocol);
    EXPECT_EQ(event.notification().cookie(), 9u);
}

TEST_F(ConnectionTest, a_request_larger_than_a_frame_is_not_sent) {
    connect_to([](Peer &peer) { peer.wait_for_end(); });
    v1::Request request;
    request.mutable_list()->set_name(std::string(proto::frame_bytes_max, 'x'));

    EXPECT_EQ(connection_.send(request), 0u);

    EXPECT_EQ(connection_.unsent_bytes(), 0u);
}

TEST_F(ConnectionTest, a_moved_connection_goes_on_where_it_was) {
    connect_to([](Peer &peer) {
        peer.write(Peer::frame(make_reply(peer.read_request().seq())));
        peer.wait_for_end();
    });
    const int fd = connection_.fd();
    Connection moved = std::move(connection_);
    v1::Request request = make_status_query();
    v1::Reply reply;

    const Outcome outcome = moved.call(request, reply, deadline_in(10s));

    EXPECT_TRUE(outcome.ok()) << outcome.text;
    EXPECT_EQ(moved.fd(), fd);
}

} // namespace
} // namespace ds::client
