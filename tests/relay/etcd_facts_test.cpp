// What etcd does that the engine has to live with. Where one of these tests fails, the engine's
// design has lost its ground.
#include "relay/etcd/transactions.h"
#include "tests/relay/etcd_fixture.h"

using namespace relay_test;
using namespace std::chrono_literals;

namespace {

class etcd_facts : public EtcdTest {
  protected:
    // Opens a watch on every key from that revision on.
    void watch_from(std::int64_t revision) {
        const etcd::KeyRange all = {"a", "z"};
        stream =
            access().run(store_client().stream("/v3/watch", etcd::encode_watch(all, revision)));
        lines = std::make_unique<etcd::LineReader>(stream);
    }
    etcd::Client &store_client() { return access().client(); }
    StoreAccess &access() {
        if (!access_) access_ = std::make_unique<StoreAccess>(io, server().endpoint());
        return *access_;
    }
    // The next message of the watch that is more than its creation.
    etcd::WatchReply next() {
        for (;;) {
            const etcd::WatchReply reply = etcd::decode_watch(access().run(lines->next_line()));
            if (!reply.is_created || reply.is_cancelled) return reply;
        }
    }
    std::int64_t ttl_of(std::int64_t lease) {
        return etcd::decode_keep_alive(
                   store().call("/v3/lease/keepalive", etcd::encode_lease(lease)))
            .ttl_s;
    }

    std::shared_ptr<etcd::Connection> stream;
    std::unique_ptr<etcd::LineReader> lines;

  private:
    std::unique_ptr<StoreAccess> access_;
};

} // namespace

TEST_F(etcd_facts, a_deletion_that_is_compacted_is_never_told) {
    store().put("k", "1");
    const std::int64_t deleted = store().remove({"k", {}});
    store().compact(deleted);

    watch_from(deleted);
    const std::int64_t later = store().put("other", "1");

    const etcd::WatchReply reply = next();
    ASSERT_EQ(reply.events.size(), 1u); // and no word of the deletion
    EXPECT_EQ(reply.events[0].item.mod_revision, later);
}

TEST_F(etcd_facts, a_watch_from_before_a_compaction_is_cancelled) {
    store().put("k", "1");
    const std::int64_t newest = store().put("k", "2");
    store().compact(newest);

    watch_from(newest - 1);

    const etcd::WatchReply reply = next();
    EXPECT_TRUE(reply.is_cancelled);
    EXPECT_EQ(reply.compact_revision, newest);
}

TEST_F(etcd_facts, a_wiped_store_begins_again_at_revision_1_as_the_same_cluster) {
    const std::string before = store().call("/v3/maintenance/status", "{}");
    store().put("k", "1");
    server().kill();
    server().wipe();
    server().start();

    const std::string after = store().call("/v3/maintenance/status", "{}");
    EXPECT_EQ(store().revision(), 1);
    const auto cluster_of = [](const std::string &text) {
        return text.substr(text.find("cluster_id"), 40);
    };
    EXPECT_EQ(cluster_of(before), cluster_of(after));
}

TEST_F(etcd_facts, a_killed_server_gives_leases_their_whole_time_again) {
    const std::int64_t lease = store().grant(4);
    store().put("k", "1", lease);
    const auto remaining_s = [&] {
        return etcd::decode_lease(store().call("/v3/lease/timetolive", etcd::encode_lease(lease)))
            .ttl_s;
    };
    while (remaining_s() > 1) { // ends with the lease at the latest
    }

    server().kill();
    server().start();

    EXPECT_TRUE(store().get("k").has_value());
    EXPECT_GE(remaining_s(), 3);
}

TEST_F(etcd_facts, a_lease_that_has_gone_is_kept_alive_with_an_answer_without_ttl) {
    const std::int64_t lease = store().grant(3);
    EXPECT_GT(ttl_of(lease), 0);
    store().call("/v3/lease/revoke", etcd::encode_lease(lease));

    EXPECT_EQ(ttl_of(lease), 0); // and no error
}

TEST_F(etcd_facts, a_put_without_a_lease_takes_the_key_off_its_lease) {
    const std::int64_t lease = store().grant(60);
    store().put("k", "1", lease);
    EXPECT_EQ(store().get("k")->lease, lease);
    store().put("k", "1");
    store().call("/v3/lease/revoke", etcd::encode_lease(lease));

    EXPECT_TRUE(store().get("k").has_value());
}

TEST_F(etcd_facts, an_identical_put_is_told_again) {
    const std::int64_t first = store().put("k", "1");
    const std::int64_t second = store().put("k", "1");

    watch_from(first);

    const etcd::WatchReply reply = next();
    ASSERT_EQ(reply.events.size(), 2u);
    EXPECT_EQ(reply.events[1].item.mod_revision, second);
}

TEST_F(etcd_facts, unknown_fields_are_accepted_in_silence) {
    const std::string misspelt = R"({"compares":[{"key":"aw=="}],)"
                                 R"("success":[{"request_put":{"key":"aw==","value":"MQ=="}}]})";

    const auto reply = etcd::decode_transaction(store().call("/v3/kv/txn", misspelt));

    EXPECT_TRUE(reply.succeeded); // the condition was lost
    EXPECT_TRUE(store().get("k").has_value());
}

TEST_F(etcd_facts, a_transaction_takes_128_operations_and_no_key_twice) {
    const auto transaction_of = [](int operations) {
        etcd::Transaction transaction;
        for (int i = 0; i < operations; i++)
            transaction.on_success.push_back(etcd::put_operation("k" + std::to_string(i), "v"));
        return transaction;
    };
    const auto run = [&](const etcd::Transaction &transaction) {
        store().call("/v3/kv/txn", etcd::encode_transaction(transaction));
    };
    etcd::Transaction twice = transaction_of(1);
    twice.on_success.push_back(twice.on_success[0]);

    EXPECT_NO_THROW(run(transaction_of(128)));
    EXPECT_THROW(run(transaction_of(129)), etcd::Refused);
    EXPECT_THROW(run(twice), etcd::Refused);
}

TEST_F(etcd_facts, a_request_is_at_most_one_and_a_half_mebibytes) {
    EXPECT_NO_THROW(store().put("k", std::string(1400 * 1024, 'v')));
    EXPECT_THROW(store().put("k", std::string(1600 * 1024, 'v')), etcd::Refused);
}

TEST_F(etcd_facts, a_lease_ends_with_all_keys_on_it_and_that_is_told_as_a_deletion) {
    const std::int64_t lease = store().grant(1);
    const std::int64_t written = store().put("k", "1", lease);

    watch_from(written + 1);

    const etcd::WatchReply reply = next();
    ASSERT_EQ(reply.events.size(), 1u);
    EXPECT_TRUE(reply.events[0].is_deletion);
    EXPECT_EQ(reply.events[0].item.key, "k");
}
