// The bytes of a trace ring file; docs/formats.md describes them for readers in other languages.
//
//   | header page, 4,096 bytes | data: records in a circle, each contiguous and 8-byte aligned |
//
// Positions count bytes since the ring was opened and never wrap; a position's place in the data is
// its remainder by the data's size. The records between tail and head are complete. The writer
// moves the tail before it overwrites and the head after it has written.
#pragma once
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace ds::ring {

inline constexpr char file_magic[8] = {'D', 'S', 'R', 'I', 'N', 'G', '\r', '\n'};
inline constexpr std::uint32_t file_version = 1;
inline constexpr std::uint32_t header_page_bytes = 4096;
inline constexpr std::uint64_t data_bytes_max = std::uint64_t{1} << 30;

struct file_header {
    char magic[8];
    std::uint32_t version;
    std::uint32_t header_bytes;
    std::uint64_t data_bytes;
    std::uint64_t wall_ns;  // CLOCK_REALTIME at opening ...
    std::uint64_t stamp_ns; // ... and the time stamp of the same moment
    std::uint64_t option;   // as given to rtrace_open_internal
    std::uint32_t point_count;
    std::uint32_t pid;
    char channel[64]; // this and the texts below end in NUL
    char format_id[64];
    char source_path[256];
    // Only the members below change after opening. They have a cache line of their own.
    alignas(64) std::atomic<std::uint64_t> head;
    std::atomic<std::uint64_t> tail;
    std::atomic<std::uint64_t> records_written;
    std::atomic<std::uint64_t> records_dropped;
};
static_assert(sizeof(file_header) == 512 && std::is_standard_layout_v<file_header>);
static_assert(offsetof(file_header, channel) == 56 && offsetof(file_header, head) == 448);
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

enum : std::uint16_t { record_is_truncated = 1 };
enum : std::uint32_t { type_int = 1, type_long = 2, type_string = 3 }; // 2 bits an argument
inline constexpr std::uint32_t filler_point = 0xffffffff;
inline constexpr std::uint32_t arguments_max = 16;
inline constexpr std::uint32_t string_bytes_max = 1023;

// What a filler has of a record: it only says how far it is to the next one.
struct filler_header {
    std::uint32_t bytes; // of the record with this header, a multiple of 8
    std::uint32_t point; // filler_point for a filler
};

// Behind it come the arguments, each at a multiple of 8 bytes: 'd' and 'D' as one 64-bit word, 's'
// as a 32-bit length and the bytes, without NUL.
struct record_header {
    std::uint32_t bytes;
    std::uint32_t point;
    std::uint64_t sequence; // records written to the ring before this one
    std::uint64_t stamp_ns;
    std::uint64_t thread;
    std::uint32_t types; // argument n has the bits 2n and 2n + 1
    std::uint16_t argument_count;
    std::uint16_t flags;
};
static_assert(sizeof(record_header) == 40 && sizeof(filler_header) == 8);

constexpr std::uint32_t aligned_record_bytes(std::uint32_t bytes) {
    return (bytes + 7) & ~7u;
}

} // namespace ds::ring
