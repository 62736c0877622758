// The load generator's end of one session: as thin as a client can be while it still builds and
// decodes every message, so that what is measured is the server. Failures throw std::runtime_error;
// so does an answer with a status other than OK, as a run with refused requests measures nothing.
#pragma once
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "proto/frame.h"

namespace ds::bench {

class Link {
  public:
    // Connects and greets.
    explicit Link(const std::string &socket_path);
    ~Link();
    Link(Link &&other) noexcept;
    Link &operator=(Link &&) = delete;

    int fd() const { return fd_; }

    // Gathers a request under the next sequence number; flush() writes what was gathered.
    void put(v1::Request &request);
    void flush();

    // One read. Gives each event that is complete to `function` and returns how many there were;
    // without `wait` that may be none. The event is good until `function` returns.
    template <typename Function> std::size_t take(bool wait, Function &&function) {
        std::size_t count = 0;
        fill(wait);
        while (const v1::Event *event = next()) {
            function(*event);
            count++;
        }
        return count;
    }

    // Reads until that many replies have come; other events are dropped.
    void await_replies(std::size_t count);

  private:
    void fill(bool wait);
    const v1::Event *next(); // null: the rest is not complete

    int fd_ = -1;
    std::uint32_t seq_ = 0;
    std::string out_;
    std::vector<char> in_;
    std::size_t in_start_ = 0; // bytes from here to in_end_ were read and not taken
    std::size_t in_end_ = 0;
};

// A publish request of a service with one endpoint; its name is to be set.
v1::Request publish_request();

} // namespace ds::bench
