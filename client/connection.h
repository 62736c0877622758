// One client connection to the daemon, with blocking calls that take a deadline.
//
// A connection gathers requests in a send buffer and writes them together: send() only encodes,
// flush() and every function that waits for something write what has been gathered. A read takes
// all that the socket holds, so that many small events cost one system call.
//
// Nothing here throws except for want of memory, nothing starts a thread, and no signal is raised
// by a daemon that goes away. A connection belongs to one thread at a time. After `closed` or
// `protocol` the stream is lost: close() and connect() again. After `timeout` and `refused` it
// stays usable.
#pragma once
#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

#include "ds.pb.h"

namespace ds::client {

// When to stop waiting. `no_deadline` waits for as long as it takes; a moment in the past only
// takes what is there already.
using Deadline = std::chrono::steady_clock::time_point;
inline constexpr Deadline no_deadline = Deadline::max();
inline constexpr Deadline no_wait = Deadline::min();
inline Deadline deadline_in(std::chrono::milliseconds wait) {
    return std::chrono::steady_clock::now() + wait;
}

enum class Failure {
    none,
    unreachable, // nobody listens there
    timeout,     // the deadline came first
    closed,      // the daemon ended the connection
    protocol,    // the peer does not speak this protocol, or refused to go on with it
    refused      // the daemon answered with a status other than OK
};

// How an operation ended. `text` is one sentence for a person, empty on success; `status` is
// meaningful for `refused` and for a `protocol` failure that the daemon reported.
struct [[nodiscard]] Outcome {
    Failure failure = Failure::none;
    v1::Status status = v1::STATUS_OK;
    std::string text;

    bool ok() const { return failure == Failure::none; }
};

class Connection {
  public:
    Connection() = default;
    ~Connection() { close(); }
    Connection(Connection &&other) noexcept;
    Connection &operator=(Connection &&other) noexcept;
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    // Connects to the socket at `path` and agrees on the protocol. An earlier connection is closed
    // first. display_name: 0 to 255 bytes, how operators see this client; empty lets the daemon
    // take the process name.
    Outcome connect(const std::string &path, std::string_view display_name, Deadline deadline);
    // Ends the connection, which withdraws everything it published. Unread events and unsent
    // requests are lost.
    void close();

    bool is_open() const { return fd_ >= 0; }
    // What to poll for reading; -1 while closed. Before polling, drain with receive() until it
    // times out: events that were read along with others wait in memory and do not make the
    // descriptor readable.
    int fd() const { return fd_; }
    // The daemon's answer to the greeting; empty before connect().
    const v1::HelloReply &hello() const { return hello_; }

    // Gives the request the next sequence number and gathers it for sending. Returns that number, 0
    // when the request is larger than a frame may be or the connection is closed. Nothing is
    // written yet.
    std::uint32_t send(v1::Request &request);
    // Writes what was gathered. Events that arrive meanwhile are read into memory, so that a daemon
    // that waits for this client to read cannot block it for ever. A daemon that hung up is no
    // failure here: the next receive() or call() tells it, behind the events that were sent before.
    Outcome flush(Deadline deadline);
    // Flushes, then takes the next event in the order of arrival. `event` is written only on
    // success.
    Outcome receive(v1::Event &event, Deadline deadline);
    // Sends the request and waits for its reply; every other event that comes first is kept for
    // receive(). `reply` is written when the daemon answered, also for `refused`.
    Outcome call(v1::Request &request, v1::Reply &reply, Deadline deadline);

    // Requests gathered and not written yet, in bytes with their headers.
    std::size_t unsent_bytes() const { return out_.size() - out_start_; }

  private:
    Outcome open_socket(const std::string &path, Deadline deadline);
    Outcome greet(std::string_view display_name, Deadline deadline);
    Outcome next_from_stream(v1::Event &event, Deadline deadline);
    Outcome await_readable(Deadline deadline);
    Outcome fill();
    bool take_frame(std::string_view &message, Outcome &outcome);

    int fd_ = -1;
    std::uint32_t next_seq_ = 1;
    std::string out_;
    std::size_t out_start_ = 0; // bytes of out_ that have been written
    std::string in_; // its size is the room, in_start_ .. in_end_ is what was read and not parsed
    std::size_t in_start_ = 0;
    std::size_t in_end_ = 0;
    std::deque<v1::Event> kept_; // arrived while call() waited for its reply
    v1::HelloReply hello_;
};

} // namespace ds::client
