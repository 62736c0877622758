// What the daemon tells its operator on stderr: one line for each message.
//
// A service manager that connects stderr to its journal says so in $JOURNAL_STREAM. Each line then
// begins with its severity, "<4>dsd: ...", which the journal takes off and stores; everywhere else
// the line begins with "dsd: ".
#pragma once
#include <cstdio>
#include <string>

namespace ds::host {

// With the numbers that syslog gives them.
enum class Severity { error = 3, warning = 4, notice = 5, debug = 7 };

void tell(Severity severity, const std::string &text); // "dsd: TEXT"
void tell_line(Severity severity, const std::string &line);

// stderr for the library's console: every line leaves whole, with one write, as soon as it ends.
// Opened once and never closed. Null when there is no memory for it.
std::FILE *console_stream();

// Whether the file at `fd` is the one that $JOURNAL_STREAM describes by "DEVICE:INODE".
bool is_journal(int fd, const char *journal_stream);

} // namespace ds::host
