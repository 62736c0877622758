// Time stamps: nanoseconds of CLOCK_MONOTONIC.
//
// A stamp is taken for every trace record and every change, so it has to cost less than a reading
// of the clock. Where the processor's cycle counter runs at one rate on all cores, the clock is
// read once in a while and the counter says how much time has passed since.
#include "platform/fts.h"
#include <cstdint>
#include <ctime>
#if defined(__x86_64__)
#include <cpuid.h>
#include <x86intrin.h>
#endif

namespace {

std::uint64_t read_clock() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000u +
           static_cast<std::uint64_t>(now.tv_nsec);
}

#if defined(__x86_64__)

constexpr std::uint64_t window_ticks = 1u << 23;       // a few milliseconds: then the clock is read
constexpr std::uint64_t measured_ticks_max = 1u << 30; // longer gaps may hold a suspension

// The last reading of the clock on this thread.
struct anchor {
    std::uint64_t ticks = 0;
    std::uint64_t ns = 0;
    std::uint64_t ns_per_tick = 0; // scaled by 2^32; 0 while it is not known
};
thread_local anchor last;

std::uint64_t since_anchor_ns(std::uint64_t ticks) {
    return (ticks * last.ns_per_tick) >> 32;
}

bool has_steady_counter() {
    constexpr unsigned power_leaf = 0x80000007, invariant_tsc = 1u << 8;
    unsigned a = 0, b = 0, c = 0, d = 0;
    return __get_cpuid(power_leaf, &a, &b, &c, &d) != 0 && (d & invariant_tsc) != 0;
}

// Reads the clock, and learns the counter's rate from the time since the reading before. A stamp
// never goes back behind one that was given out.
std::uint64_t read_clock_anew(std::uint64_t ticks) {
    static const bool is_steady = has_steady_counter();
    std::uint64_t ns = read_clock();
    if (!is_steady) return ns;
    const std::uint64_t elapsed = ticks - last.ticks;
    const bool is_first = last.ns == 0;
    if (!is_first && elapsed < window_ticks) return ns; // the rate is not known yet
    if (!is_first && elapsed < measured_ticks_max) {
        const std::uint64_t newest = last.ns + since_anchor_ns(window_ticks);
        if (ns < newest) ns = newest;
        last.ns_per_tick = ((ns - last.ns) << 32) / elapsed;
    }
    last.ticks = ticks;
    last.ns = ns;
    return ns;
}

#endif

} // namespace

uint64_t fts_get_stamp_fast(void) {
#if defined(__x86_64__)
    const std::uint64_t ticks = __rdtsc();
    const std::uint64_t elapsed = ticks - last.ticks;
    if (elapsed < window_ticks && last.ns_per_tick != 0) return last.ns + since_anchor_ns(elapsed);
    return read_clock_anew(ticks);
#else
    return read_clock();
#endif
}
