#include "recording.h"

#include <algorithm>
#include <limits>
#include <map>
#include <mutex>
#include <utility>

namespace recording {
namespace {

struct Range {
    size_t size;
    std::string text;
};

// The calls from the first to the last one fail.
struct Fault {
    uint32_t first;
    uint32_t last;
    uint32_t seen;
    int result;
};

constexpr uint32_t no_end = std::numeric_limits<uint32_t>::max();

std::mutex log_mutex;
Lines log_lines;
Lines misuse_lines;
std::map<const char *, Range> ranges;
std::map<std::string, std::vector<Member>, std::less<>> members_of_kind;
std::map<std::string, Fault, std::less<>> faults;
size_t spared_size;

bool starts_with_any(const std::string &line, Prefixes prefixes) {
    return std::any_of(prefixes.begin(), prefixes.end(),
                       [&](std::string_view prefix) { return line.starts_with(prefix); });
}

std::string member_name(const std::string &record, size_t offset) {
    if (offset == 0 && members_of_kind.empty()) return record;
    const std::string kind = record.substr(0, record.find_first_of("# "));
    const auto found = members_of_kind.find(kind);
    if (found != members_of_kind.end()) {
        for (const Member &member : found->second)
            if (member.offset == offset) return record + "." + member.name;
    }
    return offset == 0 ? record : record + "+" + std::to_string(offset);
}

Failure count_fault(std::string_view function) {
    const auto found = faults.find(function);
    if (found == faults.end()) return {};
    Fault &fault = found->second;
    ++fault.seen;
    if (fault.seen < fault.first || fault.seen > fault.last) return {};
    return {true, fault.result};
}

} // namespace

void reset() {
    clear_calls();
    clear_faults();
    clear_misuses();
    reset_containers();
    reset_services();
    reset_traces();
    reset_memory();
    ranges.clear();
}

const Lines &calls() {
    return log_lines;
}

Lines calls_with(Prefixes prefixes) {
    Lines result;
    std::copy_if(log_lines.begin(), log_lines.end(), std::back_inserter(result),
                 [&](const std::string &line) { return starts_with_any(line, prefixes); });
    return result;
}

Lines calls_without(Prefixes prefixes) {
    Lines result;
    std::copy_if(log_lines.begin(), log_lines.end(), std::back_inserter(result),
                 [&](const std::string &line) { return !starts_with_any(line, prefixes); });
    return result;
}

void clear_calls() {
    log_lines.clear();
    clear_traces();
    clear_sent_updates();
}

void note(std::string line) {
    const std::lock_guard<std::mutex> guard(log_mutex);
    log_lines.push_back(std::move(line));
}

std::string joined(const Lines &lines) {
    std::string result;
    for (const std::string &line : lines)
        result += line + "\n";
    return result;
}

void name(const void *start, size_t size, std::string text) {
    ranges[static_cast<const char *>(start)] = Range{size, std::move(text)};
}

void name_members(std::string kind, std::vector<Member> members) {
    members_of_kind[std::move(kind)] = std::move(members);
}

std::string name_of(const void *address) {
    if (address == nullptr) return "null";
    const char *byte = static_cast<const char *>(address);
    auto after = ranges.upper_bound(byte);
    if (after == ranges.begin()) return "ptr";
    const auto &[start, range] = *std::prev(after);
    const auto offset = static_cast<size_t>(byte - start);
    return offset < std::max<size_t>(range.size, 1) ? member_name(range.text, offset) : "ptr";
}

void fail(std::string function, uint32_t nth, int result) {
    const bool is_every = nth == every;
    faults[std::move(function)] = Fault{is_every ? 1 : nth, is_every ? no_end : nth, 0, result};
}

void fail_from(std::string function, uint32_t nth, int result) {
    faults[std::move(function)] = Fault{nth, no_end, 0, result};
}

void spare_calloc_of(size_t element_size) {
    spared_size = element_size;
}

bool take_spared(size_t element_size) {
    if (spared_size == 0 || spared_size != element_size) return false;
    spared_size = 0;
    return true;
}

void clear_faults() {
    faults.clear();
    spared_size = 0;
}

Failure should_fail(std::string_view function) {
    const bool is_allocation = function == "malloc" || function == "calloc" || function == "memdup";
    const Failure as_allocation = is_allocation ? count_fault("allocation") : Failure{};
    const Failure by_name = count_fault(function);
    return by_name.fails ? by_name : as_allocation;
}

const Lines &misuses() {
    return misuse_lines;
}

void misuse(std::string text) {
    misuse_lines.push_back(std::move(text));
}

void clear_misuses() {
    misuse_lines.clear();
}

std::string quoted(const char *text) {
    return text == nullptr ? "null" : "\"" + std::string(text) + "\"";
}

} // namespace recording
