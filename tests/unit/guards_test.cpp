// Arguments that a careful host never passes, records that are half made, and a database that goes
// while an operation runs: each is refused or survived, and nothing else moves.
#include "faulty_console.h"
#include "lifecycle_fixture.h"

namespace {

class GuardsTest : public LifecycleTest {
  protected:
    void SetUp() override {
        LifecycleTest::SetUp();
        client = new_publisher();
        web = new_element("web");
        recording::clear_calls();
    }

    ds_client_t *client = nullptr;
    ds_service_elem_t *web = nullptr;
};

} // namespace

// ---- clients ----

TEST_F(GuardsTest, a_listed_client_that_is_not_the_last_is_not_added_again) {
    ds_client_t *newer = new_watcher();

    EXPECT_EQ(ds_db_add_client(newer), -1);

    EXPECT_EQ(ds_client_get_next_in_client_list(newer), client);
    EXPECT_EQ(db()->clients_added, 2u);
}

TEST_F(GuardsTest, freeing_a_client_needs_the_client_and_a_database) {
    ds_client_t *unlisted = new_unlisted_client(0x30, 300, "agent");
    recording::clear_calls();

    EXPECT_EQ(ds_db_free_client(nullptr), -1);
    forget_database();
    EXPECT_EQ(ds_db_free_client(unlisted), -1);
    restore_database();

    EXPECT_EQ(recording::calls(), Lines{});
    EXPECT_EQ(ds_db_free_client(unlisted), 0);
}

TEST_F(GuardsTest, a_client_name_needs_a_client_and_somewhere_to_go) {
    char name[8];

    EXPECT_EQ(ds_client_get_name(nullptr, name, sizeof name), -1);
    EXPECT_EQ(ds_client_get_name(client, nullptr, 1), -1);
    EXPECT_EQ(ds_client_get_name(client, nullptr, 0), 3) << "the length alone";
}

// ---- elements and registrations ----

TEST_F(GuardsTest, an_element_is_neither_added_nor_freed_without_a_database) {
    ds_service_elem_t *other = nullptr;
    ASSERT_EQ(ds_db_init_service_element("other", &other), 0);
    recording::clear_calls();

    forget_database();
    EXPECT_EQ(ds_db_add_service_element(other), -1);
    EXPECT_EQ(ds_db_free_service_element(other), -1);
    restore_database();

    EXPECT_EQ(recording::calls(), Lines{});
    EXPECT_EQ(ds_db_free_service_element(other), 0);
}

TEST_F(GuardsTest, registration_records_need_their_owners_and_a_database) {
    ds_client_reg_t *reg = nullptr;
    ASSERT_EQ(ds_db_init_client_registration(client, "web", 0, &reg), 0);
    ds_client_reg_t of_nobody{};
    ds_client_reg_t of_no_element{};
    of_no_element.client = client;
    recording::clear_calls();

    EXPECT_EQ(ds_db_delete_client_registration(&of_nobody), -1);
    EXPECT_EQ(ds_db_delete_client_registration(&of_no_element), -1);
    EXPECT_EQ(trace_client_reg_info(&of_nobody, ds_lib_rtrace[DS_CHANNEL_REG]), nullptr);
    EXPECT_EQ(trace_client_reg_info(&of_no_element, ds_lib_rtrace[DS_CHANNEL_REG]), nullptr);
    forget_database();
    EXPECT_EQ(ds_db_add_client_registration(reg, client, web), -1);
    EXPECT_EQ(ds_db_free_client_registration(reg), -1);
    restore_database();

    EXPECT_EQ(recording::calls(), Lines{});
    EXPECT_EQ(ds_db_free_client_registration(reg), 0);
}

// ---- services ----

TEST_F(GuardsTest, a_service_without_an_element_is_freed_uncounted) {
    ds_service_t *service = new_service(web, one_endpoint("web"), client);
    const uint64_t version = web->selem_version;

    service->selem = nullptr;
    EXPECT_EQ(ds_db_delete_service(service, client), 0);

    EXPECT_EQ(newest("web"), nullptr);
    EXPECT_EQ(ds_client_get_service_list_head(client), nullptr);
    EXPECT_EQ(web->selem_version, version);
    EXPECT_EQ(client->services_deleted, 0u);
    EXPECT_EQ(db()->local_services_deleted, 0u);
}

TEST_F(GuardsTest, a_service_without_an_element_is_traced_with_nothing_of_it) {
    ds_service_t *service = new_service(web, one_endpoint("web"), client);
    const std::string line = "service_name web, scope=LOCAL[3],nentries=1,nnotifs=0,serv_ver=0\n";
    web->nnotifs = 4;
    service->selem = nullptr;
    open_console();

    trace_service_info(service, ds_lib_rtrace[DS_CHANNEL_PUB]);

    service->selem = web;
    EXPECT_EQ(texts(58), Lines{line});
    EXPECT_NE(console().find(line), std::string::npos);
}

TEST_F(GuardsTest, a_service_is_not_freed_without_a_database) {
    ds_service_t *service = new_service(web, one_endpoint("web"), client);
    recording::clear_calls();

    forget_database();
    EXPECT_EQ(ds_db_free_service(service), 0);
    restore_database();

    EXPECT_EQ(recording::calls(), Lines{});
    EXPECT_EQ(newest("web"), service);
}

