#include "cli/context.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "cli/output.h"
#include "cli/utf8.h"
#include "proto/frame.h"

namespace ds::cli {
namespace {

constexpr char system_socket[] = "/run/ds/ds.sock";

std::string variable(const char *name) {
    const char *value = std::getenv(name);
    return value == nullptr ? "" : value;
}

int exit_of_status(v1::Status status) {
    switch (status) {
    case v1::STATUS_INVALID:
        return exit_usage;
    case v1::STATUS_NOT_FOUND:
        return exit_not_found;
    case v1::STATUS_DENIED:
    case v1::STATUS_LIMIT:
        return exit_denied;
    case v1::STATUS_UNAVAILABLE:
        return exit_unreachable;
    default:
        return exit_failure;
    }
}

int exit_of(const client::Outcome &outcome) {
    switch (outcome.failure) {
    case client::Failure::none:
        return exit_ok;
    case client::Failure::unreachable:
    case client::Failure::closed:
        return exit_unreachable;
    case client::Failure::timeout:
        return exit_timeout;
    case client::Failure::refused:
        return exit_of_status(outcome.status);
    case client::Failure::protocol:
        break;
    }
    return exit_failure;
}

} // namespace

bool Context::color() const {
    if (no_color || !variable("NO_COLOR").empty() || variable("TERM") == "dumb") return false;
    return ::isatty(STDOUT_FILENO) == 1;
}

std::string Context::socket_path() const {
    return socket.empty() ? default_socket() : socket;
}

std::string default_socket() {
    std::string chosen = variable("DS_SOCKET");
    if (!chosen.empty()) return chosen;
    if (::access(system_socket, F_OK) == 0) return system_socket;
    const std::string runtime = variable("XDG_RUNTIME_DIR");
    std::string own = runtime + "/ds/ds.sock";
    if (!runtime.empty() && ::access(own.c_str(), F_OK) == 0) return own;
    return system_socket;
}

void complain(std::string_view message) {
    std::fflush(stdout); // what was printed before stays before, also when both go to one place
    const std::string line = "dsctl: " + one_line(message) + '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
}

void print(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
}

int fail(std::string_view what, const client::Outcome &outcome) {
    std::string message(what);
    message += ": ";
    message += outcome.text.empty() ? "no reason given" : outcome.text;
    complain(message);
    return exit_of(outcome);
}

int connect(const Context &context, Daemon &daemon) {
    const std::string path = context.socket_path();
    const client::Outcome outcome = daemon.connect(path, client::deadline_in(answer_time));
    if (outcome.ok()) return exit_ok;
    if (outcome.failure == client::Failure::refused) {
        return fail("the daemon at " + path + " does not let you in", outcome);
    }
    const int code = fail("cannot reach the daemon at " + path, outcome);
    if (outcome.failure == client::Failure::unreachable) {
        complain("is dsd running? --socket PATH or DS_SOCKET name another socket");
    }
    return code;
}

std::string check_name(const std::string &name) {
    if (name.empty()) return "a name is not empty";
    if (name.size() > proto::name_bytes_max) return "a name has at most 255 bytes";
    return is_utf8(name) ? "" : "a name must be UTF-8";
}

} // namespace ds::cli
