#include "sim/relay/engine.h"

#include <algorithm>
#include <chrono>
#include <set>
#include <utility>

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
constexpr Time cleanup_delay = 2 * second;
constexpr etcd::View::Limits limits = {768 * 1024, 1'000'000};

std::uint64_t number(int node) {
    return static_cast<std::uint64_t>(node);
}

} // namespace

SimEngine::SimEngine(const Parts &parts, const Identity &identity, EngineHost &host, Random random)
    : parts_(parts), identity_(identity), host_(host), random_(random),
      flaws_(random.fork(7)), self_{address_of(identity.node), rack_text(identity.rack), {}, {}, 0},
      reports_(self_.address, parts.settings, random.fork(8),
               [this](std::function<void()> action) {
                   put_for_session(parts_.clock.now + delay(), [this, action = std::move(action)] {
                       parts_.trace.add("engine: twice", number(identity_.node));
                       host_.turn(action);
                   });
               }),
      replica_(self_.address, keys_in(identity.rack), limits,
               [this] { return host_.is_own_period_open(); }) {
    self_.key = replica_.keys.node(self_.address);
}

SimEngine::~SimEngine() {
    *is_alive_ = false;
    parts_.store.unfollow(*this);
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
    reports_.start(events);
    replica_.events = &reports_;
    retry_delay_ = retry_delay_min;
    put_for_me(parts_.clock.now, [this] { attempt(); });
}

void SimEngine::attempt_later() {
    put_for_session(parts_.clock.now + retry_delay_, [this] { attempt(); });
    retry_delay_ = std::min(2 * retry_delay_, retry_delay_max);
}

void SimEngine::attempt() {
    session_++;
    is_cleaning_ = false;
    if (!parts_.network.is_open(identity_.node, parts_.clock.now)) {
        const bool is_refused = random_.chance(500);
        if (is_refused) return attempt_later();
        return put_for_session(parts_.clock.now + connect_deadline, [this] { attempt_later(); });
    }
    put_for_session(parts_.clock.now + delay(), [this] {
        if (!parts_.network.is_open(identity_.node, parts_.clock.now)) return attempt_later();
        if (!claim()) return put_for_session(parts_.clock.now + claim_retry, [this] { attempt(); });
        put_for_session(parts_.clock.now + delay(), [this] { list(); });
    });
}

// False while another daemon's node key stands.
bool SimEngine::claim() {
    Store &store = parts_.store;
    const etcd::KeyValue *found = store.find(self_.key);
    etcd::NodeInfo holder;
    if (found != nullptr) {
        etcd::decode_node(found->value, holder);
        const bool is_successor = holder.boot_id == std::to_string(identity_.boot) ||
                                  holder.boot_id == std::to_string(identity_.predecessor);
        if (!is_successor) return false;
    }
    if (!store.keep_alive(self_.lease)) self_.lease = store.grant_lease();
    self_.value =
        etcd::encode_node({std::to_string(identity_.boot), self_.rack, "host", 0, session_});
    own_create_revision_ = found != nullptr ? found->create_revision : store.revision() + 1;
    store.transact(found == nullptr ? etcd::claim(self_)
                                    : etcd::take_over(replica_.keys, self_, *found, holder.rack));
    return true;
}

void SimEngine::list() {
    if (!parts_.network.is_open(identity_.node, parts_.clock.now)) return attempt_later();
    const etcd::Keys &keys = replica_.keys;
    const std::vector<etcd::KeyRange> ranges = {keys.nodes(), keys.rack_entries(),
                                                keys.system_entries()};
    auto listing = std::make_shared<etcd::Listing>();
    listing->revision = parts_.store.revision();
    for (const etcd::KeyRange &range : ranges)
        for (etcd::KeyValue &item : parts_.store.range(range))
            if (item.key != self_.key)
                (replica_.is_own_entry(item.key) ? listing->own : listing->others)
                    .push_back(std::move(item));
    parts_.store.unfollow(*this);
    parts_.store.follow(*this, ranges);
    const Time arrival = parts_.clock.now + delay();
    arrivals_.fill(arrival); // the list comes before what follows it
    put_for_session(arrival, [this, listing] { deliver(*listing); });
}

void SimEngine::deliver(const etcd::Listing &listing) {
    retry_delay_ = retry_delay_min;
    outage_ = 0;
    is_following_ = true;
    connected_at_ = parts_.clock.now;
    parts_.trace.add("engine: list", number(identity_.node),
                     listing.own.size() + listing.others.size(), replica_.is_reported_connected);
    host_.turn([&] {
        has_listed_ = true;
        replica_.deliver(listing, own_create_revision_);
    });
    wake_writer();
    keep_alive();
    audit_later();
    clean_later();
}

// What was replayed and is still nobody's when the restart period has ended is offered again.
void SimEngine::audit_later() {
    put_for_session(parts_.clock.now + audit_interval, [this] {
        if (parts_.network.is_open(identity_.node, parts_.clock.now)) {
            host_.turn([this] { replica_.give_leftovers(); });
            sweep();
        }
        wake_writer();
        audit_later();
    });
}

// ---- following ----

void SimEngine::on_change(const ChangePtr &change) {
    Time &last = arrivals_[change->label % streams];
    last = std::max({last, parts_.clock.now + delay(), parts_.network.open_at(identity_.node) + 1});
    put_for_session(last, [this, change] { take(change->event); });
}

