// Dumps, node and directory statistics over the protocol.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <set>

#include "client.h"
#include "harness.h"

namespace {

using namespace system_test;

std::uint64_t now_ns() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                          std::chrono::system_clock::now().time_since_epoch())
                                          .count());
}

class DumpTest : public System {
  protected:
    // Every page of a dump, one behind the other.
    static v1::DumpReply dump_all(Client &client, v1::Request request, int &pages) {
        v1::DumpReply whole;
        pages = 0;
        while (true) {
            const v1::DumpReply page = client.ok(request).dump();
            pages++;
            EXPECT_LT(page.ByteSizeLong(), 1'048'576u);
            whole.MergeFrom(page);
            request.mutable_dump()->set_after(page.next());
            request.mutable_dump()->set_after_client(page.next_client());
            if (page.next().empty() && page.next_client() == 0) return whole;
        }
    }
    static v1::DumpReply dump_all(Client &client, v1::Request request) {
        int pages = 0;
        return dump_all(client, std::move(request), pages);
    }
    static std::set<std::string> names_of(const v1::DumpReply &dump) {
        std::set<std::string> names;
        for (const v1::DumpedName &name : dump.names())
            names.insert(name.name());
        return names;
    }
};

TEST_F(DumpTest, a_service_is_dumped_with_all_that_is_known_of_it) {
    const std::uint64_t before_ns = now_ns();
    Client publisher(daemon, "cam"), watcher(daemon, "eye");
    watcher.watch("web");
    v1::Request request = publish_request("web", "blue", 80, v1::SCOPE_SYSTEM);
    request.mutable_publish()->set_ha_role(v1::HA_ROLE_STANDBY);
    request.mutable_publish()->set_issu_role(v1::ISSU_ROLE_TERTIARY);
    request.mutable_publish()->set_issu_id(7);
    const std::uint32_t id = publisher.ok(request).service_id();

    const v1::DumpReply dump = dump_all(watcher, dump_request(v1::DUMP_KIND_SERVICES));

    ASSERT_EQ(dump.names_size(), 1);
    const v1::DumpedName &name = dump.names(0);
    ASSERT_EQ(name.services_size(), 1);
    const v1::DumpedService &service = name.services(0);
    EXPECT_EQ(service.name(), "web");
    EXPECT_EQ(service.instance().service_id(), id);
    EXPECT_EQ(service.instance().instance(), "blue");
    EXPECT_EQ(service.instance().scope(), v1::SCOPE_SYSTEM);
    EXPECT_EQ(service.instance().endpoint().ipv4().port(), 80u);
    EXPECT_EQ(service.instance().ha_role(), v1::HA_ROLE_STANDBY);
    EXPECT_EQ(service.instance().issu_role(), v1::ISSU_ROLE_TERTIARY);
    EXPECT_EQ(service.instance().issu_id(), 7u);
    EXPECT_TRUE(service.instance().local());
    EXPECT_EQ(service.instance().pid(), static_cast<std::uint32_t>(getpid()));
    EXPECT_GE(service.added_ns(), before_ns);
    EXPECT_LE(service.added_ns(), now_ns());
    EXPECT_EQ(service.updated_ns(), 0u);
    EXPECT_EQ(name.service_count(), 1u);
    EXPECT_EQ(name.local_added(), 1u);
    ASSERT_EQ(name.registrations_size(), 1);
    EXPECT_EQ(name.registrations(0).client(), "eye");
    EXPECT_EQ(name.registrations(0).notifications(), 1u);
}

