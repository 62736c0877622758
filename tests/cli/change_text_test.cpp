#include "cli/change_text.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "cli/endpoint.h"
#include "cli/json.h"

namespace ds::cli {
namespace {

constexpr std::uint64_t moment_ns = 1'700'000'000'123'000'000;

class ChangeText : public testing::Test {
  protected:
    ChangeText() {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
        context_.no_color = true;
        snapshot_.set_name("web");
        snapshot_.set_version(7);
        change_.kind = ChangeKind::appeared;
        change_.reason = "published";
        change_.instance.set_service_id(26);
        change_.instance.set_instance("blue");
        change_.instance.set_scope(v1::SCOPE_LOCAL);
        change_.instance.set_local(true);
        change_.instance.set_generation(1);
        EXPECT_FALSE(parse_endpoint("10.0.0.1:80", *change_.instance.mutable_endpoint()));
    }

    Context context_;
    v1::Snapshot snapshot_;
    Change change_;
};

TEST_F(ChangeText, a_line_stands_under_its_titles) {
    const ChangeLines lines(context_, {"web"});

    const std::string header = lines.header();
    const std::string line = lines.line(snapshot_, change_, moment_ns);

    EXPECT_EQ(line.substr(0, 2), "+ ");
    EXPECT_EQ(line.find("22:13:20.123"), header.find("TIME"));
    EXPECT_EQ(line.find("v7"), header.find("VERSION"));
    EXPECT_EQ(line.find("blue"), header.find("INSTANCE"));
    EXPECT_EQ(line.find("10.0.0.1:80"), header.find("ENDPOINT"));
    EXPECT_EQ(line.find("LOCAL"), header.find("SCOPE"));
    EXPECT_EQ(line.find("local"), header.find("NODE"));
    EXPECT_EQ(line.find("published"), header.find("REASON"));
}

TEST_F(ChangeText, a_wide_line_stands_under_its_titles_too) {
    context_.format = Format::wide;
    change_.instance.set_node("\x02\x01\x01\x01\x01\x01");
    const ChangeLines lines(context_, {"web"});

    const std::string header = lines.header();
    const std::string line = lines.line(snapshot_, change_, moment_ns);

    EXPECT_EQ(line.find("02:01:01:01:01:01"), header.find("NODE"));
    EXPECT_EQ(line.find("0x1a"), header.find(" ID ") + 1);
    EXPECT_EQ(line.find("published"), header.find("REASON"));
}

TEST_F(ChangeText, each_kind_has_its_mark) {
    const ChangeLines lines(context_, {"web"});
    const std::pair<ChangeKind, char> marks[] = {{ChangeKind::present, '='},
                                                 {ChangeKind::appeared, '+'},
                                                 {ChangeKind::changed, '~'},
                                                 {ChangeKind::gone, '-'}};

    for (const auto &[kind, mark] : marks) {
        change_.kind = kind;
        EXPECT_EQ(lines.line(snapshot_, change_, moment_ns).front(), mark);
    }
}

TEST_F(ChangeText, an_instance_with_a_line_end_stays_on_its_line) {
    change_.instance.set_instance("x\n- fake");
    const ChangeLines lines(context_, {"web"});

    const std::string line = lines.line(snapshot_, change_, moment_ns);

    EXPECT_EQ(line.find('\n'), line.size() - 1);
    EXPECT_NE(line.find("\"x\\n- fake\""), line.npos);
}

TEST_F(ChangeText, a_name_without_instances_is_told_as_such) {
    const ChangeLines lines(context_, {"web"});

    const std::string line = lines.nothing(snapshot_, moment_ns);

    EXPECT_EQ(line, "= 22:13:20.123  v7       web   nothing is published\n");
}

TEST_F(ChangeText, json_has_no_header_and_one_object_per_change) {
    context_.format = Format::jsonl;
    const ChangeLines lines(context_, {"web"});

    const std::string line = lines.line(snapshot_, change_, moment_ns);

    EXPECT_EQ(lines.header(), "");
    const Json json = Json::parse(line);
    EXPECT_EQ(json["event"], "appeared");
    EXPECT_EQ(json["time"], "2023-11-14T22:13:20.123Z");
    EXPECT_EQ(json["version"], 7u);
    EXPECT_EQ(json["endpoint"], "10.0.0.1:80");
    EXPECT_EQ(json["reason"], "published");
}

TEST_F(ChangeText, a_command_is_given_what_changed) {
    std::map<std::string, std::string> variables;

    for (const auto &[name, value] : change_environment(snapshot_, change_))
        variables[name] = value;

    EXPECT_EQ(variables["DS_EVENT"], "appeared");
    EXPECT_EQ(variables["DS_NAME"], "web");
    EXPECT_EQ(variables["DS_INSTANCE"], "blue");
    EXPECT_EQ(variables["DS_ENDPOINT"], "10.0.0.1:80");
    EXPECT_EQ(variables["DS_VERSION"], "7");
    EXPECT_EQ(variables["DS_ID"], "0x1a");
}

} // namespace
} // namespace ds::cli
