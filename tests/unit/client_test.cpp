// The client table: arrival, order, names, look-ups, walks and departure.
#include <algorithm>
#include <cstring>

#include "library_test.h"

namespace {

class ClientTest : public LibraryTest {
  protected:
    static std::vector<uint64_t> listed_handles() {
        std::vector<uint64_t> handles;
        for (ds_client_t *client = ds_client_get_client_list_head(); client != nullptr;
             client = ds_client_get_next_in_client_list(client))
            handles.push_back(client->client_hdl);
        return handles;
    }

    std::string name_given(const char *path) {
        const uint64_t handle = ++next_handle_;
        if (path != nullptr) paths[handle] = path;
        return new_client(handle, 1, "")->name;
    }

  private:
    uint64_t next_handle_ = 0x1000;
};

using Handles = std::vector<uint64_t>;

} // namespace

TEST_F(ClientTest, the_first_client_gets_index_11_and_the_second_12) {
    EXPECT_EQ(new_client(0x10, 100)->client_idx, 11u);
    EXPECT_EQ(new_client(0x20, 200)->client_idx, 12u);
}

TEST_F(ClientTest, the_index_of_a_deleted_client_is_never_used_again) {
    ds_client_t *first = new_client(0x10, 100);
    ds_db_delete_client(first);

    EXPECT_EQ(new_client(0x20, 200)->client_idx, 12u);
}

TEST_F(ClientTest, a_record_from_the_pool_is_zero_filled) {
    ds_client_t *client = nullptr;

    ASSERT_EQ(ds_db_init_client(&client), 0);

    const ds_client_t zero{};
    EXPECT_EQ(memcmp(client, &zero, sizeof zero), 0);
    ds_db_free_client(client);
}

