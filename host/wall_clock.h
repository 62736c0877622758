// From the directory's stamps to the time of day.
#pragma once
#include <cstdint>
#include <ctime>

#include "platform/fts.h"

namespace ds::host {

inline std::uint64_t wall_now_ns() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 +
           static_cast<std::uint64_t>(now.tv_nsec);
}

// Nanoseconds since 1970 of a stamp, as the clock of the machine is set now; 0 for never.
class WallClock {
  public:
    std::uint64_t operator()(std::uint64_t stamp) const { return stamp == 0 ? 0 : stamp + offset_; }

  private:
    std::uint64_t offset_ = wall_now_ns() - fts_get_stamp_fast();
};

} // namespace ds::host
