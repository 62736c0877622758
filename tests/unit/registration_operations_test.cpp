// Taking and giving up interest in a name.
#include "lifecycle_fixture.h"

namespace {

class RegistrationOperationsTest : public LifecycleTest {
  protected:
    void SetUp() override {
        LifecycleTest::SetUp();
        watcher = new_watcher();
        recording::clear_calls();
    }

    ds_client_t *watcher = nullptr;
    ds_client_reg_t *const untouched = reinterpret_cast<ds_client_reg_t *>(8);
};

} // namespace

// ---- adding ----

TEST_F(RegistrationOperationsTest, interest_in_an_unknown_name_makes_an_empty_element) {
    ds_client_reg_t *reg = nullptr;
    recording::set_stamp(5000);

    EXPECT_EQ(ds_db_add_new_registration("web", watcher, 0xfeed, &reg), 0);

    ASSERT_NE(element("web"), nullptr);
    EXPECT_TRUE(services_of(element("web")).empty());
    EXPECT_EQ(element("web")->selem_version, 0u);
    ASSERT_NE(reg, nullptr);
    EXPECT_EQ(reg->client, watcher);
    EXPECT_EQ(reg->selem, element("web"));
    EXPECT_EQ(reg->reg_arg, 0xfeedu);
    EXPECT_EQ(reg->handle, 1u);
    EXPECT_EQ(reg->creg_ver, 0u);
    EXPECT_EQ(reg->created_time, 5000u);
    EXPECT_EQ(reg->last_notif_time, 0u);
    EXPECT_EQ(reg->nnotifs, 0u);
    EXPECT_EQ(ds_service_get_client_reg_list_head(element("web")), reg);
    EXPECT_EQ(ds_client_get_client_reg_list_head(watcher), reg);
}

TEST_F(RegistrationOperationsTest, adding_moves_the_counters_of_all_it_belongs_to) {
    recording::set_stamp(5000);

    watch(watcher, "web");

    EXPECT_EQ(db()->registrations_added, 1u);
    EXPECT_EQ(element("web")->registrations_added, 1u);
    EXPECT_EQ(element("web")->last_reg_time, 5001u);
    EXPECT_EQ(watcher->registrations_added, 1u);
    EXPECT_EQ(watcher->last_activity_time, 5001u);
}

TEST_F(RegistrationOperationsTest, adding_logs_before_it_links_and_tells_nobody) {
    publish(new_publisher(), one_endpoint("web"));
    forget_calls();

    watch(watcher, "web");

    EXPECT_EQ(steps(), (Lines{"avl_search(db.selem_tree) = selem#1", "chunk_malloc(reg) = reg#1",
                              "fts_get_stamp_fast()", "slot46(0x20)", "rtrace_internal(reg, 6)",
                              "dbly_linkage_link(selem#1.reg_list, reg#1.selem_link)",
                              "dbly_linkage_link(client#1.reg_list, reg#1.client_link)",
                              "fts_get_stamp_fast()"}));
    EXPECT_EQ(texts(6), Lines{"[DS]: <<-- pid 200 [0x20] reg for web, handle returned=1\n"});
    EXPECT_TRUE(sent.empty());
}

TEST_F(RegistrationOperationsTest, each_interest_has_its_own_consecutive_handle) {
    ds_client_reg_t *first = watch(watcher, "web");
    ds_client_reg_t *second = watch(watcher, "web");
    ds_client_reg_t *elsewhere = watch(watcher, "db");
    ds_client_reg_t *of_another = watch(new_publisher(), "web");

    EXPECT_NE(first, second);
    EXPECT_EQ(first->handle, 1u);
    EXPECT_EQ(second->handle, 2u);
    EXPECT_EQ(elsewhere->handle, 3u);
    EXPECT_EQ(of_another->handle, 1u);
    EXPECT_EQ(ds_service_get_client_reg_list_head(element("web")), of_another) << "newest first";
}

TEST_F(RegistrationOperationsTest, an_existing_element_is_used) {
    publish(new_publisher(), one_endpoint("web"));

    ds_client_reg_t *reg = watch(watcher, "web");

    EXPECT_EQ(db()->selem_tree.count, 1u);
    EXPECT_EQ(reg->selem, element("web"));
}

