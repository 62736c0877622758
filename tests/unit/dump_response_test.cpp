// Dump responses: statistics, elements, clients, their nested arrays, filters, and what aborts.
#include "lifecycle_fixture.h"

namespace {

class DumpResponseTest : public LifecycleTest {
  protected:
    void SetUp() override {
        LifecycleTest::SetUp();
        publisher = new_publisher();
        remote = new_node(1);
        VIDL_CLEAR(&resp);
        recording::clear_calls();
    }

    void TearDown() override {
        free_response();
        LifecycleTest::TearDown();
    }

    int dump(uint32_t flags, const char *name = nullptr, uint32_t scope = DS_SCOPE_ANY,
             const uint8_t *address = nullptr) {
        free_response();
        resp.request_flags = flags;
        recording::clear_calls();
        return ds_prepare_dump_resp_info(name, address, scope, &resp, &elements, &clients);
    }

    Lines names() const {
        Lines result;
        for (uint32_t index = 0; index < resp.selem_infos_count; ++index)
            result.push_back(resp.selem_infos[index].name);
        return result;
    }

    // What the host does with a response.
    void free_response() {
        for (uint32_t index = 0; index < resp.selem_infos_count; ++index) {
            recording::host_free(resp.selem_infos[index].service_infos);
            recording::host_free(resp.selem_infos[index].reg_entries);
        }
        for (uint32_t index = 0; index < resp.client_infos_count; ++index) {
            recording::host_free(resp.client_infos[index].service_infos);
            recording::host_free(resp.client_infos[index].reg_entries);
        }
        recording::host_free(resp.selem_infos);
        recording::host_free(resp.client_infos);
        VIDL_CLEAR(&resp);
    }

    ds_client_t *publisher = nullptr;
    ds_node_t *remote = nullptr;
    ds_dump_resp_info resp;
    uint32_t elements = 99;
    uint32_t clients = 99;
};

constexpr uint32_t registrations = DS_DUMP_REQ_REGISTRATIONS;
constexpr uint32_t services = DS_DUMP_REQ_SERVICES;
constexpr uint32_t all_clients = DS_DUMP_REQ_CLIENTS;
const uint8_t remote_address[6] = {2, 0, 0, 0, 0, 1};

} // namespace

// ---- the response itself ----

TEST_F(DumpResponseTest, without_flags_only_statistics_are_filled) {
    publish(publisher, one_endpoint("web"));

    EXPECT_EQ(dump(0), 0);

    EXPECT_EQ(elements, 0u);
    EXPECT_EQ(clients, 0u);
    EXPECT_EQ(resp.presence[0], 0xc0);
    EXPECT_EQ(resp.presence[1], 0xff);
    EXPECT_EQ(resp.presence[2], 0xff);
    EXPECT_EQ(resp.presence[3], 0x01);
    EXPECT_EQ(resp.service_name, nullptr);
    EXPECT_EQ(resp.selem_infos, nullptr);
    EXPECT_EQ(resp.client_infos, nullptr);
    EXPECT_EQ(call_order({"calloc"}), Lines{});
}

TEST_F(DumpResponseTest, a_name_is_stored_whatever_is_asked_for) {
    const char *name = "web";

    EXPECT_EQ(dump(0, name), 0);

    EXPECT_EQ(resp.service_name, name);
    EXPECT_EQ(resp.presence[0], 0xc2);
}

