// A node with many services is killed: when the others know, and what it costs to clear up.
#include <csignal>

#include "bench/relay/bulk.h"

namespace ds::bench::replication {

namespace {

void await_withdrawal(Link &link) {
    bool is_gone = false;
    while (!is_gone)
        await_events(link, [&](const v1::Event &event) {
            is_gone = is_gone || (event.has_notification() &&
                                  event.notification().snapshot().instances_size() == 0);
        });
}

} // namespace

void measure_death(const Options &options, Figures &figures) {
    const auto count = static_cast<double>(options.services);
    const Store store(options);
    const Pair pair(options, store);
    const Bulk bulk(*pair.sender, *pair.receiver, options.services);
    Gateway gateway(store.endpoint());
    const Watch deletions(gateway, entries_of(cluster));
    Link watcher(pair.receiver->socket());
    register_for(watcher, {"bench/bulk/0"});

    const Metrics before = gateway.metrics();
    const auto start = Clock::now();
    kill(pair.sender->pid(), SIGKILL);
    await_withdrawal(watcher);
    figures.add(replicated, "death_noticed", "s", seconds_since(start));
    while (status_of(watcher).services() > 0)
        if (seconds_since(start) > 600) throw std::runtime_error("services of a dead node stay");
    const double store_cpu = store.cpu_seconds();
    const double receiver_cpu = pair.receiver->cpu_seconds();
    const auto noticed = Clock::now();
    gateway.run_until([&] { return deletions.events() >= options.services; });
    figures.add(replicated, "death_cleared", "s", seconds_since(noticed));
    figures.add(replicated, "death_store_cpu", "us/service",
                (store.cpu_seconds() - store_cpu) * us_per_s / count);
    figures.add(replicated, "death_receiver_cpu", "us/service",
                (pair.receiver->cpu_seconds() - receiver_cpu) * us_per_s / count);
    // A node asks for the store's state when it connects.
    figures.add(replicated, "death_reconnects", "count",
                gateway.metrics().calls("Status") - before.calls("Status"));
}

} // namespace ds::bench::replication
