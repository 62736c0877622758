// Outbound replication: the update of one service, sending all of them, and the node table.
#include "lifecycle_fixture.h"

namespace {

class RemoteNotifyTest : public LifecycleTest {
  protected:
    void SetUp() override {
        LifecycleTest::SetUp();
        publisher = new_publisher();
        selem = new_element("web");
        set_connected();
        recording::clear_calls();
    }

    ds_service_t *add(const PublishInfoBuilder &info) {
        ds_service_t *service = new_service(selem, info, publisher, nullptr, 0, 0xab);
        recording::clear_calls();
        return service;
    }

    static uint64_t node_of(uint8_t last) {
        const uint8_t address[6] = {2, 0, 0, 0, 0, last};
        return platform_get_nodeid_from_ethaddr(address);
    }

    ds_client_t *publisher = nullptr;
    ds_service_elem_t *selem = nullptr;
};

// djb2 of 02:00:00:00:00:last, low seven bits.
uint64_t stand_in_of(uint8_t last) {
    const uint8_t address[6] = {2, 0, 0, 0, 0, last};
    uint64_t hash = 5381;
    for (const uint8_t byte : address)
        hash = hash * 33 + byte;
    return hash & 127;
}

} // namespace

// ---- one update ----

TEST_F(RemoteNotifyTest, an_update_carries_all_twelve_fields) {
    ds_service_t *service = add(one_endpoint("web", 2, 7).instance("a").roles(1, 2, 3));
    service->gen = 4;

    EXPECT_EQ(ds_remote_notify(service, DS_REMOTE_PUBLISHED), 0);

    ASSERT_EQ(recording::sent_updates().size(), 1u);
    const recording::SentUpdate &update = recording::sent_updates()[0];
    EXPECT_EQ(update.operation, DSR_ADD);
    EXPECT_EQ(update.service_name, "web");
    EXPECT_EQ(update.service_id, 0xabu);
    EXPECT_TRUE(update.has_instance);
    EXPECT_EQ(update.instance, "a");
    EXPECT_EQ(update.scope, 2u);
    EXPECT_EQ(update.pid, 100u);
    EXPECT_EQ(update.version, 4u);
    EXPECT_EQ(update.endpoint, recording::encode_ip({10, 0, 0, 7}, 1000));
    EXPECT_EQ(update.attributes.size(), 5u + 3 * 17u);
    EXPECT_EQ(update.zero, 0u);
    ds_service_attrs_t decoded;
    ASSERT_GT(vidl_ds_service_attrs_decode_ext(&decoded, update.attributes.data(),
                                               update.attributes.size(), recording::host_malloc, 0,
                                               0),
              0);
    ASSERT_EQ(decoded.attrs_count, 3u);
    EXPECT_EQ(decoded.attrs[2].type, DS_ATTR_ISSU_ID);
    EXPECT_EQ(decoded.attrs[2].value, 3u);
    recording::host_free(decoded.attrs);
}

TEST_F(RemoteNotifyTest, an_update_happens_in_its_order) {
    ds_service_t *service = add(one_endpoint("web", 2).instance("a").roles(1, 2, 3));
    recording::set_stamp(5000);

    ds_remote_notify(service, DS_REMOTE_PUBLISHED);

    EXPECT_EQ(
        recording::calls_with(
            {"malloc", "vidl_ds_service", "fts", "dsr", "ds_service", "rtrace", "free"}),
        (Lines{"malloc(1608)", "vidl_ds_service_attrs_encode_ext(3, 1608)", "fts_get_stamp_fast()",
               "dsr_dsc_send_update(1, \"web\", 171, \"a\", 2, 100, 1, 9, 56, 0)",
               "ds_service_instance_name(\"web\", \"a\")", "rtrace_internal(pub, 76)",
               "rtrace_internal(pub, 62)", "free()"}));
    EXPECT_EQ(service->last_relay_send_time, 5000u);
}