TEST_F(DumpResponseTest, the_statistics_are_the_databases) {
    ds_db_t &from = *db();
    const ds_db_t saved = from;
    uint32_t *const numbers[] = {&from.clients_added,
                                 &from.clients_deleted,
                                 &from.local_services_added,
                                 &from.remote_services_added,
                                 &from.local_services_updated,
                                 &from.remote_services_updated,
                                 &from.local_services_deleted,
                                 &from.remote_services_deleted,
                                 &from.registrations_added,
                                 &from.registrations_deleted,
                                 &from.nnotifs,
                                 &from.relay_updates_sent,
                                 &from.relay_adds_sent,
                                 &from.relay_deletes_sent,
                                 &from.relay_modifies_sent,
                                 &from.relay_updates_received,
                                 &from.relay_spare_counter};
    uint32_t value = 100;
    for (uint32_t *number : numbers)
        *number = value++;
    from.last_client_add_time = 7001;
    from.last_client_delete_time = 7002;

    EXPECT_EQ(dump(0), 0);

    const uint32_t copies[] = {resp.clients_added,
                               resp.clients_deleted,
                               resp.local_services_added,
                               resp.remote_services_added,
                               resp.local_services_updated,
                               resp.remote_services_updated,
                               resp.local_services_deleted,
                               resp.remote_services_deleted,
                               resp.registrations_added,
                               resp.registrations_deleted,
                               resp.nnotifs,
                               resp.relay_updates_sent,
                               resp.relay_adds_sent,
                               resp.relay_deletes_sent,
                               resp.relay_modifies_sent,
                               resp.relay_updates_received,
                               resp.relay_spare_counter};
    value = 100;
    for (const uint32_t copy : copies)
        EXPECT_EQ(copy, value++);
    EXPECT_EQ(resp.last_client_add_time, 7001u);
    EXPECT_EQ(resp.last_client_delete_time, 7002u);
    from = saved;
}

TEST_F(DumpResponseTest, without_its_outputs_it_fails_and_writes_nothing) {
    const auto prepare = ds_prepare_dump_resp_info;

    EXPECT_EQ(prepare(nullptr, nullptr, 4, nullptr, &elements, &clients), -1);
    EXPECT_EQ(prepare(nullptr, nullptr, 4, &resp, nullptr, &clients), -1);
    EXPECT_EQ(prepare(nullptr, nullptr, 4, &resp, &elements, nullptr), -1);

    EXPECT_EQ(elements, 99u);
    EXPECT_EQ(clients, 99u);
    EXPECT_EQ(resp.presence[0], 0);
}

TEST_F(DumpResponseTest, without_a_database_the_counts_are_0_and_it_fails) {
    forget_database();

    EXPECT_EQ(dump(services), -1);

    EXPECT_EQ(elements, 0u);
    EXPECT_EQ(clients, 0u);
    EXPECT_EQ(resp.selem_infos, nullptr);
}

TEST_F(DumpResponseTest, an_empty_database_yields_statistics_only) {
    EXPECT_EQ(dump(services), 0);
    EXPECT_EQ(dump(registrations), 0);

    EXPECT_EQ(elements, 0u);
    EXPECT_EQ(resp.presence[0], 0xc0);
    EXPECT_EQ(call_order({"calloc", "avl_walk"}), Lines{});
}

TEST_F(DumpResponseTest, services_come_before_registrations_and_those_before_clients) {
    publish(publisher, one_endpoint("web"));
    watch(publisher, "db");

    dump(services | registrations | all_clients);
    EXPECT_EQ(names(), Lines{"web"});
    EXPECT_EQ(clients, 0u);

    dump(registrations | all_clients);
    EXPECT_EQ(names(), Lines{"db"});
    EXPECT_EQ(clients, 0u);
}

// ---- services ----

TEST_F(DumpResponseTest, every_element_with_a_live_service_has_a_record) {
    publish(publisher, one_endpoint("web", 1).instance("a"));
    publish(publisher, one_endpoint("web", 2).instance("b"));
    publish(publisher, one_endpoint("db", 3));
    watch(new_watcher(), "web");
    watch(publisher, "web");
    watch(publisher, "nothing");
    new_placeholder(new_element("hidden"), one_endpoint("hidden", 2), local_node, 42);

    EXPECT_EQ(dump(services), 0);

    EXPECT_EQ(elements, 2u);
    EXPECT_EQ(clients, 0u);
    EXPECT_EQ(names(), (Lines{"db", "web"}));
    EXPECT_EQ(resp.presence[0], 0xd0);
    ASSERT_EQ(resp.selem_infos[1].service_infos_count, 2u);
    EXPECT_STREQ(resp.selem_infos[1].service_infos[0].instance, "b") << "newest first";
    EXPECT_EQ(resp.selem_infos[1].reg_entries_count, 2u);
    EXPECT_EQ(resp.selem_infos[0].service_infos_count, 1u);
    EXPECT_EQ(resp.selem_infos[0].reg_entries_count, 0u);
    EXPECT_EQ(resp.selem_infos[0].reg_entries, nullptr);
    EXPECT_EQ(call_order({"calloc", "avl_walk"}),
              (Lines{"calloc(2, 128)", "avl_walk(db.selem_tree)", "calloc(1, 128)",
                     "calloc(2, 128)", "calloc(2, 48)"}));
}

