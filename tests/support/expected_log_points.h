// What each log point must pass to its channel, written down apart from the library's own table.
#pragma once

#include <cstdint>
#include <string>

#include "recording.h"

struct ExpectedLogPoint {
    uint32_t id;
    const char *channel; // "argument" = the handle that the caller passes
    const char *tag;
    const char *signature;
    uint32_t size;
    const char *format;
};

extern const ExpectedLogPoint expected_log_points[recording::trace_point_count];

// Empty when the record is the one that its log point promises.
std::string difference_from_expected(const recording::Trace &trace);
