// Writes a configuration as the file that would bring it about.
#include <algorithm>
#include <sstream>

#include "host/config_file.h"
#include "host/config_keys.h"

namespace ds::host {

namespace {

constexpr std::size_t comment_width = 96;

// Texts hold no control characters.
std::string quoted(const std::string &text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + '"';
}

std::string comment(const std::string &text) {
    std::istringstream words(text);
    std::string out, line = "#";
    for (std::string word; words >> word;) {
        if (line.size() + 1 + word.size() > comment_width) {
            out += line + "\n";
            line = "#";
        }
        line += " " + word;
    }
    return out + line + "\n";
}

std::string value_of(const Key &key, const Config &config) {
    auto &source = const_cast<Config &>(config); // targets are made for writing; this only reads
    if (const auto *target = std::get_if<Key::Text>(&key.target)) return quoted((*target)(source));
    if (const auto *target = std::get_if<Key::Flag>(&key.target))
        return (*target)(source) ? "true" : "false";
    return number_text(key, std::get<Key::Number>(key.target)(source));
}

std::string list_of(const std::vector<std::string> &texts) {
    std::string out = "[";
    for (const std::string &text : texts)
        out += (&text == &texts.front() ? "" : ", ") + quoted(text);
    return out + "]";
}

std::string list_of(const std::vector<Principal> &principals) {
    std::vector<std::string> texts;
    for (const Principal &principal : principals)
        texts.push_back(principal.text);
    return list_of(texts);
}

std::string list_of_actions(unsigned actions) {
    std::vector<std::string> texts;
    for (unsigned i = 0; i < action_count; i++)
        if ((actions & 1u << i) != 0) texts.emplace_back(action_name(static_cast<Action>(i)));
    return list_of(texts);
}

std::string section_text(const UserLimits &user) {
    std::string out = "\n[limits.user." + quoted(user.name) + "]\n";
    for (std::size_t i = 0; i < resource_count; i++)
        if (const auto &amount = user.amounts.values[i])
            out += std::string(resource_names[i]) + " = " + std::to_string(*amount) + "\n";
    return out;
}

std::string section_text(const Rule &rule) {
    std::string out = "\n[[rule]]\n";
    if (!rule.name.empty()) out += "name = " + quoted(rule.name) + "\n";
    if (!rule.users.empty()) out += "user = " + list_of(rule.users) + "\n";
    if (!rule.groups.empty()) out += "group = " + list_of(rule.groups) + "\n";
    if (rule.actions != every_action) out += "what = " + list_of_actions(rule.actions) + "\n";
    if (!rule.names.empty()) out += "names = " + list_of(rule.names) + "\n";
    return out + "decision = " + (rule.is_allowed ? "\"allow\"" : "\"deny\"") + "\n";
}

} // namespace

std::string print_config(const Config &config) {
    std::string out;
    std::string_view section;
    for (const Key &key : config_keys()) {
        if (key.section != section) out += "\n[" + std::string(key.section) + "]\n";
        section = key.section;
        out += "\n" + comment(std::string(key.meaning) + " (" + allowed_values(key) + ")");
        out += std::string(key.name) + " = " + value_of(key, config) + "\n";
    }
    for (const UserLimits &user : config.limits.users)
        out += section_text(user);
    for (const Rule &rule : config.rules)
        out += section_text(rule);
    return out.substr(1);
}

} // namespace ds::host
