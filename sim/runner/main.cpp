#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sim/workloads/scenario.h"
#include "sim/world/world.h"

using namespace ds::sim;

int main(int argc, char **argv) {
    const std::string name = argc > 1 ? argv[1] : "steady";
    const std::uint64_t first = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1;
    const std::uint64_t count = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 1;
    const bool is_verbose = argc > 4;
    const Scenario *scenario = find_scenario(name);
    for (std::uint64_t seed = first; seed < first + count; seed++) {
        Settings settings;
        settings.scenario = name;
        settings.seed = seed;
        const Plan plan = scenario->make(settings);
        World world(plan, is_verbose ? [](const std::string &line) { std::puts(line.c_str()); }
                                     : Trace::Sink());
        const Outcome outcome = world.run();
        if (outcome.violation || count < 10)
            std::printf("%s %llu hash %016llx events %llu turns %llu %s: %s at %.3f\n",
                        name.c_str(), (unsigned long long)seed, (unsigned long long)outcome.hash,
                        (unsigned long long)outcome.events, (unsigned long long)outcome.turns,
                        outcome.violation ? outcome.violation->checker.c_str() : "ok",
                        outcome.violation ? outcome.violation->text.c_str() : "",
                        outcome.violation ? double(outcome.violation->at) / 1e9 : 0.0);
    }
}
