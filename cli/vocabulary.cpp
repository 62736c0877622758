#include "cli/vocabulary.h"

#include <charconv>
#include <cstdio>
#include <pwd.h>

#include "cli/output.h"

namespace ds::cli {
namespace {

template <class Value>
std::string word_of(const std::map<std::string, Value> &words, Value value, Value none) {
    if (value == none) return {};
    for (const auto &[word, meaning] : words) {
        if (meaning != value) continue;
        std::string upper = word;
        for (char &c : upper)
            c = static_cast<char>(c - 'a' + 'A');
        return upper;
    }
    return std::to_string(static_cast<int>(value));
}

} // namespace

const std::map<std::string, v1::Scope> &scope_words() {
    static const std::map<std::string, v1::Scope> words = {
        {"rack", v1::SCOPE_RACK}, {"system", v1::SCOPE_SYSTEM}, {"local", v1::SCOPE_LOCAL}};
    return words;
}

const std::map<std::string, v1::HaRole> &ha_words() {
    static const std::map<std::string, v1::HaRole> words = {{"active", v1::HA_ROLE_ACTIVE},
                                                            {"standby", v1::HA_ROLE_STANDBY}};
    return words;
}

const std::map<std::string, v1::IssuRole> &issu_words() {
    static const std::map<std::string, v1::IssuRole> words = {
        {"primary", v1::ISSU_ROLE_PRIMARY},
        {"secondary", v1::ISSU_ROLE_SECONDARY},
        {"tertiary", v1::ISSU_ROLE_TERTIARY}};
    return words;
}

std::string scope_text(v1::Scope scope) {
    return word_of(scope_words(), scope, v1::SCOPE_NONE);
}

std::string ha_text(v1::HaRole role) {
    return word_of(ha_words(), role, v1::HA_ROLE_NONE);
}

std::string issu_text(v1::IssuRole role) {
    return word_of(issu_words(), role, v1::ISSU_ROLE_NONE);
}

std::string node_state_text(v1::NodeState state) {
    switch (state) {
    case v1::NODE_STATE_UP:
        return "up";
    case v1::NODE_STATE_DOWN:
        return "down";
    default:
        return "unknown";
    }
}

std::string issu_cell(const v1::Instance &instance) {
    std::string role = issu_text(instance.issu_role());
    if (instance.issu_id() == 0) return role;
    return role + '/' + std::to_string(instance.issu_id());
}

std::string node_text(std::string_view address) {
    std::string text;
    for (const char c : address) {
        char pair[4];
        const auto byte = static_cast<unsigned>(static_cast<unsigned char>(c));
        std::snprintf(pair, sizeof pair, "%02x", byte);
        if (!text.empty()) text += ':';
        text += pair;
    }
    return text;
}

std::string node_cell(const v1::Instance &instance) {
    return instance.local() ? "local" : node_text(instance.node());
}

std::optional<std::string> parse_node(std::string_view text) {
    constexpr std::size_t bytes = 6;
    if (text.size() != bytes * 3 - 1) return {};
    std::string address;
    for (std::size_t at = 0; at < text.size(); at += 3) {
        unsigned value = 0;
        const char *end = text.data() + at + 2;
        const auto [stop, error] = std::from_chars(text.data() + at, end, value, 16);
        if (error != std::errc() || stop != end) return {};
        if (at + 2 < text.size() && text[at + 2] != ':') return {};
        address += static_cast<char>(value);
    }
    return address;
}

std::string user_name(std::uint32_t uid) {
    const passwd *user = ::getpwuid(uid);
    return user == nullptr ? "" : user->pw_name;
}

std::string id_text(std::uint32_t service_id) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", service_id);
    return text;
}

std::string full_name(std::string_view name, std::string_view instance) {
    std::string text = cell(name);
    if (!instance.empty()) text += '/' + cell(instance);
    return text;
}

} // namespace ds::cli
