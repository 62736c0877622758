// What nodes cost the store that have nothing to say, each minute.
#include <sys/timerfd.h>
#include <unistd.h>

#include <cmath>
#include <system_error>

#include "bench/relay/bulk.h"

namespace ds::bench::replication {

namespace {

constexpr double seconds_per_minute = 60;

// Lets that much time pass, which is what is measured here.
void let_pass(double seconds) {
    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    itimerspec when = {};
    when.it_value.tv_sec = static_cast<time_t>(seconds);
    when.it_value.tv_nsec = static_cast<long>((seconds - std::floor(seconds)) * 1e9) + 1;
    std::uint64_t expirations = 0;
    const bool has_passed = timerfd_settime(timer, 0, &when, nullptr) == 0 &&
                            read(timer, &expirations, sizeof expirations) > 0;
    close(timer);
    if (!has_passed) throw std::system_error(errno, std::generic_category(), "timerfd");
}

// Of one store with these nodes, over the time of one audit and a little more.
void watch_quiet(const Options &options, Figures &figures, const std::string &prefix,
                 const Store &store, const std::vector<const ServerProcess *> &nodes) {
    Gateway gateway(store.endpoint());
    const auto cpu_of_nodes = [&] {
        double sum = 0;
        for (const ServerProcess *node : nodes)
            sum += node->cpu_seconds();
        return sum;
    };
    const double node_cpu = cpu_of_nodes();
    const double store_cpu = store.cpu_seconds();
    const Metrics before = gateway.metrics();
    const auto start = Clock::now();
    let_pass(options.idle_seconds);
    const double minutes = seconds_since(start) / seconds_per_minute;
    const double store_cpu_used = store.cpu_seconds() - store_cpu;
    const double node_cpu_used = cpu_of_nodes() - node_cpu;
    const Metrics after = gateway.metrics();
    const auto add = [&](const char *name, const char *unit, double value) {
        figures.add(replicated, prefix + name, unit, value / minutes);
    };
    add("calls", "1/min", after.calls() - before.calls());
    for (const char *method : {"Range", "Txn", "LeaseKeepAlive"})
        add((std::string("calls_") + method).c_str(), "1/min",
            after.calls(method) - before.calls(method));
    add("proposals", "1/min", after.proposals() - before.proposals());
    add("syncs", "1/min", after.syncs() - before.syncs());
    add("store_received", "bytes/min", after.received_bytes() - before.received_bytes());
    add("store_sent", "bytes/min", after.sent_bytes() - before.sent_bytes());
    add("store_cpu", "ms/min", store_cpu_used * 1000);
    if (!nodes.empty())
        add("node_cpu", "ms/min", node_cpu_used * 1000 / static_cast<double>(nodes.size()));
}

} // namespace

void measure_idle(const Options &options, Figures &figures) {
    {
        const Store store(options);
        watch_quiet(options, figures, "idle_0_nodes_", store, {});
        const auto node = start_node(options, store.endpoint(), 1);
        watch_quiet(options, figures, "idle_1_node_", store, {node.get()});
    }
    const Store store(options);
    const Pair pair(options, store);
    const auto third = start_node(options, store.endpoint(), 3);
    const std::vector<const ServerProcess *> nodes = {pair.sender.get(), pair.receiver.get(),
                                                      third.get()};
    watch_quiet(options, figures, "idle_3_nodes_", store, nodes);
    const Bulk bulk(*pair.sender, *pair.receiver, options.services);
    watch_quiet(options, figures, "idle_3_nodes_full_", store, nodes);
}

} // namespace ds::bench::replication
