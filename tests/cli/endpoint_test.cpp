#include "cli/endpoint.h"

#include <gtest/gtest.h>

namespace ds::cli {
namespace {

bool is_refused(const std::string &text) {
    v1::Endpoint endpoint;
    endpoint.set_path("/untouched");
    const bool refused = parse_endpoint(text, endpoint).has_value();
    EXPECT_EQ(refused, endpoint.path() == "/untouched") << text;
    return refused;
}

TEST(Endpoint, an_address_and_a_port_are_read_with_the_first_octet_most_significant) {
    v1::Endpoint endpoint;

    const auto problem = parse_endpoint("10.2.3.4:65535", endpoint);

    EXPECT_FALSE(problem.has_value());
    EXPECT_EQ(endpoint.ipv4().address(), 0x0a020304u);
    EXPECT_EQ(endpoint.ipv4().port(), 65535u);
}

TEST(Endpoint, the_text_of_an_endpoint_is_what_was_read) {
    for (const char *text :
         {"0.0.0.0:1", "255.255.255.255:65535", "127.0.0.1:80", "/a", "/a b/ü"}) {
        v1::Endpoint endpoint;

        const auto problem = parse_endpoint(text, endpoint);

        EXPECT_FALSE(problem.has_value()) << text;
        EXPECT_EQ(endpoint_text(endpoint), text);
    }
}

TEST(Endpoint, an_endpoint_of_no_kind_has_an_empty_text) {
    EXPECT_EQ(endpoint_text(v1::Endpoint()), "");
}

TEST(Endpoint, an_address_that_is_not_four_plain_octets_is_refused) {
    for (const char *text : {"1.2.3:80", "1.2.3.4.5:80", "1.2.3.256:80", "01.2.3.4:80", "1..3.4:80",
                             "1.2.3.-4:80", " 1.2.3.4:80", "a.b.c.d:80", ":80", "1.2.3.4.:80"}) {
        EXPECT_TRUE(is_refused(text)) << text;
    }
}

TEST(Endpoint, a_port_outside_1_to_65535_is_refused) {
    for (const char *text : {"1.2.3.4:0", "1.2.3.4:65536", "1.2.3.4:99999999999", "1.2.3.4:",
                             "1.2.3.4:+80", "1.2.3.4:080", "1.2.3.4:80x", "1.2.3.4:80:90"}) {
        EXPECT_TRUE(is_refused(text)) << text;
    }
}

TEST(Endpoint, what_is_neither_address_nor_path_is_refused) {
    for (const char *text : {"", "1.2.3.4", "relative/path", "localhost"}) {
        EXPECT_TRUE(is_refused(text)) << text;
    }
}

TEST(Endpoint, a_path_holds_4000_bytes_and_no_more) {
    const std::string longest = "/" + std::string(3999, 'x');
    v1::Endpoint endpoint;

    const auto problem = parse_endpoint(longest, endpoint);

    EXPECT_FALSE(problem.has_value());
    EXPECT_EQ(endpoint.path(), longest);
    EXPECT_TRUE(is_refused(longest + "x"));
}

TEST(Endpoint, a_path_with_control_characters_or_broken_utf8_is_refused) {
    using namespace std::string_literals;
    for (const std::string &text :
         {"/a\nb"s, "/a\0b"s, "/\x7f"s, "/\xff"s, "/\xc3"s, "/\xc0\xaf"s}) {
        EXPECT_TRUE(is_refused(text));
    }
}

} // namespace
} // namespace ds::cli
