// Registration records: handles, the two lists, counters, and the walk over all of them.
#include "library_test.h"

namespace {

class RegistrationRecordTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        web = new_element("web");
        client = new_client(0x10, 100);
        recording::clear_calls();
    }

    ds_service_elem_t *web = nullptr;
    ds_client_t *client = nullptr;
};

} // namespace

TEST_F(RegistrationRecordTest, a_new_record_names_client_handle_argument_hash_and_time) {
    ds_client_reg_t *reg = nullptr;
    recording::set_stamp(5000);

    ASSERT_EQ(ds_db_init_client_registration(client, "web", 0x123456789abcdef0, &reg), 0);

    EXPECT_EQ(reg->client, client);
    EXPECT_EQ(reg->selem, nullptr);
    EXPECT_EQ(reg->handle, 1u);
    EXPECT_EQ(reg->reg_arg, 0x123456789abcdef0u);
    EXPECT_EQ(reg->name_hash, ds_hash_string("web", 3));
    EXPECT_EQ(reg->created_time, 5000u);
    EXPECT_EQ(reg->creg_ver, 0u);
    EXPECT_EQ(reg->last_notif_time, 0u);
    EXPECT_EQ(reg->nnotifs, 0u);
    EXPECT_EQ(reg->selem_link.prev, nullptr);
    EXPECT_EQ(reg->client_link.prev, nullptr);
    EXPECT_EQ(recording::calls(), (Lines{"chunk_malloc(reg) = reg#1", "fts_get_stamp_fast()"}));
    EXPECT_EQ(ds_db_free_client_registration(reg), 0);
}

TEST_F(RegistrationRecordTest, handles_run_up_and_are_never_used_again) {
    EXPECT_EQ(new_registration(client, web)->handle, 1u);
    ds_client_reg_t *second = new_registration(client, web);
    EXPECT_EQ(second->handle, 2u);
    EXPECT_EQ(new_registration(client, web)->handle, 3u);

    ds_db_delete_client_registration(second);

    EXPECT_EQ(new_registration(client, web)->handle, 4u);
}

TEST_F(RegistrationRecordTest, each_client_counts_its_own_handles) {
    ds_client_t *other = new_client(0x20, 200);

    EXPECT_EQ(new_registration(client, web)->handle, 1u);
    EXPECT_EQ(new_registration(other, web)->handle, 1u);
}

TEST_F(RegistrationRecordTest, the_handle_counter_wraps_around) {
    client->reg_handle_counter = 0xffffffff;
    ds_client_reg_t *reg = nullptr;

    ds_db_init_client_registration(client, "web", 0, &reg);

    EXPECT_EQ(reg->handle, 0u);
    ds_db_free_client_registration(reg);
}

TEST_F(RegistrationRecordTest, an_exhausted_pool_uses_up_no_handle_and_logs_nothing) {
    ds_client_reg_t *reg = nullptr;
    recording::fail("chunk_malloc");

    EXPECT_EQ(ds_db_init_client_registration(client, "web", 0, &reg), -1);

    EXPECT_EQ(reg, nullptr);
    EXPECT_EQ(client->reg_handle_counter, 0u);
    EXPECT_TRUE(recording::traces().empty());
}

TEST_F(RegistrationRecordTest, adding_logs_first_then_links_element_and_client_under_the_mutex) {
    ds_client_reg_t *reg = nullptr;
    ds_db_init_client_registration(client, "web", 0, &reg);
    recording::clear_calls();
    recording::set_stamp(6000);

    EXPECT_EQ(ds_db_add_client_registration(reg, client, web), 0);

    EXPECT_EQ(recording::calls(), (Lines{"slot46(0x10)", "rtrace_internal(reg, 6)", "lock()",
                                         "dbly_linkage_link(selem#1.reg_list, reg#1.selem_link)",
                                         "dbly_linkage_link(client#1.reg_list, reg#1.client_link)",
                                         "fts_get_stamp_fast()", "unlock()"}));
    EXPECT_EQ(recording::traces()[0].text,
              "[DS]: <<-- pid 100 [0x10] reg for web, handle returned=1\n");
    EXPECT_EQ(client->last_activity_time, 6000u);
    EXPECT_EQ(web->last_reg_time, 6000u);
    EXPECT_EQ(lock_depth_at_pid, 0u);
}

TEST_F(RegistrationRecordTest, adding_counts_in_context_element_and_client) {
    new_registration(client, web);
    new_registration(client, web);

    EXPECT_EQ(db()->registrations_added, 2u);
    EXPECT_EQ(web->registrations_added, 2u);
    EXPECT_EQ(client->registrations_added, 2u);
    EXPECT_EQ(db()->registrations_deleted, 0u);
    EXPECT_EQ(web->selem_version, 0u) << "a registration is no change of the services";
}

TEST_F(RegistrationRecordTest, an_added_registration_heads_both_lists) {
    ds_client_reg_t *first = new_registration(client, web);
    ds_client_reg_t *second = new_registration(client, web);

    EXPECT_EQ(second->selem, web);
    EXPECT_EQ(ds_service_get_client_reg_list_head(web), second);
    EXPECT_EQ(ds_client_get_client_reg_list_head(client), second);
    EXPECT_EQ(ds_service_get_next_in_client_reg_list(second), first);
    EXPECT_EQ(ds_client_get_next_in_client_reg_list(second), first);
}

