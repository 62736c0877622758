#include "host/reload.h"

#include <cstdio>

#include "host/config_file.h"
#include "host/config_keys.h"
#include "host/message.h"

namespace ds::host {

namespace {

void tell_of_restart(const Config &running, const Config &read) {
    for (const Key &key : config_keys())
        if (!key.can_reload && !has_same_value(key, running, read))
            tell(Severity::notice, full_name(key) + " has changed; it needs a restart");
}

} // namespace

bool reload_policy(Config &config) {
    Config read;
    try {
        read = read_configuration(config.given);
    } catch (const ConfigError &error) {
        for (const std::string &line : error.lines())
            tell(Severity::error, line);
        tell(Severity::error,
             "the configuration stays as it was; errors: " + std::to_string(error.lines().size()));
        return false;
    }
    tell_of_restart(config, read);
    for (const Key &key : config_keys())
        if (key.can_reload) copy_value(key, read, config);
    config.limits.users = read.limits.users;
    config.rules = read.rules;
    config.file = read.file;
    std::printf("dsd: reloaded %s\n", config.file.empty() ? "the defaults" : config.file.c_str());
    std::fflush(stdout);
    return true;
}

} // namespace ds::host
