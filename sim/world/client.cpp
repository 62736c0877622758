#include "sim/world/client.h"

#include <algorithm>
#include <utility>

#include "sim/world/world.h"

namespace ds::sim {

namespace {

constexpr std::uint32_t backoff_first_ms = 50;
constexpr std::uint32_t backoff_max_ms = 2000;
constexpr Time queue_interval = 2 * ms; // between two looks whether the daemon takes it
constexpr Time local_delay_max = 300 * us;
constexpr Time refusal_wait = second; // before a program tries again what was refused
constexpr std::size_t requests_at_once = 16;

Request request_of(Request::Kind kind, const Client::Key &key, const Client::Wish &wish) {
    const auto [name, instance, scope] = key;
    return {kind, name, instance, scope, wish.endpoint, wish.ha_role};
}

Client::Key key_of(const Request &request) {
    return {request.name, request.instance, request.scope};
}

} // namespace

Client::Client(World &world, std::uint32_t index, int node)
    : world_(world), index_(index), node_(node), random_(world.random().fork(0x1000 + index)),
      backoff_(backoff_first_ms, backoff_max_ms, random_.next()) {}

// ---- life ----

void Client::start(std::uint32_t pid) {
    pid_ = pid;
    is_alive_ = true;
    is_connected_ = false;
    attempt_++;
    session_ = 0;
    backoff_.reset();
    for (auto &[name, watch] : watches_) {
        watch = {};
        watch.cookie = ++last_cookie_;
    }
    for (auto &[key, wish] : wishes_)
        wish.is_accepted = false;
    world_.trace().add("client: starts", index_, pid);
    put(world_.clock().now + random_.below(local_delay_max), [this] { connect(); });
}

// What it has sent is still read, then the daemon finds the end.
void Client::kill() {
    if (!is_alive_) return;
    world_.trace().add("client: dies", index_, pid_);
    is_alive_ = is_connected_ = false;
    attempt_++;
    if (session_ == 0) return;
    world_.clock().at(next_arrival(last_out_), node_,
                      [&world = world_, node = node_, boot = boot_, session = session_] {
                          if (Daemon *daemon = world.daemon_of(node, boot))
                              daemon->session_ended(session);
                      });
    session_ = 0;
}

void Client::put(Time at, std::function<void()> action) {
    world_.clock().at(at, node_, [this, attempt = attempt_, action = std::move(action)] {
        if (is_alive_ && attempt == attempt_) action();
    });
}

// Messages of one connection arrive in their order.
Time Client::next_arrival(Time &last) {
    last = std::max(last, world_.clock().now + 20 * us + random_.below(local_delay_max));
    return last;
}

// ---- connection ----

void Client::connect() {
    Daemon *daemon = world_.daemon_of(node_);
    if (daemon == nullptr) return connect_later();
    // The request to connect waits in the socket's queue until the daemon takes it.
    put(next_arrival(last_out_), [this, boot = daemon->life().boot] { be_taken(boot); });
}

void Client::be_taken(std::uint64_t boot) {
    Daemon *there = world_.daemon_of(node_, boot);
    if (there != nullptr && !there->takes_clients())
        return put(world_.clock().now + queue_interval, [this, boot] { be_taken(boot); });
    const std::uint64_t session = there != nullptr ? there->accept(*this) : 0;
    if (session == 0) return connect_later();
    boot_ = there->life().boot;
    put(next_arrival(last_in_), [this, session] { connected(session); });
    session_ = session; // what the daemon tells from here on is for this session
}

void Client::connect_later() {
    put(world_.clock().now + backoff_.next_ms() * ms, [this] { connect(); });
}

void Client::connected(std::uint64_t session) {
    world_.trace().add("client: connected", index_, session);
    connected_at_ = world_.clock().now;
    is_connected_ = true;
    std::vector<Request> requests;
    for (auto &[key, wish] : wishes_) {
        requests.push_back(request_of(Request::publish, key, wish));
    }
    for (const auto &[name, watch] : watches_)
        requests.push_back({Request::watch, name, 0, 0, 0, 0, watch.cookie});
    ask(std::move(requests));
}

void Client::connection_ended() {
    if (!is_alive_ || session_ == 0) return;
    put(next_arrival(last_in_), [this] { lose_connection(); });
}

void Client::lose_connection() {
    world_.trace().add("client: lost", index_, session_);
    if (world_.clock().now - connected_at_ > backoff_max_ms * ms) backoff_.reset();
    attempt_++;
    session_ = 0;
    is_connected_ = false;
    for (auto &[key, wish] : wishes_)
        wish.is_accepted = false;
    for (auto &[name, watch] : watches_) {
        watch.is_told = false;
        watch.version = 0;
        watch.reported.lose_connection();
    }
    connect_later();
}

// ---- wishes ----

void Client::publish(const Key &key, std::uint32_t endpoint, std::uint32_t ha_role) {
    Wish &wish = wishes_[key];
    wish.endpoint = endpoint;
    wish.ha_role = ha_role;
    wish.is_accepted = false;
    ask({request_of(Request::publish, key, wish)});
}

void Client::withdraw(const Key &key) {
    const auto found = wishes_.find(key);
    if (found == wishes_.end()) return;
    const Request request = request_of(Request::withdraw, key, found->second);
    wishes_.erase(found);
    ask({request});
}

void Client::watch(std::uint32_t name) {
    const auto [watch, is_new] = watches_.try_emplace(name);
    if (!is_new) return;
    watch->second.cookie = ++last_cookie_;
    ask({{Request::watch, name, 0, 0, 0, 0, watch->second.cookie}});
}

void Client::unwatch(std::uint32_t name) {
    if (watches_.erase(name) != 0) ask({{Request::unwatch, name}});
}

void Client::forget_wishes() {
    wishes_.clear();
    watches_.clear();
}

void Client::ask(std::vector<Request> requests) {
    if (!is_connected_) return;
    for (std::size_t begin = 0; begin < requests.size(); begin += requests_at_once) {
        const std::size_t end = std::min(begin + requests_at_once, requests.size());
        std::vector<Request> some(requests.begin() + static_cast<std::ptrdiff_t>(begin),
                                  requests.begin() + static_cast<std::ptrdiff_t>(end));
        // What is sent arrives, also when the client dies meanwhile.
        world_.clock().at(next_arrival(last_out_), node_,
                          [&world = world_, node = node_, boot = boot_, session = session_,
                           some = std::move(some)] {
                              if (Daemon *daemon = world.daemon_of(node, boot))
                                  daemon->handle(session, some);
                          });
    }
}

// ---- answers and notifications ----

void Client::answer_later(std::uint64_t session, const Request &request, bool is_done) {
    if (!is_alive_ || session != session_) return;
    put(next_arrival(last_in_), [this, request, is_done] { answered(request, is_done); });
}

void Client::answered(const Request &request, bool is_done) {
    if (request.kind == Request::publish) {
        const auto found = wishes_.find(key_of(request));
        if (found == wishes_.end()) return;
        Wish &wish = found->second;
        const bool is_newest = wish.endpoint == request.endpoint && wish.ha_role == request.ha_role;
        if (!is_newest) return;
        wish.is_accepted = is_done;
        if (is_done) return;
    } else if (is_done || request.kind != Request::watch) {
        return;
    }
    world_.trace().add("client: refused", index_, request.kind, request.name);
    put(world_.clock().now + refusal_wait, [this, request] {
        if (request.kind == Request::watch) {
            const auto found = watches_.find(request.name);
            if (found != watches_.end() && found->second.cookie == request.cookie) ask({request});
        } else if (const auto found = wishes_.find(key_of(request));
                   found != wishes_.end() && !found->second.is_accepted) {
            publish(key_of(request), found->second.endpoint, found->second.ha_role);
        }
    });
}

void Client::tell_later(std::uint64_t session, std::uint64_t cookie, const SnapshotPtr &snapshot) {
    if (!is_alive_ || session != session_) return;
    put(next_arrival(last_in_), [this, cookie, snapshot] { told(cookie, snapshot); });
}

void Client::told(std::uint64_t cookie, const SnapshotPtr &snapshot) {
    const auto found = watches_.find(snapshot->name);
    if (found == watches_.end() || found->second.cookie != cookie) return;
    Watch &watch = found->second;
    const bool is_news = watch.reported.take(*snapshot);
    world_.trace().add("client: told", index_, snapshot->name, snapshot->version,
                       snapshot->instances.size() * 4 + snapshot->is_reconciling * 2 + is_news);
    world_.checkers().on_told(*this, *snapshot, watch);
    watch.is_told = true;
    watch.version = snapshot->version;
}

bool Client::is_settled() const {
    if (!is_alive_) return true;
    return is_connected_ &&
           std::all_of(wishes_.begin(), wishes_.end(),
                       [](const auto &wish) { return wish.second.is_accepted; }) &&
           std::all_of(watches_.begin(), watches_.end(),
                       [](const auto &watch) { return watch.second.is_told; });
}

} // namespace ds::sim