TEST_F(DumpTest, filters_for_name_scope_and_node_leave_the_rest_out) {
    Client client(daemon);
    client.publish("web", "a", 1, v1::SCOPE_LOCAL);
    client.publish("web", "b", 2, v1::SCOPE_RACK);
    client.publish("mail", "c", 3, v1::SCOPE_LOCAL);
    v1::Request rack = dump_request(v1::DUMP_KIND_SERVICES);
    rack.mutable_dump()->set_scope(v1::SCOPE_RACK);
    v1::Request here = dump_request(v1::DUMP_KIND_SERVICES);
    here.mutable_dump()->set_node(client.connection().hello().node());
    v1::Request elsewhere = dump_request(v1::DUMP_KIND_SERVICES);
    elsewhere.mutable_dump()->set_node(std::string("\2\0\0\0\0\x77", 6));

    const v1::DumpReply by_name = dump_all(client, dump_request(v1::DUMP_KIND_SERVICES, "web"));
    const v1::DumpReply by_scope = dump_all(client, rack);
    const v1::DumpReply by_node = dump_all(client, here);

    EXPECT_EQ(names_of(by_name), std::set<std::string>{"web"});
    EXPECT_EQ(by_name.names(0).services_size(), 2);
    ASSERT_EQ(names_of(by_scope), std::set<std::string>{"web"});
    ASSERT_EQ(by_scope.names(0).services_size(), 1);
    EXPECT_EQ(by_scope.names(0).services(0).instance().instance(), "b");
    EXPECT_EQ(names_of(by_node), (std::set<std::string>{"web", "mail"}));
    EXPECT_EQ(dump_all(client, elsewhere).names_size(), 0);
}

TEST_F(DumpTest, registrations_are_dumped_also_for_names_that_nobody_publishes) {
    Client client(daemon, "eye");
    client.publish("web", "a", 1);
    client.watch("web");
    client.watch("other");
    client.publish("mail", "c", 3);

    const v1::DumpReply dump = dump_all(client, dump_request(v1::DUMP_KIND_REGISTRATIONS));

    EXPECT_EQ(names_of(dump), (std::set<std::string>{"web", "other"}));
    for (const v1::DumpedName &name : dump.names()) {
        EXPECT_EQ(name.services_size(), 0);
        ASSERT_EQ(name.registrations_size(), 1);
        EXPECT_EQ(name.registrations(0).client(), "eye");
        EXPECT_GT(name.registrations(0).created_ns(), 0u);
    }
}

TEST_F(DumpTest, clients_are_dumped_with_their_services_and_registrations) {
    Client camera(daemon, "cam"), viewer(daemon, "eye");
    camera.publish("web", "a", 1);
    camera.publish("web", "a", 2);
    viewer.watch("web");

    const v1::DumpReply all = dump_all(viewer, dump_request(v1::DUMP_KIND_CLIENTS));
    const v1::DumpReply one = dump_all(viewer, dump_request(v1::DUMP_KIND_CLIENTS, "cam"));

    EXPECT_EQ(all.clients_size(), 2);
    ASSERT_EQ(one.clients_size(), 1);
    const v1::DumpedClient &client = one.clients(0);
    EXPECT_EQ(client.name(), "cam");
    EXPECT_EQ(client.uid(), getuid());
    EXPECT_EQ(client.pid(), static_cast<std::uint32_t>(getpid()));
    EXPECT_EQ(client.session(), camera.connection().hello().session());
    EXPECT_EQ(client.services_published(), 1u);
    EXPECT_EQ(client.services_updated(), 1u);
    ASSERT_EQ(client.services_size(), 1);
    EXPECT_EQ(client.services(0).name(), "web");
    EXPECT_EQ(client.registration_count(), 0u);
}

TEST_F(DumpTest, a_large_dump_comes_in_pages_that_hold_every_service_once) {
    constexpr int count = 20'000;
    Client client(daemon);
    std::vector<v1::Request> requests;
    for (int i = 0; i < count; i++)
        requests.push_back(publish_request("service-" + std::to_string(i), "", 80));
    client.pipeline(std::move(requests));
    int pages = 0;

    const v1::DumpReply dump = dump_all(client, dump_request(v1::DUMP_KIND_SERVICES), pages);

    EXPECT_EQ(names_of(dump).size(), static_cast<std::size_t>(count));
    EXPECT_EQ(dump.names_size(), count);
    EXPECT_GT(pages, 3);
}

