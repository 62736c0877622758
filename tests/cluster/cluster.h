// Nodes that replicate through an etcd: real daemons, each with an observer, and clients that
// publish on them.
//
// Whatever a test waits for passes through Cluster, which reads all observers meanwhile, so that
// what they write down has the time at which it was told.
#pragma once
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/cluster/network.h"
#include "tests/cluster/observer.h"
#include "tests/cluster/publisher.h"

namespace cluster_test {

using namespace std::chrono_literals;

// How long the cluster may take to do what has to happen at some time. Restart periods of 30 s are
// within it.
std::chrono::milliseconds patience();

struct NodeOptions {
    std::string rack = "east";
    // Long enough for no busy machine to make a living node look dead. Tests that wait for a death
    // take less.
    std::chrono::milliseconds ttl = 15s;
    std::string on_outage = "expire";
    bool keep_published = false;
    Host *host = nullptr; // null: where the test is
};

class Node {
  public:
    // The daemon is not started yet. `letter` is the end of the node's address.
    Node(char letter, std::string endpoints, NodeOptions options);
    ~Node();
    Node(const Node &) = delete;
    Node &operator=(const Node &) = delete;

    void start();
    void stop(); // SIGTERM, and the exit has to be clean
    void kill(); // SIGKILL
    void freeze();
    void thaw();
    // The next daemon on this node knows nothing of the one before.
    void forget_runtime_dir();

    char letter() const { return letter_; }
    const NodeOptions &options() const { return options_; }
    std::string address() const;
    std::string socket() const { return daemon_->socket(); }
    std::string config_file() const { return directory_->path() + "/ds.toml"; }
    bool is_running() const { return daemon_.has_value(); }
    bool is_frozen() const { return is_frozen_; }
    Observer &observer() { return *observer_; }
    // How often this node's directory was told that the other is down.
    std::uint32_t times_down(const Node &other);

    // Whether it and the others have to know of each other at the moment, as the test that broke
    // something decides.
    bool is_connected = false;

  private:
    char letter_;
    std::string endpoints_;
    NodeOptions options_;
    std::optional<system_test::TemporaryDirectory> directory_;
    std::optional<system_test::Daemon> daemon_;
    std::optional<Observer> observer_;
    bool is_frozen_ = false;
};

// A client process and the node it is connected to.
struct Member {
    explicit Member(Node &home) : node(&home), publisher(home.socket()) {}
    Node *node;
    Publisher publisher;
};

class Cluster {
  public:
    // With the next letter, started.
    Node &add_node(const std::string &endpoints, const NodeOptions &options = {});
    Publisher &add_publisher(Node &node);

    // Ends clients and daemons, as destruction does.
    void end();

    const std::vector<std::unique_ptr<Node>> &nodes() const { return nodes_; }
    const std::vector<std::unique_ptr<Member>> &members() const { return members_; }

    // Reads observers until the condition holds; false when the time is over.
    bool await(const std::function<bool()> &condition, std::chrono::milliseconds most = patience());
    // Reads observers for as long as a fault has to last.
    void observe(std::chrono::milliseconds time);
    void forget_changes();

  private:
    void read_observers();
    // Until an observer has something to read, at most until then.
    void await_observers(Clock::time_point deadline);

    std::vector<std::unique_ptr<Node>> nodes_;
    std::vector<std::unique_ptr<Member>> members_;
};

} // namespace cluster_test
