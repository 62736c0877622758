// What an operator is shown of the engine.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "relay/engine.h"
#include "relay/etcd/journal.h"

namespace ds::relay {

struct EtcdNodeStatus {
    NodeAddress address = {};
    bool is_self = false;
    std::string rack;
    std::string host_name;
    std::string boot_id;
    std::uint64_t started_ns = 0; // since 1970
    std::uint64_t entries = 0;    // of this node that the directory knows of
};

// Counts are since the start of the engine.
struct EtcdStatus {
    std::string state;         // one or a few words: docs/relay.md explains them
    std::string fatal;         // why the engine has given up; empty: it has not
    std::string endpoint;      // in use, or tried last
    std::string version;       // of that member
    std::string epoch;         // of the store; empty: not known yet
    std::int64_t revision = 0; // the newest that was seen
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
    std::vector<EtcdNodeStatus> nodes; // by address; this node's own only while it is connected
};

} // namespace ds::relay