TEST_F(DumpTest, a_client_with_more_services_than_a_frame_holds_is_cut_and_counted) {
    constexpr int count = 20'000;
    Client client(daemon, "big");
    std::vector<v1::Request> requests;
    for (int i = 0; i < count; i++)
        requests.push_back(publish_request("service-" + std::to_string(i), "", 80));
    client.pipeline(std::move(requests));

    const v1::DumpReply dump = dump_all(client, dump_request(v1::DUMP_KIND_CLIENTS));

    ASSERT_EQ(dump.clients_size(), 1);
    EXPECT_EQ(dump.clients(0).service_count(), static_cast<std::uint32_t>(count));
    EXPECT_GT(dump.clients(0).services_size(), 5'000);
    EXPECT_LT(dump.clients(0).services_size(), count);
}

TEST_F(DumpTest, many_clients_are_each_dumped_once) {
    constexpr int count = 300;
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < count; i++) {
        clients.push_back(std::make_unique<Client>(daemon));
        for (int j = 0; j < 20; j++)
            clients.back()->publish("name-" + std::to_string(j), "", 80);
    }
    int pages = 0;

    const v1::DumpReply dump =
        dump_all(*clients.front(), dump_request(v1::DUMP_KIND_CLIENTS), pages);

    std::set<std::uint64_t> sessions;
    for (const v1::DumpedClient &client : dump.clients())
        sessions.insert(client.session());
    EXPECT_EQ(dump.clients_size(), count);
    EXPECT_EQ(sessions.size(), static_cast<std::size_t>(count));
    EXPECT_GT(pages, 1);
}

TEST_F(DumpTest, what_a_dump_cannot_be_is_refused_with_the_field) {
    Client client(daemon);
    v1::Request bad_node = dump_request(v1::DUMP_KIND_SERVICES);
    bad_node.mutable_dump()->set_node("abc");
    v1::Request bad_scope = dump_request(v1::DUMP_KIND_SERVICES);
    bad_scope.mutable_dump()->set_scope(static_cast<v1::Scope>(9));

    EXPECT_EQ(client.call(dump_request(v1::DUMP_KIND_NONE)).text(),
              "kind is 0; 1 (services), 2 (registrations) and 3 (clients) are allowed.");
    EXPECT_EQ(client.call(bad_node).text(), "node has 3 bytes; an Ethernet address has 6.");
    EXPECT_EQ(client.call(bad_scope).status(), v1::STATUS_INVALID);
}

TEST_F(DumpTest, statistics_count_what_happened_since_the_start) {
    Client client(daemon);
    client.publish("web", "a", 1);
    client.publish("web", "a", 2);
    client.watch("web");
    client.withdraw("web", "a");
    v1::Request stats_request;
    stats_request.mutable_stats();

    const v1::StatsReply stats = client.ok(stats_request).stats();

    EXPECT_EQ(stats.clients_added(), 1u);
    EXPECT_EQ(stats.local_services_added(), 1u);
    EXPECT_EQ(stats.local_services_updated(), 1u);
    EXPECT_EQ(stats.local_services_deleted(), 1u);
    EXPECT_EQ(stats.registrations_added(), 1u);
    EXPECT_GT(stats.last_client_add_ns(), 0u);
}

TEST_F(DumpTest, the_own_node_is_known_with_its_changes) {
    Client client(daemon);
    client.publish("web", "a", 1);
    v1::Request nodes_request;
    nodes_request.mutable_nodes();

    const v1::NodesReply nodes = client.ok(nodes_request).nodes();

    ASSERT_EQ(nodes.nodes_size(), 1);
    EXPECT_TRUE(nodes.nodes(0).local());
    EXPECT_EQ(nodes.nodes(0).address(), client.connection().hello().node());
    EXPECT_EQ(nodes.nodes(0).services_added(), 1u);
    EXPECT_EQ(nodes.nodes(0).times_down(), 0u);
}

} // namespace
