// Who may do what with which names: the [[rule]] entries, in order. The first that fits decides;
// what none fits is allowed. Nobody is exempt, root neither, unless a rule says so.
#pragma once
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ds::host {

enum class Action : unsigned { publish, watch, list, dump };
inline constexpr unsigned action_count = 4;
inline constexpr unsigned every_action = (1u << action_count) - 1;

// As rules write it: publish, register, list, dump.
const char *action_name(Action action);

// A user or a group.
struct Principal {
    std::string text; // as written: a name or a number
    std::uint32_t id = 0;
    bool operator==(const Principal &) const = default;
};

struct Rule {
    std::string name;  // empty: none was given
    std::string place; // FILE:LINE, for the text of a refusal
    std::vector<Principal> users;
    std::vector<Principal> groups; // both empty: everyone, else whoever is in either
    unsigned actions = every_action;
    std::vector<std::string> names; // patterns; empty: every name
    bool is_allowed = false;
    bool operator==(const Rule &) const = default;
};

// Who asks.
struct Peer {
    uid_t uid = 0;
    std::vector<gid_t> groups;
};

// Whether the whole name matches: '*' stands for any run of characters, '/' included, '?' for one
// character, everything else for itself.
bool matches_pattern(std::string_view pattern, std::string_view name);

// The rule that forbids it; null when it is allowed.
const Rule *find_denial(const std::vector<Rule> &rules, const Peer &peer, Action action,
                        std::string_view name);

// "Rule 'quiet' (/etc/ds/ds.toml:12)"
std::string describe_rule(const Rule &rule);

} // namespace ds::host
