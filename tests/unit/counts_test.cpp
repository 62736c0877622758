// Counts over the elements, and the predicates that they count with.
#include "library_test.h"

namespace {

class CountsTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        client = new_client(0x10, 100);
        remote_node = new_node(2);
    }

    ds_service_elem_t *element_with(const std::string &name, uint32_t scope,
                                    ds_node_t *node = nullptr, uint32_t proc_id = 77) {
        ds_service_elem_t *selem = new_element(name);
        add(selem, scope, node, proc_id);
        return selem;
    }

    void add(ds_service_elem_t *selem, uint32_t scope, ds_node_t *node = nullptr,
             uint32_t proc_id = 77) {
        new_service(selem, PublishInfoBuilder(selem->name).endpoints(1).scope(scope), nullptr, node,
                    proc_id);
    }

    ds_client_t *client = nullptr;
    ds_node_t *remote_node = nullptr;
};

} // namespace

TEST_F(CountsTest, has_services_looks_for_the_scope_or_for_any) {
    ds_service_elem_t *web = element_with("web", 2);

    EXPECT_EQ(ds_db_service_element_has_services(web, 2), 1);
    EXPECT_EQ(ds_db_service_element_has_services(web, DS_SCOPE_ANY), 1);
    EXPECT_EQ(ds_db_service_element_has_services(web, 1), 0);
    EXPECT_EQ(ds_db_service_element_has_services(web, 0), 0);
    add(web, 1);
    EXPECT_EQ(ds_db_service_element_has_services(web, 1), 1);
}

TEST_F(CountsTest, placeholders_are_no_services) {
    ds_service_elem_t *web = element_with("web", 2, remote_node, 1);

    EXPECT_EQ(ds_db_service_element_has_services(web, DS_SCOPE_ANY), 0);
    EXPECT_EQ(ds_db_service_element_has_remote_services(web, remote_node, DS_SCOPE_ANY), 0);
    EXPECT_EQ(ds_db_get_published_service_count(nullptr, DS_SCOPE_ANY), 0u);
    add(web, 2, remote_node, 500);
    EXPECT_EQ(ds_db_service_element_has_services(web, DS_SCOPE_ANY), 1);
}

TEST_F(CountsTest, has_remote_services_looks_for_the_node_as_well) {
    ds_service_elem_t *web = element_with("web", 2, remote_node, 500);

    EXPECT_EQ(ds_db_service_element_has_remote_services(web, remote_node, 2), 1);
    EXPECT_EQ(ds_db_service_element_has_remote_services(web, remote_node, DS_SCOPE_ANY), 1);
    EXPECT_EQ(ds_db_service_element_has_remote_services(web, remote_node, 1), 0);
    EXPECT_EQ(ds_db_service_element_has_remote_services(web, new_node(3), 2), 0);
    EXPECT_EQ(ds_db_service_element_has_remote_services(web, local_node, DS_SCOPE_ANY), 0);
    EXPECT_EQ(ds_db_service_element_has_remote_services(web, nullptr, DS_SCOPE_ANY), 0);
}

TEST_F(CountsTest, the_local_node_can_be_asked_for_like_any_other) {
    ds_service_elem_t *web = element_with("web", 2);

    EXPECT_EQ(ds_db_service_element_has_remote_services(web, local_node, 2), 1);
}

TEST_F(CountsTest, node_and_scope_must_hold_for_the_same_service) {
    ds_service_elem_t *web = element_with("web", 1, remote_node, 500);
    add(web, 2);

    EXPECT_EQ(ds_db_service_element_has_remote_services(web, remote_node, 2), 0);
}

TEST_F(CountsTest, has_registrations_is_true_while_one_is_listed) {
    ds_service_elem_t *web = new_element("web");

    EXPECT_EQ(ds_db_service_element_has_registrations(web), 0);
    ds_client_reg_t *reg = new_registration(client, web);
    EXPECT_EQ(ds_db_service_element_has_registrations(web), 1);
    ds_db_delete_client_registration(reg);
    EXPECT_EQ(ds_db_service_element_has_registrations(web), 0);
}

TEST_F(CountsTest, the_scope_of_the_record_counts_not_that_of_its_info) {
    ds_service_elem_t *web = element_with("web", 2);
    ds_db_update_service(ds_service_get_service_list_head(web),
                         new_info(PublishInfoBuilder("web").endpoints(1).scope(1)), nullptr);

    EXPECT_EQ(ds_db_service_element_has_services(web, 2), 1);
    EXPECT_EQ(ds_db_service_element_has_services(web, 1), 0);
}

TEST_F(CountsTest, without_a_name_every_element_counts_once) {
    add(element_with("web", 2), 2);
    element_with("database", 3);
    new_registration(client, new_element("silent"));

    EXPECT_EQ(ds_db_get_published_service_count(nullptr, DS_SCOPE_ANY), 2u);
    EXPECT_EQ(ds_db_get_published_service_count(nullptr, 3), 1u);
    EXPECT_EQ(ds_db_get_published_service_count(nullptr, 1), 0u);
    EXPECT_EQ(ds_db_get_registered_service_count(nullptr), 1u);
}

