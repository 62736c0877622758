#include "host/message.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace ds::host {

namespace {

// Empty when nobody reads it.
std::string prefix_of(Severity severity) {
    static const bool has_journal = is_journal(STDERR_FILENO, std::getenv("JOURNAL_STREAM"));
    return has_journal ? "<" + std::to_string(static_cast<int>(severity)) + ">" : "";
}

// What a line-buffered stream passes on: whole lines, unless one is longer than its buffer. Texts
// that end their line themselves leave an empty one behind, which is dropped.
ssize_t write_lines(void *, const char *bytes, size_t count) {
    const std::string prefix = prefix_of(Severity::debug);
    std::string out;
    for (std::string_view rest(bytes, count); !rest.empty();) {
        const std::size_t line_bytes = std::min(rest.find('\n'), rest.size() - 1) + 1;
        if (rest.front() != '\n') out.append(prefix).append(rest.substr(0, line_bytes));
        rest.remove_prefix(line_bytes);
    }
    std::fwrite(out.data(), 1, out.size(), stderr);
    return static_cast<ssize_t>(count);
}

std::FILE *open_console() {
    cookie_io_functions_t functions = {};
    functions.write = write_lines;
    std::FILE *stream = fopencookie(nullptr, "w", functions);
    constexpr std::size_t longest_line_bytes = 16'384;
    if (stream != nullptr) std::setvbuf(stream, nullptr, _IOLBF, longest_line_bytes);
    return stream;
}

} // namespace

bool is_journal(int fd, const char *journal_stream) {
    if (journal_stream == nullptr) return false;
    struct stat status = {};
    if (fstat(fd, &status) != 0) return false;
    return journal_stream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

void tell(Severity severity, const std::string &text) {
    tell_line(severity, "dsd: " + text);
}

void tell_line(Severity severity, const std::string &line) {
    const std::string out = prefix_of(severity) + line + "\n";
    std::fwrite(out.data(), 1, out.size(), stderr);
}

std::FILE *console_stream() {
    static std::FILE *const stream = open_console();
    return stream;
}

} // namespace ds::host
