// The two dumps and the writers of single records.
#include "library_test.h"

namespace {

class DumpTraceTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        web = new_element("web");
        client = new_client(0x10, 100);
        channel = recording::open_channel("custom");
        recording::clear_calls();
    }

    ds_service_t *service(const PublishInfoBuilder &info) {
        ds_service_t *made = new_service(web, info, client, nullptr, 0, 9);
        recording::clear_calls();
        return made;
    }

    static Lines texts() {
        Lines result;
        for (const recording::Trace &trace : recording::traces())
            result.push_back(trace.text);
        return result;
    }

    static PublishInfoBuilder ip_info() {
        return PublishInfoBuilder("web").ip(192, 168, 1, 200, 8080).scope(2).roles(1, 2, 7);
    }
    static PublishInfoBuilder path_info() {
        return PublishInfoBuilder("web").path("/run/web").scope(3).roles(2, 3, 5);
    }

    ds_service_elem_t *web = nullptr;
    ds_client_t *client = nullptr;
    rtrace_handle_t channel = nullptr;
};

using Ids = std::vector<uint32_t>;

} // namespace

// ---- dumps ----

TEST_F(DumpTraceTest, a_dump_of_nothing_writes_the_title_and_two_rules) {
    ds_db_dump(0);

    EXPECT_EQ(recording::trace_ids(), (Ids{51, 52, 53}));
    EXPECT_EQ(texts(), (Lines{"[DS]: All services\n", "=========================\n",
                              "=========================\n"}));
    EXPECT_EQ(recording::traces()[0].channel, "main");
}

TEST_F(DumpTraceTest, a_registration_dump_of_nothing_writes_the_title_and_two_rules) {
    ds_db_reg_dump(7);

    EXPECT_EQ(recording::trace_ids(), (Ids{54, 55, 56}));
    EXPECT_EQ(texts(), (Lines{"[DS]: All client registrations\n", "=========================\n",
                              "=========================\n"}));
}

TEST_F(DumpTraceTest, the_dump_lists_services_between_the_rules_on_the_main_channel) {
    service(path_info());
    service(ip_info());

    ds_db_dump(0);

    EXPECT_EQ(recording::trace_ids(), (Ids{51, 52, 58, 59, 60, 61, 53})) << "the newest first";
    for (const recording::Trace &trace : recording::traces())
        EXPECT_EQ(trace.channel, "main");
    EXPECT_EQ(recording::calls_with({"avl_walk", "lock"}), Lines{"avl_walk(db.selem_tree)"});
}

TEST_F(DumpTraceTest, the_dump_lists_elements_in_tree_order) {
    service(ip_info());
    new_service(new_element("a"), PublishInfoBuilder("a").path("/a"), client);
    recording::clear_calls();

    ds_db_dump(0);

    EXPECT_EQ(recording::trace_ids(), (Ids{51, 52, 60, 61, 58, 59, 53}));
}

TEST_F(DumpTraceTest, the_registration_dump_lists_registrations_between_the_rules) {
    new_registration(client, web, 3);
    recording::clear_calls();

    ds_db_reg_dump(0);

    EXPECT_EQ(recording::trace_ids(), (Ids{54, 55, 57, 56}));
    EXPECT_EQ(recording::traces()[2].channel, "main");
}

TEST_F(DumpTraceTest, the_dumps_work_without_a_database) {
    forget_database();

    ds_db_dump(0);
    ds_db_reg_dump(0);

    EXPECT_EQ(recording::trace_ids(), (Ids{51, 52, 53, 54, 55, 56}));
}

TEST_F(DumpTraceTest, a_closed_main_channel_leaves_the_console_lines) {
    service(ip_info());
    ds_lib_rtrace[DS_CHANNEL_MAIN] = nullptr;
    open_console();

    ds_db_dump(0);

    EXPECT_TRUE(recording::traces().empty());
    EXPECT_NE(console().find(" trace_service_info:[SERVICE_INFO/"), std::string::npos);
    EXPECT_NE(console().find("ip=192.168.1.200, port=8080"), std::string::npos);
}