TEST_F(ClientTest, init_without_a_place_for_the_record_takes_none) {
    EXPECT_EQ(ds_db_init_client(nullptr), -1);

    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(ClientTest, init_on_an_exhausted_pool_fails_without_a_log_line) {
    ds_client_t *untouched = reinterpret_cast<ds_client_t *>(8);
    recording::fail("chunk_malloc");

    EXPECT_EQ(ds_db_init_client(&untouched), -1);

    EXPECT_EQ(untouched, reinterpret_cast<ds_client_t *>(8));
    EXPECT_TRUE(recording::traces().empty());
}

TEST_F(ClientTest, freeing_a_client_returns_it_to_its_pool) {
    ds_client_t *client = nullptr;
    ds_db_init_client(&client);

    EXPECT_EQ(ds_db_free_client(client), 0);

    EXPECT_EQ(recording::calls_with({"chunk_free"}), Lines{"chunk_free(client, client#1)"});
}

TEST_F(ClientTest, adding_moves_counters_and_time_with_one_stamp) {
    ds_client_t *client = new_unlisted_client(0x10, 100, "agent");
    recording::set_stamp(5000);

    EXPECT_EQ(ds_db_add_client(client), 0);

    EXPECT_EQ(db()->clients_added, 1u);
    EXPECT_EQ(db()->client_idx_counter, 11u);
    EXPECT_EQ(db()->last_client_add_time, 5000u);
    EXPECT_EQ(recording::last_stamp(), 5000u);
}

TEST_F(ClientTest, adding_asks_for_the_pid_of_each_client_until_one_is_equal) {
    new_client(0x10, 100);
    new_client(0x20, 200);
    new_client(0x30, 300);
    ds_client_t *client = new_unlisted_client(0x40, 200, "agent");
    recording::clear_calls();

    ds_db_add_client(client);

    EXPECT_EQ(
        recording::calls(),
        (Lines{"lock()", "fts_get_stamp_fast()", "slot46(0x40)", "slot46(0x30)", "slot46(0x20)",
               "dbly_linkage_link(client#2.client_link, client#4.client_link)", "unlock()"}));
}

TEST_F(ClientTest, adding_a_client_of_a_new_process_links_at_the_head) {
    ds_client_t *client = new_unlisted_client(0x10, 100, "agent");
    recording::clear_calls();

    ds_db_add_client(client);

    EXPECT_EQ(call_order({"dbly"}),
              Lines{"dbly_linkage_link(db.client_list, client#1.client_link)"});
}

TEST_F(ClientTest, two_clients_of_one_process_stand_next_to_each_other) {
    new_client(0x10, 100);
    new_client(0x20, 200);
    new_client(0x11, 100);

    EXPECT_EQ(listed_handles(), (Handles{0x20, 0x10, 0x11}));
}

TEST_F(ClientTest, a_third_client_of_a_process_goes_directly_behind_the_first) {
    new_client(0x10, 100);
    new_client(0x11, 100);
    new_client(0x12, 100);

    EXPECT_EQ(listed_handles(), (Handles{0x10, 0x12, 0x11}));
}

TEST_F(ClientTest, pids_are_compared_over_64_bits) {
    new_client(0x10, 0x100000064);
    new_client(0x20, 0x64);

    EXPECT_EQ(listed_handles(), (Handles{0x20, 0x10})) << "not behind the other one";
    new_client(0x30, 7);
    new_client(0x11, 0x100000064);
    EXPECT_EQ(listed_handles(), (Handles{0x30, 0x20, 0x10, 0x11}));
}

TEST_F(ClientTest, adding_a_listed_client_fails_and_changes_nothing) {
    ds_client_t *client = new_client(0x10, 100);
    const ds_db_t before = *db();
    recording::clear_calls();

    EXPECT_EQ(ds_db_add_client(client), -1);

    EXPECT_EQ(client->client_idx, 11u);
    EXPECT_EQ(memcmp(&before, db(), sizeof before), 0);
    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(ClientTest, the_only_listed_client_counts_as_listed) {
    ds_client_t *client = new_client(0x10, 100);

    ASSERT_EQ(client->client_link.next, nullptr) << "its next link is null";
    EXPECT_EQ(ds_db_add_client(client), -1);
}

TEST_F(ClientTest, a_prepared_name_is_kept_and_the_host_is_not_asked) {
    paths[0x10] = "/usr/bin/other";

    ds_client_t *client = new_client(0x10, 100, "mine");

    EXPECT_STREQ(client->name, "mine");
    EXPECT_EQ(recording::calls_with({"slot47"}), Lines{});
}

TEST_F(ClientTest, an_empty_name_becomes_the_last_path_component) {
    EXPECT_EQ(name_given("/usr/bin/agent"), "agent");
    EXPECT_EQ(name_given("bin/foo"), "foo");
    EXPECT_EQ(name_given("agent"), "agent");
    EXPECT_EQ(name_given("a"), "a");
}

TEST_F(ClientTest, a_path_whose_only_slash_is_its_first_character_stays_whole) {
    EXPECT_EQ(name_given("/agent"), "/agent");
    EXPECT_EQ(name_given("/"), "/");
}

TEST_F(ClientTest, a_path_that_ends_in_a_slash_gives_the_empty_text_behind_it) {
    EXPECT_EQ(name_given("usr/"), "");
    EXPECT_EQ(name_given("//"), "");
}

TEST_F(ClientTest, no_path_or_an_empty_one_leaves_the_name_empty) {
    EXPECT_EQ(name_given(nullptr), "");
    EXPECT_EQ(name_given(""), "");
}

TEST_F(ClientTest, a_name_is_cut_at_255_characters) {
    EXPECT_EQ(name_given(("/x/" + std::string(300, 'n')).c_str()), std::string(255, 'n'));
}

TEST_F(ClientTest, the_host_is_asked_for_pid_and_name_under_the_mutex_and_after_the_link) {
    ds_client_t *client = new_unlisted_client(0x10, 100, "");
    paths[0x10] = "/usr/bin/agent";
    recording::clear_calls();

    ds_db_add_client(client);

    EXPECT_EQ(lock_depth_at_pid, 1u);
    EXPECT_EQ(lock_depth_at_name, 1u);
    EXPECT_EQ(call_order({"dbly", "slot47", "unlock"}),
              (Lines{"dbly_linkage_link(db.client_list, client#1.client_link)", "slot47(0x10)",
                     "unlock()"}));
}

TEST_F(ClientTest, clients_are_added_without_the_two_callbacks) {
    globals.slot[DS_GLOBAL_SLOT_CLIENT_PID] = 0;
    globals.slot[DS_GLOBAL_SLOT_CLIENT_NAME] = 0;

    ds_client_t *first = new_client(0x10, 100, "");
    ds_client_t *second = new_client(0x20, 200, "");

    EXPECT_EQ(ds_client_pid(first), 0);
    EXPECT_STREQ(second->name, "");
    EXPECT_EQ(listed_handles(), (Handles{0x10, 0x20})) << "both have pid 0";
}

TEST_F(ClientTest, a_client_is_found_by_its_handle) {
    ds_client_t *client = new_client(0x10, 100);
    new_client(0x20, 200);

    EXPECT_EQ(ds_db_find_client_by_client_hdl(0x10), client);
    EXPECT_EQ(ds_db_find_client_by_client_hdl(0x30), nullptr);
}

TEST_F(ClientTest, handles_are_compared_over_64_bits) {
    ds_client_t *client = new_client(0x100000010, 100);

    EXPECT_EQ(ds_db_find_client_by_client_hdl(0x10), nullptr);
    EXPECT_EQ(ds_db_find_client_by_client_hdl(0x100000010), client);
}

TEST_F(ClientTest, a_client_is_found_by_its_index_until_it_departs) {
    ds_client_t *first = new_client(0x10, 100);
    ds_client_t *second = new_client(0x20, 200);

    EXPECT_EQ(ds_db_find_client_by_client_idx(11), first);
    EXPECT_EQ(ds_db_find_client_by_client_idx(12), second);
    EXPECT_EQ(ds_db_find_client_by_client_idx(11), first);
    EXPECT_EQ(ds_db_find_client_by_client_idx(13), nullptr);
    EXPECT_EQ(ds_db_find_client_by_client_idx(0), nullptr);
    ds_db_delete_client(first);
    EXPECT_EQ(ds_db_find_client_by_client_idx(11), nullptr);
    EXPECT_EQ(ds_db_find_client_by_client_idx(12), second);
}

TEST_F(ClientTest, clients_whose_indexes_share_a_place_are_each_found) {
    ds_client_t *first = new_client(0x10, 100);
    db()->client_idx_counter += DS_FOUND_CLIENTS - 1;
    ds_client_t *second = new_client(0x20, 200);

    EXPECT_EQ(second->client_idx, first->client_idx + DS_FOUND_CLIENTS);
    EXPECT_EQ(ds_db_find_client_by_client_idx(first->client_idx), first);
    EXPECT_EQ(ds_db_find_client_by_client_idx(second->client_idx), second);
    const uint32_t first_idx = first->client_idx;
    const uint32_t second_idx = second->client_idx;
    ds_db_delete_client(first);
    EXPECT_EQ(ds_db_find_client_by_client_idx(first_idx), nullptr);
    EXPECT_EQ(ds_db_find_client_by_client_idx(second_idx), second);
    ds_db_delete_client(second);
    EXPECT_EQ(ds_db_find_client_by_client_idx(second_idx), nullptr);
}

TEST_F(ClientTest, the_count_without_a_name_counts_all_clients) {
    EXPECT_EQ(ds_db_get_client_count(nullptr), 0u);
    new_client(0x10, 100, "a");
    new_client(0x20, 200, "b");

    EXPECT_EQ(ds_db_get_client_count(nullptr), 2u);
}

TEST_F(ClientTest, the_count_with_a_name_counts_exact_matches_only) {
    new_client(0x10, 100, "agent");
    new_client(0x20, 200, "agent");
    new_client(0x30, 300, "agent2");

    EXPECT_EQ(ds_db_get_client_count("agent"), 2u);
    EXPECT_EQ(ds_db_get_client_count("agent2"), 1u);
    EXPECT_EQ(ds_db_get_client_count("age"), 0u);
    EXPECT_EQ(ds_db_get_client_count(""), 0u);
}

TEST_F(ClientTest, names_are_compared_over_at_most_256_characters) {
    ds_client_t *client = new_client(0x10, 100, "x");
    memset(client->name, 'n', sizeof client->name); // no NUL within the field

    EXPECT_EQ(ds_db_get_client_count(std::string(300, 'n').c_str()), 1u);
    EXPECT_EQ(ds_db_get_client_count(std::string(255, 'n').c_str()), 0u);
}

TEST_F(ClientTest, the_walk_visits_from_the_head_and_returns_null) {
    new_client(0x10, 100);
    new_client(0x20, 200);
    Handles visited;
    const auto visit = [](ds_client_t *client, void *ctx) -> void * {
        static_cast<Handles *>(ctx)->push_back(client->client_hdl);
        return client; // ignored
    };

    EXPECT_EQ(ds_db_client_iter(visit, &visited), nullptr);

    EXPECT_EQ(visited, (Handles{0x20, 0x10}));
}

TEST_F(ClientTest, the_walk_reads_the_successor_after_the_visit) {
    ds_client_t *late = new_unlisted_client(0x11, 200, "late");
    new_client(0x10, 100);
    new_client(0x20, 200);
    struct Visit {
        ds_client_t *late;
        Handles handles;
    } visit{late, {}};
    const auto add_behind_itself = [](ds_client_t *client, void *ctx) -> void * {
        auto *self = static_cast<Visit *>(ctx);
        self->handles.push_back(client->client_hdl);
        if (client->client_hdl == 0x20) ds_db_add_client(self->late);
        return nullptr;
    };

    ds_db_client_iter(add_behind_itself, &visit);

    EXPECT_EQ(visit.handles, (Handles{0x20, 0x11, 0x10}));
}

TEST_F(ClientTest, the_pid_is_the_hosts_answer_over_64_bits) {
    ds_client_t *client = new_client(0x10, 0x123456789a);

    EXPECT_EQ(ds_client_pid(client), 0x123456789a);
}

TEST_F(ClientTest, reading_the_name_returns_the_length_it_would_have) {
    ds_client_t *client = new_client(0x10, 100, "directory");
    char buffer[4] = "zzz";

    EXPECT_EQ(ds_client_get_name(client, buffer, sizeof buffer), 9);
    EXPECT_STREQ(buffer, "dir");
    char large[16];
    EXPECT_EQ(ds_client_get_name(client, large, sizeof large), 9);
    EXPECT_STREQ(large, "directory");
    EXPECT_EQ(ds_client_get_name(client, nullptr, 0), 9);
}

TEST_F(ClientTest, each_accessor_follows_its_own_linkage) {
    ds_client_t *client = new_client(0x10, 100);
    ds_client_t *other = new_client(0x20, 200);
    ds_service_elem_t *web = new_element("web");
    ds_service_elem_t *db_elem = new_element("database");
    ds_service_t *a = new_service(web, PublishInfoBuilder("web").endpoints(1), client);
    ds_service_t *b = new_service(web, PublishInfoBuilder("web").endpoints(1), other);
    ds_service_t *c = new_service(db_elem, PublishInfoBuilder("database").endpoints(1), client);
    ds_client_reg_t *r1 = new_registration(client, web);
    ds_client_reg_t *r2 = new_registration(other, web);
    ds_client_reg_t *r3 = new_registration(client, db_elem);

    EXPECT_EQ(ds_client_get_service_list_head(client), c);
    EXPECT_EQ(ds_client_get_next_in_service_list(c), a);
    EXPECT_EQ(ds_client_get_next_in_service_list(a), nullptr);
    EXPECT_EQ(ds_service_get_service_list_head(web), b);
    EXPECT_EQ(ds_service_get_next_in_service_list(b), a);
    EXPECT_EQ(ds_service_get_next_in_service_list(a), nullptr);
    EXPECT_EQ(ds_client_get_client_reg_list_head(client), r3);
    EXPECT_EQ(ds_client_get_next_in_client_reg_list(r3), r1);
    EXPECT_EQ(ds_client_get_next_in_client_reg_list(r1), nullptr);
    EXPECT_EQ(ds_service_get_client_reg_list_head(web), r2);
    EXPECT_EQ(ds_service_get_next_in_client_reg_list(r2), r1);
    EXPECT_EQ(ds_service_get_next_in_client_reg_list(r1), nullptr);
    EXPECT_EQ(ds_client_get_client_list_head(), other);
    EXPECT_EQ(ds_client_get_next_in_client_list(other), client);
    EXPECT_EQ(ds_client_get_next_in_client_list(client), nullptr);
}

TEST_F(ClientTest, deleting_moves_count_and_time_before_the_lock_and_unlinks_under_it) {
    ds_client_t *client = new_client(0x10, 100);
    recording::clear_calls();
    recording::set_stamp(7000);

    EXPECT_EQ(ds_db_delete_client(client), 0);

    EXPECT_EQ(db()->clients_deleted, 1u);
    EXPECT_EQ(db()->last_client_delete_time, 7000u);
    EXPECT_EQ(recording::calls(),
              (Lines{"fts_get_stamp_fast()", "lock()", "dbly_linkage_delink(client#1.client_link)",
                     "unlock()", "chunk_free(client, client#1)"}));
    EXPECT_EQ(listed_handles(), Handles{});
}

TEST_F(ClientTest, deleting_a_client_that_was_never_listed_counts_as_well) {
    ds_client_t *client = new_unlisted_client(0x10, 100, "agent");

    EXPECT_EQ(ds_db_delete_client(client), 0);

    EXPECT_EQ(db()->clients_deleted, 1u);
    EXPECT_EQ(db()->clients_added, 0u);
    EXPECT_TRUE(recording::live_records().empty());
}

TEST_F(ClientTest, departure_removes_registrations_then_services_then_the_client) {
    ds_client_t *client = new_client(0x10, 100);
    ds_service_elem_t *web = new_element("web");
    new_service(web, PublishInfoBuilder("web").endpoints(1), client);
    new_service(web, PublishInfoBuilder("web").endpoints(1).instance("b"), client);
    new_registration(client, web);
    new_registration(client, web);
    recording::clear_calls();

    EXPECT_EQ(ds_db_delete_client(client), 0);

    EXPECT_EQ(call_order({"chunk_free"}),
              (Lines{"chunk_free(reg, reg#2)", "chunk_free(reg, reg#1)",
                     "chunk_free(service, service#2)", "chunk_free(service, service#1)",
                     "chunk_free(selem, selem#1)", "chunk_free(client, client#1)"}));
    EXPECT_EQ(db()->selem_tree.count, 0u);
}

TEST_F(ClientTest, a_departing_client_is_not_told_of_its_own_services) {
    ds_client_t *client = new_client(0x10, 100);
    ds_client_t *other = new_client(0x20, 200);
    ds_service_elem_t *web = new_element("web");
    new_service(web, PublishInfoBuilder("web").endpoints(1), client);
    new_registration(client, web);
    new_registration(other, web);

    ds_db_delete_client(client);

    const bool told = std::any_of(sent.begin(), sent.end(), [](const SentMessage &message) {
        return message.client_hdl == 0x10;
    });
    EXPECT_FALSE(told);
    EXPECT_EQ(recording::calls_with({"slot45(0x20", "slot44(0x20"}),
              (Lines{"slot45(0x20, handle 1, web, 0 entries)",
                     "slot44(0x20, handle 1, web, 0 entries)"}));
}

TEST_F(ClientTest, a_name_that_only_the_departing_client_registered_stays_as_an_empty_element) {
    ds_client_t *client = new_client(0x10, 100);
    ds_service_elem_t *web = new_element("web");
    new_registration(client, web);

    ds_db_delete_client(client);

    ds_service_elem_t *found = nullptr;
    EXPECT_EQ(ds_db_find_service_element("web", &found), 0);
    EXPECT_EQ(found, web);
    EXPECT_EQ(ds_db_service_element_has_registrations(web), 0);
}

TEST_F(ClientTest, null_arguments_are_refused) {
    EXPECT_EQ(ds_db_add_client(nullptr), -1);
    EXPECT_EQ(ds_db_delete_client(nullptr), -1);
    EXPECT_EQ(ds_db_client_iter(nullptr, nullptr), nullptr);
    EXPECT_EQ(ds_client_pid(nullptr), 0);
    EXPECT_EQ(ds_client_get_next_in_client_list(nullptr), nullptr);
    EXPECT_EQ(ds_client_get_service_list_head(nullptr), nullptr);
    EXPECT_EQ(ds_client_get_next_in_service_list(nullptr), nullptr);
    EXPECT_EQ(ds_client_get_client_reg_list_head(nullptr), nullptr);
    EXPECT_EQ(ds_client_get_next_in_client_reg_list(nullptr), nullptr);
    EXPECT_EQ(ds_service_get_service_list_head(nullptr), nullptr);
    EXPECT_EQ(ds_service_get_next_in_service_list(nullptr), nullptr);
    EXPECT_EQ(ds_service_get_client_reg_list_head(nullptr), nullptr);
    EXPECT_EQ(ds_service_get_next_in_client_reg_list(nullptr), nullptr);
    EXPECT_EQ(recording::calls(), Lines{});
    EXPECT_EQ(db()->clients_deleted, 0u);
}

TEST_F(ClientTest, without_a_database_every_client_function_answers_nothing) {
    ds_client_t *client = new_client(0x10, 100);
    ds_client_t *out = nullptr;
    char buffer[16];
    forget_database();

    EXPECT_EQ(ds_db_init_client(&out), -1);
    EXPECT_EQ(ds_db_add_client(client), -1);
    EXPECT_EQ(ds_db_delete_client(client), -1);
    EXPECT_EQ(ds_db_find_client_by_client_hdl(0x10), nullptr);
    EXPECT_EQ(ds_db_find_client_by_client_idx(11), nullptr);
    EXPECT_EQ(ds_db_get_client_count(nullptr), 0u);
    EXPECT_EQ(ds_client_get_client_list_head(), nullptr);
    EXPECT_EQ(ds_client_get_name(client, buffer, sizeof buffer), 5) << "needs no database";
    ds_globals_set(nullptr);
    EXPECT_EQ(ds_db_init_client(&out), -1);
    EXPECT_EQ(ds_client_get_client_list_head(), nullptr);
    EXPECT_EQ(ds_client_pid(client), 0);
    ds_globals_set(&globals);
}
