// What the engine's parts share, over all its connections. Lives as long as anything of the engine
// is under way.
#pragma once
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "relay/etcd/config.h"
#include "relay/etcd/http.h"
#include "relay/etcd/records.h"
#include "relay/etcd/replica.h"

namespace ds::relay::etcd {

class Session;

enum class State { stopped, connecting, claiming, listing, connected, refused };

// Everything since the start of the engine.
struct Counters {
    std::uint64_t sessions = 0; // connections that came as far as a delivered list
    std::uint64_t outages = 0;  // times the directory was told that the relay is gone
    std::uint64_t audits = 0;
    std::uint64_t repairs = 0; // differences that an audit or a foreign change made necessary
    std::uint64_t leases_lost = 0;
    std::uint64_t epoch_changes = 0; // the store was wiped or exchanged
    std::uint64_t writes = 0;        // transactions with entries
    std::uint64_t operations = 0;    // entries written or removed
    std::uint64_t fenced = 0;        // transactions that found another daemon's node key
    std::uint64_t echoes = 0;        // own changes that came back and were dropped
    std::uint64_t cleanups = 0;      // dead nodes whose entries this node removed
};

struct Core : Replica, std::enable_shared_from_this<Core> {
    Core(asio::io_context &io_, EtcdConfig config_, EtcdHooks hooks_);

    // The list was read: the connection has come as far as it needs to.
    void deliver(const Listing &listing, std::int64_t own_create_revision);
    // The connection is gone. The directory is told when the outage lasts.
    void begin_outage();
    // True when the store is not the one that was known before.
    bool learn_epoch(const std::string &value);

    asio::io_context &io;
    const EtcdConfig config;
    const EtcdHooks hooks;
    std::vector<Endpoint> endpoints;
    std::shared_ptr<asio::ssl::context> tls;

    State state = State::stopped;
    bool is_outage_timed = false; // the directory is told when outage_timer expires
    bool is_ending = false;
    std::string fatal;

    NodeInfo self;
    std::int64_t lease = 0; // 0: none
    Duration granted_ttl{0};
    std::string epoch;         // empty: not known yet
    std::int64_t revision = 0; // the newest seen
    std::string member_version;
    std::string endpoint; // in use
    // When to give up on another daemon's node key.
    std::optional<std::chrono::steady_clock::time_point> give_up_at;

    Counters counters;
    std::shared_ptr<Session> session; // null while there is no connection
    asio::steady_timer outage_timer;
    asio::steady_timer retry_timer;
};

} // namespace ds::relay::etcd
