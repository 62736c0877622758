// Stands in for the directory of one node: sends what it publishes, keeps what it is told of other
// nodes, and does what the directory does with it.
//
//   connected        sends everything, unless its restart period is open
//   disconnected     keeps the services of other nodes, marked
//   listed           drops those that are still marked
//   an own entry     in its restart period: remembered as replayed; outside: bounced with a
//   deletion
#pragma once
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "relay/engine.h"
#include "relay/update.h"

namespace relay_test {

class DirectoryDouble final : public ds::relay::Events {
  public:
    explicit DirectoryDouble(const ds::relay::NodeAddress &node) : node_(node) {}
    DirectoryDouble(const DirectoryDouble &) = delete;
    DirectoryDouble &operator=(const DirectoryDouble &) = delete;

    void use(ds::relay::Engine *engine) { engine_ = engine; }

    // ---- what its clients do ----
    void publish(const ds::relay::Update &update); // again: a change
    void withdraw(const std::string &name, std::uint32_t id);
    // Ends the restart period: what was published is sent, what was only replayed is withdrawn.
    void end_own_period();
    bool is_own_period_open = false;

    // ---- what it knows ----
    // "name;instance@node vN" of every service of another node, in order.
    std::string seen() const;
    std::string replayed() const; // "name" of own entries, in order
    // Names of what happened, without the updates: "connected", "listed", "disconnected", "down 2".
    std::string events() const;
    bool is_connected() const { return is_connected_; }
    bool is_listed() const { return is_listed_; }
    std::size_t count(const std::string &event) const;
    // Versions received for that name, in order.
    std::vector<std::uint32_t> versions(const std::string &name) const;
    // "add", "modify" and "delete" received since the last call, with name and version.
    std::string take_updates() { return std::exchange(updates_, {}); }
    int bounces() const { return bounces_; }

    // ---- Events ----
    void connected() override;
    void disconnected() override;
    void received(const ds::relay::NodeAddress &sender, const dsr_update_t &update) override;
    void listed() override;
    void node_down(const ds::relay::NodeAddress &node) override;

  private:
    using Key = std::pair<std::string, std::uint32_t>; // name and id
    struct Service {
        ds::relay::Update update;
        bool is_marked = false;
    };

    void send(const ds::relay::Update &update);
    void receive_own(const ds::relay::Update &update);

    ds::relay::NodeAddress node_;
    ds::relay::Engine *engine_ = nullptr;
    bool is_connected_ = false;
    bool is_listed_ = false;
    std::map<Key, ds::relay::Update> published_;
    std::map<Key, ds::relay::Update> replayed_;
    std::map<std::pair<ds::relay::NodeAddress, Key>, Service> remote_;
    std::vector<std::string> events_;
    std::vector<std::pair<std::string, std::uint32_t>> versions_;
    std::string updates_;
    int bounces_ = 0;
};

} // namespace relay_test
