// Several nodes in one process, with a relay between them.
//
// All state of a node hangs on its global block, so a node is entered by installing its block. What
// a node sends goes to the relay (simulated_relay.h) and, where it is news, on to the other nodes,
// never back to its own. Live updates for a node whose relay period is open wait until that period
// has ended; a replay contains them already.
//
// Watchers are read with news(), databases with visible(), the relay with relay_holds(). The
// databases of all nodes, also of those that ended, are checked when the test ends.
#pragma once

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include "database_validator.h"
#include "lifecycle_fixture.h"
#include "simulated_relay.h"

class ClusterTest : public LifecycleTest {
  protected:
    struct Node {
        uint8_t octet = 0;
        ds_globals_t block{};
        ds_node_t *self = nullptr;
        bool is_connected = false;
        std::vector<SimulatedRelay::Entry> waiting; // live updates, each with its operation
    };
    struct Client {
        Node *node;
        ds_client_t *record;
        uint64_t handle;
    };

    void SetUp() override {
        LifecycleTest::SetUp();
        expect_leaks(); // the base sees one database only; all of them are checked here
        one = start_node(1);
        two = start_node(2);
        three = start_node(3);
    }

    void TearDown() override {
        std::set<const void *> reachable = reachable_memory(database());
        for (const auto &node : nodes_) {
            enter(*node);
            EXPECT_EQ(recording::joined(validate(db_of(*node))), "") << "node " << +node->octet;
            reachable.merge(reachable_memory(db_of(*node)));
        }
        for (ds_db_t *ended : ended_databases_)
            reachable.merge(reachable_memory(ended));
        for (const recording::Allocation &block : recording::allocations())
            EXPECT_EQ(reachable.count(block.memory), 1u)
                << "leaked " << block.size << " bytes, allocation " << block.serial;
        for (const recording::LiveRecord &record : recording::live_records())
            EXPECT_EQ(reachable.count(record.memory), 1u)
                << "leaked " << recording::name_of(record.memory);
        ds_globals_set(&globals);
        LifecycleTest::TearDown();
    }

    // ---- nodes ----

    void enter(Node &node) {
        ds_globals_set(&node.block);
        local_node = node.self;
    }

    // A node that was never there before, connected to the relay.
    Node *start_node(uint8_t octet) {
        nodes_.push_back(std::make_unique<Node>());
        Node &node = *nodes_.back();
        node.octet = octet;
        begin_life(node);
        connect(node);
        return &node;
    }

    // The directory of a node ends and starts again with nothing: its own period is open, it is
    // not connected, its clients and watchers have to come back.
    void restart(Node &node) {
        ended_databases_.push_back(db_of(node));
        node.is_connected = false;
        node.waiting.clear();
        begin_life(node);
        node.block.slot[DS_GLOBAL_SLOT_OWN_RESTART_TIMER] =
            reinterpret_cast<uint64_t>(recording::new_timer("own", true));
    }

    // The timer counts as running until the period is settled.
    void own_period_ends(Node &node) {
        enter(node);
        EXPECT_EQ(ds_db_finalize_restart(), 0);
        recording::set_running(timer_of(node, DS_GLOBAL_SLOT_OWN_RESTART_TIMER), false);
        carry_from(node);
    }

    // The node is gone for good.
    void lose(Node &node) {
        node.is_connected = false;
        relay.forget_node(node.octet);
        for (const auto &other : nodes_)
            if (other->is_connected) {
                EXPECT_EQ(report_down(*other, node.octet), 0);
            }
        ended_databases_.push_back(db_of(node));
        std::erase_if(nodes_, [&](const auto &owned) { return owned.get() == &node; });
    }

    int report_down(Node &observer, uint8_t octet) {
        enter(observer);
        const auto address = address_of(octet);
        const int result = dsr_peer_down_cb(address.data());
        carry_from(observer);
        return result;
    }

