// The one source of chance. A generator that is forked gives numbers of its own, which the use of
// the others does not move; so a plan that lost an operation plays the rest of it as before.
#pragma once
#include <cstdint>

namespace ds::sim {

class Random {
  public:
    explicit Random(std::uint64_t seed) : state_(seed) {}

    std::uint64_t next() {
        state_ += 0x9e3779b97f4a7c15u;
        return scrambled(state_);
    }
    // 0 to bound - 1; 0 for a bound of 0. The standard's distributions differ between libraries.
    std::uint64_t below(std::uint64_t bound) { return ((next() >> 32) * bound) >> 32; }
    std::uint64_t between(std::uint64_t low, std::uint64_t high) {
        return low + below(high - low + 1);
    }
    bool chance(std::uint32_t per_mille) { return below(1000) < per_mille; }

    Random fork(std::uint64_t label) const { return Random(scrambled(state_ ^ scrambled(label))); }

    static std::uint64_t scrambled(std::uint64_t value) {
        value += 0x9e3779b97f4a7c15u;
        value = (value ^ value >> 30) * 0xbf58476d1ce4e5b9u;
        value = (value ^ value >> 27) * 0x94d049bb133111ebu;
        return value ^ value >> 31;
    }

  private:
    std::uint64_t state_;
};

} // namespace ds::sim
