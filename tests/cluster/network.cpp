#include "tests/cluster/network.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace cluster_test {

namespace {

using system_test::Descriptor;
using system_test::Finished;

constexpr char ip_program[] = "/usr/sbin/ip";
constexpr char nsenter_program[] = "/usr/bin/nsenter";
constexpr char own_network[] = "/proc/self/ns/net";
constexpr char bridge[] = "hub";
constexpr char subnet[] = "10.0.0.";
constexpr int own_number = 1; // of the test process in the subnet

// Runs ip with these arguments, on a host when the command to enter one is given.
Finished try_ip(const std::vector<std::string> &arguments,
                const std::vector<std::string> &enter = {}) {
    system_test::Launch launch;
    launch.arguments = enter;
    launch.arguments.emplace_back(ip_program);
    launch.arguments.insert(launch.arguments.end(), arguments.begin(), arguments.end());
    return run(launch);
}

void ip(const std::vector<std::string> &arguments, const std::vector<std::string> &enter = {}) {
    const Finished finished = try_ip(arguments, enter);
    if (finished.exit == system_test::Exit{0, 0}) return;
    std::string text = "ip";
    for (const std::string &argument : arguments)
        text += ' ' + argument;
    throw std::runtime_error(text + ": " + finished.err);
}

Descriptor open_own_network() {
    Descriptor network(open(own_network, O_RDONLY | O_CLOEXEC));
    if (network.get() < 0) throw std::runtime_error("the network namespace cannot be opened");
    return network;
}

void enter_new_network() {
    if (unshare(CLONE_NEWNET) != 0)
        throw std::runtime_error(std::string("unshare: ") + std::strerror(errno));
}

std::string path_of(const Descriptor &network) {
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(network.get());
}

} // namespace

// ---- host ----

Host::Host(int number)
    : cable_("cable" + std::to_string(number)), address_(subnet + std::to_string(number)) {
    const Descriptor own = open_own_network();
    enter_new_network();
    network_ = open_own_network();
    if (setns(own.get(), CLONE_NEWNET) != 0)
        throw std::runtime_error(std::string("setns: ") + std::strerror(errno));
    ip({"link", "add", cable_, "type", "veth", "peer", "name", "eth0"});
    ip({"link", "set", "eth0", "netns", path_of(network_)});
    ip({"link", "set", cable_, "up"});
    heal();
    ip({"address", "add", address_ + "/24", "dev", "eth0"}, enter());
    ip({"link", "set", "eth0", "up"}, enter());
    ip({"link", "set", "lo", "up"}, enter());
}

std::vector<std::string> Host::enter() const {
    return {nsenter_program, "--net=" + path_of(network_)};
}

void Host::cut() {
    ip({"link", "set", cable_, "nomaster"});
}

void Host::heal() {
    ip({"link", "set", cable_, "master", bridge});
}

// ---- network ----

// A child tries what the network needs.
std::string Network::obstacle() {
    for (const char *program : {ip_program, nsenter_program})
        if (access(program, X_OK) != 0) return std::string("there is no ") + program;
    system_test::ClientProcess attempt([](system_test::ClientProcess::Report &report) {
        Network network;
        network.add_host();
        report.line("");
    });
    try {
        attempt.next_line();
        return {};
    } catch (const std::exception &error) {
        return error.what();
    }
}

Network::Network() : hosts_(own_number) {
    enter_new_network();
    ip({"link", "set", "lo", "up"});
    ip({"link", "add", bridge, "type", "bridge"});
    ip({"address", "add", subnet + std::to_string(own_number) + "/24", "dev", bridge});
    ip({"link", "set", bridge, "up"});
}

Host Network::add_host() {
    return Host(++hosts_);
}

} // namespace cluster_test
