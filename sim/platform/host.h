// The platform of simulated nodes. Pools, tree, lists, tables, timers and codecs are the ones that
// ship; time, memory, trace channels and the way to the relay are each node's own.
//
// The library keeps its state behind one block, so a node is entered by installing its block and
// its host. Whatever the platform does then, it does for that node.
#pragma once
#include <cstdint>

#include "relay/engine.h"
#include "sim/base/random.h"
#include "sim/base/trace.h"

namespace ds::sim {

struct PlatformHost {
    const Time *now = nullptr;
    relay::Engine *engine = nullptr; // null: updates are dropped
    Trace *trace = nullptr;
    // Heap blocks that were taken on this node's behalf and not given back.
    std::int64_t heap_blocks = 0;
    // Of so many allocations of the library one fails; 0: none.
    std::uint32_t failing_one_in = 0;
    std::uint64_t failed = 0;
    Random chance{0};
};

// Whose turn it is; null: nobody's, then memory is not counted.
extern PlatformHost *platform_host;

// No allocation fails while one of these lives: what is made then is the client's, not the node's.
class SparedAllocations {
  public:
    SparedAllocations() : rate_(platform_host->failing_one_in) {
        platform_host->failing_one_in = 0;
    }
    ~SparedAllocations() { platform_host->failing_one_in = rate_; }
    SparedAllocations(const SparedAllocations &) = delete;
    SparedAllocations &operator=(const SparedAllocations &) = delete;

  private:
    std::uint32_t rate_;
};

// Opens the library's trace channels, or closes them: nothing is then made ready for them.
void open_trace_channels(bool are_open);

} // namespace ds::sim
