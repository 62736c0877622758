// Service elements: creation, the tree and its order, look-up, deletion.
#include <cstring>

#include "library_test.h"

namespace {

class ElementTest : public LibraryTest {
  protected:
    std::vector<std::string> names_in_tree_order() {
        std::vector<std::string> names;
        for (avl_node_t *node = avl_get_first(&db()->selem_tree); node != nullptr;
             node = avl_get_next(node))
            names.emplace_back(reinterpret_cast<ds_service_elem_t *>(node)->name);
        return names;
    }
};

using Names = std::vector<std::string>;

} // namespace

TEST_F(ElementTest, a_new_element_has_its_own_copy_of_the_name_and_zeros_elsewhere) {
    char name[] = "web";
    ds_service_elem_t *selem = nullptr;

    ASSERT_EQ(ds_db_init_service_element(name, &selem), 0);

    name[0] = 'x';
    EXPECT_STREQ(selem->name, "web");
    EXPECT_EQ(selem->name_len, 3u);
    EXPECT_EQ(selem->name_hash, ds_hash_string("web", 3));
    EXPECT_EQ(selem->selem_version, 0u);
    EXPECT_EQ(selem->service_list.next, nullptr);
    EXPECT_EQ(selem->reg_list.next, nullptr);
    EXPECT_EQ(selem->last_add_time, 0u);
    EXPECT_EQ(selem->remote_change_count, 0u);
    EXPECT_EQ(db()->selem_tree.count, 0u) << "not in the tree yet";
    EXPECT_EQ(ds_db_free_service_element(selem), 0);
}

TEST_F(ElementTest, an_exhausted_pool_fails_without_a_log_line) {
    ds_service_elem_t *selem = nullptr;
    recording::fail("chunk_malloc");

    EXPECT_EQ(ds_db_init_service_element("web", &selem), -1);

    EXPECT_EQ(selem, nullptr);
    EXPECT_TRUE(recording::traces().empty());
}

TEST_F(ElementTest, a_name_that_cannot_be_copied_gives_the_record_back) {
    ds_service_elem_t *selem = nullptr;
    recording::fail("allocation");

    EXPECT_EQ(ds_db_init_service_element("web", &selem), -1);

    EXPECT_EQ(selem, nullptr);
    EXPECT_EQ(recording::calls_with({"chunk"}),
              (Lines{"chunk_malloc(selem) = selem#1", "chunk_free(selem, selem#1)"}));
}

TEST_F(ElementTest, freeing_releases_the_name_before_the_record) {
    ds_service_elem_t *selem = nullptr;
    ds_db_init_service_element("web", &selem);
    recording::clear_calls();

    EXPECT_EQ(ds_db_free_service_element(selem), 0);

    EXPECT_EQ(recording::calls(), (Lines{"free()", "chunk_free(selem, selem#1)"}));
}

TEST_F(ElementTest, adding_inserts_under_the_mutex) {
    ds_service_elem_t *selem = nullptr;
    ds_db_init_service_element("web", &selem);
    recording::clear_calls();

    EXPECT_EQ(ds_db_add_service_element(selem), 0);

    EXPECT_EQ(recording::calls(),
              (Lines{"lock()", "avl_insert(db.selem_tree, selem#1)", "unlock()"}));
}

TEST_F(ElementTest, a_failed_insert_is_logged_after_the_mutex_was_released) {
    ds_service_elem_t *selem = nullptr;
    ds_db_init_service_element("web", &selem);
    recording::fail("avl_insert");
    recording::clear_calls();

    EXPECT_EQ(ds_db_add_service_element(selem), -1);

    EXPECT_EQ(recording::calls(), (Lines{"lock()", "avl_insert(db.selem_tree, selem#1) = failure",
                                         "unlock()", "rtrace_internal(err, 2)"}));
    EXPECT_EQ(recording::traces()[0].text,
              "[DS]: add service element for web failed.avl_insert error\n");
    EXPECT_STREQ(selem->name, "web") << "the element is still the caller's";
    ds_db_free_service_element(selem);
}

TEST_F(ElementTest, a_second_element_of_one_name_is_not_inserted) {
    ds_service_elem_t *first = new_element("web");
    ds_service_elem_t *second = nullptr;
    ds_db_init_service_element("web", &second);

    EXPECT_EQ(ds_db_add_service_element(second), -1);

    ds_service_elem_t *found = nullptr;
    ds_db_find_service_element("web", &found);
    EXPECT_EQ(found, first);
    EXPECT_EQ(db()->selem_tree.count, 1u);
    ds_db_free_service_element(second);
}

