// Rows and JSON of dumps, clients, nodes and statistics.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "cli/dump_json.h"
#include "cli/dump_rows.h"
#include "cli/endpoint.h"
#include "cli/relay_status.h"
#include "cli/vocabulary.h"

namespace ds::cli {
namespace {

constexpr std::uint64_t second = 1'000'000'000;
constexpr std::uint64_t now_ns = 1'700'000'000 * second; // 2023-11-14T22:13:20Z
constexpr std::uint32_t no_user = 4'000'000'000;         // a number that nobody has

class DumpOutput : public testing::Test {
  protected:
    void SetUp() override {
        ::setenv("TZ", "UTC-1", 1); // an hour ahead of UTC
        ::tzset();
    }
    void TearDown() override {
        ::unsetenv("TZ");
        ::tzset();
    }
};

v1::DumpedService make_service() {
    v1::DumpedService service;
    service.set_name("web");
    service.set_publisher(4);
    service.set_added_ns(now_ns - 12 * second);
    v1::Instance &instance = *service.mutable_instance();
    instance.set_service_id(26);
    instance.set_instance("blue");
    instance.set_scope(v1::SCOPE_SYSTEM);
    instance.set_node(std::string("\x02\x00\x00\x00\x00\x01", 6));
    instance.set_local(true);
    instance.set_ha_role(v1::HA_ROLE_ACTIVE);
    instance.set_pid(4711);
    EXPECT_FALSE(parse_endpoint("10.0.0.1:80", *instance.mutable_endpoint()));
    return service;
}

v1::DumpedRegistration make_registration() {
    v1::DumpedRegistration registration;
    registration.set_name("web");
    registration.set_client("eye");
    registration.set_pid(12);
    registration.set_notifications(3);
    registration.set_created_ns(now_ns - 7'500 * second);
    registration.set_notified_ns(now_ns - 1'000'000);
    return registration;
}

v1::DumpedName make_name() {
    v1::DumpedName name;
    name.set_name("web");
    *name.add_services() = make_service();
    *name.add_registrations() = make_registration();
    name.set_service_count(1);
    name.set_registration_count(1);
    name.set_last_add_ns(now_ns - second);
    name.set_local_added(9);
    return name;
}

v1::DumpedClient make_client() {
    v1::DumpedClient client;
    client.set_session(77);
    client.set_name("cam");
    client.set_pid(4711);
    client.set_uid(no_user);
    client.set_number(4);
    *client.add_services() = make_service();
    *client.add_registrations() = make_registration();
    client.set_service_count(1);
    client.set_registration_count(1);
    client.set_notifications(5);
    client.set_unsent_bytes(1536);
    client.set_last_activity_ns(now_ns - 100 * second);
    client.set_services_published(6);
    return client;
}

TEST_F(DumpOutput, a_service_s_row_tells_local_time_and_age) {
    const std::vector<Cells> rows = service_rows(make_name(), false, now_ns);

    EXPECT_EQ(rows, (std::vector<Cells>{{"web", "blue", "SYSTEM", "10.0.0.1:80", "ACTIVE", "",
                                         "local", "4711", "1", "2023-11-14T23:13:08", "12s"}}));
}

TEST_F(DumpOutput, every_row_has_a_cell_for_every_title) {
    for (const bool wide : {false, true}) {
        EXPECT_EQ(service_rows(make_name(), wide, now_ns)[0].size(),
                  dump_titles(v1::DUMP_KIND_SERVICES, wide).size());
        EXPECT_EQ(registration_rows(make_name(), wide, now_ns)[0].size(),
                  dump_titles(v1::DUMP_KIND_REGISTRATIONS, wide).size());
        const std::vector<Cells> holdings = holding_rows(make_client(), wide, now_ns);
        ASSERT_EQ(holdings.size(), 2u);
        EXPECT_EQ(holdings[0].size(), dump_titles(v1::DUMP_KIND_CLIENTS, wide).size());
        EXPECT_EQ(holdings[1].size(), dump_titles(v1::DUMP_KIND_CLIENTS, wide).size());
        EXPECT_EQ(client_row(make_client(), wide, now_ns).size(), client_titles(wide).size());
        EXPECT_EQ(node_row(v1::Node(), wide, now_ns).size(), node_titles(wide).size());
    }
}

TEST_F(DumpOutput, wide_only_adds_columns_behind_the_others) {
    for (const v1::DumpKind kind :
         {v1::DUMP_KIND_SERVICES, v1::DUMP_KIND_REGISTRATIONS, v1::DUMP_KIND_CLIENTS}) {
        const Cells narrow = dump_titles(kind, false);
        Cells wide = dump_titles(kind, true);
        ASSERT_GT(wide.size(), narrow.size());
        wide.resize(narrow.size());
        EXPECT_EQ(wide, narrow);
    }
}

TEST_F(DumpOutput, a_client_that_holds_nothing_has_a_row_all_the_same) {
    v1::DumpedClient client = make_client();
    client.clear_services();
    client.clear_registrations();

    EXPECT_EQ(holding_rows(client, false, now_ns), (std::vector<Cells>{{"77", "cam", "4711"}}));
}

TEST_F(DumpOutput, a_user_without_a_name_is_shown_by_number) {
    EXPECT_EQ(client_row(make_client(), false, now_ns),
              (Cells{"77", "cam", "4711", "4000000000", "1", "1", "5", "1536",
                     "2023-11-14T23:11:40", "1m40s"}));
    EXPECT_TRUE(client_json(make_client(), now_ns)["user"].is_null());
    EXPECT_EQ(user_name(0), "root");
}

TEST_F(DumpOutput, the_json_of_a_name_carries_utc_nanoseconds_and_ages) {
    const Json json = dumped_name_json(make_name(), v1::DUMP_KIND_SERVICES, now_ns);

    const Json &service = json["services"][0];
    EXPECT_EQ(service["added"], "2023-11-14T22:13:08.000000000Z");
    EXPECT_EQ(service["added_age_ns"], 12 * second);
    EXPECT_TRUE(service["updated"].is_null());
    EXPECT_TRUE(service["updated_age_ns"].is_null());
    EXPECT_EQ(service["publisher"], 4u);
    EXPECT_EQ(service["endpoint"], "10.0.0.1:80");
    EXPECT_FALSE(service.contains("generation"));
    EXPECT_EQ(json["registrations"][0]["client"], "eye");
    EXPECT_EQ(json["last_add_age_ns"], second);
    EXPECT_EQ(json["local_added"], 9u);
}

TEST_F(DumpOutput, a_dump_of_registrations_says_nothing_of_services) {
    const Json json = dumped_name_json(make_name(), v1::DUMP_KIND_REGISTRATIONS, now_ns);

    EXPECT_FALSE(json.contains("services"));
    EXPECT_FALSE(json.contains("service_count"));
    EXPECT_EQ(json["registration_count"], 1u);
}

TEST_F(DumpOutput, the_json_of_a_client_lists_what_it_holds_in_a_dump_only) {
    const Json line = client_json(make_client(), now_ns);
    const Json dumped = dumped_client_json(make_client(), now_ns);

    EXPECT_FALSE(line.contains("services"));
    EXPECT_EQ(line["service_count"], 1u);
    EXPECT_EQ(line["unsent_bytes"], 1536u);
    EXPECT_EQ(dumped["services"].size(), 1u);
    EXPECT_EQ(dumped["registrations"][0]["notified_age_ns"], 1'000'000u);
}

TEST_F(DumpOutput, what_a_frame_had_no_room_for_is_counted) {
    v1::DumpedName name = make_name();
    v1::DumpedClient client = make_client();
    EXPECT_EQ(what_was_cut(name), "");
    EXPECT_EQ(what_was_cut(client), "");

    name.set_service_count(20'000);
    client.set_service_count(7);
    client.set_registration_count(8);

    EXPECT_EQ(what_was_cut(name), "web: only 1 of 20000 services fit into a frame and are shown");
    EXPECT_EQ(what_was_cut(client), "session 77 cam: only 1 of 7 services and 1 of 8 registrations "
                                    "fit into a frame and are shown");
}

TEST_F(DumpOutput, a_node_that_was_never_down_has_no_time_of_it) {
    v1::Node node;
    node.set_address(std::string("\x02\x00\x00\x00\x00\x01", 6));
    node.set_state(v1::NODE_STATE_UP);
    node.set_rack("east");
    node.set_host_name("n1");
    node.set_started_ns(now_ns - 90 * second);
    node.set_services(7);
    node.set_services_added(2);
    node.set_last_change_ns(now_ns - 3 * 86'400 * second);

    EXPECT_EQ(node_row(node, true, now_ns),
              (Cells{"02:00:00:00:00:01", "no", "up", "east", "n1", "1m30s", "7", "0", "", "", "2",
                     "0", "0", "2023-11-11T23:13:20", "3d0h"}));
    EXPECT_TRUE(node_json(node, now_ns)["last_down"].is_null());
    EXPECT_EQ(node_json(node, now_ns)["services"], 7);
}

TEST_F(DumpOutput, of_a_node_that_is_not_up_nothing_is_told_that_nobody_knows) {
    v1::Node node;
    node.set_address(std::string("\x02\x00\x00\x00\x00\x01", 6));
    node.set_state(v1::NODE_STATE_DOWN);
    node.set_times_down(1);

    EXPECT_EQ(node_row(node, false, now_ns),
              (Cells{"02:00:00:00:00:01", "no", "down", "", "", "", "", "1", "", ""}));
    for (const char *key : {"rack", "host", "started", "services"})
        EXPECT_TRUE(node_json(node, now_ns)[key].is_null()) << key;
}

TEST_F(DumpOutput, the_relay_s_troubles_are_told_with_their_count_and_age) {
    v1::RelayStatus relay;
    relay.set_state("connecting");
    relay.set_echo_count(1);
    relay.set_echo_last_us(1'002);
    v1::RelayError &error = *relay.add_errors();
    error.set_text("no answer");
    error.set_count(3);
    error.set_last_ns(now_ns - 5 * second);

    const std::string text = fields_text(relay_fields(relay, now_ns), false);
    const Json json = relay_json(relay, now_ns);

    EXPECT_NE(text.find("  error          no answer (3, last 5s ago)\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("last 1.002ms, p50 0.000ms"), std::string::npos) << text;
    EXPECT_EQ(json["errors"][0]["last_age_ns"], 5 * second);
    EXPECT_TRUE(json["epoch"].is_null());
}

TEST_F(DumpOutput, statistics_derive_what_is_there_from_counters_that_wrap) {
    v1::StatsReply stats;
    stats.set_clients_added(2);
    stats.set_clients_deleted(4'294'967'295);
    stats.set_last_client_add_ns(now_ns - second);

    const std::string text = fields_text(stats_fields(stats, now_ns), false);

    EXPECT_TRUE(text.starts_with("FIELD                   VALUE\n"
                                 "clients                 3\n"
                                 "  came                  2\n"
                                 "  left                  4294967295\n"
                                 "  last came             2023-11-14T23:13:19, 1s ago\n"
                                 "  last left             never\n"))
        << text;
    EXPECT_EQ(stats_json(stats, now_ns)["last_client_add_age_ns"], second);
}

TEST(Nodes, addresses_are_read_as_they_are_written) {
    EXPECT_EQ(parse_node("02:00:aB:00:00:01"), std::string("\x02\x00\xab\x00\x00\x01", 6));
    for (const char *bad : {"", "02:00:00:00:00", "02:00:00:00:00:0g", "02-00-00-00-00-01",
                            "02:00:00:00:00:01:", "+2:00:00:00:00:01", "02:00:00:00:00: 1"}) {
        EXPECT_FALSE(parse_node(bad)) << bad;
    }
}

} // namespace
} // namespace ds::cli
