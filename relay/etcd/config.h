// What the engine on etcd is told by its host.
#pragma once
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "relay/engine.h"

namespace ds::relay {

// What the directory is told when the store cannot be reached for longer than outage_grace.
enum class OnOutage {
    // The relay is disconnected: the directory lets go of the services of other nodes when its
    // restart period has ended without a reconnect.
    expire,
    // Nothing: the services of other nodes stay, however old, until the store is back; then the
    // difference is delivered.
    hold,
};

struct EtcdConfig {
    // Nodes with the same cluster name see each other. 1 to 64 of [A-Za-z0-9._-].
    std::string cluster;
    // This node; no two daemons of a cluster may have the same.
    NodeAddress node = {};
    // Names this life of the daemon, 1 to 64 of [A-Za-z0-9._-]; random, new at each start.
    std::string boot_id;
    // The boot id of the daemon that ran here before, when the host knows that it has ended (it
    // holds the lock of the runtime directory); empty otherwise. Its node key is then taken over at
    // once and the other nodes notice nothing; without it the engine waits until that key's lease
    // has run out.
    std::string predecessor_boot_id;
    // Services of scope rack reach the nodes with the same rack. 1 to 64 of [A-Za-z0-9._-].
    std::string rack = "default";
    // For operators only, 0 to 255 printable bytes.
    std::string host_name;
    // "http://host:port" or "https://host:port" of the members, at least one. One is used at a
    // time; when it fails, the next.
    std::vector<std::string> endpoints;

    // PEM files for https. The authority that signed the members' certificates (empty: those that
    // the system trusts), and the certificate and key of this node (both or neither).
    std::string ca_file;
    std::string cert_file;
    std::string key_file;

    // Without a sign of life for this long the other nodes take this one for dead. 2 s to 1 hour;
    // the store may grant more than was asked for.
    std::chrono::milliseconds ttl = std::chrono::seconds(10);
    OnOutage on_outage = OnOutage::expire;
    // An interruption up to this long (a failover, a restarted member) is not reported at all: what
    // changed meanwhile is delivered as a difference. With `hold` it has no effect.
    std::chrono::milliseconds outage_grace = std::chrono::seconds(3);

    // To resolve, connect and shake hands; for one request and its answer, and for an echo.
    std::chrono::milliseconds connect_deadline = std::chrono::seconds(2);
    std::chrono::milliseconds call_deadline = std::chrono::seconds(3);
    // Pause between attempts when all endpoints failed; doubles from the first to the second value.
    std::chrono::milliseconds retry_delay_min = std::chrono::milliseconds(100);
    std::chrono::milliseconds retry_delay_max = std::chrono::seconds(2);
    // How often what is known is compared with what the store holds.
    std::chrono::milliseconds audit_interval = std::chrono::seconds(60);
    // A dead node's entries are removed after half to all of this time, so that not all survivors
    // do it at once.
    std::chrono::milliseconds cleanup_delay = std::chrono::seconds(2);

    // Bound on what other nodes may publish under one name, in bytes as a client would be told it;
    // what does not fit is refused. Below the client's frame, with room for this node's own.
    std::size_t name_bytes_max = 768 * 1024;
    // Bound on the entries of other nodes that are kept; what does not fit is refused.
    std::size_t entries_max = 1'000'000;
};

// Empty when the engine can work with it, else one sentence that says what is wrong.
std::string check_config(const EtcdConfig &config);

// What the engine asks of its host beyond Events. The calls come from the daemon's thread, never
// from within send() or start(), and must not destroy the engine.
struct EtcdHooks {
    // Whether the restart period of this node's own services is open: entries of this node are
    // then replayed to the directory; outside it those that the directory did not send again are
    // handed to it so that it has them removed. Null: never open.
    std::function<bool()> is_own_period_open;
    // The engine has given up: another daemon uses this node's address. Called at most once; the
    // engine does nothing more. Null: nobody is told.
    std::function<void(const std::string &)> on_fatal;
};

} // namespace ds::relay
