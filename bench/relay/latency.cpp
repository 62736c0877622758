// One change at a time: how long until the other side knows it.
#include "bench/relay/nodes.h"

namespace ds::bench::replication {

namespace {

// Changed in turn, so that no change waits for the end of the write before it.
constexpr std::size_t names = 64;
constexpr std::uint32_t port_max = 65535;
constexpr double warm_up_share = 0.3; // of a run's time, before it counts

std::string text_of(std::size_t index) {
    return "bench/latency/" + std::to_string(index);
}

// A publisher on one node, a watcher on the other.
class Conversation {
  public:
    explicit Conversation(const Pair &pair)
        : publisher_(pair.sender->socket()), watcher_(pair.receiver->socket()),
          request_(publish_request()) {
        std::vector<std::string> texts;
        for (std::size_t i = 0; i < names; i++)
            texts.push_back(text_of(i));
        register_for(watcher_, texts);
        for (std::size_t i = 0; i < names; i++)
            tell(i);
    }

    std::vector<double> latencies_us(double seconds) {
        std::vector<double> samples;
        const auto start = Clock::now();
        for (std::size_t i = 0; seconds_since(start) < seconds; i = (i + 1) % names) {
            const auto published = Clock::now();
            tell(i);
            samples.push_back(seconds_since(published) * us_per_s);
        }
        return samples;
    }

  private:
    void tell(std::size_t index) {
        port_ = port_ % port_max + 1;
        request_.mutable_publish()->set_name(text_of(index));
        request_.mutable_publish()->mutable_endpoint()->mutable_ipv4()->set_port(port_);
        publisher_.put(request_);
        publisher_.flush();
        publisher_.await_replies(1); // long before the other node hears of it
        bool is_told = false;
        while (!is_told)
            await_events(watcher_, [&](const v1::Event &event) {
                const v1::Snapshot &snapshot = event.notification().snapshot();
                is_told = snapshot.instances_size() == 1 &&
                          snapshot.instances(0).endpoint().ipv4().port() == port_;
            });
    }

    Link publisher_, watcher_;
    v1::Request request_;
    std::uint32_t port_ = 0;
};

Task<void> write(etcd::Client &client, std::string_view path, std::string body, bool &is_written) {
    co_await client.call(path, std::move(body));
    is_written = true;
}

// A bare client that writes and a stream that tells it.
class BareConversation {
  public:
    // How it writes: a put, or as the engine does, on a condition and with a stream of its own.
    enum class Manner { put, fenced };

    BareConversation(Gateway &gateway, std::vector<etcd::KeyValue> entries,
                     const etcd::KeyValue &fence, Manner manner)
        : gateway_(gateway), entries_(std::move(entries)), fence_(fence), manner_(manner),
          watch_(gateway, entries_of(other_cluster)) {
        if (manner == Manner::fenced)
            own_ = std::make_unique<Watch>(gateway, entries_of(other_cluster));
    }

    std::vector<double> latencies_us(double seconds) {
        std::vector<double> samples;
        const auto start = Clock::now();
        for (std::size_t i = 0; seconds_since(start) < seconds; i = (i + 1) % entries_.size()) {
            const auto published = Clock::now();
            const std::uint64_t seen = watch_.events();
            const bool is_put = manner_ == Manner::put;
            bool is_written = false;
            gateway_.begin(write(gateway_.client(), is_put ? put_path : transaction_path,
                                 is_put ? put_body(entries_[i]) : fenced_body(entries_[i], fence_),
                                 is_written));
            gateway_.run_until([&] { return is_written && watch_.events() > seen; });
            const std::chrono::duration<double> latency = watch_.last() - published;
            samples.push_back(latency.count() * us_per_s);
        }
        return samples;
    }

  private:
    Gateway &gateway_;
    std::vector<etcd::KeyValue> entries_;
    const etcd::KeyValue fence_;
    Manner manner_;
    Watch watch_;
    std::unique_ptr<Watch> own_;
};

template <typename Side>
void take(const Options &options, Figures &figures, Kind kind, const std::string &name,
          Side &side) {
    side.latencies_us(options.seconds * warm_up_share);
    std::vector<double> samples = side.latencies_us(options.seconds);
    figures.add(kind, name + "_p50", "us", percentile(samples, 0.50));
    figures.add(kind, name + "_p99", "us", percentile(samples, 0.99));
}

} // namespace

void measure_latency(const Options &options, Figures &figures) {
    const Store store(options);
    const Pair pair(options, store);
    Conversation nodes(pair);
    Gateway gateway(store.endpoint());
    const std::vector<etcd::KeyValue> entries = entries_for_bare_side(gateway);
    const etcd::KeyValue fence =
        gateway.list(etcd::Keys(cluster, "default").nodes()).at(0); // the first node's key
    for (const auto manner : {BareConversation::Manner::put, BareConversation::Manner::fenced}) {
        const bool is_put = manner == BareConversation::Manner::put;
        const std::string name = is_put ? "latency" : "latency_beside_fenced";
        Gateway own_gateway(store.endpoint());
        BareConversation bare_side(own_gateway, entries, fence, manner);
        alternate(options.runs, [&](Kind kind) {
            if (kind == replicated)
                take(options, figures, kind, name, nodes);
            else
                take(options, figures, kind, name, bare_side);
        });
    }
    figures.set_goal("latency_p50", {.is_upper_bound = true, .bound = 1.3});
}

} // namespace ds::bench::replication
