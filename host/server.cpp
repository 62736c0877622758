#include "host/server.h"

#include <sys/socket.h>

#include <system_error>
#include <utility>

#include "host/handlers.h"
#include "host/message.h"
#include "host/wire.h"

namespace ds::host {

namespace {

constexpr std::uint64_t stop_ns = 1'000'000'000;  // for what is queued when the daemon stops
constexpr std::uint64_t drain_ns = 5'000'000'000; // for what is queued when one session ends
constexpr std::uint64_t ns_per_ms = 1'000'000;

} // namespace

Server::Server(Loop &loop, const Config &config, relay::Engine &engine, PublicationSum &sum,
               UniqueFd listening_socket)
    : loop_(loop), config_(config), engine_(engine), directory_(loop, *this, engine, sum, config),
      restart_(directory_, engine, sum, std::chrono::milliseconds(config.restart_window_ms),
               [this] { tell_end_of_restart(); }),
      requests_(*this), rules_(config.rules), accounts_(config.limits),
      listening_socket_(std::move(listening_socket)),
      drain_alarm_([this] { end_overdue_drains(); }), stop_alarm_([this] { loop_.stop(); }),
      started_ns_(loop.now_ns()) {
    loop_.at_end_of_turn([this] { end_turn(); });
    directory_.on_timer([this](mgd_timer_t *timer) { restart_.on_timer(timer); });
    restart_.start();
    listen_if_clients_are_taken();
}

Server::~Server() {
    directory_.on_timer({});
    loop_.disarm(drain_alarm_);
    loop_.disarm(stop_alarm_);
}

// Until then whoever connects stays in the kernel's backlog.
void Server::listen_if_clients_are_taken() {
    if (!listening_socket_ || !restart_.takes_clients()) return;
    listener_.emplace(loop_, std::move(listening_socket_),
                      [this](UniqueFd connection) { accept(std::move(connection)); });
}

void Server::accept(UniqueFd connection) {
    ucred credentials = {};
    socklen_t bytes = sizeof credentials;
    credentials.uid = static_cast<uid_t>(-1);
    getsockopt(connection.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &bytes);
    Account &account = accounts_.of(credentials.uid);
    std::string text = accounts_.refusal_of_sessions(account, sessions_.count());
    if (!text.empty()) {
        refuse(std::move(connection), std::move(text));
    } else {
        try {
            sessions_.add(*this, std::move(connection), credentials, account);
            counters().sessions_total++;
        } catch (const std::system_error &error) {
            tell(Severity::warning, std::string("a connection is dropped: ") + error.what());
        }
    }
    accounts_.release(account);
}

// The client learns it before it has said anything; a socket that is new has room for that much.
void Server::refuse(UniqueFd connection, std::string text) {
    v1::Reply reply;
    host::refuse(reply, v1::STATUS_LIMIT, std::move(text));
    std::string frame;
    append_event(frame, v1::Event::kReplyFieldNumber, reply);
    [[maybe_unused]] const ssize_t sent =
        send(connection.get(), frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

void Server::set_policy(std::vector<Rule> rules, Limits limits) {
    rules_ = std::move(rules);
    accounts_.set_limits(std::move(limits));
    accounts_.for_each([this](Account &account) { resume_paused(account); });
}

void Server::stop() {
    if (is_stopping_) return;
    is_stopping_ = true;
    listener_.reset();
    listening_socket_.reset();
    sessions_.for_each([](Session &session) { session.drain(); });
    loop_.arm(stop_alarm_, loop_.now_ns() + stop_ns);
}

std::uint64_t Server::uptime_ms() const {
    return (loop_.now_ns() - started_ns_) / ns_per_ms;
}

std::size_t Server::queued_bytes() const {
    std::size_t bytes = 0;
    sessions_.for_each([&bytes](const Session &session) { bytes += session.unsent_bytes(); });
    return bytes;
}

// ---- the directory's side ----

void Server::on_registration_changed(std::uint64_t argument) {
    if (is_stopping_) return; // the session may have gone without leaving the directory
    auto *registration = reinterpret_cast<Registration *>(argument);
    registration->session->mark(*registration);
}

long Server::process_id(std::uint64_t client) {
    const Session *session = sessions_.find(client);
    return session != nullptr ? session->process_id() : 0;
}

const char *Server::process_name(std::uint64_t client) {
    const Session *session = sessions_.find(client);
    return session != nullptr ? session->process_name() : "";
}

// ---- the turn ----

void Server::resume_paused(Account &account) {
    for (auto waiting = account.paused.begin(); waiting != account.paused.end();) {
        Session &session = waiting->session;
        ++waiting; // the session may leave the queue
        session.resume_if_taken();
    }
}

Output &Server::fresh_output() {
    if (changes_encoded_ != directory_.changes()) {
        output_.snapshots.clear();
        output_.resynced.clear();
    }
    changes_encoded_ = directory_.changes();
    return output_;
}

// Goes on with the user's round where the last slice has left it.
void Server::serve(Account &account) {
    while (account.has_work() && !shares_.is_over()) {
        if (account.round_left > 0 && !account.to_serve.empty()) {
            // A session that the slice interrupts stays in front, so that its answers leave
            // together at the round's end; then it is the next one's turn.
            Session &session = account.to_serve.front().session;
            if (!session.serve()) session.queue_to_serve(account.round_left > 0);
        } else if (!account.to_flush.empty()) {
            account.round_left = 0;
            account.to_flush.front().session.flush();
        } else {
            account.round_left = Shares::requests_per_round;
        }
    }
}

void Server::limit_drain(const Session &session) {
    drains_.push_back({loop_.now_ns() + drain_ns, session.id()});
    if (!drain_alarm_.is_armed()) loop_.arm(drain_alarm_, drains_.front().deadline_ns);
}

void Server::end_overdue_drains() {
    const std::uint64_t now_ns = loop_.now_ns();
    while (!drains_.empty() && drains_.front().deadline_ns <= now_ns) {
        if (Session *session = sessions_.find(drains_.front().session)) session->gone();
        drains_.pop_front();
    }
    if (!drains_.empty()) loop_.arm(drain_alarm_, drains_.front().deadline_ns);
}

void Server::tell_end_of_restart() {
    sessions_.for_each([](Session &session) { session.mark_reconciled(); });
}

void Server::end_turn() {
    const bool is_alone = accounts_.count() <= 1;
    shares_.run(is_alone, [this](Account &account) { serve(account); });
    restart_.end_if_complete(); // what was just served may be the last that was missing
    listen_if_clients_are_taken();
    remove_gone();
    if (shares_.has_work()) loop_.turn_again();
    if (is_stopping_ && sessions_.count() == 0) loop_.stop();
}

void Server::remove_gone() {
    const std::vector<std::uint64_t> ids = std::exchange(to_remove_, {});
    for (const std::uint64_t id : ids) {
        Session *session = sessions_.find(id);
        if (session == nullptr) continue;
        Account &account = session->account();
        sessions_.remove(id);
        accounts_.release(account);
    }
}

} // namespace ds::host
