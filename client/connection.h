// One client connection to the daemon, with blocking calls that take a deadline, for tests and
// measurements that need the protocol itself. Programs use the client library, ds_client.h.
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
#include <deque>
#include <string>
#include <string_view>

#include "client/stream.h"

namespace ds::client {

class Connection {
  public:
    Connection() = default;
    Connection(Connection &&other) noexcept = default;
    Connection &operator=(Connection &&other) noexcept = default;
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    // Connects to the socket at `path` and agrees on the protocol. An earlier connection is closed
    // first. display_name: 0 to 255 bytes, how operators see this client; empty lets the daemon
    // take the process name.
    Outcome connect(const std::string &path, std::string_view display_name, Deadline deadline);
    // Ends the connection, which withdraws everything it published. Unread events and unsent
    // requests are lost.
    void close();

    bool is_open() const { return stream_.is_open(); }
    // What to poll for reading; -1 while closed. Before polling, drain with receive() until it
    // times out: events that were read along with others wait in memory and do not make the
    // descriptor readable.
    int fd() const { return stream_.fd(); }
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
    std::size_t unsent_bytes() const { return stream_.unsent_bytes(); }

  private:
    Outcome greet(std::string_view display_name, Deadline deadline);
    Outcome next_from_stream(v1::Event &event, Deadline deadline);
    Outcome await_readable(Deadline deadline);

    Stream stream_;
    std::deque<v1::Event> kept_; // arrived while call() waited for its reply
    v1::HelloReply hello_;
};

} // namespace ds::client
