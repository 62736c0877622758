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
    Session &add(Server &server, UniqueFd connection, const ucred &credentials, Account &account);
    void remove(std::uint64_t id);
    Session *find(std::uint64_t id) const; // null when it is not there any more

    std::uint32_t count() const { return count_; }

    template <typename Function> void for_each(Function function) const {
        for (const Slot &slot : slots_)
            if (slot.session) function(*slot.session);
    }

    // Visits the sessions behind that one in the order of their slots, until the function returns
    // false or `slots_max` slots were looked at. Returns the id to go on behind, 0 at the end. A
    // session that was not accepted comes again then.
    template <typename Function>
    std::uint64_t visit_behind(std::uint64_t after, std::size_t slots_max,
                               Function function) const {
        const std::size_t first =
            after == 0 ? 0 : static_cast<std::uint32_t>(after) + std::size_t{1};
        std::size_t index = first;
        for (; index < slots_.size() && index - first < slots_max; index++)
            if (slots_[index].session && !function(*slots_[index].session)) break;
        return index < slots_.size() && index > first ? id_of(index - 1) : 0;
    }

  private:
    std::uint64_t id_of(std::size_t index) const {
        return static_cast<std::uint64_t>(slots_[index].generation) << 32 | index;
    }

    struct Slot {
        std::unique_ptr<Session> session;
        std::uint32_t generation = 0;
    };
    std::vector<Slot> slots_;
    std::vector<std::uint32_t> free_;
    std::uint32_t count_ = 0;
};

} // namespace ds::host
