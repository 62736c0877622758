#include "host/config.h"

#include <unistd.h>

#include <cstdlib>

#include <CLI/CLI.hpp>

namespace ds::host {

namespace {

// A service manager gives root's daemon /run; a user's daemon lives in the user's own runtime
// directory.
std::string default_runtime_dir() {
    const char *user_dir = std::getenv("XDG_RUNTIME_DIR");
    const bool has_user_dir = user_dir != nullptr && *user_dir != '\0';
    return geteuid() != 0 && has_user_dir ? std::string(user_dir) + "/ds" : "/run/ds";
}

std::string check_node_address(const std::string &text) {
    if (parse_node_address(text)) return {};
    return "'" + text + "' is no Ethernet address; write it as aa:bb:cc:dd:ee:ff";
}

} // namespace

const char *daemon_version() {
    return DS_VERSION;
}

std::optional<int> parse_command_line(int argc, const char *const *argv, Config &config) {
    CLI::App app("dsd - the directory service daemon.\n\n"
                 "Local processes connect to its socket to publish services and to watch names.\n"
                 "SIGTERM and SIGINT stop it.",
                 "dsd");
    std::string node;
    config.runtime_dir = default_runtime_dir();
    app.add_option("--runtime-dir", config.runtime_dir,
                   "Directory of the socket, the lock and the traces; made if missing")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_option("--socket", config.socket, "Socket for clients [DIR/ds.sock]")
        ->type_name("PATH");
    app.add_option("--trace-dir", config.trace_dir, "Directory of the trace rings [DIR/trace]")
        ->type_name("DIR");
    app.add_flag("--console", config.console, "Write every trace point to stderr as well");
    app.add_option("--node-address", node,
                   "Ethernet address that identifies this node [the first interface's]")
        ->type_name("ADDRESS")
        ->check(CLI::Validator(check_node_address, ""));
    app.set_version_flag("--version", std::string("dsd ") + daemon_version(),
                         "Print the version and exit");
    app.get_option("--help")->description("Print this help and exit");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &end) {
        return app.exit(end) == 0 ? exit_ok : exit_usage;
    }
    if (config.socket.empty()) config.socket = config.runtime_dir + "/ds.sock";
    if (config.trace_dir.empty()) config.trace_dir = config.runtime_dir + "/trace";
    config.node = node.empty() ? first_ethernet_address() : *parse_node_address(node);
    return std::nullopt;
}

} // namespace ds::host
