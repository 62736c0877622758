#include "host/server.h"

#include <algorithm>
#include <cstdio>
#include <system_error>

namespace ds::host {

namespace {

constexpr std::uint64_t stop_ns = 1'000'000'000;  // for what is queued when the daemon stops
constexpr std::uint64_t drain_ns = 5'000'000'000; // for what is queued when one session ends
constexpr std::uint64_t ns_per_ms = 1'000'000;

} // namespace

Server::Server(Loop &loop, const Config &config, relay::Engine &engine, UniqueFd listening_socket)
    : loop_(loop), config_(config), engine_(engine),
      directory_(loop, *this, engine, config.node, config.console ? stderr : nullptr),
      requests_(*this), resume_alarm_([this] { resume(); }),
      drain_alarm_([this] { end_overdue_drains(); }), stop_alarm_([this] { loop_.stop(); }),
      started_ns_(loop.now_ns()) {
    if (listening_socket)
        listener_.emplace(loop_, std::move(listening_socket),
                          [this](UniqueFd connection) { accept(std::move(connection)); });
    loop_.at_end_of_turn([this] { end_turn(); });
}

Server::~Server() {
    loop_.disarm(resume_alarm_);
    loop_.disarm(drain_alarm_);
    loop_.disarm(stop_alarm_);
}

void Server::accept(UniqueFd connection) {
    try {
        sessions_.add(*this, std::move(connection));
        counters().sessions_total++;
    } catch (const std::system_error &error) {
        std::fprintf(stderr, "dsd: a connection is dropped: %s\n", error.what());
    }
}

void Server::stop() {
    if (is_stopping_) return;
    is_stopping_ = true;
    listener_.reset();
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

void Server::resume_later(const Session &session) {
    to_resume_.push_back(session.id());
    loop_.arm(resume_alarm_, loop_.now_ns());
}

void Server::resume() {
    const std::vector<std::uint64_t> ids = std::exchange(to_resume_, {});
    for (const std::uint64_t id : ids)
        if (Session *session = sessions_.find(id)) session->handle_held_requests();
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

void Server::end_turn() {
    while (!to_flush_.empty() || !to_remove_.empty()) {
        flushing_.swap(to_flush_);
        for (Session *session : flushing_)
            session->flush();
        flushing_.clear();
        // Departures change the directory: from here on the snapshots are of the past.
        output_.snapshots.clear();
        remove_gone();
    }
    if (is_stopping_ && sessions_.count() == 0) loop_.stop();
}

void Server::remove_gone() {
    const std::vector<std::uint64_t> ids = std::exchange(to_remove_, {});
    for (const std::uint64_t id : ids) {
        Session *session = sessions_.find(id);
        if (session == nullptr) continue;
        if (!is_stopping_) session->depart();
        std::erase(to_flush_, session);
        sessions_.remove(id);
    }
}

} // namespace ds::host
