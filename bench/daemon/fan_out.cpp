// One change, many watchers. Publisher and watchers are sessions of their own, served by this one
// thread, so that a time needs no second clock and the server has the other core.
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "link.h"
#include "scenarios.h"

namespace ds::bench {

namespace {

// Names that change. A name changes again only after all its watchers were told, so that the daemon
// can merge no two changes and every change counts once for every watcher.
constexpr std::size_t names = 64;
constexpr std::uint32_t port_max = 65535;
constexpr double us_per_s = 1e6;

class Audience {
  public:
    Audience(const std::string &socket, std::size_t watchers)
        : publisher_(socket), request_(publish_request()), epoll_(epoll_create1(EPOLL_CLOEXEC)) {
        if (epoll_ < 0) throw std::system_error(errno, std::generic_category(), "epoll_create1");
        links_.reserve(watchers);
        for (std::size_t i = 0; i < watchers; i++) {
            links_.emplace_back(socket);
            register_all(links_.back());
            watch(links_.back());
        }
        watch(publisher_);
    }
    ~Audience() { close(epoll_); }
    Audience(const Audience &) = delete;
    Audience &operator=(const Audience &) = delete;

    // One change at a time; microseconds until the last watcher had it.
    std::vector<double> latencies_us(double seconds);
    // As many changes under way as there are names. Returns the notifications that were received.
    std::uint64_t sustain(double seconds);

  private:
    struct Name {
        std::uint32_t port = 0; // of the latest change; 0 before the first
        std::size_t told = 0;   // watchers that have it
        bool is_under_way = false;
    };

    static std::string text_of(std::size_t index) { return "bench/fan/" + std::to_string(index); }
    void register_all(Link &link);
    void watch(Link &link);
    void change(std::size_t index); // gathers the request; flush the publisher
    void serve();                   // waits for events and takes them
    void take(const v1::Event &event);

    Link publisher_;
    v1::Request request_;
    int epoll_;
    std::vector<Link> links_;
    std::array<Name, names> names_;
    std::vector<std::size_t> done_; // names that all watchers were told of, since the last look
    std::uint64_t notifications_ = 0;
    std::uint32_t port_ = 0;
};

// Registers for every name and takes the first notifications, which say that there is nothing yet.
void Audience::register_all(Link &link) {
    for (std::size_t i = 0; i < names; i++) {
        v1::Request request;
        request.mutable_register_()->set_name(text_of(i));
        request.mutable_register_()->set_cookie(i);
        link.put(request);
    }
    link.flush();
    std::size_t events = 0; // a reply and a notification for each
    while (events < 2 * names)
        events += link.take(true, [](const v1::Event &) {});
}

void Audience::watch(Link &link) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.ptr = &link;
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, link.fd(), &event) != 0)
        throw std::system_error(errno, std::generic_category(), "epoll_ctl");
}

void Audience::change(std::size_t index) {
    port_ = port_ % port_max + 1;
    names_[index] = {port_, 0, true};
    request_.mutable_publish()->set_name(text_of(index));
    request_.mutable_publish()->mutable_endpoint()->mutable_ipv4()->set_port(port_);
    publisher_.put(request_);
}

void Audience::serve() {
    std::array<epoll_event, 256> events;
    const int count = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), 10'000);
    if (count == 0) throw std::runtime_error("a notification did not arrive within ten seconds");
    for (int i = 0; i < count; i++)
        static_cast<Link *>(events[static_cast<std::size_t>(i)].data.ptr)
            ->take(false, [this](const v1::Event &event) { take(event); });
}

void Audience::take(const v1::Event &event) {
    if (!event.has_notification()) return;
    const v1::Notification &notification = event.notification();
    Name &name = names_.at(notification.cookie());
    const bool is_latest =
        notification.snapshot().instances_size() == 1 &&
        notification.snapshot().instances(0).endpoint().ipv4().port() == name.port;
    if (!is_latest || !name.is_under_way)
        throw std::runtime_error("a notification carries another state than the one published");
    notifications_++;
    if (++name.told < links_.size()) return;
    name.is_under_way = false;
    done_.push_back(notification.cookie());
}

std::vector<double> Audience::latencies_us(double seconds) {
    std::vector<double> samples;
    const auto start = Clock::now();
    for (std::size_t index = 0; seconds_since(start) < seconds; index = (index + 1) % names) {
        const auto published = Clock::now();
        change(index);
        publisher_.flush();
        while (done_.empty())
            serve();
        samples.push_back(seconds_since(published) * us_per_s);
        done_.clear();
    }
    return samples;
}

std::uint64_t Audience::sustain(double seconds) {
    const std::uint64_t before = notifications_;
    const auto start = Clock::now();
    for (std::size_t i = 0; i < names; i++)
        change(i);
    std::size_t under_way = names;
    publisher_.flush();
    while (under_way > 0) {
        serve();
        const bool goes_on = seconds_since(start) < seconds;
        for (const std::size_t index : done_) {
            if (goes_on)
                change(index);
            else
                under_way--;
        }
        done_.clear();
        publisher_.flush();
    }
    return notifications_ - before;
}

void measure_audience(const Options &options, Figures &figures, std::size_t watchers) {
    const std::string prefix = "watchers_" + std::to_string(watchers) + "_";
    const ServerProcess server(options.programs, Kind::daemon);
    Audience audience(server.socket(), watchers);
    audience.sustain(options.seconds / 4);
    for (int run = 0; run < options.runs; run++) {
        std::vector<double> samples = audience.latencies_us(options.seconds);
        figures.add(Kind::daemon, prefix + "last_told_p50", "us", percentile(samples, 0.50));
        figures.add(Kind::daemon, prefix + "last_told_p99", "us", percentile(samples, 0.99));
        const double cpu_before = server.cpu_seconds();
        const auto start = Clock::now();
        const auto count = static_cast<double>(audience.sustain(options.seconds));
        const double seconds = seconds_since(start);
        const double cpu_seconds = server.cpu_seconds() - cpu_before;
        figures.add(Kind::daemon, prefix + "rate", "notifications/s", count / seconds);
        figures.add(Kind::daemon, prefix + "server_cpu", "us/notification",
                    cpu_seconds * us_per_s / count);
    }
}

} // namespace

void measure_fan_out(const Options &options, Figures &figures) {
    for (const int watchers : options.watchers)
        measure_audience(options, figures, static_cast<std::size_t>(watchers));
}

} // namespace ds::bench
