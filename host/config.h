// What the daemon is told at start: by its defaults, then by the configuration file, then by the
// command line; each overrides what comes before.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/limits.h"
#include "host/node_address.h"
#include "host/policy.h"

namespace ds::host {

// What was written on the command line. A socket that the service manager passes counts as written
// there: it is above the file.
struct CommandLine {
    std::optional<std::string> file;
    std::optional<std::string> runtime_dir;
    std::optional<std::string> socket;
    std::optional<std::string> trace_dir;
    std::optional<std::string> node_address;
    bool console = false;
    bool operator==(const CommandLine &) const = default;
};

// How services reach other nodes.
struct RelayConfig {
    std::string endpoints; // of etcd, separated by blanks; empty: there are no other nodes
    std::string cluster = "default";
    std::string rack = "default";
    std::string ca_file;
    std::string cert_file;
    std::string key_file;
    std::uint64_t ttl_ms = 10'000;
    std::string on_outage = "expire";
    bool keep_published = false;
    bool operator==(const RelayConfig &) const = default;
};

// The values of the file's keys are as an empty file would leave them; the keys themselves are in
// config_keys.cpp.
struct Config {
    // Paths are absolute once the configuration was read: other processes are told of them.
    std::string runtime_dir; // empty: the user's
    std::string socket;      // empty: in the runtime directory
    std::string trace_dir;   // empty: the service manager's, else in the runtime directory
    std::string node_address;
    std::string socket_group;               // empty: the daemon's
    std::uint64_t socket_mode = 0666;       // permission bits
    bool console = false;                   // the library's console stream on stderr
    std::uint64_t restart_window_ms = 5000; // for clients to come back
    RelayConfig relay;
    Limits limits;
    std::vector<Rule> rules;

    // ---- what follows from the above and from where it was told ----

    NodeAddress node = {};
    std::string file; // that was read; empty: none
    CommandLine given;

    bool operator==(const Config &) const = default;
};

enum ExitCode { exit_ok = 0, exit_failure = 1, exit_usage = 2 };

// Fills `config`. Nothing when the daemon should start, else the code to exit with: the help, the
// version, the configuration or the complaint was printed.
std::optional<int> parse_command_line(int argc, const char *const *argv, Config &config);

// Reads the file that the command line names, or else that of the usual place if there is one, and
// puts the command line above it. For the start, and again for each reload. Throws ConfigError.
Config read_configuration(const CommandLine &given);

const char *daemon_version();

} // namespace ds::host
