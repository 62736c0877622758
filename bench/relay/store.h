// The store under measurement: one etcd by itself on the loopback, on the disk of the temporary
// directory, and what it counts.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

#include "bench/daemon/server_process.h"
#include "bench/relay/scenarios.h"

namespace ds::bench::replication {

class Store {
  public:
    // Throws std::runtime_error when it does not come up.
    explicit Store(const Options &options);

    std::string endpoint() const { return "http://127.0.0.1:" + std::to_string(client_port_); }
    double cpu_seconds() const { return process_.cpu_seconds(); }
    std::uint64_t resident_bytes() const { return process_.resident_bytes(); }

  private:
    std::uint16_t client_port_, peer_port_;
    ServerProcess process_;
};

// The counters of a store at one moment.
class Metrics {
  public:
    explicit Metrics(std::string text) : text_(std::move(text)) {}

    // Over all label sets that contain the text; 0 when there is no such counter.
    double sum(std::string_view counter, std::string_view label = {}) const;

    // Calls that were answered, of that method or of all.
    double calls(std::string_view method = {}) const;
    double received_bytes() const { return sum("etcd_network_client_grpc_received_bytes_total"); }
    double sent_bytes() const { return sum("etcd_network_client_grpc_sent_bytes_total"); }
    double proposals() const { return sum("etcd_server_proposals_committed_total"); }
    double syncs() const { return sum("etcd_disk_wal_fsync_duration_seconds_count"); }

  private:
    std::string text_;
};

} // namespace ds::bench::replication
