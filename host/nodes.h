// The nodes of the cluster: those that the relay holds for alive, and those that the directory has
// heard of since its start.
#pragma once
#include <string>

#include "ds.pb.h"
#include "host/server.h"

namespace ds::host {

// Nodes of one page.
inline constexpr std::size_t nodes_max = 256;

// One page of nodes behind `after`, an address of 6 bytes; empty: from the first on.
void fill_nodes(Server &server, const std::string &after, v1::NodesReply &reply);

} // namespace ds::host
