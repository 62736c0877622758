// Inbound replication: decoding, logging, turning back, publishing and withdrawing.
#include "lifecycle_fixture.h"

namespace {

// One update, changed field by field.
struct Update {
    uint32_t operation = DSR_ADD;
    uint8_t sender[6] = {2, 0, 0, 0, 0, 1};
    const char *name = "web";
    uint32_t id = 0x77;
    const char *instance = nullptr;
    uint32_t scope = 2;
    uint32_t pid = 42;
    uint32_t version = 5;
    std::vector<uint8_t> endpoint = recording::encode_ip({10, 1, 2, 200}, 8080);
    std::vector<uint8_t> attributes;

    int deliver() const {
        return dsr_receive_cb(operation, sender, name, id, instance, scope, pid, version,
                              endpoint.empty() ? nullptr : endpoint.data(), endpoint.size(),
                              attributes.empty() ? nullptr : attributes.data(), attributes.size());
    }
};

std::vector<uint8_t> encode(const std::vector<std::pair<int32_t, uint32_t>> &values) {
    std::vector<ds_service_attr_t> list(values.size());
    for (size_t index = 0; index < values.size(); ++index) {
        VIDL_SET(&list[index], type, DS_ATTR_BIT_TYPE, values[index].first);
        VIDL_SET(&list[index], value, DS_ATTR_BIT_VALUE, values[index].second);
    }
    ds_service_attrs_t attrs;
    VIDL_CLEAR(&attrs);
    VIDL_SET_ARRAY(&attrs, attrs, DS_ATTRS_BIT_ATTRS, list.data(),
                   static_cast<uint32_t>(list.size()));
    std::vector<uint8_t> bytes(5 + 17 * list.size());
    const int32_t length = vidl_ds_service_attrs_encode_ext(
        &attrs, bytes.data(), static_cast<uint32_t>(bytes.size()), 0, 0, 0);
    bytes.resize(static_cast<size_t>(length));
    return bytes;
}

// The encoding of a list without attributes.
const std::vector<uint8_t> no_attributes = {'A', 0, 0, 0, 0};

class RelayReceiveTest : public LifecycleTest {
  protected:
    void SetUp() override {
        LifecycleTest::SetUp();
        remote = new_node(1);
        recording::clear_calls();
    }

    static Update own_update() {
        Update update;
        update.sender[5] = 0xff;
        return update;
    }

    ds_node_t *remote = nullptr;
};

} // namespace

// ---- publishing ----

TEST_F(RelayReceiveTest, an_addition_is_published_with_copies_of_everything) {
    Update update;
    update.instance = "a";
    update.attributes = encode({{1, 1}, {2, 2}, {3, 9}});

    EXPECT_EQ(update.deliver(), 0);

    ds_service_t *service = newest("web");
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(service->service_id, 0x77u);
    EXPECT_EQ(service->proc_id, 42u);
    EXPECT_EQ(service->node, remote);
    EXPECT_STREQ(service->instance, "a");
    const ds_service_publish_info *info = service->publish_info;
    EXPECT_STREQ(info->service_name, "web");
    EXPECT_NE(info->service_name, update.name);
    EXPECT_EQ(info->presence[0], 5);
    EXPECT_EQ(info->borrowed, 0);
    ASSERT_EQ(info->entries_count, 1u);
    const ds_service_info_t &entry = info->entries[0];
    EXPECT_EQ(entry.presence[0], 30) << "all but the endpoint type";
    EXPECT_EQ(entry.ep_type, 0u);
    EXPECT_EQ(std::vector<uint8_t>(entry.ep_addr, entry.ep_addr + entry.ep_addr_len),
              update.endpoint);
    EXPECT_NE(entry.ep_addr, update.endpoint.data());
    EXPECT_EQ(entry.scope, 2u);
    ASSERT_EQ(entry.attrs_count, 3u);
    EXPECT_EQ(entry.attrs[2].value, 9u);
    EXPECT_STREQ(entry.instance, "a");
    EXPECT_NE(entry.instance, update.instance);
    EXPECT_EQ(db()->relay_updates_received, 1u);
}

