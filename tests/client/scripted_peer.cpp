#include "scripted_peer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "proto/frame.h"

namespace client_test {
namespace {

constexpr int patience_ms = 10'000;

} // namespace

ScriptedPeer::ScriptedPeer() {
    char pattern[] = "/tmp/ds_client_XXXXXX";
    folder_ = ::mkdtemp(pattern);
    path_ = folder_ + "/s";
    listen();
}

ScriptedPeer::~ScriptedPeer() {
    hang_up();
    empty_queue();
    stop_listening();
    ::rmdir(folder_.c_str());
}

void ScriptedPeer::listen() {
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener_, 4), 0);
}

void ScriptedPeer::stop_listening() {
    if (listener_ >= 0) ::close(listener_);
    listener_ = -1;
    ::unlink(path_.c_str());
}

void ScriptedPeer::fill_queue() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    for (int result = 0; result == 0;) {
        strangers_.push_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        result =
            ::connect(strangers_.back(), reinterpret_cast<sockaddr *>(&address), sizeof address);
    }
}

// The last of them did not get into the queue.
void ScriptedPeer::empty_queue() {
    for (std::size_t i = 0; i + 1 < strangers_.size(); i++)
        ::close(::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC));
    for (const int fd : strangers_)
        ::close(fd);
    strangers_.clear();
}

void ScriptedPeer::accept() {
    hang_up();
    pollfd item{listener_, POLLIN, 0};
    ASSERT_EQ(::poll(&item, 1, patience_ms), 1) << "nobody connects";
    fd_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(fd_, 0);
    const timeval patience{patience_ms / 1000, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
}

void ScriptedPeer::greet() {
    const v1::Request request = read_request();
    EXPECT_TRUE(request.has_hello());
    v1::Event event = reply_to(request);
    event.mutable_reply()->mutable_hello()->set_protocol(1);
    event.mutable_reply()->mutable_hello()->set_session(42);
    event.mutable_reply()->mutable_hello()->set_daemon_version("9.9");
    event.mutable_reply()->mutable_hello()->set_node("\x02\x01\x01\x01\x01\x09");
    send(event);
}

bool ScriptedPeer::has_connection() const {
    pollfd item{listener_, POLLIN, 0};
    return ::poll(&item, 1, 0) == 1;
}

bool ScriptedPeer::has_request() const {
    char byte = 0;
    if (fd_ < 0) return false;
    return !in_.empty() || ::recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1;
}

bool ScriptedPeer::is_ended() {
    char byte = 0;
    return in_.empty() && ::recv(fd_, &byte, 1, MSG_PEEK) <= 0;
}

v1::Request ScriptedPeer::read_request() {
    for (;;) {
        std::string_view message;
        std::size_t consumed = 0;
        if (ds::proto::cut_frame(in_, message, consumed) == ds::proto::Cut::complete) {
            v1::Request request;
            EXPECT_TRUE(request.ParseFromArray(message.data(), static_cast<int>(message.size())));
            in_.erase(0, consumed);
            return request;
        }
        char bytes[65536];
        const ssize_t got = ::read(fd_, bytes, sizeof bytes);
        EXPECT_GT(got, 0) << "no request comes";
        if (got <= 0) return {};
        in_.append(bytes, static_cast<std::size_t>(got));
    }
}

void ScriptedPeer::hang_up() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    in_.clear();
}

void ScriptedPeer::send_bytes(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        ASSERT_GT(sent, 0);
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

std::string ScriptedPeer::frame_of(const v1::Event &event) {
    std::string bytes;
    ds::proto::append_frame(bytes, event);
    return bytes;
}

v1::Request ScriptedPeer::accept_publish(std::uint32_t service_id, std::uint32_t generation) {
    v1::Request request = read_request();
    EXPECT_TRUE(request.has_publish()) << request.body_case();
    v1::Event event = reply_to(request);
    event.mutable_reply()->set_service_id(service_id);
    event.mutable_reply()->set_generation(generation);
    send(event);
    return request;
}

v1::Request ScriptedPeer::accept_register(std::uint32_t handle) {
    v1::Request request = read_request();
    EXPECT_TRUE(request.has_register_()) << request.body_case();
    v1::Event event = reply_to(request);
    event.mutable_reply()->set_handle(handle);
    send(event);
    return request;
}

v1::Request ScriptedPeer::refuse(v1::Status status, const std::string &text) {
    v1::Request request = read_request();
    send(reply_to(request, status, text));
    return request;
}

v1::Request ScriptedPeer::acknowledge() {
    return refuse(v1::STATUS_OK, "");
}

v1::Event reply_to(const v1::Request &request, v1::Status status, const std::string &text) {
    v1::Event event;
    event.mutable_reply()->set_seq(request.seq());
    event.mutable_reply()->set_status(status);
    event.mutable_reply()->set_text(text);
    return event;
}

v1::Snapshot snapshot_of(const std::string &name, const std::string &instances,
                         std::uint64_t version, std::uint32_t first_id) {
    v1::Snapshot snapshot;
    snapshot.set_name(name);
    snapshot.set_version(version);
    std::istringstream words(instances);
    for (std::string word; words >> word;) {
        const std::size_t colon = word.find(':');
        v1::Instance *instance = snapshot.add_instances();
        instance->set_service_id(first_id++);
        instance->set_instance(word.substr(0, colon));
        instance->set_scope(v1::SCOPE_LOCAL);
        instance->set_node(std::string("\x02\x00\x00\x00\x00\x01", 6));
        instance->set_local(true);
        instance->mutable_endpoint()->mutable_ipv4()->set_address(0x0a000001);
        instance->mutable_endpoint()->mutable_ipv4()->set_port(
            static_cast<std::uint32_t>(std::stoul(word.substr(colon + 1))));
        instance->set_generation(1);
        instance->set_pid(100);
    }
    return snapshot;
}

v1::Event notify(const v1::Request &registration, v1::Snapshot snapshot, bool reconciling) {
    v1::Event event;
    event.mutable_notification()->set_handle(1);
    event.mutable_notification()->set_cookie(registration.register_().cookie());
    *event.mutable_notification()->mutable_snapshot() = std::move(snapshot);
    event.mutable_notification()->mutable_snapshot()->set_reconciling(reconciling);
    return event;
}

} // namespace client_test
