#include "host/policy.h"

#include <gtest/gtest.h>

namespace ds::host {
namespace {

Rule rule(std::string name, bool is_allowed) {
    Rule made;
    made.name = std::move(name);
    made.is_allowed = is_allowed;
    return made;
}

std::string denial_of(const std::vector<Rule> &rules, const Peer &peer, Action action,
                      std::string_view name) {
    const Rule *found = find_denial(rules, peer, action, name);
    return found != nullptr ? found->name : "allowed";
}

TEST(Pattern, a_star_stands_for_any_run_of_characters) {
    EXPECT_TRUE(matches_pattern("chat/*", "chat/a/b"));
    EXPECT_TRUE(matches_pattern("chat/*", "chat/"));
    EXPECT_FALSE(matches_pattern("chat/*", "chat"));
    EXPECT_FALSE(matches_pattern("chat/*", "my/chat/a"));
    EXPECT_TRUE(matches_pattern("*", ""));
    EXPECT_TRUE(matches_pattern("*.log", "a.log.log"));
    EXPECT_FALSE(matches_pattern("*.log", "a.log.txt"));
    EXPECT_TRUE(matches_pattern("a*b*c", "aXbbYcc"));
    EXPECT_FALSE(matches_pattern("a*b*c", "acb"));
    EXPECT_TRUE(matches_pattern("a**", "a"));
}

TEST(Pattern, a_question_mark_stands_for_one_character) {
    EXPECT_TRUE(matches_pattern("a?c", "abc"));
    EXPECT_FALSE(matches_pattern("a?c", "ac"));
    EXPECT_FALSE(matches_pattern("a?c", "abbc"));
    EXPECT_TRUE(matches_pattern("a?c", "a\xc3\xa4"
                                       "c"));
    EXPECT_FALSE(matches_pattern("a??c", "a\xc3\xa4"
                                         "c"));
    EXPECT_TRUE(matches_pattern("*?", "x"));
    EXPECT_FALSE(matches_pattern("*?", ""));
}

TEST(Pattern, everything_else_stands_for_itself) {
    EXPECT_TRUE(matches_pattern("a[b]\\.c", "a[b]\\.c"));
    EXPECT_FALSE(matches_pattern("a[b]", "ab"));
    EXPECT_FALSE(matches_pattern("a", "A"));
    EXPECT_FALSE(matches_pattern("", "a"));
    EXPECT_TRUE(matches_pattern("", ""));
}

TEST(Pattern, many_stars_do_not_take_for_ever) {
    std::string pattern;
    for (int i = 0; i < 100; i++)
        pattern += "*a";

    EXPECT_FALSE(matches_pattern(pattern + "b", std::string(255, 'a')));
    EXPECT_TRUE(matches_pattern(pattern, std::string(255, 'a')));
}

TEST(Policy, what_no_rule_fits_is_allowed) {
    Rule other = rule("other", false);
    other.names = {"x"};

    EXPECT_EQ(denial_of({}, {}, Action::publish, "a"), "allowed");
    EXPECT_EQ(denial_of({other}, {}, Action::publish, "a"), "allowed");
}

TEST(Policy, the_first_rule_that_fits_decides) {
    Rule chat = rule("chat", true);
    chat.names = {"chat/*"};
    const Rule nobody = rule("nobody", false);

    EXPECT_EQ(denial_of({chat, nobody}, {}, Action::publish, "chat/a"), "allowed");
    EXPECT_EQ(denial_of({chat, nobody}, {}, Action::publish, "web"), "nobody");
    EXPECT_EQ(denial_of({nobody, chat}, {}, Action::publish, "chat/a"), "nobody");
}

TEST(Policy, a_rule_fits_the_actions_that_it_names) {
    Rule publishing = rule("publishing", false);
    publishing.actions = 1u << static_cast<unsigned>(Action::publish);

    EXPECT_EQ(denial_of({publishing}, {}, Action::publish, "a"), "publishing");
    for (const Action action : {Action::watch, Action::list, Action::dump})
        EXPECT_EQ(denial_of({publishing}, {}, action, "a"), "allowed") << action_name(action);
}

TEST(Policy, a_rule_with_users_and_groups_fits_whoever_is_in_either) {
    Rule some = rule("some", false);
    some.users = {{"joe", 1000}};
    some.groups = {{"chat", 50}};

    EXPECT_EQ(denial_of({some}, {1000, {1000}}, Action::list, "a"), "some");
    EXPECT_EQ(denial_of({some}, {1001, {7, 50}}, Action::list, "a"), "some");
    EXPECT_EQ(denial_of({some}, {1001, {7, 8}}, Action::list, "a"), "allowed");
    EXPECT_EQ(denial_of({some}, {50, {1000}}, Action::list, "a"), "allowed");
}

TEST(Policy, root_is_exempt_only_by_a_rule) {
    const Rule nobody = rule("nobody", false);
    Rule root = rule("root", true);
    root.users = {{"root", 0}};

    EXPECT_EQ(denial_of({nobody}, {0, {0}}, Action::publish, "a"), "nobody");
    EXPECT_EQ(denial_of({root, nobody}, {0, {0}}, Action::publish, "a"), "allowed");
}

TEST(Policy, a_rule_is_described_by_its_name_and_its_place) {
    Rule unnamed;
    unnamed.place = "/f:3";
    Rule named = unnamed;
    named.name = "quiet";

    EXPECT_EQ(describe_rule(unnamed), "The rule (/f:3)");
    EXPECT_EQ(describe_rule(named), "Rule 'quiet' (/f:3)");
}

} // namespace
} // namespace ds::host
