// One long scenario that goes through every operation of the library, as a list of operations that
// are played one after another. Each of them copes with whatever the ones before it failed to do,
// as a host does: a client that did not arrive publishes nothing.
//
// Creating the database is not part of it: its failure is final, nothing can follow it.
#pragma once

#include <functional>

#include "lifecycle_fixture.h"

class AllocationScenario : public LifecycleTest {
  protected:
    struct Operation {
        const char *name;
        std::function<void()> run;
    };

    AllocationScenario() {
        add_arrivals();
        add_own_restart();
        add_publications();
        add_relay_traffic();
        add_views();
        add_relay_restart();
        add_departures();
    }

    std::vector<Operation> operations;
    ds_client_t *publisher = nullptr;
    ds_client_t *watcher = nullptr;
    ds_client_t *other = nullptr;
    bool spares_dumps = true; // each gets its outermost array, without which the process ends

    // ---- what the host does ----

    ds_client_t *arrive(uint64_t client_hdl, long pid) {
        pids[client_hdl] = pid;
        paths[client_hdl] = "/usr/bin/agent";
        ds_client_t *client = nullptr;
        if (ds_db_init_client(&client) != 0) return nullptr;
        client->client_hdl = client_hdl;
        EXPECT_EQ(ds_db_add_client(client), 0);
        return client;
    }

    void depart(ds_client_t *&client) {
        if (client != nullptr) {
            EXPECT_EQ(ds_db_delete_client(client), 0);
        }
        client = nullptr;
    }

    void offer(const ds_client_t *client, const PublishInfoBuilder &info) {
        if (client != nullptr) expect_success_or_failure(publish(client, info));
    }

    // The structure stands in the caller's storage; what is in it goes over only on success.
    void offer_borrowed(const ds_client_t *client, const PublishInfoBuilder &info) {
        if (client == nullptr) return;
        ds_service_publish_info storage;
        info.build_borrowed(&storage);
        expect_success_or_failure(
            ds_db_publish_service(client->client_idx, local_node, &storage, nullptr));
        if (storage.held == 0) free_publish_info(&storage);
    }

    void retract(const ds_client_t *client, const char *name, const char *instance = nullptr) {
        if (client != nullptr) expect_success_or_failure(withdraw(client, name, 0, instance));
    }

    // Registers and asks for what is there already.
    uint32_t follow(ds_client_t *client, const char *name) {
        ds_client_reg_t *reg = nullptr;
        if (client == nullptr || ds_db_add_new_registration(name, client, 0xc0, &reg) != 0)
            return 0;
        EXPECT_EQ(ds_notify_client(reg, reg->selem), 0);
        return reg->handle;
    }

    static void receive(uint32_t operation, uint8_t sender, const char *name, uint32_t id,
                        uint32_t pid, uint8_t last, bool has_attributes = false) {
        const uint8_t address[6] = {2, 0, 0, 0, 0, sender};
        const std::vector<uint8_t> endpoint = recording::encode_ip({10, 0, 0, last}, 1000);
        std::vector<uint8_t> attributes(536);
        ds_service_attr_t role{};
        VIDL_SET(&role, type, DS_ATTR_BIT_TYPE, DS_ATTR_HA_ROLE);
        VIDL_SET(&role, value, DS_ATTR_BIT_VALUE, 1);
        ds_service_attrs_t list{};
        VIDL_SET_ARRAY(&list, attrs, DS_ATTRS_BIT_ATTRS, &role, 1);
        const int32_t length =
            vidl_ds_service_attrs_encode_ext(&list, attributes.data(), 536, 0, 0, 0);
        ASSERT_GT(length, 0);
        expect_success_or_failure(
            dsr_receive_cb(operation, address, name, id, "r;", 2, pid, 3, endpoint.data(),
                           endpoint.size(), has_attributes ? attributes.data() : nullptr,
                           has_attributes ? static_cast<uint64_t>(length) : 0));
    }

