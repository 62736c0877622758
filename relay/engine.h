// The seam to a replication engine.
//
// The directory hands every update for other nodes to one engine; what an engine learns of other
// nodes it reports to its Events. Everything runs on the daemon's thread, and an engine never calls
// its Events from inside send() or start().
//
//   disconnected --connected()--> connected --received()...-- listed() --received()...--+
//        ^                                                                             |
//        +------------------------------ disconnected() ------------------------------+
//
// After connected() an engine delivers all that its store holds for this node to know, then says
// listed(), then goes on with what changes. Updates about one service arrive in the order in which
// its node sent them; a change may be delivered again, an older one never follows a newer. What has
// changed of a service that was delivered before an outage is delivered once more behind listed():
// in the list it only says that the service is still there.
#pragma once
#include <cstddef>
#include <vector>

#include "platform_default/platform_default.h"
#include "relay/node_address.h"
#include "relay/status.h"

namespace ds::relay {

// What an engine reports.
class Events {
  public:
    virtual void connected() = 0;
    virtual void disconnected() = 0;
    // An entry of `sender`. It may be this node's own: one that it published before it restarted,
    // or one that it no longer holds. The update is valid only during the call.
    virtual void received(const NodeAddress &sender, const dsr_update_t &update) = 0;
    // Everything that the store held at connected() has been received.
    virtual void listed() = 0;
    // The node is gone, and with it all that it published.
    virtual void node_down(const NodeAddress &node) = 0;

  protected:
    ~Events() = default;
};

class Engine {
  public:
    virtual ~Engine() = default;

    // What the status of the daemon shows, for example "none".
    virtual const char *name() const = 0;

    // Whether there are other nodes to replicate with at all.
    virtual bool is_replicating() const = 0;

    // Begins to connect; called once, before the daemon takes clients. `events` outlives the
    // engine's last report.
    virtual void start(Events &events) = 0;

    // Takes one update on its way out. What the update points to is valid only during the call.
    // 0 = taken, -1 = not taken; the directory does not ask again, so an engine that cannot send
    // now has to remember the update or to send everything anew later.
    virtual int send(const dsr_update_t &update) = 0;

    virtual EngineStatus status() const { return {}; }

    // Other nodes that are alive, by address: at most `count` of those behind `after`.
    virtual std::vector<NodeStatus> nodes_behind(const NodeAddress &after,
                                                 std::size_t count) const {
        return static_cast<void>(after), static_cast<void>(count), std::vector<NodeStatus>();
    }
};

} // namespace ds::relay
