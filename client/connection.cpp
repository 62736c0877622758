#include "client/connection.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

#include <fcntl.h>

#include "proto/frame.h"

namespace ds::client {
namespace {

using std::chrono::duration_cast;
using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr std::size_t read_bytes_min = 65'536;
constexpr std::size_t kept_capacity_max = 4 * proto::frame_bytes_max; // of an empty buffer

Outcome failed(Failure failure, std::string text) {
    return {failure, v1::STATUS_OK, std::move(text)};
}

Outcome failed_errno(Failure failure, const char *what, int error) {
    return failed(failure, std::string(what) + ": " + std::strerror(error));
}

Outcome timed_out() {
    return failed(Failure::timeout, "the daemon did not answer in time");
}

Outcome not_connected() {
    return failed(Failure::closed, "not connected");
}

// For poll(): rounded up, so that a wait never ends just before its deadline and spins.
int poll_ms(Deadline deadline) {
    if (deadline == no_deadline) return -1;
    const Deadline now = std::chrono::steady_clock::now();
    if (deadline <= now) return 0; // compared first: the difference to no_wait would overflow
    const auto ms = std::chrono::ceil<milliseconds>(deadline - now).count();
    return static_cast<int>(std::min<long long>(ms, INT_MAX));
}

// Waits for `events`; the deadline is read again after each signal.
Outcome await(int fd, short events, Deadline deadline) {
    for (;;) {
        pollfd item{fd, events, 0};
        const int ready = ::poll(&item, 1, poll_ms(deadline));
        if (ready > 0) return {};
        if (ready == 0) return timed_out();
        if (errno != EINTR) return failed_errno(Failure::closed, "poll", errno);
    }
}

// The kernel lets connect() wait for room in the listener's queue only on a blocking socket, for as
// long as the send timeout says.
void set_connect_timeout(int fd, Deadline deadline) {
    if (deadline == no_deadline) return;
    const Deadline now = std::chrono::steady_clock::now();
    const auto left =
        deadline <= now ? microseconds(0) : duration_cast<microseconds>(deadline - now);
    const auto us = std::max<long long>(left.count(), 1); // 0 would mean for ever
    timeval wait{};
    wait.tv_sec = us / 1'000'000;
    wait.tv_usec = us % 1'000'000;
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
}

} // namespace

Connection::Connection(Connection &&other) noexcept {
    *this = std::move(other);
}

Connection &Connection::operator=(Connection &&other) noexcept {
    if (this == &other) return *this;
    close();
    std::swap(fd_, other.fd_);
    std::swap(next_seq_, other.next_seq_);
    out_.swap(other.out_);
    std::swap(out_start_, other.out_start_);
    in_.swap(other.in_);
    std::swap(in_start_, other.in_start_);
    std::swap(in_end_, other.in_end_);
    kept_.swap(other.kept_);
    hello_.Swap(&other.hello_);
    return *this;
}

void Connection::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    next_seq_ = 1;
    out_.clear();
    out_start_ = in_start_ = in_end_ = 0;
    kept_.clear();
    hello_.Clear();
}

Outcome Connection::connect(const std::string &path, std::string_view display_name,
                            Deadline deadline) {
    close();
    Outcome outcome = open_socket(path, deadline);
    if (outcome.ok()) outcome = greet(display_name, deadline);
    if (!outcome.ok()) close();
    return outcome;
}

Outcome Connection::open_socket(const std::string &path, Deadline deadline) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        return failed(Failure::unreachable, "a socket path has 1 to 107 bytes");
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) return failed_errno(Failure::unreachable, "socket", errno);
    set_connect_timeout(fd_, deadline);
    int result = 0;
    do {
        result = ::connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    } while (result < 0 && errno == EINTR);
    if (result < 0 && errno == EAGAIN) return timed_out();
    if (result < 0) return failed(Failure::unreachable, std::strerror(errno));
    const int flags = ::fcntl(fd_, F_GETFL);
    if (flags < 0 || ::fcntl(fd_, F_SETFL, flags | O_NONBLOCK) < 0) {
        return failed_errno(Failure::unreachable, "fcntl", errno);
    }
    return {};
}

Outcome Connection::greet(std::string_view display_name, Deadline deadline) {
    v1::Request request;
    request.mutable_hello()->set_protocol(proto::protocol_version);
    request.mutable_hello()->set_display_name(std::string(display_name));
    v1::Reply reply;
    Outcome outcome = call(request, reply, deadline);
    if (!outcome.ok()) return outcome;
    if (!reply.has_hello()) return failed(Failure::protocol, "the greeting was not answered");
    hello_ = std::move(*reply.mutable_hello());
    return {};
}

std::uint32_t Connection::send(v1::Request &request) {
    if (fd_ < 0) return 0;
    const std::uint32_t seq = next_seq_;
    request.set_seq(seq);
    if (request.ByteSizeLong() > proto::frame_bytes_max) return 0;
    proto::append_frame(out_, request);
    next_seq_ = next_seq_ == UINT32_MAX ? 1 : next_seq_ + 1; // 0 is no sequence number
    return seq;
}

