// dsctl trace: the records of the trace rings, of a running daemon or of a dead one.
#include <deque>
#include <memory>
#include <optional>
#include <poll.h>
#include <unistd.h>

#include "cli/context.h"
#include "cli/help.h"
#include "cli/json.h"
#include "cli/output.h"
#include "cli/trace_explanations.h"
#include "cli/trace_filter.h"
#include "cli/trace_line.h"
#include "cli/trace_rings.h"
#include "cli/wait.h"

namespace ds::cli {
namespace {

constexpr char description[] =
    "Shows the newest records of the trace, all channels merged by time. The files are read, not\n"
    "the daemon asked: with --dir that works for a dead daemon, too. A file that cannot be read "
    "is\n"
    "named and the others are shown; the exit code is then 1.\n"
    "\n"
    "TIME is \"2026-11-21 10:00:00\" (local, with Z at the end UTC), \"10:00\" today, or how long "
    "ago:\n"
    "250ms, 30s, 5m, 2h, 1d.";

constexpr char examples[] =
    "Examples:\n"
    "  dsctl trace -n 50\n"
    "  dsctl trace -f --name orders              everything about one service, as it happens\n"
    "  dsctl trace --channel err --since 1h\n"
    "  dsctl trace --tag 'DS_PUBLISH*' --all -o jsonl\n"
    "  dsctl trace --dir /run/ds/trace --previous    what the daemon did before it was restarted\n"
    "  dsctl trace --explain DSR_DISCONN_CB\n";

constexpr std::size_t usual_lines = 20;
constexpr std::size_t every_line = SIZE_MAX;
// Writing to mapped memory wakes nobody: the rings are looked at so often.
constexpr int look_interval_ms = 100;
constexpr std::size_t output_bytes = 0x10000;

struct Options {
    std::optional<std::size_t> line_count;
    bool all = false;
    bool follow = false;
    bool previous = false;
    std::string directory;
    std::string since;
    std::string until;
    std::string expression;
    std::string explain;
    TraceFilter filter;

    std::size_t lines_max() const {
        const bool is_all = all || (!since.empty() && !line_count);
        return is_all ? every_line : line_count.value_or(usual_lines);
    }
};

int ask_directory(const Context &context, std::string &directory) {
    Daemon daemon;
    if (const int code = connect(context, daemon); code != exit_ok) {
        complain("--dir DIRECTORY reads the trace that a dead daemon left");
        return code;
    }
    v1::Request request;
    request.mutable_status();
    v1::Reply reply;
    const client::Outcome outcome = daemon.call(request, reply, client::deadline_in(answer_time));
    if (!outcome.ok()) return fail("cannot ask where the trace is", outcome);
    directory = reply.status_info().trace_directory();
    if (!directory.empty()) return exit_ok;
    complain("the daemon keeps its trace in memory only; dsd --trace-dir DIRECTORY writes files");
    return exit_not_found;
}

// Prints the stream: first the newest lines of what is there, then, when it is followed, whatever
// comes.
class Printer {
  public:
    Printer(const Context &context, const Options &options)
        : context_(context), options_(options),
          rings_(options.directory, options.previous ? ".ring.old" : ".ring", make_sink()) {}

    int run();

  private:
    TraceRings::Sink make_sink();
    void take(const TraceLine &line);
    void show(const TraceLine &line);
    void show_newest();
    void follow(const StopSignals &stop);
    void put(const std::string &text);
    void flush();

