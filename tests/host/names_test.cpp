#include "host/names.h"

#include <gtest/gtest.h>

#include <string>

namespace ds::host {
namespace {

using std::string_literals::operator""s;

TEST(Names, text_of_every_utf8_length_is_accepted) {
    for (const std::string text :
         {"a", "~ !", "\xc2\xa0", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
          "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf", "caf\xc3\xa9/\xe2\x82\xac"})
        EXPECT_EQ(check_text(service_name_rule, text), "") << text;
}

TEST(Names, malformed_utf8_is_refused_with_its_place) {
    const std::string malformed[] = {
        "\x80",             // a continuation without a start
        "\xc0\xaf",         // '/' in two bytes
        "\xc1\xbf",         // DEL in two bytes
        "\xe0\x9f\xbf",     // three bytes where two do
        "\xf0\x8f\xbf\xbf", // four bytes where three do
        "\xed\xa0\x80",     // a surrogate
        "\xed\xbf\xbf",     // the last surrogate
        "\xf4\x90\x80\x80", // beyond U+10FFFF
        "\xf5\x80\x80\x80",
        "\xff",
        "\xc3", // cut
        "\xe2\x82",
        "\xf0\x9f\x98",
        "\xe2\x28\xa1", // no continuation
        "\xc3(",
    };
    for (const std::string &bytes : malformed)
        EXPECT_EQ(check_text(service_name_rule, "ab" + bytes),
                  "name is not valid UTF-8 at byte 2; only UTF-8 text is allowed.");
}

TEST(Names, control_characters_are_refused_by_number) {
    EXPECT_NE(check_text(service_name_rule, "a\0b"s).find("U+0000 at byte 1"), std::string::npos);
    EXPECT_NE(check_text(service_name_rule, "\x1f").find("U+001F at byte 0"), std::string::npos);
    EXPECT_NE(check_text(service_name_rule, "ab\x7f").find("U+007F at byte 2"), std::string::npos);
    EXPECT_NE(check_text(service_name_rule, "\xc2\x80").find("U+0080"), std::string::npos);
    EXPECT_NE(check_text(service_name_rule, "\xc2\x9f").find("U+009F"), std::string::npos);
}

TEST(Names, lengths_are_bounded_in_bytes) {
    EXPECT_EQ(check_text(service_name_rule, ""), "name is empty; 1 to 255 bytes are allowed.");
    EXPECT_EQ(check_text(service_name_rule, std::string(255, 'n')), "");
    EXPECT_EQ(check_text(service_name_rule, std::string(256, 'n')),
              "name has 256 bytes; 1 to 255 bytes are allowed.");
    EXPECT_EQ(check_text(instance_rule, ""), "");
    EXPECT_EQ(check_text(instance_rule, std::string(254, 'i')), "");
    EXPECT_NE(check_text(instance_rule, std::string(255, 'i')), "");
}

TEST(Names, a_semicolon_is_refused_where_it_would_end_an_instance) {
    EXPECT_EQ(check_text(service_name_rule, "a;b"),
              "name holds ';' at byte 1; every other printable character is allowed.");
    EXPECT_NE(check_text(instance_rule, ";"), "");
    EXPECT_EQ(check_text(path_rule, "/run/a;b"), "");
    EXPECT_EQ(check_text(display_name_rule, "a;b"), "");
}

TEST(Names, an_instance_comes_back_as_the_client_wrote_it) {
    EXPECT_EQ(to_directory_instance("node1"), "node1;");
    EXPECT_EQ(to_directory_instance(""), ";");
    EXPECT_EQ(to_client_instance("node1;"), "node1");
    EXPECT_EQ(to_client_instance(";"), "");
    EXPECT_EQ(to_client_instance("foreign"), "foreign");
    EXPECT_EQ(to_client_instance(nullptr), "");
}

} // namespace
} // namespace ds::host
