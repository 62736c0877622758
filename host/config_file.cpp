#include "host/config_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

#define TOML_HEADER_ONLY       1
#define TOML_EXCEPTIONS        1
#define TOML_ENABLE_FORMATTERS 0
// A table header that does not begin with a key fails an assertion of the parser, or is taken for
// impossible by an optimised build, before the parser's own check of it is reached.
#define TOML_ASSERT(condition) static_assert(true)
#pragma push_macro("NDEBUG")
#undef NDEBUG
#include <toml++/toml.h>
#pragma pop_macro("NDEBUG")

#include "host/config_keys.h"
#include "host/nearest.h"
#include "host/toml_screen.h"

namespace ds::host {

namespace {

constexpr std::size_t file_bytes_max = 1u << 20;
constexpr std::size_t rules_max = 256;
constexpr std::size_t users_max = 1024; // with limits of their own
constexpr std::size_t list_max = 64;    // entries of a list in a rule
constexpr std::size_t pattern_bytes_max = 255;
constexpr std::size_t rule_name_bytes_max = 100;
constexpr const char *rule_section = "rule";
constexpr const char *user_table = "user"; // in [limits]

using Names = std::vector<std::string>;

bool is_control_character(char byte) {
    return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f;
}

bool has_control_character(std::string_view text) {
    return std::any_of(text.begin(), text.end(), is_control_character);
}

Names key_names(std::string_view section) {
    Names names;
    for (const Key &key : config_keys())
        if (key.section == section) names.emplace_back(key.name);
    return names;
}

Names section_names() {
    Names names;
    for (const Key &key : config_keys())
        if (names.empty() || names.back() != key.section) names.emplace_back(key.section);
    names.emplace_back(rule_section);
    return names;
}

// Walks the document. Everything that is wrong is gathered, and the walk goes on.
class Reader {
  public:
    Reader(std::string file, const UserDatabase &users) : file_(std::move(file)), users_(users) {}

    void read(const toml::table &document);
    void complain(const toml::source_region &where, std::string text) {
        complain(where.begin.line, where.begin.column, std::move(text));
    }
    void complain(std::size_t line, std::size_t column, std::string text) {
        std::replace_if(text.begin(), text.end(), is_control_character, '?');
        faults_.push_back({static_cast<std::uint32_t>(line), static_cast<std::uint32_t>(column),
                           std::move(text)});
    }
    Config finish(); // throws what was gathered

  private:
    struct Fault {
        std::uint32_t line;
        std::uint32_t column;
        std::string text;
    };

    void unknown(const toml::key &key, const std::string &path, const Names &known);
    void read_section(const std::string &section, const toml::table &table);
    void assign(const Key &key, const toml::node &node);
    void assign_text(const Key &key, std::string &target, const toml::node &node);
    void read_users(const toml::node &node);
    void read_user(const toml::key &name, const toml::node &node);
    std::optional<std::uint64_t> number(const Key &key, const std::string &path,
                                        const toml::node &node);

    void read_rules(const toml::node &node);
    void read_rule(const toml::table &table);
    void read_rule_key(Rule &rule, const std::string &key, const toml::node &node);
    void read_decision(Rule &rule, const toml::node &node);
    void read_actions(Rule &rule, const toml::node &node);
    void read_patterns(Rule &rule, const toml::node &node);
    void read_principals(std::vector<Principal> &out, const std::string &key,
                         const toml::node &node);
    template <typename Function>
    void each_of_list(const std::string &key, const toml::node &node, Function function);
    std::optional<std::string> text(const std::string &path, const toml::node &node,
                                    std::size_t bytes_max);

