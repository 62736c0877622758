// What each stream of changes costs the store, and so each further node: a bare client holds many
// streams of the same range and writes, one entry at a time and many at once.
#include "bench/relay/bulk.h"

namespace ds::bench::replication {

namespace {

constexpr std::size_t batch = 128; // entries; the store takes no more in a transaction
constexpr std::size_t few = 1;
constexpr std::size_t many = 100;
constexpr double bytes_per_kb = 1024;

// As many as the nodes would leave in the store.
std::vector<etcd::KeyValue> sample_entries(const Options &options) {
    const Store store(options);
    const Pair pair(options, store);
    const Bulk bulk(*pair.sender, *pair.receiver, batch);
    Gateway gateway(store.endpoint());
    return entries_for_bare_side(gateway);
}

class Streams {
  public:
    Streams(const Store &store, std::size_t count)
        : store_(store), gateway_(store.endpoint()), memory_before_(store.resident_bytes()) {
        for (std::size_t i = 0; i < count; i++)
            watches_.push_back(std::make_unique<Watch>(gateway_, entries_of(other_cluster)));
    }

    // Since there was none.
    double memory_per_stream() const {
        const auto growth =
            static_cast<double>(store_.resident_bytes()) - static_cast<double>(memory_before_);
        return growth / static_cast<double>(watches_.size());
    }

    // CPU time of the store for one change of one entry, until every stream has brought it; the
    // bodies of requests are written in turn.
    double cpu_us_per_change(const std::vector<std::string> &bodies, std::string_view path,
                             std::size_t changes_each, double seconds) {
        const double cpu_before = store_.cpu_seconds();
        const auto start = Clock::now();
        std::uint64_t written = 0;
        for (std::size_t i = 0; seconds_since(start) < seconds; i = (i + 1) % bodies.size()) {
            gateway_.call(path, bodies[i]);
            written += changes_each;
            expected_ += changes_each;
            gateway_.run_until([this] {
                return std::ranges::all_of(
                    watches_, [this](const auto &watch) { return watch->events() >= expected_; });
            });
        }
        return (store_.cpu_seconds() - cpu_before) * us_per_s / static_cast<double>(written);
    }

  private:
    const Store &store_;
    Gateway gateway_;
    std::uint64_t memory_before_;
    std::vector<std::unique_ptr<Watch>> watches_;
    std::uint64_t expected_ = 0;
};

struct Costs {
    double single_us, batched_us;
};

Costs measure_count(const Options &options, Figures &figures, std::size_t count,
                    const std::vector<etcd::KeyValue> &entries) {
    std::vector<std::string> single;
    for (const etcd::KeyValue &entry : entries)
        single.push_back(put_body(entry));
    const std::vector<std::string> batched = {batch_body(entries.begin(), entries.end())};
    const std::string prefix = "streams_" + std::to_string(count) + "_";
    const Store store(options);
    Streams streams(store, count);
    if (count == many)
        figures.add(bare, "streams_memory_each", "KB", streams.memory_per_stream() / bytes_per_kb);
    const Costs costs = {
        streams.cpu_us_per_change(single, put_path, 1, options.seconds),
        streams.cpu_us_per_change(batched, transaction_path, entries.size(), options.seconds)};
    figures.add(bare, prefix + "single_store_cpu", "us/change", costs.single_us);
    figures.add(bare, prefix + "batched_store_cpu", "us/change", costs.batched_us);
    return costs;
}

} // namespace

void measure_streams(const Options &options, Figures &figures) {
    std::vector<etcd::KeyValue> entries = sample_entries(options);
    entries.resize(std::min(entries.size(), batch));
    for (int run = 0; run < options.runs; run++) {
        const Costs low = measure_count(options, figures, few, entries);
        const Costs high = measure_count(options, figures, many, entries);
        constexpr auto further = static_cast<double>(many - few);
        figures.add(bare, "streams_further_single_cpu", "us/event",
                    (high.single_us - low.single_us) / further);
        figures.add(bare, "streams_further_batched_cpu", "us/event",
                    (high.batched_us - low.batched_us) / further);
    }
}

} // namespace ds::bench::replication
