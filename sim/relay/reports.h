// What an engine tells its daemon, on its way there: now and then a change comes twice, as the seam
// allows. Where something is broken on purpose, it is broken here.
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

    Reports(const relay::NodeAddress &self, const Settings &settings, Random random, Later later)
        : self_(self), settings_(settings), random_(random), later_(std::move(later)) {}

    void start(relay::Events &events) { events_ = &events; }
    // What is to be told twice belongs to a connection that has ended.
    void connection_ended() { repeats_.clear(); }

    void connected() override { events_->connected(); }
    void disconnected() override { events_->disconnected(); }
    void listed() override { events_->listed(); }
    void received(const relay::NodeAddress &sender, const dsr_update_t &update) override;
    void node_down(const relay::NodeAddress &node) override;

  private:
    // Sender, service id, name and instance.
    using Key = std::tuple<relay::NodeAddress, std::uint32_t, std::string, std::string>;

    bool has_flaw(Flaw flaw) { return settings_.flaw == flaw && random_.chance(20); }
    void repeat(const Key &key, const dsr_update_t &update);

    const relay::NodeAddress self_;
    const Settings &settings_;
    Random random_;
    Later later_;
    relay::Events *events_ = nullptr;
    std::map<Key, relay::Update> repeats_; // what is to be told again if nothing newer comes
};

} // namespace ds::sim