    static void expect_success_or_failure(int result) {
        EXPECT_TRUE(result == 0 || result == -1) << result;
    }

    // The outermost array of a dump is the first of its kind in it.
    void dump(uint32_t flags, const char *name, const uint8_t *address) const {
        ds_dump_resp_info resp;
        VIDL_CLEAR(&resp);
        resp.request_flags = flags;
        uint32_t elements = 0;
        uint32_t clients = 0;
        if (spares_dumps)
            recording::spare_calloc_of(flags == DS_DUMP_REQ_CLIENTS ? sizeof(ds_dump_client_info)
                                                                    : sizeof(ds_dump_selem_info));
        EXPECT_EQ(
            ds_prepare_dump_resp_info(name, address, DS_SCOPE_ANY, &resp, &elements, &clients), 0);
        recording::spare_calloc_of(0);
        for (uint32_t index = 0; index < resp.selem_infos_count; ++index) {
            recording::host_free(resp.selem_infos[index].service_infos);
            recording::host_free(resp.selem_infos[index].reg_entries);
        }
        for (uint32_t index = 0; index < resp.client_infos_count; ++index) {
            recording::host_free(resp.client_infos[index].service_infos);
            recording::host_free(resp.client_infos[index].reg_entries);
        }
        recording::host_free(resp.selem_infos);
        recording::host_free(resp.client_infos);
    }

  private:
    // ---- the scenario ----

    static constexpr uint8_t self = 0xff; // the last byte of this node's address

    void add(const char *name, std::function<void()> run) {
        operations.push_back({name, std::move(run)});
    }
    void add_arrivals();
    void add_own_restart();
    void add_publications();
    void add_relay_traffic();
    void add_views();
    void add_relay_restart();
    void add_departures();
    void work_on_records();
    void work_on_registration_records(ds_service_elem_t *selem);
    void walk();
    void walk_lists();
};

inline void AllocationScenario::add_arrivals() {
    add("a publisher arrives", [this] { publisher = arrive(publisher_handle, publisher_pid); });
    add("a watcher arrives", [this] { watcher = arrive(watcher_handle, watcher_pid); });
    add("another client arrives", [this] { other = arrive(0x30, publisher_pid); });
    add("a client is made and dropped", [] {
        ds_client_t *client = nullptr;
        if (ds_db_init_client(&client) != 0) return;
        EXPECT_EQ(ds_db_free_client(client), 0);
    });
}

inline void AllocationScenario::add_own_restart() {
    add("the own restart period begins", [this] { set_own_timer(); });
    add("the relay connects in it", [] { dsr_connect_cb(); });
    add("a client publishes", [this] { offer(publisher, one_endpoint("web", 2, 1)); });
    add("the relay replays it", [] { receive(DSR_ADD, self, "web", 5, publisher_pid, 1); });
    add("the relay replays what comes", [] { receive(DSR_ADD, self, "api", 6, publisher_pid, 2); });
    add("it comes", [this] { offer(publisher, one_endpoint("api", 2, 2).instance("a;")); });
    add("the relay replays what is gone", [] { receive(DSR_ADD, self, "old", 7, 50, 3, true); });
    add("somebody watches it", [this] { follow(watcher, "old"); });
    add("the period ends", [this] {
        recording::set_running(
            reinterpret_cast<mgd_timer_t *>(globals.slot[DS_GLOBAL_SLOT_OWN_RESTART_TIMER]), false);
        EXPECT_EQ(ds_db_finalize_restart(), 0);
    });
}

