#include "client/backoff.h"

#include <algorithm>

namespace ds::client {
namespace {

// A counter that is scrambled: every seed, also a small one, gives well-spread numbers.
std::uint64_t draw(std::uint64_t &state) {
    state += 0x9e3779b97f4a7c15u;
    std::uint64_t value = state;
    value = (value ^ value >> 30) * 0xbf58476d1ce4e5b9u;
    value = (value ^ value >> 27) * 0x94d049bb133111ebu;
    return value ^ value >> 31;
}

} // namespace

std::uint32_t Backoff::next_ms() {
    const auto wait_ms = static_cast<std::uint32_t>(draw(random_) % (std::uint64_t{bound_ms_} + 1));
    bound_ms_ = static_cast<std::uint32_t>(std::min<std::uint64_t>(2ull * bound_ms_, max_ms_));
    return wait_ms;
}

} // namespace ds::client
