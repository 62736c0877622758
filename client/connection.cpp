#include "client/connection.h"

#include <cerrno>
#include <poll.h>
#include <utility>

#include "proto/frame.h"

namespace ds::client {
namespace {

Outcome timed_out() {
    return failed(Failure::timeout, "the daemon did not answer in time");
}

Outcome not_connected() {
    return failed(Failure::closed, "not connected");
}

// Waits for `events`; the deadline is read again after each signal.
Outcome await(int fd, short events, Deadline deadline) {
    for (;;) {
        pollfd item{fd, events, 0};
        const int ready = ::poll(&item, 1, left_ms(deadline));
        if (ready > 0) return {};
        if (ready == 0) return timed_out();
        if (errno != EINTR) return failed_errno(Failure::closed, "poll", errno);
    }
}

} // namespace

void Connection::close() {
    stream_.close();
    kept_.clear();
    hello_.Clear();
}

Outcome Connection::connect(const std::string &path, std::string_view display_name,
                            Deadline deadline) {
    close();
    int fd = -1;
    Outcome outcome = connect_socket(path, deadline, fd);
    if (!outcome.ok()) return outcome;
    stream_.open(fd);
    outcome = greet(display_name, deadline);
    if (!outcome.ok()) close();
    return outcome;
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
    return is_open() ? stream_.append(request) : 0;
}

Outcome Connection::flush(Deadline deadline) {
    while (unsent_bytes() > 0) {
        Outcome outcome = stream_.write_some();
        // What a daemon that hung up wrote before can still be read; that tells the end as well.
        if (!outcome.ok() || unsent_bytes() == 0) return {};
        outcome = await(fd(), POLLIN | POLLOUT, deadline);
        if (!outcome.ok()) return outcome;
        outcome = stream_.read_some();
        if (!outcome.ok()) stream_.drop_unsent(); // the next read tells the end again
    }
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
    if (!is_open()) return not_connected();
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
    if (!is_open()) return not_connected();
    for (;;) {
        Outcome outcome;
        if (stream_.next(event, outcome)) return {};
        if (!outcome.ok()) return outcome;
        outcome = await_readable(deadline);
        if (!outcome.ok()) return outcome;
    }
}

// Reads at once and polls only when there is nothing: under load the poll is never needed.
Outcome Connection::await_readable(Deadline deadline) {
    for (;;) {
        const std::size_t before = stream_.unread_bytes();
        Outcome outcome = stream_.read_some();
        if (!outcome.ok() || stream_.unread_bytes() > before) return outcome;
        outcome = await(fd(), POLLIN, deadline);
        if (!outcome.ok()) return outcome;
    }
}

} // namespace ds::client
