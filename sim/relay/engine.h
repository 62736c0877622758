// One life of a node's replication engine: the rules of the one on etcd (relay/etcd/replica,
// relay/etcd/transactions) on simulated connections. Changes of different keys arrive in any order,
// a change may be reported twice, a short interruption is not reported.
//
//   attempt -> claim -> list -> deliver -> follow -> (lost) -> attempt ...
#pragma once
#include <array>
#include <cstdint>
#include <functional>

#include "relay/etcd/replica.h"
#include "relay/etcd/transactions.h"
#include "sim/base/random.h"
#include "sim/relay/addresses.h"
#include "sim/relay/network.h"
#include "sim/relay/reports.h"
#include "sim/relay/store.h"

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
    bool is_reported_connected() const { return replica_.is_reported_connected; }
    bool has_listed() const { return has_listed_; } // ever
    const std::map<Reports::Key, Reports::Told> &told() const { return reports_.told(); }
    Time connected_at() const { return connected_at_; } // of this connection

  private:
    using Answer = std::function<void(const etcd::TransactionReply &)>;

    static constexpr std::size_t streams = 6;

    void on_change(const ChangePtr &change) override;
    void put_for_me(Time at, std::function<void()> action);
    void put_for_session(Time at, std::function<void()> action);
    Time delay();
    void attempt();
    void attempt_later();
    bool claim();
    void list();
    void deliver(const etcd::Listing &listing);
    void take(const etcd::WatchEvent &event);
    void audit_later();
    void clean_later();
    void clean();
    void sweep();
    void remove(const etcd::View::Remains &remains);
    void begin_outage();
    void keep_alive();
    void wake_writer();
    void write();
    void transmit(Time arrival, const std::shared_ptr<const etcd::Transaction> &transaction,
                  Answer answer);
    etcd::OwnEntries::Clock::time_point now() const;

    Parts parts_;
    Identity identity_;
    EngineHost &host_;
    Random random_;
    Random flaws_;
    std::shared_ptr<bool> is_alive_ = std::make_shared<bool>(true);
    std::uint64_t session_ = 0; // serial of the connection or attempt
    bool is_following_ = false;
    bool has_listed_ = false;
    Time connected_at_ = 0;
    std::uint64_t outage_ = 0; // serial of the interruption that is being timed; 0: none
    std::uint64_t outages_ = 0;
    bool is_writer_awake_ = false;
    bool is_cleaning_ = false;
    Time retry_delay_ = 0;
    std::array<Time, streams> arrivals_{}; // of the newest change in each stream
    etcd::Membership self_;
    std::int64_t own_create_revision_ = 0;
    Reports reports_;
    etcd::Replica replica_;
};

} // namespace ds::sim