TEST_F(RelayReceiveTest, an_addition_happens_in_its_order) {
    Update update;
    update.instance = "a";
    update.attributes = encode({{1, 1}});
    recording::clear_calls();

    update.deliver();

    Lines lines = recording::calls_with({"vidl_ds_service_attrs", "ds_decode", "ds_service_inst",
                                         "rtrace", "vanto", "memdup", "calloc"});
    ASSERT_GE(lines.size(), 10u);
    EXPECT_EQ(lines[4].substr(0, 29), "vanto_protected_hashtable_get");
    lines.erase(lines.begin() + 4);
    EXPECT_EQ(lines[4], "memdup(9)");
    EXPECT_EQ(
        recording::joined(lines),
        recording::joined({"vidl_ds_service_attrs_decode_ext()", "ds_decode_endpoint()",
                           "ds_service_instance_name(\"web\", \"a\")", "rtrace_internal(pub, 77)",
                           "memdup(9)", "calloc(1, 64)", "calloc(1, 32)", "memdup(4)", "memdup(2)",
                           "rtrace_internal(pub, 37)", "rtrace_internal(pub, 62)",
                           "rtrace_internal(notif, 65)", "ds_service_instance_name(\"web\", \"a\")",
                           "rtrace_internal(pub, 80)"}));
}

TEST_F(RelayReceiveTest, an_update_without_instance_is_published_without) {
    Update update;

    EXPECT_EQ(update.deliver(), 0);

    EXPECT_EQ(newest("web")->instance, nullptr);
    EXPECT_EQ(newest("web")->publish_info->entries[0].instance, nullptr);
    EXPECT_EQ(newest("web")->publish_info->entries[0].presence[0], 6);
}

TEST_F(RelayReceiveTest, an_update_without_endpoint_is_published_with_an_empty_entry) {
    Update update;
    update.endpoint.clear();

    EXPECT_EQ(update.deliver(), 0);

    const ds_service_info_t &entry = newest("web")->publish_info->entries[0];
    EXPECT_EQ(entry.ep_addr, nullptr);
    EXPECT_EQ(entry.ep_addr_len, 0u);
    EXPECT_EQ(entry.presence[0], 4);
    EXPECT_NE(texts(77)[0].find("ip=0.0.0.0, port=0,"), std::string::npos);
}

TEST_F(RelayReceiveTest, every_operation_but_a_deletion_publishes) {
    for (const uint32_t operation : {0u, 1u, 2u, 4u, 99u}) {
        Update update;
        update.operation = operation;

        EXPECT_EQ(update.deliver(), 0) << operation;
    }

    EXPECT_EQ(services_of(element("web")).size(), 1u);
    EXPECT_EQ(newest("web")->gen, 5u);
    EXPECT_EQ(db()->relay_updates_received, 5u);
}

TEST_F(RelayReceiveTest, a_publication_is_told_to_the_watchers_and_logged_as_done) {
    watch(new_watcher(), "web");
    Update update;
    update.instance = "a";
    forget_calls();

    update.deliver();

    EXPECT_EQ(slots_called(), (Ids{41, 44}));
    EXPECT_EQ(texts(80), Lines{"[DS]: <<-- process_id 42 peer 0200:0000:0001[" +
                               std::to_string(reinterpret_cast<uint64_t>(remote)) +
                               "] publish remote web:a done \n"});
}

TEST_F(RelayReceiveTest, a_publication_that_fails_is_logged_and_leaves_no_memory) {
    Update update;
    update.attributes = encode({{1, 1}});
    new_element("web");
    recording::fail("chunk_malloc");

    EXPECT_EQ(update.deliver(), -1);

    EXPECT_EQ(texts(79), Lines{"[DS]: <<-- process_id 42 peer 0200:0000:0001[" +
                               std::to_string(reinterpret_cast<uint64_t>(remote)) +
                               "] publish remote web failed \n"});
    EXPECT_EQ(recording::trace_ids(), (Ids{77, 33, 79}));
    EXPECT_EQ(db()->relay_updates_received, 1u) << "counted before it is tried";
    EXPECT_EQ(call_order({"vidl_ds_service_publish_info_free_ext"}).size(), 1u);
}

