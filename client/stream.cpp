#include "client/stream.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

#include "client/parse.h"
#include "proto/frame.h"

namespace ds::client {
namespace {

constexpr std::size_t read_bytes_min = 65'536;
constexpr std::size_t kept_capacity_max = 4 * proto::frame_bytes_max; // of an empty buffer

// The kernel lets connect() wait for room in the listener's queue only on a blocking socket, for as
// long as the send timeout says.
void set_connect_timeout(int fd, Deadline deadline) {
    if (deadline == no_deadline) return;
    using std::chrono::microseconds;
    const Deadline now = std::chrono::steady_clock::now();
    const auto left = deadline <= now ? microseconds(0)
                                      : std::chrono::duration_cast<microseconds>(deadline - now);
    const auto us = std::max<long long>(left.count(), 1); // 0 would mean for ever
    timeval wait{};
    wait.tv_sec = us / 1'000'000;
    wait.tv_usec = us % 1'000'000;
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
}

Outcome connect_to(int fd, const sockaddr_un &address) {
    int result = 0;
    do {
        result = ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    } while (result < 0 && errno == EINTR);
    if (result < 0 && errno == EAGAIN) {
        return failed(Failure::timeout, "the daemon did not answer in time");
    }
    if (result < 0) return failed(Failure::unreachable, std::strerror(errno));
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        return failed_errno(Failure::unreachable, "fcntl", errno);
    }
    return {};
}

} // namespace

bool parse_event(std::string_view bytes, v1::Event &event, std::size_t &consumed,
                 Outcome &outcome) {
    std::string_view message;
    switch (proto::cut_frame(bytes, message, consumed)) {
    case proto::Cut::partial:
        return false;
    case proto::Cut::too_long:
        outcome = failed(Failure::protocol, "the daemon sent a frame that is too long");
        return false;
    case proto::Cut::complete:
        break;
    }
    if (parse_message(message.data(), message.size(), event)) return true;
    outcome = failed(Failure::protocol, "the daemon sent a frame that cannot be read");
    return false;
}

Outcome connect_socket(const std::string &path, Deadline deadline, int &fd) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        return failed(Failure::unreachable, "a socket path has 1 to 107 bytes");
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    const bool waits = deadline > std::chrono::steady_clock::now();
    const int opened =
        ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | (waits ? 0 : SOCK_NONBLOCK), 0);
    if (opened < 0) return failed_errno(Failure::unreachable, "socket", errno);
    if (waits) set_connect_timeout(opened, deadline);
    Outcome outcome = connect_to(opened, address);
    if (!outcome.ok()) {
        ::close(opened);
        return outcome;
    }
    fd = opened;
    return outcome;
}

Stream::Stream(Stream &&other) noexcept {
    *this = std::move(other);
}

Stream &Stream::operator=(Stream &&other) noexcept {
    if (this == &other) return *this;
    close();
    std::swap(fd_, other.fd_);
    std::swap(next_seq_, other.next_seq_);
    out_.swap(other.out_);
    std::swap(out_start_, other.out_start_);
    in_.swap(other.in_);
    std::swap(in_start_, other.in_start_);
    std::swap(in_end_, other.in_end_);
    return *this;
}

void Stream::open(int fd) {
    close();
    fd_ = fd;
}

void Stream::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    next_seq_ = 1;
    out_.clear();
    out_start_ = in_start_ = in_end_ = 0;
}

std::uint32_t Stream::append(v1::Request &request) {
    const std::uint32_t seq = next_seq_;
    request.set_seq(seq);
    if (request.ByteSizeLong() > proto::frame_bytes_max) return 0;
    proto::append_frame(out_, request);
    next_seq_ = next_seq_ == UINT32_MAX ? 1 : next_seq_ + 1; // 0 is no sequence number
    return seq;
}

Outcome Stream::write_some() {
    Outcome outcome;
    while (out_start_ < out_.size()) {
        const ssize_t sent =
            ::send(fd_, out_.data() + out_start_, out_.size() - out_start_, MSG_NOSIGNAL);
        if (sent >= 0) {
            out_start_ += static_cast<std::size_t>(sent);
            continue;
        }
        if (errno == EINTR) continue;
        if (errno == EAGAIN) return outcome;
        outcome = failed_errno(Failure::closed, "send", errno);
        break;
    }
    drop_unsent();
    return outcome;
}

void Stream::drop_unsent() {
    out_.clear();
    out_start_ = 0;
    if (out_.capacity() > kept_capacity_max) std::string().swap(out_);
}

void Stream::make_room() {
    if (in_start_ == in_end_) {
        in_start_ = in_end_ = 0;
        if (in_.size() > kept_capacity_max) std::string(read_bytes_min, '\0').swap(in_);
    }
    if (in_.size() - in_end_ >= read_bytes_min) return;
    if (in_start_ > 0) std::memmove(in_.data(), in_.data() + in_start_, in_end_ - in_start_);
    in_end_ -= in_start_;
    in_start_ = 0;
    if (in_.size() - in_end_ >= read_bytes_min) return;
    in_.resize(std::max(2 * in_.size(), in_end_ + 2 * read_bytes_min));
}

Outcome Stream::read_some() {
    make_room();
    for (;;) {
        const ssize_t got = ::recv(fd_, in_.data() + in_end_, in_.size() - in_end_, 0);
        if (got > 0) {
            in_end_ += static_cast<std::size_t>(got);
            return {};
        }
        // It resets the connection when it has not read everything that was sent.
        if (got == 0 || errno == ECONNRESET) {
            return failed(Failure::closed, "the daemon ended the connection");
        }
        if (errno == EINTR) continue;
        if (errno == EAGAIN) return {};
        return failed_errno(Failure::closed, "recv", errno);
    }
}

bool Stream::next(v1::Event &event, Outcome &outcome) {
    std::size_t consumed = 0;
    const std::string_view bytes(in_.data() + in_start_, in_end_ - in_start_);
    if (!parse_event(bytes, event, consumed, outcome)) return false;
    in_start_ += consumed;
    return true;
}

} // namespace ds::client
