// The bytes of one connection: frames out, frames in. Never waits.
//
// Requests are gathered and written together; a read takes all that the socket holds, so that many
// small events cost one system call. Both Connection, which waits, and the handle of the client
// library, which does not, are built on this.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "client/outcome.h"

namespace ds::client {

class Stream {
  public:
    Stream() = default;
    ~Stream() { close(); }
    Stream(Stream &&other) noexcept;
    Stream &operator=(Stream &&other) noexcept;
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;

    // Takes a connected socket that does not block.
    void open(int fd);
    void close(); // unread and unsent bytes are lost
    int fd() const { return fd_; }
    bool is_open() const { return fd_ >= 0; }

    // Gives the request the next sequence number, 1, 2, 3 ..., and gathers it. Returns that number,
    // 0 when the request is larger than a frame may be. Nothing is written yet.
    std::uint32_t append(v1::Request &request);
    // Writes what the socket takes. Failure::closed: the peer hung up; it may have written
    // something before that can still be read. What was gathered is then dropped.
    Outcome write_some();
    void drop_unsent();
    std::size_t unsent_bytes() const { return out_.size() - out_start_; }

    // Reads what the socket holds, up to the room in the buffer. Reading nothing is no failure.
    Outcome read_some();
    std::size_t unread_bytes() const { return in_end_ - in_start_; }
    // Cuts the next event out of what was read. False when that is not a whole frame, or with a
    // failure. `event` is written only on success.
    bool next(v1::Event &event, Outcome &outcome);

  private:
    void make_room();

    int fd_ = -1;
    std::uint32_t next_seq_ = 1;
    std::string out_;
    std::size_t out_start_ = 0; // bytes of out_ that have been written
    std::string in_; // its size is the room, in_start_ .. in_end_ is what was read and not parsed
    std::size_t in_start_ = 0;
    std::size_t in_end_ = 0;
};

// Looks for one event at the start of `bytes`. complete: `consumed` bytes were one. partial: more
// bytes are needed. too_long or no event: `outcome` tells, and the stream is lost.
bool parse_event(std::string_view bytes, v1::Event &event, std::size_t &consumed, Outcome &outcome);

// Connects a socket to the path without waiting for anything but room in the listener's queue, up
// to the deadline; a deadline in the past does not wait. *fd is written on success; the socket does
// not block.
Outcome connect_socket(const std::string &path, Deadline deadline, int &fd);

} // namespace ds::client