TEST_F(RemoteNotifyTest, each_operation_is_chosen_by_request_and_last_version) {
    const struct {
        uint32_t request;
        uint32_t prev_ver;
        uint32_t operation;
    } rows[] = {{1, 0, DSR_ADD}, {1, 3, DSR_MODIFY}, {2, 3, DSR_DELETE},
                {0, 3, DSR_ADD}, {3, 3, DSR_ADD},    {99, 0, DSR_ADD}};
    ds_service_t *service = add(one_endpoint("web", 2));
    for (const auto &row : rows) {
        service->prev_ver = row.prev_ver;
        service->gen = 7;
        recording::clear_calls();

        EXPECT_EQ(ds_remote_notify(service, row.request), 0);

        ASSERT_EQ(recording::sent_updates().size(), 1u);
        EXPECT_EQ(recording::sent_updates()[0].operation, row.operation);
        EXPECT_EQ(service->prev_ver, 7u);
    }
    EXPECT_EQ(db()->relay_adds_sent, 4u);
    EXPECT_EQ(db()->relay_modifies_sent, 1u);
    EXPECT_EQ(db()->relay_deletes_sent, 1u);
    EXPECT_EQ(db()->relay_updates_sent, 6u);
    EXPECT_EQ(selem->relay_updates_sent, 6u);
}

TEST_F(RemoteNotifyTest, the_log_line_pads_the_operation_and_prints_the_old_version) {
    ds_service_t *service = add(one_endpoint("web", 1).instance("a"));
    ds_remote_notify(service, DS_REMOTE_PUBLISHED);
    service->gen = 2;
    ds_remote_notify(service, DS_REMOTE_PUBLISHED);
    ds_remote_notify(service, DS_REMOTE_WITHDRAWN);

    EXPECT_EQ(texts(76), (Lines{"send DSR_ADD    [id:0xab] web:a@RACK/ver:1/prev_ver:0",
                                "send DSR_MODIFY [id:0xab] web:a@RACK/ver:2/prev_ver:1",
                                "send DSR_DELETE [id:0xab] web:a@RACK/ver:2/prev_ver:2"}));
}

TEST_F(RemoteNotifyTest, a_withdrawal_that_the_relay_never_heard_of_sends_nothing) {
    ds_service_t *service = add(one_endpoint("web", 2));

    EXPECT_EQ(ds_remote_notify(service, DS_REMOTE_WITHDRAWN), 0);

    EXPECT_EQ(recording::calls(), Lines{});
    EXPECT_EQ(db()->relay_updates_sent, 0u);
}

TEST_F(RemoteNotifyTest, without_connection_nothing_is_sent_and_the_version_stays) {
    ds_service_t *service = add(one_endpoint("web", 2));
    service->prev_ver = 3;
    set_connected(false);

    EXPECT_EQ(ds_remote_notify(service, DS_REMOTE_PUBLISHED), 0);

    EXPECT_EQ(recording::calls(), Lines{});
    EXPECT_EQ(service->prev_ver, 3u);
    EXPECT_EQ(service->last_relay_send_time, 0u);
}

TEST_F(RemoteNotifyTest, only_the_first_byte_of_the_slot_tells_of_a_connection) {
    ds_service_t *service = add(one_endpoint("web", 2));
    set_connected(false);
    memset(reinterpret_cast<uint8_t *>(&globals.slot[DS_GLOBAL_SLOT_RELAY_CONNECTED]) + 1, 0xff, 7);

    ds_remote_notify(service, DS_REMOTE_PUBLISHED);

    EXPECT_TRUE(recording::sent_updates().empty());
}

TEST_F(RemoteNotifyTest, a_service_without_endpoints_is_never_sent) {
    ds_service_t *service = add(PublishInfoBuilder("web"));
    service->prev_ver = 1;

    EXPECT_EQ(ds_remote_notify(service, DS_REMOTE_PUBLISHED), 0);
    EXPECT_EQ(ds_remote_notify(service, DS_REMOTE_WITHDRAWN), 0);

    EXPECT_EQ(steps(), Lines{});
    EXPECT_EQ(service->prev_ver, 1u);
}

