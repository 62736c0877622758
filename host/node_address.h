// The Ethernet address that identifies a node.
#pragma once
#include <optional>
#include <string>
#include <string_view>

#include "relay/node_address.h"

namespace ds::host {

using relay::NodeAddress;

// "aa:bb:cc:dd:ee:ff" in either case; nothing for any other text and for the all-zero address.
std::optional<NodeAddress> parse_node_address(std::string_view text);
std::string node_address_text(const NodeAddress &address);

// Of the first network interface that has an Ethernet address and is not a loopback;
// 02:00:00:00:00:01 on a host without one.
NodeAddress first_ethernet_address();

} // namespace ds::host
