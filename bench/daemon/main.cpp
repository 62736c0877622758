// dsbench: load on the daemon over real sockets, beside a server that does the same work without a
// directory.
//
// It starts the servers itself, alternates between them and prints medians with the range of the
// runs. The goals are printed, not enforced: on a machine that others use a single run says little.
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "scenarios.h"

namespace {

using namespace ds::bench;

struct Scenario {
    const char *name;
    void (*measure)(const Options &options, Figures &figures);
};

constexpr Scenario scenarios[] = {
    {"round_trip", measure_round_trip}, {"pipelined", measure_pipelined},
    {"fan_out", measure_fan_out},       {"memory", measure_memory},
    {"fairness", measure_fairness},
};

// A thousand sessions need more descriptors than a shell allows by default, on both sides.
void raise_descriptor_limit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void measure(const Options &options, const std::vector<std::string> &only, Figures &figures) {
    for (const Scenario &scenario : scenarios) {
        const bool is_wanted =
            only.empty() || std::find(only.begin(), only.end(), scenario.name) != only.end();
        if (!is_wanted) continue;
        std::fprintf(stderr, "dsbench: %s\n", scenario.name);
        scenario.measure(options, figures);
    }
}

} // namespace

int main(int argc, char **argv) {
    Options options;
    std::vector<std::string> only;
    std::string json;
    const std::filesystem::path here =
        std::filesystem::read_symlink("/proc/self/exe").parent_path();
    options.programs = {here / "dsd", here / "ds_null_server"};

    std::vector<std::string> names;
    for (const Scenario &scenario : scenarios)
        names.emplace_back(scenario.name);
    CLI::App app("dsbench - load on the daemon over real sockets.", "dsbench");
    app.add_option("--runs", options.runs, "Runs of each measurement")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    app.add_option("--secs", options.seconds, "Seconds of one run")
        ->check(CLI::Range(0.01, 600.0))
        ->capture_default_str();
    app.add_option("--only", only, "Only these: round_trip, pipelined, fan_out, memory, fairness")
        ->delimiter(',')
        ->check(CLI::IsMember(names));
    app.add_option("--watchers", options.watchers, "Audiences of fan_out")
        ->delimiter(',')
        ->check(CLI::Range(1, 20000))
        ->capture_default_str();
    app.add_option("--json", json, "Write the results to this file, too")->type_name("FILE");
    app.add_option("--daemon", options.programs.daemon, "The daemon to measure")
        ->check(CLI::ExistingFile)
        ->capture_default_str();
    app.add_option("--null-server", options.programs.null_server, "The server to compare with")
        ->check(CLI::ExistingFile)
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    raise_descriptor_limit();
    Figures figures;
    try {
        measure(options, only, figures);
        figures.print(stdout);
        if (!json.empty()) figures.write_json(json);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "dsbench: %s\n", error.what());
        return 1;
    }
    return 0;
}
