// A watcher of one node that follows every name of the tests and writes down what it is told.
#pragma once
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/system/client.h"

namespace cluster_test {

namespace v1 = ds::v1;
using Clock = std::chrono::steady_clock;

// The names that tests publish.
extern const std::vector<std::string> names;

// What a node shows: for each service, as "web/blue SYSTEM of a", its endpoint.
using View = std::map<std::string, std::string>;

std::string service_text(const std::string &name, const std::string &instance, v1::Scope scope,
                         char node);
std::string endpoint_text(std::uint32_t port, bool is_local);
void add_to_view(View &view, const v1::Snapshot &snapshot);

struct Change {
    enum class Kind { appeared, changed, went };
    Clock::time_point at; // when the observer took notice
    Kind kind;
    std::string service;
};

class Observer {
  public:
    explicit Observer(const std::string &socket);

    int fd() { return client_.connection().fd(); }
    // Takes what has come. Throws when the daemon has ended the connection, or told a version that
    // is older than one before.
    void take();

    View view() const;
    bool is_reconciling() const; // whether any name was told so last

    const std::vector<Change> &changes() const { return changes_; }
    void forget_changes() { changes_.clear(); }
    // The services that were told so, each as often as it was, sorted and joined by "; ". Changes
    // of different services have no order.
    std::string losses() const { return told(Change::Kind::went); }
    std::string told(Change::Kind kind) const;

  private:
    struct Name {
        std::string text;
        std::uint64_t version = 0;
        bool is_reconciling = false;
        View view;
    };
    void take(const v1::Notification &notification);

    system_test::Client client_;
    std::map<std::uint32_t, Name> names_; // by handle
    std::vector<Change> changes_;
};

} // namespace cluster_test
