// Resident memory of the daemon: what a service and an idle session add to it.
#include <algorithm>

#include "link.h"
#include "scenarios.h"

namespace ds::bench {

namespace {

constexpr std::size_t services = 100'000;
constexpr std::size_t sessions = 1'000;
constexpr double bytes_per_mb = 1024 * 1024;

void publish(Link &link, std::size_t count) {
    constexpr std::size_t batch = 64;
    v1::Request request = publish_request();
    for (std::size_t i = 0; i < count; i += batch) {
        const std::size_t size = std::min(batch, count - i);
        for (std::size_t k = 0; k < size; k++) {
            request.mutable_publish()->set_name("bench/memory/" + std::to_string(i + k));
            link.put(request);
        }
        link.flush();
        link.await_replies(size);
    }
}

double growth(std::uint64_t before, std::uint64_t after) {
    return static_cast<double>(after) - static_cast<double>(before);
}

} // namespace

void measure_memory(const Options &options, Figures &figures) {
    for (int run = 0; run < options.runs; run++) {
        const ServerProcess server(options.programs, Kind::daemon);
        Link link(server.socket());
        publish(link, 1); // what the first request of a process takes is not the services'
        const std::uint64_t before = server.own_resident_bytes();
        publish(link, services);
        figures.add(Kind::daemon, "memory_per_service", "bytes",
                    growth(before, server.own_resident_bytes()) / static_cast<double>(services));
        figures.add(Kind::daemon, "memory_100000_services", "MB",
                    static_cast<double>(server.resident_bytes()) / bytes_per_mb);
    }
    alternate(options.runs, [&](Kind kind) {
        const ServerProcess server(options.programs, kind);
        std::vector<Link> links;
        links.emplace_back(server.socket());
        const std::uint64_t before = server.own_resident_bytes();
        for (std::size_t i = 0; i < sessions; i++)
            links.emplace_back(server.socket());
        figures.add(kind, "memory_per_idle_session", "bytes",
                    growth(before, server.own_resident_bytes()) / static_cast<double>(sessions));
        figures.add(kind, "memory_1000_idle_sessions", "MB",
                    static_cast<double>(server.resident_bytes()) / bytes_per_mb);
    });
}

} // namespace ds::bench