    // ---- relay ----

    // One node connects and is given what the relay holds. In its own period its own entries come
    // only with replay_own().
    void connect(Node &node) {
        say_connected(node);
        if (!is_running(node, DS_GLOBAL_SLOT_OWN_RESTART_TIMER)) offer_stale(node);
        replay_others(node);
    }

    // The relay gives a restarted node back what it published in its earlier life.
    void replay_own(Node &node) {
        for (const SimulatedRelay::Entry &entry : relay.entries())
            if (entry.origin == node.octet) {
                EXPECT_EQ(deliver_to(node, entry, DSR_ADD), 0);
            }
    }

    // Entries that the node did not send after it connected.
    void offer_stale(Node &node) {
        for (const SimulatedRelay::Entry &entry : relay.offer_stale(node.octet))
            EXPECT_EQ(deliver_to(node, entry, DSR_ADD), 0);
    }

    void relay_goes_away() {
        for (const auto &node : nodes_) {
            enter(*node);
            if (mgd_timer_t *left = timer_of(*node, DS_GLOBAL_SLOT_RELAY_RESTART_TIMER))
                recording::set_running(left, false);
            EXPECT_EQ(dsr_disconn_cb(), 0);
            node->is_connected = false;
            node->waiting.clear();
        }
    }

    // Every node sends what it has before any node is given the list.
    void relay_comes_back() {
        for (const auto &node : nodes_)
            say_connected(*node);
        for (const auto &node : nodes_)
            if (!is_running(*node, DS_GLOBAL_SLOT_OWN_RESTART_TIMER)) offer_stale(*node);
        for (const auto &node : nodes_)
            replay_others(*node);
    }

    void relay_periods_end() {
        for (const auto &node : nodes_) {
            mgd_timer_t *timer = timer_of(*node, DS_GLOBAL_SLOT_RELAY_RESTART_TIMER);
            if (timer == nullptr || !recording::is_running(timer)) continue;
            enter(*node);
            EXPECT_EQ(ds_db_finalize_restart(), 0);
            recording::set_running(timer, false);
            carry_from(*node);
            const auto waiting = std::exchange(node->waiting, {});
            for (const SimulatedRelay::Entry &entry : waiting)
                deliver_change(*node, entry);
        }
    }

    // The seconds for which the relay timer of that node was started last.
    static uint64_t relay_period(const Node &node) {
        return recording::started_with(timer_of(node, DS_GLOBAL_SLOT_RELAY_RESTART_TIMER)).seconds;
    }

    // ---- clients ----

    Client new_client_on(Node &node, long pid, const std::string &name = "agent") {
        enter(node);
        const uint64_t handle = next_handle_++;
        return {&node, new_client(handle, pid, name), handle};
    }
    void publish_by(const Client &client, const PublishInfoBuilder &info) {
        enter(*client.node);
        EXPECT_EQ(publish(client.record, info), 0);
        carry_from(*client.node);
    }
    void withdraw_by(const Client &client, const char *name, uint32_t scope, const char *instance) {
        enter(*client.node);
        EXPECT_EQ(withdraw(client.record, name, scope, instance), 0);
        carry_from(*client.node);
    }
    void leaves(const Client &client) {
        enter(*client.node);
        EXPECT_EQ(ds_db_delete_client(client.record), 0);
        carry_from(*client.node);
    }
    // Registers as a host does: what is there already is told at once.
    void watch_by(const Client &client, const char *name) {
        enter(*client.node);
        ds_client_reg_t *reg = watch(client.record, name);
        ds_notify_client(reg, reg->selem);
        carry_from(*client.node);
    }
    Client new_watcher_on(Node &node, const char *name) {
        const Client client = new_client_on(node, 900 + node.octet, "watch");
        watch_by(client, name);
        return client;
    }

    // ---- views ----

