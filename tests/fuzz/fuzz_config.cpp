// Configuration files: a text is a configuration or a list of errors, and a configuration that is
// printed means the same.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "host/config_file.h"

namespace {

using ds::host::Config;

// Looking users up on this machine would make a finding depend on it.
class FixedUsers final : public ds::host::UserDatabase {
  public:
    std::optional<uid_t> user(const std::string &name) const override {
        return name.size() == 3 ? std::optional<uid_t>(name[0]) : std::nullopt;
    }
    std::optional<gid_t> group(const std::string &name) const override { return user(name); }
};

Config without_places(Config config) {
    for (ds::host::Rule &rule : config.rules)
        rule.place.clear();
    return config;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const FixedUsers users;
    Config config;
    try {
        config = ds::host::parse_config({reinterpret_cast<const char *>(data), size}, "f", users);
    } catch (const ds::host::ConfigError &error) {
        if (error.lines().empty()) std::abort();
        return 0;
    }
    const Config again = ds::host::parse_config(ds::host::print_config(config), "f", users);
    if (without_places(again) != without_places(config)) std::abort();
    return 0;
}
