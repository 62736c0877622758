// Lends the loop to the platform's timers, so that they expire in the loop's turns.
#pragma once
#include <unordered_map>

#include "host/loop.h"
#include "platform_default/platform_default.h"

namespace ds::host {

class Timers {
  public:
    using Expired = void (*)(mgd_timer_t *timer);
    // `expired` runs when a timer's time has come; the timer still counts as running while it does.
    Timers(Loop &loop, Expired expired);
    ~Timers();
    Timers(const Timers &) = delete;
    Timers &operator=(const Timers &) = delete;

    mgd_timer_t *parent() const { return parent_; }

  private:
    void arm(mgd_timer_t *timer, std::uint64_t deadline_ns);
    void disarm(mgd_timer_t *timer);

    Loop &loop_;
    Expired expired_;
    std::unordered_map<mgd_timer_t *, Alarm> alarms_;
    mgd_timer_t *parent_ = nullptr;
};

} // namespace ds::host
