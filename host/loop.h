// The event loop of the daemon: one thread, one epoll set.
//
// A turn waits for events, serves each ready handler once, then the alarms that are due, then the
// end-of-turn hooks. A hook that leaves work for the next turn says so with turn_again(), and that
// turn only looks for events and does not wait.
//
// Handlers and alarms are owned by whoever made them. A handler may forget its descriptor at any
// time, but it must stay alive until the turn's hooks run, because its event may already have been
// fetched; it must expect to be called once more after it was forgotten.
#pragma once
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <set>
#include <utility>
#include <vector>

#include "host/unique_fd.h"

namespace ds::host {

class Handler {
  public:
    virtual void on_ready(std::uint32_t events) = 0; // EPOLLIN, EPOLLOUT, EPOLLHUP, EPOLLERR

  protected:
    ~Handler() = default;
};

// A one-shot timer. Disarm it before it is destroyed.
class Alarm {
  public:
    explicit Alarm(std::function<void()> action) : action_(std::move(action)) {}
    Alarm(const Alarm &) = delete;
    Alarm &operator=(const Alarm &) = delete;

    bool is_armed() const { return armed_; }

  private:
    friend class Loop;
    std::function<void()> action_;
    std::uint64_t deadline_ns_ = 0;
    bool armed_ = false;
};

class Loop final : private Handler {
  public:
    using Clock = std::uint64_t (*)(); // nanoseconds, CLOCK_MONOTONIC unless a test brings its own
    explicit Loop(Clock clock = monotonic_ns);
    Loop(const Loop &) = delete;
    Loop &operator=(const Loop &) = delete;

    void watch(int fd, std::uint32_t events, Handler &handler);
    void change(int fd, std::uint32_t events, Handler &handler);
    void forget(int fd);

    // Arms the alarm, or moves it when it is armed already. A deadline that has passed fires in the
    // next turn.
    void arm(Alarm &alarm, std::uint64_t deadline_ns);
    void disarm(Alarm &alarm);

    // Delivers these signals to `action` inside a turn instead of interrupting the process.
    void watch_signals(std::initializer_list<int> signals, std::function<void(int)> action);

    void at_end_of_turn(std::function<void()> hook) { hooks_.push_back(std::move(hook)); }
    void turn_again() { is_busy_ = true; }

    // One turn; waits at most timeout_ms for an event, -1 without limit, and not at all when the
    // turn before has left work.
    void turn(int timeout_ms);
    void run();                       // turns until stop()
    void start() { running_ = true; } // for whoever calls turn() instead
    void stop() { running_ = false; }
    bool is_running() const { return running_; }

    // Readable whenever there are events or alarms: another reactor can watch it and call turn(0),
    // and again while is_busy().
    int fd() const { return epoll_.get(); }
    bool is_busy() const { return is_busy_; }
    std::uint64_t now_ns() const { return clock_(); }

    static std::uint64_t monotonic_ns();

  private:
    void on_ready(std::uint32_t events) override; // the timer descriptor
    void run_due_alarms();
    void set_timer();

    struct Signals final : Handler {
        void on_ready(std::uint32_t events) override;
        UniqueFd fd;
        std::function<void(int)> action;
    };

    Clock clock_;
    UniqueFd epoll_;
    UniqueFd timer_;
    Signals signals_;
    std::set<std::pair<std::uint64_t, Alarm *>> alarms_; // by deadline
    std::vector<std::function<void()>> hooks_;
    bool running_ = false;
    bool is_busy_ = false;
};

} // namespace ds::host
