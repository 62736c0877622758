// An engine without a network, for tests: several of them in one process share a store and
// replicate with each other; outages, deaths and leftovers are scripted.
//
// Nothing happens by itself. What an engine has to report waits in its queue until turn() takes one
// step; FakeStore::settle() takes all steps of all engines. A host with a loop is woken through
// on_pending.
#pragma once
#include <compare>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "relay/engine.h"
#include "relay/update.h"

namespace ds::relay {

class FakeEngine;

// What all nodes share. Outlives the engines on it.
class FakeStore {
  public:
    struct Key {
        NodeAddress node = {};
        std::uint32_t scope = 0;
        std::uint32_t service_id = 0;
        std::string name;
        std::optional<std::string> instance;
        auto operator<=>(const Key &) const = default;
    };
    struct Entry {
        Update update;
        std::string rack; // of its node
    };

    // Takes steps until no engine has one to take.
    void settle();
    // Unreachable: every engine is disconnected until it is reachable again.
    void set_reachable(bool is_reachable);
    // Everything is gone, the nodes too; their engines put themselves and what they sent anew.
    void wipe();

    // A node without an engine of its own.
    void node_comes(const NodeAddress &node, const std::string &rack);
    // The node is gone, and with it its entries.
    void node_goes(const NodeAddress &node);
    // Writes or removes an entry as that node would.
    void apply(const NodeAddress &node, const Update &update);

    std::vector<Update> entries_of(const NodeAddress &node) const;

  private:
    friend class FakeEngine;

    void tell_others(const NodeAddress &node, const std::string &rack, const Update &update);

    std::map<NodeAddress, std::string> racks_; // of the nodes that are alive
    std::map<Key, Entry> entries_;
    std::set<FakeEngine *> engines_;
    bool is_reachable_ = true;
};

class FakeEngine final : public Engine {
  public:
    FakeEngine(FakeStore &store, const NodeAddress &node, std::string rack = "default");
    // As a killed daemon: its key stays until the store is told that the node went, unless
    // withdraw() was called.
    ~FakeEngine() override;
    FakeEngine(const FakeEngine &) = delete;
    FakeEngine &operator=(const FakeEngine &) = delete;

    const char *name() const override { return "fake"; }
    bool is_replicating() const override { return true; }
    void start(Events &events) override;
    int send(const dsr_update_t &update) override;

    // Takes one step; false when there is none.
    bool turn();
    // The node goes for good, and what it published with it.
    void withdraw();

    // Called when there is a step to take where there was none. Null: nobody.
    std::function<void()> on_pending;

    // All that was taken by send(), in order.
    const std::vector<Update> &sent() const { return sent_; }
    bool is_connected() const { return is_connected_; }

  private:
    friend class FakeStore;
    using Step = std::function<void()>;

    void add(Step step);
    void connect();
    void lose_connection();
    void list();
    bool sees(const std::string &rack, const Update &update) const;

    FakeStore &store_;
    const NodeAddress node_;
    const std::string rack_;
    Events *events_ = nullptr;
    bool is_connected_ = false;
    std::deque<Step> steps_;
    std::map<FakeStore::Key, Update> wishes_; // sent since the connection began
    std::vector<Update> sent_;
};

} // namespace ds::relay
