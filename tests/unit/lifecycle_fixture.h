// What the tests of publishing, watching and replication share: one-line publications, withdrawals
// and relay deliveries, the two restart timers, the relay connection, and views of the database
// and of the log of calls. None of the views calls the platform, so they leave no line behind.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "library_test.h"

// A withdrawal key; scope 0 and no instance match any.
inline ds_service_key_t key_for(const char *name, uint32_t scope = 0,
                                const char *instance = nullptr) {
    ds_service_key_t key;
    VIDL_CLEAR(&key);
    VIDL_SET(&key, service_name, DS_KEY_BIT_NAME, const_cast<char *>(name));
    VIDL_SET(&key, scope, DS_KEY_BIT_SCOPE, scope);
    if (instance != nullptr)
        VIDL_SET(&key, instance, DS_KEY_BIT_INSTANCE, const_cast<char *>(instance));
    return key;
}

// One IP endpoint 10.0.0.last:1000 of that scope.
inline PublishInfoBuilder one_endpoint(const std::string &name, uint32_t scope = 3,
                                       uint8_t last = 1) {
    return PublishInfoBuilder(name).ip(10, 0, 0, last, 1000).scope(scope);
}

class LifecycleTest : public LibraryTest {
  protected:
    static constexpr uint64_t publisher_handle = 0x10;
    static constexpr uint64_t watcher_handle = 0x20;
    static constexpr long publisher_pid = 100;
    static constexpr long watcher_pid = 200;

    ds_client_t *new_publisher() { return new_client(publisher_handle, publisher_pid, "pub"); }
    ds_client_t *new_watcher() { return new_client(watcher_handle, watcher_pid, "watch"); }

    // ---- what the host does ----

    int publish(const ds_client_t *client, const PublishInfoBuilder &info) {
        return ds_db_publish_service(client->client_idx, local_node, new_info(info), nullptr);
    }

    // A relay delivery as the receive path hands it on.
    int deliver(uint32_t pid, ds_node_t *node, const PublishInfoBuilder &info, uint32_t id = 0x77,
                uint32_t gen = 5) {
        const ds_dsr_service_ref_t ref = {id, gen};
        return ds_db_publish_service(pid, node, new_info(info), &ref);
    }

    int withdraw(const ds_client_t *client, const char *name, uint32_t scope = 0,
                 const char *instance = nullptr) {
        const ds_service_key_t key = key_for(name, scope, instance);
        return ds_db_unpublish_service(client->client_idx, local_node, &key, nullptr);
    }

    // A registration that the host took, with its element.
    ds_client_reg_t *watch(ds_client_t *client, const char *name, uint64_t cookie = 0xc0) {
        ds_client_reg_t *reg = nullptr;
        EXPECT_EQ(ds_db_add_new_registration(name, client, cookie, &reg), 0);
        return reg;
    }

    // A relay-created record: nobody's, with the relay's identity.
    ds_service_t *new_placeholder(ds_service_elem_t *selem, const PublishInfoBuilder &info,
                                  ds_node_t *node, uint32_t pid, uint32_t id = 0x77,
                                  uint32_t gen = 5) {
        ds_service_t *service = new_service(selem, info, nullptr, node, DS_PROC_ID_FROM_DSR, id);
        service->pid = pid;
        service->gen = gen;
        service->prev_ver = gen;
        service->flags = DS_SERVICE_FLAG_DSR_CONFIRMED;
        return service;
    }

    mgd_timer_t *set_timer(uint32_t slot, const std::string &text, bool running) {
        mgd_timer_t *timer = recording::new_timer(text, running);
        globals.slot[slot] = reinterpret_cast<uint64_t>(timer);
        return timer;
    }
    mgd_timer_t *set_own_timer(bool running = true) {
        return set_timer(DS_GLOBAL_SLOT_OWN_RESTART_TIMER, "own", running);
    }
    mgd_timer_t *set_relay_timer(bool running = true) {
        return set_timer(DS_GLOBAL_SLOT_RELAY_RESTART_TIMER, "relay", running);
    }

    // The connected flag is one byte of its slot.
    void set_connected(bool connected = true) {
        *reinterpret_cast<uint8_t *>(&globals.slot[DS_GLOBAL_SLOT_RELAY_CONNECTED]) =
            connected ? 1 : 0;
    }
    bool is_connected() const {
        return *reinterpret_cast<const uint8_t *>(&globals.slot[DS_GLOBAL_SLOT_RELAY_CONNECTED]) !=
               0;
    }

    // ---- views ----

    ds_service_elem_t *element(const std::string &name) const {
        return find_below(database()->selem_tree.header.left, name);
    }
    static std::vector<ds_service_t *> services_of(ds_service_elem_t *selem) {
        std::vector<ds_service_t *> result;
        for (ds_service_t *service = ds_service_get_service_list_head(selem); service != nullptr;
             service = ds_service_get_next_in_service_list(service))
            result.push_back(service);
        return result;
    }
    static std::vector<ds_service_t *> services_of(ds_client_t *client) {
        std::vector<ds_service_t *> result;
        for (ds_service_t *service = ds_client_get_service_list_head(client); service != nullptr;
             service = ds_client_get_next_in_service_list(service))
            result.push_back(service);
        return result;
    }
    // The newest service of the name, null when there is none.
    ds_service_t *newest(const std::string &name) const {
        return ds_service_get_service_list_head(element(name));
    }

    static Lines texts(uint32_t id) {
        Lines result;
        for (const recording::Trace &trace : recording::traces_of(id))
            result.push_back(trace.text);
        return result;
    }
    // Everything that changes or leaves the library, without the reading of infos and the locking.
    static Lines steps() {
        return recording::calls_with({"rtrace_internal", "slot", "avl_", "chunk_", "dbly_", "fts_",
                                      "mgd_timer", "malloc", "calloc", "memdup", "free(", "vanto_",
                                      "dsr_dsc_send_update", "vidl_ds_service_"});
    }
    static size_t timer_questions(const std::string &timer) {
        return recording::calls_with({"mgd_timer_leaf_running(" + timer + ")"}).size();
    }
    std::vector<uint32_t> slots_called() const {
        std::vector<uint32_t> result;
        for (const SentMessage &message : sent)
            result.push_back(message.slot);
        return result;
    }
    // The messages of slots 44 and 45 in order.
    std::vector<SentMessage> told() const {
        std::vector<SentMessage> result;
        for (const SentMessage &message : sent)
            if (message.slot != DS_GLOBAL_SLOT_NOTIFY_HOOK) result.push_back(message);
        return result;
    }
    void forget_calls() {
        recording::clear_calls();
        sent.clear();
    }

  private:
    static ds_service_elem_t *find_below(avl_node_t *node, const std::string &name) {
        if (node == nullptr) return nullptr;
        auto *selem = reinterpret_cast<ds_service_elem_t *>(node);
        if (name == selem->name) return selem;
        ds_service_elem_t *left = find_below(node->left, name);
        return left != nullptr ? left : find_below(node->right, name);
    }
};

using Ids = std::vector<uint32_t>;
