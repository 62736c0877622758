// The handle: its life, its descriptors, connecting and losing the connection.
#include "client/handle.h"

#include <cerrno>
#include <new>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <utility>

#include "client/query.h"
#include "client/view.h"
#include "proto/frame.h"

using ds::client::Deadline;
using ds::client::Failure;
using ds::client::Item;
using ds::client::no_deadline;
using ds::client::Outcome;

namespace {

// The kernel does not tell when a listener's queue, which was full, has room again.
constexpr std::chrono::milliseconds full_queue_wait{10};

constexpr auto delete_item = [](Item *item) { delete item; };

int error_of(Failure failure) {
    switch (failure) {
    case Failure::unreachable:
        return DS_CLIENT_ERROR_UNREACHABLE;
    case Failure::timeout:
        return DS_CLIENT_ERROR_TIMEOUT;
    case Failure::protocol:
        return DS_CLIENT_ERROR_PROTOCOL;
    case Failure::refused:
        return DS_CLIENT_ERROR_REFUSED;
    case Failure::closed:
    case Failure::none:
        break;
    }
    return DS_CLIENT_ERROR_DISCONNECTED;
}

// The kernel's clock for timers is that of std::chrono::steady_clock. All zero disarms.
itimerspec setting_for(Deadline due) {
    itimerspec setting{};
    if (due == no_deadline) return setting;
    const auto ns =
        std::chrono::duration_cast<std::chrono::nanoseconds>(due.time_since_epoch()).count();
    setting.it_value.tv_sec = ns / 1'000'000'000;
    setting.it_value.tv_nsec = ns % 1'000'000'000;
    return setting;
}

} // namespace

// ---- life ----

ds_client_handle::ds_client_handle(ds::client::Settings settings)
    : settings_(std::move(settings)),
      backoff_(settings_.backoff_first_ms, settings_.backoff_max_ms, settings_.backoff_seed),
      due_(std::chrono::steady_clock::now()) {}

ds_client_handle::~ds_client_handle() {
    for (Owned *items : {&publications_, &registrations_, &queries_, &orphans_, &dead_})
        items->clear_and_dispose(delete_item);
    stream_.close();
    if (timer_fd_ >= 0) ::close(timer_fd_);
    if (poll_fd_ >= 0) ::close(poll_fd_);
}

bool ds_client_handle::open() {
    poll_fd_ = ::epoll_create1(EPOLL_CLOEXEC);
    timer_fd_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (poll_fd_ < 0 || timer_fd_ < 0) return false;
    epoll_event event{};
    event.events = EPOLLIN;
    if (::epoll_ctl(poll_fd_, EPOLL_CTL_ADD, timer_fd_, &event) != 0) return false;
    arm_timer(true);
    return true;
}

void ds_client_handle::destroy() {
    if (!dispatching_) {
        delete this;
        return;
    }
    doomed_ = true;
    stream_.close();
}

bool ds_client_handle::is_over() const {
    return state_ == DS_CLIENT_DISCONNECTED && !settings_.reconnects;
}

bool ds_client_handle::is_settled() const {
    if (!is_connected() || !queries_.empty()) return false;
    for (const Owned *items : {&publications_, &registrations_}) {
        for (const Item &item : *items) {
            if (!item.is_settled()) return false;
        }
    }
    return true;
}

void ds_client_handle::get_info(ds_client_info_t &info) const {
    info.state = state_;
    info.error = error_;
    info.reason = reason_.c_str();
    info.status = static_cast<std::uint32_t>(status_);
    info.session = is_connected() ? hello_.session() : 0;
    info.connect_count = connect_count_;
    info.daemon_version = hello_.daemon_version().c_str();
    ds::client::copy_node(hello_.node(), info.node);
}

// ---- items ----

void ds_client_handle::adopt(Item &item, ds::client::Kind kind) {
    switch (kind) {
    case ds::client::Kind::publication:
        publications_.push_back(item);
        break;
    case ds::client::Kind::registration:
        registrations_.push_back(item);
        break;
    case ds::client::Kind::query:
        queries_.push_back(item);
        break;
    }
    queue(item);
}

