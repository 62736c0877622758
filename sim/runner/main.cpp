// ds_sim: runs simulated clusters, seed by seed.
//
// Exit status: 0 all is well, 1 wrong, 2 usage, 3 crash, 4 stuck.
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "sim/runner/batch.h"
#include "sim/runner/options.h"
#include "sim/runner/reduce.h"
#include "sim/runner/self_test.h"
#include "sim/workloads/scenario.h"

namespace ds::sim {
namespace {

std::vector<Job> jobs_of(const Options &options) {
    const auto all = scenarios_of(Role::workload);
    std::vector<Job> jobs;
    for (std::uint64_t i = 0; i < options.seeds; i++) {
        Job job;
        job.scenario =
            options.scenario == "all" ? all[i % all.size()]->name : options.scenario.c_str();
        job.settings = options.settings;
        job.settings.scenario = job.scenario;
        job.settings.seed = options.first_seed + i;
        jobs.push_back(job);
    }
    return jobs;
}

void print(const Job &job, const Verdict &verdict) {
    std::printf("%-5s %s seed %" PRIu64, text_of(verdict.ending), job.scenario, verdict.seed);
    if (verdict.ending == Ending::good)
        std::printf(" hash %016" PRIx64 " events %" PRIu64, verdict.hash, verdict.events);
    else if (verdict.checker[0] != '\0')
        std::printf(" at %.3f s, %s: %s", static_cast<double>(verdict.failed_at) / 1e9,
                    verdict.checker, verdict.text);
    std::printf("\n");
    std::fflush(stdout);
}

std::string replay_command(const Options &options, const Job &job, const Reduced &reduced) {
    std::string command = options.program + " --scenario " + job.scenario + " --seed " +
                          std::to_string(job.settings.seed) + " --nodes " +
                          std::to_string(job.settings.nodes) + " --seconds " +
                          std::to_string(job.settings.duration / second);
    if (job.settings.flaw != Flaw::none)
        command += std::string(" --flaw ") + name_of(job.settings.flaw);
    command += " --only ";
    for (std::size_t i = 0; i < reduced.kept.size(); i++)
        command += (i == 0 ? "" : ",") + std::to_string(reduced.kept[i]);
    return command;
}

void explain(const Options &options, const Job &job, const Verdict &verdict) {
    const Plan plan = plan_of(job);
    const Reduced reduced = reduce(plan, verdict, options.seconds_max);
    std::printf("reduced from %zu to %zu operations in %" PRIu64 " runs:\n", plan.ops.size(),
                reduced.kept.size(), reduced.runs);
    for (const std::size_t i : reduced.kept)
        std::printf("  %4zu %s\n", i, text_of(plan.ops[i]).c_str());
    print(job, reduced.verdict);
    std::printf("replay: %s --trace\n", replay_command(options, job, reduced).c_str());
}

int status_of(Ending ending) {
    switch (ending) {
    case Ending::crashed:
        return 3;
    case Ending::stuck:
        return 4;
    case Ending::wrong:
        return 1;
    default:
        return 0;
    }
}

int run_one(const Options &options) {
    Job job;
    job.scenario = options.scenario.c_str();
    job.settings = options.settings;
    job.settings.scenario = job.scenario;
    job.settings.seed = options.first_seed;
    Plan plan = plan_of(job);
    if (!options.only.empty()) plan = plan_with(plan, options.only);
    if (options.prints_plan)
        for (std::size_t i = 0; i < plan.ops.size(); i++)
            std::printf("%4zu %s\n", i, text_of(plan.ops[i]).c_str());
    const Verdict verdict = run_here(plan, options.prints_trace);
    print(job, verdict);
    return status_of(verdict.ending);
}

int run_many(const Options &options) {
    const std::vector<Job> jobs = jobs_of(options);
    const auto begun = std::chrono::steady_clock::now();
    std::uint64_t done = 0, failures = 0;
    double virtual_s = 0;
    Verdict first;
    run_batch(jobs, options.jobs, options.seconds_max, [&](const Verdict &verdict) {
        done++;
        virtual_s += static_cast<double>(verdict.time) / 1e9;
        const bool is_good = verdict.ending == Ending::good;
        if (!is_good || options.prints_each) print(jobs[verdict.index], verdict);
        if (is_good) return true;
        if (failures++ == 0) first = verdict;
        return options.keeps_going;
    });
    const double took =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
    std::printf("sim: %s: %" PRIu64 " seeds, %" PRIu64 " failed, %.1f s: %.0f seeds/s, "
                "%.0f virtual s/s\n",
                options.scenario.c_str(), done, failures, took, static_cast<double>(done) / took,
                virtual_s / took);
    if (failures == 0) return 0;
    if (options.reduces) explain(options, jobs[first.index], first);
    return status_of(first.ending);
}

} // namespace
} // namespace ds::sim

int main(int argc, char **argv) {
    using namespace ds::sim;
    Options options;
    if (const auto status = parse_options(argc, argv, options)) return *status;
    if (options.is_self_test) return run_self_test(options);
    if (!options.hash_file.empty()) return check_hashes(options);
    return options.is_single ? run_one(options) : run_many(options);
}
