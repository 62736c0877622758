// The match rule: which published instance a name and its further details select.
#include "library_test.h"

namespace {

class FindServiceTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        web = new_element("web");
        remote_node = new_node(2);
    }

    struct Query {
        const char *name = "web";
        const char *instance = nullptr;
        uint32_t proc_id = 0;
        uint32_t scope = 0;
        ds_node_t *node = nullptr;
        uint32_t service_id = 0;
    };

    ds_service_t *find(const Query &query) {
        ds_service_elem_t *selem = nullptr;
        ds_service_t *service = nullptr;
        EXPECT_EQ(ds_db_find_service(query.name, query.instance, query.proc_id, query.scope,
                                     query.node, &selem, &service, query.service_id),
                  0);
        return service;
    }

    ds_service_t *published(const char *instance = nullptr, uint32_t proc_id = 77,
                            uint32_t scope = 2, uint32_t service_id = 0,
                            ds_node_t *node = nullptr) {
        PublishInfoBuilder info("web");
        info.endpoints(1).scope(scope);
        if (instance != nullptr) info.instance(instance);
        return new_service(web, info, nullptr, node, proc_id, service_id);
    }

    mgd_timer_t *relay_restart_timer(bool running) {
        mgd_timer_t *timer = recording::new_timer("relay_restart", running);
        globals.slot[DS_GLOBAL_SLOT_RELAY_RESTART_TIMER] = reinterpret_cast<uint64_t>(timer);
        return timer;
    }

    ds_service_elem_t *web = nullptr;
    ds_node_t *remote_node = nullptr;
};

ds_service_elem_t *const untouched_element = reinterpret_cast<ds_service_elem_t *>(8);
ds_service_t *const untouched_service = reinterpret_cast<ds_service_t *>(16);

} // namespace