void ds_client_handle::queue(Item &item) {
    if (!is_connected() || ds::client::is_linked<ds::client::WorkTag>(item)) return;
    work_.push_back(item);
    if (!dispatching_) arm_socket();
}

void ds_client_handle::note(Item &item) {
    if (item.orphan_ || ds::client::is_linked<ds::client::NoteTag>(item)) return;
    notes_.push_back(item);
    if (!dispatching_) arm_timer(true);
}

void ds_client_handle::orphan(Item &item) {
    item.orphan_ = true;
    static_cast<ds::client::Hook<ds::client::OwnerTag> &>(item).unlink();
    static_cast<ds::client::Hook<ds::client::NoteTag> &>(item).unlink();
    orphans_.push_back(item);
    release_if_done(item);
}

// While a callback may be running, the memory of what it was given stays.
void ds_client_handle::release_if_done(Item &item) {
    const bool is_owed =
        item.in_flight > 0 || item.pins > 0 || ds::client::is_linked<ds::client::WorkTag>(item);
    if (!item.orphan_ || is_owed) return;
    static_cast<ds::client::Hook<ds::client::OwnerTag> &>(item).unlink();
    if (dispatching_) {
        dead_.push_back(item);
    } else {
        delete &item;
    }
}

void ds_client_handle::cancel(std::uint64_t query_id) {
    for (Item &item : queries_) {
        auto &query = static_cast<ds::client::Query &>(item);
        if (query.id() != query_id) continue;
        query.retire();
        return;
    }
}

// ---- dispatch ----

int ds_client_handle::dispatch() {
    if (dispatching_) return DS_CLIENT_ERROR_BUSY;
    dispatching_ = true;
    int result = DS_CLIENT_OK;
    try {
        step();
    } catch (const std::bad_alloc &) {
        lose(DS_CLIENT_ERROR_NO_MEMORY, "out of memory");
        result = DS_CLIENT_ERROR_NO_MEMORY;
    }
    dispatching_ = false;
    if (doomed_) {
        delete this;
        return ds::client::handle_is_gone;
    }
    dead_.clear_and_dispose(delete_item);
    arm(result);
    return result;
}

void ds_client_handle::step() {
    tell_all();
    if (doomed_) return;
    on_timer();
    tell_all();
    if (doomed_ || !stream_.is_open()) return;
    receive();
    if (doomed_ || !stream_.is_open()) return;
    send();
    tell_all();
}

void ds_client_handle::on_timer() {
    std::uint64_t expirations = 0;
    if (::read(timer_fd_, &expirations, sizeof expirations) < 0) expirations = 0;
    if (due_ == no_deadline || std::chrono::steady_clock::now() < due_) return;
    if (is_over()) {
        due_ = no_deadline; // it was time to tell what memory had been wanting for
    } else if (stream_.is_open()) {
        lose(DS_CLIENT_ERROR_TIMEOUT, "the daemon did not answer in time");
    } else {
        attempt();
    }
}

void ds_client_handle::attempt() {
    int fd = -1;
    const auto answer_time = std::chrono::milliseconds(settings_.answer_ms);
    if (give_up_at_ == no_deadline) give_up_at_ = ds::client::deadline_in(answer_time);
    Outcome outcome = ds::client::connect_socket(settings_.socket, ds::client::no_wait, fd);
    if (outcome.failure == Failure::timeout && std::chrono::steady_clock::now() < give_up_at_) {
        due_ = ds::client::deadline_in(full_queue_wait);
        return;
    }
    if (!outcome.ok()) {
        lose(std::move(outcome));
        return;
    }
    stream_.open(fd);
    epoll_event event{};
    event.events = EPOLLIN;
    if (::epoll_ctl(poll_fd_, EPOLL_CTL_ADD, fd, &event) != 0) {
        lose(DS_CLIENT_ERROR_SYSTEM, "the kernel does not watch the connection");
        return;
    }
    watches_writing_ = false;
    state_ = DS_CLIENT_CONNECTING;
    state_is_news_ = true;
    due_ = give_up_at_;
    greet();
}