    // What the client was told since it was asked last: the endpoints of each message in order,
    // "deleted" for slot 45 and "empty" for a message without endpoints.
    std::string news(const Client &client) {
        std::string result;
        for (size_t index = read_[client.handle]; index < sent.size(); ++index) {
            const SentMessage &message = sent[index];
            if (message.slot == DS_GLOBAL_SLOT_NOTIFY_HOOK || message.client_hdl != client.handle)
                continue;
            result += (result.empty() ? "" : "; ") + text_of(message);
        }
        read_[client.handle] = sent.size();
        return result;
    }

    // Whether each message about the name, from the first with the endpoint on, has the endpoint.
    bool saw_no_gap(const Client &client, uint8_t last, const std::string &name = "web") const {
        bool is_seen = false;
        for (const SentMessage &message : sent) {
            if (message.slot == DS_GLOBAL_SLOT_NOTIFY_HOOK || message.name != name ||
                message.client_hdl != client.handle)
                continue;
            const bool has_it =
                std::any_of(message.entries.begin(), message.entries.end(),
                            [&](const auto &entry) { return entry.ep_addr[4] == last; });
            if (is_seen && !has_it) return false;
            is_seen = is_seen || has_it;
        }
        return is_seen;
    }

    // "endpoint@node" of every instance that the node shows for the name, in order of text.
    std::string visible(Node &node, const char *name) {
        Lines lines;
        for (const ds_service_t *service : records(node, name))
            if (service->proc_id != DS_PROC_ID_FROM_DSR)
                lines.push_back(std::to_string(service->publish_info->entries[0].ep_addr[4]) + "@" +
                                std::to_string(service->node->addr[5]));
        return sorted_text(lines);
    }
    // The same on every node, or what differs.
    std::string visible_everywhere(const char *name) {
        const std::string first = visible(*nodes_.front(), name);
        for (const auto &node : nodes_)
            if (const std::string other = visible(*node, name); other != first)
                return first + " but on node " + std::to_string(node->octet) + " " + other;
        return first;
    }
    // Every record of the name, placeholders too, newest first.
    std::vector<ds_service_t *> records(Node &node, const char *name) {
        enter(node);
        ds_service_elem_t *selem = nullptr;
        ds_db_find_service_element(name, &selem);
        return services_of(selem);
    }
    // "name endpoint@node vVersion" of every entry, in order of text.
    std::string relay_holds() const {
        Lines lines;
        for (const SimulatedRelay::Entry &entry : relay.entries())
            lines.push_back(
                entry.update.service_name + "," + std::to_string(entry.update.endpoint[4]) + "@" +
                std::to_string(entry.origin) + ",v" + std::to_string(entry.update.version));
        return sorted_text(lines);
    }
    static ds_db_t *db_of(const Node &node) {
        return reinterpret_cast<ds_db_t *>(node.block.slot[DS_GLOBAL_SLOT_DB]);
    }
    static std::array<uint8_t, 6> address_of(uint8_t octet) { return {2, 0, 0, 0, 0, octet}; }

    SimulatedRelay relay;
    Node *one = nullptr;
    Node *two = nullptr;
    Node *three = nullptr;

  private:
    static mgd_timer_t *timer_of(const Node &node, uint32_t slot) {
        return reinterpret_cast<mgd_timer_t *>(node.block.slot[slot]);
    }
    static bool is_running(const Node &node, uint32_t slot) {
        const mgd_timer_t *timer = timer_of(node, slot);
        return timer != nullptr && recording::is_running(timer);
    }

    void begin_life(Node &node) {
        node.block = globals; // for the callbacks
        node.block.slot[DS_GLOBAL_SLOT_DB] = 0;
        node.block.slot[DS_GLOBAL_SLOT_LOCAL_NODE] = 0;
        ds_globals_set(&node.block);
        EXPECT_EQ(ds_db_init(), 0);
        node.self = new_node(node.octet);
        node.block.slot[DS_GLOBAL_SLOT_LOCAL_NODE] = reinterpret_cast<uint64_t>(node.self);
        // Each life is a process of its own, so its service ids are its own.
        db_of(node)->next_service_id = ++lives_ << 16;
    }

