// Changes without a pause. A service is never in two writes at once and states that were overtaken
// are skipped, so one service changes on the other node as often as the store takes a write.
#include <poll.h>

#include "bench/relay/nodes.h"

namespace ds::bench::replication {

namespace {

constexpr std::size_t outstanding_max = 64;
constexpr std::uint32_t port_max = 65535;
constexpr double warm_up_share = 0.2;

std::string text_of(std::size_t index) {
    return "bench/changes/" + std::to_string(index);
}

// A publisher that always has changes under way, and a watcher on the other node.
class Flood {
  public:
    Flood(const Pair &pair, std::size_t names)
        : names_(names), publisher_(pair.sender->socket()), watcher_(pair.receiver->socket()),
          request_(publish_request()) {
        std::vector<std::string> texts;
        for (std::size_t i = 0; i < names; i++)
            texts.push_back(text_of(i));
        register_for(watcher_, texts);
    }

    void run(double seconds) {
        const auto start = Clock::now();
        pollfd items[] = {{publisher_.fd(), POLLIN, 0}, {watcher_.fd(), POLLIN, 0}};
        while (seconds_since(start) < seconds) {
            fill();
            poll(items, 2, 100);
            const std::size_t answers = publisher_.take(false, [](const v1::Event &) {});
            outstanding_ -= answers;
            published_ += answers;
            told_ += watcher_.take(false, [](const v1::Event &) {});
        }
    }
    std::uint64_t published() const { return published_; }
    std::uint64_t told() const { return told_; }

  private:
    void fill() {
        for (; outstanding_ < outstanding_max; outstanding_++) {
            index_ = (index_ + 1) % names_;
            port_ = port_ % port_max + 1;
            request_.mutable_publish()->set_name(text_of(index_));
            request_.mutable_publish()->mutable_endpoint()->mutable_ipv4()->set_port(port_);
            publisher_.put(request_);
        }
        publisher_.flush();
    }

    std::size_t names_;
    Link publisher_, watcher_;
    v1::Request request_;
    std::size_t outstanding_ = 0, index_ = 0;
    std::uint32_t port_ = 0;
    std::uint64_t published_ = 0, told_ = 0;
};

void measure_flood(const Options &options, Figures &figures, const Store &store, const Pair &pair,
                   std::size_t names) {
    const std::string prefix = "changes_" + std::to_string(names) + "_";
    Gateway gateway(store.endpoint());
    Flood flood(pair, names);
    flood.run(options.seconds * warm_up_share);
    for (int run = 0; run < options.runs; run++) {
        const auto published = static_cast<double>(flood.published());
        const auto told = static_cast<double>(flood.told());
        const double transactions = gateway.metrics().calls("Txn");
        const double store_cpu = store.cpu_seconds();
        const double sender_cpu = pair.sender->cpu_seconds();
        const double receiver_cpu = pair.receiver->cpu_seconds();
        const auto start = Clock::now();
        flood.run(options.seconds);
        const double seconds = seconds_since(start);
        const double changes = static_cast<double>(flood.told()) - told;
        const auto add = [&](const char *name, const char *unit, double value) {
            figures.add(replicated, prefix + name, unit, value);
        };
        add("published_rate", "changes/s",
            (static_cast<double>(flood.published()) - published) / seconds);
        add("told_rate", "changes/s", changes / seconds);
        add("sender_cpu", "us/told",
            (pair.sender->cpu_seconds() - sender_cpu) * us_per_s / changes);
        add("receiver_cpu", "us/told",
            (pair.receiver->cpu_seconds() - receiver_cpu) * us_per_s / changes);
        add("store_cpu", "us/told", (store.cpu_seconds() - store_cpu) * us_per_s / changes);
        add("transactions", "1/s", (gateway.metrics().calls("Txn") - transactions) / seconds);
    }
}

} // namespace

void measure_changes(const Options &options, Figures &figures) {
    const Store store(options);
    const Pair pair(options, store);
    for (const std::size_t names : {std::size_t{1}, std::size_t{64}, std::size_t{1000}})
        measure_flood(options, figures, store, pair, names);
}

} // namespace ds::bench::replication