TEST_F(GuardsTest, a_placeholder_that_a_client_changes_twice_stands_in_its_list_once) {
    ds_service_t *older = new_service(web, one_endpoint("web", 2, 1), client);
    ds_service_t *placeholder = new_placeholder(web, one_endpoint("web", 2, 2), local_node, 100);

    EXPECT_EQ(ds_db_update_service(placeholder, new_info(one_endpoint("web", 2, 3)), client), 0);
    EXPECT_EQ(ds_db_update_service(placeholder, new_info(one_endpoint("web", 2, 4)), client), 0);

    EXPECT_EQ(services_of(client), (std::vector<ds_service_t *>{placeholder, older}));
}

TEST_F(GuardsTest, no_info_equals_the_lack_of_one) {
    ds_service_t without_info{};

    EXPECT_EQ(ds_db_service_endpoints_equal(&without_info, new_info(one_endpoint("web"))), 0);
}

// ---- publish infos ----

TEST_F(GuardsTest, holding_no_info_gives_none_and_releasing_none_does_nothing) {
    EXPECT_EQ(ds_publish_info_hold(nullptr), nullptr);
    ds_publish_info_release(nullptr);

    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(GuardsTest, of_a_borrowed_info_only_the_contents_are_released) {
    const size_t before = recording::live_allocations();
    ds_service_publish_info storage;
    one_endpoint("web").instance("a;").build_borrowed(&storage);

    ds_publish_info_release(&storage);

    EXPECT_EQ(recording::live_allocations(), before);
    EXPECT_EQ(storage.borrowed, 1) << "the structure is the caller's";
}

// ---- names and dumps ----

TEST_F(GuardsTest, no_bytes_hash_as_an_empty_text) {
    EXPECT_EQ(ds_hash_string(nullptr, 5), ds_hash_string("", 0));
}

TEST_F(GuardsTest, registration_fillers_need_their_walk) {
    ds_dump_selem_info of_element{};
    ds_dump_client_info of_client{};
    uint32_t count = 99;

    EXPECT_EQ(ds_fill_service_registrations(web, &of_element, nullptr, &count), -1);
    EXPECT_EQ(ds_fill_client_registrations(client, &of_client, nullptr, &count), -1);

    EXPECT_EQ(count, 99u);
}

TEST_F(GuardsTest, a_count_of_registrations_that_wraps_to_0_yields_no_array) {
    watch(client, "web");
    ds_dump_selem_info record{};
    ds_dump_walk_ctx walk{};
    uint32_t count = UINT32_MAX;
    recording::clear_calls();

    EXPECT_EQ(ds_fill_service_registrations(web, &record, &walk, &count), 0);

    EXPECT_EQ(count, 0u);
    EXPECT_EQ(record.reg_entries, nullptr);
    EXPECT_EQ(call_order({"calloc"}), Lines{});
}

TEST_F(GuardsTest, a_service_without_an_element_is_dumped_without_a_name) {
    ds_service_t *service = new_service(web, one_endpoint("web"), client);
    ds_dump_selem_info record{};
    ds_dump_walk_ctx walk{};
    walk.scope_filter = DS_SCOPE_ANY;
    uint32_t count = 0;

    service->selem = nullptr;
    EXPECT_EQ(ds_fill_services(web, &record, &walk, &count), 0);
    service->selem = web;

    ASSERT_EQ(count, 1u);
    EXPECT_EQ(record.service_infos[0].service_name, 0u);
    recording::host_free(record.service_infos);
}

// ---- the relay ----

TEST_F(GuardsTest, without_a_block_nothing_is_sent) {
    ds_service_t *service = new_service(web, one_endpoint("web", 2), client);
    set_connected();

    ds_globals_set(nullptr);
    EXPECT_EQ(ds_remote_notify(service, DS_REMOTE_PUBLISHED), 0);
    ds_globals_set(&globals);

    EXPECT_TRUE(recording::sent_updates().empty());
}

TEST_F(GuardsTest, endpoint_bytes_without_a_length_are_no_endpoint) {
    const uint8_t sender[6] = {2, 0, 0, 0, 0, 1};
    const uint8_t byte = 1;

    EXPECT_EQ(dsr_receive_cb(DSR_ADD, sender, "web", 7, nullptr, 2, 500, 3, &byte, 0, nullptr, 0),
              0);

    EXPECT_EQ(newest("web")->publish_info->entries[0].ep_addr, nullptr);
    EXPECT_EQ(newest("web")->publish_info->entries[0].ep_addr_len, 0u);
}

// The console is the only host code that runs before the update is counted.
TEST_F(GuardsTest, a_database_lost_while_an_update_is_logged_fails_its_publication) {
    const uint8_t sender[6] = {2, 0, 0, 0, 0, 1};
    const auto endpoint = recording::encode_ip({10, 0, 0, 9}, 99);
    new_node(1);
    recording::clear_calls();
    FaultyConsole console(1, [this] { forget_database(); });
    globals.slot[DS_GLOBAL_SLOT_CONSOLE] = console.slot();

    const int result = dsr_receive_cb(DSR_ADD, sender, "web", 7, nullptr, 2, 500, 3,
                                      endpoint.data(), endpoint.size(), nullptr, 0);

    globals.slot[DS_GLOBAL_SLOT_CONSOLE] = 0;
    restore_database();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(recording::trace_ids(), (Ids{77, 79}));
    EXPECT_EQ(newest("web"), nullptr);
    EXPECT_EQ(db()->relay_updates_received, 0u);
}
