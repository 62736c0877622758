// What is done to a world, and when: the operations of workloads and the faults, made from the seed
// before the world begins. An operation that makes no sense any more, since another one was taken
// out of the plan, does nothing.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "sim/base/queue.h"
#include "sim/base/settings.h"

namespace ds::sim {

enum class Kind {
    // Clients; a: client.
    start_client, // b: node
    kill_client,
    publish,  // b: name, c: instance * 4 + scope, d: endpoint * 4 + role
    withdraw, // b: name, c: instance * 4 + scope
    watch,    // b: name
    unwatch,  // b: name
    // Faults; a: node.
    kill_daemon,  // b: milliseconds until the next one
    stop_daemon,  // b: milliseconds, c: 1 leaves what is published to the next one
    halt_machine, // b: milliseconds until it boots; 0: for good
    freeze,       // b: milliseconds
    partition,    // b: milliseconds, c: 1 silent, 0 the connection is reset
    lack_memory,  // b: milliseconds, c: one allocation in so many fails
    store_outage, // b: milliseconds
    store_wipe,
    // All faults end; when a while has passed, everything is compared.
    calm,
};

struct Op {
    Time at = 0;
    Kind kind = Kind::calm;
    std::uint32_t a = 0;
    std::uint32_t b = 0;
    std::uint32_t c = 0;
    std::uint32_t d = 0;
};

struct Plan {
    Settings settings;
    std::vector<Op> ops; // by time
};

std::string text_of(const Op &op);

} // namespace ds::sim
