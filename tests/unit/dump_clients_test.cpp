// Dump responses about clients, the fillers called directly, and the conditions that end the
// process.
#include "lifecycle_fixture.h"

namespace {

class DumpClientsTest : public LifecycleTest {
  protected:
    void SetUp() override {
        LifecycleTest::SetUp();
        publisher = new_publisher();
        VIDL_CLEAR(&resp);
        recording::clear_calls();
    }

    void TearDown() override {
        free_response();
        LifecycleTest::TearDown();
    }

    int dump(uint32_t flags, const char *name = nullptr, uint32_t scope = DS_SCOPE_ANY) {
        free_response();
        resp.request_flags = flags;
        recording::clear_calls();
        return ds_prepare_dump_resp_info(name, nullptr, scope, &resp, &elements, &clients);
    }

    void free_response() {
        for (uint32_t index = 0; index < resp.client_infos_count; ++index) {
            recording::host_free(resp.client_infos[index].service_infos);
            recording::host_free(resp.client_infos[index].reg_entries);
        }
        recording::host_free(resp.client_infos);
        VIDL_CLEAR(&resp);
    }

    ds_client_t *publisher = nullptr;
    ds_dump_resp_info resp;
    uint32_t elements = 99;
    uint32_t clients = 99;
};

class DumpDeathTest : public DumpClientsTest {};

const std::string source = "shared_pkg/common/infra/directory_service/common/src/ds_notify:";

// The line that ends the process, as a pattern.
std::string ends_with(const std::string &line, const std::string &function,
                      const std::string &expression) {
    return source + line + ": " + function + ": Assertion `" + expression + "' failed\\.";
}

} // namespace

// ---- clients ----

TEST_F(DumpClientsTest, every_client_has_a_record_even_with_nothing_to_show) {
    new_watcher();

    EXPECT_EQ(dump(DS_DUMP_REQ_CLIENTS), 0);

    EXPECT_EQ(elements, 0u);
    EXPECT_EQ(clients, 2u);
    ASSERT_EQ(resp.client_infos_count, 2u);
    EXPECT_EQ(resp.presence[0], 0xe0);
    const ds_dump_client_info &record = resp.client_infos[0];
    EXPECT_EQ(record.pid, 200u) << "newest first";
    EXPECT_EQ(record.presence[0], 0xf3);
    EXPECT_EQ(record.presence[1], 0x07);
    EXPECT_EQ(record.reg_entries, nullptr);
    EXPECT_EQ(record.service_infos, nullptr);
}

TEST_F(DumpClientsTest, a_client_record_carries_its_clients_counts_and_lists) {
    publish(publisher, one_endpoint("web", 1).instance("a"));
    publish(publisher, one_endpoint("db", 2).instance("b"));
    watch(publisher, "web");
    publisher->services_published = 1;
    publisher->services_updated = 2;
    publisher->services_deleted = 3;
    publisher->last_activity_time = 4;
    publisher->registrations_added = 5;
    publisher->registrations_deleted = 6;
    publisher->nnotifs = 7;

    dump(DS_DUMP_REQ_CLIENTS);

    ASSERT_EQ(resp.client_infos_count, 1u);
    const ds_dump_client_info &record = resp.client_infos[0];
    EXPECT_EQ(record.presence[0], 0xff);
    EXPECT_EQ(record.presence[1], 0x07);
    EXPECT_EQ(record.pid, 100u);
    EXPECT_EQ(record.client_name, reinterpret_cast<uint64_t>(publisher->name));
    EXPECT_EQ(record.services_published, 1u);
    EXPECT_EQ(record.services_updated, 2u);
    EXPECT_EQ(record.services_deleted, 3u);
    EXPECT_EQ(record.last_activity_time, 4u);
    EXPECT_EQ(record.registrations_added, 5u);
    EXPECT_EQ(record.registrations_deleted, 6u);
    EXPECT_EQ(record.nnotifs, 7u);
    ASSERT_EQ(record.service_infos_count, 2u);
    EXPECT_STREQ(record.service_infos[0].instance, "b");
    EXPECT_EQ(record.service_infos[0].service_name,
              reinterpret_cast<uint64_t>(element("db")->name));
    EXPECT_STREQ(record.service_infos[1].instance, "a");
    ASSERT_EQ(record.reg_entries_count, 1u);
    EXPECT_EQ(record.reg_entries[0].service_name, reinterpret_cast<uint64_t>(element("web")->name));
    EXPECT_EQ(call_order({"calloc"}), (Lines{"calloc(1, 80)", "calloc(2, 128)", "calloc(1, 48)"}));
}

