// Publications against both servers: one after the other, and 64 under way.
#include <poll.h>

#include "link.h"
#include "scenarios.h"

namespace ds::bench {

namespace {

constexpr double warm_up_share = 0.2; // of a run's time, before it counts
constexpr double us_per_s = 1e6;
constexpr std::size_t outstanding_max = 64;
constexpr std::uint32_t port_max = 65535;

std::vector<double> round_trips_us(Link &link, v1::Request &request, double seconds) {
    std::vector<double> samples;
    const auto start = Clock::now();
    auto *ipv4 = request.mutable_publish()->mutable_endpoint()->mutable_ipv4();
    while (seconds_since(start) < seconds) {
        ipv4->set_port(ipv4->port() % port_max + 1);
        const auto sent = Clock::now();
        link.put(request);
        link.flush();
        link.await_replies(1);
        samples.push_back(seconds_since(sent) * us_per_s);
    }
    return samples;
}

// What a publisher publishes: always new names, so that the directory grows, or changes of a
// thousand names, as in a directory that is in use.
struct Load {
    const char *name;
    std::size_t counting_digits; // of a name, from its end
};
constexpr Load fresh_names = {"new", 10};
constexpr Load known_names = {"change", 3};

// A client that always has as many unanswered publications as allowed.
class Publisher {
  public:
    Publisher(const std::string &socket, std::size_t number, const Load &load)
        : link_(socket), request_(publish_request()), counting_digits_(load.counting_digits) {
        request_.mutable_publish()->set_name("bench/" + std::to_string(number) + "/0000000000");
    }

    int fd() const { return link_.fd(); }
    std::uint64_t answered() const { return answered_; }
    std::size_t outstanding() const { return outstanding_; }

    void fill() {
        for (; outstanding_ < outstanding_max; outstanding_++) {
            count_up();
            link_.put(request_);
        }
        link_.flush();
    }
    void take() {
        const std::size_t count = link_.take(false, [](const v1::Event &) {});
        outstanding_ -= count;
        answered_ += count;
    }

  private:
    // The next name, by counting in its digits: a generator that formats numbers would be slower
    // than the server.
    void count_up() {
        std::string &name = *request_.mutable_publish()->mutable_name();
        for (std::size_t at = 1; at <= counting_digits_; at++) {
            char &digit = name[name.size() - at];
            digit = digit == '9' ? '0' : static_cast<char>(digit + 1);
            if (digit != '0') return;
        }
    }

    Link link_;
    v1::Request request_;
    std::size_t counting_digits_;
    std::size_t outstanding_ = 0;
    std::uint64_t answered_ = 0;
};

// All publishers run in this one thread: it serves whoever has answers waiting.
class Publishers {
  public:
    Publishers(const std::string &socket, std::size_t count, const Load &load) {
        for (std::size_t i = 0; i < count; i++) {
            publishers_.emplace_back(socket, i, load);
            items_.push_back({publishers_.back().fd(), POLLIN, 0});
        }
    }
    void run(double seconds) {
        const auto start = Clock::now();
        for (Publisher &publisher : publishers_)
            publisher.fill();
        while (seconds_since(start) < seconds)
            serve();
    }
    std::uint64_t answered() const {
        std::uint64_t sum = 0;
        for (const Publisher &publisher : publishers_)
            sum += publisher.answered();
        return sum;
    }

  private:
    void serve() {
        poll(items_.data(), items_.size(), -1);
        for (std::size_t i = 0; i < items_.size(); i++) {
            if (items_[i].revents == 0) continue;
            publishers_[i].take();
            publishers_[i].fill();
        }
    }

    std::vector<Publisher> publishers_;
    std::vector<pollfd> items_;
};

void measure_publishers(const Options &options, Figures &figures, std::size_t clients,
                        const Load &load) {
    const std::string prefix = "pipelined_" + std::to_string(clients) + "_" + load.name + "_";
    alternate(options.runs, [&](Kind kind) {
        const ServerProcess server(options.programs, kind);
        Publishers publishers(server.socket(), clients, load);
        publishers.run(options.seconds * warm_up_share);
        const std::uint64_t answered_before = publishers.answered();
        const double cpu_before = server.cpu_seconds();
        const auto start = Clock::now();
        publishers.run(options.seconds);
        const double seconds = seconds_since(start);
        const double cpu_seconds = server.cpu_seconds() - cpu_before;
        const auto count = static_cast<double>(publishers.answered() - answered_before);
        figures.add(kind, prefix + "rate", "publishes/s", count / seconds);
        figures.add(kind, prefix + "server_cpu", "us/publish", cpu_seconds * us_per_s / count);
    });
    figures.set_goal(prefix + "rate", {.is_upper_bound = false, .bound = 0.6});
}

} // namespace

void measure_round_trip(const Options &options, Figures &figures) {
    alternate(options.runs, [&](Kind kind) {
        const ServerProcess server(options.programs, kind);
        Link link(server.socket());
        v1::Request request = publish_request();
        request.mutable_publish()->set_name("bench/round-trip");
        round_trips_us(link, request, options.seconds * warm_up_share);
        std::vector<double> samples = round_trips_us(link, request, options.seconds);
        figures.add(kind, "round_trip_p50", "us", percentile(samples, 0.50));
        figures.add(kind, "round_trip_p99", "us", percentile(samples, 0.99));
    });
    figures.set_goal("round_trip_p50", {.is_upper_bound = true, .bound = 1.3});
}

void measure_pipelined(const Options &options, Figures &figures) {
    for (const std::size_t clients : {std::size_t{1}, std::size_t{4}})
        for (const Load &load : {fresh_names, known_names})
            measure_publishers(options, figures, clients, load);
}

} // namespace ds::bench
