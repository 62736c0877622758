// Changes at a steady pace, and what each costs everybody. A service is never in two writes at
// once, and states that were overtaken are skipped: one service changes on the other node no more
// often than the store takes a write, whatever the pace. Paced, because a publisher that never
// pauses would take a processor from the store.
#include <poll.h>

#include <algorithm>

#include "bench/relay/nodes.h"

namespace ds::bench::replication {

namespace {

constexpr std::uint32_t port_max = 65535;
constexpr double warm_up_share = 0.2;

std::string text_of(std::size_t index) {
    return "bench/changes/" + std::to_string(index);
}

struct Load {
    const char *name;
    std::size_t names;
    double changes_per_s; // offered
};
constexpr Load loads[] = {
    {"changes_calm_", 1000, 500}, {"changes_flood_", 1000, 10'000}, {"changes_of_one_", 1, 10'000}};

// A publisher on one node and a watcher on the other.
class Flow {
  public:
    Flow(const Pair &pair, const Load &load)
        : names_(load.names), changes_per_s_(load.changes_per_s), publisher_(pair.sender->socket()),
          watcher_(pair.receiver->socket()), request_(publish_request()) {
        std::vector<std::string> texts;
        for (std::size_t i = 0; i < names_; i++)
            texts.push_back(text_of(i));
        register_for(watcher_, texts);
    }

    void run(double seconds) {
        const auto start = Clock::now();
        const auto base = static_cast<double>(sent_);
        pollfd items[] = {{publisher_.fd(), POLLIN, 0}, {watcher_.fd(), POLLIN, 0}};
        while (seconds_since(start) < seconds) {
            while (static_cast<double>(sent_) - base < seconds_since(start) * changes_per_s_)
                change_next();
            publisher_.flush();
            const timespec pause = {0, static_cast<long>(1e9 / changes_per_s_)};
            ppoll(items, 2, &pause, nullptr);
            published_ += publisher_.take(false, [](const v1::Event &) {});
            told_ += watcher_.take(false, [](const v1::Event &) {});
        }
    }
    std::uint64_t published() const { return published_; }
    std::uint64_t told() const { return told_; }

  private:
    void change_next() {
        index_ = (index_ + 1) % names_;
        port_ = port_ % port_max + 1;
        request_.mutable_publish()->set_name(text_of(index_));
        request_.mutable_publish()->mutable_endpoint()->mutable_ipv4()->set_port(port_);
        publisher_.put(request_);
        sent_++;
    }

    std::size_t names_;
    double changes_per_s_;
    Link publisher_, watcher_;
    v1::Request request_;
    std::size_t index_ = 0;
    std::uint32_t port_ = 0;
    std::uint64_t sent_ = 0, published_ = 0, told_ = 0;
};

void measure_load(const Options &options, Figures &figures, const Store &store, const Pair &pair,
                  const Load &load) {
    Gateway gateway(store.endpoint());
    Flow flow(pair, load);
    flow.run(options.seconds * warm_up_share);
    for (int run = 0; run < options.runs; run++) {
        const std::uint64_t published_before = flow.published();
        const std::uint64_t told_before = flow.told();
        const double transactions = gateway.metrics().calls("Txn");
        const double store_cpu = store.cpu_seconds();
        const double sender_cpu = pair.sender->cpu_seconds();
        const double receiver_cpu = pair.receiver->cpu_seconds();
        const auto start = Clock::now();
        flow.run(options.seconds);
        const double seconds = seconds_since(start);
        const auto published = static_cast<double>(flow.published() - published_before);
        const auto told = static_cast<double>(flow.told() - told_before);
        const auto add = [&](const char *name, const char *unit, double value) {
            figures.add(replicated, std::string(load.name) + name, unit, value);
        };
        const auto add_cpu = [&](const char *name, const char *unit, double used, double count) {
            add(name, unit, used * us_per_s / std::max(count, 1.0));
        };
        add("published_rate", "changes/s", published / seconds);
        add("told_rate", "changes/s", told / seconds);
        add_cpu("sender_cpu", "us/published", pair.sender->cpu_seconds() - sender_cpu, published);
        add_cpu("receiver_cpu", "us/told", pair.receiver->cpu_seconds() - receiver_cpu, told);
        add_cpu("store_cpu", "us/told", store.cpu_seconds() - store_cpu, told);
        add("transactions", "1/s", (gateway.metrics().calls("Txn") - transactions) / seconds);
    }
}

} // namespace

void measure_changes(const Options &options, Figures &figures) {
    const Store store(options);
    const Pair pair(options, store);
    for (const Load &load : loads)
        measure_load(options, figures, store, pair, load);
}

} // namespace ds::bench::replication
