#include "cli/trace_filter.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <fnmatch.h>

namespace ds::cli {
namespace {

constexpr std::uint64_t second_ns = 1'000'000'000;
constexpr std::uint64_t ago_max = 100'000'000; // of any unit: no product below overflows

std::uint64_t unit_ns(std::string_view unit) {
    if (unit == "ms") return second_ns / 1000;
    if (unit == "s") return second_ns;
    if (unit == "m") return 60 * second_ns;
    if (unit == "h") return 3600 * second_ns;
    if (unit == "d") return 86400 * second_ns;
    return 0;
}

std::optional<std::uint64_t> parse_ago(std::string_view text, std::uint64_t now_ns) {
    std::uint64_t count = 0;
    const char *end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, count);
    const std::uint64_t unit = unit_ns({at, static_cast<std::size_t>(end - at)});
    if (error != std::errc() || unit == 0 || count > ago_max) return std::nullopt;
    const std::uint64_t ago = count * unit;
    return ago < now_ns ? now_ns - ago : 0;
}

// Takes ".5" and the like from the end of `text`, in nanoseconds; false when it is no fraction.
bool take_fraction(std::string &text, std::uint64_t &ns) {
    ns = 0;
    const std::size_t dot = text.find('.');
    if (dot == text.npos) return true;
    const std::string digits = text.substr(dot + 1);
    if (digits.empty() || digits.size() > 9 ||
        digits.find_first_not_of("0123456789") != digits.npos)
        return false;
    ns = std::stoull(digits + std::string(9 - digits.size(), '0'));
    text.resize(dot);
    return true;
}

bool parse_calendar(const std::string &text, std::uint64_t now_ns, std::tm &at) {
    for (const char *format : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M",
                               "%Y-%m-%dT%H:%M", "%Y-%m-%d", "%H:%M:%S", "%H:%M"}) {
        const auto now = static_cast<std::time_t>(now_ns / second_ns);
        ::localtime_r(&now, &at); // the day, when none is given
        at.tm_hour = at.tm_min = at.tm_sec = 0;
        const char *end = ::strptime(text.c_str(), format, &at);
        if (end != nullptr && *end == '\0') return true;
    }
    return false;
}

std::optional<std::uint64_t> parse_date(std::string text, std::uint64_t now_ns) {
    const bool is_utc = text.ends_with('Z');
    if (is_utc) text.pop_back();
    std::uint64_t fraction_ns = 0;
    std::tm at{};
    if (!take_fraction(text, fraction_ns) || !parse_calendar(text, now_ns, at)) return std::nullopt;
    at.tm_isdst = -1;
    const std::tm asked = at;
    const std::time_t seconds = is_utc ? ::timegm(&at) : ::mktime(&at);
    // The 31st of a shorter month would silently become a day of the next.
    if (seconds < 0 || at.tm_mday != asked.tm_mday || at.tm_mon != asked.tm_mon)
        return std::nullopt;
    return static_cast<std::uint64_t>(seconds) * second_ns + fraction_ns;
}

// What goes to the relay and comes from it is named NAME/INSTANCE in one text.
bool names_instances(std::uint32_t point) {
    switch (static_cast<ds_log::id>(point)) {
    case ds_log::id::DS_DSR_SERVICE_UPDATE:
    case ds_log::id::DS_DSR_SERVICE_RECEIVE:
    case ds_log::id::DSR_PUBLISH_ERR:
    case ds_log::id::DSR_PUBLISH_SUCCESS:
        return true;
    default:
        return false;
    }
}

bool holds_name(const ring::Record &record, const std::string &name) {
    const bool with_instance = names_instances(record.point);
    const auto is_it = [&](const ring::Argument &argument) {
        const auto *text = std::get_if<std::string>(&argument);
        if (text == nullptr || !text->starts_with(name)) return false;
        return text->size() == name.size() || (with_instance && (*text)[name.size()] == '/');
    };
    return std::any_of(record.arguments.begin(), record.arguments.end(), is_it);
}

} // namespace

std::optional<std::uint64_t> parse_moment(std::string_view text, std::uint64_t now_ns) {
    if (const auto moment = parse_ago(text, now_ns)) return moment;
    return parse_date(std::string(text), now_ns);
}

std::shared_ptr<Pattern> Pattern::compile(const std::string &expression, std::string &error) {
    std::shared_ptr<Pattern> pattern(new Pattern);
    const int code = ::regcomp(&pattern->compiled_, expression.c_str(), REG_EXTENDED | REG_NOSUB);
    pattern->is_compiled_ = code == 0;
    if (code == 0) return pattern;
    char reason[128];
    ::regerror(code, &pattern->compiled_, reason, sizeof reason);
    error = reason;
    return nullptr;
}

Pattern::~Pattern() {
    if (is_compiled_) ::regfree(&compiled_);
}

bool Pattern::is_found_in(const std::string &text) const {
    return ::regexec(&compiled_, text.c_str(), 0, nullptr, 0) == 0;
}

bool tag_matches(const std::string &wanted, const std::string &tag) {
    return ::fnmatch(wanted.c_str(), tag.c_str(), FNM_CASEFOLD) == 0;
}

bool TraceFilter::takes_channel(std::string_view channel) const {
    return channels.empty() ||
           std::find(channels.begin(), channels.end(), channel) != channels.end();
}

bool TraceFilter::takes(const TraceLine &line) const {
    if (line.wall_ns < since_ns || line.wall_ns > until_ns || !takes_channel(line.channel))
        return false;
    const auto matches = [tag = line.tag()](const std::string &wanted) {
        return tag_matches(wanted, tag);
    };
    if (!tags.empty() && !std::any_of(tags.begin(), tags.end(), matches)) return false;
    if (!name.empty() && !holds_name(line.record, name)) return false;
    return pattern == nullptr || pattern->is_found_in(line.text());
}

} // namespace ds::cli
