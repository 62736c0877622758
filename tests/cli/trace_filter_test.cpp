#include "cli/trace_filter.h"

#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

namespace ds::cli {
namespace {

constexpr std::uint64_t second_ns = 1'000'000'000;
constexpr std::uint64_t noon_ns = 1'795'262'400 * second_ns; // 2026-11-21 12:00:00 UTC

class TraceMoment : public testing::Test {
  protected:
    void SetUp() override { set_zone("UTC"); }
    void TearDown() override { set_zone(nullptr); }
    static void set_zone(const char *name) {
        name == nullptr ? ::unsetenv("TZ") : ::setenv("TZ", name, 1);
        ::tzset();
    }
    static std::optional<std::uint64_t> at(std::string_view text) {
        return parse_moment(text, noon_ns);
    }
};

TEST_F(TraceMoment, a_time_ago_counts_back_from_now) {
    EXPECT_EQ(at("30s"), noon_ns - 30 * second_ns);
    EXPECT_EQ(at("5m"), noon_ns - 300 * second_ns);
    EXPECT_EQ(at("2h"), noon_ns - 7200 * second_ns);
    EXPECT_EQ(at("1d"), noon_ns - 86400 * second_ns);
    EXPECT_EQ(at("250ms"), noon_ns - second_ns / 4);
    EXPECT_EQ(at("0s"), noon_ns);
    EXPECT_EQ(at("100000000d"), 0u) << "before the epoch is the epoch";
}

TEST_F(TraceMoment, a_date_may_leave_out_what_is_zero) {
    EXPECT_EQ(at("2026-11-21 12:00:00"), noon_ns);
    EXPECT_EQ(at("2026-11-21T12:00:00"), noon_ns);
    EXPECT_EQ(at("2026-11-21 12:00"), noon_ns);
    EXPECT_EQ(at("2026-11-21"), noon_ns - 43200 * second_ns);
    EXPECT_EQ(at("2026-11-21 12:00:00.5"), noon_ns + second_ns / 2);
    EXPECT_EQ(at("2026-11-21 12:00:00.000000001"), noon_ns + 1);
}

TEST_F(TraceMoment, a_time_without_a_date_is_today) {
    EXPECT_EQ(at("10:00:00"), noon_ns - 7200 * second_ns);
    EXPECT_EQ(at("10:30"), noon_ns - 5400 * second_ns);
}

TEST_F(TraceMoment, a_date_is_local_and_with_a_z_it_is_utc) {
    set_zone("XYZ-2"); // two hours east
    EXPECT_EQ(at("2026-11-21 14:00:00"), noon_ns);
    EXPECT_EQ(at("2026-11-21T12:00:00Z"), noon_ns);
    EXPECT_EQ(at("2026-11-21T12:00:00.25Z"), noon_ns + second_ns / 4);
}

TEST_F(TraceMoment, what_is_no_time_is_refused) {
    for (const char *text :
         {"", "5", "m", "5x", "-5m", "5 m", "5m5s", "100000001s", "yesterday",
          "2026-11-21 25:00:00", "2026-02-30", "2026-13-01", "10:00:00.", "10:00:00.x",
          "10:00:00.1234567890", "2026-11-21 10:00:00 CET", "1969-01-01"})
        EXPECT_FALSE(at(text)) << text;
}

// ---- the filter ----

TraceLine published(const std::string &name) {
    TraceLine line;
    line.wall_ns = noon_ns;
    line.channel = "pub";
    line.record.point = static_cast<std::uint32_t>(ds_log::id::DS_PUBLISH_SERVICE);
    line.record.arguments = {std::int64_t{42},      std::int64_t{1},   name,
                             std::string("SYSTEM"), std::int32_t{1},   std::int64_t{1},
                             std::string("node"),   std::string("new")};
    return line;
}

TraceLine sent(const std::string &name_and_instance) {
    TraceLine line;
    line.channel = "pub";
    line.record.point = static_cast<std::uint32_t>(ds_log::id::DS_DSR_SERVICE_UPDATE);
    line.record.arguments = {std::string("ADD"),    std::int32_t{1}, name_and_instance,
                             std::string("SYSTEM"), std::int32_t{1}, std::int32_t{0}};
    return line;
}

TEST(TraceFilter, without_conditions_everything_is_taken) {
    EXPECT_TRUE(TraceFilter{}.takes(published("web")));
    EXPECT_TRUE(TraceFilter{}.takes(TraceLine{}));
}

TEST(TraceFilter, of_several_channels_one_is_enough) {
    TraceFilter filter;
    filter.channels = {"err", "pub"};
    EXPECT_TRUE(filter.takes(published("web")));
    filter.channels = {"err", "reg"};
    EXPECT_FALSE(filter.takes(published("web")));
}

TEST(TraceFilter, tags_match_as_patterns_in_any_case) {
    TraceFilter filter;
    for (const char *tag :
         {"DS_PUBLISH_SERVICE", "ds_publish*", "*publish*", "DS_?UBLISH_SERVICE"}) {
        filter.tags = {tag};
        EXPECT_TRUE(filter.takes(published("web"))) << tag;
    }
    for (const char *tag : {"DS_PUBLISH", "PUBLISH*", "DS_PUBLISH_SERVICE_UPDATE"}) {
        filter.tags = {tag};
        EXPECT_FALSE(filter.takes(published("web"))) << tag;
    }
    filter.tags = {"NONE", "DS_*"};
    EXPECT_TRUE(filter.takes(published("web")));
}

TEST(TraceFilter, a_name_is_a_whole_text_argument) {
    TraceFilter filter;
    filter.name = "web";
    EXPECT_TRUE(filter.takes(published("web")));
    EXPECT_FALSE(filter.takes(published("web2")));
    EXPECT_FALSE(filter.takes(published("we")));
    EXPECT_FALSE(filter.takes(published("web/a"))) << "another service's name";
}

TEST(TraceFilter, a_name_is_found_before_an_instance_where_both_are_one_text) {
    TraceFilter filter;
    filter.name = "web";
    EXPECT_TRUE(filter.takes(sent("web")));
    EXPECT_TRUE(filter.takes(sent("web/blue")));
    EXPECT_FALSE(filter.takes(sent("web2/blue")));
    EXPECT_FALSE(filter.takes(sent("other/web")));
}

TEST(TraceFilter, both_ends_of_the_time_are_inside) {
    TraceFilter filter;
    filter.since_ns = filter.until_ns = noon_ns;
    EXPECT_TRUE(filter.takes(published("web")));
    filter.since_ns = noon_ns + 1;
    filter.until_ns = UINT64_MAX;
    EXPECT_FALSE(filter.takes(published("web")));
    filter.since_ns = 0;
    filter.until_ns = noon_ns - 1;
    EXPECT_FALSE(filter.takes(published("web")));
}

TEST(TraceFilter, an_expression_is_looked_for_in_the_message) {
    std::string error;
    TraceFilter filter;
    filter.pattern = Pattern::compile("pub web@(RACK|SYSTEM)/gen:[0-9]+", error);
    ASSERT_NE(filter.pattern, nullptr) << error;
    EXPECT_TRUE(filter.takes(published("web")));
    EXPECT_FALSE(filter.takes(published("db")));
    EXPECT_EQ(Pattern::compile("a(", error), nullptr);
    EXPECT_NE(error, "");
}

TEST(TraceFilter, every_condition_that_is_set_must_hold) {
    TraceFilter filter;
    filter.channels = {"pub"};
    filter.name = "web";
    filter.tags = {"DS_*"};
    EXPECT_TRUE(filter.takes(published("web")));
    EXPECT_FALSE(filter.takes(published("db")));
}

} // namespace
} // namespace ds::cli
