#include <gtest/gtest.h>

#include "relay/etcd/records.h"

#include "relay/etcd/text.h"
#include "tests/relay/updates.h"

using namespace ds::relay;
using namespace ds::relay::etcd;
using relay_test::node;
using relay_test::update_of;

namespace {

const Keys keys("lab", "r1");

EntryKey key_of(const Update &update) {
    return *keys.parse_entry(keys.entry(node(1), update));
}

std::string problem_with(const Update &update) {
    Update out;
    return decode_update(key_of(update), encode_update(update), out);
}

} // namespace

TEST(records, are_read_back_as_they_were_written) {
    Update update = update_of("web", 0xfedcba98, 0xffffffff);
    update.attributes = std::string("\0\1\2", 3);
    Update bare = update_of("web", 1);
    bare.instance.reset();

    for (const Update &written : {update, bare}) {
        Update read;
        EXPECT_EQ(decode_update(key_of(written), encode_update(written), read), "");
        EXPECT_EQ(read, written);
    }
}

TEST(records, of_a_node_are_read_back_as_they_were_written) {
    const NodeInfo written = {"b00t", "r1", "host-1", 1234567890123456789, 3};
    NodeInfo read;

    EXPECT_EQ(decode_node(encode_node(written), read), "");
    EXPECT_EQ(read, written);
}

TEST(records, beyond_a_bound_are_refused_with_the_reason) {
    const auto with = [](auto change) {
        Update update = update_of("web", 1);
        change(update);
        return problem_with(update);
    };

    EXPECT_EQ(with([](Update &u) { u.name.assign(255, 'n'); }), "");
    EXPECT_EQ(with([](Update &u) { u.name.assign(256, 'n'); }), "bad length of name");
    EXPECT_EQ(with([](Update &u) { u.name.clear(); }), "bad length of name");
    EXPECT_EQ(with([](Update &u) { u.name = "a\nb"; }), "name is not printable");
    EXPECT_EQ(with([](Update &u) { u.instance->assign(255, 'i'); }), "");
    EXPECT_EQ(with([](Update &u) { u.instance->assign(256, 'i'); }), "bad length of instance");
    EXPECT_EQ(with([](Update &u) { u.instance = "a\x7f"; }), "instance is not printable");
    EXPECT_EQ(with([](Update &u) { u.pid = 0; }), "process id is 0 or 1");
    EXPECT_EQ(with([](Update &u) { u.pid = 1; }), "process id is 0 or 1");
    EXPECT_EQ(with([](Update &u) { u.endpoint.clear(); }), "bad length of endpoint");
    EXPECT_EQ(with([](Update &u) { u.endpoint.assign(endpoint_bytes_limit + 1, 'e'); }),
              "bad length of endpoint");
    EXPECT_EQ(with([](Update &u) { u.attributes.assign(attributes_bytes_limit + 1, 'a'); }),
              "bad length of attributes");
}

TEST(records, that_do_not_agree_with_their_key_are_refused) {
    const Update stored = update_of("web", 1);
    for (const auto &other : {update_of("db", 1), update_of("web", 2)}) {
        Update out = update_of("untouched", 9);

        EXPECT_EQ(decode_update(key_of(other), encode_update(stored), out),
                  "record does not agree with its key");
        EXPECT_EQ(out, update_of("untouched", 9));
    }
    Update rack = stored;
    rack.scope = DSR_SCOPE_RACK;
    Update out;
    EXPECT_EQ(decode_update(key_of(stored), encode_update(rack), out),
              "record does not agree with its key");
}

TEST(records, that_are_none_are_refused) {
    Update out;
    NodeInfo info;

    EXPECT_EQ(decode_update(key_of(update_of("web", 1)), "\xff\xff\xff", out),
              "value is not a record");
    EXPECT_EQ(
        decode_update(key_of(update_of("web", 1)), std::string(value_bytes_limit + 1, '\0'), out),
        "value is too long");
    EXPECT_EQ(decode_node("\xff", info), "value is not a record");
    EXPECT_EQ(decode_node(encode_node({"", "r1", "h", 1, 1}), info), "bad boot id");
    EXPECT_EQ(decode_node(encode_node({"b", "r/1", "h", 1, 1}), info), "bad rack");
    EXPECT_EQ(decode_node(encode_node({"b", "r1", "h\n", 1, 1}), info), "bad host name");
}

TEST(texts, are_shown_without_control_characters_and_cut) {
    EXPECT_EQ(shown("\xc3\xa4 b", 10), "\xc3\xa4 b");
    EXPECT_EQ(shown("a\nb\xff", 10), "a\\x0ab\\xff");
    EXPECT_EQ(shown("abcdef", 3), "abc...");
}

TEST(texts, are_printable_when_they_are_utf8_without_control_characters) {
    for (const char *text : {"", "plain", "\xc3\xa4", "\xe2\x82\xac", "\xf0\x9f\x98\x80"})
        EXPECT_TRUE(is_printable(text)) << text;
    for (const char *text : {"\x1f", "\x7f", "\xc2\x80", "\xc2\x9f", "\xc0\xaf", "\xe2\x82",
                             "\xed\xa0\x80", "\xf4\x90\x80\x80", "\x80", "\xff"})
        EXPECT_FALSE(is_printable(text)) << text;
}
