#include "cli/trace_line.h"

#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

namespace ds::cli {
namespace {

class TraceLineTest : public testing::Test {
  protected:
    void SetUp() override {
        ::setenv("TZ", "XYZ-2", 1);
        ::tzset();
        line.wall_ns = 1'795'262'400'123'456'789; // 2026-11-21 12:00:00 UTC
        line.channel = "reg";
        line.pid = 4711;
        line.record.sequence = 17;
        line.record.stamp_ns = 99;
        line.record.thread = 140737353836352;
        line.record.point = static_cast<std::uint32_t>(ds_log::id::DS_ADD_CLIENT_REG);
        line.record.arguments = {std::int64_t{12}, std::int64_t{0x100000001}, std::string("web"),
                                 std::int32_t{3}};
        context.no_color = true;
    }
    void TearDown() override {
        ::unsetenv("TZ");
        ::tzset();
    }

    TraceLine line;
    Context context;
};

TEST_F(TraceLineTest, the_text_is_the_message_without_the_newline_at_its_end) {
    EXPECT_EQ(line.text(), "[DS]: <<-- pid 12 [0x100000001] reg for web, handle returned=3");
    line.record.point = static_cast<std::uint32_t>(ds_log::id::DS_DELETED_SERVICE_ELEM_2);
    line.record.arguments = {std::string("ends\n")};
    EXPECT_EQ(line.text(), "[DS]:...Deleted service elem:ends\n") << "not the format's own";
}

TEST_F(TraceLineTest, a_point_beyond_the_table_has_its_number_for_a_tag) {
    line.record.point = 87;
    EXPECT_EQ(line.tag(), "#87");
    EXPECT_EQ(line.text(), "(no log point has that number)");
}

TEST_F(TraceLineTest, columns_stand_under_their_titles_whatever_the_record) {
    for (const Format format : {Format::table, Format::wide}) {
        context.format = format;
        const std::string header = trace_header(context);
        TraceLine other = line;
        other.channel = "pub";
        other.record.point =
            static_cast<std::uint32_t>(ds_log::id::DS_DB_SERVICE_PUBLISHER_DELETE_NOT_FOUND);
        other.record.arguments = {std::string("web")};
        for (const TraceLine *each : {&line, &other}) {
            const std::string text = trace_text(context, *each);
            EXPECT_EQ(text.find('[' + each->tag() + ']'), header.find("TAG")) << text;
            EXPECT_EQ(text.find(each->text()), header.find("MESSAGE")) << text;
            EXPECT_EQ(text.find(' ' + each->channel + ' '), header.find("CHANNEL") - 1) << text;
        }
    }
}

TEST_F(TraceLineTest, the_table_shows_local_time_with_ms_and_wide_all_of_it) {
    EXPECT_TRUE(trace_text(context, line).starts_with("11/21 14:00:00.123 reg "));
    context.format = Format::wide;
    const std::string wide = trace_text(context, line);
    EXPECT_TRUE(wide.starts_with("2026-11-21 14:00:00.123456789 reg ")) << wide;
    for (const char *part : {" 6 [", " 4711 ", " 140737353836352 ", " 17 "})
        EXPECT_NE(wide.find(part), wide.npos) << part;
}

TEST_F(TraceLineTest, a_line_stays_one_line_whatever_the_record_holds) {
    line.record.arguments[2] = std::string("a\nb\033[31m");
    const std::string text = trace_text(context, line);
    EXPECT_EQ(text.find('\n'), text.size() - 1);
    EXPECT_EQ(text.find('\033'), text.npos);
    EXPECT_NE(text.find("reg for a\\nb\\x1b[31m, handle"), text.npos) << text;
}

TEST_F(TraceLineTest, json_has_the_time_in_utc_with_ns_and_every_argument_with_its_type) {
    EXPECT_EQ(json_line(trace_json(line)),
              "{\"time\":\"2026-11-21T12:00:00.123456789Z\",\"stamp_ns\":99,\"channel\":\"reg\","
              "\"sequence\":17,\"id\":6,\"tag\":\"DS_ADD_CLIENT_REG\",\"pid\":4711,"
              "\"thread\":140737353836352,\"args\":[{\"type\":\"D\",\"value\":12},"
              "{\"type\":\"D\",\"value\":4294967297},{\"type\":\"s\",\"value\":\"web\"},"
              "{\"type\":\"d\",\"value\":3}],\"truncated\":false,\"text\":\"[DS]: <<-- pid 12 "
              "[0x100000001] reg for web, handle returned=3\"}\n");
}

TEST_F(TraceLineTest, numbers_in_json_are_as_signed_as_in_the_message) {
    line.record.point = static_cast<std::uint32_t>(ds_log::id::RESOLVE_SERVICE_INFO_FROM_DSR);
    line.record.arguments = {std::int32_t{-1}, std::string("web"), std::string("RACK"),
                             std::int32_t{-1}, std::string("node")};
    const Json json = trace_json(line);
    EXPECT_EQ(json["args"][0]["value"], 0xffffffffu) << "%x";
    EXPECT_EQ(json["args"][3]["value"], -1) << "%d";
}

TEST_F(TraceLineTest, the_terminator_of_an_instance_stays_in_the_text) {
    line.record.point = static_cast<std::uint32_t>(ds_log::id::SERVICE_ENDPOINT_PATH);
    line.record.arguments = {std::int32_t{1},       std::string("web"),   std::string("blue;"),
                             std::int32_t{0},       std::string("LOCAL"), std::string("/p"),
                             std::string("ACTIVE"), std::int32_t{1},      std::string("UNKNOWN"),
                             std::int32_t{0},       std::int32_t{0}};
    EXPECT_NE(trace_text(context, line).find("[web@blue;]"), std::string::npos);
}

TEST_F(TraceLineTest, a_notice_is_a_sentence_or_an_object) {
    EXPECT_EQ(trace_notice(context, "lost", "pub: 3 records lost", {{"records", 3}}),
              "-- pub: 3 records lost\n");
    context.format = Format::jsonl;
    EXPECT_EQ(trace_notice(context, "lost", "pub: 3 records lost", {{"records", 3}}),
              "{\"notice\":\"lost\",\"records\":3}\n");
}

} // namespace
} // namespace ds::cli
