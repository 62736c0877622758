#include "host/policy.h"

#include <algorithm>

namespace ds::host {

namespace {

bool is_continuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0u) == 0x80u;
}

bool contains(const std::vector<Principal> &principals, std::uint32_t id) {
    return std::any_of(principals.begin(), principals.end(),
                       [id](const Principal &one) { return one.id == id; });
}

bool concerns(const Rule &rule, const Peer &peer) {
    if (rule.users.empty() && rule.groups.empty()) return true;
    if (contains(rule.users, peer.uid)) return true;
    return std::any_of(peer.groups.begin(), peer.groups.end(),
                       [&rule](gid_t group) { return contains(rule.groups, group); });
}

bool covers(const Rule &rule, std::string_view name) {
    return rule.names.empty() ||
           std::any_of(rule.names.begin(), rule.names.end(), [name](const std::string &pattern) {
               return matches_pattern(pattern, name);
           });
}

} // namespace

const char *action_name(Action action) {
    constexpr const char *names[action_count] = {"publish", "register", "list", "dump"};
    return names[static_cast<unsigned>(action)];
}

// Only the latest star is ever tried again: what an earlier one could take in addition, the latest
// can take as well. So the time is bounded by the product of both lengths.
bool matches_pattern(std::string_view pattern, std::string_view name) {
    constexpr std::size_t none = std::string_view::npos;
    std::size_t at = 0, in_name = 0;
    std::size_t behind_star = none, retried = 0;
    while (in_name < name.size()) {
        if (at < pattern.size() && pattern[at] == '*') {
            behind_star = ++at;
            retried = in_name;
        } else if (at < pattern.size() && pattern[at] == '?') {
            at++;
            for (in_name++; in_name < name.size() && is_continuation(name[in_name]);)
                in_name++;
        } else if (at < pattern.size() && pattern[at] == name[in_name]) {
            at++;
            in_name++;
        } else if (behind_star != none) {
            at = behind_star;
            in_name = ++retried;
        } else {
            return false;
        }
    }
    while (at < pattern.size() && pattern[at] == '*')
        at++;
    return at == pattern.size();
}

const Rule *find_denial(const std::vector<Rule> &rules, const Peer &peer, Action action,
                        std::string_view name) {
    for (const Rule &rule : rules) {
        const bool fits = (rule.actions & 1u << static_cast<unsigned>(action)) != 0 &&
                          concerns(rule, peer) && covers(rule, name);
        if (fits) return rule.is_allowed ? nullptr : &rule;
    }
    return nullptr;
}

std::string describe_rule(const Rule &rule) {
    return (rule.name.empty() ? "The rule" : "Rule '" + rule.name + "'") + " (" + rule.place + ")";
}

} // namespace ds::host
