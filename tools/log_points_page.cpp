// Prints docs/log_points.md: every log point of the library, as the compiler sees the table, and
// what it means to an operator.
//
// The page is generated and checked in, so that an operator can read it without a build and a
// reviewer sees what a change of the table does to trace records. A test keeps it fresh.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

#include "cli/trace_explanations.h"
#include "ds_trace.h"

namespace {

struct row {
    const ds_log::point *point;
    const char *signature;
    uint32_t record_size;
    bool has_strings;
};

template <std::size_t Number> constexpr row make_row() {
    using site = ds_log::site<static_cast<ds_log::id>(Number)>;
    return {&site::row, site::signature.data(), site::record_size, site::has_strings != 0};
}

template <std::size_t... Numbers>
constexpr std::array<row, sizeof...(Numbers)> make_rows(std::index_sequence<Numbers...>) {
    return {make_row<Numbers>()...};
}

constexpr auto rows = make_rows(std::make_index_sequence<ds_log::point_count>());

struct section {
    ds_log::channel channel;
    const char *title;
    const char *meaning;
};

constexpr section sections[] = {
    {ds_log::channel::pub, "pub",
     "Services: published, changed, withdrawn, resolved against the relay, sent and received."},
    {ds_log::channel::reg, "reg", "Registrations: made and given up."},
    {ds_log::channel::err, "err", "Failures. A healthy node writes nothing here."},
    {ds_log::channel::notif, "notif",
     "Notifications: who was told of which name, and what went into the message."},
    {ds_log::channel::main, "main", "The relay connection, and the frames of the two dumps."},
    {ds_log::channel::any, "named by the caller",
     "Descriptions of one record. They go to the channel of the event or dump that shows it."},
};

// A format as the source shows it, fit for a table cell.
std::string cell_of(const char *format) {
    std::string cell = "`\"";
    for (const char *at = format; *at != '\0'; at++) {
        if (*at == '\n')
            cell += "\\n";
        else if (*at == '|')
            cell += "\\|";
        else
            cell += *at;
    }
    return cell + "\"`";
}

void print_introduction() {
    std::printf(R"(# Log points

The library writes %zu log points. Each one goes to a trace channel and, when the host has set a
console stream, as a line of text to that stream. This page is printed from the table that the
library is compiled from, `ds_log_points.def`, and from the explanations of the command line
program, `cli/trace_explanations.def`: run `make docs` after a change there. `dsctl trace` shows the
records, `dsctl trace --explain TAG` what is said here about one point.

- **Id** and **tag** name the point: a trace record carries the id, a console line the tag.
- **Signature** has a letter per argument: `s` a text, `d` 32 bits, `D` 64 bits or a pointer.
- **Size** is the record size that the point states: 4, plus 1 for each `d` and 2 for each `D`,
  plus 1 more when that reaches 10.
- **Texts** tells whether a text is among the arguments.
- **Message** is the format. Some end in a newline, some do not; the console adds one either way.
  The wording is fixed, its odd spots included: programs match it.

A console line is `MM/DD hh:mm:ss.mmm THREAD FUNCTION:[TAG/THREAD] ` and the message.

Format identifier of this table: `%s`.
A reader that knows another identifier must not print records of this one.
)",
                ds_log::point_count, ds_log::format_id.data());
}

// Text from the tables as the page shows it: patterns and names are not to be taken for marks.
std::string marked(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (c == '_' || c == '*' || c == '<') out += '\\';
        out += c;
    }
    return out;
}

void print_explanations(const section &wanted) {
    std::printf("\n");
    for (const row &r : rows) {
        if (r.point->channel != wanted.channel) continue;
        const ds::cli::Explanation &explanation = ds::cli::explanations[r.point->number];
        std::printf("- **%s**: %s *To do:* %s\n", marked(r.point->tag).c_str(),
                    marked(explanation.happened).c_str(), marked(explanation.advice).c_str());
    }
}

void print_section(const section &wanted) {
    std::size_t count = 0;
    for (const row &r : rows)
        count += r.point->channel == wanted.channel ? 1 : 0;
    std::printf("\n## Channel %s\n\n%s %zu point%s.\n\n", wanted.title, wanted.meaning, count,
                count == 1 ? "" : "s");
    std::printf("| Id | Tag | Signature | Size | Texts | Message |\n"
                "|---:|---|---|---:|---|---|\n");
    for (const row &r : rows) {
        if (r.point->channel != wanted.channel) continue;
        const std::string signature =
            r.signature[0] == '\0' ? "none" : "`" + std::string(r.signature) + "`";
        std::printf("| %u | %s | %s | %u | %s | %s |\n", r.point->number, r.point->tag,
                    signature.c_str(), r.record_size, r.has_strings ? "yes" : "no",
                    cell_of(r.point->format).c_str());
    }
}

} // namespace

int main() {
    print_introduction();
    for (const section &wanted : sections) {
        print_section(wanted);
        print_explanations(wanted);
    }
    return std::fflush(stdout) == 0 && std::ferror(stdout) == 0 ? 0 : 1;
}
