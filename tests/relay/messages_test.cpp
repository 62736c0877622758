// The requests byte by byte: the store ignores fields that it does not know, so a misspelt one
// would only be noticed here.
#include <gtest/gtest.h>

#include "relay/etcd/messages.h"
#include "relay/etcd/transactions.h"

using namespace ds::relay::etcd;

TEST(messages, of_a_range_are_these_bytes) {
    EXPECT_EQ(encode_range({.keys = {"a", {}}}), R"({"key":"YQ=="})");
    EXPECT_EQ(encode_range({{"a", "b"}, 7, 512, true}),
              R"({"key":"YQ==","range_end":"Yg==","revision":"7","limit":"512","keys_only":true})");
}

TEST(messages, of_a_transaction_are_these_bytes) {
    Transaction transaction;
    transaction.compares = {{"k", Compare::Target::create_revision, 0, {}},
                            {"k", Compare::Target::mod_revision, 5, {}},
                            {"k", Compare::Target::value, 0, "v"}};
    transaction.on_success = {put_operation("p", "v"), put_operation("p", "v", 9),
                              remove_operation({"a", "b"})};
    transaction.on_failure = {range_operation("k")};

    EXPECT_EQ(encode_transaction(transaction),
              R"({"compare":[)"
              R"({"key":"aw==","result":"EQUAL","target":"CREATE","create_revision":"0"},)"
              R"({"key":"aw==","result":"EQUAL","target":"MOD","mod_revision":"5"},)"
              R"({"key":"aw==","result":"EQUAL","target":"VALUE","value":"dg=="}],)"
              R"("success":[)"
              R"({"request_put":{"key":"cA==","value":"dg=="}},)"
              R"({"request_put":{"key":"cA==","value":"dg==","lease":"9"}},)"
              R"({"request_delete_range":{"key":"YQ==","range_end":"Yg=="}}],)"
              R"("failure":[{"request_range":{"key":"aw=="}}]})");
    EXPECT_EQ(encode_transaction({}), R"({"compare":[],"success":[],"failure":[]})");
}

TEST(messages, of_leases_are_these_bytes) {
    EXPECT_EQ(encode_lease_grant(10), R"({"TTL":"10"})");
    EXPECT_EQ(encode_lease(2324035529701763849), R"({"ID":"2324035529701763849"})");
}

TEST(messages, of_a_watch_are_these_bytes) {
    EXPECT_EQ(encode_watch({"a", "b"}, 42),
              R"({"create_request":{"key":"YQ==","range_end":"Yg==","start_revision":"42"}})");
    EXPECT_EQ(encode_watch({"k", {}}, 1),
              R"({"create_request":{"key":"aw==","start_revision":"1"}})");
}

TEST(messages, of_the_store_are_read_with_absent_fields_as_zero) {
    const RangeReply range =
        decode_range(R"({"header":{"revision":"6"},"kvs":[{"key":"YQ==","create_revision":"2",)"
                     R"("mod_revision":"3","version":"1","value":"MQ==","lease":"8"}],)"
                     R"("more":true,"count":"2"})");
    const RangeReply nothing = decode_range(R"({"header":{"revision":"2"}})");

    ASSERT_EQ(range.items.size(), 1u);
    EXPECT_EQ(range.revision, 6);
    EXPECT_TRUE(range.more);
    EXPECT_EQ(range.items[0].key, "a");
    EXPECT_EQ(range.items[0].value, "1");
    EXPECT_EQ(range.items[0].create_revision, 2);
    EXPECT_EQ(range.items[0].mod_revision, 3);
    EXPECT_EQ(range.items[0].lease, 8);
    EXPECT_TRUE(nothing.items.empty());
    EXPECT_FALSE(nothing.more);
}

TEST(messages, of_a_failed_transaction_hold_what_its_ranges_found) {
    const TransactionReply reply = decode_transaction(
        R"({"header":{"revision":"3"},"responses":[{"response_range":{"header":{},)"
        R"("kvs":[{"key":"Yg==","mod_revision":"3"}],"count":"1"}},{"response_put":{}}]})");

    EXPECT_FALSE(reply.succeeded);
    EXPECT_EQ(reply.revision, 3);
    ASSERT_EQ(reply.ranges.size(), 1u);
    EXPECT_EQ(reply.ranges[0].items.at(0).key, "b");
}

TEST(messages, about_a_lease_that_has_gone_hold_no_time_to_live) {
    EXPECT_EQ(decode_keep_alive(R"({"result":{"header":{},"ID":"123"}})").ttl_s, 0);
    EXPECT_EQ(decode_keep_alive(R"({"result":{"header":{},"ID":"123","TTL":"5"}})").ttl_s, 5);
    EXPECT_EQ(decode_lease(R"({"header":{},"ID":"123","TTL":"-1"})").ttl_s, -1);
}

TEST(messages, of_a_watch_tell_events_and_their_end) {
    const WatchReply events = decode_watch(
        R"({"result":{"header":{"revision":"3"},"events":[{"kv":{"key":"YQ==","mod_revision":"2",)"
        R"("value":"MQ=="}},{"type":"DELETE","kv":{"key":"YQ==","mod_revision":"3"}}]}})");
    const WatchReply compacted =
        decode_watch(R"({"result":{"header":{},"canceled":true,"compact_revision":"3"}})");

    ASSERT_EQ(events.events.size(), 2u);
    EXPECT_FALSE(events.events[0].is_deletion);
    EXPECT_EQ(events.events[0].item.value, "1");
    EXPECT_TRUE(events.events[1].is_deletion);
    EXPECT_EQ(events.events[1].item.mod_revision, 3);
    EXPECT_TRUE(compacted.is_cancelled);
    EXPECT_EQ(compacted.compact_revision, 3);
}

TEST(messages, that_are_no_answer_throw) {
    for (const char *text : {"", "[]", "{", R"({"kvs":5})", R"({"kvs":[{"key":"%"}]})",
                             R"({"kvs":[{"key":"YQ==","mod_revision":"x"}]})"})
        EXPECT_ANY_THROW(decode_range(text)) << text;
    EXPECT_ANY_THROW(decode_watch(R"({"error":{"grpc_code":14,"message":"gone"}})"));
    EXPECT_ANY_THROW(decode_watch(R"({"result":{"events":[{"type":"ODD","kv":{}}]}})"));
}

TEST(messages, of_refusal_give_their_text) {
    EXPECT_EQ(decode_error(R"({"error":"lease not found","code":5})"), "lease not found");
    EXPECT_EQ(decode_error("<html>"), "<html>");
}

TEST(base64, is_read_back_as_it_was_written) {
    for (std::size_t length = 0; length < 10; length++) {
        std::string bytes(length, '\0');
        for (std::size_t i = 0; i < length; i++)
            bytes[i] = static_cast<char>(250 + i);
        EXPECT_EQ(from_base64(to_base64(bytes)), bytes);
    }
}
