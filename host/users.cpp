#include "host/users.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <charconv>
#include <vector>

namespace ds::host {

namespace {

constexpr std::size_t entry_bytes_first = 4096;
constexpr std::size_t entry_bytes_max = 1u << 20; // a group with very many members

// Calls one of the getXXXX_r functions with as much memory as it asks for; false: no such entry.
template <typename Entry, typename Function>
bool look_up(Entry &entry, std::vector<char> &memory, Function get) {
    Entry *found = nullptr;
    for (memory.resize(entry_bytes_first); memory.size() <= entry_bytes_max;
         memory.resize(2 * memory.size()))
        if (get(&entry, memory.data(), memory.size(), &found) != ERANGE) break;
    return found != nullptr;
}

class SystemUsers final : public UserDatabase {
  public:
    std::optional<uid_t> user(const std::string &name) const override {
        passwd entry = {};
        std::vector<char> memory;
        const bool is_found = look_up(entry, memory, [&](auto... arguments) {
            return getpwnam_r(name.c_str(), arguments...);
        });
        return is_found ? std::optional(entry.pw_uid) : std::nullopt;
    }
    std::optional<gid_t> group(const std::string &name) const override {
        ::group entry = {};
        std::vector<char> memory;
        const bool is_found = look_up(entry, memory, [&](auto... arguments) {
            return getgrnam_r(name.c_str(), arguments...);
        });
        return is_found ? std::optional(entry.gr_gid) : std::nullopt;
    }
};

} // namespace

const UserDatabase &system_users() {
    static const SystemUsers users;
    return users;
}

std::string user_name(uid_t uid) {
    passwd entry = {};
    std::vector<char> memory;
    const bool is_found =
        look_up(entry, memory, [uid](auto... arguments) { return getpwuid_r(uid, arguments...); });
    return is_found ? entry.pw_name : std::to_string(uid);
}

std::optional<std::uint32_t> parse_user_number(const std::string &text) {
    std::uint32_t number = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    const bool is_number = error == std::errc() && stop == end && number != UINT32_MAX;
    return is_number ? std::optional(number) : std::nullopt; // the largest stands for none
}

} // namespace ds::host
