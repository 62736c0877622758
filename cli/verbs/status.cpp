// dsctl status: how the daemon is.
#include "cli/context.h"
#include "cli/help.h"
#include "cli/json.h"
#include "cli/output.h"
#include "cli/vocabulary.h"

namespace ds::cli {
namespace {

constexpr char description[] =
    "Shows the daemon's version, place, load and counters since its start.";

constexpr char examples[] = "Examples:\n"
                            "  dsctl status\n"
                            "  dsctl status -o json | jq .resident_bytes\n";

// Values with blanks of their own stay readable here: one value per line cannot be mistaken for
// two.
std::string status_text(const v1::StatusReply &status, bool color) {
    const auto number = [](auto value) { return std::to_string(value); };
    const std::pair<const char *, std::string> fields[] = {
        {"daemon version", status.daemon_version()},
        {"pid", number(status.pid())},
        {"uptime", duration_text(status.uptime_ms())},
        {"node", node_text(status.node())},
        {"socket", status.socket()},
        {"trace directory", status.trace_directory()},
        {"relay", status.relay()},
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
    };
    constexpr std::size_t label_columns = 22;
    std::string text = paint(pad("FIELD", label_columns) + "VALUE", Color::header, color) + '\n';
    for (const auto &[label, value] : fields) {
        text += pad(label, label_columns) + (value.empty() ? "-" : one_line(value)) + '\n';
    }
    return text;
}

int status(const Context &context) {
    Daemon daemon;
    if (const int code = connect(context, daemon); code != exit_ok) return code;
    v1::Request request;
    request.mutable_status();
    v1::Reply reply;
    const client::Outcome outcome = daemon.call(request, reply, client::deadline_in(answer_time));
    if (!outcome.ok()) return fail("cannot ask for the status", outcome);
    if (context.format == Format::json) {
        print(json_document(status_json(reply.status_info())));
    } else if (context.format == Format::jsonl) {
        print(json_line(status_json(reply.status_info())));
    } else {
        print(status_text(reply.status_info(), context.color()));
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
