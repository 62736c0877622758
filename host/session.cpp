#include "host/session.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "host/server.h"

namespace ds::host {

namespace {

constexpr std::size_t read_bytes_max = 65'536; // at once
constexpr int departures_at_once = 8;          // registrations and publications
constexpr long pid_limit = 4'194'304;          // the kernel's largest
constexpr std::uint32_t watched_always = EPOLLIN | EPOLLRDHUP | EPOLLET;

constexpr std::int64_t bytes_per_request = 2'048; // of a round: so many count as one more

// Shared by all sessions: what is not handled at once is copied by the session's reader.
std::array<char, read_bytes_max> read_buffer;

std::vector<gid_t> groups_of(int fd, gid_t primary) {
    std::vector<gid_t> groups(64);
    for (;;) {
        auto bytes = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        const int result = getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &bytes);
        const bool is_longer = result != 0 && errno == ERANGE;
        groups.resize(result == 0 || is_longer ? bytes / sizeof(gid_t) : 0);
        if (!is_longer) break;
    }
    groups.push_back(primary);
    return groups;
}

} // namespace

Session::Session(Server &server, std::uint64_t id, UniqueFd connection, const ucred &credentials,
                 Account &account)
    : server_(server), id_(id), fd_(std::move(connection)), account_(account),
      pid_(credentials.pid), gid_(credentials.gid), interest_(watched_always) {
    server_.loop().watch(fd_.get(), interest_, *this);
    account_.used[Resource::sessions]++;
}

Session::~Session() {
    server_.loop().forget(fd_.get());
    account_.used[Resource::sessions]--;
    account_.used[Resource::queued_bytes] -= counted_unsent_;
}

const Peer &Session::peer() {
    if (!peer_) peer_ = Peer{account_.uid, groups_of(fd_.get(), gid_)};
    return *peer_;
}

long Session::process_id() const {
    constexpr pid_t reserved_max = 1;
    if (pid_ > reserved_max) return pid_;
    return pid_limit + 1 + static_cast<std::uint32_t>(id_); // the low half differs among sessions
}

const char *Session::process_name() const {
    static char name[64];
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%d/comm", static_cast<int>(pid_));
    const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
    const ssize_t bytes = file ? ::read(file.get(), name, sizeof name - 1) : 0;
    name[bytes > 0 ? bytes : 0] = '\0';
    name[std::strcspn(name, "\n")] = '\0';
    for (char *c = name; *c != '\0'; c++)
        if (static_cast<unsigned char>(*c) < 0x20 || *c == 0x7f) *c = '?';
    return *name != '\0' ? name : "unknown";
}

// ---- the client in the directory ----

void Session::open(ds_client_t *client) {
    client_ = client;
    state_ = State::open;
}

Registration &Session::add_registration(std::uint64_t cookie) {
    unfinished_ = std::make_unique<Registration>();
    unfinished_->session = this;
    unfinished_->cookie = cookie;
    return *unfinished_;
}

void Session::finish_registration(Registration &registration, ds_client_reg_t *record) {
    registration.record = record;
    account_.used[Resource::registrations]++;
    registrations_.emplace(record->handle, std::move(unfinished_));
    // The directory is silent about a name without services; the client is told that there are
    // none.
    if (!registration.is_pending) mark(registration);
}

void Session::drop_registration(Registration &registration) {
    outbound_.unmark(registration);
    if (&registration == unfinished_.get()) return unfinished_.reset();
    account_.used[Resource::registrations]--;
    registrations_.erase(registration.record->handle);
}

Registration *Session::find_registration(std::uint32_t handle) {
    const auto found = registrations_.find(handle);
    return found != registrations_.end() ? found->second.get() : nullptr;
}

void Session::add_publication() {
    publications_++;
    account_.used[Resource::publications]++;
}

// The directory may have ended one by itself, which then has to wait for the session's end.
void Session::remove_publication() {
    if (publications_ == 0) return;
    publications_--;
    account_.used[Resource::publications]--;
}

// ---- sending ----

std::string &Session::replies() {
    schedule();
    return outbound_.replies();
}

void Session::mark(Registration &registration) {
    if (!is_reading()) return; // it departs
    if (!outbound_.mark(registration)) server_.counters().coalesced++;
    schedule();
}

void Session::mark_reconciled() {
    for (auto &[handle, registration] : registrations_)
        if (registration->was_reconciling) mark(*registration);
}

void Session::schedule() {
    if (to_flush_.is_linked() || is_blocked_ || state_ == State::gone) return;
    account_.to_flush.push_back(to_flush_);
    server_.shares().wake(account_);
}

void Session::flush() {
    to_flush_.unlink();
    if (state_ == State::gone) return;
    const Outbound::Result result = outbound_.send(fd_.get(), server_.fresh_output());
    count_unsent();
    if (result == Outbound::Result::broken) return gone();
    if (result == Outbound::Result::more) schedule();
    is_blocked_ = result == Outbound::Result::blocked;
    if (state_ == State::draining && outbound_.unsent_bytes() == 0) return gone();
    resume_if_taken();
    update_interest();
}

// Keeps the user's sum in step, and lets the user's other sessions go on when it falls below the
// limit.
void Session::count_unsent() {
    std::uint64_t &sum = account_.used[Resource::queued_bytes];
    const bool was_above = account_.is_above(Resource::queued_bytes);
    sum += outbound_.unsent_bytes() - counted_unsent_;
    counted_unsent_ = outbound_.unsent_bytes();
    if (was_above && !account_.is_above(Resource::queued_bytes)) server_.resume_paused(account_);
}

