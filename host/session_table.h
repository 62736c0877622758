// The sessions by id. An id is the number of a slot, and in its high half how often that slot was
// given out, so that finding one is an index and an id never comes back.
#pragma once
#include <cstdint>
#include <memory>
#include <vector>

#include "host/session.h"

namespace ds::host {

class SessionTable {
  public:
    // Throws std::system_error when the loop cannot watch the connection.
    Session &add(Server &server, UniqueFd connection);
    void remove(std::uint64_t id);
    Session *find(std::uint64_t id) const; // null when it is not there any more

    std::uint32_t count() const { return count_; }

    template <typename Function> void for_each(Function function) const {
        for (const Slot &slot : slots_)
            if (slot.session) function(*slot.session);
    }

  private:
    struct Slot {
        std::unique_ptr<Session> session;
        std::uint32_t generation = 0;
    };
    std::vector<Slot> slots_;
    std::vector<std::uint32_t> free_;
    std::uint32_t count_ = 0;
};

} // namespace ds::host
