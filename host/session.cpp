#include "host/session.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "host/server.h"

namespace ds::host {

namespace {

constexpr std::size_t read_bytes_max = 65'536; // of one session in one turn
constexpr int requests_per_portion = 32;       // whose answers are sent together
constexpr long pid_limit = 4'194'304;          // the kernel's largest

// Shared by all sessions: what is not handled at once is copied by the session's reader.
std::array<char, read_bytes_max> read_buffer;

} // namespace

Session::Session(Server &server, std::uint64_t id, UniqueFd connection)
    : server_(server), id_(id), fd_(std::move(connection)), interest_(EPOLLIN) {
    ucred credentials = {};
    socklen_t bytes = sizeof credentials;
    credentials.uid = static_cast<uid_t>(-1);
    getsockopt(fd_.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &bytes);
    pid_ = credentials.pid;
    uid_ = credentials.uid;
    server_.loop().watch(fd_.get(), interest_, *this);
}

Session::~Session() {
    server_.loop().forget(fd_.get());
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
    registrations_.emplace(record->handle, std::move(unfinished_));
    // The directory is silent about a name without services; the client is told that there are
    // none.
    if (!registration.is_pending) mark(registration);
}

void Session::drop_registration(Registration &registration) {
    outbound_.unmark(registration);
    if (&registration == unfinished_.get())
        unfinished_.reset();
    else
        registrations_.erase(registration.record->handle);
}

Registration *Session::find_registration(std::uint32_t handle) {
    const auto found = registrations_.find(handle);
    return found != registrations_.end() ? found->second.get() : nullptr;
}

// ---- sending ----

std::string &Session::replies() {
    schedule();
    return outbound_.replies();
}

void Session::mark(Registration &registration) {
    if (!outbound_.mark(registration)) server_.counters().coalesced++;
    schedule();
}

void Session::schedule() {
    if (is_scheduled_ || is_blocked_ || state_ == State::gone) return;
    is_scheduled_ = true;
    server_.flush_later(*this);
}

void Session::flush() {
    is_scheduled_ = false;
    if (state_ == State::gone) return;
    const Outbound::Result result = outbound_.send(fd_.get(), server_.output());
    if (result == Outbound::Result::broken) return gone();
    is_blocked_ = result == Outbound::Result::blocked;
    if (state_ == State::draining && outbound_.unsent_bytes() == 0) return gone();
    if (is_paused_ && outbound_.unsent_bytes() < answers_bytes_resume) server_.resume_later(*this);
    update_interest();
}

void Session::update_interest() {
    const bool wants_input = is_reading() && !is_paused_;
    const std::uint32_t interest = (wants_input ? static_cast<std::uint32_t>(EPOLLIN) : 0u) |
                                   (is_blocked_ ? static_cast<std::uint32_t>(EPOLLOUT) : 0u);
    if (interest == interest_) return;
    interest_ = interest;
    server_.loop().change(fd_.get(), interest, *this);
}

// ---- ending ----

void Session::end() {
    if (!is_reading()) return;
    depart();
    drain();
    server_.limit_drain(*this);
}

void Session::drain() {
    if (state_ == State::gone) return;
    state_ = State::draining;
    update_interest();
    schedule(); // a blocked one is flushed when its socket takes more
}

void Session::depart() {
    for (auto &[handle, registration] : registrations_)
        outbound_.unmark(*registration);
    if (client_ != nullptr) server_.directory().remove_client(client_);
    client_ = nullptr;
    registrations_.clear();
}

void Session::gone() {
    if (state_ == State::gone) return;
    state_ = State::gone;
    server_.remove_later(*this);
}

// ---- the loop's side ----

void Session::on_ready(std::uint32_t events) {
    if (state_ == State::gone) return;
    if ((events & EPOLLOUT) != 0) {
        is_blocked_ = false;
        schedule();
    }
    const bool can_read = (events & EPOLLIN) != 0 && is_reading() && !is_paused_;
    if (can_read)
        read();
    else if ((events & (EPOLLHUP | EPOLLERR)) != 0)
        gone();
}

void Session::read() {
    const ssize_t bytes = recv(fd_.get(), read_buffer.data(), read_buffer.size(), MSG_DONTWAIT);
    if (bytes > 0)
        handle({read_buffer.data(), static_cast<std::size_t>(bytes)});
    else if (bytes == 0)
        end();
    else if (errno != EAGAIN && errno != EINTR)
        gone();
}

void Session::handle_held_requests() {
    if (!is_paused_) return;
    is_paused_ = false;
    handle({});
}

void Session::send_answers() {
    if (is_blocked_) return;
    const Outbound::Result result = outbound_.send_answers(fd_.get());
    if (result == Outbound::Result::broken) return gone();
    is_blocked_ = result == Outbound::Result::blocked;
}

void Session::handle(std::string_view bytes) {
    reader_.supply(bytes);
    for (int handled = 0; is_reading(); handled++) {
        if (handled > 0 && handled % requests_per_portion == 0) send_answers();
        is_paused_ = outbound_.unsent_bytes() > answers_bytes_max;
        if (is_paused_) break;
        std::string_view message;
        const proto::Cut cut = reader_.next(message);
        if (cut == proto::Cut::partial) break;
        if (cut == proto::Cut::complete)
            server_.requests().handle(*this, message);
        else
            server_.requests().refuse_frame(*this);
    }
    reader_.settle();
    update_interest();
}

} // namespace ds::host