TEST_F(DumpClientsTest, a_pid_is_cut_to_32_bits) {
    pids[publisher->client_hdl] = 0x100000005;

    dump(DS_DUMP_REQ_CLIENTS);

    EXPECT_EQ(resp.client_infos[0].pid, 5u);
}

TEST_F(DumpClientsTest, the_scope_does_not_narrow_a_clients_services) {
    publish(publisher, one_endpoint("web", 1));

    dump(DS_DUMP_REQ_CLIENTS, nullptr, 2);

    EXPECT_EQ(resp.client_infos[0].service_infos_count, 1u);
}

TEST_F(DumpClientsTest, a_name_narrows_to_the_clients_of_that_name) {
    new_watcher();
    new_client(0x30, 300, "pub");

    dump(DS_DUMP_REQ_CLIENTS, "pub");
    EXPECT_EQ(clients, 2u);
    EXPECT_EQ(resp.client_infos_count, 2u);
    EXPECT_EQ(resp.presence[0], 0xe2);

    dump(DS_DUMP_REQ_CLIENTS, "pu");
    EXPECT_EQ(clients, 0u);
    EXPECT_EQ(resp.client_infos, nullptr);
}

TEST_F(DumpClientsTest, a_client_whose_services_hold_no_entry_has_an_empty_array) {
    publish(publisher, PublishInfoBuilder("web"));

    dump(DS_DUMP_REQ_CLIENTS);

    EXPECT_EQ(resp.client_infos[0].service_infos, nullptr);
    EXPECT_EQ(resp.client_infos[0].presence[0], 0xfb);
}

TEST_F(DumpClientsTest, without_memory_a_clients_lists_are_empty) {
    publish(publisher, one_endpoint("web"));
    watch(publisher, "web");
    recording::fail("calloc", 2);
    dump(DS_DUMP_REQ_CLIENTS);
    EXPECT_EQ(texts(69),
              Lines{"[DS]: ds_fill_client_services:302 malloc failed for ds_service_info_t\n"});
    ASSERT_EQ(resp.client_infos_count, 1u);
    EXPECT_EQ(resp.client_infos[0].service_infos, nullptr);
    EXPECT_EQ(resp.client_infos[0].service_infos_count, 0u);
    EXPECT_EQ(resp.client_infos[0].reg_entries_count, 1u);

    recording::fail("calloc", 3);
    dump(DS_DUMP_REQ_CLIENTS);
    EXPECT_EQ(texts(68), Lines{"[DS]: ds_fill_client_registrations:235 malloc failed for "
                               "vidl_ds_client_reg_entry\n"});
    EXPECT_EQ(resp.client_infos[0].reg_entries, nullptr);
    EXPECT_EQ(resp.client_infos[0].reg_entries_count, 0u);
    EXPECT_EQ(resp.client_infos[0].service_infos_count, 1u);
}

// ---- the fillers called directly ----

TEST_F(DumpClientsTest, fillers_without_their_arguments_fail) {
    ds_service_elem_t *selem = new_element("web");
    ds_dump_selem_info of_element{};
    ds_dump_client_info of_client{};
    ds_dump_walk_ctx ctx{};
    uint32_t count = 99;

    EXPECT_EQ(ds_fill_services(nullptr, &of_element, &ctx, &count), -1);
    EXPECT_EQ(ds_fill_services(selem, nullptr, &ctx, &count), -1);
    EXPECT_EQ(ds_fill_services(selem, &of_element, nullptr, &count), -1);
    EXPECT_EQ(ds_fill_services(selem, &of_element, &ctx, nullptr), -1);
    EXPECT_EQ(ds_fill_service_registrations(nullptr, &of_element, &ctx, &count), -1);
    EXPECT_EQ(ds_fill_service_registrations(selem, nullptr, &ctx, &count), -1);
    EXPECT_EQ(ds_fill_service_registrations(selem, &of_element, &ctx, nullptr), -1);
    EXPECT_EQ(ds_fill_client_services(nullptr, &of_client, &ctx, &count), -1);
    EXPECT_EQ(ds_fill_client_services(publisher, nullptr, &ctx, &count), -1);
    EXPECT_EQ(ds_fill_client_services(publisher, &of_client, nullptr, &count), -1);
    EXPECT_EQ(ds_fill_client_services(publisher, &of_client, &ctx, nullptr), -1);
    EXPECT_EQ(ds_fill_client_registrations(nullptr, &of_client, &ctx, &count), -1);
    EXPECT_EQ(ds_fill_client_registrations(publisher, nullptr, &ctx, &count), -1);
    EXPECT_EQ(ds_fill_client_registrations(publisher, &of_client, &ctx, nullptr), -1);

    EXPECT_EQ(count, 99u);
}

