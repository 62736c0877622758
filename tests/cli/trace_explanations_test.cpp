#include "cli/trace_explanations.h"

#include <set>
#include <string>

#include <gtest/gtest.h>

#include "cli/context.h"

namespace ds::cli {
namespace {

Context context_of(Format format) {
    Context context;
    context.format = format;
    return context;
}

// What the call prints, and its exit code.
std::pair<std::string, int> explained(const std::string &wanted, Format format = Format::table) {
    testing::internal::CaptureStdout();
    const int code = explain(context_of(format), wanted);
    std::fflush(stdout);
    return {testing::internal::GetCapturedStdout(), code};
}

bool is_sentences(const std::string &text) {
    return text.size() > 5 && text[0] >= 'A' && text[0] <= 'Z' && text.back() == '.' &&
           text.find("  ") == text.npos;
}

// That every point has one, and no other tag, is checked by the compiler.
TEST(TraceExplanations, every_point_is_explained_in_sentences_with_what_to_do) {
    for (const Explanation &explanation : explanations) {
        EXPECT_TRUE(is_sentences(explanation.happened)) << explanation.tag;
        EXPECT_TRUE(is_sentences(explanation.advice)) << explanation.tag;
    }
}

TEST(TraceExplanations, no_two_points_mean_the_same) {
    std::set<std::string> seen;
    for (const Explanation &explanation : explanations)
        EXPECT_TRUE(seen.insert(explanation.happened).second) << explanation.tag;
}

TEST(TraceExplanations, whatever_goes_to_the_channel_of_failures_has_an_advice) {
    for (const ds_log::point &point : ds_log::points) {
        if (point.channel != ds_log::channel::err) continue;
        EXPECT_STRNE(explanations[point.number].advice, "Nothing.") << point.tag;
    }
}

TEST(TraceExplanations, a_point_is_found_by_its_tag_in_any_case_and_by_its_number) {
    const auto by_tag = explained("dsr_connect_cb");
    const auto by_number = explained("82");

    EXPECT_EQ(by_tag.second, exit_ok);
    EXPECT_EQ(by_tag, by_number);
    EXPECT_TRUE(by_tag.first.starts_with("DSR_CONNECT_CB  number 82, channel main\n"))
        << by_tag.first;
    EXPECT_NE(by_tag.first.find(explanations[82].happened), std::string::npos) << by_tag.first;
    EXPECT_NE(by_tag.first.find("To do: Nothing."), std::string::npos) << by_tag.first;
}

TEST(TraceExplanations, a_pattern_finds_several_and_json_lines_hold_one_each) {
    const auto [out, code] = explained("DS_DUMP*", Format::jsonl);

    EXPECT_EQ(code, exit_ok);
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 6); // three frames, three failures
    EXPECT_NE(out.find("\"tag\":\"DS_DUMP_1\""), std::string::npos) << out;
}

TEST(TraceExplanations, an_unknown_point_is_not_found) {
    testing::internal::CaptureStderr();
    const auto [out, code] = explained("87");
    const std::string err = testing::internal::GetCapturedStderr();

    EXPECT_EQ(code, exit_not_found);
    EXPECT_EQ(out, "");
    EXPECT_NE(err.find("no log point '87'"), std::string::npos) << err;
}

} // namespace
} // namespace ds::cli