TEST_F(RemoteNotifyTest, no_service_or_one_without_element_is_not_sent) {
    ds_service_t loose{};

    EXPECT_EQ(ds_remote_notify(nullptr, DS_REMOTE_PUBLISHED), 0);
    EXPECT_EQ(ds_remote_notify(&loose, DS_REMOTE_PUBLISHED), 0);

    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(RemoteNotifyTest, without_a_database_the_update_is_sent_and_not_counted_there) {
    ds_service_t *service = add(one_endpoint("web", 2));
    forget_database();

    EXPECT_EQ(ds_remote_notify(service, DS_REMOTE_PUBLISHED), 0);

    restore_database();
    EXPECT_EQ(recording::sent_updates().size(), 1u);
    EXPECT_EQ(db()->relay_updates_sent, 0u);
    EXPECT_EQ(selem->relay_updates_sent, 1u);
}

TEST_F(RemoteNotifyTest, without_memory_for_the_encoding_nothing_is_sent_or_counted) {
    ds_service_t *service = add(one_endpoint("web", 2));
    recording::fail("malloc");

    EXPECT_EQ(ds_remote_notify(service, DS_REMOTE_PUBLISHED), -1);

    EXPECT_EQ(texts(75), Lines{"[DS]: malloc error\n"});
    EXPECT_TRUE(recording::sent_updates().empty());
    EXPECT_EQ(db()->relay_updates_sent, 0u);
    EXPECT_EQ(selem->relay_updates_sent, 0u);
    EXPECT_EQ(service->prev_ver, 0u);
    EXPECT_EQ(service->last_relay_send_time, 0u);
}

TEST_F(RemoteNotifyTest, attributes_that_cannot_be_encoded_go_out_empty) {
    ds_service_t *service = add(one_endpoint("web", 2).roles(1, 2, 3));
    recording::fail("vidl_ds_service_attrs_encode_ext", 1, -1);
    ds_remote_notify(service, DS_REMOTE_PUBLISHED);
    recording::fail("vidl_ds_service_attrs_encode_ext", 1, 1609);
    ds_remote_notify(service, DS_REMOTE_PUBLISHED);

    ASSERT_EQ(recording::sent_updates().size(), 2u);
    EXPECT_TRUE(recording::sent_updates()[0].attributes.empty());
    EXPECT_TRUE(recording::sent_updates()[1].attributes.empty());
}

TEST_F(RemoteNotifyTest, the_relays_answer_is_ignored) {
    ds_service_t *service = add(one_endpoint("web", 2));
    recording::set_send_result(-1);

    EXPECT_EQ(ds_remote_notify(service, DS_REMOTE_PUBLISHED), 0);

    EXPECT_EQ(service->prev_ver, 1u);
    EXPECT_EQ(db()->relay_adds_sent, 1u);
}

TEST_F(RemoteNotifyTest, only_the_first_endpoint_travels_and_all_are_traced) {
    ds_service_t *service =
        add(one_endpoint("web", 1, 1).ip(10, 0, 0, 2, 1000).scope(2).instance("b"));

    ds_remote_notify(service, DS_REMOTE_PUBLISHED);

    ASSERT_EQ(recording::sent_updates().size(), 1u);
    EXPECT_EQ(recording::sent_updates()[0].endpoint[4], 1);
    EXPECT_EQ(recording::sent_updates()[0].scope, 1u);
    EXPECT_FALSE(recording::sent_updates()[0].has_instance);
    EXPECT_EQ(texts(62).size(), 2u);
}

TEST_F(RemoteNotifyTest, an_instance_whose_bit_is_clear_does_not_travel) {
    ds_service_t *service = add(one_endpoint("web", 1).instance("a"));
    VIDL_CLR_BIT(&service->publish_info->entries[0], DS_SINFO_BIT_INSTANCE);

    ds_remote_notify(service, DS_REMOTE_PUBLISHED);

    EXPECT_FALSE(recording::sent_updates()[0].has_instance);
}

TEST_F(RemoteNotifyTest, neither_node_nor_scope_is_looked_at) {
    ds_service_t *service =
        new_service(selem, one_endpoint("web", 3), nullptr, new_node(1), 42, 0x1);

    EXPECT_EQ(ds_remote_notify(service, DS_REMOTE_PUBLISHED), 0);

    EXPECT_EQ(recording::sent_updates().size(), 1u);
}

// ---- all of them ----

TEST_F(RemoteNotifyTest, sending_all_walks_names_by_length_and_services_newest_first) {
    ds_service_t *first = add(one_endpoint("web", 1, 1).instance("a"));
    first->prev_ver = 5;
    add(one_endpoint("web", 2, 2).instance("b"));
    new_service(new_element("db"), one_endpoint("db", 2, 3), publisher);
    recording::clear_calls();

    EXPECT_EQ(ds_remote_send_all(), 0);

    ASSERT_EQ(recording::sent_updates().size(), 3u);
    EXPECT_EQ(recording::sent_updates()[0].service_name, "db");
    EXPECT_EQ(recording::sent_updates()[1].instance, "b");
    EXPECT_EQ(recording::sent_updates()[2].instance, "a");
    for (const recording::SentUpdate &update : recording::sent_updates())
        EXPECT_EQ(update.operation, DSR_ADD);
    EXPECT_EQ(first->prev_ver, 1u);
    EXPECT_EQ(call_order({"avl_walk"}).size(), 1u);
}

TEST_F(RemoteNotifyTest, sending_all_skips_what_does_not_leave_the_node) {
    add(one_endpoint("web", 0));
    add(one_endpoint("web", 3));
    add(PublishInfoBuilder("web"));
    new_service(selem, one_endpoint("web", 2), nullptr, new_node(1), 42, 0x1);
    for (ds_service_t *service : services_of(selem))
        service->prev_ver = 9;
    recording::clear_calls();

    EXPECT_EQ(ds_remote_send_all(), 0);

    EXPECT_TRUE(recording::sent_updates().empty());
    for (ds_service_t *service : services_of(selem))
        EXPECT_EQ(service->prev_ver, 9u);
}

TEST_F(RemoteNotifyTest, sending_all_without_connection_resets_the_versions_only) {
    ds_service_t *service = add(one_endpoint("web", 2));
    service->prev_ver = 9;
    set_connected(false);

    EXPECT_EQ(ds_remote_send_all(), 0);

    EXPECT_TRUE(recording::sent_updates().empty());
    EXPECT_EQ(service->prev_ver, 0u);
}

TEST_F(RemoteNotifyTest, sending_all_without_a_database_succeeds) {
    add(one_endpoint("web", 2));
    forget_database();

    EXPECT_EQ(ds_remote_send_all(), 0);

    EXPECT_EQ(recording::calls(), Lines{});
}

// ---- nodes ----

TEST_F(RemoteNotifyTest, an_address_always_yields_the_same_node) {
    const uint64_t first = node_of(1);
    const uint64_t second = node_of(2);

    EXPECT_EQ(node_of(1), first);
    EXPECT_NE(first, second);
    const auto *node = reinterpret_cast<ds_node_t *>(first);
    const uint8_t address[6] = {2, 0, 0, 0, 0, 1};
    EXPECT_EQ(memcmp(node->addr, address, 6), 0);
    EXPECT_NE(node->addr, address);
    EXPECT_STREQ(node->name, "02:00:00:00:00:01");
    EXPECT_EQ(node->services_added, 0u);
    EXPECT_EQ(node->down_count, 0u);
    EXPECT_EQ(node->last_down_time, 0u);
}

TEST_F(RemoteNotifyTest, a_new_node_is_looked_up_made_and_entered) {
    node_of(1);

    const Lines lines = steps();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].substr(0, 30), "vanto_protected_hashtable_get(");
    EXPECT_EQ(lines[1].substr(0, 10), "calloc(1, ");
    EXPECT_EQ(lines[2], "memdup(6)");
    EXPECT_EQ(lines[3].substr(0, 30), "vanto_protected_hashtable_put(");
}