inline void AllocationScenario::add_publications() {
    add("a name is watched", [this] { follow(watcher, "web"); });
    add("a coming name is watched", [this] { follow(other, "db"); });
    add("a service", [this] { offer(publisher, one_endpoint("db", 3, 1).instance("i;")); });
    add("with attributes", [this] { offer(publisher, one_endpoint("db", 2, 2).roles(1, 1, 4)); });
    add("changed", [this] { offer(publisher, one_endpoint("db", 2, 3).roles(2, 1, 4)); });
    add("of another", [this] { offer(other, PublishInfoBuilder("db").path("/run/db").scope(1)); });
    // Without an instance: the copy of one is given up when the info itself cannot be copied.
    add("borrowed", [this] { offer_borrowed(publisher, one_endpoint("lent", 2)); });
    add("borrowed, changed", [this] { offer_borrowed(publisher, one_endpoint("lent", 2, 2)); });
    add("withdrawn", [this] { retract(publisher, "lent"); });
    add("withdrawn twice", [this] { retract(publisher, "lent"); });
    add("published by nobody", [this] {
        EXPECT_EQ(ds_db_publish_service(9999, local_node, new_info(one_endpoint("none")), nullptr),
                  -1);
    });
    add("without endpoints", [this] {
        offer(publisher, PublishInfoBuilder("bare"));
        retract(publisher, "bare");
    });
    add("a registration is given up", [this] {
        const uint32_t handle = follow(watcher, "db");
        if (handle == 0) return;
        EXPECT_EQ(ds_db_delete_registration("db", watcher, handle), 0);
    });
    add("all are told", [this] {
        EXPECT_EQ(ds_notify(element("web")), 0);
        if (element("db") != nullptr) ++element("db")->selem_version;
        EXPECT_EQ(ds_notify(element("db")), 0);
    });
}

inline void AllocationScenario::add_relay_traffic() {
    add("remote service", [] { receive(DSR_ADD, 1, "web", 21, 300, 31, true); });
    add("remote change", [] { receive(DSR_MODIFY, 1, "web", 21, 300, 32, true); });
    add("remote service of a new name", [] { receive(DSR_ADD, 1, "far", 22, 300, 33); });
    add("remote service of a second node", [] { receive(DSR_ADD, 2, "web", 23, 300, 34); });
    add("remote withdrawal", [] { receive(DSR_DELETE, 1, "far", 22, 300, 33); });
    add("remote withdrawal again", [] { receive(DSR_DELETE, 1, "far", 22, 300, 33); });
    add("an own service is turned back", [] { receive(DSR_ADD, self, "web", 24, 300, 35); });
    add("an own withdrawal is turned back", [] { receive(DSR_DELETE, self, "web", 24, 300, 35); });
}

inline void AllocationScenario::walk() {
    const auto count = [](auto *, void *context) -> void * {
        ++*static_cast<uint32_t *>(context);
        return nullptr;
    };
    uint32_t seen = 0;
    ds_db_client_iter(
        [](ds_client_t *client, void *) -> void * {
            char name[8];
            EXPECT_GE(ds_client_get_name(client, name, sizeof name), 0);
            EXPECT_NE(ds_client_pid(client), 0);
            return nullptr;
        },
        nullptr);
    ds_db_services_iter(
        [](ds_service_t *service, void *) -> void * {
            trace_endpoints(service, ds_lib_rtrace[DS_CHANNEL_PUB]);
            return trace_service_info(service, ds_lib_rtrace[DS_CHANNEL_PUB]);
        },
        nullptr);
    ds_db_client_reg_iter(trace_client_reg_info, ds_lib_rtrace[DS_CHANNEL_REG]);
    ds_db_client_reg_iter(count, &seen);
    EXPECT_EQ(seen, database()->registrations_added - database()->registrations_deleted);
}

