// The engine that replicates through an etcd cluster.
//
// It runs on the io_context that it is given, which the daemon's thread runs; all its functions
// belong to that thread. When it is destroyed everything under way is abandoned, and nothing is
// reported any more; the store then sees a daemon that was killed.
#pragma once
#include <functional>
#include <memory>

#include "relay/engine.h"
#include "relay/etcd/config.h"

namespace boost::asio {
class io_context;
}

namespace ds::relay {

namespace etcd {
struct Core;
}

class EtcdEngine final : public Engine {
  public:
    // Throws std::exception when the configuration is of no use or a certificate cannot be read;
    // its text is one sentence. `io` outlives the engine.
    EtcdEngine(boost::asio::io_context &io, EtcdConfig config, EtcdHooks hooks = {});
    ~EtcdEngine() override;
    EtcdEngine(const EtcdEngine &) = delete;
    EtcdEngine &operator=(const EtcdEngine &) = delete;

    const char *name() const override { return "etcd"; }
    bool is_replicating() const override { return true; }
    void start(Events &events) override;

    // 0 from connected() to disconnected(), also while the store cannot be reached for a moment:
    // what was sent is then written later. -1 outside that time and for updates that no node would
    // accept; these are counted as refused.
    int send(const dsr_update_t &update) override;

    // Withdraws this node and all its entries from the store, or writes what is waiting and leaves
    // everything to the daemon that is started next, for as long as the TTL. Takes no longer than
    // three call deadlines, then calls `done`; from then on the engine reports nothing more. send()
    // takes nothing from now on.
    void stop(bool keep_published, std::function<void()> done);

    EngineStatus status() const override;
    std::vector<NodeStatus> nodes_behind(const NodeAddress &after,
                                         std::size_t count) const override;

  private:
    std::shared_ptr<etcd::Core> core_;
};

} // namespace ds::relay
