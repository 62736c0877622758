// Making and opening the memory of a trace ring.
#pragma once
#include "ring_format.h"

namespace ds::ring {

// What is known of a ring when it is opened. Null texts count as empty, except the channel's.
struct ring_description {
    const char *channel;
    std::uint64_t data_bytes;
    std::uint32_t point_count;
    const char *source_path;
    const char *format_id;
    std::uint64_t option;
};

// A header page with the data behind it, mapped for writing; the header is complete, its counters
// zero. Backed by "<channel>.ring" in the directory that rtrace_set_directory named, by anonymous
// memory without one. Null when the channel's name cannot be a file name, or the file cannot be
// made or its space reserved; no half-made file is left behind then.
file_header *create_mapping(const ring_description &ring);
void destroy_mapping(file_header *header);

} // namespace ds::ring