// By the list accessors, from the clients and from the elements; both ways meet the same
// registrations.
inline void AllocationScenario::walk_lists() {
    uint32_t of_clients = 0;
    for (ds_client_t *client = ds_client_get_client_list_head(); client != nullptr;
         client = ds_client_get_next_in_client_list(client))
        for (ds_client_reg_t *reg = ds_client_get_client_reg_list_head(client); reg != nullptr;
             reg = ds_client_get_next_in_client_reg_list(reg))
            ++of_clients;
    uint32_t of_elements = 0;
    for (const char *name : {"web", "api", "db", "old"}) {
        ds_service_elem_t *selem = nullptr;
        if (ds_db_find_service_element(name, &selem) != 0) continue;
        uint32_t here = 0;
        for (ds_client_reg_t *reg = ds_service_get_client_reg_list_head(selem); reg != nullptr;
             reg = ds_service_get_next_in_client_reg_list(reg))
            ++here;
        EXPECT_EQ(ds_db_service_element_has_registrations(selem), here != 0 ? 1 : 0);
        EXPECT_EQ(ds_db_service_element_has_remote_services(selem, nullptr, DS_SCOPE_ANY), 0);
        EXPECT_EQ(selem->name_hash, ds_hash_string(name, strlen(name)));
        of_elements += here;
    }
    EXPECT_EQ(of_elements, of_clients);
    EXPECT_EQ(ds_globals_get(), &globals);
    EXPECT_EQ(zul_msg_rec_directory_service_duplicated_service_getfn(),
              &zul_msg_rec_directory_service_duplicated_service);
}

inline void AllocationScenario::add_views() {
    static const uint8_t remote_address[6] = {2, 0, 0, 0, 0, 1};
    static const uint8_t strange_address[6] = {2, 0, 0, 0, 0, 0x44};
    add("iterators", [this] { walk(); });
    add("lists", [this] { walk_lists(); });
    add("a message is prepared", [this] {
        ds_service_publish_info info;
        VIDL_CLEAR(&info);
        uint32_t count = 0;
        ds_prepare_notif_message(element("web"), &info, &count);
        recording::host_free(info.entries);
    });
    add("counts and look-ups", [this] {
        ds_service_elem_t *selem = nullptr;
        ds_service_t *service = nullptr;
        EXPECT_EQ(ds_db_find_service("web", "r", 0, 0, nullptr, &selem, &service, 0), 0);
        EXPECT_LE(ds_db_get_published_service_count("web", DS_SCOPE_ANY), 1u);
        EXPECT_LE(ds_db_get_registered_service_count("web"), 1u);
        EXPECT_EQ(ds_db_get_remote_published_service_count(nullptr, nullptr, DS_SCOPE_ANY), 0u);
        EXPECT_EQ(ds_db_service_endpoints_equal(service, nullptr), 0);
        EXPECT_EQ(ds_db_find_client_by_client_hdl(publisher_handle), publisher);
        EXPECT_EQ(ds_db_find_client_by_client_idx(9999), nullptr);
        EXPECT_LE(ds_db_get_client_count("agent"), 3u);
    });
    add("service dump to the log", [] { ds_db_dump(0); });
    add("registration dump to the log", [] { ds_db_reg_dump(0); });
    add("all services", [this] { dump(DS_DUMP_REQ_SERVICES, nullptr, nullptr); });
    add("services of a node", [this] { dump(DS_DUMP_REQ_SERVICES, nullptr, remote_address); });
    add("services of no node", [this] { dump(DS_DUMP_REQ_SERVICES, nullptr, strange_address); });
    add("registrations", [this] { dump(DS_DUMP_REQ_REGISTRATIONS, nullptr, nullptr); });
    add("clients", [this] { dump(DS_DUMP_REQ_CLIENTS, nullptr, nullptr); });
    add("clients of a name", [this] { dump(DS_DUMP_REQ_CLIENTS, "agent", nullptr); });
}

