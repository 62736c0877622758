// What happened between two snapshots of a name.
//
// A snapshot says what is, not what was done. Two snapshots of the same name tell the changes
// between them: an instance is the same one as before when its node and its service id are. A
// publisher that ended and came back has a new id, so it shows as one instance that went and one
// that came.
#pragma once
#include <string>
#include <vector>

#include "ds.pb.h"

namespace ds::cli {

enum class ChangeKind { present, appeared, changed, gone };

struct Change {
    ChangeKind kind = ChangeKind::present;
    v1::Instance instance; // as it is now; for `gone` as it was
    std::string reason;    // raw text: "published", "changed, endpoint was 10.0.0.1:80", ...
};

// The changes from `before` to `after`: what went, then what changed, then what came; within each
// kind in the order of the snapshot it is taken from. Equal snapshots have none.
std::vector<Change> diff(const v1::Snapshot &before, const v1::Snapshot &after);

// Every instance as `present`.
std::vector<Change> all_present(const v1::Snapshot &snapshot);

} // namespace ds::cli
