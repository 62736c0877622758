// dsctl stats: the directory's own counters.
#include "cli/context.h"
#include "cli/directory.h"
#include "cli/dump_json.h"
#include "cli/dump_rows.h"
#include "cli/help.h"
#include "cli/records.h"

namespace ds::cli {
namespace {

constexpr char description[] =
    "Shows the directory's own counters since its start, and how many clients, services and\n"
    "registrations there are now. The counters are those of the table that lists and dumps come\n"
    "from; 'dsctl status' shows those of the daemon around it. They wrap at 4,294,967,296.";

constexpr char examples[] = "Examples:\n"
                            "  dsctl stats\n"
                            "  dsctl stats -o json | jq .registrations_added\n";

int stats(const Context &context) {
    v1::Request request;
    request.mutable_stats();
    v1::Reply reply;
    const int code = ask(context, "cannot ask for the counters", request, reply);
    if (code != exit_ok) return code;
    const std::uint64_t now_ns = wall_now_ns();
    if (context.is_json()) {
        print_object(context, stats_json(reply.stats(), now_ns));
    } else {
        print(fields_text(stats_fields(reply.stats(), now_ns), context.color()));
    }
    return exit_ok;
}

} // namespace

Action prepare_stats(CLI::App &options) {
    options.description(description);
    options.footer(examples);
    return [](const Context &context) { return stats(context); };
}

} // namespace ds::cli
