#include "bench/relay/store.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <stdexcept>
#include <vector>

namespace ds::bench::replication {

namespace {

// Below the ports that the kernel gives to outgoing connections; at random, so that measurements
// that run at the same time do not meet.
std::uint16_t free_port() {
    constexpr std::uint32_t first = 20'000;
    constexpr std::uint32_t count = 12'000;
    std::random_device random;
    for (int attempt = 0; attempt < 1000; attempt++) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(first + random() % count));
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const bool is_free =
            bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
        close(fd);
        if (is_free) return ntohs(address.sin_port);
    }
    throw std::runtime_error("no port is free");
}

std::vector<std::string> command_line(const std::string &program, const std::string &directory,
                                      std::uint16_t client_port, std::uint16_t peer_port) {
    const std::string client = "http://127.0.0.1:" + std::to_string(client_port);
    const std::string peer = "http://127.0.0.1:" + std::to_string(peer_port);
    return {program,
            "--name",
            "one",
            "--data-dir",
            directory + "/data",
            "--logger",
            "zap",
            "--log-outputs",
            directory + "/log",
            "--listen-client-urls",
            client,
            "--advertise-client-urls",
            client,
            "--listen-peer-urls",
            peer,
            "--initial-advertise-peer-urls",
            peer,
            "--initial-cluster",
            "one=" + peer};
}

} // namespace

Store::Store(const Options &options)
    : client_port_(free_port()), peer_port_(free_port()),
      process_([&](const std::string &directory) {
          return command_line(options.store, directory, client_port_, peer_port_);
      }) {}

// A line is NAME{LABELS} VALUE or NAME VALUE.
double Metrics::sum(std::string_view counter, std::string_view label) const {
    double result = 0;
    std::string_view rest = text_;
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        const std::size_t name_end = line.find_first_of("{ ");
        const std::size_t space = line.rfind(' ');
        if (space == std::string_view::npos || line.substr(0, name_end) != counter) continue;
        if (line.substr(0, space).find(label) == std::string_view::npos) continue;
        result += std::strtod(std::string(line.substr(space + 1)).c_str(), nullptr);
    }
    return result;
}

double Metrics::calls(std::string_view method) const {
    return sum("grpc_server_handled_total",
               method.empty() ? std::string() : "grpc_method=\"" + std::string(method) + "\"");
}

} // namespace ds::bench::replication
