#include "relay/etcd/core.h"

#include <chrono>

#include "relay/etcd/text.h"

namespace ds::relay {

namespace {

std::string check_times(const EtcdConfig &config) {
    using namespace std::chrono_literals;
    if (config.ttl < 2s || config.ttl > 1h) return "the TTL is not between 2 s and 1 h.";
    for (const auto time : {config.connect_deadline, config.call_deadline, config.retry_delay_min,
                            config.retry_delay_max, config.audit_interval})
        if (time <= 0ms) return "a deadline, delay or interval is not positive.";
    if (config.outage_grace < 0ms || config.cleanup_delay < 0ms) return "a delay is negative.";
    if (config.call_deadline >= config.ttl) return "the call deadline is not below the TTL.";
    return {};
}

} // namespace

std::string check_config(const EtcdConfig &config) {
    if (!etcd::is_key_part(config.cluster))
        return "the cluster name is not 1 to 64 of [A-Za-z0-9._-].";
    if (!etcd::is_key_part(config.rack)) return "the rack is not 1 to 64 of [A-Za-z0-9._-].";
    if (!etcd::is_key_part(config.boot_id)) return "the boot id is not 1 to 64 of [A-Za-z0-9._-].";
    if (config.node == NodeAddress{}) return "the node address is all zero.";
    if (config.host_name.size() > 255 || !etcd::is_printable(config.host_name))
        return "the host name is not 0 to 255 printable bytes.";
    if (config.endpoints.empty()) return "there is no endpoint.";
    if (config.cert_file.empty() != config.key_file.empty())
        return "of certificate and key one is missing.";
    if (config.predecessor_boot_id == config.boot_id)
        return "the boot id is that of the predecessor.";
    for (const std::string &endpoint : config.endpoints)
        try {
            etcd::parse_endpoint(endpoint);
        } catch (const etcd::Failure &failure) {
            return std::string("endpoint ") + failure.what() + ".";
        }
    return check_times(config);
}

} // namespace ds::relay

namespace ds::relay::etcd {

namespace {

std::uint64_t now_ns() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}

} // namespace

Core::Core(asio::io_context &io_, EtcdConfig config_, EtcdHooks hooks_)
    : Replica(config_.node, Keys(config_.cluster, config_.rack),
              {config_.name_bytes_max, config_.entries_max}, hooks_.is_own_period_open),
      io(io_), config(std::move(config_)),
      hooks(std::move(hooks_)), self{config.boot_id, config.rack, config.host_name, now_ns(), 0},
      outage_timer(io), retry_timer(io) {
    if (const std::string problem = check_config(config); !problem.empty()) throw Failure(problem);
    for (const std::string &text : config.endpoints)
        endpoints.push_back(parse_endpoint(text));
    tls = make_tls_context(config);
}

bool Core::learn_epoch(const std::string &value) {
    const bool is_other = !epoch.empty() && epoch != value;
    if (is_other) {
        counters.epoch_changes++;
        journal.error("the store is not the one that was known before");
        lease = 0; // numbers of leases mean nothing in another store
        revision = 0;
    }
    epoch = value;
    return is_other;
}

void Core::deliver(const Listing &listing, std::int64_t own_create_revision) {
    outage_timer.cancel();
    is_outage_timed = false;
    revision = listing.revision;
    counters.sessions++;
    Replica::deliver(listing, own_create_revision);
}

void Core::begin_outage() {
    own.abandon_writes();
    if (!is_reported_connected || config.on_outage == OnOutage::hold) return;
    if (is_outage_timed) return;
    is_outage_timed = true;
    outage_timer.expires_after(config.outage_grace);
    outage_timer.async_wait([weak = weak_from_this()](boost::system::error_code stopped) {
        const auto core = weak.lock();
        if (stopped || core == nullptr || core->events == nullptr) return;
        if (!core->is_outage_timed) return;
        core->is_outage_timed = false;
        core->counters.outages++;
        core->report_outage();
    });
}

} // namespace ds::relay::etcd