    std::string file_;
    const UserDatabase &users_;
    Config config_;
    std::vector<Fault> faults_;
};

Config Reader::finish() {
    if (faults_.empty()) return std::move(config_);
    std::stable_sort(faults_.begin(), faults_.end(), [](const Fault &one, const Fault &other) {
        return std::pair(one.line, one.column) < std::pair(other.line, other.column);
    });
    Names lines;
    for (const Fault &fault : faults_)
        lines.push_back(file_ + ":" + std::to_string(fault.line) + ":" +
                        std::to_string(fault.column) + ": " + fault.text);
    throw ConfigError(std::move(lines));
}

void Reader::unknown(const toml::key &key, const std::string &path, const Names &known) {
    complain(key.source(), path + ": there is no such key; " + suggest(key.str(), known));
}

void Reader::read(const toml::table &document) {
    for (const auto &[key, node] : document) {
        const std::string name(key.str());
        if (name == rule_section)
            read_rules(node);
        else if (key_names(name).empty())
            unknown(key, name, section_names());
        else if (const toml::table *table = node.as_table())
            read_section(name, *table);
        else
            complain(key.source(), name + ": has to be a table; write [" + name + "]");
    }
}

// ---- sections of keys ----

void Reader::read_section(const std::string &section, const toml::table &table) {
    const bool has_users = section == "limits";
    for (const auto &[name, node] : table) {
        const Key *key = find_key(section, name.str());
        if (key != nullptr) {
            assign(*key, node);
        } else if (has_users && name.str() == user_table) {
            read_users(node);
        } else {
            Names known = key_names(section);
            if (has_users) known.emplace_back(user_table);
            unknown(name, section + "." + std::string(name.str()), known);
        }
    }
}

void Reader::assign(const Key &key, const toml::node &node) {
    if (const auto *target = std::get_if<Key::Text>(&key.target))
        return assign_text(key, (*target)(config_), node);
    if (const auto *target = std::get_if<Key::Number>(&key.target)) {
        const std::optional<std::uint64_t> value = number(key, full_name(key), node);
        if (value) (*target)(config_) = *value;
        return;
    }
    const std::optional<bool> value = node.value_exact<bool>();
    if (!value) return complain(node.source(), full_name(key) + ": has to be true or false");
    std::get<Key::Flag>(key.target)(config_) = *value;
}

void Reader::assign_text(const Key &key, std::string &target, const toml::node &node) {
    const std::optional<std::string> value = text(full_name(key), node, key.max);
    if (!value) return;
    const std::string problem = key.check != nullptr ? key.check(*value, users_) : std::string();
    if (!problem.empty()) return complain(node.source(), full_name(key) + ": " + problem);
    target = *value;
}

std::optional<std::uint64_t> Reader::number(const Key &key, const std::string &path,
                                            const toml::node &node) {
    const std::optional<std::int64_t> value = node.value_exact<std::int64_t>();
    const bool is_allowed = value && *value >= 0 && static_cast<std::uint64_t>(*value) >= key.min &&
                            static_cast<std::uint64_t>(*value) <= key.max;
    if (is_allowed) return static_cast<std::uint64_t>(*value);
    const std::string what = value ? std::to_string(*value) + " is out of range"
                                   : std::string("has to be a whole number");
    complain(node.source(), path + ": " + what + "; " + allowed_values(key) + " is allowed");
    return std::nullopt;
}

std::optional<std::string> Reader::text(const std::string &path, const toml::node &node,
                                        std::size_t bytes_max) {
    const std::optional<std::string> value = node.value_exact<std::string>();
    std::string problem;
    if (!value)
        problem = "has to be a text in quotes";
    else if (value->size() > bytes_max)
        problem = "has " + std::to_string(value->size()) + " bytes; at most " +
                  std::to_string(bytes_max) + " are allowed";
    else if (has_control_character(*value))
        problem = "holds a control character; none is allowed";
    if (problem.empty()) return value;
    complain(node.source(), path + ": " + problem);
    return std::nullopt;
}

// ---- limits of single users ----

void Reader::read_users(const toml::node &node) {
    const toml::table *users = node.as_table();
    if (users == nullptr)
        return complain(node.source(), "limits.user: has to be a table; write [limits.user.NAME]");
    if (users->size() > users_max)
        return complain(node.source(), "limits.user: has " + std::to_string(users->size()) +
                                           " users; at most " + std::to_string(users_max) +
                                           " are allowed");
    for (const auto &[name, user] : *users)
        read_user(name, user);
}

void Reader::read_user(const toml::key &name, const toml::node &node) {
    const std::string path = "limits.user." + std::string(name.str());
    const toml::table *table = node.as_table();
    if (table == nullptr)
        return complain(name.source(), path + ": has to be a table; write [" + path + "]");
    UserLimits user;
    user.name = name.str();
    std::optional<uid_t> uid = parse_user_number(user.name);
    if (!uid && !has_control_character(user.name)) uid = users_.user(user.name);
    if (!uid) return complain(name.source(), path + ": there is no user '" + user.name + "'");
    if (const UserLimits *same = config_.limits.of(*uid))
        return complain(name.source(), path + ": limits.user." + same->name +
                                           " is the same user; one table for each is allowed");
    user.uid = *uid;
    for (const auto &[key, value] : *table) {
        const auto *known = std::find(resource_names.begin(), resource_names.end(), key.str());
        if (known == resource_names.end()) {
            unknown(key, path + "." + std::string(key.str()),
                    Names(resource_names.begin(), resource_names.end()));
            continue;
        }
        const auto index = static_cast<std::size_t>(known - resource_names.begin());
        user.amounts.values[index] =
            number(*find_key("limits", *known), path + "." + *known, value);
    }
    config_.limits.users.push_back(std::move(user));
}

// ---- rules ----

void Reader::read_rules(const toml::node &node) {
    const toml::array *rules = node.as_array();
    const bool is_list = rules != nullptr && rules->is_homogeneous(toml::node_type::table);
    if (!is_list)
        return complain(node.source(), "rule: has to be a list of tables; write [[rule]]");
    if (rules->size() > rules_max)
        return complain(node.source(), "rule: there are " + std::to_string(rules->size()) +
                                           " rules; at most " + std::to_string(rules_max) +
                                           " are allowed");
    for (const toml::node &rule : *rules)
        read_rule(*rule.as_table());
}

void Reader::read_rule(const toml::table &table) {
    Rule rule;
    rule.place = file_ + ":" + std::to_string(table.source().begin.line);
    for (const auto &[key, node] : table) {
        const Names known = {"name", "user", "group", "what", "names", "decision"};
        if (std::find(known.begin(), known.end(), key.str()) == known.end())
            unknown(key, "rule." + std::string(key.str()), known);
        else
            read_rule_key(rule, std::string(key.str()), node);
    }
    if (!table.contains("decision"))
        complain(table.source(), "rule.decision: is missing; \"allow\" or \"deny\" is allowed");
    config_.rules.push_back(std::move(rule));
}

void Reader::read_rule_key(Rule &rule, const std::string &key, const toml::node &node) {
    if (key == "user") return read_principals(rule.users, key, node);
    if (key == "group") return read_principals(rule.groups, key, node);
    if (key == "what") return read_actions(rule, node);
    if (key == "names") return read_patterns(rule, node);
    if (key == "decision") return read_decision(rule, node);
    rule.name = text("rule.name", node, rule_name_bytes_max).value_or("");
}

void Reader::read_decision(Rule &rule, const toml::node &node) {
    const std::string decision = node.value_exact<std::string>().value_or("");
    rule.is_allowed = decision == "allow";
    if (decision != "allow" && decision != "deny")
        complain(node.source(), "rule.decision: \"allow\" or \"deny\" is allowed");
}

// A list, or one entry without brackets. A list without entries would mean everything where it
// reads as nothing.
template <typename Function>
void Reader::each_of_list(const std::string &key, const toml::node &node, Function function) {
    const toml::array *list = node.as_array();
    if (list == nullptr) return function(node);
    if (list->empty() || list->size() > list_max)
        return complain(node.source(), "rule." + key + ": has " + std::to_string(list->size()) +
                                           " entries; 1 to " + std::to_string(list_max) +
                                           " are allowed");
    for (const toml::node &entry : *list)
        function(entry);
}

void Reader::read_actions(Rule &rule, const toml::node &node) {
    rule.actions = 0;
    each_of_list("what", node, [this, &rule](const toml::node &entry) {
        const std::string name = entry.value_exact<std::string>().value_or("");
        for (unsigned i = 0; i < action_count; i++)
            if (name == action_name(static_cast<Action>(i))) {
                rule.actions |= 1u << i;
                return;
            }
        complain(entry.source(),
                 "rule.what: \"publish\", \"register\", \"list\" and \"dump\" are allowed");
    });
}

void Reader::read_patterns(Rule &rule, const toml::node &node) {
    each_of_list("names", node, [this, &rule](const toml::node &entry) {
        std::optional<std::string> pattern = text("rule.names", entry, pattern_bytes_max);
        if (pattern) rule.names.push_back(std::move(*pattern));
    });
}

void Reader::read_principals(std::vector<Principal> &out, const std::string &key,
                             const toml::node &node) {
    each_of_list(key, node, [&](const toml::node &entry) {
        const std::optional<std::int64_t> number = entry.value_exact<std::int64_t>();
        const std::string name =
            number ? std::to_string(*number) : entry.value_exact<std::string>().value_or("");
        std::optional<std::uint32_t> id = parse_user_number(name);
        if (!id && !number && !has_control_character(name))
            id = key == "user" ? users_.user(name) : users_.group(name);
        if (!id)
            return complain(entry.source(), "rule." + key + ": there is no " + key + " '" + name +
                                                "'; names and numbers are allowed");
        out.push_back({name, *id});
    });
}

} // namespace

ConfigError::ConfigError(std::vector<std::string> lines)
    : std::runtime_error(lines.empty() ? std::string() : lines.front()), lines_(std::move(lines)) {}

Config parse_config(std::string_view text, const std::string &file, const UserDatabase &users) {
    Reader reader(file, users);
    try {
        if (const std::optional<TextPlace> foreign = find_foreign_byte(text))
            reader.complain(foreign->line, foreign->column,
                            "beyond ASCII there are only strings and comments");
        else
            reader.read(toml::parse(text));
    } catch (const toml::parse_error &error) {
        reader.complain(error.source(), std::string(error.description()));
    }
    Config config = reader.finish();
    config.file = file;
    return config;
}

Config load_config(const std::string &file) {
    std::ifstream in(file, std::ios::binary);
    std::string text(file_bytes_max + 1, '\0');
    const bool is_open = in.is_open();
    if (is_open) in.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!is_open || in.bad())
        throw ConfigError({file + ": cannot be read: " + std::strerror(errno)});
    text.resize(static_cast<std::size_t>(in.gcount()));
    if (text.size() > file_bytes_max)
        throw ConfigError({file + ": is larger than " + std::to_string(file_bytes_max) + " bytes"});
    return parse_config(text, file);
}

} // namespace ds::host
