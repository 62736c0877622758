// How the store and the library know the nodes and racks of a world.
#pragma once
#include <string>

#include "relay/etcd/keys.h"

namespace ds::sim {

inline relay::NodeAddress address_of(int node) {
    return {0x02, 0, 0, 0, static_cast<std::uint8_t>(node >> 8), static_cast<std::uint8_t>(node)};
}

inline int node_of(const relay::NodeAddress &address) {
    return address[4] << 8 | address[5];
}

inline std::string rack_text(int rack) {
    return "r" + std::to_string(rack);
}

inline relay::etcd::Keys keys_in(int rack) {
    return {"sim", rack_text(rack)};
}

} // namespace ds::sim
