#include "host/session_table.h"

namespace ds::host {

Session &SessionTable::add(Server &server, UniqueFd connection, const ucred &credentials,
                           Account &account) {
    if (free_.empty()) {
        free_.push_back(static_cast<std::uint32_t>(slots_.size()));
        slots_.emplace_back();
    }
    const std::uint32_t index = free_.back();
    Slot &slot = slots_[index];
    slot.generation++;
    slot.session = std::make_unique<Session>(server, id_of(index), std::move(connection),
                                             credentials, account);
    free_.pop_back(); // only now, as the session may fail to be made
    count_++;
    return *slot.session;
}

void SessionTable::remove(std::uint64_t id) {
    if (find(id) == nullptr) return;
    const auto index = static_cast<std::uint32_t>(id);
    slots_[index].session.reset();
    free_.push_back(index);
    count_--;
}

Session *SessionTable::find(std::uint64_t id) const {
    const auto index = static_cast<std::uint32_t>(id);
    if (index >= slots_.size()) return nullptr;
    Session *session = slots_[index].session.get();
    return session != nullptr && session->id() == id ? session : nullptr;
}

} // namespace ds::host
