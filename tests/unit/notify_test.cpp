// Notifications: the message, who is told, in which order, and what moves.
#include "lifecycle_fixture.h"

namespace {

class NotifyTest : public LifecycleTest {
  protected:
    void SetUp() override {
        LifecycleTest::SetUp();
        publisher = new_publisher();
        watcher = new_watcher();
        selem = new_element("web");
        recording::clear_calls();
    }

    ds_service_t *add(const PublishInfoBuilder &info) {
        return new_service(selem, info, publisher);
    }

    ds_client_t *publisher = nullptr;
    ds_client_t *watcher = nullptr;
    ds_service_elem_t *selem = nullptr;
};

} // namespace

// ---- the message ----

TEST_F(NotifyTest, preparing_gathers_the_entries_of_the_newest_service_first) {
    ds_service_t *older = add(PublishInfoBuilder("web").endpoints(2));
    ds_service_t *newer = add(one_endpoint("web", 2, 9).instance("a").roles(1, 2, 3));
    ds_service_publish_info info;
    VIDL_CLEAR(&info);
    uint32_t count = 99;
    recording::clear_calls();

    EXPECT_EQ(ds_prepare_notif_message(selem, &info, &count), 0);

    EXPECT_EQ(count, 3u);
    EXPECT_EQ(info.service_name, selem->name);
    EXPECT_EQ(info.presence[0], 5);
    EXPECT_EQ(info.held, 0);
    EXPECT_EQ(info.borrowed, 0);
    ASSERT_EQ(info.entries_count, 3u);
    EXPECT_EQ(memcmp(&info.entries[0], newer->publish_info->entries, 64), 0);
    EXPECT_EQ(memcmp(&info.entries[1], older->publish_info->entries, 128), 0);
    EXPECT_EQ(call_order({"malloc"}), Lines{"malloc(192)"});
    recording::host_free(info.entries);
}

TEST_F(NotifyTest, preparing_logs_every_service_with_the_running_total) {
    ds_service_t *live = add(PublishInfoBuilder("web").endpoints(2));
    ds_service_t *hidden = new_placeholder(selem, one_endpoint("web", 2), local_node, 100);
    ds_service_publish_info info;
    VIDL_CLEAR(&info);
    uint32_t count = 0;

    ds_prepare_notif_message(selem, &info, &count);

    char first[32];
    char second[32];
    snprintf(first, sizeof first, "%p", static_cast<void *>(hidden->publish_info));
    snprintf(second, sizeof second, "%p", static_cast<void *>(live->publish_info));
    EXPECT_EQ(texts(65), (Lines{std::string("[DS]: -->>[") + first + "] PROC ID 1 0 web\n",
                                std::string("[DS]: -->>[") + second + "] PROC ID 11 2 web\n"}));
    EXPECT_EQ(count, 2u);
    recording::host_free(info.entries);
}