void SimEngine::take(const etcd::WatchEvent &event) {
    const etcd::KeyValue &item = event.item;
    if (item.key == self_.key) {
        const bool is_mine = !event.is_deletion && item.value == self_.value;
        if (!is_mine) lose_connection(); // the others took this node for dead
        return;
    }
    if (replica_.is_own_entry(item.key)) {
        if (replica_.take_own(event).is_foreign && replica_.own.is_busy(item.key)) wake_writer();
        return;
    }
    host_.turn([&] { replica_.take_other(event); });
    clean_later();
}

// One of the survivors removes what a dead node left.
void SimEngine::clean_later() {
    if (is_cleaning_ || !replica_.view.has_remains()) return;
    is_cleaning_ = true;
    const Time delay = cleanup_delay / 2 + random_.below(cleanup_delay / 2);
    put_for_session(parts_.clock.now + delay, [this] { clean(); });
}

void SimEngine::clean() {
    for (const etcd::View::Remains &remains : replica_.view.remains())
        remove(remains);
    put_for_session(parts_.clock.now + cleanup_delay, [this] {
        is_cleaning_ = false;
        clean_later();
    });
}

// What was left in a rack without a living node is watched by nobody.
void SimEngine::sweep() {
    if (!replica_.is_first()) return;
    std::set<std::pair<relay::NodeAddress, std::string>> dead;
    for (const etcd::KeyValue &item : parts_.store.range(replica_.keys.entries_of_all_racks()))
        if (const auto entry = replica_.keys.parse_entry(item.key);
            entry && entry->node != self_.address && !replica_.view.nodes().contains(entry->node))
            dead.insert({entry->node, entry->rack});
    for (const auto &[node, rack] : dead)
        remove({node, {replica_.keys.rack_entries_of(rack, node)}});
}

void SimEngine::remove(const etcd::View::Remains &remains) {
    transmit(parts_.clock.now + delay(),
             std::make_shared<const etcd::Transaction>(etcd::clean(replica_.keys, remains)),
             [](const etcd::TransactionReply &) {});
}

// A way that went silent is noticed when an answer is missing.
void SimEngine::keep_alive() {
    const Time now = parts_.clock.now;
    if (parts_.network.is_open(identity_.node, now)) {
        const etcd::KeyValue *held = parts_.store.find(self_.key);
        const bool is_mine = held != nullptr && held->value == self_.value;
        if (!parts_.store.keep_alive(self_.lease) || !is_mine) return lose_connection();
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
    reports_.connection_ended();
    replica_.own.abandon_writes();
    begin_outage();
    attempt_later();
}

void SimEngine::begin_outage() {
    if (!replica_.is_reported_connected || parts_.settings.is_holding || outage_ != 0) return;
    outage_ = ++outages_;
    put_for_me(parts_.clock.now + outage_grace, [this, outage = outage_] {
        if (outage_ != outage) return;
        outage_ = 0;
        parts_.trace.add("engine: outage", number(identity_.node));
        host_.turn([&] { replica_.report_outage(); });
    });
}

void SimEngine::withdraw() {
    if (is_following_ && parts_.network.is_open(identity_.node, parts_.clock.now))
        parts_.store.transact(etcd::withdraw(replica_.keys, self_));
    session_++;
    is_following_ = false;
    parts_.store.unfollow(*this);
}

// ---- writing ----

int SimEngine::send(const dsr_update_t &update) {
    const bool is_lost = parts_.settings.flaw == Flaw::engine_forgets_write && flaws_.chance(20);
    if (!is_lost && replica_.send(update) != 0) return -1;
    parts_.trace.add("engine: sent", number(identity_.node), update.operation, update.service_id,
                     update.version);
    wake_writer();
    return 0;
}

etcd::OwnEntries::Clock::time_point SimEngine::now() const {
    return etcd::OwnEntries::Clock::time_point(std::chrono::nanoseconds(parts_.clock.now));
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
    const auto batch =
        std::make_shared<const etcd::OwnEntries::Batch>(replica_.own.next_batch(now()));
    if (batch->writes.empty()) return;
    transmit(parts_.clock.now + delay(),
             std::make_shared<const etcd::Transaction>(etcd::write(self_, *batch)),
             [this, batch](const etcd::TransactionReply &reply) {
                 if (!reply.succeeded) return lose_connection();
                 replica_.own.complete(*batch, reply.revision);
                 wake_writer();
             });
    if (!replica_.own.is_settled()) wake_writer();
}

// On its way it needs neither the connection nor this life any more; only when the way is blocked,
// somebody has to send it again.
void SimEngine::transmit(Time arrival, const std::shared_ptr<const etcd::Transaction> &transaction,
                         Answer answer) {
    const auto arrive = [this, parts = parts_, node = identity_.node, session = session_,
                         is_alive = is_alive_, transaction, answer = std::move(answer)] {
        const bool is_waited_for = *is_alive && session_ == session;
        const Time open_at = parts.network.open_at(node);
        if (open_at > parts.clock.now) {
            if (is_waited_for) transmit(open_at + delay(), transaction, answer);
            return;
        }
        const etcd::TransactionReply reply = parts.store.transact(*transaction);
        if (!is_waited_for) return;
        put_for_session(parts.clock.now + delay(), [answer, reply] { answer(reply); });
    };
    parts_.clock.at(arrival, nobody, arrive);
}

} // namespace ds::sim
