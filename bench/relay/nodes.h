// Daemons that replicate through a store, and what clients do on them.
#pragma once
#include <memory>
#include <string>
#include <vector>

#include "bench/daemon/link.h"
#include "bench/daemon/server_process.h"
#include "bench/relay/gateway.h"
#include "bench/relay/scenarios.h"

namespace ds::bench::replication {

inline constexpr const char *cluster = "bench";
// Of the bare side: as long as the cluster's, so that its keys are as long.
inline constexpr const char *other_cluster = "other";

// A daemon with that number as its address. An empty endpoint: without replication.
std::unique_ptr<ServerProcess> start_node(const Options &options, const std::string &endpoint,
                                          int number);

// Two nodes that were seen to replicate from the first to the second.
struct Pair {
    Pair(const Options &options, const Store &store);

    std::unique_ptr<ServerProcess> sender, receiver;
};

// The services of the cluster in the store, under the keys of the other cluster.
std::vector<etcd::KeyValue> entries_for_bare_side(Gateway &gateway);
etcd::KeyRange entries_of(const std::string &cluster_name);

// As Link::take() with waiting, but throws after a minute without anything.
void await_events(Link &link, const std::function<void(const v1::Event &)> &function);

// Registers, and returns when the answer and the first notification are there.
void register_for(Link &link, const std::vector<std::string> &names);

// Until the name has an instance.
void await_publication(Link &link);

v1::StatusReply status_of(Link &link);

} // namespace ds::bench::replication