    void say_connected(Node &node) {
        relay.node_connects(node.octet);
        node.is_connected = true;
        enter(node);
        EXPECT_EQ(dsr_connect_cb(), 0);
        carry_from(node);
    }

    void replay_others(Node &node) {
        node.waiting.clear();
        for (const SimulatedRelay::Entry &entry : relay.entries())
            if (entry.origin != node.octet) {
                EXPECT_EQ(deliver_to(node, entry, DSR_ADD), 0);
            }
    }

    // Hands what the node has just sent to the relay, and on to the others.
    void carry_from(Node &node) {
        const std::vector<recording::SentUpdate> updates = recording::sent_updates();
        recording::clear_calls();
        for (const recording::SentUpdate &update : updates) {
            EXPECT_TRUE(node.is_connected) << "sent without a relay";
            if (!relay.take(node.octet, update)) continue;
            for (const auto &other : nodes_)
                if (other.get() != &node && other->is_connected)
                    deliver_live(*other, {node.octet, update, false, false});
        }
    }

    void deliver_live(Node &node, const SimulatedRelay::Entry &entry) {
        if (is_running(node, DS_GLOBAL_SLOT_RELAY_RESTART_TIMER))
            node.waiting.push_back(entry);
        else
            deliver_change(node, entry);
    }

    // A node that never had the entry, as after a late connection, refuses its deletion.
    void deliver_change(Node &node, const SimulatedRelay::Entry &entry) {
        const bool is_vain = entry.update.operation == DSR_DELETE && !has_record_of(node, entry);
        EXPECT_EQ(deliver_to(node, entry, entry.update.operation), is_vain ? -1 : 0);
    }

    bool has_record_of(Node &node, const SimulatedRelay::Entry &entry) {
        for (const ds_service_t *service : records(node, entry.update.service_name.c_str()))
            if (service->service_id == entry.update.service_id &&
                service->node->addr[5] == entry.origin)
                return true;
        return false;
    }

    int deliver_to(Node &node, const SimulatedRelay::Entry &entry, uint32_t operation) {
        const recording::SentUpdate &update = entry.update;
        const auto sender = address_of(entry.origin);
        enter(node);
        const int result = dsr_receive_cb(
            operation, sender.data(), update.service_name.c_str(), update.service_id,
            update.has_instance ? update.instance.c_str() : nullptr, update.scope, update.pid,
            update.version, update.endpoint.data(), update.endpoint.size(),
            update.attributes.data(), update.attributes.size());
        carry_from(node);
        return result;
    }

    static std::string text_of(const SentMessage &message) {
        if (message.slot == DS_GLOBAL_SLOT_CLIENT_DELETE) return "deleted";
        if (message.entries.empty()) return "empty";
        std::string text = "have";
        for (const SentMessage::Entry &entry : message.entries)
            text += " " + std::to_string(entry.ep_addr[4]);
        return text;
    }

    static std::string sorted_text(Lines lines) {
        std::sort(lines.begin(), lines.end());
        std::string text;
        for (const std::string &line : lines)
            text += (text.empty() ? "" : " ") + line;
        return text;
    }

    std::vector<std::unique_ptr<Node>> nodes_;
    std::vector<ds_db_t *> ended_databases_;
    std::map<uint64_t, size_t> read_;
    uint64_t next_handle_ = 0x1000;
    uint32_t lives_ = 0;
};

// One instance as every story publishes it: replicated, told apart by its instance text.
inline PublishInfoBuilder instance_of(const std::string &name, const std::string &instance,
                                      uint8_t last, uint32_t scope = DS_SCOPE_SYSTEM) {
    return one_endpoint(name, scope, last).instance(instance);
}