TEST_F(RegistrationOperationsTest, adding_without_its_arguments_fails_silently) {
    ds_client_reg_t *reg = untouched;

    EXPECT_EQ(ds_db_add_new_registration(nullptr, watcher, 0, &reg), -1);
    EXPECT_EQ(ds_db_add_new_registration("web", nullptr, 0, &reg), -1);
    EXPECT_EQ(ds_db_add_new_registration("web", watcher, 0, nullptr), -1);
    forget_database();
    EXPECT_EQ(ds_db_add_new_registration("web", watcher, 0, &reg), -1);

    EXPECT_EQ(recording::calls(), Lines{});
    EXPECT_EQ(reg, untouched);
    EXPECT_EQ(element("web"), nullptr);
}

TEST_F(RegistrationOperationsTest, without_memory_for_the_element_adding_fails) {
    ds_client_reg_t *reg = untouched;
    recording::fail("chunk_malloc");

    EXPECT_EQ(ds_db_add_new_registration("web", watcher, 0, &reg), -1);

    EXPECT_EQ(texts(38), Lines{"[DS]: client pid 200 [0x20] registration for web "
                               "failed.ds_db_init_service_element error\n"});
    EXPECT_EQ(recording::trace_ids(), Ids{38});
    EXPECT_EQ(reg, untouched);
    EXPECT_EQ(element("web"), nullptr);
}

TEST_F(RegistrationOperationsTest, without_memory_for_the_name_adding_fails) {
    ds_client_reg_t *reg = untouched;
    recording::fail("allocation");

    EXPECT_EQ(ds_db_add_new_registration("web", watcher, 0, &reg), -1);

    EXPECT_EQ(recording::trace_ids(), Ids{38});
    EXPECT_EQ(call_order({"chunk_free"}), Lines{"chunk_free(selem, selem#1)"});
}

TEST_F(RegistrationOperationsTest, an_element_that_the_tree_refuses_is_released) {
    ds_client_reg_t *reg = untouched;
    recording::fail("avl_insert");

    EXPECT_EQ(ds_db_add_new_registration("web", watcher, 0, &reg), -1);

    EXPECT_EQ(recording::trace_ids(), Ids{2}) << "only the tree's own line";
    EXPECT_EQ(call_order({"chunk_free"}), Lines{"chunk_free(selem, selem#1)"});
    EXPECT_EQ(reg, untouched);
    EXPECT_EQ(watcher->reg_handle_counter, 0u);
}

TEST_F(RegistrationOperationsTest, without_memory_for_the_record_the_new_element_stays) {
    ds_client_reg_t *reg = untouched;
    recording::fail("chunk_malloc", 2);

    EXPECT_EQ(ds_db_add_new_registration("web", watcher, 0, &reg), -1);

    EXPECT_EQ(texts(39), Lines{"[DS]: pid 200 [0x20] registration for web "
                               "failed.ds_db_init_client_reg error\n"});
    EXPECT_EQ(recording::trace_ids(), Ids{39});
    EXPECT_EQ(reg, untouched);
    ASSERT_NE(element("web"), nullptr);
    EXPECT_EQ(ds_service_get_client_reg_list_head(element("web")), nullptr);
    EXPECT_EQ(watcher->reg_handle_counter, 0u);
}

// ---- deleting ----

