// Restart periods of the daemon: with what it published before, and with an engine that replays.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <filesystem>
#include <fstream>
#include <optional>

#include "directory_fixture.h"
#include "host/publication_sum.h"

namespace ds::host {
namespace {

constexpr std::uint64_t ns_per_s = 1'000'000'000;
constexpr NodeAddress own_node = {0x02, 0x10, 0x20, 0x30, 0x40, 0x50};
constexpr NodeAddress other_node = {0x02, 0x10, 0x20, 0x30, 0x40, 0x51};

class ScriptedEngine final : public relay::Engine {
  public:
    explicit ScriptedEngine(bool is_replicating = true) : is_replicating_(is_replicating) {}
    const char *name() const override { return "scripted"; }
    bool is_replicating() const override { return is_replicating_; }
    void start(relay::Events &reports) override { events = &reports; }
    int send(const dsr_update_t &update) override {
        static constexpr const char *operations[] = {"?", "ADD", "MODIFY", "DELETE"};
        sent.push_back(std::string(operations[update.operation]) + ' ' + update.service_name);
        return 0;
    }

    // An entry as clients of this protocol publish it: at 10.0.0.1 with that port.
    void deliver(const NodeAddress &sender, const char *service, std::uint32_t id,
                 std::uint32_t port = 8080, std::uint32_t operation = DSR_ADD,
                 std::uint32_t pid = static_cast<std::uint32_t>(getpid())) {
        std::uint8_t endpoint[DS_ENDPOINT_IP_BYTES];
        ds_encode_service_endpoint(0x0a000001, port, DS_SCOPE_SYSTEM, "", 0, endpoint,
                                   sizeof endpoint);
        dsr_update_t update = {};
        update.operation = operation;
        update.service_name = service;
        update.service_id = id;
        update.instance = ";";
        update.scope = DS_SCOPE_SYSTEM;
        update.pid = pid;
        update.version = 1;
        update.ep_bytes = endpoint;
        update.ep_len = sizeof endpoint;
        events->received(sender, update);
    }

    relay::Events *events = nullptr;
    std::vector<std::string> sent;

  private:
    bool is_replicating_;
};

// A socket that listens at a name that the kernel has chosen, and connections to it.
class ListeningSocket {
  public:
    ListeningSocket() : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        address_.sun_family = AF_UNIX;
        const auto *address = reinterpret_cast<const sockaddr *>(&address_);
        const bool is_listening =
            bind(fd_.get(), address, sizeof(sa_family_t)) == 0 &&
            getsockname(fd_.get(), reinterpret_cast<sockaddr *>(&address_), &address_bytes_) == 0 &&
            listen(fd_.get(), 5) == 0;
        EXPECT_TRUE(is_listening);
    }
    UniqueFd take() { return std::move(fd_); }
    UniqueFd connection() const {
        UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const auto *address = reinterpret_cast<const sockaddr *>(&address_);
        EXPECT_EQ(connect(fd.get(), address, address_bytes_), 0);
        return fd;
    }

  private:
    UniqueFd fd_;
    sockaddr_un address_ = {};
    socklen_t address_bytes_ = sizeof address_;
};

class RestartTest : public testing::Test {
  protected:
    void start(ScriptedEngine &engine) { start(engine, no_sum); }
    void start(ScriptedEngine &engine, PublicationSum &sum, UniqueFd socket = UniqueFd()) {
        config.socket = "/none/ds.sock";
        config.trace_dir = "/none/trace";
        config.node = own_node;
        server.emplace(loop, config, engine, sum, std::move(socket));
        replace_shared_server(&loop, &*server);
    }
    void TearDown() override {
        replace_shared_server(nullptr, nullptr);
        server.reset();
        std::filesystem::remove(file);
    }
    static std::string unique_file() {
        return testing::TempDir() + "published." + std::to_string(getpid());
    }
    // What a daemon before this one left.
    static void leave_published(const std::string &path, const std::vector<std::string> &names) {
        PublicationSum before(path);
        before.settle();
        for (const std::string &name : names)
            before.add(name, ";", v1::SCOPE_SYSTEM);
    }
    static void turn() { shared_loop().turn(0); }
    static v1::Snapshot snapshot_of(Client &client) {
        return client.receive().notification().snapshot();
    }

