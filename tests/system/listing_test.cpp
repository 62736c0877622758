// Lists in pages, and the figures of the status.
#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "client.h"
#include "harness.h"

namespace {

using namespace system_test;

class Listing : public System {
  protected:
    static constexpr int names_count = 3000;

    static std::string name(int i) { return "service-" + std::to_string(i); }

    void publish_all(Client &client) {
        std::vector<v1::Request> requests;
        for (int i = 0; i < names_count; i++)
            requests.push_back(publish_request(name(i), "", 80));
        client.pipeline(std::move(requests));
    }

    // All names in the order of the pages; `between` is called with each page's `next`.
    static std::vector<std::string>
    list_all(Client &client, std::uint32_t limit,
             const std::function<void(const std::string &)> &between) {
        std::vector<std::string> names;
        std::string after;
        do {
            const v1::ListReply page = client.ok(list_request("", after, limit)).list();
            EXPECT_TRUE(limit == 0 || page.names_size() <= static_cast<int>(limit));
            for (const v1::Snapshot &snapshot : page.names()) {
                names.push_back(snapshot.name());
                EXPECT_EQ(digest(snapshot), ":80");
            }
            after = page.next();
            if (!after.empty()) between(after);
        } while (!after.empty() && names.size() <= names_count);
        return names;
    }
};

TEST_F(Listing, pages_hold_every_name_once_whatever_their_size) {
    Client publisher(daemon), reader(daemon);
    publish_all(publisher);

    for (const std::uint32_t limit : {0u, 1u, 7u, 1000u, 2999u, 3000u, 5000u}) {
        const std::vector<std::string> names = list_all(reader, limit, [](const auto &) {});
        EXPECT_EQ(names.size(), names_count) << "limit " << limit;
        EXPECT_EQ(std::set(names.begin(), names.end()).size(), names_count) << "limit " << limit;
    }
}

TEST_F(Listing, a_name_that_goes_between_two_pages_costs_and_doubles_no_other) {
    Client publisher(daemon), reader(daemon);
    publish_all(publisher);

    const std::vector<std::string> names =
        list_all(reader, 100, [&](const std::string &after) { publisher.withdraw(after, ""); });

    EXPECT_EQ(names.size(), names_count);
    EXPECT_EQ(std::set(names.begin(), names.end()).size(), names_count);
    EXPECT_EQ(reader.status().names(), names_count - 29u);
}

TEST_F(Listing, large_snapshots_are_spread_over_pages_that_fit_a_frame) {
    constexpr int large_count = 600; // 2.4 MB of paths
    Client publisher(daemon), reader(daemon);
    for (int i = 0; i < large_count; i++)
        publisher.ok(path_request(name(i), "", long_path(4000)));

    int listed = 0, pages = 0;
    std::string after;
    do {
        const v1::ListReply page = reader.ok(list_request("", after)).list();
        listed += page.names_size();
        pages++;
        after = page.next();
    } while (!after.empty() && pages < large_count);

    EXPECT_EQ(listed, large_count);
    EXPECT_GT(pages, 2);
    EXPECT_LT(pages, 60);
}

TEST_F(Listing, one_name_is_listed_alone_with_all_its_instances) {
    Client publisher(daemon), reader(daemon);
    publisher.publish("web", "a", 1);
    publisher.publish("web", "b", 2);
    publisher.publish("web2", "c", 3);

    const v1::ListReply page = reader.ok(list_request("web")).list();

    ASSERT_EQ(page.names_size(), 1);
    EXPECT_EQ(page.names(0).name(), "web");
    EXPECT_EQ(digest(page.names(0)), "a:1 b:2");
    EXPECT_TRUE(page.next().empty());
}

TEST_F(Listing, a_name_that_is_only_watched_is_not_listed) {
    Client watcher(daemon);
    watcher.watch("web");
    watcher.snapshot();

    EXPECT_EQ(watcher.ok(list_request("")).list().names_size(), 0);
    EXPECT_EQ(watcher.call(list_request("web")).status(), v1::STATUS_NOT_FOUND);
    EXPECT_EQ(watcher.status().names(), 1u);
}

TEST_F(Listing, the_status_tells_what_is_there) {
    Client publisher(daemon), watcher(daemon);
    publisher.publish("web", "a", 1);
    publisher.publish("web", "b", 2);
    publisher.publish("mail", "c", 3);
    publisher.publish("mail", "c", 4);
    watcher.watch("web");
    watcher.watch("web");
    watcher.watch("other");
    publisher.withdraw("mail", "c");
    RawSocket bad(daemon.socket());
    bad.send(std::string(8, '\xff'));
    bad.receive_to_end();
    watcher.await_sessions(2);

    const v1::StatusReply status = watcher.status();

    EXPECT_EQ(status.pid(), static_cast<std::uint32_t>(daemon.pid()));
    EXPECT_EQ(status.socket(), daemon.socket());
    EXPECT_EQ(status.trace_directory(), daemon.runtime_dir() + "/trace");
    EXPECT_EQ(status.relay(), "none");
    EXPECT_EQ(status.node(), watcher.connection().hello().node());
    EXPECT_EQ(status.daemon_version(), watcher.connection().hello().daemon_version());
    EXPECT_EQ(status.names(), 2u);
    EXPECT_EQ(status.services(), 2u);
    EXPECT_EQ(status.registrations(), 3u);
    EXPECT_EQ(status.publishes(), 4u);
    EXPECT_EQ(status.withdrawals(), 1u);
    EXPECT_EQ(status.notifications(), 3u);
    EXPECT_EQ(status.bad_frames(), 1u);
    EXPECT_EQ(status.sessions(), 2u);
    EXPECT_EQ(status.sessions_total(), 3u);
    EXPECT_EQ(status.queued_bytes(), 0u);
    EXPECT_GT(status.resident_bytes(), 100'000u);
    EXPECT_GE(watcher.status().uptime_ms(), status.uptime_ms());
}

} // namespace
