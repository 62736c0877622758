#include "sim/world/world.h"

#include <algorithm>
#include <utility>

#include "sim/faults/faults.h"

namespace ds::sim {

namespace {

constexpr Time store_tick = 500 * ms;
constexpr Time leaving_time = 60 * second;
constexpr std::uint64_t events_max = 30'000'000;
constexpr std::uint64_t events_of_a_moment_max = 1'000'000;
constexpr std::uint32_t first_pid = 100;
constexpr std::uint64_t traced_one_in = 8; // runs in which the library's log points are made

} // namespace

World::World(const Plan &plan, Trace::Sink sink)
    : plan_(plan), trace_(clock_.now), random_(Random(plan.settings.seed).fork(0xabc)),
      store_(clock_, trace_), network_(plan.settings.nodes), checkers_(*this),
      machines_(plan.settings.nodes) {
    trace_.set_sink(std::move(sink));
    open_trace_channels(trace_.has_sink() || plan.settings.seed % traced_one_in == 0);
    for (std::size_t i = 0; i < machines_.size(); i++) {
        machines_[i].rack = static_cast<int>(i % plan.settings.racks);
        machines_[i].next_pid = first_pid + static_cast<std::uint32_t>(i) * 10'000;
    }
}

World::~World() = default;

void World::fail(const std::string &checker, const std::string &text) {
    if (has_failed()) return;
    trace_.note("VIOLATION " + checker + ": " + text);
    outcome_.violation = Violation{checker, text, clock_.now};
}

// ---- the run ----

Outcome World::run() {
    for (std::size_t i = 0; i < machines_.size(); i++)
        start_daemon(static_cast<int>(i));
    for (const Op &op : plan_.ops)
        clock_.at(op.at, nobody, [this, &op] { play(op); });
    run_until(plan_.settings.duration);
    begin_calm();
    run_until(clock_.now + settling_time + second);
    end_of_all();
    outcome_.hash = trace_.hash();
    outcome_.time = clock_.now;
    return outcome_;
}

void World::run_until(Time end) {
    Time next_tick = clock_.now + store_tick;
    std::uint64_t events_of_moment = 0;
    while (!has_failed() && !clock_.queue.is_empty()) {
        const Time next = clock_.queue.next_time();
        if (next_tick <= std::min(next, end)) {
            clock_.now = next_tick;
            next_tick += store_tick;
            if (network_.is_store_there(clock_.now)) store_.tick();
            continue;
        }
        if (next > end) break;
        EventQueue::Event event = clock_.queue.take();
        events_of_moment = event.at == clock_.now ? events_of_moment + 1 : 0;
        clock_.now = event.at;
        outcome_.events++;
        if (outcome_.events > events_max || events_of_moment > events_of_a_moment_max)
            return fail("stuck", "too many events");
        const Time frozen_until = event.owner == nobody ? 0 : machine(event.owner).frozen_until;
        if (frozen_until > clock_.now)
            clock_.queue.put(frozen_until, event.owner, std::move(event.action));
        else
            event.action();
    }
    if (!has_failed()) clock_.now = std::max(clock_.now, end);
}

void World::begin_calm() {
    trace_.add("calm");
    end_faults(*this);
    clock_.after(settling_time, nobody, [this, calm = ++calms_] {
        if (calm == calms_) checkers_.when_settled();
    });
}

// Everybody leaves, and what is left is looked at.
void World::end_of_all() {
    if (has_failed()) return;
    for (Client &client : clients_)
        client.kill();
    run_until(clock_.now + leaving_time);
    if (!has_failed()) checkers_.when_empty();
}

// ---- machines ----

bool World::is_deserted() const {
    return std::ranges::all_of(machines_, [](const Machine &machine) { return machine.is_gone; });
}

Daemon *World::daemon_of(int node, std::uint64_t boot) {
    Daemon *daemon = daemon_of(node);
    return daemon != nullptr && daemon->life().boot == boot ? daemon : nullptr;
}

void World::start_daemon(int node) {
    Machine &there = machine(node);
    if (!there.is_up || there.daemon) return;
    const bool has_same_pid = settings().reuses_daemon_pid && there.daemon_pid != 0;
    if (!has_same_pid) there.daemon_pid = there.next_pid++;
    Daemon::Life life;
    life.node = node;
    life.rack = there.rack;
    life.pid = there.daemon_pid;
    life.boot = next_boot_++;
    life.predecessor = std::exchange(there.last_boot, life.boot);
    trace_.add("daemon: starts", static_cast<std::uint64_t>(node), life.boot, life.pid,
               life.predecessor);
    there.daemon = std::make_unique<Daemon>(*this, life, there.published);
}

void World::end_daemon(int node, bool is_known_to_next) {
    Machine &there = machine(node);
    if (!is_known_to_next) there.last_boot = 0;
    if (!there.daemon) return;
    trace_.add("daemon: ends", static_cast<std::uint64_t>(node), there.daemon->life().boot);
    outcome_.turns += there.daemon->turns();
    there.daemon.reset();
    for (Client &client : clients_)
        if (client.node() == node) client.connection_ended();
}

// ---- clients ----

Client *World::client(std::uint32_t index) {
    return index < client_at_.size() ? client_at_[index] : nullptr;
}

void World::start_client(std::uint32_t index, int node) {
    if (index >= client_at_.size()) client_at_.resize(index + 1);
    if (client_at_[index] == nullptr)
        client_at_[index] = &clients_.emplace_back(*this, index, node);
    Client &starting = *client_at_[index];
    Machine &there = machine(starting.node());
    if (starting.is_alive() || !there.is_up) return;
    const bool has_same_pid = settings().reuses_client_pid && starting.pid() != 0;
    starting.start(has_same_pid ? starting.pid() : there.next_pid++);
}

// ---- operations ----

void World::play(const Op &op) {
    trace_.add("op", static_cast<std::uint64_t>(op.kind), op.a, op.b, op.c * 1000ull + op.d);
    if (op.kind == Kind::calm)
        begin_calm();
    else if (op.kind <= Kind::unwatch)
        play_client(op);
    else
        play_fault(*this, op);
}

void World::play_client(const Op &op) {
    if (op.kind == Kind::start_client) return start_client(op.a, static_cast<int>(op.b));
    Client *there = client(op.a);
    if (there == nullptr) return;
    const Client::Key key = {op.b, op.c / 4, op.c % 4};
    switch (op.kind) {
    case Kind::kill_client:
        return there->kill();
    case Kind::publish:
        return there->publish(key, op.d / 4, op.d % 4);
    case Kind::withdraw:
        return there->withdraw(key);
    case Kind::watch:
        return there->watch(op.b);
    case Kind::unwatch:
        return there->unwatch(op.b);
    default:
        return;
    }
}

} // namespace ds::sim
