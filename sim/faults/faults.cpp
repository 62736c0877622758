#include "sim/faults/faults.h"

#include "sim/world/world.h"

namespace ds::sim {

namespace {

bool is_up(World &world, int node) {
    return world.daemon_of(node) != nullptr;
}

void start_daemon_later(World &world, int node, Time delay) {
    world.clock().after(delay, nobody, [&world, node, boots = world.machine(node).boots] {
        if (world.machine(node).boots == boots) world.start_daemon(node);
    });
}

void kill_daemon(World &world, int node, Time down) {
    if (!is_up(world, node)) return;
    world.end_daemon(node, true);
    start_daemon_later(world, node, down);
}

void stop_daemon(World &world, int node, Time down, bool keeps_published) {
    if (!is_up(world, node)) return;
    if (!keeps_published) world.daemon_of(node)->engine().withdraw();
    world.end_daemon(node, true);
    start_daemon_later(world, node, down);
}

// The clients of a machine are started by it again when it boots.
void boot_machine(World &world, int node) {
    Machine &machine = world.machine(node);
    if (machine.is_up || machine.is_gone) return;
    world.trace().add("machine: boots", static_cast<std::uint64_t>(node));
    machine.is_up = true;
    machine.boots++;
    machine.published = {};
    machine.last_boot = 0;
    world.start_daemon(node);
    for (Client &client : world.clients())
        if (client.node() == node) world.start_client(client.index(), node);
}

void halt_machine(World &world, int node, Time down) {
    Machine &machine = world.machine(node);
    if (!machine.is_up) return;
    for (Client &client : world.clients())
        if (client.node() == node) client.kill();
    world.end_daemon(node, false);
    machine.is_up = false;
    machine.is_gone = down == 0;
    machine.frozen_until = 0;
    machine.halted_at = world.clock().now;
    world.checkers().machine_halted(node);
    if (down == 0) return;
    world.clock().after(down, nobody, [&world, node, boots = machine.boots] {
        if (world.machine(node).boots == boots) boot_machine(world, node);
    });
}

// One that is frozen already stays so for its time: what waits for its end keeps its order.
void freeze(World &world, int node, Time length) {
    Machine &machine = world.machine(node);
    const Time now = world.clock().now;
    if (machine.is_up && machine.frozen_until <= now) machine.frozen_until = now + length;
}

void partition(World &world, int node, Time length, bool is_silent) {
    world.network().block(node, world.clock().now + length);
    if (!is_silent && is_up(world, node)) world.daemon_of(node)->engine().lose_connection();
}

void lack_memory(World &world, int node, Time length, std::uint32_t one_in) {
    if (!is_up(world, node) || one_in == 0) return;
    Daemon &daemon = *world.daemon_of(node);
    daemon.platform().failing_one_in = one_in;
    world.clock().after(length, nobody, [&world, node, boot = daemon.life().boot] {
        if (Daemon *there = world.daemon_of(node, boot)) there->platform().failing_one_in = 0;
    });
}

void lose_all_connections(World &world) {
    for (Machine &machine : world.machines())
        if (machine.daemon) machine.daemon->engine().lose_connection();
}

void end_store_outage(World &world) {
    if (world.network().is_store_there(world.clock().now)) world.store().renew_leases();
}

} // namespace

void play_fault(World &world, const Op &op) {
    const int node = static_cast<int>(op.a);
    const Time length = op.b * ms;
    switch (op.kind) {
    case Kind::kill_daemon:
        return kill_daemon(world, node, length);
    case Kind::stop_daemon:
        return stop_daemon(world, node, length, op.c != 0);
    case Kind::halt_machine:
        return halt_machine(world, node, length);
    case Kind::freeze:
        return freeze(world, node, length);
    case Kind::partition:
        return partition(world, node, length, op.c != 0);
    case Kind::lack_memory:
        return lack_memory(world, node, length, op.c);
    case Kind::store_outage:
        world.network().block_store(world.clock().now + length);
        world.clock().after(length, nobody, [&world] { end_store_outage(world); });
        return lose_all_connections(world);
    case Kind::store_wipe:
        world.store().wipe();
        return lose_all_connections(world);
    default:
        return;
    }
}

void end_faults(World &world) {
    const bool was_away = !world.network().is_store_there(world.clock().now);
    world.network().heal();
    if (was_away) world.store().renew_leases();
    for (std::size_t i = 0; i < world.machines().size(); i++) {
        const int node = static_cast<int>(i);
        boot_machine(world, node);
        Daemon *daemon = world.daemon_of(node);
        // What memory was wanting for is not asked for again by itself.
        if (daemon != nullptr && daemon->platform().failed != 0) kill_daemon(world, node, 0);
        world.start_daemon(node);
    }
}

} // namespace ds::sim
