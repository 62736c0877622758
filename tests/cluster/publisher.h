// A client process that publishes with the client library. After a loss of its daemon it comes back
// by itself and publishes everything again.
#pragma once
#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "tests/cluster/observer.h"
#include "tests/system/harness.h"

namespace cluster_test {

struct Service {
    std::string name, instance;
    v1::Scope scope = v1::SCOPE_SYSTEM;
    auto operator<=>(const Service &) const = default;
};

class Publisher {
  public:
    explicit Publisher(const std::string &socket);

    // These return when the daemon has answered.
    void publish(const Service &service, std::uint32_t port); // or changes the port
    void withdraw(const Service &service);
    // The same without a word from the daemon: it may stand still, or be away.
    void offer(const Service &service, std::uint32_t port);
    void retract(const Service &service);
    // With SIGKILL.
    void kill();

    bool is_alive() const { return process_.has_value(); }
    // What it has published, with the ports; nothing once it was killed.
    const std::map<Service, std::uint32_t> &published() const { return published_; }

  private:
    void tell(const std::string &verb, const Service &service, std::uint32_t port);

    std::optional<system_test::ClientProcess> process_;
    std::map<Service, std::uint32_t> published_;
};

} // namespace cluster_test
