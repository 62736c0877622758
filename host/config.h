// What the daemon is told at start.
#pragma once
#include <optional>
#include <string>

#include "host/node_address.h"

namespace ds::host {

struct Config {
    std::string runtime_dir;
    std::string socket;
    std::string trace_dir;
    NodeAddress node = {};
    bool console = false; // the library's console stream on stderr
};

enum ExitCode { exit_ok = 0, exit_failure = 1, exit_usage = 2 };

// Fills `config` from the command line. Nothing when the daemon should start, else the code to exit
// with: the help, the version or the complaint was printed.
std::optional<int> parse_command_line(int argc, const char *const *argv, Config &config);

const char *daemon_version();

} // namespace ds::host
