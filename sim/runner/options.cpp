#include "sim/runner/options.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <map>
#include <sstream>

#include "sim/workloads/scenario.h"

namespace ds::sim {

namespace {

const std::map<std::string, Flaw> &flaws() {
    static const std::map<std::string, Flaw> all = {
        {"none", Flaw::none},
        {"engine-loses-update", Flaw::engine_loses_update},
        {"engine-reorders", Flaw::engine_reorders},
        {"engine-keeps-dead-nodes", Flaw::engine_keeps_dead_nodes},
        {"engine-forgets-write", Flaw::engine_forgets_write},
        {"host-never-ends-period", Flaw::host_never_ends_period},
        {"host-forgets-to-settle", Flaw::host_forgets_to_settle},
        {"host-loses-notification", Flaw::host_loses_notification},
        {"host-shows-old-snapshot", Flaw::host_shows_old_snapshot},
        {"host-drops-service", Flaw::host_drops_service},
        {"host-settles-early", Flaw::host_settles_early},
        {"host-keeps-departed", Flaw::host_keeps_departed},
        {"host-leaks", Flaw::host_leaks},
        {"library-loses-link", Flaw::library_loses_link},
        {"host-stands-still", Flaw::host_stands_still},
        {"host-loops", Flaw::host_loops},
        {"host-crashes", Flaw::host_crashes},
    };
    return all;
}

std::vector<std::size_t> numbers_in(const std::string &text) {
    std::vector<std::size_t> numbers;
    std::istringstream words(text);
    for (std::string word; std::getline(words, word, ',');)
        numbers.push_back(std::stoul(word));
    return numbers;
}

void list_scenarios() {
    for (const Scenario &scenario : scenarios())
        std::printf("%-24s %s\n", scenario.name, scenario.text);
}

} // namespace

const char *name_of(Flaw flaw) {
    for (const auto &[name, value] : flaws())
        if (value == flaw) return name.c_str();
    return "?";
}

std::optional<int> parse_options(int argc, char **argv, Options &options) {
    CLI::App app("Simulated clusters: years of faults in one process, the same for the same seed.");
    std::uint64_t seed = 0, seconds = options.settings.duration / second;
    std::string only, flaw = "none";
    bool lists = false;
    app.add_option("--scenario", options.scenario, "name, or all for each in turn");
    app.add_option("--seeds", options.seeds, "how many");
    app.add_option("--first", options.first_seed, "the first seed");
    app.add_option("--nodes", options.settings.nodes, "machines")->check(CLI::Range(2, 100));
    app.add_option("--seconds", seconds, "virtual time of work and faults");
    app.add_option("--jobs", options.jobs, "processes")->check(CLI::Range(1, 256));
    app.add_option("--timeout", options.seconds_max, "real seconds for one seed");
    auto *single = app.add_option("--seed", seed, "one seed, in this process");
    app.add_option("--only", only, "numbers of the operations to play, with --seed");
    app.add_option("--flaw", flaw, "something that is broken on purpose");
    app.add_flag("--trace", options.prints_trace, "print what happens, with --seed");
    app.add_flag("--plan", options.prints_plan, "print the operations, with --seed");
    app.add_flag("--each", options.prints_each, "print a line for each seed");
    app.add_flag("--keep-going", options.keeps_going, "do not stop at the first failure");
    app.add_flag("!--no-reduce", options.reduces, "do not look for a shorter failure");
    app.add_flag("--self-test", options.is_self_test, "each flaw is found by its checker");
    app.add_option("--check-hashes", options.hash_file, "compare with a file of hashes");
    app.add_flag("--list", lists, "list the scenarios");
    CLI11_PARSE(app, argc, argv);
    options.program = argv[0];
    options.settings.duration = seconds * second;
    options.is_single = single->count() != 0;
    if (options.is_single) options.first_seed = seed;
    options.only = numbers_in(only);
    if (lists) return list_scenarios(), 0;
    const bool is_known = find_scenario(options.scenario) != nullptr ||
                          (options.scenario == "all" && !options.is_single);
    if (!is_known || !flaws().contains(flaw)) {
        std::fprintf(stderr, "ds_sim: no such scenario or flaw; --list shows the scenarios\n");
        return 2;
    }
    options.settings.flaw = flaws().at(flaw);
    return std::nullopt;
}

} // namespace ds::sim
