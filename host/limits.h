// What the users may have at a time: the values of [limits].
#pragma once
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ds::host {

enum class Resource : std::size_t { sessions, publications, registrations, queued_bytes };
inline constexpr std::size_t resource_count = 4;

// As configuration keys and in sentences.
inline constexpr std::array<const char *, resource_count> resource_names = {
    "sessions", "publications", "registrations", "queued_bytes"};

template <typename Value> struct PerResource {
    std::array<Value, resource_count> values = {};
    Value &operator[](Resource resource) { return values[static_cast<std::size_t>(resource)]; }
    const Value &operator[](Resource resource) const {
        return values[static_cast<std::size_t>(resource)];
    }
    bool operator==(const PerResource &) const = default;
};

using Amounts = PerResource<std::uint64_t>;

// What [limits.user.NAME] says; what it leaves out is as for everybody.
struct UserLimits {
    std::string name; // as written: a name or a number
    uid_t uid = 0;
    PerResource<std::optional<std::uint64_t>> amounts;
    bool operator==(const UserLimits &) const = default;
};

struct Limits {
    std::uint64_t sessions_total = 65'536;
    Amounts everybody = {{32'768, 524'288, 524'288, 67'108'864}};
    std::vector<UserLimits> users;

    const UserLimits *of(uid_t uid) const {
        for (const UserLimits &user : users)
            if (user.uid == uid) return &user;
        return nullptr;
    }
    bool operator==(const Limits &) const = default;
};

} // namespace ds::host
