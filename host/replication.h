// The engine that the configuration asks for, and how it shares the daemon's thread with the loop.
#pragma once
#include <functional>
#include <memory>

#include "host/config.h"
#include "host/loop.h"
#include "relay/engine.h"

namespace ds::host {

class Replication {
  public:
    // Throws StartError when the configuration is of no use to the engine.
    Replication(Loop &loop, const Config &config);
    ~Replication();
    Replication(const Replication &) = delete;
    Replication &operator=(const Replication &) = delete;

    relay::Engine &engine();
    // Asked by the engine: whether entries of this node are to be replayed.
    void replay_while(std::function<bool()> is_own_period_open);

    // The loop's turns and the engine's work, until the loop is stopped. Throws StartError when the
    // engine finds another daemon that uses this node's address.
    void run();
    // Lets go of the store: withdraws what this node has published, or leaves it to the next
    // daemon.
    void end(bool keep_published);

  private:
    struct WithStore;

    Loop &loop_;
    std::function<bool()> is_own_period_open_;
    std::unique_ptr<relay::Engine> none_;
    std::unique_ptr<WithStore> with_store_; // null without a relay
};

} // namespace ds::host
