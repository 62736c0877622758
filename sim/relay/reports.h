// What an engine tells its daemon, on its way there: noted for the checkers, and now and then a
// change comes twice, as the seam allows. Where something is broken on purpose, it is broken here.
#pragma once
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <tuple>

#include "relay/engine.h"
#include "relay/update.h"
#include "sim/base/random.h"
#include "sim/base/settings.h"

namespace ds::sim {

class Reports final : public relay::Events {
  public:
    // Calls the action in a turn of its own, unless the connection ends before.
    using Later = std::function<void(std::function<void()>)>;
    // Name, sender, pid, scope, instance. Not the id: for a moment a process may have two of them
    // for what the directory takes for one service.
    using Key =
        std::tuple<std::string, relay::NodeAddress, std::uint32_t, std::uint32_t, std::string>;
    // Told again if nothing newer comes; mostly nothing.
    using Told = std::optional<relay::Update>;

    Reports(const relay::NodeAddress &self, const Settings &settings, Random random, Later later)
        : self_(self), settings_(settings), random_(random), later_(std::move(later)) {}

    void start(relay::Events &events) { events_ = &events; }
    // What is to be told twice belongs to a connection that has ended.
    void connection_ended();

    // What was told of other nodes since connected(), and not taken back.
    const std::map<Key, Told> &told() const { return told_; }

    void connected() override;
    void disconnected() override { events_->disconnected(); }
    void listed() override { events_->listed(); }
    void received(const relay::NodeAddress &sender, const dsr_update_t &update) override;
    void node_down(const relay::NodeAddress &node) override;

  private:
    bool has_flaw(Flaw flaw) { return settings_.flaw == flaw && random_.chance(20); }
    void repeat(const Key &key, const dsr_update_t &update);

    const relay::NodeAddress self_;
    const Settings &settings_;
    Random random_;
    Later later_;
    relay::Events *events_ = nullptr;
    std::map<Key, Told> told_;
};

} // namespace ds::sim
