#include "link.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace ds::bench {

namespace {

constexpr std::size_t read_bytes = 64 * 1024;
constexpr std::uint32_t endpoint_address = 0x0a000001;

int connect_to(const std::string &path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        throw std::system_error(errno, std::generic_category(), "connect to " + path);
    return fd;
}

} // namespace

Link::Link(const std::string &socket_path) : fd_(connect_to(socket_path)) {
    v1::Request request;
    request.mutable_hello()->set_protocol(proto::protocol_version);
    put(request);
    flush();
    await_replies(1);
}

Link::~Link() {
    if (fd_ >= 0) close(fd_);
}

Link::Link(Link &&other) noexcept
    : fd_(std::exchange(other.fd_, -1)), seq_(other.seq_), out_(std::move(other.out_)),
      in_(std::move(other.in_)), in_start_(other.in_start_), in_end_(other.in_end_) {}

void Link::put(v1::Request &request) {
    request.set_seq(++seq_);
    proto::append_frame(out_, request);
}

void Link::flush() {
    std::size_t sent = 0;
    while (sent < out_.size()) {
        const ssize_t bytes = send(fd_, out_.data() + sent, out_.size() - sent, MSG_NOSIGNAL);
        if (bytes < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "send");
        if (bytes > 0) sent += static_cast<std::size_t>(bytes);
    }
    out_.clear();
}

void Link::fill(bool wait) {
    const std::size_t unread = in_end_ - in_start_;
    if (unread > 0) std::memmove(in_.data(), in_.data() + in_start_, unread);
    in_start_ = 0;
    in_end_ = unread;
    if (in_.size() - in_end_ < read_bytes) in_.resize(in_end_ + read_bytes);
    const ssize_t bytes = recv(fd_, in_.data() + in_end_, read_bytes, wait ? 0 : MSG_DONTWAIT);
    if (bytes == 0) throw std::runtime_error("the server ended the session");
    if (bytes > 0)
        in_end_ += static_cast<std::size_t>(bytes);
    else if (errno != EAGAIN && errno != EINTR)
        throw std::system_error(errno, std::generic_category(), "recv");
}

const v1::Event *Link::next() {
    static v1::Event event; // shared by all links: its strings keep their memory
    std::string_view message;
    std::size_t consumed = 0;
    const std::string_view unread(in_.data() + in_start_, in_end_ - in_start_);
    const proto::Cut cut = proto::cut_frame(unread, message, consumed);
    if (cut == proto::Cut::partial) return nullptr;
    if (cut == proto::Cut::too_long) throw std::runtime_error("a frame is too long");
    in_start_ += consumed;
    if (!event.ParseFromArray(message.data(), static_cast<int>(message.size())))
        throw std::runtime_error("an event cannot be decoded");
    if (event.has_reply() && event.reply().status() != v1::STATUS_OK)
        throw std::runtime_error("a request was refused: " + event.reply().text());
    return &event;
}

void Link::await_replies(std::size_t count) {
    std::size_t replies = 0;
    while (replies < count)
        take(true, [&replies](const v1::Event &event) { replies += event.has_reply() ? 1 : 0; });
}

v1::Request publish_request() {
    v1::Request request;
    v1::Publish &publish = *request.mutable_publish();
    publish.set_instance("primary");
    publish.set_scope(v1::SCOPE_SYSTEM);
    publish.mutable_endpoint()->mutable_ipv4()->set_address(endpoint_address);
    publish.mutable_endpoint()->mutable_ipv4()->set_port(1);
    return request;
}

} // namespace ds::bench
