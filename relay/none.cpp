#include "relay/none.h"

namespace ds::relay {

int NoEngine::send(const dsr_update_t &) {
    updates_dropped_++;
    return -1;
}

} // namespace ds::relay
