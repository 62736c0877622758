// One life of a node's replication engine, behind the seam that the real ones stand behind. It
// keeps what the seam promises and no more: changes of different services and of nodes arrive in
// any order, a change may come twice, a short interruption is not reported.
//
//   attempt -> claim -> list -> deliver -> follow -> (lost) -> attempt ...
#pragma once
#include <array>
#include <cstdint>
#include <functional>

#include "relay/engine.h"
#include "sim/base/random.h"
#include "sim/relay/network.h"
#include "sim/relay/own_entries.h"
#include "sim/relay/store.h"
#include "sim/relay/view.h"

namespace ds::sim {

// The daemon around the engine.
class EngineHost {
  public:
    // Runs the function as a turn of the daemon: entered, and with what it brought about told.
    virtual void turn(const std::function<void()> &function) = 0;
    virtual bool is_own_period_open() const = 0;

  protected:
    ~EngineHost() = default;
};

class SimEngine final : public relay::Engine, private Follower {
  public:
    struct Parts {
        Clock &clock;
        Trace &trace;
        Store &store;
        Network &network;
        const Settings &settings;
    };
    struct Identity {
        int node;
        int rack;
        std::uint64_t boot;
        std::uint64_t predecessor; // 0: not known
    };

    SimEngine(const Parts &parts, const Identity &identity, EngineHost &host, Random random);
    ~SimEngine();
    SimEngine(const SimEngine &) = delete;
    SimEngine &operator=(const SimEngine &) = delete;

    const char *name() const override { return "simulated"; }
    bool is_replicating() const override { return true; }
    void start(relay::Events &events) override;
    int send(const dsr_update_t &update) override;

    // ---- what befalls it ----

    void lose_connection();
    // The node key and entries are withdrawn; the engine ends.
    void withdraw();

    bool is_connected() const { return is_following_; }
    Time connected_at() const { return connected_at_; } // of this connection
    bool is_reported_connected() const { return is_reported_connected_; }

  private:
    using Batch = std::vector<Store::Write>;

    static constexpr std::size_t streams = 6;

    void on_change(const ChangePtr &change) override;
    void put_for_me(Time at, std::function<void()> action);
    void put_for_session(Time at, std::function<void()> action);
    Time delay();
    void attempt();
    void attempt_later();
    void deliver(const Store::Listing &listing);
    void take(const ChangePtr &change);
    void give_leftovers();
    void audit_later();
    void begin_outage();
    void keep_alive();
    void wake_writer();
    void write();
    void transmit(Time arrival, const std::shared_ptr<const Batch> &batch);
    bool has_flaw(Flaw flaw);

    Parts parts_;
    Identity identity_;
    EngineHost &host_;
    Random random_;
    Random flaws_;
    relay::Events *events_ = nullptr;
    std::shared_ptr<bool> is_alive_ = std::make_shared<bool>(true);
    std::uint64_t session_ = 0; // serial of the connection or attempt
    bool is_following_ = false;
    Time connected_at_ = 0;
    bool is_reported_connected_ = false;
    std::uint64_t outage_ = 0; // serial of the interruption that is being timed; 0: none
    std::uint64_t outages_ = 0;
    bool is_writer_awake_ = false;
    std::uint64_t epoch_ = 0;
    Time retry_delay_ = 0;
    std::array<Time, streams> arrivals_{}; // of the newest change in each stream
    View view_;
    OwnEntries own_;
};

} // namespace ds::sim
