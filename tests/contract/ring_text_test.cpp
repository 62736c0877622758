// Messages made of records and formats.
#include "platform_default/ring_reader.h"
#include <gtest/gtest.h>

namespace {

using ds::ring::Argument;

std::string text_of(std::string_view format, std::vector<Argument> arguments) {
    ds::ring::Record record;
    record.arguments = std::move(arguments);
    return ds::ring::text(record, format);
}

TEST(RingText, conversions_print_as_printf_prints_them) {
    EXPECT_EQ(text_of("%s at %s\n", {std::string("a"), std::string("b")}), "a at b\n");
    EXPECT_EQ(text_of("%d %d", {std::int32_t{-5}, std::int32_t{2147483647}}), "-5 2147483647");
    EXPECT_EQ(text_of("%u", {std::int32_t{-1}}), "4294967295");
    EXPECT_EQ(text_of("0x%x %X", {std::int32_t{-1}, std::int32_t{0xbeef}}), "0xffffffff BEEF");
    EXPECT_EQ(text_of("%ld %lu", {std::int64_t{-5}, std::int64_t{-1}}), "-5 18446744073709551615");
    EXPECT_EQ(text_of("%lx", {std::int64_t{0x1122334455}}), "1122334455");
    EXPECT_EQ(text_of("%p %p", {std::int64_t{0xabc}, std::int64_t{0}}), "0xabc (nil)");
    EXPECT_EQ(text_of("100%% of 100%%", {}), "100% of 100%");
    EXPECT_EQ(text_of("nnotifs=%dversion #: %lu", {std::int32_t{1}, std::int64_t{2}}),
              "nnotifs=1version #: 2");
}

TEST(RingText, widths_pad_with_spaces_or_zeros_on_the_asked_side) {
    EXPECT_EQ(
        text_of("[%5d][%-5d][%05d]", {std::int32_t{-42}, std::int32_t{-42}, std::int32_t{-42}}),
        "[  -42][-42  ][-0042]");
    EXPECT_EQ(
        text_of("[%4s][%-4s][%1s]", {std::string("ab"), std::string("ab"), std::string("ab")}),
        "[  ab][ab  ][ab]");
    EXPECT_EQ(text_of("%02x:%02x", {std::int32_t{5}, std::int32_t{0xff}}), "05:ff");
    EXPECT_EQ(text_of("%99999999999d", {std::int32_t{1}}).size(), 256u);
}

TEST(RingText, a_wrong_or_missing_argument_prints_a_mark) {
    EXPECT_EQ(text_of("%s", {std::int32_t{1}}), "<?>");
    EXPECT_EQ(text_of("%d", {std::string("x")}), "<?>");
    EXPECT_EQ(text_of("%d", {std::int64_t{1}}), "<?>");
    EXPECT_EQ(text_of("%ld", {std::int32_t{1}}), "<?>");
    EXPECT_EQ(text_of("%d %s", {std::int32_t{1}}), "1 <?>");
}

TEST(RingText, what_is_no_known_conversion_stays_as_it_stands) {
    EXPECT_EQ(text_of("50% done %q %", {std::int32_t{1}}), "50% done %q %");
    EXPECT_EQ(text_of("%n%d", {std::int32_t{1}}), "%n1");
    EXPECT_EQ(text_of("%05", {}), "%05");
}

} // namespace
