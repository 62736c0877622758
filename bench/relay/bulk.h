// Many publications at once on one node.
#pragma once
#include "bench/relay/nodes.h"

namespace ds::bench::replication {

// Keeps the services published as long as it lives.
class Bulk {
  public:
    // Publishes with a few clients that do not wait for answers, and returns when every service has
    // reached the receiver. Both nodes are connected to the store.
    Bulk(const ServerProcess &sender, const ServerProcess &receiver, std::size_t services);

    // From the first request until the receiver had everything.
    double seconds() const { return seconds_; }

  private:
    std::vector<Link> publishers_;
    double seconds_ = 0;
};

// The same without a receiver: returns when all are published.
std::vector<Link> publish_all(const ServerProcess &server, std::size_t services);

} // namespace ds::bench::replication
