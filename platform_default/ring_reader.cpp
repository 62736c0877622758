// The reading side of the trace rings. Nothing in the file is trusted: a writer may be at work in
// it, and the file may be anybody's.
#include "platform_default/ring_reader.h"
#include "ring_format.h"
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace ds::ring {
namespace {

constexpr int read_attempts_max = 16;
constexpr char cut_short[] = "was cut short while it was read";
constexpr char senseless_record[] =
    "is damaged: a record in it makes no sense, nor can those behind "
    "it be found";

// Fills `to` from the file; false when the file ends before.
bool read_at(int fd, std::uint64_t offset, void *to, std::uint64_t bytes) {
    auto *at = static_cast<unsigned char *>(to);
    while (bytes > 0) {
        const ssize_t got = pread(fd, at, bytes, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        at += got;
        offset += static_cast<std::uint64_t>(got);
        bytes -= static_cast<std::uint64_t>(got);
    }
    return true;
}

// The part of the header that moves. Each of its words is copied in one piece, as the kernel copies
// aligned words; which of them was copied first is not known.
struct Counters {
    std::uint64_t head = 0;
    std::uint64_t tail = 0;
    std::uint64_t records_written = 0;
    std::uint64_t records_dropped = 0;
};
static_assert(offsetof(file_header, records_dropped) - offsetof(file_header, head) == 24);

bool read_counters(int fd, Counters &counters) {
    // Nothing that was copied before may come from after this, nor the other way round.
    std::atomic_thread_fence(std::memory_order_acquire);
    const bool is_read = read_at(fd, offsetof(file_header, head), &counters, sizeof counters);
    std::atomic_thread_fence(std::memory_order_acquire);
    return is_read;
}

template <std::size_t N> bool has_end(const char (&text)[N]) {
    return std::memchr(text, 0, N) != nullptr;
}

// Why the file is no readable ring; empty when it is one.
std::string flaw_of(const file_header &header, std::uint64_t file_bytes) {
    if (std::memcmp(header.magic, file_magic, sizeof file_magic) != 0)
        return "is not a trace ring file";
    if (header.version == __builtin_bswap32(file_version))
        return "was written on a machine of the other byte order";
    if (header.version != file_version)
        return "has format version " + std::to_string(header.version) + ", this reader knows " +
               std::to_string(file_version);
    if (header.header_bytes != header_page_bytes || header.data_bytes == 0 ||
        header.data_bytes % 8 != 0 || header.data_bytes > data_bytes_max)
        return "is damaged: its stated sizes are impossible";
    if (file_bytes != header_page_bytes + header.data_bytes)
        return "is damaged: it is not as long as its header says";
    if (!has_end(header.channel) || !has_end(header.format_id) || !has_end(header.source_path))
        return "is damaged: a text of its header has no end";
    return {};
}

// The same for the positions. The writer may move them between the readings: a head from before the
// tail's reading and one from behind it bound the tail from both sides.
std::string flaw_of_positions(int fd, std::uint64_t head_before, std::uint64_t data_bytes) {
    Counters middle, last;
    if (!read_counters(fd, middle) || !read_counters(fd, last)) return cut_short;
    const bool is_too_old = head_before > middle.tail && head_before - middle.tail > data_bytes;
    if (middle.tail > last.head || is_too_old || last.head % 8 != 0 || middle.tail % 8 != 0)
        return "is damaged: its positions are impossible";
    return {};
}

Header summary_of(const file_header &header) {
    Header summary;
    summary.channel = header.channel;
    summary.format_id = header.format_id;
    summary.source_path = header.source_path;
    summary.point_count = header.point_count;
    summary.pid = header.pid;
    summary.buffer_bytes = header.data_bytes;
    summary.wall_ns = header.wall_ns;
    summary.stamp_ns = header.stamp_ns;
    summary.records_written = header.records_written.load(std::memory_order_relaxed);
    summary.records_dropped = header.records_dropped.load(std::memory_order_relaxed);
    return summary;
}

// Bytes of the ring that were intact when they had been copied.
struct Snapshot {
    std::vector<unsigned char> bytes;
    std::size_t first = 0; // where the first whole record starts
};

enum class Taking { done, overtaken, no_more };

bool copy_circular(int fd, std::uint64_t data_bytes, std::uint64_t from,
                   std::vector<unsigned char> &to) {
    const std::uint64_t offset = from % data_bytes;
    const std::uint64_t before_wrap = std::min<std::uint64_t>(to.size(), data_bytes - offset);
    return read_at(fd, header_page_bytes + offset, to.data(), before_wrap) &&
           read_at(fd, header_page_bytes, to.data() + before_wrap, to.size() - before_wrap);
}

Taking take_snapshot(int fd, std::uint64_t data_bytes, Snapshot &snapshot) {
    Counters now;
    if (!read_counters(fd, now)) return Taking::no_more;
    if (now.tail > now.head || now.head - now.tail > data_bytes || now.head % 8 != 0 ||
        now.tail % 8 != 0)
        return Taking::overtaken;
    snapshot.bytes.resize(now.head - now.tail);
    snapshot.first = 0;
    if (snapshot.bytes.empty()) return Taking::done;
    if (!copy_circular(fd, data_bytes, now.tail, snapshot.bytes)) return Taking::no_more;
    // What the writer overwrote during the copy lies before the tail as it is now.
    Counters later;
    if (!read_counters(fd, later)) return Taking::no_more;
    if (later.tail < now.tail || later.tail >= now.head || later.tail % 8 != 0)
        return Taking::overtaken;
    snapshot.first = later.tail - now.tail;
    return Taking::done;
}

// Takes fields from the bytes of one record, never beyond their end.
class Cursor {
  public:
    Cursor(const unsigned char *at, std::size_t left) : at_(at), left_(left) {}

    template <typename T> bool take(T &value) {
        if (left_ < sizeof value) return false;
        std::memcpy(&value, at_, sizeof value);
        skip(sizeof value);
        return true;
    }
    bool take(std::string &text) {
        std::uint32_t bytes = 0;
        if (!take(bytes) || bytes > string_bytes_max) return false;
        const std::size_t padded = aligned_record_bytes(bytes + 4) - 4;
        if (padded > left_) return false;
        text.assign(reinterpret_cast<const char *>(at_), bytes);
        skip(padded);
        return true;
    }

  private:
    void skip(std::size_t bytes) {
        at_ += bytes;
        left_ -= bytes;
    }
    const unsigned char *at_;
    std::size_t left_;
};

bool take_argument(Cursor &cursor, std::uint32_t type, std::vector<Argument> &arguments) {
    if (type == type_string) {
        std::string text;
        if (!cursor.take(text)) return false;
        arguments.emplace_back(std::move(text));
        return true;
    }
    std::int64_t word = 0;
    if ((type != type_int && type != type_long) || !cursor.take(word)) return false;
    if (type == type_int)
        arguments.emplace_back(static_cast<std::int32_t>(word));
    else
        arguments.emplace_back(word);
    return true;
}

bool parse_arguments(Cursor &cursor, const record_header &header, Record &record) {
    record.sequence = header.sequence;
    record.stamp_ns = header.stamp_ns;
    record.thread = header.thread;
    record.point = header.point;
    record.truncated = (header.flags & record_is_truncated) != 0;
    record.arguments.reserve(header.argument_count);
    for (std::uint32_t i = 0; i < header.argument_count; i++)
        if (!take_argument(cursor, (header.types >> (2 * i)) & 3u, record.arguments)) return false;
    return true;
}

// Takes the records from `position` on; false when one makes no sense.
bool parse_snapshot(const Snapshot &snapshot, std::uint64_t &position, std::uint64_t &lost,
                    std::vector<Record> &records) {
    std::optional<std::uint64_t> expected; // the next record's number
    filler_header next;
    for (std::size_t at = snapshot.first; at < snapshot.bytes.size(); at += next.bytes) {
        const std::size_t left = snapshot.bytes.size() - at; // a multiple of 8
        std::memcpy(&next, snapshot.bytes.data() + at, sizeof next);
        if (next.bytes < sizeof next || next.bytes % 8 != 0 || next.bytes > left) return false;
        if (next.point == filler_point) continue;
        Cursor cursor(snapshot.bytes.data() + at, next.bytes);
        record_header header;
        if (!cursor.take(header) || header.argument_count > arguments_max) return false;
        // No writer gets to the last number, and there would be no position behind it.
        if (header.sequence == std::numeric_limits<std::uint64_t>::max()) return false;
        if (expected && header.sequence != *expected) return false;
        expected = header.sequence + 1;
        if (header.sequence < position) continue;
        Record record;
        if (!parse_arguments(cursor, header, record)) return false;
        lost += header.sequence - position;
        position = *expected;
        records.push_back(std::move(record));
    }
    return true;
}

} // namespace

std::unique_ptr<Reader> Reader::open(const std::string &path, std::string &error) {
    std::unique_ptr<Reader> reader(new Reader);
    // Not blocking: a FIFO of that name must not hang the tool.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    reader->fd_ = fd;
    struct stat status = {};
    if (fd < 0 || fstat(fd, &status) != 0) {
        error = path + ": " + std::strerror(errno);
        return nullptr;
    }
    const auto file_bytes = static_cast<std::uint64_t>(status.st_size);
    file_header header;
    if (!S_ISREG(status.st_mode) || file_bytes < header_page_bytes ||
        file_bytes > header_page_bytes + data_bytes_max ||
        !read_at(fd, 0, &header, sizeof header)) {
        error = path + " is not a trace ring file";
        return nullptr;
    }
    std::string flaw = flaw_of(header, file_bytes);
    if (flaw.empty())
        flaw =
            flaw_of_positions(fd, header.head.load(std::memory_order_relaxed), header.data_bytes);
    if (!flaw.empty()) {
        error = path + ' ' + flaw;
        return nullptr;
    }
    reader->data_bytes_ = header.data_bytes;
    reader->header_ = summary_of(header);
    return reader;
}

Reader::~Reader() {
    if (fd_ >= 0) ::close(fd_);
}

std::vector<Record> Reader::read(std::uint64_t &position, std::uint64_t &lost) {
    std::vector<Record> records;
    flaw_.clear();
    Counters now;
    if (!read_counters(fd_, now)) {
        flaw_ = cut_short;
        return records;
    }
    if (now.records_written <= position) return records;
    for (int attempt = 0; attempt < read_attempts_max; attempt++) {
        Snapshot snapshot;
        const Taking taking = take_snapshot(fd_, data_bytes_, snapshot);
        if (taking == Taking::overtaken) continue;
        if (taking == Taking::no_more)
            flaw_ = cut_short;
        else if (!parse_snapshot(snapshot, position, lost, records))
            flaw_ = senseless_record;
        break;
    }
    return records;
}

bool Reader::is_still_at(const std::string &path) const {
    struct stat own = {}, named = {};
    if (fstat(fd_, &own) != 0 || stat(path.c_str(), &named) != 0) return true;
    return own.st_dev == named.st_dev && own.st_ino == named.st_ino;
}

std::uint64_t Reader::wall_of(std::uint64_t stamp_ns) const {
    return header_.wall_ns + (stamp_ns - header_.stamp_ns);
}

} // namespace ds::ring