TEST_F(DumpResponseTest, an_element_record_carries_its_elements_times_and_counts) {
    publish(publisher, one_endpoint("web"));
    ds_service_elem_t *selem = element("web");
    selem->last_add_time = 1;
    selem->last_delete_time = 2;
    selem->last_modify_time = 3;
    selem->last_reg_time = 4;
    selem->last_unreg_time = 5;
    selem->local_services_added = 6;
    selem->remote_services_added = 7;
    selem->local_services_deleted = 8;
    selem->remote_services_deleted = 9;
    selem->local_services_updated = 10;
    selem->remote_services_updated = 11;
    selem->registrations_added = 12;
    selem->registrations_deleted = 13;
    selem->nnotifs = 14;
    selem->remote_change_count = 15;
    selem->relay_updates_sent = 16;

    dump(services);

    const ds_dump_selem_info &record = resp.selem_infos[0];
    EXPECT_EQ(record.name, selem->name);
    EXPECT_EQ(record.presence[0], 0xff);
    EXPECT_EQ(record.presence[1], 0xcf) << "the update counts are absent";
    EXPECT_EQ(record.presence[2], 0x07);
    EXPECT_EQ(record.last_add_time, 1u);
    EXPECT_EQ(record.last_delete_time, 2u);
    EXPECT_EQ(record.last_modify_time, 3u);
    EXPECT_EQ(record.last_reg_time, 4u);
    EXPECT_EQ(record.last_unreg_time, 5u);
    EXPECT_EQ(record.local_services_added, 6u);
    EXPECT_EQ(record.remote_services_added, 7u);
    EXPECT_EQ(record.local_services_deleted, 8u);
    EXPECT_EQ(record.remote_services_deleted, 9u);
    EXPECT_EQ(record.local_services_updated, 0u);
    EXPECT_EQ(record.remote_services_updated, 0u);
    EXPECT_EQ(record.registrations_added, 12u);
    EXPECT_EQ(record.registrations_deleted, 13u);
    EXPECT_EQ(record.nnotifs, 14u);
    EXPECT_EQ(record.remote_change_count, 15u);
    EXPECT_EQ(record.relay_updates_sent, 16u);
}

TEST_F(DumpResponseTest, a_service_record_shares_its_entrys_contents) {
    publish(publisher, one_endpoint("web", 2).instance("a").roles(1, 2, 3));
    ds_service_t *service = newest("web");
    service->update_time = 8;
    service->last_relay_send_time = 9;

    dump(services);

    const ds_dump_service_info &record = resp.selem_infos[0].service_infos[0];
    const ds_service_info_t &entry = service->publish_info->entries[0];
    EXPECT_EQ(record.presence[0], 0xff);
    EXPECT_EQ(record.presence[1], 0x1f);
    EXPECT_EQ(record.ep_type, 0u);
    EXPECT_EQ(record.ep_addr, entry.ep_addr);
    EXPECT_EQ(record.ep_addr_len, 9u);
    EXPECT_EQ(record.scope, 2u);
    EXPECT_EQ(record.attrs, entry.attrs);
    EXPECT_EQ(record.attrs_count, 3u);
    EXPECT_EQ(record.service_name, reinterpret_cast<uint64_t>(element("web")->name));
    EXPECT_EQ(record.instance, entry.instance);
    EXPECT_EQ(record.node_addr, local_node->addr);
    EXPECT_EQ(record.node_addr_len, 6u);
    EXPECT_EQ(record.service_id, service->service_id);
    EXPECT_EQ(record.pid, 100u);
    EXPECT_EQ(record.proc_id, publisher->client_idx);
    EXPECT_EQ(record.added_time, service->added_time);
    EXPECT_EQ(record.update_time, 8u);
    EXPECT_EQ(record.last_relay_send_time, 9u);
}

