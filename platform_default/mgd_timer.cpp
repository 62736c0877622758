// One-shot timers on the host's event loop.
#include "platform/mgd_timer.h"
#include "platform_default/platform_default.h"
#include <cstdint>
#include <new>

// A parent carries the loop; a leaf points at its parent. Both are handed out under the one type
// that the interface knows.
struct mgd_timer {
    mgd_timer *parent; // null = this is a parent
    mgd_timer_loop_t loop;
    std::uint64_t context;
    bool is_running;
    bool is_armed;    // the loop holds a deadline for it
    bool is_expiring; // on_expire is being called
    bool is_released; // by on_expire; the memory goes when on_expire is back
};

namespace {

constexpr std::uint64_t second_ns = 1'000'000'000;

bool is_leaf(const mgd_timer_t *timer) {
    return timer != nullptr && timer->parent != nullptr;
}

const mgd_timer_loop_t &loop_of(const mgd_timer_t *leaf) {
    return leaf->parent->loop;
}

// The fraction counts parts of 2^32 to a second.
std::uint64_t duration_ns(mgd_timer_duration_t duration) {
    return duration.seconds * second_ns + ((duration.fraction * second_ns) >> 32);
}

} // namespace

mgd_timer_t *mgd_timer_parent_new(const mgd_timer_loop_t *loop) {
    if (loop == nullptr || loop->now_ns == nullptr || loop->arm == nullptr ||
        loop->disarm == nullptr || loop->on_expire == nullptr)
        return nullptr;
    auto *parent = new (std::nothrow) mgd_timer{};
    if (parent != nullptr) parent->loop = *loop;
    return parent;
}

mgd_timer_t *mgd_timer_leaf_new(mgd_timer_t *parent, uint64_t context, uint32_t, uint32_t) {
    if (parent == nullptr || is_leaf(parent)) return nullptr;
    auto *leaf = new (std::nothrow) mgd_timer{};
    if (leaf == nullptr) return nullptr;
    leaf->parent = parent;
    leaf->context = context;
    return leaf;
}

void mgd_timer_leaf_start(mgd_timer_t *timer, mgd_timer_duration_t duration) {
    if (!is_leaf(timer) || timer->is_released) return;
    const mgd_timer_loop_t &loop = loop_of(timer);
    timer->is_running = true;
    timer->is_armed = true;
    loop.arm(loop.loop, timer, loop.now_ns(loop.loop) + duration_ns(duration));
}

void mgd_timer_leaf_stop(mgd_timer_t *timer) {
    if (!is_leaf(timer)) return;
    const mgd_timer_loop_t &loop = loop_of(timer);
    timer->is_running = false;
    if (!timer->is_armed) return;
    timer->is_armed = false;
    loop.disarm(loop.loop, timer);
}

int mgd_timer_leaf_running(mgd_timer_t *timer) {
    return is_leaf(timer) && timer->is_running;
}

void mgd_timer_expire(mgd_timer_t *timer) {
    // An expiry that the loop had already queued when the timer was stopped is late, not wrong.
    if (!is_leaf(timer) || !timer->is_armed || timer->is_expiring) return;
    const mgd_timer_loop_t &loop = loop_of(timer);
    timer->is_armed = false;
    timer->is_expiring = true;
    loop.on_expire(loop.loop, timer, timer->context);
    timer->is_expiring = false;
    if (!timer->is_armed) timer->is_running = false;
    if (timer->is_released) delete timer;
}

void mgd_timer_release(mgd_timer_t *timer) {
    if (timer == nullptr) return;
    mgd_timer_leaf_stop(timer);
    if (timer->is_expiring)
        timer->is_released = true;
    else
        delete timer;
}
