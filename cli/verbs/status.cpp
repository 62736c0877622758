// dsctl status: how the daemon is.
#include "cli/context.h"
#include "cli/directory.h"
#include "cli/help.h"
#include "cli/output.h"
#include "cli/records.h"
#include "cli/relay_status.h"
#include "cli/vocabulary.h"

namespace ds::cli {
namespace {

constexpr char description[] =
    "Shows the daemon's version, place, load and counters since its start, and with a relay how\n"
    "that is: its state, the store's epoch and revision, how long own writes took to come back\n"
    "(latency), and what was repaired, refused or went wrong.";

constexpr char examples[] = "Examples:\n"
                            "  dsctl status\n"
                            "  dsctl status -o json | jq .resident_bytes\n"
                            "  dsctl status -o json | jq .relay_status.state\n";

std::string status_text(const v1::StatusReply &status, std::uint64_t now_ns, bool color) {
    const auto number = [](auto value) { return std::to_string(value); };
    Fields fields = {
        {"daemon version", status.daemon_version()},
        {"pid", number(status.pid())},
        {"uptime", duration_text(status.uptime_ms())},
        {"node", node_text(status.node())},
        {"socket", status.socket()},
        {"trace directory", status.trace_directory()},
        {"names", number(status.names())},
        {"services", number(status.services())},
        {"registrations", number(status.registrations())},
        {"sessions", number(status.sessions())},
        {"sessions since start", number(status.sessions_total())},
        {"publishes", number(status.publishes())},
        {"withdrawals", number(status.withdrawals())},
        {"notifications", number(status.notifications())},
        {"coalesced", number(status.coalesced())},
        {"bad frames", number(status.bad_frames())},
        {"queued", bytes_text(status.queued_bytes())},
        {"resident memory", bytes_text(status.resident_bytes())},
        {"relay", status.relay()},
    };
    if (status.has_relay_status())
        for (auto &field : relay_fields(status.relay_status(), now_ns))
            fields.push_back(std::move(field));
    return fields_text(fields, color);
}

int status(const Context &context) {
    v1::Request request;
    request.mutable_status();
    v1::Reply reply;
    const int code = ask(context, "cannot ask for the status", request, reply);
    if (code != exit_ok) return code;
    const std::uint64_t now_ns = wall_now_ns();
    if (context.is_json()) {
        print_object(context, status_json(reply.status_info(), now_ns));
    } else {
        print(status_text(reply.status_info(), now_ns, context.color()));
    }
    return exit_ok;
}

} // namespace

Action prepare_status(CLI::App &options) {
    options.description(description);
    options.footer(examples);
    return [](const Context &context) { return status(context); };
}

} // namespace ds::cli
