#include "sim/runner/self_test.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "sim/runner/verdict.h"
#include "sim/workloads/scenario.h"

namespace ds::sim {

namespace {

struct Expectation {
    Flaw flaw;
    const char *scenario;
    Ending ending;
    const char *checker; // null: the ending says it
};

constexpr Expectation expectations[] = {
    {Flaw::engine_loses_update, "steady", Ending::wrong, "convergence"},
    {Flaw::engine_reorders, "steady", Ending::wrong, "convergence"},
    {Flaw::engine_keeps_dead_nodes, "deaths", Ending::wrong, "dead node"},
    {Flaw::engine_forgets_write, "steady", Ending::wrong, "convergence"},
    {Flaw::host_never_ends_period, "restarts", Ending::wrong, "convergence"},
    {Flaw::host_forgets_to_settle, "restarts", Ending::wrong, "placeholder"},
    {Flaw::host_loses_notification, "steady", Ending::wrong, "newest"},
    {Flaw::host_shows_old_snapshot, "steady", Ending::wrong, "version"},
    {Flaw::host_drops_service, "steady", Ending::wrong, "continuity"},
    {Flaw::host_drops_service, "steady", Ending::wrong, "remote"},
    {Flaw::host_settles_early, "everything", Ending::wrong, "remote"},
    {Flaw::host_keeps_departed, "steady", Ending::wrong, "convergence"},
    {Flaw::host_leaks, "steady", Ending::wrong, "memory"},
    {Flaw::library_loses_link, "steady", Ending::wrong, "structure"},
    {Flaw::host_stands_still, "steady", Ending::stuck, nullptr},
    {Flaw::host_loops, "steady", Ending::stuck, nullptr},
    {Flaw::host_crashes, "steady", Ending::crashed, nullptr},
};

constexpr std::uint64_t seeds_max = 50;

bool is_found(const Expectation &expected, const Options &options) {
    const int seconds_max = expected.flaw == Flaw::host_loops ? 2 : options.seconds_max;
    for (std::uint64_t seed = 1; seed <= seeds_max; seed++) {
        Job job;
        job.scenario = expected.scenario;
        job.settings = options.settings;
        job.settings.scenario = expected.scenario;
        job.settings.seed = seed;
        job.settings.flaw = expected.flaw;
        const Verdict verdict = run_apart(plan_of(job), seconds_max);
        if (verdict.ending == Ending::good) continue;
        const bool is_expected =
            verdict.ending == expected.ending &&
            (expected.checker == nullptr || std::strcmp(verdict.checker, expected.checker) == 0);
        if (!is_expected) continue; // another checker was quicker
        std::printf("%-26s seed %3llu: %s %s %s\n", name_of(expected.flaw),
                    static_cast<unsigned long long>(seed), text_of(verdict.ending), verdict.checker,
                    verdict.text);
        return true;
    }
    std::printf("%-26s is not found by %s\n", name_of(expected.flaw),
                expected.checker != nullptr ? expected.checker : text_of(expected.ending));
    return false;
}

} // namespace

int run_self_test(const Options &options) {
    bool are_all_found = true;
    for (const Expectation &expected : expectations)
        are_all_found = is_found(expected, options) && are_all_found;
    return are_all_found ? 0 : 1;
}

int check_hashes(const Options &options) {
    std::ifstream file(options.hash_file);
    std::string name, recorded;
    std::uint64_t seed = 0;
    int compared = 0, different = 0;
    while (file >> name >> seed >> recorded) {
        if (find_scenario(name) == nullptr) return 2;
        Job job;
        job.scenario = name.c_str();
        job.settings = options.settings;
        job.settings.scenario = name;
        job.settings.seed = seed;
        char hash[17];
        std::snprintf(hash, sizeof hash, "%016" PRIx64, run_here(plan_of(job), false).hash);
        std::printf("%s %" PRIu64 " %s\n", name.c_str(), seed, hash);
        compared++;
        different += recorded != hash ? 1 : 0;
    }
    return compared == 0 || different != 0 ? 1 : 0;
}

} // namespace ds::sim
