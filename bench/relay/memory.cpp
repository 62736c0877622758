// What services take: published here with and without replication, and known from another node.
// And what it takes to connect to a store that is full.
#include "bench/relay/bulk.h"

namespace ds::bench::replication {

namespace {

double growth(std::uint64_t before, std::uint64_t after) {
    return static_cast<double>(after) - static_cast<double>(before);
}

void measure_local(const Options &options, Figures &figures) {
    const auto server = start_node(options, "", 1);
    publish_all(*server, 1); // what the first request of a process takes is not the services'
    const std::uint64_t before = server->own_resident_bytes();
    const std::vector<Link> publishers = publish_all(*server, options.services);
    figures.add(replicated, "memory_local_without_relay", "bytes/service",
                growth(before, server->own_resident_bytes()) /
                    static_cast<double>(options.services));
}

// A node comes to a store that holds everything already.
void measure_join(const Options &options, Figures &figures, const Store &store,
                  const std::string &name) {
    const auto count = static_cast<double>(options.services);
    Gateway gateway(store.endpoint());
    const Metrics before = gateway.metrics();
    const double store_cpu = store.cpu_seconds();
    const auto start = Clock::now();
    const auto node = start_node(options, store.endpoint(), 3);
    Link watcher(node->socket());
    register_for(watcher, {name});
    await_publication(watcher); // a list is told in one turn
    while (status_of(watcher).services() < options.services)
        continue;
    figures.add(replicated, "join_time", "s", seconds_since(start));
    figures.add(replicated, "join_store_cpu", "us/service",
                (store.cpu_seconds() - store_cpu) * us_per_s / count);
    figures.add(replicated, "join_node_cpu", "us/service", node->cpu_seconds() * us_per_s / count);
    figures.add(replicated, "join_store_sent", "bytes/service",
                (gateway.metrics().sent_bytes() - before.sent_bytes()) / count);
}

void measure_replicated(const Options &options, Figures &figures) {
    const auto count = static_cast<double>(options.services);
    const Store store(options);
    const Pair pair(options, store);
    const std::uint64_t sender = pair.sender->own_resident_bytes();
    const std::uint64_t receiver = pair.receiver->own_resident_bytes();
    const std::uint64_t of_store = store.resident_bytes();
    const Bulk bulk(*pair.sender, *pair.receiver, options.services);
    figures.add(replicated, "memory_local_with_relay", "bytes/service",
                growth(sender, pair.sender->own_resident_bytes()) / count);
    figures.add(replicated, "memory_remote", "bytes/service",
                growth(receiver, pair.receiver->own_resident_bytes()) / count);
    figures.add(replicated, "memory_store", "bytes/service",
                growth(of_store, store.resident_bytes()) / count);
    Gateway gateway(store.endpoint());
    figures.add(replicated, "memory_store_file", "bytes/service",
                gateway.metrics().sum("etcd_mvcc_db_total_size_in_bytes") / count);
    figures.add(replicated, "memory_receiver", "MB",
                static_cast<double>(pair.receiver->resident_bytes()) / bytes_per_mb);
    measure_join(options, figures, store, "bench/bulk/0");
}

} // namespace

void measure_memory(const Options &options, Figures &figures) {
    measure_local(options, figures);
    measure_replicated(options, figures);
}

} // namespace ds::bench::replication
