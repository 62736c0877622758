#include "directory_fixture.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <stdexcept>

#include "proto/frame.h"
#include "relay/none.h"

namespace ds::host {

namespace {

constexpr int turns_max = 10'000; // a test that waits for longer waits in vain

std::uint64_t skipped_ns = 0;

struct Replacement {
    Loop *loop = nullptr;
    Server *server = nullptr;
};
Replacement replacement;

} // namespace

std::uint64_t shared_time_ns() {
    return Loop::monotonic_ns() + skipped_ns;
}

void replace_shared_server(Loop *loop, Server *server) {
    replacement = {loop, server};
}

void advance_time(std::uint64_t ns) {
    skipped_ns += ns;
}

Loop &shared_loop() {
    if (replacement.loop != nullptr) return *replacement.loop;
    static Loop loop(shared_time_ns);
    return loop;
}

Server &shared_server() {
    if (replacement.server != nullptr) return *replacement.server;
    static Config config = [] {
        Config made;
        made.socket = "/none/ds.sock";
        made.trace_dir = "/none/trace";
        made.node = {0x02, 0x10, 0x20, 0x30, 0x40, 0x50};
        return made;
    }();
    static relay::NoEngine engine;
    static PublicationSum sum;
    static Server server(shared_loop(), config, engine, sum, UniqueFd());
    return server;
}

v1::Publish a_publication(std::string name, std::string instance) {
    v1::Publish publish;
    publish.set_name(std::move(name));
    publish.set_instance(std::move(instance));
    publish.set_scope(v1::SCOPE_SYSTEM);
    publish.mutable_endpoint()->mutable_ipv4()->set_address(0x0a000001);
    publish.mutable_endpoint()->mutable_ipv4()->set_port(8080);
    return publish;
}

v1::Request publish_request(std::string name, std::string instance) {
    v1::Request request;
    *request.mutable_publish() = a_publication(std::move(name), std::move(instance));
    return request;
}

v1::Request register_request(std::string name, std::uint64_t cookie) {
    v1::Request request;
    request.mutable_register_()->set_name(std::move(name));
    request.mutable_register_()->set_cookie(cookie);
    return request;
}

Client::Client(int send_buffer_bytes) {
    std::array<int, 2> ends = {};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()) != 0)
        throw std::runtime_error("socketpair");
    fd_ = UniqueFd(ends[0]);
    UniqueFd far(ends[1]);
    if (send_buffer_bytes > 0)
        setsockopt(far.get(), SOL_SOCKET, SO_SNDBUF, &send_buffer_bytes, sizeof send_buffer_bytes);
    shared_server().accept(std::move(far));
}

Client::~Client() {
    const std::uint32_t sessions = shared_server().sessions().count();
    const bool was_ended = is_disconnected();
    fd_.reset();
    for (int i = 0; i < turns_max && !was_ended; i++) {
        if (shared_server().sessions().count() < sessions) return;
        shared_loop().turn(0);
    }
}

std::uint64_t Client::hello() {
    v1::Request request;
    request.mutable_hello()->set_protocol(proto::protocol_version);
    request.mutable_hello()->set_display_name("test");
    const v1::Reply reply = call(request);
    if (reply.status() != v1::STATUS_OK) throw std::runtime_error("hello refused");
    return reply.hello().session();
}

std::uint32_t Client::send(v1::Request request) {
    request.set_seq(++last_seq_);
    std::string bytes;
    proto::append_frame(bytes, request);
    send_bytes(bytes);
    return last_seq_;
}

void Client::send_bytes(std::string_view bytes) {
    for (int i = 0; i < turns_max && !bytes.empty(); i++) {
        const ssize_t sent = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent > 0)
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        else
            shared_loop().turn(0);
    }
    if (!bytes.empty()) throw std::runtime_error("the daemon does not read");
}

// False when the connection has ended.
bool Client::receive_more() {
    std::array<char, 65536> bytes;
    const ssize_t count = recv(fd_.get(), bytes.data(), bytes.size(), 0);
    if (count > 0) received_.append(bytes.data(), static_cast<std::size_t>(count));
    return count > 0 || (count < 0 && errno == EAGAIN);
}

v1::Event Client::receive() {
    for (int i = 0; i < turns_max; i++) {
        std::string_view message;
        std::size_t consumed = 0;
        if (proto::cut_frame(received_, message, consumed) == proto::Cut::complete) {
            v1::Event event;
            if (!event.ParseFromArray(message.data(), static_cast<int>(message.size())))
                throw std::runtime_error("unreadable event");
            received_.erase(0, consumed);
            return event;
        }
        shared_loop().turn(0);
        if (!receive_more()) throw std::runtime_error("disconnected");
    }
    throw std::runtime_error("no event came");
}

v1::Reply Client::receive_reply() {
    for (;;) {
        v1::Event event = receive();
        if (event.has_reply()) return event.reply();
    }
}

v1::Reply Client::call(v1::Request request) {
    const std::uint32_t seq = send(std::move(request));
    v1::Reply reply = receive_reply();
    if (reply.seq() != seq) throw std::runtime_error("an answer to another request");
    return reply;
}

bool Client::is_disconnected() {
    for (int i = 0; i < 3; i++) {
        shared_loop().turn(0);
        while (fd_.get() >= 0) {
            const std::size_t before = received_.size();
            if (!receive_more()) return true;
            if (received_.size() == before) break;
        }
    }
    return false;
}

} // namespace ds::host
