// What every verb shares: the global options, the way to the daemon, diagnostics and exit codes.
#pragma once
#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include "cli/daemon.h"

namespace CLI {
class App;
}

namespace ds::cli {

enum ExitCode : int {
    exit_ok = 0,
    exit_failure = 1,
    exit_usage = 2,
    exit_not_found = 3,
    exit_unreachable = 4,
    exit_timeout = 5,
    exit_denied = 6
};

enum class Format { table, wide, json, jsonl };

struct Context {
    std::string socket; // empty: default_socket()
    Format format = Format::table;
    bool no_color = false;

    bool is_json() const { return format == Format::json || format == Format::jsonl; }
    bool is_wide() const { return format == Format::wide; }
    // Colours only for a terminal, and only when nobody asked for none.
    bool color() const;
    std::string socket_path() const;
};

// How long the daemon may take to answer one request.
inline constexpr std::chrono::milliseconds answer_time{5000};

// $DS_SOCKET, else the system's socket, else the user's; the system's when neither exists.
std::string default_socket();

// "dsctl: MESSAGE" on stderr, on one line whatever the message holds.
void complain(std::string_view message);
// Writes to stdout; the caller flushes with the end of a line or leaves it to the end of the
// program.
void print(std::string_view text);

// Complains about a failed outcome, in the words of `what` ("cannot publish chat"), and returns the
// exit code.
int fail(std::string_view what, const client::Outcome &outcome);

// Connects; on failure complains, with a hint where the daemon was looked for, and returns the exit
// code.
int connect(const Context &context, Daemon &daemon);

// Empty when `name` may be the name of a service, else what is wrong with it: 1 to 255 bytes of
// UTF-8. The daemon checks more; this is what would mean something else on the way to it.
std::string check_name(const std::string &name);

// A verb: `prepare` declares its options and returns what runs it after they have been read.
using Action = std::function<int(const Context &)>;
struct Verb {
    const char *name;
    Action (*prepare)(CLI::App &options);
    const char *help;
};

Action prepare_publish(CLI::App &options);
Action prepare_withdraw(CLI::App &options);
Action prepare_watch(CLI::App &options);
Action prepare_list(CLI::App &options);
Action prepare_show(CLI::App &options);
Action prepare_status(CLI::App &options);
Action prepare_clients(CLI::App &options);
Action prepare_nodes(CLI::App &options);
Action prepare_stats(CLI::App &options);
Action prepare_dump(CLI::App &options);
Action prepare_trace(CLI::App &options);
Action prepare_completion(CLI::App &options);

} // namespace ds::cli
