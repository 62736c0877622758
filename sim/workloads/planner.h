// Makes plans: keeps the clients' state as the plan has it so far, so that operations make sense.
#pragma once
#include <cstdint>
#include <map>
#include <set>
#include <tuple>
#include <vector>

#include "sim/base/plan.h"
#include "sim/base/random.h"

namespace ds::sim {

class Planner {
  public:
    explicit Planner(const Settings &settings)
        : random(Random(settings.seed).fork(0x5eed)), plan_{settings, {}} {}

    const Settings &settings() const { return plan_.settings; }
    void add(const Op &op) { plan_.ops.push_back(op); }
    // By time, those of one moment as they were added.
    Plan finish();

    // ---- clients ----

    struct Client {
        std::uint32_t index = 0;
        std::uint32_t node = 0;
        bool is_alive = false;
        std::set<std::tuple<std::uint32_t, std::uint32_t, std::uint32_t>> published;
        std::set<std::uint32_t> watched;
    };
    Client &new_client(Time at, std::uint32_t node);
    void start(Time at, Client &client);
    void kill(Time at, Client &client);
    // Also a change of what is published already.
    void publish(Time at, Client &client, std::uint32_t name, std::uint32_t instance,
                 std::uint32_t scope);
    void withdraw(Time at, Client &client);
    void watch(Time at, Client &client, std::uint32_t name);
    void unwatch(Time at, Client &client);
    std::vector<Client> &clients() { return clients_; }

    std::uint32_t some_node() { return static_cast<std::uint32_t>(random.below(settings().nodes)); }
    std::uint32_t some_scope(); // most are seen beyond their node

    // What a client publishes changes its endpoint; false: it keeps it, only the role changes.
    bool changes_endpoints = true;
    bool changes_roles = true;
    // Publications of one process under one name have endpoints of their own.
    bool has_own_endpoints = true;
    // No two processes of a node publish the same instance of a name.
    bool has_own_instances = true;

    Random random;

  private:
    Plan plan_;
    std::vector<Client> clients_;
    std::map<std::tuple<std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t>, std::uint32_t>
        endpoints_; // by client, name, instance and scope
    std::uint32_t next_endpoint_ = 1;
};

} // namespace ds::sim
