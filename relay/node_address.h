// The name of a node in the whole cluster.
#pragma once
#include <array>
#include <cstdint>

namespace ds::relay {

using NodeAddress = std::array<std::uint8_t, 6>; // Ethernet address

} // namespace ds::relay
