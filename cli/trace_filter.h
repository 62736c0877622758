// Which records of the trace are wanted.
#pragma once
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <regex.h>

#include "cli/trace_line.h"

namespace ds::cli {

// A moment: "2026-11-21 10:00:00" in local time (seconds and a fraction may be left out or given, a
// T may stand for the blank, a Z at the end means UTC), "10:00:00" today, or how long before
// `now_ns`: "5m", "30s", "2h", "1d", "250ms". In nanoseconds since the epoch; nothing when the text
// is none of these.
std::optional<std::uint64_t> parse_moment(std::string_view text, std::uint64_t now_ns);

// A POSIX extended regular expression.
class Pattern {
  public:
    // Null and a reason in `error` when the expression is wrong.
    static std::shared_ptr<Pattern> compile(const std::string &expression, std::string &error);
    ~Pattern();
    Pattern(const Pattern &) = delete;
    Pattern &operator=(const Pattern &) = delete;

    bool is_found_in(const std::string &text) const;

  private:
    Pattern() = default;
    regex_t compiled_{};
    bool is_compiled_ = false;
};

// Every condition that is set must hold; of several channels or tags one is enough.
struct TraceFilter {
    std::vector<std::string> channels;
    std::vector<std::string> tags; // with * ? and [], in any case
    std::string name; // of a service: one of the record's text arguments, or its part before '/'
    std::uint64_t since_ns = 0;
    std::uint64_t until_ns = UINT64_MAX;
    std::shared_ptr<Pattern> pattern; // somewhere in the message

    bool takes_channel(std::string_view channel) const;
    bool takes(const TraceLine &line) const;
};

// Whether a tag matches, with * ? and [] and in any case.
bool tag_matches(const std::string &wanted, const std::string &tag);

} // namespace ds::cli
