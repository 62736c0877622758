// How long to wait before the next attempt to connect.
//
// Each wait is drawn evenly from 0 to a bound that doubles with every attempt, so that many clients
// that lost their daemon in the same moment do not come back in the same moment.
#pragma once
#include <cstdint>

namespace ds::client {

class Backoff {
  public:
    // first_ms: 1 or more; max_ms: not below it. The same seed draws the same waits.
    Backoff(std::uint32_t first_ms, std::uint32_t max_ms, std::uint64_t seed)
        : first_ms_(first_ms), max_ms_(max_ms), bound_ms_(first_ms), random_(seed) {}

    std::uint32_t next_ms();
    // The next wait is one after a first failure again. The draws go on.
    void reset() { bound_ms_ = first_ms_; }
    std::uint32_t max_ms() const { return max_ms_; }

  private:
    std::uint32_t first_ms_;
    std::uint32_t max_ms_;
    std::uint32_t bound_ms_; // of the next wait
    std::uint64_t random_;
};

} // namespace ds::client
