// Many publications at once, beside the best that a bare client makes of the same keys and values.
#include "bench/relay/bulk.h"

#include <stdexcept>

namespace ds::bench::replication {

namespace {

// How a bare client writes.
struct Manner {
    std::size_t operations; // of a transaction; the store takes 128
    std::size_t under_way;  // transactions
};
constexpr Manner manners[] = {{32, 4}, {32, 8}, {128, 1}, {128, 2}, {128, 4}, {128, 8}};
constexpr std::size_t trial_share = 5; // a trial writes that part of the entries

struct Load {
    const std::vector<etcd::KeyValue> &entries;
    std::size_t count;
    std::size_t operations;
    std::size_t next = 0;
};

// One of several writers; each takes what is next.
Task<void> write_some(etcd::Client &client, Load &load) {
    while (load.next < load.count) {
        const auto begin = load.entries.begin() + static_cast<std::ptrdiff_t>(load.next);
        load.next = std::min(load.next + load.operations, load.count);
        const auto end = load.entries.begin() + static_cast<std::ptrdiff_t>(load.next);
        std::string body = batch_body(begin, end);
        co_await client.call(transaction_path, std::move(body));
    }
}

struct Cost {
    double seconds;
    double store_cpu_seconds;
};

// Into an empty store, until a stream has brought everything.
Cost load_bare(const Options &options, const std::vector<etcd::KeyValue> &entries,
               std::size_t count, const Manner &manner) {
    const Store store(options);
    Gateway gateway(store.endpoint());
    const Watch watch(gateway, entries_of(other_cluster));
    const double cpu_before = store.cpu_seconds();
    Load load = {entries, count, manner.operations};
    const auto start = Clock::now();
    for (std::size_t i = 0; i < manner.under_way; i++)
        gateway.begin(write_some(gateway.client(), load));
    gateway.run_until([&] { return watch.events() >= count; });
    return {seconds_since(start), store.cpu_seconds() - cpu_before};
}

Manner best_manner(const Options &options, Figures &figures,
                   const std::vector<etcd::KeyValue> &entries) {
    const std::size_t count = std::max<std::size_t>(entries.size() / trial_share, 1);
    Manner best = manners[0];
    double best_rate = 0;
    for (const Manner &manner : manners) {
        const Cost cost = load_bare(options, entries, count, manner);
        const double rate = static_cast<double>(count) / cost.seconds;
        figures.add(bare,
                    "bulk_trial_" + std::to_string(manner.operations) + "x" +
                        std::to_string(manner.under_way) + "_rate",
                    "services/s", rate);
        if (rate > best_rate) best = manner;
        best_rate = std::max(best_rate, rate);
    }
    return best;
}

void add(Figures &figures, Kind kind, const char *name, double cpu_seconds, double count) {
    figures.add(kind, name, "us/service", cpu_seconds * us_per_s / count);
}

// The entries that the nodes have left in the store, for the bare side.
std::vector<etcd::KeyValue> load_replicated(const Options &options, Figures *figures) {
    const Store store(options);
    const Pair pair(options, store);
    Gateway gateway(store.endpoint());
    const Metrics before = gateway.metrics();
    const double store_cpu = store.cpu_seconds();
    const double sender_cpu = pair.sender->cpu_seconds();
    const double receiver_cpu = pair.receiver->cpu_seconds();
    const Bulk bulk(*pair.sender, *pair.receiver, options.services);
    const auto count = static_cast<double>(options.services);
    if (figures == nullptr) return entries_for_bare_side(gateway);
    add(*figures, replicated, "bulk_store_cpu", store.cpu_seconds() - store_cpu, count);
    add(*figures, replicated, "bulk_sender_cpu", pair.sender->cpu_seconds() - sender_cpu, count);
    add(*figures, replicated, "bulk_receiver_cpu", pair.receiver->cpu_seconds() - receiver_cpu,
        count);
    figures->add(replicated, "bulk_rate", "services/s", count / bulk.seconds());
    figures->add(replicated, "bulk_transactions", "count",
                 gateway.metrics().calls("Txn") - before.calls("Txn"));
    return {};
}

} // namespace

void measure_bulk(const Options &options, Figures &figures) {
    const std::vector<etcd::KeyValue> entries = load_replicated(options, nullptr);
    if (entries.size() < options.services)
        throw std::runtime_error("the store holds fewer entries than were published");
    const Manner best = best_manner(options, figures, entries);
    alternate(options.runs, [&](Kind kind) {
        if (kind == replicated) {
            load_replicated(options, &figures);
            return;
        }
        const Cost cost = load_bare(options, entries, entries.size(), best);
        const auto count = static_cast<double>(entries.size());
        figures.add(bare, "bulk_rate", "services/s", count / cost.seconds);
        add(figures, bare, "bulk_store_cpu", cost.store_cpu_seconds, count);
    });
    figures.set_goal("bulk_rate", {.is_upper_bound = false, .bound = 0.7});
}

} // namespace ds::bench::replication