TEST_F(RelayReceiveTest, an_info_that_only_lent_its_identity_is_freed) {
    Update update;
    update.deliver();
    set_relay_timer();
    recording::clear_calls();

    EXPECT_EQ(update.deliver(), 0);

    EXPECT_EQ(services_of(element("web")).size(), 1u);
    EXPECT_EQ(newest("web")->gen, 5u);
    EXPECT_EQ(call_order({"vidl_ds_service_publish_info_free_ext"}).size(), 1u);
}

TEST_F(RelayReceiveTest, an_empty_attribute_list_leaves_the_entry_without_one) {
    Update update;
    update.attributes = no_attributes;

    EXPECT_EQ(update.deliver(), 0);

    EXPECT_EQ(newest("web")->publish_info->entries[0].attrs, nullptr);
    EXPECT_EQ(newest("web")->publish_info->entries[0].presence[0], 6);
}

TEST_F(RelayReceiveTest, without_memory_nothing_is_published_and_nothing_kept) {
    // The endpoint, the entry, the info, the name and the instance, in that order.
    for (uint32_t nth = 1; nth <= 5; ++nth) {
        Update update;
        update.instance = "a";
        update.attributes = encode({{1, 1}});
        const size_t blocks = recording::live_allocations();
        recording::clear_calls();
        recording::clear_faults();
        const bool is_calloc = nth == 2 || nth == 3;
        recording::fail(is_calloc ? "calloc" : "memdup", is_calloc  ? nth - 1
                                                         : nth == 1 ? 1
                                                                    : nth - 2);

        EXPECT_EQ(update.deliver(), -1);

        EXPECT_EQ(recording::trace_ids(), (Ids{77, 78})) << nth;
        EXPECT_EQ(texts(78), Lines{"malloc error !!\n"});
        EXPECT_EQ(recording::live_allocations(), blocks) << nth;
    }
    EXPECT_EQ(db()->selem_tree.count, 0u);
    EXPECT_EQ(db()->relay_updates_received, 0u);
}

// ---- the received line ----

TEST_F(RelayReceiveTest, the_line_shows_the_decoded_update) {
    Update update;
    update.instance = "a";
    update.attributes = encode({{3, 7}, {2, 2}, {1, 1}, {1, 2}});

    update.deliver();

    EXPECT_EQ(texts(77),
              Lines{"recv DSR_ADD    from 0200:0000:0001: [id:0x77] web:a@SYSTEM/ver:5, pid=42, "
                    "ip=10.1.2.200, port=8080, ha_role=ACTIVE[1], issu_role=SECONDARY[2], "
                    "issu_id=7"});
}

TEST_F(RelayReceiveTest, each_kind_of_attribute_bytes_has_its_defaults) {
    const std::string unknown_255 = "ha_role=UNKNOWN[255], issu_role=UNKNOWN[255], issu_id=0";
    const std::string unknown_254 = "ha_role=UNKNOWN[254], issu_role=UNKNOWN[254], issu_id=255";
    const std::pair<std::vector<uint8_t>, std::string> rows[] = {{{}, unknown_255},
                                                                 {{1, 2, 3}, unknown_255},
                                                                 {no_attributes, unknown_254},
                                                                 {encode({{9, 1}}), unknown_254}};
    for (const auto &[bytes, expected] : rows) {
        Update update;
        update.attributes = bytes;
        recording::clear_calls();

        update.deliver();

        const std::string line = texts(77)[0];
        EXPECT_EQ(line.substr(line.find("ha_role")), expected);
    }
}

TEST_F(RelayReceiveTest, attribute_bytes_or_length_alone_are_not_decoded) {
    const uint8_t sender[6] = {2, 0, 0, 0, 0, 1};
    const std::vector<uint8_t> bytes = encode({{1, 1}});
    recording::clear_calls();

    dsr_receive_cb(1, sender, "web", 1, nullptr, 2, 42, 1, nullptr, 0, bytes.data(), 0);
    dsr_receive_cb(1, sender, "web", 1, nullptr, 2, 42, 1, nullptr, 0, nullptr, bytes.size());

    EXPECT_EQ(call_order({"vidl_ds_service_attrs_decode"}), Lines{});
}

