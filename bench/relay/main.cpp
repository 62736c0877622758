// bench_relay: what replication through etcd costs, beside a bare client of the same store.
//
// It starts etcd and the daemons itself, on ports and sockets of their own and with data in the
// temporary directory, and prints medians with the range of the runs. The goals are printed, not
// enforced: on a machine that others use a single run says little.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "bench/relay/scenarios.h"

namespace {

using namespace ds::bench;
using namespace ds::bench::replication;
using Settings = ds::bench::replication::Options;

struct Scenario {
    const char *name;
    void (*measure)(const Settings &options, Figures &figures);
};

constexpr Scenario scenarios[] = {
    {"latency", measure_latency}, {"bulk", measure_bulk},     {"changes", measure_changes},
    {"streams", measure_streams}, {"memory", measure_memory}, {"death", measure_death},
    {"idle", measure_idle},
};

void measure(const Settings &options, const std::vector<std::string> &only, Figures &figures) {
    for (const Scenario &scenario : scenarios) {
        const bool is_wanted =
            only.empty() || std::find(only.begin(), only.end(), scenario.name) != only.end();
        if (!is_wanted) continue;
        std::fprintf(stderr, "bench_relay: %s\n", scenario.name);
        scenario.measure(options, figures);
    }
}

void add_options(CLI::App &app, Settings &options) {
    app.add_option("--runs", options.runs, "Runs of each measurement")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    app.add_option("--secs", options.seconds, "Seconds of one run")
        ->check(CLI::Range(0.01, 600.0))
        ->capture_default_str();
    app.add_option("--services", options.services, "Services of bulk, memory and idle")
        ->check(CLI::Range(1, 400'000))
        ->capture_default_str();
    app.add_option("--idle-secs", options.idle_seconds, "Seconds of each of the four idle times")
        ->check(CLI::Range(1.0, 3600.0))
        ->capture_default_str();
    app.add_option("--daemon", options.daemon, "The daemon to measure")
        ->check(CLI::ExistingFile)
        ->capture_default_str();
    app.add_option("--etcd", options.store, "The etcd to use")->capture_default_str();
}

} // namespace

int main(int argc, char **argv) {
    Settings options;
    std::vector<std::string> only;
    std::string json;
    options.daemon = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "dsd";

    std::vector<std::string> names;
    for (const Scenario &scenario : scenarios)
        names.emplace_back(scenario.name);
    CLI::App app("bench_relay - what replication through etcd costs.", "bench_relay");
    add_options(app, options);
    app.add_option("--only", only,
                   "Only these: latency, bulk, changes, streams, memory, death, idle")
        ->delimiter(',')
        ->check(CLI::IsMember(names));
    app.add_option("--json", json, "Write the results to this file, too")->type_name("FILE");
    CLI11_PARSE(app, argc, argv);

    Figures figures("replicated", "bare etcd");
    try {
        measure(options, only, figures);
        figures.print(stdout);
        if (!json.empty()) figures.write_json(json);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "bench_relay: %s\n", error.what());
        return 1;
    }
    return 0;
}