TEST_F(CountsTest, remote_counts_are_per_node) {
    element_with("web", 2, remote_node, 500);
    element_with("database", 2, remote_node, 500);
    element_with("local", 2);

    EXPECT_EQ(ds_db_get_remote_published_service_count(nullptr, remote_node, DS_SCOPE_ANY), 2u);
    EXPECT_EQ(ds_db_get_remote_published_service_count(nullptr, remote_node, 1), 0u);
    EXPECT_EQ(ds_db_get_remote_published_service_count("web", remote_node, 2), 1u);
    EXPECT_EQ(ds_db_get_remote_published_service_count("web", new_node(3), 2), 0u);
    EXPECT_EQ(ds_db_get_remote_published_service_count("local", remote_node, 2), 0u);
}

TEST_F(CountsTest, with_a_name_the_answer_is_1_or_0) {
    add(element_with("web", 2), 2);
    element_with("database", 2);
    new_registration(client, new_element("silent"));

    EXPECT_EQ(ds_db_get_published_service_count("web", DS_SCOPE_ANY), 1u);
    EXPECT_EQ(ds_db_get_published_service_count("silent", DS_SCOPE_ANY), 0u);
    EXPECT_EQ(ds_db_get_published_service_count("nobody", DS_SCOPE_ANY), 0u);
    EXPECT_EQ(ds_db_get_registered_service_count("silent"), 1u);
    EXPECT_EQ(ds_db_get_registered_service_count("web"), 0u);
    EXPECT_EQ(ds_db_get_registered_service_count("nobody"), 0u);
}

TEST_F(CountsTest, the_first_element_whose_name_begins_the_argument_decides) {
    new_element("a");
    ds_service_elem_t *ab = element_with("ab", 2);
    new_registration(client, ab);

    EXPECT_EQ(ds_db_get_published_service_count("ab", DS_SCOPE_ANY), 0u) << "a decides";
    EXPECT_EQ(ds_db_get_registered_service_count("ab"), 0u);
    add(ds_db_find_service_element("a", &ab) == 0 ? ab : nullptr, 2);
    EXPECT_EQ(ds_db_get_published_service_count("ab", DS_SCOPE_ANY), 1u);
    EXPECT_EQ(ds_db_get_published_service_count("axyz", DS_SCOPE_ANY), 1u);
    EXPECT_EQ(ds_db_get_published_service_count("b", DS_SCOPE_ANY), 0u);
}

TEST_F(CountsTest, a_longer_name_does_not_decide_for_its_beginning) {
    element_with("website", 2);

    EXPECT_EQ(ds_db_get_published_service_count("web", DS_SCOPE_ANY), 0u);
}

TEST_F(CountsTest, the_element_with_the_empty_name_decides_for_every_name) {
    element_with("web", 2);
    EXPECT_EQ(ds_db_get_published_service_count("web", DS_SCOPE_ANY), 1u);

    new_element("");

    EXPECT_EQ(ds_db_get_published_service_count("web", DS_SCOPE_ANY), 0u);
    EXPECT_EQ(ds_db_get_published_service_count(nullptr, DS_SCOPE_ANY), 1u);
}

TEST_F(CountsTest, a_named_count_stops_at_the_element_that_decides) {
    element_with("a", 2);
    element_with("ab", 2);
    recording::clear_calls();

    ds_db_get_published_service_count("ab", DS_SCOPE_ANY);

    EXPECT_EQ(recording::calls(), Lines{"avl_get_first(db.selem_tree) = selem#1"});
}

TEST_F(CountsTest, a_count_walks_all_elements_without_a_lock) {
    new_element("a");
    new_element("b");
    recording::clear_calls();

    ds_db_get_registered_service_count(nullptr);

    EXPECT_EQ(recording::calls(),
              (Lines{"avl_get_first(db.selem_tree) = selem#1", "avl_get_next(selem#1) = selem#2",
                     "avl_get_next(selem#2) = null"}));
}

TEST_F(CountsTest, an_empty_tree_or_a_missing_database_counts_0) {
    const auto all_zero = [&] {
        return ds_db_get_registered_service_count(nullptr) == 0 &&
               ds_db_get_registered_service_count("web") == 0 &&
               ds_db_get_published_service_count(nullptr, DS_SCOPE_ANY) == 0 &&
               ds_db_get_published_service_count("web", DS_SCOPE_ANY) == 0 &&
               ds_db_get_remote_published_service_count(nullptr, local_node, DS_SCOPE_ANY) == 0;
    };

    EXPECT_TRUE(all_zero());
    element_with("web", 2);
    EXPECT_FALSE(all_zero());
    forget_database();
    EXPECT_TRUE(all_zero());
    ds_globals_set(nullptr);
    EXPECT_TRUE(all_zero());
    ds_globals_set(&globals);
}
