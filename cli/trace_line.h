// One record of the trace and how it is shown.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

#include "cli/context.h"
#include "cli/json.h"
#include "ds_trace.h"
#include "platform_default/ring_reader.h"

namespace ds::cli {

struct TraceLine {
    std::uint64_t wall_ns = 0;
    std::string channel;
    std::uint32_t pid = 0; // of the daemon that wrote it
    ring::Record record;

    // Null when the record's number is none of the table's.
    const ds_log::point *point() const;
    std::string tag() const;
    // The message as the daemon's console shows it: all of it, but for the newline at its end.
    std::string text() const;
};

// A line of the operator's text, with its newline. Columns are as wide as their widest content can
// be, so that they stand alike in every run and while the trace is followed.
std::string trace_header(const Context &context);
std::string trace_text(const Context &context, const TraceLine &line);
// The record for scripts: exact text, arguments by position with the letter of their type.
Json trace_json(const TraceLine &line);

// What is said between the records while the trace is followed. With json as `notice`: `kind` and
// the rest, else as the sentence.
std::string trace_notice(const Context &context, const char *kind, const std::string &sentence,
                         const Json &rest);

} // namespace ds::cli
