// The keys of the configuration file, one row each. Parser, printer, sample file and manual all
// come from these rows; a further key is a further row.
#pragma once
#include <cstdint>
#include <span>
#include <string>
#include <variant>

#include "host/config.h"
#include "host/users.h"

namespace ds::host {

enum class Notation { plain, octal };

struct Key {
    using Text = std::string &(*)(Config &);
    using Number = std::uint64_t &(*)(Config &);
    using Flag = bool &(*)(Config &);

    const char *section;
    const char *name;
    std::variant<Text, Number, Flag> target;
    std::uint64_t min; // of a number; of a text in bytes
    std::uint64_t max;
    bool can_reload; // SIGHUP takes it, else it needs a restart
    const char *meaning;
    Notation notation = Notation::plain;
    // What is wrong with a text of permitted length and what is allowed; empty: nothing.
    std::string (*check)(const std::string &value, const UserDatabase &users) = nullptr;
};

std::span<const Key> config_keys();
const Key *find_key(std::string_view section, std::string_view name);

// "daemon.socket"
std::string full_name(const Key &key);
std::string number_text(const Key &key, std::uint64_t value);
// "1 to 1000", "0o0 to 0o777", "0 to 107 bytes", "true or false"
std::string allowed_values(const Key &key);
bool has_same_value(const Key &key, const Config &one, const Config &other);
void copy_value(const Key &key, const Config &from, Config &to);

} // namespace ds::host
