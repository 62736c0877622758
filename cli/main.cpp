// dsctl: publishes, watches and inspects services from the command line.
#include <cstdio>
#include <cstring>
#include <map>

#include "cli/context.h"
#include "cli/help.h"

namespace {

using namespace ds::cli;

constexpr Verb verbs[] = {
    {"publish", prepare_publish, "Publish a service and keep it published"},
    {"withdraw", prepare_withdraw, "Withdraw a publication of another process"},
    {"watch", prepare_watch, "Show the instances of a name and every change of them"},
    {"list", prepare_list, "List what is published"},
    {"show", prepare_show, "Show everything about one name"},
    {"status", prepare_status, "Show how the daemon is"},
    {"clients", prepare_clients, "List the clients: what they hold, what they have not read"},
    {"nodes", prepare_nodes, "List the nodes that were heard of"},
    {"stats", prepare_stats, "Show the directory's counters"},
    {"dump", prepare_dump, "Dump all services, registrations or clients with every detail"},
    {"trace", prepare_trace, "Show, follow and search the daemon's trace"},
    {"completion", prepare_completion, "Print a script that completes command lines"},
};

constexpr char purpose[] = "Publish, watch and inspect services of the directory service.";

constexpr char closing[] =
    "The socket is the one --socket names, else $DS_SOCKET, else /run/ds/ds.sock, else\n"
    "$XDG_RUNTIME_DIR/ds/ds.sock. Data goes to stdout, diagnostics to stderr.\n"
    "'dsctl VERB --help' tells more about a verb.\n"
    "\n"
    "Examples:\n"
    "  dsctl publish web 10.0.0.1:8080 --instance blue --scope system\n"
    "  dsctl watch web\n"
    "  dsctl list 'web*' -o json\n"
    "  dsctl clients\n"
    "  dsctl trace -f --name web\n";

int complain_about_usage(const CLI::ParseError &error, const CLI::App &app) {
    const CLI::App *verb = nullptr;
    for (const CLI::App *used : app.get_subcommands())
        verb = used;
    const std::vector<std::string> rest = app.remaining();
    if (verb != nullptr || dynamic_cast<const CLI::RequiredError *>(&error) == nullptr) {
        complain(error.what());
    } else {
        complain(rest.empty() ? "which verb?" : "there is no verb '" + rest.front() + "'");
    }
    complain("try 'dsctl" + (verb == nullptr ? "" : ' ' + verb->get_name()) + " --help'");
    return exit_usage;
}

int finish(int code) {
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return code;
    complain(std::string("cannot write the output: ") + std::strerror(errno));
    return code == exit_ok ? exit_failure : code;
}

int run(int argc, char **argv) {
    Context context;
    CLI::App app(purpose, "dsctl");
    std::map<std::string, std::string> short_help;
    for (const Verb &verb : verbs)
        short_help[verb.name] = verb.help;
    app.formatter(std::make_shared<HelpText>(short_help));
    app.set_version_flag("--version", "dsctl " DSCTL_VERSION, "Print the version and end")
        ->group("Global options");
    app.require_subcommand(1);
    app.footer(closing);
    add_global_options(app, context);
    std::map<const CLI::App *, Action> actions;
    for (const Verb &verb : verbs) {
        CLI::App *options = app.add_subcommand(verb.name)->group("Verbs");
        actions[options] = verb.prepare(*options);
        add_global_options(*options, context);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &wanted) { // help or version
        return finish(app.exit(wanted));
    } catch (const CLI::ParseError &error) {
        return complain_about_usage(error, app);
    }
    return finish(actions.at(app.get_subcommands().front())(context));
}

} // namespace

int main(int argc, char **argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        complain(error.what());
        return exit_failure;
    }
}