TEST_F(RelayReceiveTest, unknown_codes_and_scopes_print_unknown) {
    Update update;
    update.operation = 9;
    update.scope = 7;

    update.deliver();

    EXPECT_EQ(texts(77)[0].substr(0, 62),
              "recv UNKNOWN    from 0200:0000:0001: [id:0x77] web@UNKNOWN/ver");
}

// ---- turned back ----

TEST_F(RelayReceiveTest, an_update_about_this_node_is_answered_with_its_deletion) {
    for (const uint32_t operation : {0u, 1u, 2u, 3u, 99u}) {
        Update update = own_update();
        update.operation = operation;
        update.instance = "a";
        update.attributes = encode({{1, 1}});
        recording::clear_calls();

        EXPECT_EQ(update.deliver(), 0);

        ASSERT_EQ(recording::sent_updates().size(), 1u);
        const recording::SentUpdate &answer = recording::sent_updates()[0];
        EXPECT_EQ(answer.operation, DSR_DELETE);
        EXPECT_EQ(answer.service_name, "web");
        EXPECT_EQ(answer.service_id, 0x77u);
        EXPECT_EQ(answer.instance, "a");
        EXPECT_EQ(answer.scope, 2u);
        EXPECT_EQ(answer.pid, 42u);
        EXPECT_EQ(answer.version, 6u);
        EXPECT_EQ(answer.endpoint, update.endpoint);
        EXPECT_EQ(answer.attributes, update.attributes);
        EXPECT_EQ(answer.zero, 0u);
        EXPECT_EQ(recording::trace_ids(), Ids{77});
    }
    EXPECT_EQ(db()->selem_tree.count, 0u);
    EXPECT_EQ(db()->relay_updates_received, 0u);
    EXPECT_EQ(db()->relay_updates_sent, 0u);
    EXPECT_FALSE(is_connected()) << "the connected flag does not matter";
}

TEST_F(RelayReceiveTest, a_stopped_own_timer_turns_back_too) {
    set_own_timer(false);

    EXPECT_EQ(own_update().deliver(), 0);

    EXPECT_EQ(recording::sent_updates().size(), 1u);
    EXPECT_EQ(timer_questions("own"), 1u);
}

TEST_F(RelayReceiveTest, a_bare_update_is_turned_back_as_it_came) {
    Update update = own_update();
    update.endpoint.clear();
    update.version = 0xffffffff;

    EXPECT_EQ(update.deliver(), 0);

    ASSERT_EQ(recording::sent_updates().size(), 1u);
    EXPECT_FALSE(recording::sent_updates()[0].has_instance);
    EXPECT_TRUE(recording::sent_updates()[0].endpoint.empty());
    EXPECT_EQ(recording::sent_updates()[0].version, 0u);
}

TEST_F(RelayReceiveTest, a_length_is_cut_to_32_bits_when_it_is_turned_back) {
    const Update update = own_update();
    const uint64_t high = UINT64_C(1) << 32;
    const std::vector<uint8_t> attributes = encode({{1, 1}});

    EXPECT_EQ(dsr_receive_cb(DSR_ADD, update.sender, "web", 1, nullptr, 2, 42, 1,
                             update.endpoint.data(), high + 9, attributes.data(), high + 4),
              0);

    ASSERT_EQ(recording::sent_updates().size(), 1u);
    EXPECT_EQ(recording::sent_updates()[0].endpoint.size(), 9u);
    EXPECT_EQ(recording::sent_updates()[0].attributes.size(), 4u);
}

// ---- the own restart period ----

TEST_F(RelayReceiveTest, in_the_own_period_an_update_about_this_node_is_resolved) {
    set_own_timer();

    EXPECT_EQ(own_update().deliver(), 0);

    EXPECT_TRUE(recording::sent_updates().empty());
    ASSERT_NE(newest("web"), nullptr);
    EXPECT_EQ(newest("web")->proc_id, 1u);
    EXPECT_EQ(newest("web")->gen, 5u);
    EXPECT_EQ(newest("web")->flags, 1u);
    EXPECT_EQ(recording::trace_ids(), (Ids{77, 8, 14, 80}));
    EXPECT_EQ(db()->relay_updates_received, 1u);
}

