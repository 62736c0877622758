// The configuration file: TOML with the sections of config_keys.cpp, [limits.user.NAME] and
// [[rule]].
#pragma once
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "host/config.h"
#include "host/users.h"

namespace ds::host {

// One line for each thing that is wrong: FILE:LINE:COLUMN: the key, what is wrong, what is allowed.
class ConfigError : public std::runtime_error {
  public:
    explicit ConfigError(std::vector<std::string> lines);
    const std::vector<std::string> &lines() const { return lines_; }

  private:
    std::vector<std::string> lines_;
};

// The defaults with what the text says. `file` is what errors and rules call it. Throws
// ConfigError with everything that is wrong, and nothing else but std::bad_alloc.
Config parse_config(std::string_view text, const std::string &file,
                    const UserDatabase &users = system_users());

// The same of a file's content.
Config load_config(const std::string &file);

// The configuration as a file that says the same, every key with its meaning.
std::string print_config(const Config &config);

} // namespace ds::host