TEST_F(FindServiceTest, an_empty_tree_writes_nothing) {
    ds_db_delete_service_element(web);
    ds_service_elem_t *selem = untouched_element;
    ds_service_t *service = untouched_service;
    recording::clear_calls();

    EXPECT_EQ(ds_db_find_service("web", nullptr, 0, 0, nullptr, &selem, &service, 0), 0);

    EXPECT_EQ(selem, untouched_element);
    EXPECT_EQ(service, untouched_service);
    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(FindServiceTest, a_null_name_writes_nothing) {
    published();
    ds_service_elem_t *selem = untouched_element;
    ds_service_t *service = untouched_service;

    EXPECT_EQ(ds_db_find_service(nullptr, nullptr, 0, 0, nullptr, &selem, &service, 0), 0);

    EXPECT_EQ(selem, untouched_element);
    EXPECT_EQ(service, untouched_service);
}

TEST_F(FindServiceTest, an_unknown_name_clears_the_element_and_leaves_the_service) {
    published();
    ds_service_elem_t *selem = untouched_element;
    ds_service_t *service = untouched_service;

    EXPECT_EQ(ds_db_find_service("other", nullptr, 0, 0, nullptr, &selem, &service, 0), 0);

    EXPECT_EQ(selem, nullptr);
    EXPECT_EQ(service, untouched_service);
}

TEST_F(FindServiceTest, an_element_without_services_is_stored_alone) {
    ds_service_elem_t *selem = nullptr;
    ds_service_t *service = untouched_service;

    EXPECT_EQ(ds_db_find_service("web", nullptr, 0, 0, nullptr, &selem, &service, 0), 0);

    EXPECT_EQ(selem, web);
    EXPECT_EQ(service, untouched_service);
}

TEST_F(FindServiceTest, the_tree_is_searched_once_and_nothing_is_locked) {
    published();
    recording::clear_calls();

    EXPECT_NE(find({}), nullptr);

    EXPECT_EQ(recording::calls(), Lines{"avl_search(db.selem_tree) = selem#1"});
}

TEST_F(FindServiceTest, the_newest_match_wins) {
    published();
    ds_service_t *newest = published();

    EXPECT_EQ(find({}), newest);
}

TEST_F(FindServiceTest, an_instance_matches_every_instance_that_begins_with_it) {
    ds_service_t *web2 = published("web2");

    EXPECT_EQ(find({.instance = "web"}), web2);
    EXPECT_EQ(find({.instance = "web2"}), web2);
    EXPECT_EQ(find({.instance = "web22"}), nullptr);
    EXPECT_EQ(find({.instance = "eb"}), nullptr);
}

TEST_F(FindServiceTest, a_longer_instance_does_not_match_a_shorter_one) {
    published("web");

    EXPECT_EQ(find({.instance = "web2"}), nullptr);
}

TEST_F(FindServiceTest, a_newer_prefix_match_wins_over_an_older_exact_one) {
    published("web");
    ds_service_t *newer = published("web2");

    EXPECT_EQ(find({.instance = "web"}), newer);
}

TEST_F(FindServiceTest, the_empty_instance_matches_every_record_that_has_one) {
    ds_service_t *named = published("blue");
    published();

    EXPECT_EQ(find({.instance = ""}), named);
}

TEST_F(FindServiceTest, no_instance_matches_records_with_and_without_one) {
    ds_service_t *named = published("blue");

    EXPECT_EQ(find({}), named);
    ds_service_t *plain = published();
    EXPECT_EQ(find({}), plain);
}

TEST_F(FindServiceTest, a_record_without_instance_does_not_match_a_given_one) {
    published();

    EXPECT_EQ(find({.instance = "blue"}), nullptr);
}

TEST_F(FindServiceTest, a_non_zero_proc_id_must_be_equal) {
    ds_service_t *service = published(nullptr, 77);

    EXPECT_EQ(find({.proc_id = 77}), service);
    EXPECT_EQ(find({.proc_id = 78}), nullptr);
    EXPECT_EQ(find({.proc_id = 1}), nullptr);
    EXPECT_EQ(find({.proc_id = 0}), service);
}

TEST_F(FindServiceTest, a_placeholder_matches_any_proc_id) {
    ds_service_t *service = published(nullptr, 1);

    EXPECT_EQ(find({.proc_id = 77}), service);
    EXPECT_EQ(find({.proc_id = 1}), service);
    EXPECT_EQ(find({.proc_id = 0}), service);
}

TEST_F(FindServiceTest, while_the_relay_restarts_a_placeholder_matches_its_own_pid_only) {
    ds_service_t *service = published(nullptr, 1);
    service->pid = 500;
    mgd_timer_t *timer = relay_restart_timer(true);

    EXPECT_EQ(find({.proc_id = 77}), nullptr);
    EXPECT_EQ(find({.proc_id = 500}), service);
    recording::set_running(timer, false);
    EXPECT_EQ(find({.proc_id = 77}), service);
}

TEST_F(FindServiceTest, the_timer_is_asked_once_per_placeholder_and_only_with_a_proc_id) {
    published(nullptr, 1);
    published(nullptr, 1);
    published(nullptr, 88);
    relay_restart_timer(true);
    recording::clear_calls();

    find({.proc_id = 77});
    EXPECT_EQ(recording::calls_with({"mgd"}), (Lines{"mgd_timer_leaf_running(relay_restart) = 1",
                                                     "mgd_timer_leaf_running(relay_restart) = 1"}));
    recording::clear_calls();
    find({.proc_id = 0, .node = remote_node});
    find({.proc_id = 88});
    EXPECT_EQ(recording::calls_with({"mgd"}), Lines{});
}

TEST_F(FindServiceTest, a_placeholder_of_another_instance_is_sorted_out_before_the_timer_is_asked) {
    published("blue", 1);
    relay_restart_timer(true);
    recording::clear_calls();

    find({.instance = "red", .proc_id = 77});

    EXPECT_EQ(recording::calls_with({"mgd"}), Lines{});
}

TEST_F(FindServiceTest, the_own_restart_timer_plays_no_part) {
    ds_service_t *service = published(nullptr, 1);
    mgd_timer_t *own = recording::new_timer("own_restart", true);
    globals.slot[DS_GLOBAL_SLOT_OWN_RESTART_TIMER] = reinterpret_cast<uint64_t>(own);

    EXPECT_EQ(find({.proc_id = 77}), service);
}

TEST_F(FindServiceTest, a_given_node_must_be_the_services) {
    ds_service_t *service = published(nullptr, 77, 2, 0, remote_node);

    EXPECT_EQ(find({.node = remote_node}), service);
    EXPECT_EQ(find({.node = local_node}), nullptr);
    EXPECT_EQ(find({.node = nullptr}), service);
}

TEST_F(FindServiceTest, a_node_that_names_no_record_is_compared_by_its_number) {
    ds_service_t *service = published(nullptr, 77, 2, 0, unrecorded_node(127));

    EXPECT_EQ(find({.node = unrecorded_node(127)}), service);
    EXPECT_EQ(find({.node = unrecorded_node(1)}), nullptr);
}

TEST_F(FindServiceTest, a_given_id_must_be_the_services) {
    ds_service_t *service = published(nullptr, 77, 2, 9);

    EXPECT_EQ(find({.service_id = 9}), service);
    EXPECT_EQ(find({.service_id = 10}), nullptr);
}

TEST_F(FindServiceTest, scope_is_ignored_without_proc_id_and_node) {
    ds_service_t *service = published(nullptr, 77, 2);

    EXPECT_EQ(find({.scope = 1}), service);
    EXPECT_EQ(find({.scope = 1, .service_id = service->service_id}), service);
}

TEST_F(FindServiceTest, scope_counts_with_a_proc_id_or_a_node) {
    ds_service_t *service = published(nullptr, 77, 2);

    EXPECT_EQ(find({.proc_id = 77, .scope = 2}), service);
    EXPECT_EQ(find({.proc_id = 77, .scope = 1}), nullptr);
    EXPECT_EQ(find({.scope = 2, .node = local_node}), service);
    EXPECT_EQ(find({.scope = 3, .node = local_node}), nullptr);
}

TEST_F(FindServiceTest, scope_0_matches_any_scope) {
    ds_service_t *service = published(nullptr, 77, 3);

    EXPECT_EQ(find({.proc_id = 77, .scope = 0}), service);
    EXPECT_EQ(find({.scope = 0, .node = local_node}), service);
}

TEST_F(FindServiceTest, scope_4_is_no_wildcard_here) {
    published(nullptr, 77, 3);

    EXPECT_EQ(find({.proc_id = 77, .scope = 4}), nullptr);
}

TEST_F(FindServiceTest, the_instance_of_the_record_counts_not_that_of_its_info) {
    ds_service_t *service = published("blue");
    ds_db_update_service(service,
                         new_info(PublishInfoBuilder("web").endpoints(1).scope(1).instance("red")),
                         nullptr);

    EXPECT_EQ(find({.instance = "blue"}), service);
    EXPECT_EQ(find({.instance = "red"}), nullptr);
    EXPECT_EQ(find({.proc_id = 77, .scope = 2}), service);
    EXPECT_EQ(find({.proc_id = 77, .scope = 1}), nullptr);
}

TEST_F(FindServiceTest, a_record_that_fails_one_test_lets_the_next_one_match) {
    ds_service_t *older = published("blue", 77, 2, 5);
    published("blue", 77, 2, 6);

    EXPECT_EQ(
        find({.instance = "blue", .proc_id = 77, .scope = 2, .node = local_node, .service_id = 5}),
        older);
}

TEST_F(FindServiceTest, missing_outputs_or_database_write_nothing) {
    published();
    ds_service_elem_t *selem = untouched_element;
    ds_service_t *service = untouched_service;

    EXPECT_EQ(ds_db_find_service("web", nullptr, 0, 0, nullptr, nullptr, &service, 0), 0);
    EXPECT_EQ(ds_db_find_service("web", nullptr, 0, 0, nullptr, &selem, nullptr, 0), 0);
    forget_database();
    selem = untouched_element;
    service = untouched_service;
    EXPECT_EQ(ds_db_find_service("web", nullptr, 0, 0, nullptr, &selem, &service, 0), 0);
    EXPECT_EQ(selem, untouched_element);
    EXPECT_EQ(service, untouched_service);
}