void ds_client_handle::greet() {
    ds::v1::Request request;
    request.set_allocated_hello(new ds::v1::Hello);
    request.mutable_hello()->set_protocol(ds::proto::protocol_version);
    request.mutable_hello()->set_display_name(settings_.display_name);
    in_flight_.push_back({stream_.append(request), request.body_case(), nullptr});
}

void ds_client_handle::lose(Outcome outcome) noexcept {
    lose(error_of(outcome.failure), std::move(outcome.text));
}

// The daemon ended the connection and said why. A refusal is no fault of the conversation.
void ds_client_handle::lose(ds::v1::Reply &reply) noexcept {
    const bool is_fault =
        reply.status() == ds::v1::STATUS_PROTOCOL || reply.status() == ds::v1::STATUS_OK;
    lose(is_fault ? DS_CLIENT_ERROR_PROTOCOL : DS_CLIENT_ERROR_REFUSED,
         std::move(*reply.mutable_text()));
    status_ = reply.status();
}

// What was told before stays; what was wanted is wanted again.
void ds_client_handle::lose(int error, std::string reason) noexcept {
    stream_.close();
    watches_writing_ = false;
    if (is_connected() && std::chrono::steady_clock::now() - connected_at_ >
                              std::chrono::milliseconds(backoff_.max_ms())) {
        backoff_.reset();
    }
    state_ = DS_CLIENT_DISCONNECTED;
    state_is_news_ = true;
    error_ = error;
    status_ = ds::v1::STATUS_OK;
    reason_ = std::move(reason);
    in_flight_.clear();
    work_.clear();
    give_up_at_ = no_deadline;
    for (Owned *items : {&publications_, &registrations_, &queries_, &orphans_}) {
        for (Item &item : *items) {
            item.in_flight = 0;
            item.lose_connection();
        }
    }
    for (auto next = orphans_.begin(); next != orphans_.end();)
        release_if_done(*next++);
    schedule(backoff_.next_ms());
}

void ds_client_handle::schedule(std::uint32_t wait_ms) noexcept {
    due_ = settings_.reconnects ? ds::client::deadline_in(std::chrono::milliseconds(wait_ms))
                                : no_deadline;
}

// ---- telling ----

// Memory is needed only before an item leaves the list: what could not be told stays in it.
void ds_client_handle::tell_all() {
    if (state_is_news_ && !doomed_) {
        state_is_news_ = false;
        const bool lost = state_ == DS_CLIENT_DISCONNECTED;
        if (settings_.state_fn != nullptr) {
            settings_.state_fn(settings_.ctx, this, state_, lost ? error_ : DS_CLIENT_OK,
                               lost ? reason_.c_str() : "");
        }
    }
    while (!doomed_ && !notes_.empty()) {
        Item &item = notes_.front();
        item.prepare_to_tell();
        notes_.pop_front();
        item.tell();
    }
}

// ---- what the descriptor waits for ----

void ds_client_handle::arm(int result) noexcept {
    // Without memory, telling would fail at once again: it waits for the next attempt instead.
    if (result == DS_CLIENT_ERROR_NO_MEMORY && due_ == no_deadline) {
        due_ = ds::client::deadline_in(std::chrono::milliseconds(backoff_.max_ms()));
    }
    arm_timer(result != DS_CLIENT_ERROR_NO_MEMORY && (state_is_news_ || !notes_.empty()));
    if (stream_.is_open()) arm_socket();
}

void ds_client_handle::arm_timer(bool now) noexcept {
    const itimerspec setting = setting_for(now ? std::chrono::steady_clock::now() : due_);
    ::timerfd_settime(timer_fd_, TFD_TIMER_ABSTIME, &setting, nullptr);
}

void ds_client_handle::arm_socket() noexcept {
    const bool wanted = stream_.unsent_bytes() > 0 || !work_.empty();
    if (wanted == watches_writing_) return;
    epoll_event event{};
    event.events = EPOLLIN;
    if (wanted) event.events |= EPOLLOUT;
    if (::epoll_ctl(poll_fd_, EPOLL_CTL_MOD, stream_.fd(), &event) == 0) watches_writing_ = wanted;
}
