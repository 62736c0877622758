// The client library with the real daemon, which is killed and started again.
#include <algorithm>
#include <csignal>
#include <poll.h>

#include "../system/harness.h"
#include "client_fixture.h"

namespace client_test {
namespace {

using system_test::Daemon;
using system_test::TemporaryDirectory;

constexpr int patience_ms = 30'000;

// One client, and what it was told.
class Client {
  public:
    explicit Client(const std::string &socket) {
        ds_client_options_t options{};
        options.size = sizeof options;
        options.socket = socket.c_str();
        options.backoff_first_ms = 1;
        options.backoff_max_ms = 10;
        options.backoff_seed = 3;
        EXPECT_EQ(ds_client_create(&options, &handle_), DS_CLIENT_OK);
    }
    ~Client() { ds_client_destroy(handle_); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    ds_client_handle_t *get() const { return handle_; }
    ds_publication_t *publish(const ds_client_service_t &wanted) {
        ds_publication_t *publication = nullptr;
        EXPECT_EQ(ds_client_publish(handle_, &wanted, nullptr, nullptr, &publication),
                  DS_CLIENT_OK);
        return publication;
    }
    void watch(const char *name) {
        EXPECT_EQ(ds_client_watch(handle_, name, on_snapshot, nullptr, this, nullptr),
                  DS_CLIENT_OK);
    }
    void sync() { EXPECT_EQ(ds_client_sync(handle_, patience_ms), DS_CLIENT_OK); }
    void await_told(const std::string &line) {
        while (told.empty() || told.back() != line)
            ASSERT_EQ(ds_client_wait(handle_, patience_ms), DS_CLIENT_OK) << line;
    }
    void await_loss() {
        ds_client_info_t info{};
        info.size = sizeof info;
        do {
            ASSERT_EQ(ds_client_wait(handle_, patience_ms), DS_CLIENT_OK);
            ASSERT_EQ(ds_client_get_info(handle_, &info), DS_CLIENT_OK);
        } while (info.state == DS_CLIENT_CONNECTED);
    }

    Lines told;

  private:
    static void on_snapshot(void *ctx, ds_registration_t *, const ds_client_snapshot_t *snapshot) {
        static_cast<Client *>(ctx)->told.push_back(digest(*snapshot));
    }
    ds_client_handle_t *handle_ = nullptr;
};

class ClientAndDaemon : public testing::Test {
  protected:
    ClientAndDaemon() { start(); }
    void start() {
        Daemon::Options options;
        options.runtime_dir = folder_.path();
        daemon_.emplace(options);
    }
    void kill_and_start() {
        daemon_->kill();
        start();
    }
    TemporaryDirectory folder_;
    std::optional<Daemon> daemon_;
};

TEST_F(ClientAndDaemon, what_one_publishes_changes_and_withdraws_another_is_told) {
    Client publisher(daemon_->socket()), watcher(daemon_->socket());
    watcher.watch("web");
    watcher.sync();

    ds_publication_t *publication = publisher.publish(service("web", "a", 80));
    EXPECT_EQ(ds_client_publication_wait(publication, patience_ms), DS_CLIENT_OK);
    watcher.await_told("a:80");
    const ds_client_service_t changed = service("web", "a", 81);
    ds_client_publication_update(publication, &changed);
    EXPECT_EQ(ds_client_publication_wait(publication, patience_ms), DS_CLIENT_OK);
    watcher.await_told("a:81");
    ds_client_publication_withdraw(publication);
    EXPECT_EQ(ds_client_publication_wait(publication, patience_ms), DS_CLIENT_OK);
    watcher.await_told("");

    EXPECT_EQ(watcher.told, (Lines{"", "a:80", "a:81", ""}));
}

TEST_F(ClientAndDaemon, the_daemon_s_refusal_arrives_in_its_words) {
    Client publisher(daemon_->socket());
    ds_client_service_t wanted = service("web", "a", 0);
    ds_publication_t *publication = publisher.publish(wanted);

    EXPECT_EQ(ds_client_publication_wait(publication, patience_ms), DS_CLIENT_ERROR_REFUSED);

    EXPECT_TRUE(describe(publication).starts_with("not live refused 1 endpoint.ipv4.port is 0"))
        << describe(publication);
}

TEST_F(ClientAndDaemon, a_withdrawal_by_id_is_told_to_the_publisher) {
    Client publisher(daemon_->socket()), other(daemon_->socket());
    ds_publication_t *publication = publisher.publish(service("web", "a", 80));
    publisher.sync();
    other.sync();
    ds_publication_info_t info{};
    info.size = sizeof info;
    ds_client_publication_get_info(publication, &info);
    int error = 1;
    const auto on_reply = [](void *ctx, const ds_client_reply_t *reply) {
        *static_cast<int *>(ctx) = reply->error;
    };

    ASSERT_EQ(ds_client_withdraw(other.get(), "web", info.service_id, on_reply, &error, nullptr),
              DS_CLIENT_OK);
    other.sync();
    while (describe(publication).starts_with("live"))
        ASSERT_EQ(ds_client_wait(publisher.get(), patience_ms), DS_CLIENT_OK);

    EXPECT_EQ(error, DS_CLIENT_OK);
    EXPECT_TRUE(describe(publication).starts_with("withdrawn by " + std::to_string(::getpid())));
    EXPECT_EQ(ds_client_publication_wait(publication, 0), DS_CLIENT_ERROR_WITHDRAWN);
}

TEST_F(ClientAndDaemon, a_killed_daemon_that_returns_has_the_publication_and_the_watcher_no_news) {
    Client client(daemon_->socket());
    ds_publication_t *publication = client.publish(service("web", "a", 80));
    client.watch("web");
    client.sync();
    ASSERT_EQ(client.told, Lines{"a:80"});

    kill_and_start();
    client.await_loss();
    EXPECT_EQ(describe(publication), "pending");
    client.sync();

    EXPECT_TRUE(describe(publication).starts_with("live"));
    EXPECT_EQ(client.told, Lines{"a:80"});
    Client newcomer(daemon_->socket());
    newcomer.watch("web");
    newcomer.sync();
    EXPECT_EQ(newcomer.told, Lines{"a:80"});
}

TEST_F(ClientAndDaemon, a_watcher_that_returns_behind_the_publisher_has_no_news) {
    Client publisher(daemon_->socket()), watcher(daemon_->socket());
    ds_publication_t *publication = publisher.publish(service("web", "a", 80));
    publisher.sync();
    watcher.watch("web");
    watcher.sync();

    kill_and_start();
    publisher.await_loss();
    publisher.sync();
    watcher.await_loss();
    watcher.sync();
    const ds_client_service_t changed = service("web", "a", 81);
    ds_client_publication_update(publication, &changed);
    publisher.sync();
    watcher.await_told("a:81");

    EXPECT_EQ(watcher.told, (Lines{"a:80", "a:81"}));
}

TEST_F(ClientAndDaemon, many_restarts_lose_nothing) {
    Client client(daemon_->socket());
    for (int i = 0; i < 50; i++)
        client.publish(service("web", std::to_string(i).c_str(), 80));
    client.watch("web");
    client.sync();
    const Lines before = client.told;

    for (int i = 0; i < 5; i++) {
        kill_and_start();
        client.await_loss();
        client.sync();
    }

    EXPECT_EQ(client.told, before);
}

TEST_F(ClientAndDaemon, lists_and_figures_are_the_daemon_s) {
    Client client(daemon_->socket());
    client.publish(service("web", "a", 80));
    client.sync();
    struct Seen {
        std::string names;
        std::uint32_t pid = 0;
    } seen;
    const auto on_reply = [](void *ctx, const ds_client_reply_t *reply) {
        auto &taken = *static_cast<Seen *>(ctx);
        if (reply->names != nullptr) taken.names = digest(*reply->names->names[0]);
        if (reply->figures != nullptr) taken.pid = reply->figures->pid;
    };

    ASSERT_EQ(ds_client_list(client.get(), "web", nullptr, 0, on_reply, &seen, nullptr),
              DS_CLIENT_OK);
    ASSERT_EQ(ds_client_status(client.get(), on_reply, &seen, nullptr), DS_CLIENT_OK);
    client.sync();

    EXPECT_EQ(seen.names, "a:80");
    EXPECT_EQ(seen.pid, static_cast<std::uint32_t>(daemon_->pid()));
}

} // namespace
} // namespace client_test
