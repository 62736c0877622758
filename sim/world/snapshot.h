// What watchers are told of a name, and what a client of the daemon makes of it.
#pragma once
#include <compare>
#include <cstdint>
#include <memory>
#include <optional>
#include <tuple>
#include <vector>

#include "ds_server_lib.h"

namespace ds::sim {

struct Instance {
    int node = 0;
    std::uint32_t pid = 0;
    std::uint32_t instance = 0;
    std::uint32_t scope = 0;
    std::uint32_t endpoint = 0;
    std::uint32_t ha_role = 0;
    // Behind here: what a new daemon hands out anew.
    std::uint32_t service_id = 0;
    std::uint32_t generation = 0;

    // What makes it the same publication of the same process.
    auto identity() const { return std::tie(node, pid, instance, scope); }
    // Everything but the numbers that daemons hand out.
    auto contents() const { return std::tie(node, pid, instance, scope, endpoint, ha_role); }
};

inline bool has_lesser_contents(const Instance &a, const Instance &b) {
    return a.contents() < b.contents();
}
bool have_same_contents(std::vector<Instance> a, std::vector<Instance> b);

struct Snapshot {
    std::uint32_t name = 0;
    std::uint64_t version = 0;
    bool is_reconciling = false;
    std::vector<Instance> instances; // newest first
};
using SnapshotPtr = std::shared_ptr<const Snapshot>;

int node_of(const ds_service_t *service); // nobody: it has no record
Instance instance_of(const ds_service_t *service);
// Of the live services.
SnapshotPtr snapshot_of(ds_service_elem_t *element);

// What a client's program has been told of one name. While the connection holds, every snapshot is
// told. After a loss the daemon may know little at first and says so: until the first settled
// snapshot, what was known before is carried along, and only news are told.
class Reported {
  public:
    // True when it is to be told; what to tell is newest().
    bool take(const Snapshot &now);
    void lose_connection() { is_lost_ = newest_.has_value(); }
    const Snapshot *newest() const { return newest_ ? &*newest_ : nullptr; }

  private:
    void carry_over(Snapshot &now);

    std::optional<Snapshot> newest_;
    std::vector<Instance> carried_;
    bool is_lost_ = false;
    bool is_recovering_ = false;
    bool was_told_reconciling_ = false;
};

} // namespace ds::sim