TEST_F(RemoteNotifyTest, without_memory_a_number_stands_in_and_nothing_is_kept) {
    for (const char *function : {"calloc", "memdup", "vanto_protected_hashtable_put"}) {
        const size_t blocks = recording::live_allocations();
        recording::clear_faults();
        recording::fail(function);

        EXPECT_EQ(node_of(1), stand_in_of(1)) << function;

        EXPECT_EQ(recording::live_allocations(), blocks) << function;
        EXPECT_EQ(recording::table_values(&db()->node_table).size(), 1u) << function;
    }
    recording::clear_faults();
    EXPECT_GT(node_of(1), 127u) << "the next look-up makes the record";
}

TEST_F(RemoteNotifyTest, without_a_database_a_number_stands_in) {
    forget_database();

    EXPECT_EQ(node_of(1), stand_in_of(1));
    EXPECT_EQ(node_of(0xff), stand_in_of(0xff));

    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(RemoteNotifyTest, no_address_is_no_node) {
    EXPECT_EQ(platform_get_nodeid_from_ethaddr(nullptr), 0u);

    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(RemoteNotifyTest, ids_up_to_127_name_no_record) {
    EXPECT_EQ(ds_node_is_record(unrecorded_node(0)), 0);
    EXPECT_EQ(ds_node_is_record(unrecorded_node(127)), 0);
    EXPECT_NE(ds_node_is_record(unrecorded_node(128)), 0);
    EXPECT_STREQ(ds_node_name(unrecorded_node(0)), "UNKNOWN");
    EXPECT_STREQ(ds_node_name(unrecorded_node(127)), "UNKNOWN");
    EXPECT_STREQ(ds_node_name(local_node), "02:00:00:00:00:ff");
}

TEST_F(RemoteNotifyTest, a_peers_address_is_printed_in_three_groups) {
    const uint8_t address[6] = {0x02, 0xab, 0x00, 0xff, 0x10, 0x09};

    EXPECT_STREQ(ds_peer_addr_text(address), "02ab:00ff:1009");
    EXPECT_STREQ(ds_peer_addr_text(nullptr), "");
}

// ---- names of codes ----

TEST_F(RemoteNotifyTest, codes_have_their_names) {
    EXPECT_STREQ(dsr_op_name(0), "DSR_NOOP  ");
    EXPECT_STREQ(dsr_op_name(1), "DSR_ADD   ");
    EXPECT_STREQ(dsr_op_name(2), "DSR_MODIFY");
    EXPECT_STREQ(dsr_op_name(3), "DSR_DELETE");
    EXPECT_STREQ(dsr_op_name(4), "UNKNOWN   ");
    EXPECT_STREQ(dsr_scope_name(0), "DSR_SCOPE_NONE");
    EXPECT_STREQ(dsr_scope_name(1), "DSR_SCOPE_RACK");
    EXPECT_STREQ(dsr_scope_name(2), "DSR_SCOPE_SYSTEM");
    EXPECT_STREQ(dsr_scope_name(3), "DSR_SCOPE_NODE");
    EXPECT_EQ(dsr_scope_name(4), nullptr);
    EXPECT_STREQ(dsr_scope_name_padded(0), "DSR_SCOPE_NONE  ");
    EXPECT_STREQ(dsr_scope_name_padded(1), "DSR_SCOPE_RACK  ");
    EXPECT_STREQ(dsr_scope_name_padded(2), "DSR_SCOPE_SYSTEM");
    EXPECT_STREQ(dsr_scope_name_padded(3), "DSR_SCOPE_NODE  ");
    EXPECT_EQ(dsr_scope_name_padded(4), nullptr);
}

TEST_F(RemoteNotifyTest, roles_have_their_names) {
    const char *const ha[] = {"UNKNOWN", "ACTIVE", "STANDBY", "UNKNOWN"};
    const char *const issu[] = {"UNKNOWN", "PRIMARY", "SECONDARY", "TERTIARY"};
    for (uint32_t role = 0; role < 4; ++role) {
        EXPECT_STREQ(ds_ha_role_name(role), ha[role]);
        EXPECT_STREQ(ds_issu_role_name(role), issu[role]);
    }
    EXPECT_STREQ(ds_ha_role_name(0xffffffff), "UNKNOWN");
    EXPECT_STREQ(ds_issu_role_name(4), "UNKNOWN");
    EXPECT_STREQ(ds_scope_name(0), "UNKNOWN");
    EXPECT_STREQ(ds_scope_name(4), "UNKNOWN");
}
