#include "host/loop.h"

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <system_error>

namespace ds::host {

namespace {

constexpr std::uint64_t ns_per_s = 1'000'000'000;
constexpr int events_per_turn = 256;

int checked(int result, const char *what) {
    if (result < 0) throw std::system_error(errno, std::generic_category(), what);
    return result;
}

void control(int epoll, int operation, int fd, std::uint32_t events, Handler *handler) {
    epoll_event event = {};
    event.events = events;
    event.data.ptr = handler;
    checked(epoll_ctl(epoll, operation, fd, &event), "epoll_ctl");
}

} // namespace

std::uint64_t Loop::monotonic_ns() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * ns_per_s +
           static_cast<std::uint64_t>(now.tv_nsec);
}

Loop::Loop(Clock clock)
    : clock_(clock), epoll_(checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")),
      timer_(
          checked(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), "timerfd_create")) {
    watch(timer_.get(), EPOLLIN, *this);
}

void Loop::watch(int fd, std::uint32_t events, Handler &handler) {
    control(epoll_.get(), EPOLL_CTL_ADD, fd, events, &handler);
}

void Loop::change(int fd, std::uint32_t events, Handler &handler) {
    control(epoll_.get(), EPOLL_CTL_MOD, fd, events, &handler);
}

void Loop::forget(int fd) {
    control(epoll_.get(), EPOLL_CTL_DEL, fd, 0, nullptr);
}

void Loop::arm(Alarm &alarm, std::uint64_t deadline_ns) {
    if (alarm.armed_) alarms_.erase({alarm.deadline_ns_, &alarm});
    alarm.deadline_ns_ = deadline_ns;
    alarm.armed_ = true;
    alarms_.insert({deadline_ns, &alarm});
    set_timer();
}

void Loop::disarm(Alarm &alarm) {
    if (!alarm.armed_) return;
    alarm.armed_ = false;
    alarms_.erase({alarm.deadline_ns_, &alarm});
    set_timer();
}

void Loop::set_timer() {
    itimerspec when = {}; // all zero disarms
    if (!alarms_.empty()) {
        // Zero would disarm; one nanosecond after boot has passed as well.
        const std::uint64_t deadline_ns = alarms_.begin()->first > 0 ? alarms_.begin()->first : 1;
        when.it_value.tv_sec = static_cast<time_t>(deadline_ns / ns_per_s);
        when.it_value.tv_nsec = static_cast<long>(deadline_ns % ns_per_s);
    }
    checked(timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &when, nullptr), "timerfd_settime");
}

void Loop::on_ready(std::uint32_t) {
    // Reading clears the readiness. The count does not matter: every turn looks for due alarms.
    std::uint64_t expirations = 0;
    while (read(timer_.get(), &expirations, sizeof expirations) < 0 && errno == EINTR) {
    }
}

void Loop::run_due_alarms() {
    if (alarms_.empty()) return;
    // Alarms armed by an action wait for the next turn, even when they are due at once.
    std::vector<Alarm *> due;
    const std::uint64_t now = clock_();
    for (const auto &[deadline_ns, alarm] : alarms_) {
        if (deadline_ns > now) break;
        due.push_back(alarm);
    }
    for (Alarm *alarm : due) {
        // An earlier action of this turn may have disarmed, moved or destroyed it.
        const bool still_due =
            !alarms_.empty() && alarms_.begin()->second == alarm && alarms_.begin()->first <= now;
        if (!still_due) continue;
        alarms_.erase(alarms_.begin());
        alarm->armed_ = false;
        const std::function<void()> action = alarm->action_; // may destroy the alarm
        action();
    }
    if (!due.empty()) set_timer();
}

void Loop::watch_signals(std::initializer_list<int> signals, std::function<void(int)> action) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals)
        sigaddset(&set, signal);
    checked(sigprocmask(SIG_BLOCK, &set, nullptr), "sigprocmask");
    signals_.fd = UniqueFd(checked(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC), "signalfd"));
    signals_.action = std::move(action);
    watch(signals_.fd.get(), EPOLLIN, signals_);
}

void Loop::Signals::on_ready(std::uint32_t) {
    signalfd_siginfo info = {};
    while (read(fd.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info))
        action(static_cast<int>(info.ssi_signo));
}

void Loop::turn(int timeout_ms) {
    std::array<epoll_event, events_per_turn> events;
    const int wait_ms = std::exchange(is_busy_, false) ? 0 : timeout_ms;
    const int count = epoll_wait(epoll_.get(), events.data(), events_per_turn, wait_ms);
    if (count < 0 && errno != EINTR) checked(count, "epoll_wait");
    for (int i = 0; i < count; i++) {
        const epoll_event &event = events[static_cast<std::size_t>(i)];
        static_cast<Handler *>(event.data.ptr)->on_ready(event.events);
    }
    run_due_alarms();
    for (const auto &hook : hooks_)
        hook();
}

void Loop::run() {
    running_ = true;
    while (running_)
        turn(-1);
}

} // namespace ds::host
