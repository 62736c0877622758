// dsctl trace: the newest lines of the trace rings, of a running daemon or of a dead one.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "cli/context.h"
#include "cli/help.h"
#include "cli/json.h"
#include "cli/output.h"
#include "ds_trace.h"
#include "platform_default/ring_reader.h"

namespace ds::cli {
namespace {

namespace fs = std::filesystem;

constexpr char description[] = "Shows the newest lines of the trace, all channels merged by time. "
                               "The files are read, not the\n"
                               "daemon asked: with --dir that works for a dead daemon, too.";

constexpr char examples[] = "Examples:\n"
                            "  dsctl trace -n 50\n"
                            "  dsctl trace --channel err\n"
                            "  dsctl trace --dir /var/lib/ds/trace\n";

struct Options {
    std::size_t line_count = 20;
    std::string directory;
    std::string channel;
};

struct Line {
    std::uint64_t wall_ns;
    std::string channel;
    std::string tag;
    std::string text;
};

int ask_directory(const Context &context, std::string &directory) {
    client::Connection connection;
    if (const int code = connect(context, connection); code != exit_ok) {
        complain("--dir DIRECTORY reads the trace that a dead daemon left");
        return code;
    }
    v1::Request request;
    request.mutable_status();
    v1::Reply reply;
    const client::Outcome outcome =
        connection.call(request, reply, client::deadline_in(answer_time));
    if (!outcome.ok()) return fail("cannot ask where the trace is", outcome);
    directory = reply.status_info().trace_directory();
    if (!directory.empty()) return exit_ok;
    complain("the daemon keeps its trace in memory only; dsd --trace-dir DIRECTORY writes files");
    return exit_not_found;
}

Line make_line(const ring::Reader &reader, const ring::Record &record) {
    Line line{reader.wall_of(record.stamp_ns), reader.header().channel, {}, {}};
    if (record.point >= ds_log::point_count) {
        line.tag = '#' + std::to_string(record.point);
        line.text = "(this program does not know that trace point)";
        return line;
    }
    const ds_log::point &point = ds_log::points[record.point];
    line.tag = point.tag;
    line.text = ring::text(record, point.format);
    while (!line.text.empty() && line.text.back() == '\n')
        line.text.pop_back();
    return line;
}

// Takes the newest lines of one file; false when it cannot be read.
bool read_ring(const fs::path &path, const Options &options, std::vector<Line> &lines) {
    std::string error;
    const auto reader = ring::Reader::open(path.string(), error);
    if (reader == nullptr) {
        complain("cannot read " + path.string() + ": " + error);
        return false;
    }
    if (!options.channel.empty() && reader->header().channel != options.channel) return true;
    if (reader->header().format_id != ds_log::format_id.data()) {
        complain(path.string() + " was written by another version: its texts may be wrong");
    }
    std::uint64_t position = 0, lost = 0;
    const std::vector<ring::Record> records = reader->read(position, lost);
    const std::size_t wanted = std::min(options.line_count, records.size());
    for (std::size_t i = records.size() - wanted; i < records.size(); i++) {
        lines.push_back(make_line(*reader, records[i]));
    }
    return true;
}

int find_rings(const std::string &directory, std::vector<fs::path> &paths) {
    std::error_code error;
    for (auto at = fs::directory_iterator(directory, error);
         !error && at != fs::directory_iterator(); at.increment(error)) {
        if (at->path().extension() == ".ring") paths.push_back(at->path());
    }
    if (error) {
        complain("cannot read " + directory + ": " + error.message());
        return error == std::errc::permission_denied ? exit_denied : exit_not_found;
    }
    std::sort(paths.begin(), paths.end());
    if (!paths.empty()) return exit_ok;
    complain("no trace files in " + directory);
    return exit_not_found;
}

std::string line_text(const Line &line, bool color) {
    const std::string stamp = paint(date_clock_text(line.wall_ns), Color::faint, color);
    return stamp + ' ' + pad(escape(line.channel), 5) + " [" + escape(line.tag) + "] " +
           one_line(line.text) + '\n';
}

Json line_json(const Line &line) {
    Json json;
    json["time"] = iso_text(line.wall_ns);
    json["channel"] = line.channel;
    json["tag"] = line.tag;
    json["text"] = line.text;
    return json;
}

void print_lines(const Context &context, const std::vector<Line> &lines) {
    Json array = Json::array();
    for (const Line &line : lines) {
        if (context.format == Format::json) {
            array.push_back(line_json(line));
        } else if (context.format == Format::jsonl) {
            print(json_line(line_json(line)));
        } else {
            print(line_text(line, context.color()));
        }
    }
    if (context.format == Format::json) print(json_document(array));
}

std::string check_channel(const std::string &text) {
    for (const char *known : {"pub", "reg", "err", "notif", "main"}) {
        if (text == known) return "";
    }
    return "the channels are pub, reg, err, notif and main";
}

int trace(const Context &context, Options options) {
    if (options.directory.empty()) {
        const int code = ask_directory(context, options.directory);
        if (code != exit_ok) return code;
    }
    std::vector<fs::path> paths;
    if (const int code = find_rings(options.directory, paths); code != exit_ok) return code;
    std::vector<Line> lines;
    bool any = false;
    for (const fs::path &path : paths)
        any |= read_ring(path, options, lines);
    if (!any) return exit_failure;
    // Stable: records of one channel with equal stamps stay in the order they were written in.
    std::stable_sort(lines.begin(), lines.end(),
                     [](const Line &a, const Line &b) { return a.wall_ns < b.wall_ns; });
    if (lines.size() > options.line_count) {
        lines.erase(lines.begin(), lines.end() - static_cast<std::ptrdiff_t>(options.line_count));
    }
    print_lines(context, lines);
    return exit_ok;
}

} // namespace

Action prepare_trace(CLI::App &app) {
    auto options = std::make_shared<Options>();
    app.description(description);
    app.footer(examples);
    app.add_option("-n", options->line_count, "How many lines (default 20)")->type_name("N");
    app.add_option("--dir", options->directory, "Directory of the files (else the daemon is asked)")
        ->type_name("DIRECTORY");
    app.add_option("--channel", options->channel, "Only this channel")
        ->type_name("CHANNEL")
        ->check(check_channel);
    return [options](const Context &context) { return trace(context, *options); };
}

} // namespace ds::cli
