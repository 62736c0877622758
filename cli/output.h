// Text for people: safe cells, aligned tables, colours.
//
// Names, instances and paths come from other processes. Whatever they hold, one cell stays one cell
// and one line stays one line: escape() and cell() leave nothing that moves the cursor, ends a line
// or turns the direction of writing.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ds::cli {

enum class Color { none, header, good, changed, bad, faint };

// `text` in that colour, or as it is when colours are off.
std::string paint(std::string_view text, Color color, bool enabled);

// Control characters, bytes that are not UTF-8 and characters that are invisible or turn the
// direction of writing become \n, \t, \xNN or \u{N}; a backslash becomes two.
std::string escape(std::string_view text);

// The same for a sentence that names may stand in already escaped: a backslash stays one.
std::string one_line(std::string_view text);

// One cell of a table: escaped, in double quotes when it holds a blank or a quote or could be taken
// for the empty cell, "-" when it is empty. Two different texts never look the same.
std::string cell(std::string_view text);

// Columns of a terminal that an escaped text takes.
std::size_t width(std::string_view text);

// `text` and as many blanks as it takes to reach `columns`; a longer text is left whole.
std::string pad(std::string_view text, std::size_t columns);

// Rows under a header, each column as wide as its widest cell, two blanks apart. Nothing is cut
// off.
class Table {
  public:
    explicit Table(std::vector<std::string> titles) : titles_(std::move(titles)) {}
    // As many cells as there are titles, raw: they pass through cell() here.
    void add(const std::vector<std::string> &cells);
    std::string render(bool color) const;
    // The rows since the last call, which are then forgotten: for tables that come in pages. The
    // header stands before the first of them. A column never becomes narrower from page to page.
    std::string take_page(bool color);

  private:
    using Row = std::vector<std::string>;
    using Widths = std::vector<std::size_t>;
    Widths widths() const;
    std::string header(const Widths &widths, bool color) const;
    std::string body(const Widths &widths) const;

    Row titles_;
    std::vector<Row> rows_;
    Widths widths_before_; // of the pages that were taken; empty before the first
};

// "FIELD" and "VALUE" below each other, a value to a line. Values keep their blanks: with one of
// them in a line none can be taken for two.
using Fields = std::vector<std::pair<std::string, std::string>>;
std::string fields_text(const Fields &fields, bool color);

// "12.3 MiB"; below 1 KiB "512 B".
std::string bytes_text(std::uint64_t bytes);

// "1d 02h 03m 04s", from the first unit that is not zero; below a minute with a fraction: "4.250s".
std::string duration_text(std::uint64_t ms);

// Wall-clock time, given in nanoseconds since the epoch.
std::string clock_text(std::uint64_t wall_ns);      // local "19:10:07.123"
std::string date_clock_text(std::uint64_t wall_ns); // local "11/21 19:10:07.123"
std::string iso_text(std::uint64_t wall_ns);        // UTC "2026-11-21T19:10:07.123Z"
std::string rfc3339_text(std::uint64_t wall_ns);    // UTC "2026-11-21T19:10:07.123456789Z"
std::string local_text(std::uint64_t wall_ns);      // local "2026-11-21T19:10:07"
std::uint64_t wall_now_ns();

// How long ago that was, in its two largest units: "250ms", "12s", "5m30s", "2h5m", "3d4h". The
// time may be slightly ahead, when the clock was set meanwhile: "0ms".
std::uint64_t age_ns(std::uint64_t wall_ns, std::uint64_t now_ns);
std::string age_text(std::uint64_t age_ns);

} // namespace ds::cli