TEST_F(RegistrationRecordTest,
       deleting_logs_first_then_unlinks_client_and_element_under_the_mutex) {
    ds_client_reg_t *reg = new_registration(client, web);
    recording::clear_calls();
    recording::set_stamp(7000);

    EXPECT_EQ(ds_db_delete_client_registration(reg), 0);

    EXPECT_EQ(
        recording::calls(),
        (Lines{"slot46(0x10)", "rtrace_internal(reg, 7)", "lock()", "fts_get_stamp_fast()",
               "dbly_linkage_delink(reg#1.client_link)", "dbly_linkage_delink(reg#1.selem_link)",
               "unlock()", "chunk_free(reg, reg#1)"}));
    EXPECT_EQ(recording::traces()[0].text, "[DS]: <<-- pid 100 [0x10] unreg for web on handle=1\n");
    EXPECT_EQ(client->last_activity_time, 7000u);
    EXPECT_EQ(web->last_unreg_time, 7000u);
}

TEST_F(RegistrationRecordTest, deleting_counts_in_context_element_and_client) {
    ds_db_delete_client_registration(new_registration(client, web));

    EXPECT_EQ(db()->registrations_deleted, 1u);
    EXPECT_EQ(web->registrations_deleted, 1u);
    EXPECT_EQ(client->registrations_deleted, 1u);
    EXPECT_EQ(db()->registrations_added, 1u);
}

TEST_F(RegistrationRecordTest, deleting_the_last_registration_leaves_the_element) {
    ds_db_delete_client_registration(new_registration(client, web));

    ds_service_elem_t *found = nullptr;
    EXPECT_EQ(ds_db_find_service_element("web", &found), 0);
    EXPECT_EQ(found, web);
}

TEST_F(RegistrationRecordTest, deleting_the_middle_of_three_keeps_the_lists_sound) {
    ds_client_reg_t *first = new_registration(client, web);
    ds_client_reg_t *second = new_registration(client, web);
    ds_client_reg_t *third = new_registration(client, web);

    ds_db_delete_client_registration(second);

    EXPECT_EQ(ds_service_get_next_in_client_reg_list(third), first);
    EXPECT_EQ(ds_client_get_next_in_client_reg_list(third), first);
}

TEST_F(RegistrationRecordTest, the_walk_visits_elements_in_tree_order_and_the_newest_first) {
    ds_service_elem_t *a = new_element("a");
    ds_client_reg_t *first = new_registration(client, web);
    ds_client_reg_t *second = new_registration(client, web);
    ds_client_reg_t *third = new_registration(client, a);
    std::vector<ds_client_reg_t *> visited;
    const auto visit = [](ds_client_reg_t *reg, void *ctx) -> void * {
        static_cast<std::vector<ds_client_reg_t *> *>(ctx)->push_back(reg);
        return nullptr; // ignored
    };
    recording::clear_calls();

    EXPECT_EQ(ds_db_client_reg_iter(visit, &visited), 1);

    EXPECT_EQ(visited, (std::vector<ds_client_reg_t *>{third, second, first}));
    EXPECT_EQ(recording::calls(), Lines{"avl_walk(db.selem_tree)"});
}

TEST_F(RegistrationRecordTest, the_walk_reads_the_successor_after_the_visit) {
    ds_client_reg_t *first = new_registration(client, web);
    ds_client_reg_t *second = new_registration(client, web);
    struct Visit {
        ds_client_reg_t *remove;
        std::vector<ds_client_reg_t *> visited;
    } visit{first, {}};
    const auto remove_the_next = [](ds_client_reg_t *reg, void *ctx) -> void * {
        auto *self = static_cast<Visit *>(ctx);
        self->visited.push_back(reg);
        if (self->remove != nullptr) ds_db_delete_client_registration(self->remove);
        self->remove = nullptr;
        return nullptr;
    };

    ds_db_client_reg_iter(remove_the_next, &visit);

    EXPECT_EQ(visit.visited, std::vector<ds_client_reg_t *>{second});
}

TEST_F(RegistrationRecordTest, null_arguments_and_a_missing_database_are_refused) {
    ds_client_reg_t *reg = new_registration(client, web);
    ds_client_reg_t *out = nullptr;
    const auto visit = [](ds_client_reg_t *, void *) -> void * { return nullptr; };

    EXPECT_EQ(ds_db_init_client_registration(client, "web", 0, nullptr), -1);
    EXPECT_EQ(ds_db_init_client_registration(nullptr, "web", 0, &out), -1);
    EXPECT_EQ(ds_db_init_client_registration(client, nullptr, 0, &out), -1);
    EXPECT_EQ(ds_db_add_client_registration(nullptr, client, web), -1);
    EXPECT_EQ(ds_db_add_client_registration(reg, nullptr, web), -1);
    EXPECT_EQ(ds_db_add_client_registration(reg, client, nullptr), -1);
    EXPECT_EQ(ds_db_delete_client_registration(nullptr), -1);
    EXPECT_EQ(ds_db_client_reg_iter(nullptr, nullptr), -1);
    ds_db_free_client_registration(nullptr);
    forget_database();
    EXPECT_EQ(ds_db_init_client_registration(client, "web", 0, &out), -1);
    EXPECT_EQ(ds_db_delete_client_registration(reg), -1);
    EXPECT_EQ(ds_db_client_reg_iter(visit, nullptr), -1);
    restore_database();
    EXPECT_EQ(client->reg_handle_counter, 1u);
    EXPECT_EQ(db()->registrations_deleted, 0u);
}
