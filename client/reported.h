// What a watcher has been told of one name, and whether a new snapshot is news to it.
//
// While the connection holds, every snapshot is told. After a loss, the daemon may have started
// anew: it then knows little at first and says so (`reconciling`). Until the first settled snapshot
// the instances known before the loss are carried along, and only news are told.
#pragma once
#include <cstddef>
#include <optional>
#include <vector>

#include "ds.pb.h"

namespace ds::client {

class Reported {
  public:
    // Takes the next snapshot of this connection. True when it is to be told; what to tell is
    // newest().
    bool take(v1::Snapshot now);
    // The connection is lost: what is known now has to be carried over. Needs no memory.
    void lose_connection();
    // What is known; null before the first snapshot.
    const v1::Snapshot *newest() const { return newest_ ? &*newest_ : nullptr; }

  private:
    void begin_recovery();
    void carry_over(v1::Snapshot &now);

    std::optional<v1::Snapshot> newest_;
    std::vector<v1::Instance> carried_; // known before the loss, not seen since
    bool lost_ = false;                 // no snapshot has come since the loss
    bool recovering_ = false;           // after a loss, until the first settled snapshot
    bool told_reconciling_ = false;     // the last snapshot told was reconciling
};

} // namespace ds::client
