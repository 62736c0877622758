#include "host/status.h"

#include <unistd.h>

#include <cstdint>
#include <fstream>

#include "relay/status.h"

namespace ds::host {

namespace {

std::uint64_t resident_bytes() {
    std::uint64_t total_pages = 0, resident_pages = 0;
    std::ifstream("/proc/self/statm") >> total_pages >> resident_pages;
    return resident_pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

void fill_connection(const relay::EngineStatus &status, v1::RelayStatus &out) {
    out.set_state(status.state);
    out.set_connected(status.is_connected);
    out.set_fatal(status.fatal);
    out.set_endpoint(status.endpoint);
    out.set_version(status.version);
    out.set_epoch(status.epoch);
    out.set_revision(status.revision);
    out.set_nodes(status.nodes);
    out.set_echo_count(status.echo_delay.count);
    out.set_echo_last_us(status.echo_delay.last_us);
    out.set_echo_p50_us(status.echo_delay.p50_us);
    out.set_echo_p99_us(status.echo_delay.p99_us);
}

void fill_counts(const relay::EngineStatus &status, v1::RelayStatus &out) {
    out.set_sessions(status.sessions);
    out.set_outages(status.outages);
    out.set_audits(status.audits);
    out.set_repairs(status.repairs);
    out.set_leases_lost(status.leases_lost);
    out.set_epoch_changes(status.epoch_changes);
    out.set_writes(status.writes);
    out.set_operations(status.operations);
    out.set_fenced(status.fenced);
    out.set_echoes(status.echoes);
    out.set_cleanups(status.cleanups);
    out.set_waiting(status.waiting);
}

void fill_troubles(const relay::EngineStatus &status, v1::RelayStatus &out) {
    out.set_refused(status.refused);
    for (const relay::Refusal &refusal : status.refusals) {
        v1::RelayRefusal &told = *out.add_refusals();
        told.set_key(refusal.key);
        told.set_reason(refusal.reason);
    }
    for (const relay::ErrorCount &error : status.errors) {
        v1::RelayError &told = *out.add_errors();
        told.set_text(error.text);
        told.set_count(error.count);
        told.set_last_ns(error.last_ns);
    }
}

} // namespace

void fill_status(Server &server, v1::StatusReply &reply) {
    const Counters &counters = server.counters();
    const Directory::Totals totals = server.directory().totals();
    reply.set_daemon_version(daemon_version());
    reply.set_pid(static_cast<std::uint32_t>(getpid()));
    reply.set_uptime_ms(server.uptime_ms());
    reply.set_node(std::string(server.directory().node_bytes()));
    reply.set_socket(server.config().socket);
    reply.set_trace_directory(server.config().trace_dir);
    reply.set_sessions(server.sessions().count());
    reply.set_names(totals.names);
    reply.set_services(totals.services);
    reply.set_registrations(totals.registrations);
    reply.set_publishes(counters.publishes);
    reply.set_withdrawals(counters.withdrawals);
    reply.set_notifications(counters.notifications);
    reply.set_coalesced(counters.coalesced);
    reply.set_bad_frames(counters.bad_frames);
    reply.set_queued_bytes(server.queued_bytes());
    reply.set_resident_bytes(resident_bytes());
    reply.set_sessions_total(counters.sessions_total);
    const relay::Engine &engine = server.engine();
    reply.set_relay(engine.name());
    if (!engine.is_replicating()) return;
    const relay::EngineStatus status = engine.status();
    v1::RelayStatus &relay = *reply.mutable_relay_status();
    fill_connection(status, relay);
    fill_counts(status, relay);
    fill_troubles(status, relay);
}

} // namespace ds::host
