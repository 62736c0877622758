// What operators are shown of an engine.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "relay/node_address.h"

namespace ds::relay {

// Something that went wrong, by its text.
struct ErrorCount {
    std::string text;
    std::uint64_t count = 0;
    std::uint64_t last_ns = 0; // since 1970
};

// An entry of the store, or an update of the directory, that was not accepted.
struct Refusal {
    std::string key;
    std::string reason;
};

// How long a write of this node took until the node saw it come back, in microseconds.
struct EchoDelay {
    std::uint64_t count = 0; // since the start
    std::uint32_t last_us = 0;
    std::uint32_t p50_us = 0; // of the newest 1,024
    std::uint32_t p99_us = 0;
};

// A node that is alive by what the store says.
struct NodeStatus {
    NodeAddress address = {};
    std::string rack;
    std::string host_name;
    std::string boot_id;          // one life of its daemon
    std::uint64_t started_ns = 0; // since 1970, by that node's clock
    std::uint64_t entries = 0;    // of this node that the directory knows of
};

// Counts are since the start of the engine. An engine leaves what it does not have.
struct EngineStatus {
    std::string state;         // one or a few words: docs/relay.md explains them
    bool is_connected = false; // to the directory's knowledge
    std::string fatal;         // why the engine has given up; empty: it has not
    std::string endpoint;      // in use, or tried last
    std::string version;       // of that member
    std::string epoch;         // of the store; empty: not known yet
    std::int64_t revision = 0; // the newest that was seen
    std::uint64_t nodes = 0;   // alive, this one included while it is connected
    EchoDelay echo_delay;
    std::uint64_t sessions = 0;
    std::uint64_t outages = 0;
    std::uint64_t audits = 0;
    std::uint64_t repairs = 0;
    std::uint64_t leases_lost = 0;
    std::uint64_t epoch_changes = 0;
    std::uint64_t writes = 0;
    std::uint64_t operations = 0;
    std::uint64_t fenced = 0;
    std::uint64_t echoes = 0;
    std::uint64_t cleanups = 0;
    std::uint64_t waiting = 0; // own changes that the store has not confirmed yet
    std::uint64_t refused = 0;
    std::vector<Refusal> refusals; // the newest
    std::vector<ErrorCount> errors;
};

} // namespace ds::relay