TEST_F(RegistrationOperationsTest, deleting_removes_the_registration_and_keeps_the_element) {
    ds_client_reg_t *kept = watch(watcher, "web");
    ds_client_reg_t *gone = watch(watcher, "web");
    recording::set_stamp(5000);
    recording::clear_calls();

    EXPECT_EQ(ds_db_delete_registration("web", watcher, gone->handle), 0);

    EXPECT_EQ(ds_service_get_client_reg_list_head(element("web")), kept);
    EXPECT_EQ(ds_client_get_client_reg_list_head(watcher), kept);
    EXPECT_EQ(db()->registrations_deleted, 1u);
    EXPECT_EQ(element("web")->registrations_deleted, 1u);
    EXPECT_EQ(element("web")->last_unreg_time, 5000u);
    EXPECT_EQ(watcher->registrations_deleted, 1u);
    EXPECT_EQ(texts(7), Lines{"[DS]: <<-- pid 200 [0x20] unreg for web on handle=2\n"});
    EXPECT_EQ(steps(), (Lines{"avl_search(db.selem_tree) = selem#1", "slot46(0x20)",
                              "rtrace_internal(reg, 7)", "fts_get_stamp_fast()",
                              "dbly_linkage_delink(reg#2.client_link)",
                              "dbly_linkage_delink(reg#2.selem_link)", "chunk_free(reg, reg#2)"}));
}

TEST_F(RegistrationOperationsTest, the_element_outlives_its_last_registration) {
    ds_client_reg_t *reg = watch(watcher, "web");

    EXPECT_EQ(ds_db_delete_registration("web", watcher, reg->handle), 0);

    ASSERT_NE(element("web"), nullptr);
    EXPECT_EQ(ds_service_get_client_reg_list_head(element("web")), nullptr);
}

TEST_F(RegistrationOperationsTest, a_registration_behind_others_is_found) {
    ds_client_reg_t *first = watch(watcher, "web");
    watch(new_publisher(), "web");
    watch(watcher, "web");

    EXPECT_EQ(ds_db_delete_registration("web", watcher, first->handle), 0);

    EXPECT_EQ(db()->registrations_deleted, 1u);
}

TEST_F(RegistrationOperationsTest, another_clients_handle_is_not_found) {
    ds_client_t *other = new_publisher();
    watch(other, "web");
    const uint32_t handle = watch(other, "web")->handle;
    watch(watcher, "web");
    recording::clear_calls();

    EXPECT_EQ(ds_db_delete_registration("web", watcher, handle), -1);

    EXPECT_EQ(texts(41), Lines{"[DS]: client pid 200 [0x20] delete registeration for web failed. "
                               "Unable to find registration handle 2\n"});
    EXPECT_EQ(recording::trace_ids(), Ids{41});
    EXPECT_EQ(db()->registrations_deleted, 0u);
}

TEST_F(RegistrationOperationsTest, a_handle_of_another_name_is_not_found) {
    const uint32_t handle = watch(watcher, "web")->handle;
    new_element("db");

    EXPECT_EQ(ds_db_delete_registration("db", watcher, handle), -1);

    EXPECT_EQ(texts(41).size(), 1u);
}

TEST_F(RegistrationOperationsTest, a_name_without_element_is_not_found) {
    EXPECT_EQ(ds_db_delete_registration("web", watcher, 1), -1);
    new_element("db");
    EXPECT_EQ(ds_db_delete_registration("web", watcher, 1), -1);

    const std::string text = "[DS]: client pid 200 [0x20] delete registration for web "
                             "failed.ds_db_find_service_element error\n";
    EXPECT_EQ(texts(40), (Lines{text, text}));
}

TEST_F(RegistrationOperationsTest, deleting_without_its_arguments_fails_silently) {
    watch(watcher, "web");
    recording::clear_calls();

    EXPECT_EQ(ds_db_delete_registration(nullptr, watcher, 1), -1);
    EXPECT_EQ(ds_db_delete_registration("web", nullptr, 1), -1);
    forget_database();
    EXPECT_EQ(ds_db_delete_registration("web", watcher, 1), -1);

    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(RegistrationOperationsTest, a_registration_can_be_deleted_once) {
    const uint32_t handle = watch(watcher, "web")->handle;

    EXPECT_EQ(ds_db_delete_registration("web", watcher, handle), 0);
    EXPECT_EQ(ds_db_delete_registration("web", watcher, handle), -1);
}

TEST_F(RegistrationOperationsTest, a_later_publication_finds_the_waiting_registration) {
    ds_client_reg_t *reg = watch(watcher, "web");

    publish(new_publisher(), one_endpoint("web"));

    EXPECT_EQ(slots_called(), (Ids{41, 44}));
    EXPECT_EQ(reg->creg_ver, 1u);
}
