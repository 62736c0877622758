// The engine of a node that replicates with nobody: services of every scope stay on this node.
#pragma once
#include <cstdint>

#include "relay/engine.h"

namespace ds::relay {

class NoEngine final : public Engine {
  public:
    const char *name() const override { return "none"; }
    bool is_replicating() const override { return false; }
    void start(Events &) override {}
    int send(const dsr_update_t &update) override;

    std::uint64_t updates_dropped() const { return updates_dropped_; }

  private:
    std::uint64_t updates_dropped_ = 0;
};

} // namespace ds::relay