// ---- one registration ----

TEST_F(DumpTraceTest, a_registration_line_has_the_elements_count_and_the_registrations_version) {
    ds_client_reg_t *reg = new_registration(client, web);
    web->nnotifs = 12;
    reg->nnotifs = 99;
    reg->creg_ver = 0x100000001;
    recording::clear_calls();

    EXPECT_EQ(trace_client_reg_info(reg, channel), nullptr);

    EXPECT_EQ(recording::trace_ids(), Ids{57});
    EXPECT_EQ(recording::traces()[0].channel, "custom");
    EXPECT_EQ(recording::traces()[0].text,
              "pid 100 [0x10] reg service_name web,nnotifs=12version #: 4294967297\n");
}

// ---- one service ----

TEST_F(DumpTraceTest, an_ip_service_gets_a_header_and_an_entry) {
    ds_service_t *made = service(ip_info());
    web->nnotifs = 4;
    web->selem_version = 0x100000002;

    EXPECT_EQ(trace_service_info(made, channel), nullptr);

    EXPECT_EQ(recording::trace_ids(), (Ids{58, 59}));
    EXPECT_EQ(texts(),
              (Lines{"service_name web, scope=SYSTEM[2],nentries=1,nnotifs=4,serv_ver=4294967298\n",
                     "   ep[0] ip=192.168.1.200, port=8080, ha_role=ACTIVE[1], "
                     "issu_role=SECONDARY[2], scope=SYSTEM[2]\n"}));
    EXPECT_EQ(recording::traces()[0].channel, "custom");
}

TEST_F(DumpTraceTest, a_path_service_gets_a_header_and_an_entry) {
    trace_service_info(service(path_info()), channel);

    EXPECT_EQ(recording::trace_ids(), (Ids{60, 61}));
    EXPECT_EQ(texts(), (Lines{"service_name web, nentries=1\n",
                              "   ep[0] path=/run/web, ha_role=STANDBY[2], issu_role=TERTIARY[3], "
                              "scope=LOCAL[3]\n"}));
}

TEST_F(DumpTraceTest, the_header_comes_once_and_its_scope_is_that_of_the_first_endpoint) {
    trace_service_info(service(PublishInfoBuilder("web")
                                   .ip(1, 2, 3, 4, 80)
                                   .scope(1)
                                   .ip(5, 6, 7, 8, 81)
                                   .scope(2)
                                   .path("/p")
                                   .scope(3)),
                       channel);

    EXPECT_EQ(recording::trace_ids(), (Ids{58, 59, 59, 61}));
    EXPECT_TRUE(texts()[0].starts_with("service_name web, scope=RACK[1],nentries=3,"));
    EXPECT_TRUE(texts()[1].ends_with("scope=RACK[1]\n"));
    EXPECT_EQ(texts()[2], "   ep[1] ip=5.6.7.8, port=81, ha_role=UNKNOWN[0], issu_role=UNKNOWN[0], "
                          "scope=SYSTEM[2]\n");
    EXPECT_EQ(texts()[3], "   ep[2] path=/p, ha_role=UNKNOWN[0], issu_role=UNKNOWN[0], "
                          "scope=LOCAL[3]\n");
}

TEST_F(DumpTraceTest, an_unknown_first_endpoint_leaves_the_header_out) {
    trace_service_info(service(PublishInfoBuilder("web").raw(2, {9}).ip(1, 2, 3, 4, 80).path("/p")),
                       channel);

    EXPECT_EQ(recording::trace_ids(), (Ids{59, 61}));
    EXPECT_TRUE(texts()[0].starts_with("   ep[1] "));
    EXPECT_TRUE(texts()[1].starts_with("   ep[2] "));
}

TEST_F(DumpTraceTest, a_service_without_endpoints_writes_nothing) {
    ds_service_t *made = service(PublishInfoBuilder("web"));

    trace_service_info(made, channel);
    trace_endpoints(made, channel);

    EXPECT_TRUE(recording::traces().empty());
}