TEST_F(DumpResponseTest, what_an_entry_lacks_its_record_lacks) {
    publish(publisher, PublishInfoBuilder("web").raw(DS_EP_TYPE_IP, {}).scope(2));
    newest("web")->publish_info->entries[0].presence[0] = 0;

    dump(services);

    const ds_dump_service_info &record = resp.selem_infos[0].service_infos[0];
    EXPECT_EQ(record.presence[0], 0xd2);
    EXPECT_EQ(record.presence[1], 0x1f);
    EXPECT_EQ(record.scope, 0u);
    EXPECT_EQ(record.ep_addr, nullptr);
    EXPECT_EQ(record.ep_addr_len, 0u);
}

TEST_F(DumpResponseTest, a_node_without_record_has_an_empty_address) {
    deliver(42, unrecorded_node(5), one_endpoint("web", 2));

    dump(services);

    const ds_dump_service_info &record = resp.selem_infos[0].service_infos[0];
    EXPECT_EQ(record.node_addr, nullptr);
    EXPECT_EQ(record.node_addr_len, 0u);
    EXPECT_EQ(record.presence[0] & 0x40, 0x40);
}

TEST_F(DumpResponseTest, a_scope_narrows_to_its_services) {
    publish(publisher, one_endpoint("web", 1).instance("a"));
    publish(publisher, one_endpoint("web", 2).instance("b"));
    publish(publisher, one_endpoint("db", 3));

    dump(services, nullptr, 2);
    EXPECT_EQ(elements, 1u);
    EXPECT_EQ(names(), Lines{"web"});
    ASSERT_EQ(resp.selem_infos[0].service_infos_count, 1u);
    EXPECT_STREQ(resp.selem_infos[0].service_infos[0].instance, "b");

    dump(services, nullptr, 3);
    EXPECT_EQ(names(), Lines{"db"});
}

TEST_F(DumpResponseTest, the_scope_is_the_one_that_the_service_was_published_with) {
    publish(publisher, one_endpoint("web", 1));
    newest("web")->publish_info->entries[0].scope = 2;

    dump(services, nullptr, 2);
    EXPECT_EQ(elements, 0u);

    dump(services, nullptr, 1);
    EXPECT_EQ(elements, 1u);
}

TEST_F(DumpResponseTest, an_address_narrows_to_its_nodes_services) {
    publish(publisher, one_endpoint("web", 2).instance("near"));
    deliver(42, remote, one_endpoint("web", 2).instance("far"));
    publish(publisher, one_endpoint("db", 2));

    dump(services, nullptr, DS_SCOPE_ANY, remote_address);

    EXPECT_EQ(elements, 1u);
    ASSERT_EQ(names(), Lines{"web"});
    ASSERT_EQ(resp.selem_infos[0].service_infos_count, 1u);
    EXPECT_EQ(resp.selem_infos[0].service_infos[0].node_addr, remote->addr);
}

TEST_F(DumpResponseTest, an_unknown_address_makes_a_node_and_finds_nothing) {
    const uint8_t address[6] = {2, 0, 0, 0, 0, 9};
    publish(publisher, one_endpoint("web", 2));

    EXPECT_EQ(dump(services, nullptr, DS_SCOPE_ANY, address), 0);

    EXPECT_EQ(elements, 0u);
    EXPECT_EQ(recording::table_values(&db()->node_table).size(), 3u);
}

TEST_F(DumpResponseTest, an_address_is_read_for_services_only) {
    const uint8_t address[6] = {2, 0, 0, 0, 0, 9};
    watch(publisher, "web");

    dump(registrations, nullptr, DS_SCOPE_ANY, address);
    EXPECT_EQ(elements, 1u);
    dump(all_clients, nullptr, DS_SCOPE_ANY, address);
    EXPECT_EQ(clients, 1u);

    EXPECT_EQ(recording::table_values(&db()->node_table).size(), 2u);
}

