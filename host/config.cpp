#include "host/config.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include <CLI/CLI.hpp>

#include "host/config_file.h"
#include "host/config_keys.h"
#include "host/message.h"

namespace ds::host {

namespace {

std::string variable(const char *name) {
    const char *value = std::getenv(name);
    return value == nullptr ? "" : value;
}

// The first of the directories that a service manager gives under this name, or nothing.
std::string directory_of_manager(const char *name) {
    const std::string paths = variable(name);
    return paths.substr(0, paths.find(':'));
}

// A service manager gives a directory below /run, whoever the daemon runs as; a user's daemon lives
// in the user's own runtime directory.
std::string default_runtime_dir() {
    if (const std::string dir = directory_of_manager("RUNTIME_DIRECTORY"); !dir.empty()) return dir;
    const std::string user_dir = variable("XDG_RUNTIME_DIR");
    return geteuid() != 0 && !user_dir.empty() ? user_dir + "/ds" : "/run/ds";
}

// The usual place of the file.
std::string default_path() {
    const std::string system_dir = directory_of_manager("CONFIGURATION_DIRECTORY");
    const std::string user_dir = variable("XDG_CONFIG_HOME");
    return !system_dir.empty() ? system_dir + "/ds.toml"
           : geteuid() == 0    ? "/etc/ds/ds.toml"
           : user_dir.empty()  ? variable("HOME") + "/.config/ds/ds.toml"
                               : user_dir + "/ds/ds.toml";
}

// Empty when there is no file at the usual place, which need not be.
std::string default_file() {
    const std::string file = default_path();
    std::error_code error;
    return std::filesystem::exists(file, error) ? file : "";
}

std::string check_node_address(const std::string &text) {
    return find_key("daemon", "node_address")->check(text, system_users());
}

void override_with(const std::optional<std::string> &given, std::string &value) {
    if (given) value = *given;
}

std::string absolute(const std::string &path) {
    return path.starts_with('/') ? path
                                 : std::filesystem::absolute(path).lexically_normal().string();
}

// The paths and the address that are left to the daemon. A client in another working directory is
// told of the paths, so they are absolute from here on.
void fill_in(Config &config) {
    if (config.runtime_dir.empty()) config.runtime_dir = default_runtime_dir();
    if (config.socket.empty()) config.socket = config.runtime_dir + "/ds.sock";
    if (config.trace_dir.empty()) config.trace_dir = directory_of_manager("LOGS_DIRECTORY");
    if (config.trace_dir.empty()) config.trace_dir = config.runtime_dir + "/trace";
    for (std::string *path : {&config.runtime_dir, &config.socket, &config.trace_dir})
        *path = absolute(*path);
    config.node = config.node_address.empty() ? first_ethernet_address()
                                              : *parse_node_address(config.node_address);
}

int complain(const ConfigError &error) {
    for (const std::string &line : error.lines())
        tell_line(Severity::error, line);
    return exit_usage;
}

int check_file(const std::string &named) {
    const std::string file = named.empty() ? default_file() : named;
    if (file.empty()) {
        std::printf("there is no configuration file; the defaults hold\n");
        return exit_ok;
    }
    try {
        load_config(file);
    } catch (const ConfigError &error) {
        return complain(error);
    }
    std::printf("%s: ok\n", file.c_str());
    return exit_ok;
}

struct Modes {
    std::optional<std::string> check; // the file; empty: the one that would be read
    bool print = false;
};

void add_options(CLI::App &app, CommandLine &given, Modes &modes) {
    app.add_option("--config", given.file,
                   "Configuration file [" + default_path() + ", if it is there]")
        ->type_name("FILE");
    app.add_option("--runtime-dir", given.runtime_dir,
                   "Directory of socket, lock and traces, made if missing [" +
                       default_runtime_dir() + "]")
        ->type_name("DIR");
    app.add_option("--socket", given.socket, "Socket for clients [DIR/ds.sock]")->type_name("PATH");
    app.add_option("--trace-dir", given.trace_dir, "Directory of the trace rings [DIR/trace]")
        ->type_name("DIR");
    app.add_flag("--console", given.console, "Write every trace point to stderr as well");
    app.add_option("--node-address", given.node_address,
                   "Ethernet address that identifies this node [the first interface's]")
        ->type_name("ADDRESS")
        ->check(CLI::Validator(check_node_address, ""));
    app.add_option_function<std::string>(
           "--check-config", [&modes](const std::string &file) { modes.check = file; },
           "Check FILE, or the file that would be read, and exit")
        ->type_name("[FILE]")
        ->expected(0, 1);
    app.add_flag("--print-config", modes.print,
                 "Print the configuration in effect, with every key, and exit");
}

int run_modes(const CommandLine &given, const Modes &modes, const Config &config) {
    if (modes.check)
        return check_file(modes.check->empty() ? given.file.value_or("") : *modes.check);
    std::fputs(print_config(config).c_str(), stdout);
    return exit_ok;
}

} // namespace

const char *daemon_version() {
    return DS_VERSION;
}

Config read_configuration(const CommandLine &given) {
    const std::string file = given.file ? *given.file : default_file();
    Config config = file.empty() && !given.file ? Config() : load_config(file);
    config.given = given;
    override_with(given.runtime_dir, config.runtime_dir);
    override_with(given.socket, config.socket);
    override_with(given.trace_dir, config.trace_dir);
    override_with(given.node_address, config.node_address);
    config.console = config.console || given.console;
    fill_in(config);
    return config;
}

std::optional<int> parse_command_line(int argc, const char *const *argv, Config &config) {
    CLI::App app("dsd - the directory service daemon.\n\n"
                 "Local processes connect to its socket to publish services and to watch names.\n"
                 "SIGTERM and SIGINT stop it, SIGHUP reads rules and limits again.\n",
                 "dsd");
    app.footer(
        "Exit codes:\n"
        "  0 stopped by a signal, or done   1 cannot start or go on   2 usage or configuration\n"
        "\n"
        "See dsd(8), ds.toml(5), dsctl(1).");
    CommandLine given;
    Modes modes;
    add_options(app, given, modes);
    constexpr std::size_t options_width = 26;
    app.get_formatter()->column_width(options_width);
    app.set_version_flag("--version", std::string("dsd ") + daemon_version(),
                         "Print the version and exit");
    app.get_option("--help")->description("Print this help and exit");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &end) {
        return app.exit(end) == 0 ? exit_ok : exit_usage;
    }
    if (modes.check) return run_modes(given, modes, config);
    try {
        config = read_configuration(given);
    } catch (const ConfigError &error) {
        return complain(error);
    }
    if (modes.print) return run_modes(given, modes, config);
    return std::nullopt;
}

} // namespace ds::host
