#include "sim/faults/fault_mix.h"

#include <algorithm>

namespace ds::sim {

namespace {

constexpr Time shortest = 100 * ms;

// Most faults are short against the periods, some are as long, some longer.
Time some_length(Random &random, Time most) {
    const std::uint64_t kind = random.below(10);
    const Time length = kind < 4   ? random.between(shortest, 3 * second)
                        : kind < 7 ? random.between(3 * second, 12 * second)
                                   : random.between(12 * second, 45 * second);
    return std::min(length, most);
}

class FaultPlanner {
  public:
    FaultPlanner(Planner &planner, const FaultMix &mix, Time end)
        : planner_(planner), random_(planner.random.fork(0xfa)), mix_(mix), end_(end) {}

    void run(Time begin) {
        const std::uint32_t weights = mix_.daemon_kills + mix_.daemon_stops + mix_.machine_halts +
                                      mix_.freezes + mix_.partitions + mix_.store_outages +
                                      mix_.store_wipes + mix_.memory;
        if (weights == 0) return;
        for (Time at = next(begin); at + shortest < end_; at = next(at))
            add_one(at, static_cast<std::uint32_t>(random_.below(weights)));
    }

  private:
    Time next(Time at) { return at + 10 * ms + random_.below(2 * mix_.mean_interval / ms) * ms; }

    bool takes(std::uint32_t &drawn, std::uint32_t weight) {
        if (drawn < weight) return true;
        drawn -= weight;
        return false;
    }

    void add_one(Time at, std::uint32_t drawn) {
        const Time length = some_length(random_, end_ - at);
        const auto length_ms = static_cast<std::uint32_t>(length / ms);
        const std::uint32_t node =
            static_cast<std::uint32_t>(random_.below(planner_.settings().nodes));
        if (takes(drawn, mix_.daemon_kills))
            planner_.add({at, Kind::kill_daemon, node, short_or(length_ms)});
        else if (takes(drawn, mix_.daemon_stops))
            planner_.add(
                {at, Kind::stop_daemon, node, short_or(length_ms), random_.chance(500) ? 1u : 0u});
        else if (takes(drawn, mix_.machine_halts))
            planner_.add({at, Kind::halt_machine, node, random_.chance(50) ? 0 : length_ms + 500});
        else if (takes(drawn, mix_.freezes))
            planner_.add({at, Kind::freeze, node, length_ms});
        else if (takes(drawn, mix_.partitions))
            planner_.add({at, Kind::partition, node, length_ms, random_.chance(500) ? 1u : 0u});
        else if (takes(drawn, mix_.store_outages))
            add_store_outage(at, length, length_ms);
        else if (takes(drawn, mix_.store_wipes))
            planner_.add({at, Kind::store_wipe});
        else
            planner_.add({at, Kind::lack_memory, node, length_ms,
                          static_cast<std::uint32_t>(random_.between(2, 60))});
    }

    // A service manager starts the next one at once.
    std::uint32_t short_or(std::uint32_t length_ms) {
        return random_.chance(600) ? static_cast<std::uint32_t>(random_.below(400)) : length_ms;
    }

    // Often a second one in the same period.
    void add_store_outage(Time at, Time length, std::uint32_t length_ms) {
        planner_.add({at, Kind::store_outage, 0, length_ms});
        if (!random_.chance(300)) return;
        const Time again = at + length + random_.below(20'000) * ms;
        if (again + shortest >= end_) return;
        const Time second_length = some_length(random_, end_ - again);
        planner_.add(
            {again, Kind::store_outage, 0, static_cast<std::uint32_t>(second_length / ms)});
    }

    Planner &planner_;
    Random random_;
    const FaultMix mix_;
    const Time end_;
};

} // namespace

void plan_faults(Planner &planner, const FaultMix &mix, Time begin, Time end) {
    planner.random.next(); // each phase has faults of its own
    FaultPlanner(planner, mix, end).run(begin);
}

} // namespace ds::sim
