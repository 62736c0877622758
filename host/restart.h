// The periods in which what is known from before comes back: after the daemon's own restart, and
// after the relay was away. While one is open, snapshots say so, and what is missing is not taken
// for gone; at its end the directory settles what became of each service.
//
// The own period is opened by the daemon's start, when a relay will replay what this node had
// published or when the daemon before this one had publications. It ends as soon as all of it is
// back, at the latest when its timer expires. The relay's period is opened by a disconnection and
// ends as soon as the engine has delivered its list, at the latest when its timer expires.
//
// All timers are the platform's, below the parent of the global block; whoever lends them the time
// passes what expires on to on_timer().
#pragma once
#include <chrono>
#include <cstdint>
#include <functional>
#include <unordered_set>

#include "host/publication_sum.h"
#include "host/records.h"
#include "relay/engine.h"

namespace ds::host {

class Restart final : public relay::Events {
  public:
    // How long clients may take to come back when no relay says what is missing.
    static constexpr std::chrono::milliseconds default_window{5000};
    // How long clients wait for the relay to deliver what this node had published. What a client
    // publishes afterwards is recognised as the same, or as a change of it, and never told twice.
    static constexpr std::chrono::milliseconds hold_max{2000};

    // `on_end` is called when a period has ended: clients can be told so.
    Restart(Records &records, relay::Engine &engine, PublicationSum &sum,
            std::chrono::milliseconds window, std::function<void()> on_end);
    ~Restart();
    Restart(const Restart &) = delete;
    Restart &operator=(const Restart &) = delete;

    // Opens the own period if there is something to wait for, and starts the engine.
    void start();
    // Ends the own period if everything is back; to be called at the end of each turn.
    void end_if_complete();
    bool is_own_period_open() const;
    // False while clients have to wait; once true it stays so.
    bool takes_clients() const { return hold_timer_ == nullptr; }

    // A client has published; the service has taken over what the relay replayed of it, if that was
    // the same.
    void published(const ds_service_t &service);

    // A timer of the library has expired; it counts as running meanwhile.
    void on_timer(mgd_timer_t *timer);

    // ---- what the engine reports ----

    void connected() override;
    void disconnected() override;
    void received(const relay::NodeAddress &sender, const dsr_update_t &update) override;
    void listed() override;
    void node_down(const relay::NodeAddress &node) override;

  private:
    bool is_complete() const;
    bool is_published_again(const dsr_update_t &update) const;
    void end_periods();
    void open_own_period();
    void open_window();
    void close_window();
    void end_hold();

    Records &records_;
    relay::Engine &engine_;
    PublicationSum &sum_;
    std::chrono::milliseconds window_;
    std::function<void()> on_end_;
    std::unordered_set<std::uint32_t> waiting_; // replayed ids that no client has published again
    bool is_listed_ = false;
    mgd_timer_t *window_timer_ = nullptr; // null: not waiting for clients beside the relay
    bool is_window_over_ = false;
    mgd_timer_t *hold_timer_ = nullptr; // null: clients are taken
};

} // namespace ds::host
