#include "cli/output.h"

#include <gtest/gtest.h>

namespace ds::cli {
namespace {

TEST(Output, plain_text_is_a_cell_as_it_is) {
    EXPECT_EQ(cell("web-1.local"), "web-1.local");
}

TEST(Output, an_empty_cell_and_a_dash_look_different) {
    EXPECT_EQ(cell(""), "-");
    EXPECT_EQ(cell("-"), "\"-\"");
}

TEST(Output, a_cell_with_blanks_or_quotes_is_quoted) {
    EXPECT_EQ(cell("a  b"), "\"a  b\"");
    EXPECT_EQ(cell("say \"hi\""), "\"say \\\"hi\\\"\"");
}

TEST(Output, line_ends_and_terminal_controls_are_escaped) {
    EXPECT_EQ(escape("a\nb\r\tc"), "a\\nb\\r\\tc");
    EXPECT_EQ(escape("\033[2J"), "\\x1b[2J");
    EXPECT_EQ(escape("\x7f"), "\\x7f");
    EXPECT_EQ(escape("\xc2\x9b"), "\\u{9b}"); // the one-character form of ESC [
}

TEST(Output, characters_that_turn_or_hide_text_are_escaped) {
    EXPECT_EQ(escape("a\u202eb"), "a\\u{202e}b");
    EXPECT_EQ(escape("a\u200bb"), "a\\u{200b}b");
    EXPECT_EQ(escape("a\u2028b"), "a\\u{2028}b");
    EXPECT_EQ(escape("\ufeff"), "\\u{feff}");
}

TEST(Output, bytes_that_are_not_utf8_are_escaped_one_by_one) {
    EXPECT_EQ(escape("\xff"), "\\xff");
    EXPECT_EQ(escape("\xc3"), "\\xc3");
    EXPECT_EQ(escape("\xc0\xaf"), "\\xc0\\xaf");          // overlong
    EXPECT_EQ(escape("\xed\xa0\x80"), "\\xed\\xa0\\x80"); // surrogate
}

TEST(Output, an_escape_that_somebody_wrote_is_not_taken_for_one_made_here) {
    EXPECT_EQ(escape("\\n"), "\\\\n");
    EXPECT_NE(escape("\\n"), escape("\n"));
}

TEST(Output, a_sentence_stays_on_its_line_and_escapes_nothing_twice) {
    EXPECT_EQ(one_line("cannot publish a\\nb\nfake"), "cannot publish a\\nb\\nfake");
}

TEST(Output, letters_of_other_scripts_stay_and_their_width_counts) {
    EXPECT_EQ(escape("größe"), "größe");
    EXPECT_EQ(width("größe"), 5u);
    EXPECT_EQ(width("目录"), 4u);
    EXPECT_EQ(pad("目录", 6), "目录  ");
}

TEST(Output, columns_are_as_wide_as_their_widest_cell_and_nothing_is_cut) {
    Table table({"NAME", "X", "LAST"});
    table.add({"目录", "1", "a"});
    table.add({"a-very-long-name", "", "b"});

    const std::string text = table.render(false);

    EXPECT_EQ(text, "NAME              X  LAST\n"
                    "目录              1  a\n"
                    "a-very-long-name  -  b\n");
}

TEST(Output, a_hostile_cell_neither_adds_a_line_nor_moves_a_column) {
    Table table({"NAME", "X"});
    table.add({"web\nfake  9\033[1A", "1"});
    table.add({"db", "2"});

    const std::string text = table.render(false);

    EXPECT_EQ(text, "NAME                   X\n"
                    "\"web\\nfake  9\\x1b[1A\"  1\n"
                    "db                     2\n");
}

TEST(Output, colours_appear_only_when_enabled) {
    Table table({"NAME"});

    EXPECT_EQ(table.render(false), "NAME\n");
    EXPECT_EQ(table.render(true), "\033[1mNAME\033[0m\n");
}

TEST(Output, sizes_are_shown_in_the_largest_fitting_unit) {
    EXPECT_EQ(bytes_text(0), "0 B");
    EXPECT_EQ(bytes_text(1023), "1023 B");
    EXPECT_EQ(bytes_text(1536), "1.5 KiB");
    EXPECT_EQ(bytes_text(5ull << 30), "5.0 GiB");
}

TEST(Output, durations_start_with_the_first_unit_that_counts) {
    EXPECT_EQ(duration_text(4250), "4.250s");
    EXPECT_EQ(duration_text(60'000), "1m 00s");
    EXPECT_EQ(duration_text(3'661'000), "1h 01m 01s");
    EXPECT_EQ(duration_text(93'784'000), "1d 02h 03m 04s");
}

TEST(Output, utc_times_are_in_iso_form) {
    EXPECT_EQ(iso_text(1'700'000'000'123'000'000), "2023-11-14T22:13:20.123Z");
}

TEST(Output, times_keep_their_nanoseconds_for_machines) {
    EXPECT_EQ(rfc3339_text(1'700'000'000'000'000'007), "2023-11-14T22:13:20.000000007Z");
}

TEST(Output, ages_are_told_in_their_two_largest_units) {
    constexpr std::uint64_t second = 1'000'000'000;
    EXPECT_EQ(age_text(0), "0ms");
    EXPECT_EQ(age_text(second - 1), "999ms");
    EXPECT_EQ(age_text(12 * second), "12s");
    EXPECT_EQ(age_text(330 * second), "5m30s");
    EXPECT_EQ(age_text(7'500 * second), "2h5m");
    EXPECT_EQ(age_text((3 * 86'400 + 4 * 3'600 + 59) * second), "3d4h");
}

TEST(Output, what_is_still_to_come_has_no_age) {
    EXPECT_EQ(age_ns(5, 7), 2u);
    EXPECT_EQ(age_ns(7, 5), 0u);
}

TEST(Output, a_table_in_pages_has_one_header_and_columns_that_only_grow) {
    Table table({"NAME", "X"});
    table.add({"abcdef", "1"});

    EXPECT_EQ(table.take_page(false), "NAME    X\n"
                                      "abcdef  1\n");
    EXPECT_EQ(table.take_page(false), "");
    table.add({"a", "2"});
    table.add({"abcdefgh", "3"});
    EXPECT_EQ(table.take_page(false), "a         2\n"
                                      "abcdefgh  3\n");
}

TEST(Output, fields_stand_below_each_other_and_keep_their_blanks) {
    EXPECT_EQ(fields_text({{"queued", "1.5 KiB"}, {"relay", ""}}, false), "FIELD   VALUE\n"
                                                                          "queued  1.5 KiB\n"
                                                                          "relay   -\n");
}

} // namespace
} // namespace ds::cli