TEST_F(ElementTest, elements_are_ordered_by_length_then_by_bytes) {
    for (const char *name : {"bb", "a", "ab", "", "zzz", "aaaa", "b"})
        new_element(name);

    EXPECT_EQ(names_in_tree_order(), (Names{"", "a", "b", "ab", "bb", "zzz", "aaaa"}));
}

TEST_F(ElementTest, bytes_above_127_sort_behind_the_others) {
    for (const char *name : {"\xc3\xa4", "zz", "\x7f\x7f"})
        new_element(name);

    EXPECT_EQ(names_in_tree_order(), (Names{"zz", "\x7f\x7f", "\xc3\xa4"}));
}

TEST_F(ElementTest, every_inserted_name_is_found_and_no_other) {
    const Names names = {"bb", "a", "ab", "web", "web2", "database", "x"};
    for (const std::string &name : names)
        new_element(name);

    for (const std::string &name : names) {
        ds_service_elem_t *found = nullptr;
        EXPECT_EQ(ds_db_find_service_element(name.c_str(), &found), 0);
        ASSERT_NE(found, nullptr);
        EXPECT_EQ(found->name, name);
    }
    ds_service_elem_t *found = nullptr;
    EXPECT_EQ(ds_db_find_service_element("we", &found), -1);
    EXPECT_EQ(ds_db_find_service_element("web3", &found), -1);
}

TEST_F(ElementTest, a_name_that_is_not_there_clears_the_result) {
    new_element("web");
    ds_service_elem_t *found = reinterpret_cast<ds_service_elem_t *>(8);

    EXPECT_EQ(ds_db_find_service_element("other", &found), -1);

    EXPECT_EQ(found, nullptr);
}

TEST_F(ElementTest, an_empty_tree_clears_the_result_and_is_not_searched) {
    ds_service_elem_t *found = reinterpret_cast<ds_service_elem_t *>(8);

    EXPECT_EQ(ds_db_find_service_element("web", &found), -1);

    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(recording::calls(), Lines{});
}

TEST_F(ElementTest, finding_takes_no_lock) {
    new_element("web");
    ds_service_elem_t *found = nullptr;
    recording::clear_calls();

    ds_db_find_service_element("web", &found);

    EXPECT_EQ(recording::calls(), Lines{"avl_search(db.selem_tree) = selem#1"});
}

TEST_F(ElementTest, deleting_unlinks_and_frees_under_the_mutex) {
    ds_service_elem_t *selem = new_element("web");
    recording::clear_calls();

    EXPECT_EQ(ds_db_delete_service_element(selem), 0);

    EXPECT_EQ(recording::calls(), (Lines{"lock()", "avl_delete(db.selem_tree, selem#1)", "free()",
                                         "chunk_free(selem, selem#1)", "unlock()"}));
    EXPECT_EQ(db()->selem_tree.count, 0u);
}

TEST_F(ElementTest, a_deleted_name_can_be_added_again) {
    ds_db_delete_service_element(new_element("web"));

    ds_service_elem_t *again = new_element("web");

    EXPECT_EQ(names_in_tree_order(), Names{"web"});
    EXPECT_EQ(again->selem_version, 0u);
}

TEST_F(ElementTest, null_arguments_are_refused) {
    ds_service_elem_t *selem = nullptr;

    EXPECT_EQ(ds_db_init_service_element("web", nullptr), -1);
    EXPECT_EQ(ds_db_init_service_element(nullptr, &selem), -1);
    EXPECT_EQ(ds_db_add_service_element(nullptr), -1);
    EXPECT_EQ(ds_db_delete_service_element(nullptr), -1);
    EXPECT_EQ(ds_db_find_service_element("web", nullptr), -1);
    EXPECT_EQ(ds_db_find_service_element(nullptr, &selem), -1);
    EXPECT_EQ(ds_db_service_element_has_registrations(nullptr), 0);
    EXPECT_EQ(ds_db_service_element_has_services(nullptr, DS_SCOPE_ANY), 0);
    EXPECT_EQ(ds_db_service_element_has_remote_services(nullptr, local_node, DS_SCOPE_ANY), 0);
    ds_db_free_service_element(nullptr);
    EXPECT_EQ(recording::calls_with({"chunk", "avl", "malloc"}), Lines{});
}

TEST_F(ElementTest, without_a_database_nothing_is_made_or_found) {
    ds_service_elem_t *selem = new_element("web");
    ds_service_elem_t *out = nullptr;
    forget_database();

    EXPECT_EQ(ds_db_init_service_element("other", &out), -1);
    EXPECT_EQ(ds_db_find_service_element("web", &out), -1);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(ds_db_add_service_element(selem), -1);
    EXPECT_EQ(ds_db_delete_service_element(selem), -1);
    ds_globals_set(nullptr);
    EXPECT_EQ(ds_db_find_service_element("web", &out), -1);
    ds_globals_set(&globals);
}
