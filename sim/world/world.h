// Everything of one run: machines with their daemons, clients, the store and the ways to it, and
// the checkers that look on. The same plan gives the same run.
#pragma once
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/base/plan.h"
#include "sim/checkers/checkers.h"
#include "sim/relay/engine.h"
#include "sim/world/client.h"
#include "sim/world/daemon.h"

namespace ds::sim {

struct Machine {
    int rack = 0;
    bool is_up = true;
    bool is_gone = false; // for good
    Time frozen_until = 0;
    Time halted_at = 0;
    std::uint64_t boots = 0; // of this machine: what was planned before one does not concern it
    std::unique_ptr<Daemon> daemon;
    std::uint64_t last_boot = 0; // of the daemon before; 0: not known
    std::uint32_t daemon_pid = 0;
    std::uint32_t next_pid = 0;
    host::PublicationSum::Record published{};
};

struct Violation {
    std::string checker;
    std::string text;
    Time at = 0;
};

struct Outcome {
    std::optional<Violation> violation;
    std::uint64_t hash = 0;
    std::uint64_t events = 0;
    std::uint64_t turns = 0;
    Time time = 0;
};

class World {
  public:
    // After a calm began, everything agrees when so much time has passed.
    static constexpr Time settling_time = 90 * second;

    World(const Plan &plan, Trace::Sink sink);
    ~World();
    World(const World &) = delete;
    World &operator=(const World &) = delete;

    Outcome run();

    // ---- what its parts use ----

    Clock &clock() { return clock_; }
    Trace &trace() { return trace_; }
    const Random &random() const { return random_; }
    const Settings &settings() const { return plan_.settings; }
    Checkers &checkers() { return checkers_; }
    Store &store() { return store_; }
    Network &network() { return network_; }
    SimEngine::Parts engine_parts() { return {clock_, trace_, store_, network_, plan_.settings}; }
    // The first one counts; the run ends with it.
    void fail(const std::string &checker, const std::string &text);
    bool has_failed() const { return outcome_.violation.has_value(); }

    // ---- machines ----

    std::vector<Machine> &machines() { return machines_; }
    Machine &machine(int node) { return machines_[static_cast<std::size_t>(node)]; }
    bool is_deserted() const; // every machine is gone for good
    Daemon *daemon_of(int node) { return machine(node).daemon.get(); }
    // Null when another life has begun.
    Daemon *daemon_of(int node, std::uint64_t boot);
    void start_daemon(int node);
    void end_daemon(int node, bool is_known_to_next);

    // ---- clients ----

    std::deque<Client> &clients() { return clients_; }
    Client *client(std::uint32_t index);
    void start_client(std::uint32_t index, int node);

  private:
    void play(const Op &op);
    void play_client(const Op &op);
    void run_until(Time end);
    void begin_calm();
    void end_of_all();

    const Plan plan_;
    Clock clock_;
    Trace trace_;
    const Random random_;
    Store store_;
    Network network_;
    Checkers checkers_;
    std::vector<Machine> machines_;
    std::deque<Client> clients_;
    std::vector<Client *> client_at_; // by index; null: never started
    std::uint64_t next_boot_ = 1;
    std::uint64_t calms_ = 0;
    Outcome outcome_;
};

} // namespace ds::sim
