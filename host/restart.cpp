#include "host/restart.h"

#include <utility>

namespace ds::host {

namespace {

constexpr mgd_timer_duration_t own_period_with_relay = {30, 0};
constexpr mgd_timer_duration_t longer_for_the_relay = {5, 0};
constexpr std::int64_t ms_per_s = 1000;

mgd_timer_t *timer_of(int slot) {
    return reinterpret_cast<mgd_timer_t *>(ds_globals_get()->slot[slot]);
}

bool is_running(int slot) {
    mgd_timer_t *timer = timer_of(slot);
    return timer != nullptr && mgd_timer_leaf_running(timer) != 0;
}

mgd_timer_duration_t duration_of(std::chrono::milliseconds wait) {
    const auto fraction_ms = static_cast<std::uint64_t>(wait.count() % ms_per_s);
    return {static_cast<std::uint32_t>(wait.count() / ms_per_s),
            static_cast<std::uint32_t>((fraction_ms << 32) / ms_per_s)};
}

mgd_timer_t *new_timer() {
    return mgd_timer_leaf_new(timer_of(DS_GLOBAL_SLOT_TIMER_PARENT),
                              ds_globals_get()->slot[DS_GLOBAL_SLOT_TIMER_CONTEXT], 0, 0);
}

} // namespace

Restart::Restart(Records &records, relay::Engine &engine, PublicationSum &sum,
                 std::chrono::milliseconds window, std::function<void()> on_end)
    : records_(records), engine_(engine), sum_(sum), window_(window), on_end_(std::move(on_end)) {}

Restart::~Restart() {
    close_window();
    end_hold();
    for (const int slot : {DS_GLOBAL_SLOT_OWN_RESTART_TIMER, DS_GLOBAL_SLOT_RELAY_RESTART_TIMER}) {
        mgd_timer_release(timer_of(slot));
        ds_globals_get()->slot[slot] = 0;
    }
}

void Restart::start() {
    const bool has_to_wait = engine_.is_replicating() || sum_.had_publications();
    if (has_to_wait && window_.count() > 0)
        open_own_period();
    else
        sum_.settle();
    engine_.start(*this);
}

void Restart::open_own_period() {
    mgd_timer_t *timer = new_timer();
    if (timer == nullptr) return sum_.settle();
    ds_globals_get()->slot[DS_GLOBAL_SLOT_OWN_RESTART_TIMER] =
        reinterpret_cast<std::uint64_t>(timer);
    const bool with_relay = engine_.is_replicating();
    mgd_timer_leaf_start(timer, with_relay ? own_period_with_relay : duration_of(window_));
    if (!with_relay) return;
    open_window();
    hold_timer_ = new_timer();
    if (hold_timer_ != nullptr) mgd_timer_leaf_start(hold_timer_, duration_of(hold_max));
}

// Without memory for a timer nobody is waited for but those that the relay knows.
void Restart::open_window() {
    window_timer_ = new_timer();
    if (window_timer_ == nullptr)
        is_window_over_ = true;
    else
        mgd_timer_leaf_start(window_timer_, duration_of(window_));
}

void Restart::close_window() {
    mgd_timer_release(std::exchange(window_timer_, nullptr));
}

void Restart::end_hold() {
    mgd_timer_release(std::exchange(hold_timer_, nullptr));
}

bool Restart::is_own_period_open() const {
    return is_running(DS_GLOBAL_SLOT_OWN_RESTART_TIMER);
}

// A service of local scope is nowhere but in the sum, a service that the relay knows may belong to
// a client that did not come back with the others.
bool Restart::is_complete() const {
    const bool is_local_back = !sum_.had_publications() || sum_.is_restored() || is_window_over_;
    const bool is_replay_back = !engine_.is_replicating() || (is_listed_ && waiting_.empty());
    return is_local_back && is_replay_back;
}

void Restart::end_if_complete() {
    if (is_own_period_open() && is_complete()) end_periods();
}

// The directory settles the services of all nodes at once, so the periods end together.
void Restart::end_periods() {
    records_.drop_twins();
    ds_db_finalize_restart();
    for (const int slot : {DS_GLOBAL_SLOT_OWN_RESTART_TIMER, DS_GLOBAL_SLOT_RELAY_RESTART_TIMER})
        if (is_running(slot)) mgd_timer_leaf_stop(timer_of(slot));
    close_window();
    records_.drop_empty_names();
    sum_.settle();
    waiting_.clear();
    on_end_();
}

// Only the timers of the block end a period; one that a later disconnection has replaced does not.
void Restart::on_timer(mgd_timer_t *timer) {
    if (timer == window_timer_) {
        is_window_over_ = true;
        return close_window();
    }
    if (timer == hold_timer_) return end_hold();
    const bool is_own = timer == timer_of(DS_GLOBAL_SLOT_OWN_RESTART_TIMER);
    if (!is_own && timer != timer_of(DS_GLOBAL_SLOT_RELAY_RESTART_TIMER))
        return mgd_timer_release(timer);
    // The own period goes on for the relay's only, so with that both are over: at a later end,
    // services of other nodes that came back meanwhile would be settled as if they had not.
    if (is_own && is_running(DS_GLOBAL_SLOT_RELAY_RESTART_TIMER))
        return mgd_timer_leaf_start(timer, longer_for_the_relay);
    end_periods();
}

// ---- what the engine reports ----

void Restart::connected() {
    is_listed_ = false;
    dsr_connect_cb();
    records_.changed();
}

void Restart::disconnected() {
    is_listed_ = false;
    mgd_timer_release(timer_of(DS_GLOBAL_SLOT_RELAY_RESTART_TIMER));
    ds_globals_get()->slot[DS_GLOBAL_SLOT_RELAY_RESTART_TIMER] = 0;
    dsr_disconn_cb();
    records_.changed();
}

void Restart::received(const relay::NodeAddress &sender, const dsr_update_t &update) {
    dsr_receive_cb(update.operation, sender.data(), update.service_name, update.service_id,
                   update.instance, update.scope, update.pid, update.version, update.ep_bytes,
                   update.ep_len, update.attr_bytes, update.attr_len);
    records_.changed();
    const bool is_replayed =
        sender == records_.node() && update.operation != DSR_DELETE && is_own_period_open();
    if (is_replayed && !is_published_again(update)) waiting_.insert(update.service_id);
}

bool Restart::is_published_again(const dsr_update_t &update) const {
    const ds_service_t *service =
        records_.find_local_service(update.service_name, update.service_id);
    return service != nullptr && (service->flags & DS_SERVICE_FLAG_RECONCILE) != 0;
}

void Restart::published(const ds_service_t &service) {
    waiting_.erase(service.service_id);
}

void Restart::listed() {
    is_listed_ = true;
    end_hold();
    // Changes that follow the list must find the services settled. When the own period is open as
    // well it ends here, too: clients that are not back yet will publish anew.
    if (is_running(DS_GLOBAL_SLOT_RELAY_RESTART_TIMER)) end_periods();
}

void Restart::node_down(const relay::NodeAddress &node) {
    dsr_peer_down_cb(node.data());
    records_.drop_empty_names();
}

} // namespace ds::host