inline void AllocationScenario::add_relay_restart() {
    add("the relay goes", [] { EXPECT_EQ(dsr_disconn_cb(), 0); });
    add("the relay comes back", [] { EXPECT_EQ(dsr_connect_cb(), 0); });
    add("it replays", [] { receive(DSR_ADD, 1, "web", 21, 300, 32, true); });
    add("it replays what is new", [] { receive(DSR_ADD, 3, "web", 25, 301, 36, true); });
    add("it replays a new name", [] { receive(DSR_ADD, 3, "new", 26, 301, 37); });
    add("a client publishes meanwhile", [this] { offer(publisher, one_endpoint("web", 2, 7)); });
    add("the relay's period ends", [this] {
        auto *timer =
            reinterpret_cast<mgd_timer_t *>(globals.slot[DS_GLOBAL_SLOT_RELAY_RESTART_TIMER]);
        if (timer != nullptr) recording::set_running(timer, false);
        EXPECT_EQ(ds_db_finalize_restart(), 0);
    });
    add("remote services are marked", [] { EXPECT_EQ(ds_db_dsr_restarted(), 0); });
    add("and settled", [] { EXPECT_EQ(ds_db_finalize_restart(), 0); });
    add("a remote service", [] { receive(DSR_ADD, 1, "web", 27, 300, 38); });
    add("its node goes down", [] {
        const uint8_t address[6] = {2, 0, 0, 0, 0, 1};
        expect_success_or_failure(dsr_peer_down_cb(address));
    });
    add("a strange node goes down", [] {
        const uint8_t address[6] = {2, 0, 0, 0, 0, 9};
        EXPECT_EQ(ds_db_node_down(platform_get_nodeid_from_ethaddr(address)), 0);
    });
}

inline void AllocationScenario::work_on_registration_records(ds_service_elem_t *selem) {
    ds_client_reg_t *reg = nullptr;
    if (ds_db_init_client_registration(publisher, selem->name, 7, &reg) == 0) {
        EXPECT_EQ(ds_db_add_client_registration(reg, publisher, selem), 0);
        EXPECT_EQ(ds_db_delete_client_registration(reg), 0);
    }
    if (ds_db_init_client_registration(publisher, selem->name, 8, &reg) != 0) return;
    EXPECT_EQ(ds_db_free_client_registration(reg), 0);
}

inline void AllocationScenario::work_on_records() {
    ds_service_elem_t *selem = nullptr;
    if (publisher == nullptr || ds_db_init_service_element("hand", &selem) != 0) return;
    if (ds_db_add_service_element(selem) != 0) {
        EXPECT_EQ(ds_db_free_service_element(selem), 0);
        return;
    }
    for (const bool is_freed : {true, false}) {
        ds_service_t *service = nullptr;
        if (ds_db_init_service(publisher->client_idx, local_node,
                               new_info(one_endpoint("hand", 2).instance("h;")), selem->name_hash,
                               &service, publisher, selem, 0) != 0)
            continue;
        EXPECT_EQ(ds_db_add_service(service, publisher), 0);
        ds_db_update_service(service, new_info(one_endpoint("hand", 2, 2).roles(1, 2, 3)),
                             publisher);
        expect_success_or_failure(ds_remote_notify(service, DS_REMOTE_PUBLISHED));
        if (is_freed) {
            char *instance = service->instance;
            EXPECT_EQ(ds_db_free_service(service), 0);
            recording::host_free(instance);
        } else {
            EXPECT_EQ(ds_db_delete_service(service, publisher), 0);
        }
    }
    work_on_registration_records(selem);
    EXPECT_EQ(ds_db_service_element_has_services(selem, DS_SCOPE_ANY), 0);
    EXPECT_EQ(ds_db_delete_service_element(selem), 0);
}

inline void AllocationScenario::add_departures() {
    add("records, step by step", [this] { work_on_records(); });
    add("a service goes down", [this] {
        if (publisher != nullptr)
            ds_db_handle_service_down(ds_client_get_service_list_head(publisher), publisher);
    });
    add("a client returns", [this] {
        depart(other);
        other = arrive(0x30, publisher_pid);
    });
    add("it publishes", [this] { offer(other, one_endpoint("web", 2, 8).instance("b;")); });
    add("the publisher departs", [this] { depart(publisher); });
    add("the watcher departs", [this] { depart(watcher); });
}