TEST_F(NotifyTest, preparing_for_an_element_without_services_sets_the_name_only) {
    ds_service_publish_info info;
    VIDL_CLEAR(&info);
    uint32_t count = 99;

    EXPECT_EQ(ds_prepare_notif_message(selem, &info, &count), 0);

    EXPECT_EQ(count, 0u);
    EXPECT_EQ(info.service_name, selem->name);
    EXPECT_EQ(info.presence[0], 1);
    EXPECT_EQ(info.entries, nullptr);
    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(NotifyTest, preparing_for_placeholders_only_allocates_nothing) {
    new_placeholder(selem, one_endpoint("web", 2), local_node, 100);
    ds_service_publish_info info;
    VIDL_CLEAR(&info);
    uint32_t count = 99;
    recording::clear_calls();

    EXPECT_EQ(ds_prepare_notif_message(selem, &info, &count), 0);

    EXPECT_EQ(count, 0u);
    EXPECT_EQ(info.presence[0], 1);
    EXPECT_EQ(call_order({"malloc", "calloc"}), Lines{});
    EXPECT_EQ(texts(65).size(), 1u);
}

TEST_F(NotifyTest, preparing_without_memory_keeps_the_total_and_sets_no_entries) {
    add(PublishInfoBuilder("web").endpoints(2));
    ds_service_publish_info info;
    VIDL_CLEAR(&info);
    uint32_t count = 0;
    recording::clear_calls();
    recording::fail("malloc");

    EXPECT_EQ(ds_prepare_notif_message(selem, &info, &count), -1);

    EXPECT_EQ(count, 2u);
    EXPECT_EQ(info.entries, nullptr);
    EXPECT_EQ(info.presence[0], 1);
    EXPECT_EQ(texts(66),
              Lines{"[DS]: ds_prepare_notif_message:73 malloc failed for ds_service_info_t\n"});
}

TEST_F(NotifyTest, preparing_without_its_arguments_fails_and_leaves_the_count) {
    ds_service_publish_info info;
    VIDL_CLEAR(&info);
    uint32_t count = 99;

    EXPECT_EQ(ds_prepare_notif_message(nullptr, &info, &count), -1);
    EXPECT_EQ(ds_prepare_notif_message(selem, nullptr, &count), -1);
    EXPECT_EQ(ds_prepare_notif_message(selem, &info, nullptr), -1);

    EXPECT_EQ(count, 99u);
    EXPECT_EQ(info.presence[0], 0);
    EXPECT_EQ(recording::calls(), Lines{});
}

// ---- everybody ----

TEST_F(NotifyTest, two_services_and_three_registrations_cost_one_allocation) {
    add(one_endpoint("web", 3, 1));
    add(one_endpoint("web", 3, 2));
    ds_client_reg_t *first = watch(watcher, "web", 0xa);
    ds_client_reg_t *second = watch(watcher, "web", 0xb);
    ds_client_reg_t *own = watch(publisher, "web", 0xc);
    forget_calls();

    EXPECT_EQ(ds_notify(selem), 0);

    EXPECT_EQ(call_order({"malloc", "free"}), (Lines{"malloc(128)", "free()"}));
    EXPECT_EQ(slots_called(), (Ids{41, 44, 44, 44}));
    const auto messages = told();
    EXPECT_EQ(messages[0].client_hdl, 0x10u) << "newest registration first";
    EXPECT_EQ(messages[1].reg_handle, second->handle);
    EXPECT_EQ(messages[2].reg_handle, first->handle);
    EXPECT_EQ(messages[0].reg_cookie, 0xcu);
    EXPECT_EQ(messages[1].reg_cookie, 0xbu);
    EXPECT_EQ(messages[2].reg_cookie, 0xau);
    for (const SentMessage &message : messages) {
        EXPECT_EQ(message.address, messages[0].address);
        ASSERT_EQ(message.entries.size(), 2u);
        EXPECT_EQ(message.entries[0].ep_addr[4], 2);
        EXPECT_EQ(message.entries[1].ep_addr[4], 1);
    }
    EXPECT_EQ(db()->nnotifs, 3u);
    EXPECT_EQ(selem->nnotifs, 3u);
    EXPECT_EQ(watcher->nnotifs, 2u);
    EXPECT_EQ(publisher->nnotifs, 1u);
    EXPECT_EQ(own->nnotifs, 1u);
    EXPECT_EQ(own->creg_ver, selem->selem_version);
}

TEST_F(NotifyTest, the_hook_sees_the_message_once_before_anybody_is_told) {
    add(one_endpoint("web"));
    watch(watcher, "web");
    forget_calls();

    ds_notify(selem);

    ASSERT_EQ(slots_called(), (Ids{41, 44}));
    EXPECT_EQ(sent[0].selem, selem);
    EXPECT_EQ(sent[0].address, sent[1].address);
    EXPECT_EQ(sent[0].name, "web");
    EXPECT_EQ(sent[0].message_presence, 1) << "nobody is addressed yet";
    EXPECT_EQ(sent[0].reg_handle, 0u);
    EXPECT_EQ(sent[0].reg_cookie, 0u);
    EXPECT_EQ(sent[0].entries.size(), 1u);
    EXPECT_EQ(sent[1].message_presence, 7);
}

TEST_F(NotifyTest, a_second_run_at_the_same_version_tells_nobody_but_counts) {
    add(one_endpoint("web"));
    ds_client_reg_t *reg = watch(watcher, "web");
    ds_notify(selem);
    forget_calls();

    ds_notify(selem);

    EXPECT_EQ(slots_called(), Ids{41});
    EXPECT_EQ(db()->nnotifs, 2u);
    EXPECT_EQ(selem->nnotifs, 2u);
    EXPECT_EQ(reg->nnotifs, 1u);
    EXPECT_EQ(watcher->nnotifs, 1u);
    EXPECT_EQ(call_order({"fts"}), Lines{});
}

TEST_F(NotifyTest, a_registration_at_version_0_is_served_every_time) {
    ds_client_reg_t *reg = watch(watcher, "web");
    ASSERT_EQ(selem->selem_version, 0u);

    ds_notify(selem);
    ds_notify(selem);

    EXPECT_EQ(slots_called(), (Ids{41, 45, 44, 41, 45, 44}));
    EXPECT_EQ(reg->creg_ver, 0u);
    EXPECT_EQ(reg->nnotifs, 2u);
}

TEST_F(NotifyTest, a_registration_with_a_higher_version_is_served_too) {
    add(one_endpoint("web"));
    ds_client_reg_t *reg = watch(watcher, "web");
    reg->creg_ver = 50;

    ds_notify(selem);

    EXPECT_EQ(told().size(), 1u);
    EXPECT_EQ(reg->creg_ver, 1u);
}

TEST_F(NotifyTest, an_element_without_services_tells_of_a_deletion) {
    watch(watcher, "web", 0xfeed);
    forget_calls();

    ds_notify(selem);

    ASSERT_EQ(slots_called(), (Ids{41, 45, 44}));
    for (const SentMessage &message : sent) {
        EXPECT_EQ(message.name, "web");
        EXPECT_EQ(message.info_presence, 1);
        EXPECT_FALSE(message.has_entries_array);
    }
    EXPECT_EQ(sent[1].address, sent[2].address);
    EXPECT_EQ(sent[1].client_hdl, 0x20u);
    EXPECT_EQ(sent[1].reg_handle, 1u);
    EXPECT_EQ(sent[1].reg_cookie, 0xfeedu);
    EXPECT_EQ(texts(74), Lines{"[DS]: -->> pid 200 [0x20] [12] for hdl 1 service web deleted\n"});
}

TEST_F(NotifyTest, an_element_with_a_placeholder_only_tells_of_a_deletion) {
    new_placeholder(selem, one_endpoint("web", 2), local_node, 100);
    watch(watcher, "web");
    forget_calls();

    ds_notify(selem);

    EXPECT_EQ(slots_called(), (Ids{41, 45, 44}));
    EXPECT_FALSE(sent[0].has_entries_array);
}

TEST_F(NotifyTest, placeholders_stay_out_of_the_message) {
    add(one_endpoint("web", 3, 1));
    new_placeholder(selem, one_endpoint("web", 2, 2), local_node, 100);
    watch(watcher, "web");

    ds_notify(selem);

    ASSERT_EQ(told().size(), 1u);
    ASSERT_EQ(told()[0].entries.size(), 1u);
    EXPECT_EQ(told()[0].entries[0].ep_addr[4], 1);
}

TEST_F(NotifyTest, without_memory_for_the_entries_everybody_is_told_of_a_change) {
    add(one_endpoint("web"));
    ds_client_reg_t *first = watch(watcher, "web");
    ds_client_reg_t *second = watch(publisher, "web");
    forget_calls();
    recording::fail("malloc");

    EXPECT_EQ(ds_notify(selem), 0);

    EXPECT_EQ(slots_called(), (Ids{41, 44, 44}));
    EXPECT_EQ(told()[0].info_presence, 1);
    EXPECT_FALSE(told()[0].has_entries_array);
    EXPECT_EQ(first->creg_ver, 1u);
    EXPECT_EQ(second->creg_ver, 1u);
    EXPECT_EQ(recording::trace_ids(), (Ids{65, 66, 73, 73}));
}

TEST_F(NotifyTest, empty_slots_are_not_called) {
    add(one_endpoint("web"));
    ds_client_reg_t *reg = watch(watcher, "web");
    globals.slot[DS_GLOBAL_SLOT_NOTIFY_HOOK] = 0;
    ds_notify(selem);
    EXPECT_EQ(slots_called(), Ids{44});

    globals.slot[DS_GLOBAL_SLOT_CLIENT_SEND] = 0;
    globals.slot[DS_GLOBAL_SLOT_CLIENT_DELETE] = 0;
    selem->selem_version++;
    ds_notify(selem);
    EXPECT_EQ(slots_called(), Ids{44});
    EXPECT_EQ(reg->creg_ver, 2u);
}

TEST_F(NotifyTest, a_served_registration_has_two_stamps_then_its_line_then_the_call) {
    add(one_endpoint("web"));
    ds_client_reg_t *reg = watch(watcher, "web");
    forget_calls();
    recording::set_stamp(5000);

    ds_notify(selem);

    EXPECT_EQ(reg->last_notif_time, 5000u);
    EXPECT_EQ(watcher->last_activity_time, 5001u);
    EXPECT_EQ(steps(), (Lines{"rtrace_internal(notif, 65)", "malloc(64)", "slot41(web, 1 entries)",
                              "fts_get_stamp_fast()", "fts_get_stamp_fast()", "slot46(0x20)",
                              "rtrace_internal(notif, 73)",
                              "slot44(0x20, handle 1, web, 1 entries)", "free()"}));
    EXPECT_EQ(texts(73),
              Lines{"[DS]: -->> pid 200 [0x20] [12] for hdl 1 service web  new/modified\n"});
}

TEST_F(NotifyTest, without_registrations_the_hook_still_sees_the_change) {
    add(one_endpoint("web"));
    forget_calls();

    ds_notify(selem);

    EXPECT_EQ(slots_called(), Ids{41});
    EXPECT_EQ(db()->nnotifs, 0u);
}

TEST_F(NotifyTest, notifying_no_element_does_nothing) {
    EXPECT_EQ(ds_notify(nullptr), 0);

    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(NotifyTest, without_a_database_everybody_is_told_and_the_element_counts) {
    add(one_endpoint("web"));
    watch(watcher, "web");
    forget_database();
    forget_calls();

    EXPECT_EQ(ds_notify(selem), 0);

    restore_database();
    EXPECT_EQ(slots_called(), (Ids{41, 44}));
    EXPECT_EQ(selem->nnotifs, 1u);
    EXPECT_EQ(db()->nnotifs, 0u);
}

// ---- one registration from a prepared message ----

TEST_F(NotifyTest, a_count_without_an_info_is_told_as_a_deletion) {
    ds_client_reg_t *reg = watch(watcher, "web");
    ds_notif_msg message;
    VIDL_CLEAR(&message);

    EXPECT_EQ(ds_notify_client_expanded(reg, selem, &message, nullptr, 3), 0);

    EXPECT_EQ(slots_called(), (Ids{45, 44}));
    EXPECT_EQ(message.reg_handle, reg->handle);
    EXPECT_EQ(message.presence[0], 6);
}

TEST_F(NotifyTest, a_registration_that_has_seen_the_version_leaves_the_message_alone) {
    ds_client_reg_t *reg = watch(watcher, "web");
    selem->selem_version = 4;
    reg->creg_ver = 4;
    ds_notif_msg message;
    VIDL_CLEAR(&message);
    forget_calls();

    EXPECT_EQ(ds_notify_client_expanded(reg, selem, &message, &message.publish_info, 1), 0);

    EXPECT_EQ(recording::calls(), Lines{});
    EXPECT_EQ(message.presence[0], 0);
    EXPECT_EQ(reg->nnotifs, 0u);
}

TEST_F(NotifyTest, telling_one_without_its_arguments_does_nothing) {
    ds_client_reg_t *reg = watch(watcher, "web");
    ds_client_reg_t without_client{};
    ds_notif_msg message;
    VIDL_CLEAR(&message);
    forget_calls();
    const auto tell = ds_notify_client_expanded;

    EXPECT_EQ(tell(nullptr, selem, &message, &message.publish_info, 1), 0);
    EXPECT_EQ(tell(&without_client, selem, &message, &message.publish_info, 1), 0);
    EXPECT_EQ(tell(reg, nullptr, &message, &message.publish_info, 1), 0);
    EXPECT_EQ(tell(reg, selem, nullptr, &message.publish_info, 1), 0);

    EXPECT_EQ(recording::calls(), Lines{});
}

// ---- one registration with a message of its own ----

TEST_F(NotifyTest, a_new_registration_can_be_told_what_is_there) {
    add(one_endpoint("web", 3, 1));
    add(one_endpoint("web", 3, 2));
    ds_client_reg_t *reg = watch(watcher, "web", 0xfeed);
    forget_calls();
    recording::set_stamp(5000);

    EXPECT_EQ(ds_notify_client(reg, selem), 0);

    ASSERT_EQ(slots_called(), Ids{44});
    EXPECT_EQ(sent[0].client_hdl, 0x20u);
    EXPECT_EQ(sent[0].reg_handle, 1u);
    EXPECT_EQ(sent[0].reg_cookie, 0xfeedu);
    EXPECT_EQ(sent[0].message_presence, 7);
    EXPECT_EQ(sent[0].info_presence, 5);
    EXPECT_EQ(sent[0].entries.size(), 2u);
    EXPECT_EQ(reg->creg_ver, 2u);
    EXPECT_EQ(reg->nnotifs, 1u);
    EXPECT_EQ(reg->last_notif_time, 5000u);
    EXPECT_EQ(watcher->nnotifs, 1u);
    EXPECT_EQ(watcher->last_activity_time, 5001u);
    EXPECT_EQ(db()->nnotifs, 0u);
    EXPECT_EQ(selem->nnotifs, 0u);
    EXPECT_EQ(texts(71), Lines{"[DS]: -->> pid 200 [0x20] [12] for hdl 1 creg_ver:0 "
                               "serv_ver:2/service web  new/modified\n"});
    EXPECT_EQ(call_order({"rtrace_internal(notif, 71)", "fts", "slot44", "free"}),
              (Lines{"rtrace_internal(notif, 71)", "fts_get_stamp_fast()", "fts_get_stamp_fast()",
                     "slot44(0x20, handle 1, web, 2 entries)", "free()"}));
}

TEST_F(NotifyTest, one_registration_is_not_told_the_same_version_twice) {
    add(one_endpoint("web"));
    ds_client_reg_t *reg = watch(watcher, "web");
    ds_notify_client(reg, selem);
    forget_calls();

    EXPECT_EQ(ds_notify_client(reg, selem), 0);

    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(NotifyTest, one_registration_is_never_told_of_a_deletion) {
    ds_client_reg_t *reg = watch(watcher, "web");
    reg->creg_ver = 3;
    forget_calls();

    EXPECT_EQ(ds_notify_client(reg, selem), 0);
    new_placeholder(selem, one_endpoint("web", 2), local_node, 100);
    EXPECT_EQ(ds_notify_client(reg, selem), 0);

    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(reg->creg_ver, 3u);
    EXPECT_EQ(reg->nnotifs, 0u);
    EXPECT_TRUE(texts(72).empty());
}

TEST_F(NotifyTest, without_memory_one_registration_is_told_of_a_change_without_entries) {
    add(one_endpoint("web"));
    ds_client_reg_t *reg = watch(watcher, "web");
    forget_calls();
    recording::fail("malloc");

    EXPECT_EQ(ds_notify_client(reg, selem), 0);

    ASSERT_EQ(slots_called(), Ids{44});
    EXPECT_EQ(sent[0].info_presence, 1);
    EXPECT_EQ(reg->creg_ver, 1u);
    EXPECT_EQ(recording::trace_ids(), (Ids{65, 66, 71}));
}

TEST_F(NotifyTest, telling_one_on_its_own_without_its_arguments_does_nothing) {
    ds_client_reg_t *reg = watch(watcher, "web");
    ds_client_reg_t without_client{};
    forget_calls();

    EXPECT_EQ(ds_notify_client(nullptr, selem), 0);
    EXPECT_EQ(ds_notify_client(&without_client, selem), 0);
    EXPECT_EQ(ds_notify_client(reg, nullptr), 0);

    EXPECT_EQ(recording::calls(), Lines{});
}
