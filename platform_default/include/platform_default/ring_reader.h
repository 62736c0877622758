// Reads trace ring files: those of a running daemon, and those a dead one left.
//
// A ring file holds the newest records of one channel. The writer never waits for a reader, so a
// reader copies what is there and then drops whatever was overwritten meanwhile. It copies with
// read calls and maps nothing: a file that somebody cuts short must not end the reading program.
// Text is made here, from the record's raw arguments and the format that the caller supplies for
// the record's point id.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace ds::ring {

using Argument = std::variant<std::int32_t, std::int64_t, std::string>; // 'd', 'D', 's'

struct Record {
    std::uint64_t sequence = 0; // records of the channel before this one
    std::uint64_t stamp_ns = 0; // fts_get_stamp_fast of the writer
    std::uint64_t thread = 0;   // pthread_self of the writer
    std::uint32_t point = 0;    // trace-point id
    bool truncated = false;     // a string did not fit and was shortened
    std::vector<Argument> arguments;
};

struct Header {
    std::string channel;
    std::string format_id; // identifies the table of formats the writer was built with
    std::string source_path;
    std::uint32_t point_count = 0; // trace points the writer knows
    std::uint32_t pid = 0;         // the writer's
    std::uint64_t buffer_bytes = 0;
    std::uint64_t wall_ns = 0;         // CLOCK_REALTIME at opening ...
    std::uint64_t stamp_ns = 0;        // ... and fts_get_stamp_fast at the same moment
    std::uint64_t records_written = 0; // when the file was opened for reading; as is ...
    std::uint64_t records_dropped = 0; // ... this: records that were larger than the whole ring
};

// One opened ring file; closed on destruction.
class Reader {
  public:
    // Null and a reason in `error` when the file cannot be read or is no ring file of this version.
    static std::unique_ptr<Reader> open(const std::string &path, std::string &error);
    ~Reader();
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

    const Header &header() const { return header_; }
    // The records present and not older than `position`, oldest first; `position` moves behind the
    // last one (start with 0; it counts the channel's records). The records from `position` on that
    // were overwritten before they could be read are added to `lost`. A record that makes no sense
    // ends the reading before it, and a file that was cut short gives nothing: flaw() tells.
    std::vector<Record> read(std::uint64_t &position, std::uint64_t &lost);
    // Why the last read() did not get as far as the newest record; empty when it did.
    const std::string &flaw() const { return flaw_; }
    // Whether `path` still names this file. A path that names nothing counts as unchanged: between
    // two runs of a daemon there is such a moment.
    bool is_still_at(const std::string &path) const;
    // Wall-clock time of a stamp, in nanoseconds since the epoch.
    std::uint64_t wall_of(std::uint64_t stamp_ns) const;

  private:
    Reader() = default;
    Header header_;
    std::string flaw_;
    int fd_ = -1;
    std::uint64_t data_bytes_ = 0;
};

// The message of a record as printf would have made it from `format` and the record's arguments.
// Understands what the library's formats use: %s %d %u %x %ld %lu %p, widths and zero padding, %%.
// An argument of the wrong kind or a missing one prints as "<?>".
std::string text(const Record &record, std::string_view format);

} // namespace ds::ring
