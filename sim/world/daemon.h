// One life of a node's directory: the library's database behind a block of its own, the daemon's
// rules around it (host/records, host/restart, host/publication_sum), the engine, and the sessions
// of clients in place of sockets.
//
// Whatever happens to it happens in a turn: the node is entered, the thing is done, the sessions
// are told what has changed, the restart periods are looked after, the checkers look at the result.
#pragma once
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "host/records.h"
#include "host/restart.h"
#include "sim/platform/host.h"
#include "sim/relay/engine.h"
#include "sim/world/snapshot.h"

namespace ds::sim {

class Client;
class World;

// What a client asks of the daemon.
struct Request {
    enum Kind { publish, withdraw, watch, unwatch } kind = publish;
    std::uint32_t name = 0;
    std::uint32_t instance = 0;
    std::uint32_t scope = 0;
    std::uint32_t endpoint = 0;
    std::uint32_t ha_role = 0;
    std::uint64_t cookie = 0; // of a registration
};

// A publication that the daemon has accepted and neither ended nor been asked to end.
struct Published {
    std::uint64_t session = 0;
    Instance instance;
};

class Daemon final : public EngineHost {
  public:
    struct Life {
        int node = 0;
        int rack = 0;
        std::uint32_t pid = 0;
        std::uint64_t boot = 0;
        std::uint64_t predecessor = 0;
    };

    Daemon(World &world, const Life &life, host::PublicationSum::Record &record);
    ~Daemon(); // as a process that is killed
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    // ---- clients ----

    bool takes_clients() const { return restart_->takes_clients(); }
    // The id of the session; 0: refused for want of memory.
    std::uint64_t accept(Client &client);
    void handle(std::uint64_t session, const std::vector<Request> &requests);
    void session_ended(std::uint64_t session);

    // ---- the engine's side ----

    void turn(const std::function<void()> &function) override;
    bool is_own_period_open() const override;
    SimEngine &engine() { return engine_; }
    const SimEngine &engine() const { return engine_; }

    // ---- what checkers look at ----

    int node() const { return life_.node; }
    const Life &life() const { return life_; }
    ds_db_t *database() const;
    const std::map<std::uint32_t, std::vector<Published>> &published() const { return published_; }
    host::Records &records() { return records_; }
    PlatformHost &platform() { return platform_; }
    const PlatformHost &platform() const { return platform_; }
    // Runs a function that only looks.
    void look(const std::function<void()> &function);
    bool is_any_period_open();
    std::uint64_t turns() const { return turns_; }
    Time started() const { return started_; }

  private:
    struct Session;
    struct Registration {
        Session *session = nullptr;
        ds_client_reg_t *record = nullptr;
        std::uint64_t cookie = 0;
        bool is_pending = false;
        bool was_reconciling = false;
        SnapshotPtr told; // the newest, and the one before
        SnapshotPtr told_before;
    };
    struct Session {
        std::uint64_t id = 0;
        Client *client = nullptr;
        std::uint32_t pid = 0;
        ds_client_t *record = nullptr;
        std::map<std::uint32_t, Registration> registrations; // by name
    };

    static int on_notify(ds_service_elem_t *element, ds_service_publish_info *info);
    static int on_send(std::uint64_t client, ds_notif_msg *message);
    static long on_process_id(std::uint64_t client);
    static const char *on_process_name(std::uint64_t client);

    void fill_block();
    void enter();
    void leave();
    void arm(mgd_timer_t *timer, std::uint64_t deadline_ns);
    void handle_publish(Session &session, const Request &request);
    void handle_withdraw(Session &session, const Request &request);
    void handle_watch(Session &session, const Request &request);
    void handle_unwatch(Session &session, std::uint32_t name);
    void drop(Session &session);
    void mark(Registration &registration);
    void unmark(Registration &registration);
    void flush();
    void tell(Registration &registration);
    SnapshotPtr snapshot_for(Registration &registration);
    SnapshotPtr flawed(SnapshotPtr snapshot);
    void mark_reconciled();
    void free_database();
    bool has_flaw(Flaw flaw, std::uint32_t per_mille);
    void end_flawed_turn();
    void stand_still();

    World &world_;
    const Life life_;
    const Time started_;
    PlatformHost platform_;
    ds_globals_t block_{};
    mgd_timer_t *timer_parent_ = nullptr;
    std::map<mgd_timer_t *, std::uint64_t> armed_; // serial of the request
    std::uint64_t next_armed_ = 1;
    std::shared_ptr<bool> is_alive_ = std::make_shared<bool>(true);
    Random flaws_;
    host::PublicationSum sum_;
    host::Records records_;
    SimEngine engine_;
    std::optional<host::Restart> restart_;
    std::map<std::uint64_t, Session> sessions_;
    std::uint64_t next_session_ = 1;
    std::vector<Registration *> pending_;
    std::map<ds_service_elem_t *, SnapshotPtr> snapshots_; // of the state at changes_encoded_
    std::uint64_t changes_encoded_ = 0;
    std::map<std::uint32_t, std::vector<Published>> published_; // by name
    std::uint64_t turns_ = 0;
};

} // namespace ds::sim
