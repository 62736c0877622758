// What the log points mean to an operator: in `dsctl trace --explain`, and on the page of the log
// points.
#pragma once
#include <iterator>
#include <string>
#include <string_view>

#include "ds_trace.h"

namespace ds::cli {

struct Context;

struct Explanation {
    const char *tag;
    const char *happened; // one to three sentences
    const char *advice;   // what to do
};

// By the number of the point.
inline constexpr Explanation explanations[] = {
#define DS_LOG_EXPLANATION(tag, happened, advice) {#tag, happened, advice},
#include "cli/trace_explanations.def"
#undef DS_LOG_EXPLANATION
};

consteval bool explains_every_point_in_order() {
    if (std::size(explanations) != ds_log::point_count) return false;
    for (std::size_t i = 0; i < ds_log::point_count; i++)
        if (std::string_view(explanations[i].tag) != ds_log::points[i].tag) return false;
    return true;
}
static_assert(explains_every_point_in_order(), "one explanation for each log point, in id order");

// Prints what the points mean that `wanted` names: a tag, a pattern of tags, or a number. Returns
// the exit code.
int explain(const Context &context, const std::string &wanted);

} // namespace ds::cli
