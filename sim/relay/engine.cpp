#include "sim/relay/engine.h"

#include <algorithm>
#include <utility>

#include "platform/dsr.h"

namespace ds::sim {

namespace {

constexpr Time outage_grace = 3 * second;
constexpr Time retry_delay_min = 100 * ms;
constexpr Time retry_delay_max = 2 * second;
constexpr Time connect_deadline = 2 * second;
constexpr Time call_deadline = 3 * second;
constexpr Time claim_retry = 500 * ms;
constexpr Time audit_interval = 60 * second;
constexpr Time pulse = Store::ttl / 3;

std::uint64_t number(int node) {
    return static_cast<std::uint64_t>(node);
}

} // namespace

SimEngine::SimEngine(const Parts &parts, const Identity &identity, EngineHost &host, Random random)
    : parts_(parts), identity_(identity), host_(host), random_(random), flaws_(random.fork(7)) {
    view_.has_flaw = [this](Flaw flaw) { return has_flaw(flaw); };
}

SimEngine::~SimEngine() {
    *is_alive_ = false;
    parts_.store.unfollow(*this);
}

bool SimEngine::has_flaw(Flaw flaw) {
    if (parts_.settings.flaw != flaw) return false;
    return flaw == Flaw::engine_keeps_dead_nodes || flaws_.chance(20);
}

// ---- time ----

Time SimEngine::delay() {
    return 100 * us + random_.below(parts_.settings.delay_max);
}

void SimEngine::put_for_me(Time at, std::function<void()> action) {
    parts_.clock.at(at, identity_.node, [alive = is_alive_, action = std::move(action)] {
        if (*alive) action();
    });
}

void SimEngine::put_for_session(Time at, std::function<void()> action) {
    put_for_me(at, [this, session = session_, action = std::move(action)] {
        if (session == session_) action();
    });
}

// ---- connecting ----

void SimEngine::start(relay::Events &events) {
    events_ = &events;
    retry_delay_ = retry_delay_min;
    put_for_me(parts_.clock.now, [this] { attempt(); });
}

void SimEngine::attempt_later() {
    put_for_session(parts_.clock.now + retry_delay_, [this] { attempt(); });
    retry_delay_ = std::min(2 * retry_delay_, retry_delay_max);
}

void SimEngine::attempt() {
    session_ = (identity_.boot << 20) + (session_ & 0xfffff) + 1;
    if (!parts_.network.is_open(identity_.node, parts_.clock.now)) {
        const bool is_refused = random_.chance(500);
        if (is_refused) return attempt_later();
        return put_for_session(parts_.clock.now + connect_deadline, [this] { attempt_later(); });
    }
    put_for_session(parts_.clock.now + delay(), [this] {
        if (!parts_.network.is_open(identity_.node, parts_.clock.now)) return attempt_later();
        if (!parts_.store.claim(identity_.node, identity_.rack, identity_.boot,
                                identity_.predecessor, session_))
            return put_for_session(parts_.clock.now + claim_retry, [this] { attempt(); });
        put_for_session(parts_.clock.now + delay(), [this] {
            if (!parts_.network.is_open(identity_.node, parts_.clock.now)) return attempt_later();
            parts_.store.unfollow(*this);
            const auto listing = std::make_shared<const Store::Listing>(
                parts_.store.list(identity_.node, identity_.rack, *this));
            const Time arrival = parts_.clock.now + delay();
            arrivals_.fill(arrival); // the list comes before what follows it
            put_for_session(arrival, [this, listing] { deliver(*listing); });
        });
    });
}

void SimEngine::deliver(const Store::Listing &listing) {
    retry_delay_ = retry_delay_min;
    outage_ = 0;
    is_following_ = true;
    connected_at_ = parts_.clock.now;
    epoch_ = listing.epoch;
    parts_.trace.add("engine: list", number(identity_.node), listing.entries.size(),
                     is_reported_connected_);
    host_.turn([&] {
        if (is_reported_connected_) {
            own_.replace_known(listing, identity_.node);
            view_.replace(listing, identity_.node, *events_);
            give_leftovers();
            return;
        }
        is_reported_connected_ = true;
        const View::Told before = view_.clear();
        own_.forget_wishes();
        own_.replace_known(listing, identity_.node);
        events_->connected(); // the directory sends what it has: then what is left over is known
        view_.replace(listing, identity_.node, *events_);
        give_leftovers();
        events_->listed();
        view_.tell_changes_since(before, *events_);
    });
    wake_writer();
    keep_alive();
    audit_later();
}

// What was replayed and is still nobody's when the restart period has ended is offered again.
void SimEngine::audit_later() {
    put_for_session(parts_.clock.now + audit_interval, [this] {
        if (parts_.network.is_open(identity_.node, parts_.clock.now))
            host_.turn([this] { give_leftovers(); });
        wake_writer();
        audit_later();
    });
}

void SimEngine::give_leftovers() {
    for (const UpdatePtr &update : own_.take_leftovers(host_.is_own_period_open()))
        events_->received(address_of(identity_.node), update->borrowed());
}

// ---- following ----

void SimEngine::on_change(const ChangePtr &change) {
    const std::size_t stream =
        change->is_node ? 0
                        : 1 + (change->key.service_id + number(change->key.node)) % (streams - 1);
    Time &last = arrivals_[stream];
    last = std::max({last, parts_.clock.now + delay(), parts_.network.open_at(identity_.node) + 1});
    put_for_session(last, [this, change] { take(change); });
}

void SimEngine::take(const ChangePtr &change) {
    if (change->is_node && change->key.node == identity_.node) {
        const bool is_mine = !change->is_gone && change->node_key.session == session_;
        if (!is_mine && is_following_) lose_connection(); // the others took this node for dead
        return;
    }
    host_.turn([&] { view_.take(*change, *events_); });
    const UpdatePtr told = change->is_node ? nullptr : view_.told_last();
    if (!told || !random_.chance(parts_.settings.duplicates_per_mille)) return;
    put_for_session(parts_.clock.now + delay(), [this, key = change->key, told] {
        parts_.trace.add("engine: twice", number(identity_.node), told->service_id);
        host_.turn([&] { view_.tell_again(key, told, *events_); });
    });
}

// A way that went silent is noticed when an answer is missing.
void SimEngine::keep_alive() {
    const Time now = parts_.clock.now;
    if (parts_.network.is_open(identity_.node, now)) {
        if (!parts_.store.keep_alive(identity_.node, session_)) return lose_connection();
        return put_for_session(now + pulse, [this] { keep_alive(); });
    }
    put_for_session(now + call_deadline, [this] {
        if (!parts_.network.is_open(identity_.node, parts_.clock.now)) return lose_connection();
        keep_alive();
    });
}

void SimEngine::lose_connection() {
    if (!is_following_) return;
    parts_.trace.add("engine: lost", number(identity_.node));
    is_following_ = false;
    is_writer_awake_ = false;
    parts_.store.unfollow(*this);
    session_++;
    own_.abandon_writes();
    begin_outage();
    attempt_later();
}

void SimEngine::begin_outage() {
    if (!is_reported_connected_ || parts_.settings.is_holding || outage_ != 0) return;
    outage_ = ++outages_;
    put_for_me(parts_.clock.now + outage_grace, [this, outage = outage_] {
        if (outage_ != outage) return;
        outage_ = 0;
        is_reported_connected_ = false;
        parts_.trace.add("engine: outage", number(identity_.node));
        host_.turn([&] { events_->disconnected(); });
    });
}

void SimEngine::withdraw() {
    if (is_following_ && parts_.network.is_open(identity_.node, parts_.clock.now))
        parts_.store.withdraw(identity_.node, session_);
    session_++;
    is_following_ = false;
    parts_.store.unfollow(*this);
}

// ---- writing ----

int SimEngine::send(const dsr_update_t &borrowed) {
    if (!is_reported_connected_) return -1;
    auto update = std::make_shared<relay::Update>(relay::Update::copy_of(borrowed));
    const EntryKey key = EntryKey::of(identity_.node, identity_.rack, *update);
    parts_.trace.add("engine: sent", number(identity_.node), update->operation, update->service_id,
                     update->version);
    const bool is_deletion = update->operation == DSR_DELETE;
    update->operation = DSR_ADD; // the store holds states, not operations
    if (!has_flaw(Flaw::engine_forgets_write)) own_.wish(key, is_deletion ? nullptr : update);
    wake_writer();
    return 0;
}

void SimEngine::wake_writer() {
    if (is_writer_awake_ || !is_following_) return;
    is_writer_awake_ = true;
    put_for_session(parts_.clock.now + random_.below(ms), [this] {
        is_writer_awake_ = false;
        write();
    });
}

void SimEngine::write() {
    auto batch = std::make_shared<const Batch>(own_.next_batch());
    if (batch->empty()) return;
    transmit(parts_.clock.now + delay(), batch);
    if (!own_.is_settled()) wake_writer();
}

// On its way a write needs neither the connection nor this life any more; only when the way is
// blocked, somebody has to send it again.
void SimEngine::transmit(Time arrival, const std::shared_ptr<const Batch> &batch) {
    const auto arrive = [this, parts = parts_, node = identity_.node, session = session_,
                         is_alive = is_alive_, batch] {
        const bool is_waited_for = *is_alive && session_ == session;
        const Time open_at = parts.network.open_at(node);
        if (open_at > parts.clock.now) {
            if (is_waited_for) transmit(open_at + delay(), batch);
            return;
        }
        const Revision revision = parts.store.commit(node, session, *batch);
        if (!is_waited_for) return;
        put_for_session(parts.clock.now + delay(), [this, batch, revision] {
            if (revision == 0) return lose_connection();
            own_.complete(*batch, revision);
            wake_writer();
        });
    };
    parts_.clock.at(arrival, nobody, arrive);
}

} // namespace ds::sim
