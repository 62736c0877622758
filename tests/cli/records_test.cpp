#include "cli/records.h"

#include <gtest/gtest.h>

namespace ds::cli {
namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

Context with(Format format) {
    Context context;
    context.format = format;
    context.no_color = true;
    return context;
}

Json object(int number) {
    Json json;
    json["a"] = number;
    json["b"] = Json::array({"x\ny"});
    return json;
}

TEST(Records, an_array_printed_page_by_page_is_the_document_of_the_whole) {
    const Context context = with(Format::json);
    Records records(context, {});
    CaptureStdout();

    records.add(object(1));
    records.add(object(2));
    records.end_page();
    records.end_page();
    records.add(object(3));
    records.finish();

    EXPECT_EQ(GetCapturedStdout(), json_document(Json::array({object(1), object(2), object(3)})));
}

TEST(Records, an_array_of_nothing_is_one) {
    const Context context = with(Format::json);
    Records records(context, {});
    CaptureStdout();

    records.finish();

    EXPECT_EQ(GetCapturedStdout(), json_document(Json::array()));
}

TEST(Records, an_array_that_was_not_finished_cannot_be_taken_for_whole) {
    const Context context = with(Format::json);
    Records records(context, {});
    CaptureStdout();

    records.add(object(1));
    records.end_page();

    EXPECT_FALSE(Json::accept(GetCapturedStdout()));
}

TEST(Records, objects_of_one_line_each_are_printed_with_their_page) {
    const Context context = with(Format::jsonl);
    Records records(context, {});
    CaptureStdout();
    records.add(object(1));

    records.end_page();

    EXPECT_EQ(GetCapturedStdout(), json_line(object(1)));
}

TEST(Records, a_table_without_rows_has_its_header) {
    const Context context = with(Format::table);
    Records records(context, {"NAME", "X"});
    CaptureStdout();

    records.end_page();
    records.finish();

    EXPECT_EQ(GetCapturedStdout(), "NAME  X\n");
}

TEST(Records, the_only_object_is_a_document_or_a_line) {
    CaptureStdout();

    print_object(with(Format::json), object(1));
    print_object(with(Format::jsonl), object(2));

    EXPECT_EQ(GetCapturedStdout(), json_document(object(1)) + json_line(object(2)));
}

} // namespace
} // namespace ds::cli