    const Context &context_;
    const Options &options_;
    TraceRings rings_;
    std::deque<TraceLine> newest_; // until they are shown
    bool is_following_ = false;
    bool has_refused_ = false;
    std::string output_;
};

TraceRings::Sink Printer::make_sink() {
    TraceRings::Sink sink;
    sink.line = [this](const TraceLine &line) { take(line); };
    sink.lost = [this](const std::string &channel, std::uint64_t count) {
        if (!options_.filter.takes_channel(channel)) return;
        put(trace_notice(context_, "lost",
                         channel + ": " + std::to_string(count) +
                             " records lost: they were overwritten before they could be read",
                         {{"channel", channel}, {"records", count}}));
    };
    sink.restarted = [this](std::uint32_t pid, std::uint32_t pid_before) {
        put(trace_notice(context_, "restarted",
                         "the daemon was started anew: process " + std::to_string(pid) +
                             " after process " + std::to_string(pid_before),
                         {{"pid", pid}, {"pid_before", pid_before}}));
    };
    sink.refused = [this](const std::string &sentence) {
        flush();
        complain(sentence);
        has_refused_ = true;
    };
    return sink;
}

void Printer::put(const std::string &text) {
    output_ += text;
    if (output_.size() >= output_bytes) flush();
}

void Printer::flush() {
    print(output_);
    output_.clear();
}

void Printer::take(const TraceLine &line) {
    if (!options_.filter.takes(line)) return;
    if (is_following_) {
        show(line);
        return;
    }
    newest_.push_back(line);
    if (newest_.size() > options_.lines_max()) newest_.pop_front();
}

void Printer::show(const TraceLine &line) {
    put(context_.is_json() ? json_line(trace_json(line)) : trace_text(context_, line));
}

void Printer::show_newest() {
    if (!context_.is_json()) put(trace_header(context_));
    if (context_.format == Format::json && !options_.follow) {
        Json array = Json::array();
        for (const TraceLine &line : newest_)
            array.push_back(trace_json(line));
        put(json_document(array));
    } else {
        for (const TraceLine &line : newest_)
            show(line);
    }
    newest_.clear();
    flush();
}

// Until a stop signal comes or nobody reads the output any more. What happened before the signal is
// shown.
void Printer::follow(const StopSignals &stop) {
    is_following_ = true;
    bool is_stopped = false;
    while (!is_stopped) {
        pollfd items[] = {{stop.fd(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
        ::poll(items, std::size(items), look_interval_ms);
        if (items[1].revents != 0) return;
        is_stopped = items[0].revents != 0;
        rings_.read_new();
        if (is_stopped) rings_.flush();
        flush();
    }
}

int Printer::run() {
    // From the start, so that an interrupt ends the following alike whenever it comes.
    std::optional<StopSignals> stop;
    if (options_.follow) stop.emplace();
    if (const int code = rings_.open(); code != exit_ok) return code;
    rings_.read_all();
    show_newest();
    if (stop) follow(*stop);
    return has_refused_ ? exit_failure : exit_ok;
}

int trace(const Context &context, Options options) {
    if (!options.explain.empty()) return explain(context, options.explain);
    if (options.directory.empty()) {
        const int code = ask_directory(context, options.directory);
        if (code != exit_ok) return code;
    }
    const std::uint64_t now = wall_now_ns();
    if (!options.since.empty()) options.filter.since_ns = *parse_moment(options.since, now);
    if (!options.until.empty()) options.filter.until_ns = *parse_moment(options.until, now);
    std::string ignored;
    if (!options.expression.empty())
        options.filter.pattern = Pattern::compile(options.expression, ignored);
    return Printer(context, options).run();
}

std::string check_count(const std::string &text) {
    const bool is_number = text.find_first_not_of("0123456789") == text.npos && text.size() < 10;
    return is_number ? "" : '\'' + text + "' is no number of records";
}

std::string check_moment(const std::string &text) {
    if (parse_moment(text, wall_now_ns())) return "";
    return '\'' + text +
           "' is no time: write \"2026-11-21 10:00:00\", \"10:00\", 30s, 5m, 2h or 1d";
}

std::string check_expression(const std::string &text) {
    std::string error;
    if (Pattern::compile(text, error)) return "";
    return '\'' + text + "' is no regular expression: " + error;
}

void add_filters(CLI::App &app, Options &options) {
    constexpr char group[] = "Filters (every one that is given must hold)";
    app.add_option("--channel", options.filter.channels,
                   "pub, reg, err, notif or main; several times")
        ->type_name("CHANNEL")
        ->allow_extra_args(false)
        ->transform(one_of({"pub", "reg", "err", "notif", "main"}))
        ->group(group);
    app.add_option("--tag", options.filter.tags, "Tags like this, with * and ?; several times")
        ->type_name("PATTERN")
        ->allow_extra_args(false)
        ->group(group);
    app.add_option("--name", options.filter.name, "Records that name this service")
        ->type_name("NAME")
        ->check(check_name)
        ->group(group);
    app.add_option("--grep", options.expression, "Messages with this extended regular expression")
        ->type_name("REGEX")
        ->check(check_expression)
        ->group(group);
    app.add_option("--since", options.since, "Not older; without -n, all of them")
        ->type_name("TIME")
        ->check(check_moment)
        ->group(group);
    app.add_option("--until", options.until, "Not newer")
        ->type_name("TIME")
        ->check(check_moment)
        ->group(group);
}

} // namespace

Action prepare_trace(CLI::App &app) {
    auto options = std::make_shared<Options>();
    app.description(description);
    app.footer(examples);
    auto *count = app.add_option("-n", options->line_count, "How many records (default 20)")
                      ->type_name("N")
                      ->check(check_count);
    app.add_flag("--all", options->all, "All that the files hold")->excludes(count);
    auto *follow = app.add_flag("-f,--follow", options->follow,
                                "Then show what comes, until Ctrl-C; -o json is then jsonl");
    app.add_option("--dir", options->directory, "Directory of the files (else the daemon is asked)")
        ->type_name("DIRECTORY");
    app.add_flag("--previous", options->previous, "The run before: files that a restart put aside")
        ->excludes(follow);
    app.add_option("--explain", options->explain,
                   "Say what a log point means and what to do; a tag, a pattern or a number")
        ->type_name("TAG");
    add_filters(app, *options);
    app.get_option("--until")->excludes(follow);
    return [options](const Context &context) { return trace(context, *options); };
}

} // namespace ds::cli