TEST_F(DumpClientsTest, fillers_of_an_empty_list_fail_and_leave_the_record_alone) {
    ds_service_elem_t *selem = new_element("web");
    ds_dump_selem_info of_element{};
    ds_dump_client_info of_client{};
    ds_dump_walk_ctx ctx{};
    uint32_t of_services = 9;
    uint32_t of_registrations = 9;

    EXPECT_EQ(ds_fill_services(selem, &of_element, &ctx, &of_services), -1);
    EXPECT_EQ(ds_fill_service_registrations(selem, &of_element, &ctx, &of_registrations), -1);
    EXPECT_EQ(of_services, 0u);
    EXPECT_EQ(of_registrations, 9u) << "the caller's start is not touched";
    of_services = 9;
    EXPECT_EQ(ds_fill_client_services(publisher, &of_client, &ctx, &of_services), -1);
    EXPECT_EQ(ds_fill_client_registrations(publisher, &of_client, &ctx, &of_registrations), -1);

    EXPECT_EQ(of_services, 0u);
    EXPECT_EQ(of_registrations, 9u);
    EXPECT_EQ(of_element.presence[0], 0);
    EXPECT_EQ(of_client.presence[0], 0);
}

TEST_F(DumpClientsTest, a_list_without_a_wanted_service_yields_an_empty_array) {
    publish(publisher, one_endpoint("web", 1));
    new_placeholder(element("web"), one_endpoint("web", 2), local_node, 42);
    ds_dump_selem_info record{};
    ds_dump_walk_ctx ctx{};
    ctx.scope_filter = 2;
    uint32_t count = 9;

    EXPECT_EQ(ds_fill_services(element("web"), &record, &ctx, &count), 0);

    EXPECT_EQ(count, 0u);
    EXPECT_EQ(record.service_infos, nullptr);
    EXPECT_EQ(record.presence[0], 2);
}

// ---- what ends the process ----

TEST_F(DumpDeathTest, without_memory_for_the_element_records_the_process_ends) {
    publish(publisher, one_endpoint("web"));
    recording::fail("calloc");

    EXPECT_DEATH(dump(DS_DUMP_REQ_SERVICES),
                 ends_with("658", "ds_prepare_dump_resp_info", "info != NULL"));
}

TEST_F(DumpDeathTest, without_memory_for_the_records_of_watched_names_the_process_ends) {
    watch(publisher, "web");
    recording::fail("calloc");

    EXPECT_DEATH(dump(DS_DUMP_REQ_REGISTRATIONS),
                 ends_with("658", "ds_prepare_dump_resp_info", "info != NULL"));
}

TEST_F(DumpDeathTest, without_memory_for_the_client_records_the_process_ends) {
    recording::fail("calloc");

    EXPECT_DEATH(dump(DS_DUMP_REQ_CLIENTS),
                 ends_with("677", "ds_prepare_dump_resp_info", "cinfo != NULL"));
}

TEST_F(DumpDeathTest, a_service_with_two_endpoints_ends_the_process) {
    publish(publisher, PublishInfoBuilder("web").endpoints(2));

    EXPECT_DEATH(dump(DS_DUMP_REQ_SERVICES), ends_with("399", "ds_fill_services", "count == 1"));
    EXPECT_DEATH(dump(DS_DUMP_REQ_CLIENTS),
                 ends_with("318", "ds_fill_client_services", "count == 1"));
}

TEST_F(DumpDeathTest, a_service_without_endpoints_beside_one_with_ends_the_process) {
    publish(publisher, PublishInfoBuilder("web"));
    publish(publisher, one_endpoint("web", 1));
    ASSERT_EQ(services_of(element("web")).size(), 2u);

    EXPECT_DEATH(dump(DS_DUMP_REQ_SERVICES), ends_with("399", "ds_fill_services", "count == 1"));
    EXPECT_DEATH(dump(DS_DUMP_REQ_CLIENTS),
                 ends_with("318", "ds_fill_client_services", "count == 1"));
}
