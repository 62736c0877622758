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
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ds::ring {
namespace {

constexpr int read_attempts_max = 16;

const file_header &header_of(const unsigned char *map) {
    return *reinterpret_cast<const file_header *>(map);
}

template <std::size_t N> bool has_end(const char (&text)[N]) {
    return std::memchr(text, 0, N) != nullptr;
}

// Why the mapped file is no readable ring; empty when it is one.
std::string flaw_of(const file_header &header, std::uint64_t file_bytes) {
    if (std::memcmp(header.magic, file_magic, sizeof file_magic) != 0)
        return "is not a trace ring file";
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
    // The writer may move both between the loads: this order bounds the tail from both sides.
    const std::uint64_t head_before = header.head.load(std::memory_order_acquire);
    const std::uint64_t tail = header.tail.load(std::memory_order_acquire);
    const std::uint64_t head = header.head.load(std::memory_order_acquire);
    const bool is_too_old = head_before > tail && head_before - tail > header.data_bytes;
    if (tail > head || is_too_old || head % 8 != 0 || tail % 8 != 0)
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

void copy_circular(const unsigned char *data, std::uint64_t data_bytes, std::uint64_t from,
                   std::vector<unsigned char> &to) {
    const std::uint64_t offset = from % data_bytes;
    const std::uint64_t before_wrap = std::min<std::uint64_t>(to.size(), data_bytes - offset);
    std::memcpy(to.data(), data + offset, before_wrap);
    std::memcpy(to.data() + before_wrap, data, to.size() - before_wrap);
}

std::optional<Snapshot> take_snapshot(const file_header &header, const unsigned char *data,
                                      std::uint64_t data_bytes) {
    const std::uint64_t head = header.head.load(std::memory_order_acquire);
    const std::uint64_t tail = header.tail.load(std::memory_order_acquire);
    if (tail > head || head - tail > data_bytes || head % 8 != 0 || tail % 8 != 0)
        return std::nullopt;
    Snapshot snapshot;
    snapshot.bytes.resize(head - tail);
    if (head == tail) return snapshot;
    copy_circular(data, data_bytes, tail, snapshot.bytes);
    // What the writer overwrote during the copy lies before the tail as it is now.
    std::atomic_thread_fence(std::memory_order_acquire);
    const std::uint64_t tail_now = header.tail.load(std::memory_order_relaxed);
    if (tail_now < tail || tail_now >= head || tail_now % 8 != 0) return std::nullopt;
    snapshot.first = tail_now - tail;
    return snapshot;
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

bool parse_record(const unsigned char *at, std::size_t bytes, Record &record,
                  std::uint64_t &sequence) {
    Cursor cursor(at, bytes);
    record_header header;
    if (!cursor.take(header) || header.argument_count > arguments_max) return false;
    sequence = header.sequence;
    record.stamp_ns = header.stamp_ns;
    record.thread = header.thread;
    record.point = header.point;
    record.truncated = (header.flags & record_is_truncated) != 0;
    for (std::uint32_t i = 0; i < header.argument_count; i++)
        if (!take_argument(cursor, (header.types >> (2 * i)) & 3u, record.arguments)) return false;
    return true;
}

void parse_snapshot(const Snapshot &snapshot, std::uint64_t &position, std::uint64_t &lost,
                    std::vector<Record> &records) {
    std::size_t at = snapshot.first;
    filler_header next;
    while (snapshot.bytes.size() - at >= sizeof next) {
        std::memcpy(&next, snapshot.bytes.data() + at, sizeof next);
        if (next.bytes < sizeof next || next.bytes % 8 != 0 ||
            next.bytes > snapshot.bytes.size() - at)
            return;
        if (next.point != filler_point) {
            Record record;
            std::uint64_t sequence = 0;
            if (!parse_record(snapshot.bytes.data() + at, next.bytes, record, sequence)) return;
            // No writer gets there, and there would be no position behind it to go on from.
            if (sequence == std::numeric_limits<std::uint64_t>::max()) return;
            if (sequence >= position) {
                lost += sequence - position;
                position = sequence + 1;
                records.push_back(std::move(record));
            }
        }
        at += next.bytes;
    }
}

} // namespace

std::unique_ptr<Reader> Reader::open(const std::string &path, std::string &error) {
    std::unique_ptr<Reader> reader(new Reader);
    // Not blocking: a FIFO of that name must not hang the tool.
    reader->fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat status = {};
    if (reader->fd_ < 0 || fstat(reader->fd_, &status) != 0) {
        error = path + ": " + std::strerror(errno);
        return nullptr;
    }
    const auto file_bytes = static_cast<std::uint64_t>(status.st_size);
    if (!S_ISREG(status.st_mode) || file_bytes < header_page_bytes ||
        file_bytes > header_page_bytes + data_bytes_max) {
        error = path + " is not a trace ring file";
        return nullptr;
    }
    void *map = mmap(nullptr, file_bytes, PROT_READ, MAP_SHARED, reader->fd_, 0);
    if (map == MAP_FAILED) {
        error = path + ": " + std::strerror(errno);
        return nullptr;
    }
    reader->map_ = static_cast<const unsigned char *>(map);
    reader->map_bytes_ = file_bytes;
    const std::string flaw = flaw_of(header_of(reader->map_), file_bytes);
    if (!flaw.empty()) {
        error = path + " " + flaw;
        return nullptr;
    }
    reader->header_ = summary_of(header_of(reader->map_));
    return reader;
}

Reader::~Reader() {
    if (map_ != nullptr) munmap(const_cast<unsigned char *>(map_), map_bytes_);
    if (fd_ >= 0) ::close(fd_);
}

std::vector<Record> Reader::read(std::uint64_t &position, std::uint64_t &lost) const {
    std::vector<Record> records;
    struct stat status = {};
    if (fstat(fd_, &status) != 0 || static_cast<std::uint64_t>(status.st_size) < map_bytes_)
        return records;
    const file_header &header = header_of(map_);
    if (header.records_written.load(std::memory_order_relaxed) <= position) return records;
    for (int attempt = 0; attempt < read_attempts_max; attempt++) {
        // The size that was checked at opening counts, not what the file says by now.
        const auto snapshot =
            take_snapshot(header, map_ + header_page_bytes, map_bytes_ - header_page_bytes);
        if (!snapshot) continue;
        parse_snapshot(*snapshot, position, lost, records);
        break;
    }
    return records;
}

std::uint64_t Reader::wall_of(std::uint64_t stamp_ns) const {
    return header_.wall_ns + (stamp_ns - header_.stamp_ns);
}

} // namespace ds::ring