TEST_F(RelayReceiveTest, in_the_own_period_a_deletion_about_this_node_is_refused) {
    set_own_timer();
    own_update().deliver();
    Update update = own_update();
    update.operation = DSR_DELETE;
    update.attributes = encode({{1, 1}});
    recording::clear_calls();

    EXPECT_EQ(update.deliver(), -1);

    EXPECT_EQ(recording::trace_ids(), Ids{77});
    EXPECT_EQ(services_of(element("web")).size(), 1u);
    EXPECT_EQ(db()->relay_updates_received, 1u);
    EXPECT_TRUE(recording::sent_updates().empty());
}

// ---- deletions ----

TEST_F(RelayReceiveTest, a_deletion_withdraws_the_matching_service) {
    Update update;
    update.instance = "a";
    update.deliver();
    update.operation = DSR_DELETE;
    update.attributes = encode({{1, 1}});
    recording::clear_calls();

    EXPECT_EQ(update.deliver(), 0);

    EXPECT_EQ(element("web"), nullptr);
    EXPECT_EQ(db()->relay_updates_received, 2u);
    EXPECT_EQ(recording::trace_ids(), (Ids{77, 28, 58, 59, 30}));
    EXPECT_EQ(call_order({"memdup"}), Lines{});
}

TEST_F(RelayReceiveTest, a_deletion_of_another_instance_id_scope_or_process_finds_nothing) {
    Update update;
    update.instance = "a";
    update.deliver();
    update.operation = DSR_DELETE;
    Update other_instance = update, other_id = update, other_scope = update, other_pid = update;
    other_instance.instance = "b";
    other_id.id = 0x78;
    other_scope.scope = 1;
    other_pid.pid = 43;

    EXPECT_EQ(other_instance.deliver(), -1);
    EXPECT_EQ(other_id.deliver(), -1);
    EXPECT_EQ(other_scope.deliver(), -1);
    EXPECT_EQ(other_pid.deliver(), -1);

    EXPECT_EQ(texts(47).size(), 4u);
    EXPECT_EQ(services_of(element("web")).size(), 1u);
    EXPECT_EQ(db()->relay_updates_received, 5u) << "a failed deletion was handed on";
}

TEST_F(RelayReceiveTest, a_deletion_without_instance_matches_any) {
    Update update;
    update.instance = "a";
    update.deliver();
    update.operation = DSR_DELETE;
    update.instance = nullptr;

    EXPECT_EQ(update.deliver(), 0);

    EXPECT_EQ(element("web"), nullptr);
}

// ---- refusals and nodes ----

TEST_F(RelayReceiveTest, without_sender_name_or_database_it_fails_silently) {
    const uint8_t sender[6] = {2, 0, 0, 0, 0, 1};
    const auto receive = dsr_receive_cb;

    EXPECT_EQ(receive(1, nullptr, "web", 1, nullptr, 2, 42, 1, nullptr, 0, nullptr, 0), -1);
    EXPECT_EQ(receive(1, sender, nullptr, 1, nullptr, 2, 42, 1, nullptr, 0, nullptr, 0), -1);
    forget_database();
    EXPECT_EQ(receive(1, sender, "web", 1, nullptr, 2, 42, 1, nullptr, 0, nullptr, 0), -1);

    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(RelayReceiveTest, a_sender_without_a_record_is_published_under_its_number) {
    Update update;
    update.sender[5] = 9;
    recording::fail("vanto_protected_hashtable_put", recording::every);

    EXPECT_EQ(update.deliver(), 0);
    ASSERT_NE(newest("web"), nullptr);
    EXPECT_LE(reinterpret_cast<uintptr_t>(newest("web")->node), 127u);
    update.operation = DSR_DELETE;
    EXPECT_EQ(update.deliver(), 0);

    EXPECT_EQ(element("web"), nullptr);
}

TEST_F(RelayReceiveTest, an_unknown_sender_becomes_a_node) {
    Update update;
    update.sender[5] = 9;

    EXPECT_EQ(update.deliver(), 0);

    EXPECT_STREQ(newest("web")->node->name, "02:00:00:00:00:09");
}
