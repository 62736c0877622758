// Service records: the comparison of endpoints and the walk over all services.
#include "library_test.h"

namespace {

class ServiceWalkTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        web = new_element("web");
        client = new_client(0x10, 100);
        recording::clear_calls();
    }

    ds_service_t *local_service() {
        return new_service(web, PublishInfoBuilder("web").endpoints(1).scope(2), client);
    }

    ds_service_elem_t *web = nullptr;
    ds_client_t *client = nullptr;
};

PublishInfoBuilder web_info() {
    return PublishInfoBuilder("web");
}

} // namespace

// ---- comparing endpoints ----

TEST_F(ServiceWalkTest, equal_endpoints_are_equal_whatever_else_differs) {
    ds_service_t *service = new_service(web, web_info().endpoints(2), client);
    const auto other =
        PublishInfoBuilder("other").endpoints(2).scope(1).instance("x").roles(1, 2, 3);

    EXPECT_EQ(ds_db_service_endpoints_equal(service, new_info(other)), 1);
}

TEST_F(ServiceWalkTest, endpoints_differ_in_count_bytes_length_type_or_order) {
    const auto a = [] { return web_info().ip(1, 2, 3, 4, 80); };
    ds_service_t *service = new_service(web, a().ip(1, 2, 3, 4, 81), client);
    const auto equal = [&](const PublishInfoBuilder &other) {
        return ds_db_service_endpoints_equal(service, new_info(other));
    };

    EXPECT_EQ(equal(a().ip(1, 2, 3, 4, 81)), 1);
    EXPECT_EQ(equal(a()), 0);
    EXPECT_EQ(equal(a().ip(1, 2, 3, 4, 81).ip(1, 2, 3, 4, 82)), 0);
    EXPECT_EQ(equal(a().ip(1, 2, 3, 4, 82)), 0);
    EXPECT_EQ(equal(web_info().ip(1, 2, 3, 4, 81).ip(1, 2, 3, 4, 80)), 0);
    EXPECT_EQ(equal(a().raw(DS_EP_TYPE_PATH, recording::encode_ip({1, 2, 3, 4}, 81))), 0);
    std::vector<uint8_t> longer = recording::encode_ip({1, 2, 3, 4}, 81);
    longer.push_back(0);
    EXPECT_EQ(equal(a().raw(DS_EP_TYPE_IP, longer)), 0);
}

TEST_F(ServiceWalkTest, two_infos_without_endpoints_are_not_equal) {
    ds_service_t *service = new_service(web, web_info(), client);

    EXPECT_EQ(ds_db_service_endpoints_equal(service, new_info(web_info())), 0);
}

TEST_F(ServiceWalkTest, endpoints_without_bytes_are_equal) {
    ds_service_t *service = new_service(web, web_info().raw(2, {}), client);

    EXPECT_EQ(ds_db_service_endpoints_equal(service, new_info(web_info().raw(2, {}))), 1);
    EXPECT_EQ(ds_db_service_endpoints_equal(service, new_info(web_info().raw(2, {7}))), 0);
}

TEST_F(ServiceWalkTest, the_type_is_compared_by_value_whether_or_not_its_bit_is_set) {
    ds_service_t *service = new_service(web, web_info().ip(1, 2, 3, 4, 80), client);
    ds_service_publish_info *other = new_info(web_info().ip(1, 2, 3, 4, 80));
    VIDL_CLR_BIT(&other->entries[0], DS_SINFO_BIT_EP_TYPE);

    EXPECT_EQ(ds_db_service_endpoints_equal(service, other), 1);
}

TEST_F(ServiceWalkTest, nothing_is_equal_to_no_info) {
    ds_service_t *service = local_service();

    EXPECT_EQ(ds_db_service_endpoints_equal(nullptr, service->publish_info), 0);
    EXPECT_EQ(ds_db_service_endpoints_equal(service, nullptr), 0);
}

// ---- walking ----

TEST_F(ServiceWalkTest, the_walk_visits_elements_in_tree_order_and_the_newest_service_first) {
    ds_service_elem_t *b = new_element("b");
    ds_service_t *first = local_service();
    ds_service_t *second = local_service();
    ds_service_t *third = new_service(b, PublishInfoBuilder("b").endpoints(1), client);
    std::vector<ds_service_t *> visited;
    const auto visit = [](ds_service_t *service, void *ctx) -> void * {
        static_cast<std::vector<ds_service_t *> *>(ctx)->push_back(service);
        return nullptr; // ignored
    };
    recording::clear_calls();

    EXPECT_EQ(ds_db_services_iter(visit, &visited), 1);

    EXPECT_EQ(visited, (std::vector<ds_service_t *>{third, second, first}));
    EXPECT_EQ(recording::calls(), Lines{"avl_walk(db.selem_tree)"});
}

TEST_F(ServiceWalkTest, a_visited_service_may_be_deleted) {
    local_service();
    local_service();
    const auto remove = [](ds_service_t *service, void *ctx) -> void * {
        ds_db_delete_service(service, static_cast<ds_client_t *>(ctx));
        return nullptr;
    };

    EXPECT_EQ(ds_db_services_iter(remove, client), 1);

    EXPECT_EQ(client->services_deleted, 2u);
    EXPECT_EQ(ds_service_get_service_list_head(web), nullptr);
}

TEST_F(ServiceWalkTest, the_element_of_a_visited_service_may_go_with_it) {
    new_service(new_element("a"), PublishInfoBuilder("a").endpoints(1), client);
    local_service();
    new_service(new_element("zzzz"), PublishInfoBuilder("zzzz").endpoints(1), client);
    const auto take_down = [](ds_service_t *service, void *ctx) -> void * {
        ds_db_handle_service_down(service, static_cast<ds_client_t *>(ctx));
        return nullptr;
    };

    EXPECT_EQ(ds_db_services_iter(take_down, client), 1);

    EXPECT_EQ(db()->selem_tree.count, 0u);
}

TEST_F(ServiceWalkTest, the_walk_over_nothing_ends_normally) {
    const auto visit = [](ds_service_t *, void *) -> void * { return nullptr; };

    EXPECT_EQ(ds_db_services_iter(visit, nullptr), 1);
}

TEST_F(ServiceWalkTest, the_walk_needs_a_callback_and_a_database) {
    const auto visit = [](ds_service_t *, void *) -> void * { return nullptr; };

    EXPECT_EQ(ds_db_services_iter(nullptr, nullptr), -1);
    forget_database();
    EXPECT_EQ(ds_db_services_iter(visit, nullptr), -1);
}
