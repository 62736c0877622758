// How a watcher is told of a change: as a line of columns, as JSON, as the environment of a
// command.
#pragma once
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "cli/context.h"
#include "cli/diff.h"

namespace ds::cli {

// "present", "appeared", "changed", "gone".
const char *kind_word(ChangeKind kind);

// Lines for one watcher. Columns are as wide as usual contents need; a longer cell pushes the rest
// of its own line to the right and is never cut.
class ChangeLines {
  public:
    // names: what is watched, to make room for the longest.
    ChangeLines(const Context &context, const std::vector<std::string> &names);

    // The line of titles; empty for JSON.
    std::string header() const;
    std::string line(const v1::Snapshot &snapshot, const Change &change,
                     std::uint64_t wall_ns) const;
    // Tells that there is no instance.
    std::string nothing(const v1::Snapshot &snapshot, std::uint64_t wall_ns) const;

  private:
    std::string columns(const std::vector<std::string> &cells) const;

    bool json_;
    bool wide_;
    bool color_;
    std::vector<std::size_t> widths_;
};

// DS_EVENT, DS_NAME, ... with their values, for a command that is run for a change.
std::vector<std::pair<std::string, std::string>> change_environment(const v1::Snapshot &snapshot,
                                                                    const Change &change);

} // namespace ds::cli
