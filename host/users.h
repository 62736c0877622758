// Users and groups by name.
#pragma once
#include <sys/types.h>

#include <optional>
#include <string>

namespace ds::host {

class UserDatabase {
  public:
    virtual std::optional<uid_t> user(const std::string &name) const = 0;
    virtual std::optional<gid_t> group(const std::string &name) const = 0;

  protected:
    ~UserDatabase() = default;
};

// The one of this machine. It reads files, or asks a server, each time.
const UserDatabase &system_users();

// The number itself when the user has no name.
std::string user_name(uid_t uid);

// The text as a number of a user or group; nothing when it is none.
std::optional<std::uint32_t> parse_user_number(const std::string &text);

} // namespace ds::host
