// A client process: what it wants published and watched, and how it keeps at it. After a loss it
// connects again with a jittered backoff, publishes everything anew and registers anew.
#pragma once
#include <cstdint>
#include <map>
#include <tuple>
#include <vector>

#include "client/backoff.h"
#include "sim/world/daemon.h"
#include "sim/world/snapshot.h"

namespace ds::sim {

class World;

class Client {
  public:
    using Key = std::tuple<std::uint32_t, std::uint32_t, std::uint32_t>; // name, instance, scope
    struct Wish {
        std::uint32_t endpoint = 0;
        std::uint32_t ha_role = 0;
        bool is_accepted = false; // as it is now, in this session
    };
    struct Watch {
        Reported reported;
        std::uint64_t cookie = 0; // tells one registration of a name from the next
        bool is_told = false;     // in this session
        std::uint64_t version = 0;
    };

    Client(World &world, std::uint32_t index, int node);
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    // ---- its life ----

    void start(std::uint32_t pid);
    void kill();
    bool is_alive() const { return is_alive_; }
    std::uint32_t pid() const { return pid_; }
    std::uint32_t index() const { return index_; }
    int node() const { return node_; }

    // ---- its wishes; remembered while it is dead, too ----

    void publish(const Key &key, std::uint32_t endpoint, std::uint32_t ha_role);
    void withdraw(const Key &key);
    void watch(std::uint32_t name);
    void unwatch(std::uint32_t name);
    void forget_wishes();
    const std::map<Key, Wish> &wishes() const { return wishes_; }
    const std::map<std::uint32_t, Watch> &watches() const { return watches_; }
    bool is_settled() const;

    // ---- the daemon's side; what it sends takes its time ----

    void answer_later(std::uint64_t session, const Request &request, bool is_done);
    void tell_later(std::uint64_t session, std::uint64_t cookie, const SnapshotPtr &snapshot);
    // The daemon has ended.
    void connection_ended();

  private:
    void connect();
    void be_taken(std::uint64_t boot);
    void connect_later();
    void connected(std::uint64_t session);
    void lose_connection();
    void ask(std::vector<Request> requests);
    void answered(const Request &request, bool is_done);
    void told(std::uint64_t cookie, const SnapshotPtr &snapshot);
    Time next_arrival(Time &last);
    void put(Time at, std::function<void()> action);

    World &world_;
    const std::uint32_t index_;
    const int node_;
    std::uint32_t pid_ = 0;
    bool is_alive_ = false;
    bool is_connected_ = false;
    std::uint64_t attempt_ = 0; // serial, so that what belongs to an earlier one is dropped
    std::uint64_t session_ = 0; // 0: none
    std::uint64_t boot_ = 0;    // of the session's daemon
    std::uint64_t last_cookie_ = 0;
    Time connected_at_ = 0;
    Time last_in_ = 0;
    Time last_out_ = 0;
    Random random_;
    client::Backoff backoff_;
    std::map<Key, Wish> wishes_;
    std::map<std::uint32_t, Watch> watches_;
};

} // namespace ds::sim
