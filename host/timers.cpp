#include "host/timers.h"

#include <new>

namespace ds::host {

Timers::Timers(Loop &loop, Expired expired) : loop_(loop), expired_(expired) {
    mgd_timer_loop_t table = {};
    table.loop = this;
    table.now_ns = [](void *self) { return static_cast<Timers *>(self)->loop_.now_ns(); };
    table.arm = [](void *self, mgd_timer_t *timer, std::uint64_t deadline_ns) {
        static_cast<Timers *>(self)->arm(timer, deadline_ns);
    };
    table.disarm = [](void *self, mgd_timer_t *timer) {
        static_cast<Timers *>(self)->disarm(timer);
    };
    table.on_expire = [](void *self, mgd_timer_t *timer, std::uint64_t) {
        static_cast<Timers *>(self)->expired_(timer);
    };
    parent_ = mgd_timer_parent_new(&table);
    if (parent_ == nullptr) throw std::bad_alloc();
}

Timers::~Timers() {
    for (auto &[timer, alarm] : alarms_)
        loop_.disarm(alarm);
    mgd_timer_release(parent_);
}

void Timers::arm(mgd_timer_t *timer, std::uint64_t deadline_ns) {
    const auto expire = [timer] { mgd_timer_expire(timer); };
    loop_.arm(alarms_.try_emplace(timer, expire).first->second, deadline_ns);
}

void Timers::disarm(mgd_timer_t *timer) {
    const auto found = alarms_.find(timer);
    if (found == alarms_.end()) return;
    loop_.disarm(found->second);
    alarms_.erase(found);
}

} // namespace ds::host