TEST_F(DumpResponseTest, a_name_narrows_to_its_element) {
    publish(publisher, one_endpoint("web"));
    publish(publisher, one_endpoint("dns"));

    dump(services, "web");

    EXPECT_EQ(elements, 1u);
    EXPECT_EQ(names(), Lines{"web"});
    EXPECT_EQ(resp.presence[0], 0xd2);
}

TEST_F(DumpResponseTest, a_name_that_only_a_shorter_one_begins_is_counted_but_not_filled) {
    publish(publisher, one_endpoint("a"));

    EXPECT_EQ(dump(services, "ab"), 0);

    EXPECT_EQ(elements, 1u);
    EXPECT_NE(resp.selem_infos, nullptr);
    EXPECT_EQ(resp.selem_infos_count, 0u);
    EXPECT_EQ(resp.presence[0], 0xd2);
}

TEST_F(DumpResponseTest, a_shorter_name_without_services_hides_a_longer_one) {
    new_element("a");
    publish(publisher, one_endpoint("ab"));

    EXPECT_EQ(dump(services, "ab"), 0);

    EXPECT_EQ(elements, 0u);
}

TEST_F(DumpResponseTest, an_element_whose_services_hold_no_entry_is_counted_but_not_filled) {
    publish(publisher, PublishInfoBuilder("bare"));
    publish(publisher, one_endpoint("zebra"));
    watch(publisher, "bare");

    EXPECT_EQ(dump(services), 0);

    EXPECT_EQ(elements, 2u);
    EXPECT_EQ(names(), Lines{"zebra"}) << "the record was left to the next element";
}

TEST_F(DumpResponseTest, without_memory_an_elements_services_are_left_out) {
    publish(publisher, one_endpoint("web"));
    recording::fail("calloc", 2);

    EXPECT_EQ(dump(services), 0);

    EXPECT_EQ(elements, 1u);
    EXPECT_EQ(resp.selem_infos_count, 0u);
    EXPECT_EQ(texts(70), Lines{"[DS]: ds_fill_services:383 malloc failed for ds_service_info_t\n"});
}

// ---- registrations ----

TEST_F(DumpResponseTest, registrations_list_watched_names_without_services) {
    publish(publisher, one_endpoint("web"));
    publish(publisher, one_endpoint("unwatched"));
    ds_client_t *watcher = new_watcher();
    ds_client_reg_t *first = watch(watcher, "web");
    watch(publisher, "web");
    watch(watcher, "nothing");
    first->last_notif_time = 77;
    first->nnotifs = 5;

    EXPECT_EQ(dump(registrations), 0);

    EXPECT_EQ(elements, 2u);
    EXPECT_EQ(names(), (Lines{"web", "nothing"}));
    EXPECT_EQ(resp.selem_infos[0].service_infos, nullptr);
    EXPECT_EQ(resp.selem_infos[0].service_infos_count, 0u);
    EXPECT_EQ(resp.selem_infos[0].presence[0], 0xff);
    ASSERT_EQ(resp.selem_infos[0].reg_entries_count, 2u);
    const vidl_ds_client_reg_entry &entry = resp.selem_infos[0].reg_entries[1];
    EXPECT_EQ(entry.presence[0], 0x3f);
    EXPECT_EQ(entry.pid, 200u);
    EXPECT_EQ(entry.service_name, reinterpret_cast<uint64_t>(element("web")->name));
    EXPECT_EQ(entry.client_name, watcher->name);
    EXPECT_EQ(entry.created_time, first->created_time);
    EXPECT_EQ(entry.last_notif_time, 77u);
    EXPECT_EQ(entry.nnotifs, 5u);
}

TEST_F(DumpResponseTest, without_memory_an_elements_registrations_are_left_out) {
    watch(publisher, "web");
    recording::fail("calloc", 2);

    EXPECT_EQ(dump(registrations), 0);

    EXPECT_EQ(elements, 1u);
    EXPECT_EQ(resp.selem_infos_count, 0u);
    EXPECT_EQ(texts(67), Lines{"[DS]: ds_fill_service_registrations:179 malloc failed for "
                               "vidl_ds_client_reg_entry\n"});
}