    std::string file = unique_file();
    Config config;
    std::optional<PublicationSum> own_sum;
    PublicationSum no_sum;
    Loop loop{shared_time_ns};
    std::optional<Server> server;
};

class RestartAfterPublications : public RestartTest {
  protected:
    RestartAfterPublications() { leave_published(file, {"restart.web", "restart.mail"}); }
    void start_with_file() {
        own_sum.emplace(file);
        start(engine, *own_sum);
    }
    ScriptedEngine engine{false};
};

TEST_F(RestartTest, without_relay_and_without_former_publications_there_is_no_period) {
    ScriptedEngine engine(false);
    start(engine);
    Client client;
    client.hello();

    client.call(register_request("restart.web"));
    const v1::Snapshot snapshot = snapshot_of(client);

    EXPECT_FALSE(snapshot.reconciling());
    EXPECT_FALSE(snapshot.resynced());
}

TEST_F(RestartAfterPublications, the_period_ends_as_soon_as_all_of_them_are_back) {
    start_with_file();
    Client publisher, watcher;
    publisher.hello();
    watcher.hello();
    watcher.call(register_request("restart.web"));
    const v1::Snapshot first = snapshot_of(watcher);
    publisher.call(publish_request("restart.web"));
    const v1::Snapshot second = snapshot_of(watcher);
    const bool was_open = server->restart().is_own_period_open();

    publisher.call(publish_request("restart.mail"));
    const v1::Snapshot last = snapshot_of(watcher);

    EXPECT_TRUE(first.reconciling());
    EXPECT_EQ(first.instances_size(), 0);
    EXPECT_TRUE(second.reconciling());
    EXPECT_TRUE(was_open);
    EXPECT_FALSE(server->restart().is_own_period_open());
    EXPECT_TRUE(last.resynced());
    EXPECT_FALSE(last.reconciling());
    EXPECT_EQ(last.instances_size(), 1);
}

TEST_F(RestartAfterPublications, the_period_ends_with_the_window_when_one_does_not_come_back) {
    start_with_file();
    Client publisher, watcher;
    publisher.hello();
    watcher.hello();
    watcher.call(register_request("restart.web"));
    snapshot_of(watcher);
    watcher.call(register_request("restart.mail"));
    snapshot_of(watcher);
    publisher.call(publish_request("restart.web"));
    snapshot_of(watcher);

    advance_time(5 * ns_per_s);
    const v1::Snapshot one = snapshot_of(watcher), other = snapshot_of(watcher);

    EXPECT_TRUE(one.resynced());
    EXPECT_TRUE(other.resynced());
    EXPECT_EQ(one.instances_size() + other.instances_size(), 1);
    EXPECT_FALSE(server->restart().is_own_period_open());
}

TEST_F(RestartAfterPublications, a_daemon_that_dies_in_its_period_leaves_the_former_expectation) {
    { const PublicationSum dying(file); }

    start_with_file();
    Client publisher;
    publisher.hello();
    publisher.call(publish_request("restart.web"));
    const bool is_open_with_one = server->restart().is_own_period_open();
    publisher.call(publish_request("restart.mail"));
    turn();

    EXPECT_TRUE(is_open_with_one);
    EXPECT_FALSE(server->restart().is_own_period_open());
}

TEST_F(RestartAfterPublications,
       after_publications_in_a_period_that_was_cut_off_the_window_counts) {
    {
        PublicationSum dying(file);
        dying.add("restart.late", ";", v1::SCOPE_SYSTEM);
    }

    start_with_file();
    Client publisher;
    publisher.hello();
    publisher.call(publish_request("restart.web"));
    publisher.call(publish_request("restart.mail"));
    turn();
    const bool is_open_with_the_former = server->restart().is_own_period_open();
    publisher.call(publish_request("restart.late"));
    advance_time(5 * ns_per_s);
    turn();

    EXPECT_TRUE(is_open_with_the_former);
    EXPECT_FALSE(server->restart().is_own_period_open());
    const PublicationSum next(file);
    EXPECT_FALSE(next.is_restored());
    EXPECT_TRUE(next.had_publications());
}

TEST_F(RestartTest, a_first_boot_ends_its_period_with_the_empty_list) {
    ScriptedEngine engine;
    start(engine);
    engine.events->connected();
    turn();
    const bool was_open = server->restart().is_own_period_open();

    engine.events->listed();
    turn();

    EXPECT_TRUE(was_open);
    EXPECT_FALSE(server->restart().is_own_period_open());
}

TEST_F(RestartTest, a_replayed_service_that_is_published_again_is_kept_and_announced) {
    ScriptedEngine engine;
    start(engine);
    Client publisher, watcher;
    publisher.hello();
    watcher.hello();
    engine.events->connected();
    engine.deliver(own_node, "restart.replayed", 0x77000001);
    engine.events->listed();
    turn();
    const bool waits = server->restart().is_own_period_open();

    const v1::Reply reply = publisher.call(publish_request("restart.replayed"));
    turn();
    watcher.call(register_request("restart.replayed"));
    const v1::Snapshot snapshot = snapshot_of(watcher);

    EXPECT_TRUE(waits);
    EXPECT_FALSE(server->restart().is_own_period_open());
    EXPECT_EQ(reply.service_id(), 0x77000001u);
    EXPECT_EQ(engine.sent, std::vector<std::string>{"MODIFY restart.replayed"});
    EXPECT_FALSE(snapshot.reconciling());
    EXPECT_EQ(snapshot.instances_size(), 1);
}

TEST_F(RestartTest, a_replayed_service_that_comes_back_with_another_endpoint_is_only_changed) {
    ScriptedEngine engine;
    start(engine);
    Client publisher;
    publisher.hello();
    engine.events->connected();
    engine.deliver(own_node, "restart.moved", 0x77000004, 9090);
    engine.events->listed();
    turn();

    publisher.call(publish_request("restart.moved"));
    turn();

    EXPECT_EQ(engine.sent, std::vector<std::string>{"MODIFY restart.moved"});
}

TEST_F(RestartTest, clients_wait_until_the_relay_has_delivered_its_list) {
    ScriptedEngine engine;
    ListeningSocket socket;
    start(engine, no_sum, socket.take());
    const UniqueFd connection = socket.connection();
    turn();
    engine.events->connected();
    turn();
    const std::size_t taken_before = server->sessions().count();

    engine.events->listed();
    turn(); // clients are taken from its end on
    turn();

    EXPECT_EQ(taken_before, 0u);
    EXPECT_EQ(server->sessions().count(), 1u);
}

TEST_F(RestartTest, clients_wait_no_longer_than_two_seconds_for_a_relay_that_is_away) {
    ScriptedEngine engine;
    ListeningSocket socket;
    start(engine, no_sum, socket.take());
    const UniqueFd connection = socket.connection();
    advance_time(ns_per_s);
    turn();
    turn();
    const std::size_t taken_before = server->sessions().count();

    advance_time(ns_per_s);
    turn();
    turn();

    EXPECT_EQ(taken_before, 0u);
    EXPECT_EQ(server->sessions().count(), 1u);
    EXPECT_TRUE(server->restart().is_own_period_open());
}

TEST_F(RestartTest, a_daemon_that_stops_before_it_took_clients_hangs_up_on_those_who_wait) {
    ScriptedEngine engine;
    ListeningSocket socket;
    start(engine, no_sum, socket.take());
    const UniqueFd connection = socket.connection();
    loop.start();

    server->stop();
    turn();

    char byte = 0;
    EXPECT_LE(recv(connection.get(), &byte, 1, 0), 0);
    EXPECT_FALSE(loop.is_running());
}

TEST_F(RestartTest, a_service_that_was_published_before_its_replay_ends_the_wait_with_it) {
    ScriptedEngine engine;
    start(engine);
    Client publisher;
    publisher.hello();
    publisher.call(publish_request("restart.early"));
    engine.events->connected();
    engine.deliver(own_node, "restart.early", 0x77000002);
    const bool is_open_before_list = server->restart().is_own_period_open();

    engine.events->listed();
    turn();

    EXPECT_TRUE(is_open_before_list);
    EXPECT_FALSE(server->restart().is_own_period_open());
    EXPECT_EQ(engine.sent, std::vector<std::string>{"MODIFY restart.early"});
}

TEST_F(RestartTest, a_replayed_service_that_nobody_publishes_again_is_withdrawn_after_30_seconds) {
    ScriptedEngine engine;
    start(engine);
    engine.events->connected();
    engine.deliver(own_node, "restart.dead", 0x77000003);
    engine.events->listed();
    turn();
    advance_time(29 * ns_per_s);
    turn();
    const std::vector<std::string> sent_before = engine.sent;

    advance_time(2 * ns_per_s);
    turn();

    EXPECT_TRUE(sent_before.empty());
    EXPECT_EQ(engine.sent, std::vector<std::string>{"DELETE restart.dead"});
    EXPECT_EQ(server->directory().find("restart.dead"), nullptr);
    EXPECT_FALSE(server->restart().is_own_period_open());
}

TEST_F(RestartTest, remote_services_outlast_the_relay_and_only_those_missing_in_the_list_go) {
    ScriptedEngine engine;
    start(engine);
    engine.events->connected();
    engine.deliver(other_node, "restart.kept", 0x88000001);
    engine.deliver(other_node, "restart.lost", 0x88000002);
    engine.events->listed();
    turn();
    Client watcher;
    watcher.hello();
    watcher.call(register_request("restart.kept"));
    snapshot_of(watcher);
    watcher.call(register_request("restart.lost"));
    snapshot_of(watcher);

    engine.events->disconnected();
    turn();
    watcher.call(register_request("restart.kept"));
    const v1::Snapshot meanwhile = snapshot_of(watcher);
    engine.events->connected();
    engine.deliver(other_node, "restart.kept", 0x88000001);
    engine.events->listed();
    turn();
    const v1::Snapshot lost = snapshot_of(watcher), again = snapshot_of(watcher);

    EXPECT_TRUE(meanwhile.reconciling());
    EXPECT_EQ(meanwhile.instances_size(), 1);
    EXPECT_EQ(lost.name(), "restart.lost");
    EXPECT_EQ(lost.instances_size(), 0);
    EXPECT_TRUE(again.resynced());
    EXPECT_EQ(again.instances_size(), 1);
    engine.events->node_down(other_node);
}

TEST_F(RestartTest, a_relay_that_stays_away_costs_the_remote_services_after_30_seconds) {
    ScriptedEngine engine;
    start(engine);
    engine.events->connected();
    engine.deliver(other_node, "restart.remote", 0x88000003);
    engine.events->listed();
    turn();
    engine.events->disconnected();
    advance_time(29 * ns_per_s);
    turn();
    const bool is_there_meanwhile = server->directory().find("restart.remote") != nullptr;

    advance_time(2 * ns_per_s);
    turn();

    EXPECT_TRUE(is_there_meanwhile);
    EXPECT_EQ(server->directory().find("restart.remote"), nullptr);
}

TEST_F(RestartTest, a_service_that_comes_back_after_both_periods_stays) {
    ScriptedEngine engine;
    start(engine);
    engine.events->connected();
    engine.deliver(own_node, "restart.nobodys", 0x77000006);
    engine.deliver(other_node, "restart.returns", 0x88000007);
    engine.events->listed();
    advance_time(20 * ns_per_s);
    turn();
    engine.events->disconnected();
    for (int s = 0; s < 31; s++) {
        advance_time(ns_per_s);
        turn();
    }
    const bool is_own_period_over = !server->restart().is_own_period_open();

    engine.events->connected();
    engine.deliver(other_node, "restart.returns", 0x88000007);
    engine.events->listed();
    advance_time(10 * ns_per_s);
    turn();

    EXPECT_TRUE(is_own_period_over);
    EXPECT_NE(server->directory().find("restart.returns"), nullptr);
    engine.events->node_down(other_node);
}

TEST_F(RestartTest, a_withdrawal_leaves_what_waits_for_another_client) {
    ScriptedEngine engine;
    start(engine);
    Client publisher, watcher;
    publisher.hello();
    watcher.hello();
    publisher.call(publish_request("restart.beside"));
    engine.events->connected();
    engine.deliver(own_node, "restart.beside", 0x77000007, 9090, DSR_ADD, 4'000'001);
    v1::Request request;
    request.mutable_withdraw()->set_name("restart.beside");
    request.mutable_withdraw()->set_scope(v1::SCOPE_SYSTEM);

    const v1::Reply reply = publisher.call(std::move(request));
    watcher.call(register_request("restart.beside"));

    EXPECT_EQ(reply.status(), v1::STATUS_OK);
    EXPECT_EQ(snapshot_of(watcher).instances_size(), 0);
    EXPECT_NE(server->directory().find_local_service("restart.beside", 0x77000007), nullptr);
    EXPECT_TRUE(engine.sent.empty());
}

TEST_F(RestartTest, a_client_that_changes_its_service_has_one_of_it_also_beside_a_waiting_one) {
    ScriptedEngine engine;
    start(engine);
    Client publisher, watcher;
    publisher.hello();
    watcher.hello();
    publisher.call(publish_request("restart.changed"));
    engine.events->connected();
    engine.deliver(own_node, "restart.changed", 0x77000008, 9090, DSR_ADD, 4'000'001);
    v1::Request request = publish_request("restart.changed");
    request.mutable_publish()->mutable_endpoint()->mutable_ipv4()->set_port(7070);

    publisher.call(std::move(request));
    watcher.call(register_request("restart.changed"));
    const v1::Snapshot snapshot = snapshot_of(watcher);

    ASSERT_EQ(snapshot.instances_size(), 1);
    EXPECT_EQ(snapshot.instances(0).endpoint().ipv4().port(), 7070u);
    EXPECT_EQ(engine.sent, std::vector<std::string>{"DELETE restart.changed"});
}

TEST_F(RestartTest, only_the_newest_of_two_disconnections_ends_the_period) {
    ScriptedEngine engine;
    start(engine);
    engine.events->connected();
    engine.deliver(other_node, "restart.twice", 0x88000004);
    engine.events->listed();
    turn();
    engine.events->disconnected();
    advance_time(20 * ns_per_s);
    turn();
    engine.events->connected();
    engine.events->disconnected();

    advance_time(15 * ns_per_s);
    turn();
    const bool is_there_after_the_first = server->directory().find("restart.twice") != nullptr;
    advance_time(16 * ns_per_s);
    turn();

    EXPECT_TRUE(is_there_after_the_first);
    EXPECT_EQ(server->directory().find("restart.twice"), nullptr);
}

TEST_F(RestartTest, a_node_that_goes_down_takes_its_services_and_their_names_along) {
    ScriptedEngine engine;
    start(engine);
    engine.events->connected();
    engine.deliver(other_node, "restart.a", 0x88000005);
    engine.deliver(other_node, "restart.b", 0x88000006);
    engine.events->listed();

    engine.events->node_down(other_node);

    EXPECT_EQ(server->directory().find("restart.a"), nullptr);
    EXPECT_EQ(server->directory().find("restart.b"), nullptr);
}

// ---- the number in the runtime directory ----

TEST(PublicationSum, what_was_published_is_restored_in_any_order) {
    const std::string path = testing::TempDir() + "sum." + std::to_string(getpid());
    {
        PublicationSum before(path);
        before.settle();
        before.add("web", "a;", 1);
        before.add("web", "b;", 1);
        before.add("mail", ";", 3);
        before.remove("mail", ";", 3);
    }

    PublicationSum after(path);
    after.add("web", "b;", 1);
    const bool is_restored_by_one = after.is_restored();
    after.add("web", "a;", 1);

    EXPECT_TRUE(after.had_publications());
    EXPECT_FALSE(is_restored_by_one);
    EXPECT_TRUE(after.is_restored());
    std::filesystem::remove(path);
}

TEST(PublicationSum, name_instance_and_scope_each_tell_publications_apart) {
    const std::string path = testing::TempDir() + "sum." + std::to_string(getpid());
    {
        PublicationSum before(path);
        before.settle();
        before.add("web", "a;", 1);
    }

    for (const auto &[name, instance, scope] :
         {std::tuple("we", "ba;", 1u), std::tuple("web", "b;", 1u), std::tuple("web", "a;", 2u)}) {
        PublicationSum after(path);
        after.add(name, instance, scope);
        EXPECT_FALSE(after.is_restored());
    }
    std::filesystem::remove(path);
}

TEST(PublicationSum, a_foreign_file_counts_as_empty_and_is_made_ours) {
    const std::string path = testing::TempDir() + "sum." + std::to_string(getpid());
    std::ofstream(path) << std::string(4096, 'x');

    const PublicationSum sum(path);

    EXPECT_FALSE(sum.had_publications());
    EXPECT_LT(std::filesystem::file_size(path), 100u);
    std::filesystem::remove(path);
}

TEST(PublicationSum, a_symbolic_link_is_refused) {
    const std::string path = testing::TempDir() + "sum." + std::to_string(getpid());
    std::filesystem::create_symlink("/none", path);

    EXPECT_THROW(PublicationSum{path}, std::exception);
    std::filesystem::remove(path);
}

} // namespace
} // namespace ds::host