Outcome Connection::flush(Deadline deadline) {
    while (out_start_ < out_.size()) {
        if (fd_ < 0) return not_connected();
        const ssize_t sent =
            ::send(fd_, out_.data() + out_start_, out_.size() - out_start_, MSG_NOSIGNAL);
        if (sent >= 0) {
            out_start_ += static_cast<std::size_t>(sent);
            continue;
        }
        if (errno == EINTR) continue;
        if (errno == EPIPE || errno == ECONNRESET) break; // what it wrote before can still be read
        if (errno != EAGAIN) return failed_errno(Failure::closed, "send", errno);
        Outcome outcome = await(fd_, POLLIN | POLLOUT, deadline);
        if (!outcome.ok()) return outcome;
        outcome = fill();
        if (outcome.failure == Failure::closed) break;
        if (!outcome.ok()) return outcome;
    }
    out_.clear();
    out_start_ = 0;
    if (out_.capacity() > kept_capacity_max) out_.shrink_to_fit();
    return {};
}

Outcome Connection::receive(v1::Event &event, Deadline deadline) {
    if (unsent_bytes() > 0) {
        Outcome outcome = flush(deadline);
        if (!outcome.ok()) return outcome;
    }
    if (!kept_.empty()) {
        event = std::move(kept_.front());
        kept_.pop_front();
        return {};
    }
    return next_from_stream(event, deadline);
}

Outcome Connection::call(v1::Request &request, v1::Reply &reply, Deadline deadline) {
    if (fd_ < 0) return not_connected();
    const std::uint32_t seq = send(request);
    if (seq == 0) return failed(Failure::protocol, "the request is larger than a frame may be");
    Outcome outcome = flush(deadline);
    v1::Event event;
    while (outcome.ok()) {
        outcome = next_from_stream(event, deadline);
        if (!outcome.ok()) break;
        const bool unreadable = event.has_reply() && event.reply().seq() == 0;
        if (!event.has_reply() || (event.reply().seq() != seq && !unreadable)) {
            kept_.push_back(std::move(event));
            continue;
        }
        reply = std::move(*event.mutable_reply());
        if (unreadable) return {Failure::protocol, reply.status(), reply.text()};
        if (reply.status() != v1::STATUS_OK)
            return {Failure::refused, reply.status(), reply.text()};
        return {};
    }
    return outcome;
}

Outcome Connection::next_from_stream(v1::Event &event, Deadline deadline) {
    if (fd_ < 0) return not_connected();
    for (;;) {
        std::string_view message;
        Outcome outcome;
        if (take_frame(message, outcome)) {
            v1::Event parsed;
            if (!parsed.ParseFromArray(message.data(), static_cast<int>(message.size()))) {
                return failed(Failure::protocol, "the daemon sent a frame that cannot be read");
            }
            event = std::move(parsed);
            return {};
        }
        if (!outcome.ok()) return outcome;
        outcome = await_readable(deadline);
        if (!outcome.ok()) return outcome;
    }
}

bool Connection::take_frame(std::string_view &message, Outcome &outcome) {
    std::size_t consumed = 0;
    const std::string_view bytes(in_.data() + in_start_, in_end_ - in_start_);
    switch (proto::cut_frame(bytes, message, consumed)) {
    case proto::Cut::complete:
        in_start_ += consumed;
        return true;
    case proto::Cut::too_long:
        outcome = failed(Failure::protocol, "the daemon sent a frame that is too long");
        return false;
    case proto::Cut::partial:
        break;
    }
    return false;
}

// Reads at once and polls only when there is nothing: under load the poll is never needed.
Outcome Connection::await_readable(Deadline deadline) {
    for (;;) {
        const std::size_t before = in_end_ - in_start_;
        Outcome outcome = fill();
        if (!outcome.ok() || in_end_ - in_start_ > before) return outcome;
        outcome = await(fd_, POLLIN, deadline);
        if (!outcome.ok()) return outcome;
    }
}

// Takes what the socket holds, up to the room in the buffer. Reading nothing is no failure.
Outcome Connection::fill() {
    if (in_start_ == in_end_) {
        in_start_ = in_end_ = 0;
        if (in_.size() > kept_capacity_max) std::string(read_bytes_min, '\0').swap(in_);
    }
    if (in_.size() - in_end_ < read_bytes_min) {
        std::memmove(in_.data(), in_.data() + in_start_, in_end_ - in_start_);
        in_end_ -= in_start_;
        in_start_ = 0;
        if (in_.size() - in_end_ < read_bytes_min) {
            in_.resize(std::max(2 * in_.size(), in_end_ + 2 * read_bytes_min));
        }
    }
    for (;;) {
        const ssize_t got = ::recv(fd_, in_.data() + in_end_, in_.size() - in_end_, 0);
        if (got > 0) {
            in_end_ += static_cast<std::size_t>(got);
            return {};
        }
        if (got == 0) return failed(Failure::closed, "the daemon ended the connection");
        if (errno == EINTR) continue;
        if (errno == EAGAIN) return {};
        return failed_errno(Failure::closed, "recv", errno);
    }
}

} // namespace ds::client
