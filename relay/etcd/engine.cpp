#include "relay/etcd/engine.h"

#include <algorithm>

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "relay/etcd/core.h"
#include "relay/etcd/session.h"

namespace ds::relay {

using etcd::Core;
using etcd::Duration;
using etcd::Session;
using etcd::State;
using etcd::Task;

namespace {

// A connection that ended sooner than this was no success.
constexpr Duration good_session = std::chrono::seconds(1);

const char *state_text(const Core &core) {
    switch (core.state) {
    case State::stopped:
        return "stopped";
    case State::refused:
        return "refused: address taken";
    case State::claiming:
        return core.give_up_at ? "waiting for the node key" : "claiming the node key";
    case State::connected:
        return "connected";
    case State::connecting:
    case State::listing:
        break;
    }
    if (core.is_reported_connected) return "reconnecting, outage not reported";
    return core.state == State::listing ? "listing" : "connecting";
}

// One connection; returns why it ended.
Task<std::string> run_session(Core &core, const etcd::Endpoint &endpoint) {
    const auto session = std::make_shared<Session>(core, endpoint);
    core.session = session;
    core.endpoint = endpoint.text;
    std::string reason;
    try {
        co_await session->claim();
        const etcd::Listing listing = co_await session->list();
        if (core.events == nullptr) throw etcd::Failure("stopped");
        core.state = State::connected;
        core.deliver(listing, session->own_create_revision());
        co_await session->follow(listing.revision);
    } catch (const etcd::AddressTaken &taken) {
        core.fatal = taken.what();
        reason = taken.what();
    } catch (const std::exception &failure) {
        reason = failure.what();
    }
    session->fail(reason);
    core.session.reset();
    co_return reason;
}

void give_up(Core &core) {
    core.state = State::refused;
    core.is_ending = true;
    if (core.hooks.on_fatal) core.hooks.on_fatal(core.fatal);
}

// Tries the endpoints in turn until the engine ends.
Task<void> run(std::shared_ptr<Core> core) {
    Duration delay = core->config.retry_delay_min;
    std::size_t failures = 0;
    for (std::size_t next = 0; !core->is_ending; next = (next + 1) % core->endpoints.size()) {
        const auto begun = std::chrono::steady_clock::now();
        const std::uint64_t sessions = core->counters.sessions;
        const std::string reason = co_await run_session(*core, core->endpoints[next]);
        if (core->is_ending) break;
        core->journal.error(reason);
        if (!core->fatal.empty()) co_return give_up(*core);
        core->state = State::connecting;
        core->begin_outage();
        const bool was_good = core->counters.sessions > sessions &&
                              std::chrono::steady_clock::now() - begun > good_session;
        failures = was_good ? 0 : failures + 1;
        if (was_good) delay = core->config.retry_delay_min;
        if (failures == 0 || failures % core->endpoints.size() != 0) continue;
        core->retry_timer.expires_after(delay);
        co_await core->retry_timer.async_wait(boost::asio::as_tuple(boost::asio::use_awaitable));
        delay = std::min(delay * 2, core->config.retry_delay_max);
    }
    core->state = State::stopped;
}

void end(Core &core) {
    core.is_ending = true;
    core.events = nullptr;
    core.outage_timer.cancel();
    core.retry_timer.cancel();
    if (core.session) core.session->fail("stopped");
}

Task<void> run_stop(std::shared_ptr<Core> core, bool keep_published, std::function<void()> done) {
    const bool is_first = !std::exchange(core->is_ending, true); // no connection follows this one
    if (is_first && core->session && core->state == State::connected) {
        const std::shared_ptr<Session> session = core->session;
        try {
            co_await session->farewell(keep_published);
        } catch (const std::exception &failure) {
            core->journal.error(failure.what());
        }
    }
    end(*core);
    if (done) done();
}

} // namespace

EtcdEngine::EtcdEngine(boost::asio::io_context &io, EtcdConfig config, EtcdHooks hooks)
    : core_(std::make_shared<Core>(io, std::move(config), std::move(hooks))) {}

EtcdEngine::~EtcdEngine() {
    end(*core_);
}

void EtcdEngine::start(Events &events) {
    core_->events = &events;
    core_->state = State::connecting;
    boost::asio::co_spawn(core_->io, run(core_), boost::asio::detached);
}

int EtcdEngine::send(const dsr_update_t &update) {
    Core &core = *core_;
    if (core.is_ending || core.send(update) != 0) return -1;
    if (core.session) core.session->wake_writer();
    return 0;
}

void EtcdEngine::stop(bool keep_published, std::function<void()> done) {
    boost::asio::co_spawn(core_->io, run_stop(core_, keep_published, std::move(done)),
                          boost::asio::detached);
}

EngineStatus EtcdEngine::status() const {
    const Core &core = *core_;
    const etcd::Counters &counters = core.counters;
    EngineStatus status;
    status.state = state_text(core);
    status.is_connected = core.is_reported_connected;
    status.fatal = core.fatal;
    status.endpoint = core.endpoint;
    status.version = core.member_version;
    status.epoch = core.epoch;
    status.revision = core.revision;
    status.echo_delay = core.journal.echo_delay();
    status.sessions = counters.sessions;
    status.outages = counters.outages;
    status.audits = counters.audits;
    status.repairs = counters.repairs;
    status.leases_lost = counters.leases_lost;
    status.epoch_changes = counters.epoch_changes;
    status.writes = counters.writes;
    status.operations = counters.operations;
    status.fenced = counters.fenced;
    status.echoes = counters.echoes;
    status.cleanups = counters.cleanups;
    status.waiting = core.own.waiting();
    status.refused = core.journal.refused();
    status.refusals = core.journal.refusals();
    status.errors = core.journal.errors();
    status.nodes = core.view.nodes().size() + (core.state == State::connected ? 1 : 0);
    return status;
}

std::vector<NodeStatus> EtcdEngine::nodes_behind(const NodeAddress &after,
                                                 std::size_t count) const {
    std::vector<NodeStatus> found;
    const auto &nodes = core_->view.nodes();
    for (auto next = nodes.upper_bound(after); next != nodes.end() && found.size() < count; ++next)
        if (const auto &[address, node] = *next; node.info)
            found.push_back({address, node.info->rack, node.info->host_name, node.info->boot_id,
                             node.info->started_ns, node.told});
    return found;
}

} // namespace ds::relay