void Session::update_interest() {
    const std::uint32_t interest =
        watched_always | (is_blocked_ ? static_cast<std::uint32_t>(EPOLLOUT) : 0u);
    if (interest == interest_) return;
    interest_ = interest;
    server_.loop().change(fd_.get(), interest, *this);
}

// ---- ending ----

void Session::end() {
    if (!is_reading()) return;
    state_ = State::draining;
    depart();
    drain();
    server_.limit_drain(*this);
}

void Session::drain() {
    if (state_ == State::gone) return;
    state_ = State::draining;
    schedule(); // a blocked one is flushed when its socket takes more
}

void Session::gone() {
    if (state_ == State::gone) return;
    state_ = State::gone;
    if (client_ == nullptr || server_.is_stopping()) return server_.remove_later(*this);
    depart();
}

// A client that has little departs at once; one that has much, slice by slice.
void Session::depart() {
    if (client_ == nullptr || server_.is_stopping()) return;
    for (auto &[handle, registration] : registrations_)
        outbound_.unmark(*registration);
    go_on_departing();
}

// Registrations first, so that the client is not told of its own publications going.
void Session::go_on_departing() {
    for (int i = 0; i < departures_at_once; i++) {
        if (!registrations_.empty()) {
            Registration &registration = *registrations_.begin()->second;
            ds_client_reg_t *record = registration.record;
            drop_registration(registration);
            server_.directory().remove_registration(record);
        } else if (!server_.directory().take_down_one(client_)) {
            server_.directory().remove_client(client_);
            client_ = nullptr;
            account_.used[Resource::publications] -= std::exchange(publications_, 0);
            if (state_ == State::gone) server_.remove_later(*this);
            return;
        }
    }
    queue_to_serve();
}

// ---- the loop's side ----

void Session::on_ready(std::uint32_t events) {
    if (state_ == State::gone) return;
    if ((events & EPOLLOUT) != 0) {
        is_blocked_ = false;
        schedule();
    }
    if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) has_ended_ = true;
    if ((events & (EPOLLHUP | EPOLLERR)) != 0) has_hung_up_ = true;
    if ((events & EPOLLIN) != 0) has_input_ = true;
    if (has_hung_up_ && (!is_reading() || paused_.is_linked())) return gone();
    if ((has_input_ || has_ended_) && !paused_.is_linked()) queue_to_serve();
}

void Session::queue_to_serve(bool in_front) {
    if (to_serve_.is_linked() || (!is_reading() && client_ == nullptr)) return;
    account_.to_serve.insert(in_front ? account_.to_serve.begin() : account_.to_serve.end(),
                             to_serve_);
    server_.shares().wake(account_);
}

bool Session::has_to_wait() const {
    const std::size_t unsent = outbound_.unsent_bytes();
    return unsent > answers_bytes_max || (unsent > 0 && account_.is_above(Resource::queued_bytes));
}

void Session::pause() {
    if (has_hung_up_) return gone(); // nobody will take what is unsent
    account_.paused.push_back(paused_);
}

void Session::resume_if_taken() {
    const bool is_taken = outbound_.unsent_bytes() < answers_bytes_resume && !has_to_wait();
    if (!paused_.is_linked() || !is_taken) return;
    paused_.unlink();
    queue_to_serve();
}

bool Session::serve() {
    to_serve_.unlink();
    if (!is_reading()) {
        if (client_ != nullptr && !server_.is_stopping()) go_on_departing();
        return true;
    }
    bool is_done = false;
    reader_.supply({});
    while (is_reading() && !is_done && account_.round_left > 0 && !server_.shares().is_over()) {
        if (has_to_wait()) {
            pause();
            is_done = true;
        } else {
            is_done = !handle_next() && !read();
        }
    }
    reader_.settle();
    return is_done || !is_reading();
}

// False when no request is complete.
bool Session::handle_next() {
    std::string_view message;
    const proto::Cut cut = reader_.next(message);
    if (cut == proto::Cut::partial) return false;
    const std::size_t unsent = outbound_.unsent_bytes();
    if (cut == proto::Cut::complete)
        server_.requests().handle(*this, message);
    else
        server_.requests().refuse_frame(*this);
    const std::size_t answered = outbound_.unsent_bytes() - unsent;
    account_.round_left -= 1 + static_cast<std::int64_t>(answered) / bytes_per_request;
    count_unsent();
    return true;
}

// False when there is nothing to read. The loop tells when bytes arrive, once: a read that is not
// filled has taken all there were.
bool Session::read() {
    if (!has_input_ && !has_ended_) return false;
    reader_.settle();
    const ssize_t bytes = recv(fd_.get(), read_buffer.data(), read_buffer.size(), MSG_DONTWAIT);
    if (bytes > 0) account_.round_left -= bytes / bytes_per_request;
    has_input_ = bytes == static_cast<ssize_t>(read_buffer.size());
    if (bytes > 0) {
        reader_.supply({read_buffer.data(), static_cast<std::size_t>(bytes)});
        return true;
    }
    if (bytes == 0)
        end();
    else if (errno == EINTR)
        has_input_ = true;
    else if (errno != EAGAIN)
        gone();
    return bytes < 0 && errno == EINTR;
}

} // namespace ds::host
