// Trace channels: the writing side of the rings. One thread writes a channel; it never waits, and
// a reader in another process sees whole records only, also after the writer was killed.
#include "platform/rtrace.h"
#include "platform/fts.h"
#include "platform_default/platform_default.h"
#include "ring_file.h"
#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <new>
#include <pthread.h>

namespace {

using namespace ds::ring;

struct channel {
    file_header *header;
    unsigned char *data;
    std::uint64_t data_bytes;
    // The writer's own copies of what the header publishes.
    std::uint64_t head;
    std::uint64_t tail;
    std::uint64_t head_offset; // their places in the data
    std::uint64_t tail_offset;
    std::uint64_t records_written;
};

// The arguments of one record, before there is room for them.
struct gathered {
    std::uint64_t words[arguments_max];      // of 'd' and 'D' the value, of 's' the address
    std::uint32_t text_bytes[arguments_max]; // of 's'
    std::uint32_t count;
    std::uint32_t types;
    std::uint32_t bytes; // of the whole record
    std::uint16_t flags;
};

std::uint32_t string_slot_bytes(std::uint32_t text_bytes) {
    return aligned_record_bytes(static_cast<std::uint32_t>(sizeof(std::uint32_t)) + text_bytes);
}

void gather_string(gathered &record, std::uint32_t index, const char *text) {
    if (text == nullptr) text = "(null)";
    auto length = static_cast<std::uint32_t>(strnlen(text, string_bytes_max + 1));
    if (length > string_bytes_max) {
        length = string_bytes_max;
        record.flags |= record_is_truncated;
    }
    record.words[index] = reinterpret_cast<std::uint64_t>(text);
    record.text_bytes[index] = length;
    record.bytes += string_slot_bytes(length);
}

// An argument that cannot be kept ends the record, which is then flagged: without its letter the
// place of the next one is unknown.
void gather(gathered &record, const char *signature, va_list arguments) {
    std::uint32_t index = 0;
    for (; index < arguments_max; index++) {
        const char letter = signature[index];
        std::uint32_t type = type_string;
        if (letter == 's') {
            gather_string(record, index, va_arg(arguments, const char *));
        } else if (letter == 'd') {
            type = type_int;
            record.words[index] =
                static_cast<std::uint64_t>(static_cast<std::int64_t>(va_arg(arguments, int)));
            record.bytes += static_cast<std::uint32_t>(sizeof(std::uint64_t));
        } else if (letter == 'D') {
            type = type_long;
            record.words[index] = va_arg(arguments, std::uint64_t);
            record.bytes += static_cast<std::uint32_t>(sizeof(std::uint64_t));
        } else {
            break;
        }
        record.types |= type << (2 * index);
    }
    record.count = index;
    if (signature[index] != '\0') record.flags |= record_is_truncated;
}

// Bytes from the tail to the next record.
std::uint64_t oldest_bytes(const channel *ring) {
    filler_header oldest;
    std::memcpy(&oldest, ring->data + ring->tail_offset, sizeof oldest);
    const std::uint64_t present = ring->head - ring->tail;
    const bool is_damaged = oldest.bytes < sizeof oldest || oldest.bytes % 8 != 0;
    // Somebody else wrote into the file: start over rather than follow a wrong length.
    return is_damaged || oldest.bytes > present ? present : oldest.bytes;
}

// Moves the tail over the oldest records until bytes more fit. The fence keeps the overwriting
// behind the move: a reader that meets new bytes also meets the new tail.
void make_room(channel *ring, std::uint64_t bytes) {
    if (ring->head + bytes - ring->tail <= ring->data_bytes) return;
    do {
        const std::uint64_t step = oldest_bytes(ring);
        ring->tail += step;
        ring->tail_offset += step;
        if (ring->tail_offset >= ring->data_bytes) ring->tail_offset -= ring->data_bytes;
    } while (ring->head + bytes - ring->tail > ring->data_bytes);
    ring->header->tail.store(ring->tail, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
}

void advance(channel *ring, std::uint64_t bytes) {
    ring->head += bytes;
    ring->head_offset += bytes;
    if (ring->head_offset == ring->data_bytes) ring->head_offset = 0;
    ring->header->head.store(ring->head, std::memory_order_release);
}

// Records are contiguous: when the rest before the wrap is too short, a filler takes it.
void skip_short_rest(channel *ring, std::uint64_t bytes) {
    const std::uint64_t rest = ring->data_bytes - ring->head_offset;
    if (bytes <= rest) return;
    make_room(ring, rest);
    const filler_header filler = {static_cast<std::uint32_t>(rest), filler_point};
    std::memcpy(ring->data + ring->head_offset, &filler, sizeof filler);
    advance(ring, rest);
}

void write_arguments(const gathered &record, unsigned char *at) {
    std::uint32_t types = record.types;
    for (std::uint32_t i = 0; i < record.count; i++, types >>= 2) {
        if ((types & 3u) != type_string) {
            std::memcpy(at, &record.words[i], sizeof record.words[i]);
            at += sizeof record.words[i];
            continue;
        }
        const std::uint32_t length = record.text_bytes[i];
        std::memcpy(at, &length, sizeof length);
        std::memcpy(at + sizeof length, reinterpret_cast<const char *>(record.words[i]), length);
        at += string_slot_bytes(length);
    }
}

void write_record(channel *ring, const gathered &record, std::uint32_t point) {
    skip_short_rest(ring, record.bytes);
    make_room(ring, record.bytes);
    const record_header header = {
        record.bytes,
        point,
        ring->records_written,
        fts_get_stamp_fast(),
        static_cast<std::uint64_t>(pthread_self()),
        record.types,
        static_cast<std::uint16_t>(record.count),
        record.flags,
    };
    std::memcpy(ring->data + ring->head_offset, &header, sizeof header);
    write_arguments(record, ring->data + ring->head_offset + sizeof header);
    ring->records_written++;
    ring->header->records_written.store(ring->records_written, std::memory_order_relaxed);
    advance(ring, record.bytes);
}

// Whole pages, so that the file's end is the mapping's end.
std::uint64_t data_bytes_for(std::uint32_t buffer_size) {
    return (std::uint64_t{buffer_size} + header_page_bytes - 1) / header_page_bytes *
           header_page_bytes;
}

} // namespace

int rtrace_open_internal(rtrace_handle_t *handle_out, const char *channel_name,
                         uint32_t buffer_size, uint32_t trace_point_count, const char *source_path,
                         const char *format_id, uint64_t option) {
    if (handle_out == nullptr) return -1;
    *handle_out = nullptr;
    const std::uint64_t data_bytes = data_bytes_for(buffer_size);
    if (channel_name == nullptr || data_bytes == 0 || data_bytes > data_bytes_max) return -1;
    auto *ring = new (std::nothrow) channel{};
    if (ring == nullptr) return -1;
    ring->header = create_mapping(
        {channel_name, data_bytes, trace_point_count, source_path, format_id, option});
    if (ring->header == nullptr) {
        delete ring;
        return -1;
    }
    ring->data = reinterpret_cast<unsigned char *>(ring->header) + header_page_bytes;
    ring->data_bytes = data_bytes;
    *handle_out = ring;
    return 0;
}

void rtrace_internal(rtrace_handle_t handle, uint32_t trace_point_id, uint32_t, uint32_t,
                     const char *type_signature, const char *format, ...) {
    if (handle == nullptr) return;
    auto *ring = static_cast<channel *>(handle);
    gathered record;
    record.count = 0;
    record.types = 0;
    record.bytes = sizeof(record_header);
    record.flags = 0;
    va_list arguments;
    // The format takes no part: the reader finds it by the point's id.
    const char *signature = type_signature == nullptr ? "" : type_signature;
    va_start(arguments, format);
    gather(record, signature, arguments);
    va_end(arguments);
    if (record.bytes > ring->data_bytes || trace_point_id == filler_point)
        ring->header->records_dropped.fetch_add(1, std::memory_order_relaxed);
    else
        write_record(ring, record, trace_point_id);
}

void rtrace_close(void *handle) {
    if (handle == nullptr) return;
    auto *ring = static_cast<channel *>(handle);
    destroy_mapping(ring->header);
    delete ring;
}
