#include "tests/cluster/cluster.h"

#include <poll.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace cluster_test {

std::chrono::milliseconds patience() {
    return system_test::is_sanitized() ? 100s : 70s;
}

// ---- node ----

Node::Node(char letter, std::string endpoints, NodeOptions options)
    : letter_(letter), endpoints_(std::move(endpoints)), options_(std::move(options)) {
    directory_.emplace();
}

Node::~Node() {
    if (is_frozen_) thaw();
}

std::string Node::address() const {
    constexpr char digits[] = "0123456789abcdef";
    return std::string("02:00:00:00:00:") + digits[letter_ / 16] + digits[letter_ % 16];
}

void Node::start() {
    std::ofstream(config_file()) << "[daemon]\nnode_address = \"" << address()
                                 << "\"\n[relay]\ncluster = \"test\"\nendpoints = \"" << endpoints_
                                 << "\"\nrack = \"" << options_.rack
                                 << "\"\nttl_ms = " << options_.ttl.count() << "\non_outage = \""
                                 << options_.on_outage << "\"\nkeep_published = "
                                 << (options_.keep_published ? "true" : "false") << '\n';
    system_test::Daemon::Options daemon;
    daemon.runtime_dir = directory_->path();
    daemon.arguments = {"--config", config_file()};
    if (options_.host != nullptr) daemon.enter = options_.host->enter();
    daemon_.emplace(daemon);
    observer_.emplace(daemon_->socket());
    is_connected = true;
}

void Node::stop() {
    observer_.reset();
    daemon_->stop();
    daemon_.reset();
    is_connected = false;
}

void Node::kill() {
    observer_.reset();
    daemon_->kill();
    daemon_.reset();
    is_connected = is_frozen_ = false;
}

void Node::freeze() {
    daemon_->signal(SIGSTOP);
    siginfo_t state = {};
    if (waitid(P_PID, static_cast<id_t>(daemon_->pid()), &state, WSTOPPED | WNOWAIT) != 0)
        throw std::runtime_error("a daemon does not stand still");
    is_frozen_ = true;
}

void Node::thaw() {
    daemon_->signal(SIGCONT);
    is_frozen_ = false;
}

void Node::forget_runtime_dir() {
    directory_.emplace();
}

std::uint32_t Node::times_down(const Node &other) {
    v1::Request request;
    request.mutable_nodes();
    system_test::Client client(socket());
    const v1::Reply reply = client.ok(request);
    for (const v1::Node &node : reply.nodes().nodes())
        if (node.address().back() == other.letter()) return node.times_down();
    return 0;
}

// ---- cluster ----

Node &Cluster::add_node(const std::string &endpoints, const NodeOptions &options) {
    const char letter = static_cast<char>('a' + nodes_.size());
    nodes_.push_back(std::make_unique<Node>(letter, endpoints, options));
    nodes_.back()->start();
    return *nodes_.back();
}

Publisher &Cluster::add_publisher(Node &node) {
    members_.push_back(std::make_unique<Member>(node));
    return members_.back()->publisher;
}

void Cluster::end() {
    members_.clear();
    nodes_.clear();
}

void Cluster::read_observers() {
    for (const auto &node : nodes_)
        if (node->is_running()) node->observer().take();
}

void Cluster::await_observers(Clock::time_point deadline) {
    std::vector<pollfd> ready;
    for (const auto &node : nodes_)
        if (node->is_running()) ready.push_back({node->observer().fd(), POLLIN, 0});
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    poll(ready.data(), ready.size(), static_cast<int>(std::max<long long>(left, 0)));
}

// Not everything that daemons can be asked for is told to observers as well: that the relay is away
// is not, and neither is its return when nothing has changed. So the condition is looked at again
// now and then when nothing comes.
bool Cluster::await(const std::function<bool()> &condition, std::chrono::milliseconds most) {
    constexpr auto silence_max = 200ms;
    const Clock::time_point deadline = Clock::now() + most;
    for (;;) {
        read_observers();
        if (condition()) return true;
        if (Clock::now() >= deadline) return false;
        await_observers(std::min(deadline, Clock::now() + silence_max));
    }
}

void Cluster::observe(std::chrono::milliseconds time) {
    await([] { return false; }, time);
}

void Cluster::forget_changes() {
    read_observers();
    for (const auto &node : nodes_)
        if (node->is_running()) node->observer().forget_changes();
}

} // namespace cluster_test
