// The configuration file: what it means, and what is said about one that is wrong.
#include "host/config_file.h"
#include "host/toml_screen.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "host/config_keys.h"
#include "host/nearest.h"

namespace ds::host {
namespace {

class KnownUsers final : public UserDatabase {
  public:
    std::optional<uid_t> user(const std::string &name) const override {
        if (name == "root") return 0;
        if (name == "joe") return 1000;
        if (name == "joseph") return 1000;
        return std::nullopt;
    }
    std::optional<gid_t> group(const std::string &name) const override {
        return name == "chat" ? std::optional<gid_t>(50) : std::nullopt;
    }
};
const KnownUsers known_users;

Config parse(std::string_view text) {
    return parse_config(text, "f", known_users);
}

std::vector<std::string> errors_of(std::string_view text) {
    try {
        parse(text);
    } catch (const ConfigError &error) {
        return error.lines();
    }
    return {};
}

std::string only_error_of(std::string_view text) {
    const std::vector<std::string> errors = errors_of(text);
    return errors.size() == 1 ? errors.front() : std::to_string(errors.size()) + " errors";
}

std::string content_of(const std::string &path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

Config without_origin(Config config) {
    config.file.clear();
    for (Rule &rule : config.rules)
        rule.place.clear();
    return config;
}

TEST(ConfigFile, an_empty_file_leaves_the_defaults) {
    EXPECT_EQ(without_origin(parse("")), Config());
}

TEST(ConfigFile, characters_beyond_ascii_stand_in_strings_and_comments_only) {
    const auto place = [](std::string_view text) { return find_foreign_byte(text); };

    EXPECT_EQ(place("a = \"\u00e9 \\\" \u00e9\" # \u00e9\nb = '\u00e9\\'\n"), std::nullopt);
    EXPECT_EQ(place("a = \"\"\"\u00e9\n\"\u00e9\"\"\"\nb = \'\'\'\u00e9\n\'\'\'\n"), std::nullopt);
    EXPECT_EQ(place("\xef\xbb\xbf a = 1"), std::nullopt);
    EXPECT_EQ(place("a = 1\n b\u00e9 = 2\n"), (TextPlace{2, 3}));
    EXPECT_EQ(place("a = \"open\nb\u00e9\"\n"), (TextPlace{2, 2}));
    EXPECT_EQ(place("a = \"\"\n\u00e9"), (TextPlace{2, 1}));
    EXPECT_THROW(parse_config("[limits\u0489]\nsessions = 1\n", "f"), ConfigError);
}

TEST(ConfigFile, values_rules_and_limits_of_users_are_read) {
    const Config config = parse(R"(
        [daemon]
        socket = "/s"
        socket_mode = 0o660
        socket_group = "chat"
        console = true
        [limits]
        sessions = 5
        [limits.user.joe]
        publications = 7
        [limits.user.77]
        queued_bytes = 65536
        [[rule]]
        name = "first"
        user = ["joe", 12]
        group = "chat"
        what = ["publish", "dump"]
        names = ["chat/*", "a?"]
        decision = "allow"
        [[rule]]
        decision = "deny"
    )");

    EXPECT_EQ(config.socket, "/s");
    EXPECT_EQ(config.socket_mode, 0660u);
    EXPECT_EQ(config.socket_group, "chat");
    EXPECT_TRUE(config.console);
    EXPECT_EQ(config.limits.everybody[Resource::sessions], 5u);
    ASSERT_NE(config.limits.of(1000), nullptr);
    EXPECT_EQ(config.limits.of(1000)->amounts[Resource::publications], 7u);
    EXPECT_EQ(config.limits.of(1000)->amounts[Resource::sessions], std::nullopt);
    EXPECT_EQ(config.limits.of(77)->amounts[Resource::queued_bytes], 65536u);
    EXPECT_EQ(config.limits.of(78), nullptr);
    ASSERT_EQ(config.rules.size(), 2u);
    const Rule &first = config.rules[0];
    EXPECT_EQ(first.name, "first");
    EXPECT_EQ(first.place, "f:13");
    EXPECT_EQ(first.users, (std::vector<Principal>{{"joe", 1000}, {"12", 12}}));
    EXPECT_EQ(first.groups, (std::vector<Principal>{{"chat", 50}}));
    EXPECT_EQ(first.actions, 1u << static_cast<unsigned>(Action::publish) |
                                 1u << static_cast<unsigned>(Action::dump));
    EXPECT_EQ(first.names, (std::vector<std::string>{"chat/*", "a?"}));
    EXPECT_TRUE(first.is_allowed);
    EXPECT_EQ(config.rules[1].actions, every_action);
    EXPECT_FALSE(config.rules[1].is_allowed);
}

TEST(ConfigFile, what_is_printed_means_the_same) {
    const Config config = parse("[daemon]\nsocket = \"/a \\\"b\\\" \\\\\"\nsocket_mode = 0\n"
                                "[limits.user.joe]\nsessions = 1\n"
                                "[[rule]]\nuser = 3\nwhat = \"list\"\ndecision = \"deny\"\n"
                                "[[rule]]\nname = \"n\"\ngroup = \"chat\"\nnames = \"x\"\n"
                                "decision = \"allow\"\n");

    const Config again = parse(print_config(config));

    EXPECT_EQ(without_origin(again), without_origin(config));
}

TEST(ConfigFile, every_key_is_bounded_and_explained) {
    for (const Key &key : config_keys()) {
        const std::string name = full_name(key);
        EXPECT_EQ(find_key(key.section, key.name), &key) << name << " is there twice";
        EXPECT_GT(std::string_view(key.meaning).size(), 10u) << name;
        const bool is_flag = std::holds_alternative<Key::Flag>(key.target);
        EXPECT_TRUE(is_flag || key.max > key.min) << name;
    }
}

TEST(ConfigFile, every_default_is_allowed) {
    EXPECT_EQ(errors_of(print_config(Config())), std::vector<std::string>{});
}

TEST(ConfigFile, bounds_are_kept_on_both_sides) {
    for (const Key &key : config_keys()) {
        if (!std::holds_alternative<Key::Number>(key.target)) continue;
        const auto document = [&key](const std::string &value) {
            return "[" + std::string(key.section) + "]\n" + key.name + " = " + value + "\n";
        };

        EXPECT_TRUE(errors_of(document(std::to_string(key.min))).empty()) << full_name(key);
        EXPECT_TRUE(errors_of(document(std::to_string(key.max))).empty()) << full_name(key);
        EXPECT_EQ(errors_of(document(std::to_string(key.max + 1))).size(), 1u) << full_name(key);
        const std::string below = key.min > 0 ? std::to_string(key.min - 1) : "-1";
        EXPECT_EQ(errors_of(document(below)).size(), 1u) << full_name(key);
    }
}

TEST(ConfigFile, errors_tell_place_key_and_what_is_allowed) {
    EXPECT_EQ(only_error_of("[limits]\nsessions = -1\n"),
              "f:2:12: limits.sessions: -1 is out of range; 0 to 1000000 is allowed");
    EXPECT_EQ(only_error_of("[limits]\nsessions = \"5\"\n"),
              "f:2:12: limits.sessions: has to be a whole number; 0 to 1000000 is allowed");
    EXPECT_EQ(only_error_of("[daemon]\nconsole = 1\n"),
              "f:2:11: daemon.console: has to be true or false");
    EXPECT_EQ(only_error_of("[daemon]\nsocket = 7\n"),
              "f:2:10: daemon.socket: has to be a text in quotes");
    EXPECT_EQ(only_error_of("[daemon]\nsocket = \"a\\u0000b\"\n"),
              "f:2:10: daemon.socket: holds a control character; none is allowed");
    EXPECT_EQ(only_error_of("[daemon]\nsocket = \"" + std::string(108, 's') + "\"\n"),
              "f:2:10: daemon.socket: has 108 bytes; at most 107 are allowed");
    EXPECT_EQ(only_error_of("[daemon]\nnode_address = \"xx\"\n"),
              "f:2:16: daemon.node_address: 'xx' is no Ethernet address; write it as "
              "aa:bb:cc:dd:ee:ff");
    EXPECT_EQ(only_error_of("[daemon]\nsocket_group = \"chap\"\n"),
              "f:2:16: daemon.socket_group: there is no group 'chap'; a group's name or number is "
              "allowed");
    EXPECT_EQ(only_error_of("daemon = 1\n"), "f:1:1: daemon: has to be a table; write [daemon]");
}

TEST(ConfigFile, errors_in_rules_and_users_name_what_is_unknown) {
    EXPECT_EQ(only_error_of("[[rule]]\nwhat = \"publish\"\n"),
              "f:1:1: rule.decision: is missing; \"allow\" or \"deny\" is allowed");
    EXPECT_EQ(only_error_of("[[rule]]\ndecision = \"no\"\n"),
              "f:2:12: rule.decision: \"allow\" or \"deny\" is allowed");
    EXPECT_EQ(only_error_of("[[rule]]\nuser = \"jane\"\ndecision = \"deny\"\n"),
              "f:2:8: rule.user: there is no user 'jane'; names and numbers are allowed");
    EXPECT_EQ(only_error_of("[[rule]]\ngroup = [\"joe\"]\ndecision = \"deny\"\n"),
              "f:2:10: rule.group: there is no group 'joe'; names and numbers are allowed");
    EXPECT_EQ(only_error_of("[[rule]]\nwhat = [\"fly\"]\ndecision = \"deny\"\n"),
              "f:2:9: rule.what: \"publish\", \"register\", \"list\" and \"dump\" are allowed");
    EXPECT_EQ(only_error_of("[[rule]]\nnames = []\ndecision = \"deny\"\n"),
              "f:2:9: rule.names: has 0 entries; 1 to 64 are allowed");
    EXPECT_EQ(only_error_of("[limits.user.jane]\nsessions = 1\n"),
              "f:1:14: limits.user.jane: there is no user 'jane'");
    EXPECT_EQ(only_error_of("[limits.user.joe]\n[limits.user.joseph]\n"),
              "f:2:14: limits.user.joseph: limits.user.joe is the same user; one table for each is "
              "allowed");
    EXPECT_EQ(only_error_of("rule = 5\n"),
              "f:1:8: rule: has to be a list of tables; write [[rule]]");
    EXPECT_EQ(only_error_of("rule = [1]\n"),
              "f:1:8: rule: has to be a list of tables; write [[rule]]");
}

TEST(ConfigFile, an_error_is_one_line_whatever_the_file_holds) {
    EXPECT_EQ(only_error_of("\"a\\nb\\u001b[31m\" = 1\n").find_first_of("\n\x1b"),
              std::string::npos);
    EXPECT_EQ(only_error_of("[limits.user.\"joe\\n\"]\n"),
              "f:1:14: limits.user.joe?: there is no user 'joe?'");
}

TEST(ConfigFile, all_errors_are_told_in_the_order_of_the_file) {
    EXPECT_EQ(errors_of("[limits]\nsessions = -1\n[daemon]\nconsole = 1\nsocket = 1\n"),
              (std::vector<std::string>{
                  "f:2:12: limits.sessions: -1 is out of range; 0 to 1000000 is allowed",
                  "f:4:11: daemon.console: has to be true or false",
                  "f:5:10: daemon.socket: has to be a text in quotes"}));
}

TEST(ConfigFile, unknown_keys_are_errors_with_a_hint) {
    EXPECT_EQ(only_error_of("[deamon]\nx = 1\n"),
              "f:1:2: deamon: there is no such key; did you mean 'daemon'?");
    EXPECT_EQ(only_error_of("[daemon]\nsokcet = \"\"\n"),
              "f:2:1: daemon.sokcet: there is no such key; did you mean 'socket'?");
    EXPECT_EQ(only_error_of("[limits]\nusers = 1\n"),
              "f:2:1: limits.users: there is no such key; did you mean 'user'?");
    EXPECT_EQ(only_error_of("[limits.user.joe]\nfoo = 1\n"),
              "f:2:1: limits.user.joe.foo: there is no such key; known are sessions, publications, "
              "registrations, queued_bytes");
    EXPECT_EQ(only_error_of("[[rule]]\ndecison = \"deny\"\ndecision = \"deny\"\n"),
              "f:2:1: rule.decison: there is no such key; did you mean 'decision'?");
    EXPECT_EQ(suggest(std::string(10'000, 'x'), {"a", "b"}), "known are a, b");
}

TEST(ConfigFile, text_that_is_no_toml_is_one_error_with_its_place) {
    for (const char *text : {"[", "a = ", "= 1", "a = 'x", "[daemon]\n[daemon]\n", "\xff\xfe", "a",
                             "[b\"]", "[\x16"}) {
        const std::string error = only_error_of(text);

        EXPECT_TRUE(error.starts_with("f:")) << text << ": " << error;
    }
    EXPECT_EQ(errors_of("a = " + std::string(100'000, '[')).size(), 1u);
}

TEST(ConfigFile, a_file_that_cannot_be_read_is_an_error_with_its_reason) {
    const auto error_of = [](const std::string &file) -> std::string {
        try {
            load_config(file);
        } catch (const ConfigError &error) {
            return error.what();
        }
        return "none";
    };

    EXPECT_EQ(error_of("/no/such/file"),
              "/no/such/file: cannot be read: No such file or directory");
    EXPECT_EQ(error_of("/"), "/: cannot be read: Is a directory");
}

// ---- the sample ----

TEST(SampleFile, is_the_defaults_with_every_key_and_its_meaning) {
    const std::string sample = content_of(SAMPLE_FILE);

    EXPECT_EQ(without_origin(load_config(SAMPLE_FILE)), Config());
    EXPECT_NE(sample.find(print_config(Config())), std::string::npos) << "it has to hold this:\n"
                                                                      << print_config(Config());
}

// The examples are comments that begin with "#:".
TEST(SampleFile, its_examples_can_be_used) {
    std::istringstream lines(content_of(SAMPLE_FILE));
    std::string examples;
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with("#: ")) examples += line.substr(3) + "\n";

    const Config config = parse_config(examples, "examples");

    EXPECT_GE(config.rules.size(), 2u);
    EXPECT_GE(config.limits.users.size(), 1u);
}

} // namespace
} // namespace ds::host