// ---- endpoints ----

TEST_F(DumpTraceTest, an_ip_endpoint_line_shows_every_detail) {
    trace_endpoints(service(ip_info().instance("blue")), channel);

    EXPECT_EQ(recording::trace_ids(), Ids{62});
    EXPECT_EQ(texts()[0],
              "[id:0x9] [web@blue] ep[0][SYSTEM] ip=192.168.1.200, port=8080, ha_role=ACTIVE[1], "
              "issu_role=SECONDARY[2], issu_id=7");
    EXPECT_EQ(recording::traces()[0].channel, "custom");
}

TEST_F(DumpTraceTest, a_path_endpoint_line_shows_every_detail) {
    trace_endpoints(service(path_info().instance("blue")), channel);

    EXPECT_EQ(recording::trace_ids(), Ids{63});
    EXPECT_EQ(texts()[0], "[id:0x9] [web@blue] ep[0][LOCAL] path=/run/web, ha_role=STANDBY[2], "
                          "issu_role=TERTIARY[3], issu_id=5");
}

TEST_F(DumpTraceTest, an_endpoint_of_another_type_shows_the_number) {
    trace_endpoints(service(PublishInfoBuilder("web").raw(77, {1, 2}).scope(1).instance("blue")),
                    channel);

    EXPECT_EQ(recording::trace_ids(), Ids{64});
    EXPECT_EQ(texts()[0], "[id:0x9] [web@blue] ep[0][RACK] type=77, ha_role=UNKNOWN[0], "
                          "issu_role=UNKNOWN[0], issu_id=0");
}

TEST_F(DumpTraceTest, each_endpoint_has_its_own_line_with_its_own_scope) {
    trace_endpoints(service(PublishInfoBuilder("web")
                                .raw(2, {1})
                                .scope(0)
                                .ip(1, 2, 3, 4, 80)
                                .scope(1)
                                .path("/p")
                                .scope(4)),
                    channel);

    EXPECT_EQ(recording::trace_ids(), (Ids{64, 62, 63}));
    EXPECT_NE(texts()[0].find("ep[0][UNKNOWN]"), std::string::npos);
    EXPECT_NE(texts()[1].find("ep[1][RACK]"), std::string::npos);
    EXPECT_NE(texts()[2].find("ep[2][UNKNOWN]"), std::string::npos);
}

TEST_F(DumpTraceTest, a_service_without_instance_prints_none) {
    trace_endpoints(service(ip_info()), channel);

    EXPECT_NE(texts()[0].find("[web@] "), std::string::npos);
}

TEST_F(DumpTraceTest, the_instance_of_the_record_is_printed_not_that_of_its_info) {
    ds_service_t *made = service(ip_info().instance("blue"));
    ds_db_update_service(made, new_info(ip_info().instance("red")), client);
    recording::clear_calls();

    trace_endpoints(made, channel);

    EXPECT_NE(texts()[0].find("[web@blue] "), std::string::npos);
}

TEST_F(DumpTraceTest, role_numbers_are_printed_signed) {
    trace_endpoints(service(PublishInfoBuilder("web")
                                .ip(1, 2, 3, 4, 0xffffffff)
                                .roles(0xffffffff, 0x80000000, 0xfffffffe)),
                    channel);

    EXPECT_TRUE(texts()[0].ends_with("port=-1, ha_role=UNKNOWN[-1], issu_role=UNKNOWN[-2147483648],"
                                     " issu_id=-2"))
        << texts()[0];
}

