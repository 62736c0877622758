// Time stamps: nanoseconds of the monotonic clock.
#include "platform/fts.h"
#include <ctime>

uint64_t fts_get_stamp_fast(void) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}
