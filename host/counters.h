// What the daemon counts from its start on; told by the status request.
#pragma once
#include <cstdint>

namespace ds::host {

struct Counters {
    std::uint64_t publishes = 0;
    std::uint64_t withdrawals = 0;
    std::uint64_t notifications = 0; // handed to the kernel, wholly or begun
    std::uint64_t coalesced = 0;     // changes that a waiting notification covered
    std::uint64_t bad_frames = 0;
    std::uint32_t sessions_total = 0;
};

} // namespace ds::host