TEST_F(DumpTraceTest, roles_out_of_the_tables_print_unknown) {
    EXPECT_STREQ(ds_ha_role_name(0), "UNKNOWN");
    EXPECT_STREQ(ds_ha_role_name(1), "ACTIVE");
    EXPECT_STREQ(ds_ha_role_name(2), "STANDBY");
    EXPECT_STREQ(ds_ha_role_name(3), "UNKNOWN");
    EXPECT_STREQ(ds_issu_role_name(0), "UNKNOWN");
    EXPECT_STREQ(ds_issu_role_name(1), "PRIMARY");
    EXPECT_STREQ(ds_issu_role_name(2), "SECONDARY");
    EXPECT_STREQ(ds_issu_role_name(3), "TERTIARY");
    EXPECT_STREQ(ds_issu_role_name(4), "UNKNOWN");
    EXPECT_STREQ(ds_scope_name(0), "UNKNOWN");
    EXPECT_STREQ(ds_scope_name(1), "RACK");
    EXPECT_STREQ(ds_scope_name(2), "SYSTEM");
    EXPECT_STREQ(ds_scope_name(3), "LOCAL");
    EXPECT_STREQ(ds_scope_name(4), "UNKNOWN");
    EXPECT_STREQ(ds_scope_name(0xffffffff), "UNKNOWN");
}

TEST_F(DumpTraceTest, address_bytes_are_printed_first_byte_first_and_unsigned) {
    trace_service_info(service(PublishInfoBuilder("web").ip(255, 128, 0, 1, 80)), channel);

    EXPECT_NE(texts()[1].find("ip=255.128.0.1,"), std::string::npos) << texts()[1];
}

TEST_F(DumpTraceTest, bytes_that_are_no_endpoint_print_zeros_or_no_path) {
    trace_endpoints(
        service(PublishInfoBuilder("web").raw(DS_EP_TYPE_IP, {1}).raw(DS_EP_TYPE_PATH, {1})),
        channel);

    EXPECT_NE(texts()[0].find("ip=0.0.0.0, port=0,"), std::string::npos);
    EXPECT_NE(texts()[1].find("path=, "), std::string::npos);
}

TEST_F(DumpTraceTest, endpoints_without_bytes_print_zeros_or_no_path) {
    ds_service_t *made =
        service(PublishInfoBuilder("web").raw(DS_EP_TYPE_IP, {}).raw(DS_EP_TYPE_PATH, {}));

    trace_service_info(made, channel);

    EXPECT_NE(texts()[1].find("ip=0.0.0.0, port=0,"), std::string::npos);
    EXPECT_NE(texts()[2].find("path=, "), std::string::npos);
}

TEST_F(DumpTraceTest, decoded_paths_are_released) {
    ds_service_t *made = service(path_info());
    const size_t blocks = recording::live_allocations();

    trace_endpoints(made, channel);
    trace_service_info(made, channel);

    EXPECT_EQ(recording::live_allocations(), blocks);
}

TEST_F(DumpTraceTest, a_path_that_cannot_be_decoded_for_lack_of_memory_prints_none) {
    ds_service_t *made = service(path_info());
    recording::fail("malloc", recording::every);

    trace_endpoints(made, channel);

    EXPECT_NE(texts()[0].find("path=, "), std::string::npos);
}

TEST_F(DumpTraceTest, a_null_channel_leaves_the_console_lines_of_the_writers) {
    ds_service_t *made = service(ip_info());
    ds_client_reg_t *reg = new_registration(client, web);
    open_console();
    recording::clear_calls();

    trace_endpoints(made, nullptr);
    trace_service_info(made, nullptr);
    trace_client_reg_info(reg, nullptr);

    EXPECT_TRUE(recording::traces().empty());
    EXPECT_NE(console().find(" trace_endpoints:[SERVICE_ENDPOINT_IP/"), std::string::npos);
    EXPECT_NE(console().find(" trace_service_info:[SERVICE_INFO_ENTRY/"), std::string::npos);
    EXPECT_NE(console().find(" trace_client_reg_info:[CLIENT_REG_INFO/"), std::string::npos);
}

TEST_F(DumpTraceTest, null_records_write_nothing) {
    trace_endpoints(nullptr, channel);
    EXPECT_EQ(trace_service_info(nullptr, channel), nullptr);
    EXPECT_EQ(trace_client_reg_info(nullptr, channel), nullptr);

    EXPECT_TRUE(recording::traces().empty());
}
