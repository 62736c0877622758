#include <poll.h>

#include <stdexcept>

#include "bench/relay/bulk.h"

namespace ds::bench::replication {

namespace {

constexpr std::size_t clients = 4;
constexpr std::size_t outstanding_max = 64;
// No order is promised between services, but nothing is overtaken by more than what is under way to
// the store. When the last names of every client are there, all others are, or nearly so.
constexpr std::size_t awaited_max = 1024;
constexpr int patience_ms = 60'000;

std::string text_of(std::size_t index) {
    return "bench/bulk/" + std::to_string(index);
}

// The clients take the names in turn.
struct Publisher {
    Publisher(const std::string &socket, std::size_t first, std::size_t services)
        : link(socket), request(publish_request()), next(first), end(services) {}

    void fill() {
        for (; outstanding < outstanding_max && next < end; outstanding++, next += clients) {
            request.mutable_publish()->set_name(text_of(next));
            link.put(request);
        }
        link.flush();
    }
    void take() {
        outstanding -= link.take(false, [](const v1::Event &) {});
    }
    bool is_done() const { return next >= end && outstanding == 0; }

    Link link;
    v1::Request request;
    std::size_t next, end;
    std::size_t outstanding = 0;
};

std::vector<Publisher> make_publishers(const ServerProcess &server, std::size_t services) {
    std::vector<Publisher> publishers;
    for (std::size_t i = 0; i < clients; i++)
        publishers.emplace_back(server.socket(), i, services);
    return publishers;
}

void run(std::vector<Publisher> &publishers) {
    std::vector<pollfd> items;
    for (Publisher &publisher : publishers) {
        items.push_back({publisher.link.fd(), POLLIN, 0});
        publisher.fill();
    }
    const auto is_done = [](const Publisher &publisher) { return publisher.is_done(); };
    while (!std::ranges::all_of(publishers, is_done)) {
        if (poll(items.data(), items.size(), patience_ms) == 0)
            throw std::runtime_error("a node does not answer for a minute");
        for (std::size_t i = 0; i < items.size(); i++) {
            if (items[i].revents == 0) continue;
            publishers[i].take();
            publishers[i].fill();
        }
    }
}

std::vector<Link> links_of(std::vector<Publisher> &publishers) {
    std::vector<Link> links;
    for (Publisher &publisher : publishers)
        links.push_back(std::move(publisher.link));
    return links;
}

} // namespace

Bulk::Bulk(const ServerProcess &sender, const ServerProcess &receiver, std::size_t services) {
    Link watcher(receiver.socket());
    std::vector<std::string> awaited;
    for (std::size_t i = services - std::min(services, awaited_max); i < services; i++)
        awaited.push_back(text_of(i));
    register_for(watcher, awaited);
    std::vector<Publisher> publishers = make_publishers(sender, services);

    const auto start = Clock::now();
    run(publishers);
    std::size_t told = 0;
    while (told < awaited.size())
        await_events(watcher, [&](const v1::Event &event) {
            told += event.notification().snapshot().instances_size() == 1 ? 1 : 0;
        });
    while (status_of(watcher).services() < services)
        if (seconds_since(start) * 1000 > 10 * patience_ms)
            throw std::runtime_error("services have not arrived after ten minutes");
    seconds_ = seconds_since(start);
    publishers_ = links_of(publishers);
}

std::vector<Link> publish_all(const ServerProcess &server, std::size_t services) {
    std::vector<Publisher> publishers = make_publishers(server, services);
    run(publishers);
    return links_of(publishers);
}

} // namespace ds::bench::replication
